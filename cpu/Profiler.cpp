#include "cpu/Profiler.h"

#include <iomanip>
#include <map>
#include <ostream>
#include <sstream>

namespace orvun::cpu {

std::unordered_map<std::thread::id, std::unordered_map<std::string, Profiler::Profile>> Profiler::profiles;
std::unordered_map<std::thread::id, std::vector<std::string>> Profiler::profileStacks;
std::unordered_map<std::thread::id, std::string> Profiler::threadNames;
std::set<std::string> Profiler::extras;
bool Profiler::enabled = false;
SharedMutex Profiler::profilesMutex;

std::string& Profiler::Scratch()
{
    thread_local std::string path;
    return path;
}

namespace {

std::string ThreadLabel(std::thread::id id)
{
    auto named = Profiler::threadNames.find(id);
    if (named != Profiler::threadNames.end()) {
        return named->second;
    }
    std::ostringstream text;
    text << "thread " << id;
    return text.str();
}

void WriteStatistics(std::ostream& out, const Profiler::Profile& p)
{
    const double mean = p.count > 0 ? p.total / p.count : 0.0;
    out << " count=" << p.count << " total=" << p.total << " min=" << p.min << " max=" << p.max << " mean=" << mean;
}

} // namespace

void Profiler::Report(std::ostream& out)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(3);
    {
        // Exclusive: no key is added and no record changes while we read.
        SharedMutex::ExclusiveHold hold(profilesMutex);
        WriteTables(text);
    }
    out << text.str();
}

void Profiler::WriteTables(std::ostream& text)
{
    std::multimap<std::string, const std::unordered_map<std::string, Profile>*> threads;
    for (const auto& [id, records] : profiles) {
        threads.emplace(ThreadLabel(id), &records);
    }

    for (const auto& [label, records] : threads) {
        text << "[" << label << "]\n";
        std::map<std::string, const Profile*> paths;
        for (const auto& [path, record] : *records) {
            paths.emplace(path, &record);
        }
        for (const auto& [path, record] : paths) {
            text << "  " << path << " (ms):";
            WriteStatistics(text, *record);
            text << '\n';
            std::map<std::string, const Profile*> named;
            for (const auto& [name, extra] : record->extraProfiles) {
                named.emplace(name, &extra);
            }
            for (const auto& [name, extra] : named) {
                text << "    " << name << ": count=" << extra->count << " total=" << extra->total << '\n';
            }
        }
    }
}

} // namespace orvun::cpu
