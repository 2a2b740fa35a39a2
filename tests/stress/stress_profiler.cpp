// The profiler's tables shared by many threads: eight threads open nested
// scopes and record extras while another reads the tables out.
#include <optional>
#include <sstream>
#include <tuple>

#include "support/ProfilerTables.h"
#include "support/Stress.h"

namespace {

using orvun::cpu::Profiler;

TEST(ProfilerStress, EightWritersAndAReader)
{
    constexpr int kWriters = 8;
    const int iterations = support::Scaled(20000, 100);
    support::ResetProfiler(true);
    std::atomic<int> done{0};
    std::atomic<int> reports{0};
    std::vector<std::thread::id> ids(kWriters);
    // Thread kWriters reports until the writers are done. Each writer runs
    // scope "request" around one to three nested scopes, an extra of
    // `i % 1000` bytes in the innermost, and every 30th time an untimed
    // scope below "parse" with an extra of its own.
    support::RunThreads(kWriters + 1, [&](int w) {
        if (w == kWriters) {
            while (done < kWriters) {
                std::ostringstream out;
                Profiler::Report(out);
                ++reports;
            }
            return;
        }
        ids[static_cast<size_t>(w)] = std::this_thread::get_id();
        Profiler::SetThreadName("writer " + std::to_string(w));
        support::WaitFor([&] { return reports > 0; }); // overlap with the reader
        const char* const names[] = {"parse", "route", "encode"};
        for (int i = 0; i < iterations; ++i) {
            Profiler request("request", true);
            std::optional<Profiler> nested[3]; // closed innermost first
            for (int d = 0; d <= i % 3; ++d) {
                nested[d].emplace(names[d], true);
            }
            Profiler::Extra("bytes", static_cast<double>(i % 1000));
            if (i % 30 == 0) {
                Profiler untimed("untimed", false);
                Profiler::Extra("thread " + std::to_string(w), 1.0);
            }
        }
        ++done;
    });

    // Per thread: every scope counted, every extra added to each open scope
    // exactly once (the bytes add up to the sum of i % 1000), stacks empty.
    const double bytesTotal = iterations / 1000 * 499500.0 + (iterations % 1000) * (iterations % 1000 - 1) / 2.0;
    const support::ProfilerTables tables = support::Profiles();
    for (int w = 0; w < kWriters; ++w) {
        const auto id = ids[static_cast<size_t>(w)];
        EXPECT_TRUE(tables.Stack(id).empty());
        EXPECT_EQ(tables.Paths(id), (std::set<std::string>{"request", "request/parse", "request/parse/route",
                                                           "request/parse/route/encode", "request/parse/untimed"}));
        EXPECT_EQ(tables.Record("request/parse/route", "", id).count, iterations - (iterations + 2) / 3);
        EXPECT_EQ(tables.Record("request/parse/route/encode", "", id).count, iterations / 3);
        const auto bytes = tables.Record("request", "bytes", id);
        EXPECT_EQ(std::tuple(bytes.count, bytes.total, bytes.min, bytes.max),
                  std::tuple(iterations, bytesTotal, 0.0, static_cast<double>(std::min(iterations - 1, 999))));
        EXPECT_EQ(tables.Record("request/parse/untimed", "thread " + std::to_string(w), id).count,
                  (iterations + 29) / 30);
    }
    support::Figure("profiler reports read meanwhile", reports);
}

} // namespace
