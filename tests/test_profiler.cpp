// The scoped profiler: per-thread records keyed by nested paths, extras
// attached to open scopes, the on/off switch and the report.
#include "Support.h"

#include <gmock/gmock.h>

#include <latch>
#include <regex>
#include <sstream>
#include <type_traits>
#include <utility>

namespace {

using orvun::cpu::Profiler;
using orvun::cpu::SharedMutex;
using Profile = Profiler::Profile;
using Stack = std::vector<std::string>;

static_assert(std::is_same_v<decltype(Profiler::enabled), bool>);
static_assert(!std::is_copy_constructible_v<Profiler> && !std::is_copy_assignable_v<Profiler>);

// Read before any test touches the switch.
const bool kEnabledAtStart = Profiler::enabled;

// A copy of the tables, taken under the shared mode.
struct Tables {
    std::unordered_map<std::thread::id, std::unordered_map<std::string, Profile>> profiles;
    std::unordered_map<std::thread::id, Stack> stacks;
    std::unordered_map<std::thread::id, std::string> names;
    std::set<std::string> extras;

    bool Empty() const { return profiles.empty() && stacks.empty() && names.empty() && extras.empty(); }
    std::set<std::string> Paths(std::thread::id id = std::this_thread::get_id()) const
    {
        std::set<std::string> paths;
        if (profiles.contains(id)) {
            for (const auto& [path, record] : profiles.at(id)) {
                paths.insert(path);
            }
        }
        return paths;
    }
};
Tables Snapshot()
{
    SharedMutex::SharedHold hold(Profiler::profilesMutex);
    return {Profiler::profiles, Profiler::profileStacks, Profiler::threadNames, Profiler::extras};
}
Stack MyStack()
{
    const Tables tables = Snapshot();
    auto found = tables.stacks.find(std::this_thread::get_id());
    return found == tables.stacks.end() ? Stack{"(no stack)"} : found->second;
}
Profile Record(const std::string& path, const std::string& extra = "", std::thread::id id = std::this_thread::get_id())
{
    const Tables tables = Snapshot();
    if (!tables.profiles.contains(id) || !tables.profiles.at(id).contains(path)) {
        ADD_FAILURE() << "no record at " << path;
        return {};
    }
    const Profile& record = tables.profiles.at(id).at(path);
    if (extra.empty()) {
        return record;
    }
    auto found = record.extraProfiles.find(extra);
    return found == record.extraProfiles.end() ? Profile{} : found->second;
}

MATCHER_P4(Stats, count, total, min, max, "")
{
    *result_listener << "count " << arg.count << " total " << arg.total << " min " << arg.min << " max " << arg.max;
    return arg.count == count && arg.total == total && arg.min == min && arg.max == max;
}

// Clears shared holds that nobody gave back, so that a failing test does not
// hang every later exclusive request. Call with no other thread busy.
int TakeBackLeakedHolds()
{
    std::lock_guard<std::mutex> lock(Profiler::profilesMutex.mutex);
    return std::exchange(Profiler::profilesMutex.readers, 0);
}

class ProfilerTest : public testing::Test {
protected:
    void SetUp() override { support::ResetProfiler(true); }
    void TearDown() override { support::ResetProfiler(false); }
};

TEST(ProfilerSwitchTest, RecordingIsOffUntilSwitchedOn)
{
    EXPECT_FALSE(kEnabledAtStart);
    Profiler::SetEnabled(true);
    EXPECT_TRUE(Profiler::IsEnabled());
    Profiler::SetEnabled(false);
    EXPECT_FALSE(Profiler::enabled);
}

TEST_F(ProfilerTest, NestedScopesRecordUnderTheirPaths)
{
    {
        Profiler a("A");
        EXPECT_EQ(MyStack(), Stack{"A"});
        {
            Profiler b("B");
            Profiler untimed("C", false);
            EXPECT_EQ(MyStack(), (Stack{"A", "B", "C"}));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        Profiler unnamed("");
        EXPECT_EQ(MyStack(), (Stack{"A", ""}));
    }
    {
        Profiler b("B");
    }
    EXPECT_EQ(MyStack(), Stack{});
    EXPECT_EQ(Snapshot().Paths(), (std::set<std::string>{"A", "A/B", "A/B/C", "A/", "B"}));
    for (const char* path : {"A", "A/B", "A/", "B"}) {
        EXPECT_EQ(Record(path).count, 1) << path;
    }
    EXPECT_THAT(Record("A/B/C"), Stats(0, 0.0, -1.0, 0.0));
}

TEST_F(ProfilerTest, SwitchOnlyAffectsScopesOpenedLater)
{
    {
        Profiler open("Open");
        Profiler::SetEnabled(false);
        {
            Profiler inert("Inert");
            Profiler::Extra("off", 1.0);
            Profiler::SetEnabled(true);
            EXPECT_EQ(MyStack(), Stack{"Open"});
        } // ends without popping "Open"
        EXPECT_EQ(MyStack(), Stack{"Open"});
        Profiler::SetEnabled(false);
    } // still records and pops
    EXPECT_EQ(MyStack(), Stack{});
    EXPECT_EQ(Snapshot().Paths(), std::set<std::string>{"Open"});
    EXPECT_EQ(Record("Open").count, 1);
    EXPECT_TRUE(Record("Open").extraProfiles.empty());

    support::ResetProfiler(false);
    std::thread([] {
        Profiler a("A");
        Profiler b("B", false);
        Profiler::Extra("UDP RX", 1.0);
        b.Stop();
    }).join();
    EXPECT_TRUE(Snapshot().Empty());
}

TEST_F(ProfilerTest, TimedRunsAccumulate)
{
    for (int ms : {5, 3}) {
        Profiler scope("Sleep");
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    const Profile record = Record("Sleep");
    EXPECT_EQ(record.count, 2);
    // Wall-clock samples: loose bounds only.
    EXPECT_GE(record.min, 2.0);
    EXPECT_GE(record.max, 4.0);
    EXPECT_LT(record.max, 5000.0);
    EXPECT_DOUBLE_EQ(record.total, record.min + record.max);
}

TEST_F(ProfilerTest, OnlyTheFirstStopEndsTheScope)
{
    Profiler outer("Outer");
    {
        Profiler inner("Inner");
        inner.Stop();
        inner.Stop();
        EXPECT_EQ(MyStack(), Stack{"Outer"});
        Profiler::Extra("bytes", 5.0);
    } // the destructor stops once more
    EXPECT_EQ(MyStack(), Stack{"Outer"});
    EXPECT_EQ(Record("Outer/Inner").count, 1);
    EXPECT_TRUE(Record("Outer/Inner").extraProfiles.empty());
    EXPECT_EQ(Record("Outer", "bytes").count, 1);
    outer.Stop();
    outer.Stop();
    EXPECT_EQ(MyStack(), Stack{});
    EXPECT_EQ(Record("Outer").count, 1);
}

TEST_F(ProfilerTest, SecondThreadNameReplacesTheFirst)
{
    support::ResetProfiler(false); // naming ignores the switch
    Profiler::SetThreadName("first");
    Profiler::SetThreadName("second");
    std::thread([] { Profiler::SetThreadName("other"); }).join();
    const Tables tables = Snapshot();
    EXPECT_EQ(tables.names.size(), 2u);
    EXPECT_EQ(tables.names.at(std::this_thread::get_id()), "second");
}

struct AddCase {
    std::vector<double> samples;
    int count;
    double total, min, max;
};
void PrintTo(const AddCase& c, std::ostream* out) { *out << testing::PrintToString(c.samples); }

class ProfileAddTest : public testing::TestWithParam<AddCase> {};

TEST_P(ProfileAddTest, KeepsCountTotalMinAndMax)
{
    const AddCase& c = GetParam();
    Profile record;
    for (double sample : c.samples) {
        record.Add(sample);
    }
    EXPECT_THAT(record, Stats(c.count, c.total, c.min, c.max));
}

INSTANTIATE_TEST_SUITE_P(Samples, ProfileAddTest,
                         testing::Values(AddCase{{}, 0, 0.0, -1.0, 0.0}, AddCase{{5.0, 3.0}, 2, 8.0, 3.0, 5.0},
                                         AddCase{{100.0, 50.0}, 2, 150.0, 50.0, 100.0},
                                         AddCase{{0.0, 2.0}, 2, 2.0, 0.0, 2.0},
                                         AddCase{{-2.0, -5.0}, 2, -7.0, -5.0, 0.0},
                                         // -1.0 reads as "no sample yet", so the next one becomes the min.
                                         AddCase{{-1.0, 4.0}, 2, 3.0, 4.0, 4.0}));

TEST_F(ProfilerTest, ExtrasReachEveryOpenScope)
{
    {
        Profiler a("A");
        {
            Profiler b("B");
            Profiler::Extra("UDP TX", 100.0);
            EXPECT_THAT(Record("A", "UDP TX"), Stats(1, 100.0, 100.0, 100.0));
            EXPECT_THAT(Record("A/B", "UDP TX"), Stats(1, 100.0, 100.0, 100.0));
        }
        Profiler::Extra("UDP TX", 50.0);
        Profiler::Extra("TCP TX", -3.0);
    }
    EXPECT_THAT(Record("A", "UDP TX"), Stats(2, 150.0, 50.0, 100.0));
    EXPECT_THAT(Record("A/B", "UDP TX"), Stats(1, 100.0, 100.0, 100.0));
    EXPECT_THAT(Record("A", "TCP TX"), Stats(1, -3.0, -3.0, 0.0));
    EXPECT_TRUE(Record("A", "UDP TX").extraProfiles.empty());
    EXPECT_EQ(Snapshot().extras, (std::set<std::string>{"TCP TX", "UDP TX"}));
}

TEST_F(ProfilerTest, ExtrasTableTakesNamesOnlyFromRegisteredThreads)
{
    std::thread([] { Profiler::Extra("stranger", 1.0); }).join();
    EXPECT_TRUE(Snapshot().Empty());

    {
        Profiler scope("A");
    }
    Profiler::Extra("late", 3.0); // registered, but no scope open now
    EXPECT_EQ(Snapshot().extras, std::set<std::string>{"late"});
    EXPECT_EQ(Snapshot().Paths(), std::set<std::string>{"A"});
    EXPECT_TRUE(Record("A").extraProfiles.empty());
}

// A failure inside Extra must give back its shared hold, or every later
// first scope of a thread and every new extra name would wait forever.
TEST_F(ProfilerTest, FailedExtraGivesTheLockBack)
{
    Profiler a("A");
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        Profiler::profileStacks.at(std::this_thread::get_id()).push_back("ghost");
    }
    EXPECT_THROW(Profiler::Extra("bytes", 7.0), std::out_of_range);
    EXPECT_EQ(TakeBackLeakedHolds(), 0);
    EXPECT_THAT(Record("A", "bytes"), Stats(1, 7.0, 7.0, 7.0)); // the outer level was reached first
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        Profiler::profileStacks.erase(std::this_thread::get_id());
    }
    EXPECT_THROW(Profiler::Extra("bytes", 7.0), std::out_of_range);
    EXPECT_EQ(TakeBackLeakedHolds(), 0);
    std::thread([] { Profiler::SetThreadName("still works"); }).join();
    EXPECT_EQ(Record("A", "bytes").count, 1);
}

// The numbers on the report line for `label` (a path or an extra name).
std::vector<double> NumbersOnLine(const std::string& report, const std::string& label)
{
    static const std::regex number(R"(-?\d+(\.\d+)?)");
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        const auto start = line.find_first_not_of(' ');
        if (start != std::string::npos && line.compare(start, label.size(), label) == 0 &&
            line[start + label.size()] != '/') {
            const std::string rest = line.substr(start + label.size());
            std::vector<double> numbers;
            for (std::sregex_iterator it(rest.begin(), rest.end(), number), end; it != end; ++it) {
                numbers.push_back(std::stod(it->str()));
            }
            return numbers;
        }
    }
    ADD_FAILURE() << "no line for " << label << " in\n" << report;
    return {};
}

TEST_F(ProfilerTest, ReportListsThreadsPathsAndExtrasInSortedOrder)
{
    std::thread::id ids[3];
    std::latch alive(3); // all alive at once: every id is distinct
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            ids[t] = std::this_thread::get_id();
            if (t < 2) {
                Profiler::SetThreadName(t == 0 ? "zeta" : "alpha");
            }
            {
                Profiler second("second", false);
                Profiler first("first", false);
                Profiler::Extra("Zz", 1.0);
                Profiler::Extra("Aa", 2.0);
            }
            Profiler lone("lone", false);
            alive.arrive_and_wait();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        Profiler::profiles.at(ids[1])["fixed"].Add(2.0);
        Profiler::profiles.at(ids[1])["fixed"].Add(4.0);
    }
    std::ostringstream first;
    std::ostringstream second;
    Profiler::Report(first);
    Profiler::Report(second);
    const std::string report = first.str();
    EXPECT_EQ(report, second.str());

    size_t at = 0;
    for (const std::string text : {"alpha", "fixed", "lone", "second", "second/first", "Aa", "Zz", "zeta", "lone"}) {
        at = report.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " missing or out of order in\n" << report;
    }
    std::ostringstream unnamed;
    unnamed << ids[2];
    EXPECT_NE(report.find(unnamed.str()), std::string::npos) << "unnamed thread missing";
    EXPECT_EQ(NumbersOnLine(report, "fixed"), (std::vector<double>{2, 6, 2, 4, 3})); // count total min max mean
    EXPECT_EQ(NumbersOnLine(report, "Aa"), (std::vector<double>{1, 2}));             // count total
    EXPECT_EQ(NumbersOnLine(report, "Zz"), (std::vector<double>{1, 1}));
}

// Threads with the same scope and extra names, at once, with reports read
// meanwhile: each keeps exact records of its own.
TEST_F(ProfilerTest, ConcurrentThreadsKeepExactRecordsOfTheirOwn)
{
    constexpr int kThreads = 6;
    constexpr int kRounds = 300;
    std::vector<std::thread::id> ids(kThreads);
    std::latch alive(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ids[static_cast<size_t>(t)] = std::this_thread::get_id();
            Profiler::SetThreadName("worker" + std::to_string(t));
            for (int round = 0; round < kRounds; ++round) {
                Profiler outer("Outer", round % 2 == 0);
                Profiler::Extra("bytes", 1.0);
                Profiler inner("Inner");
                Profiler::Extra("bytes", 2.0);
                Profiler::Extra("own" + std::to_string(t), 1.0);
            }
            alive.arrive_and_wait();
        });
    }
    for (int i = 0; i < 20; ++i) {
        std::ostringstream report;
        Profiler::Report(report);
    }
    alive.arrive_and_wait();
    for (auto& thread : threads) {
        thread.join();
    }
    const Tables tables = Snapshot();
    EXPECT_EQ(tables.profiles.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(tables.names.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(tables.extras.size(), kThreads + 1u);
    for (const std::thread::id id : ids) {
        EXPECT_EQ(tables.Paths(id), (std::set<std::string>{"Outer", "Outer/Inner"}));
        EXPECT_EQ(Record("Outer", "", id).count, kRounds / 2);
        EXPECT_EQ(Record("Outer/Inner", "", id).count, kRounds);
        EXPECT_THAT(Record("Outer", "bytes", id), Stats(2 * kRounds, 3.0 * kRounds, 1.0, 2.0));
        EXPECT_THAT(Record("Outer/Inner", "bytes", id), Stats(kRounds, 2.0 * kRounds, 2.0, 2.0));
        EXPECT_EQ(tables.stacks.at(id), Stack{});
    }
}

} // namespace
