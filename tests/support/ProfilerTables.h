// The profiler's tables as the tests see them: cleared before a test and
// copied out under the exclusive mode, since library threads may be updating
// their records.
#pragma once

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "cpu/Profiler.h"

namespace support {

using orvun::cpu::Profiler;

// Clears the tables and sets the switch; call with no scope open.
inline void ResetProfiler(bool enabled)
{
    Profiler::SetEnabled(enabled);
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
    Profiler::threadNames.clear();
    Profiler::extras.clear();
}

struct ProfilerTables {
    using Profile = Profiler::Profile;
    std::unordered_map<std::thread::id, std::unordered_map<std::string, Profile>> profiles;
    std::unordered_map<std::thread::id, std::vector<std::string>> stacks;
    std::unordered_map<std::thread::id, std::string> names;
    std::set<std::string> extras;

    // The record of `path` (or its extra `extra`) on `thread`; an empty record when missing.
    Profile Record(const std::string& path, const std::string& extra = "",
                   std::thread::id thread = std::this_thread::get_id()) const
    {
        const auto records = profiles.find(thread);
        if (records == profiles.end() || !records->second.contains(path)) {
            return {};
        }
        const Profile& record = records->second.at(path);
        const auto found = record.extraProfiles.find(extra);
        return extra.empty() ? record : found == record.extraProfiles.end() ? Profile{} : found->second;
    }
    std::set<std::string> Paths(std::thread::id thread = std::this_thread::get_id()) const
    {
        std::set<std::string> paths;
        for (const auto& [path, record] :
             profiles.contains(thread) ? profiles.at(thread) : decltype(profiles)::mapped_type{}) {
            paths.insert(path);
        }
        return paths;
    }
    std::vector<std::string> Stack(std::thread::id thread = std::this_thread::get_id()) const
    {
        return stacks.contains(thread) ? stacks.at(thread) : std::vector<std::string>{"(no stack)"};
    }
};

inline ProfilerTables Profiles()
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    return {Profiler::profiles, Profiler::profileStacks, Profiler::threadNames, Profiler::extras};
}

// Count, total, min and max of a record, as one comparable text.
inline std::string Summary(const Profiler::Profile& record)
{
    std::ostringstream text;
    text << record.count << ' ' << record.total << ' ' << record.min << ' ' << record.max;
    return text.str();
}

} // namespace support
