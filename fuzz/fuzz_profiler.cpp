// Random scope names and nesting through the profiler, checked after every
// step against a model: the thread's stack holds exactly the open scopes'
// names, every path's record counts its timed ends, an unsampled record
// keeps min -1 and max 0, a sampled one has min <= max, extras add to every
// open scope with the same count/total/min/max rules, and reports list
// every path.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "cpu/Profiler.h"

namespace {

using orvun::cpu::Profiler;
using orvun::cpu::SharedMutex;

using fuzz::Check;
using fuzz::Input;

// Expected extra records are built with the profiler's own Profile::Add (its
// rules are checked case by case in the unit tests); what is checked here is
// that every open scope gets each extra once.
using Stats = Profiler::Profile;

struct Model {
    struct Open {
        std::unique_ptr<Profiler> scope;
        std::string name;
        bool live; // on the thread's stack (opened while enabled, not ended)
        bool timed;
    };
    bool enabled = true;
    bool registered = false; // the thread has opened an enabled scope
    std::vector<Open> open;
    std::map<std::string, int> timedEnds;                       // path -> records expected with this count
    std::map<std::string, std::map<std::string, Stats>> extras; // path -> extra name -> stats
    std::set<std::string> extraNames;
    std::string threadName;
    bool named = false;

    std::vector<std::string> LiveNames() const
    {
        std::vector<std::string> names;
        for (const auto& entry : open) {
            if (entry.live) {
                names.push_back(entry.name);
            }
        }
        return names;
    }
    // Path of each live scope, outermost first.
    std::vector<std::string> LivePaths() const
    {
        std::vector<std::string> paths;
        std::string path;
        for (const auto& name : LiveNames()) {
            path = paths.empty() ? name : path + "/" + name;
            paths.push_back(path);
        }
        return paths;
    }
};

const double kValues[] = {0.0, 1.0, -1.0, 1400.0, 65507.0, -0.5, 1e9, 3.25};

void CheckTables(const Model& model)
{
    const auto id = std::this_thread::get_id();
    SharedMutex::SharedHold hold(Profiler::profilesMutex);
    Check((Profiler::profiles.count(id) != 0) == model.registered, "thread registered or not as expected");
    Check((Profiler::profileStacks.count(id) != 0) == model.registered, "stack entry together with records");
    Check(Profiler::extras == model.extraNames, "extra names differ");
    Check((Profiler::threadNames.count(id) != 0) == model.named, "thread name presence");
    if (model.named) {
        Check(Profiler::threadNames.at(id) == model.threadName, "thread name differs");
    }
    if (!model.registered) {
        return;
    }
    Check(Profiler::profileStacks.at(id) == model.LiveNames(), "stack differs from the open scopes");
    const auto& records = Profiler::profiles.at(id);
    Check(records.size() == model.timedEnds.size(), "a record too many or too few");
    for (const auto& [path, count] : model.timedEnds) {
        auto found = records.find(path);
        Check(found != records.end(), "record missing");
        const auto& record = found->second;
        Check(record.count == count, "record count differs");
        if (record.count == 0) {
            Check(record.total == 0.0 && record.min == -1.0 && record.max == 0.0, "unsampled record changed");
        } else {
            Check(record.min <= record.max, "min above max");
        }
        const auto expected = model.extras.find(path);
        const size_t extraCount = expected == model.extras.end() ? 0 : expected->second.size();
        Check(record.extraProfiles.size() == extraCount, "extra records differ");
        if (expected == model.extras.end()) {
            continue;
        }
        for (const auto& [name, stats] : expected->second) {
            auto extra = record.extraProfiles.find(name);
            Check(extra != record.extraProfiles.end(), "extra record missing");
            Check(extra->second.count == stats.count && extra->second.total == stats.total &&
                      extra->second.min == stats.min && extra->second.max == stats.max,
                  "extra statistics differ");
            Check(extra->second.extraProfiles.empty(), "an extra record has extras");
        }
    }
}

void Reset(bool enabled)
{
    Profiler::SetEnabled(enabled);
    SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
    Profiler::threadNames.clear();
    Profiler::extras.clear();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    Input input(data, size);
    Model model;
    model.enabled = input.Byte() % 4 != 0;
    Reset(model.enabled);
    while (!input.Empty()) {
        switch (input.Byte() % 8) {
        case 0:
        case 1: { // open a scope
            if (model.open.size() >= 48) {
                break;
            }
            const std::string name = input.Text(12);
            const bool timed = input.Byte() % 4 != 0;
            const bool live = model.enabled;
            if (live) {
                const auto names = model.LiveNames();
                std::string path;
                for (const auto& n : names) {
                    path += n + "/";
                }
                path += name;
                model.timedEnds.emplace(path, 0);
                model.registered = true;
            }
            model.open.push_back({std::make_unique<Profiler>(name, timed), name, live, timed});
            break;
        }
        case 2: { // end the innermost scope by destroying it
            if (model.open.empty()) {
                break;
            }
            auto& last = model.open.back();
            if (last.live && last.timed) {
                ++model.timedEnds[model.LivePaths().back()];
            }
            model.open.pop_back();
            break;
        }
        case 3: { // end it with Stop; its later destruction does nothing more
            if (model.open.empty()) {
                break;
            }
            auto& last = model.open.back();
            if (last.live) {
                if (last.timed) {
                    ++model.timedEnds[model.LivePaths().back()];
                }
                last.live = false;
            }
            last.scope->Stop();
            break;
        }
        case 4:
        case 5: { // record an extra
            const std::string name = input.Text(6);
            const double value = kValues[input.Byte() % std::size(kValues)] + input.Byte();
            Profiler::Extra(name, value);
            if (model.enabled && model.registered) {
                model.extraNames.insert(name);
                for (const auto& path : model.LivePaths()) {
                    model.extras[path][name].Add(value);
                }
            }
            break;
        }
        case 6: // switch recording; open scopes keep their state
            model.enabled = !model.enabled;
            Profiler::SetEnabled(model.enabled);
            break;
        default: { // name the thread, or read the tables out
            if (input.Byte() % 2 == 0) {
                model.threadName = input.Text(15);
                model.named = true;
                Profiler::SetThreadName(model.threadName);
            } else {
                std::ostringstream report;
                Profiler::Report(report);
                for (const auto& [path, count] : model.timedEnds) {
                    Check(report.str().find("  " + path + " (ms):") != std::string::npos, "report lacks a path");
                }
            }
            break;
        }
        }
        CheckTables(model);
    }
    while (!model.open.empty()) {
        model.open.pop_back();
    }
    return 0;
}
