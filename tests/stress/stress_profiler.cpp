// The profiler's tables shared by many threads: eight threads open nested
// scopes and record extras while another reads the tables out.
#include <sstream>
#include <tuple>

#include "support/ProfilerTables.h"
#include "support/Stress.h"

namespace {

using orvun::cpu::Profiler;

// Each writer runs `iterations` of: scope "request" around one to three
// nested scopes, an extra of `iteration % 1000` bytes in the innermost, and
// every 30th time an untimed scope below "parse" with an extra of its own.
void Writer(int index, int iterations)
{
    Profiler::SetThreadName("writer " + std::to_string(index));
    static const char* const kNames[] = {"parse", "route", "encode"};
    for (int i = 0; i < iterations; ++i) {
        Profiler request("request", true);
        const int depth = 1 + i % 3;
        std::vector<std::unique_ptr<Profiler>> nested;
        for (int d = 0; d < depth; ++d) {
            nested.push_back(std::make_unique<Profiler>(kNames[d], true));
        }
        Profiler::Extra("bytes", static_cast<double>(i % 1000));
        if (i % 30 == 0) {
            Profiler untimed("untimed", false);
            Profiler::Extra("thread " + std::to_string(index), 1.0);
        }
        while (!nested.empty()) {
            nested.pop_back();
        }
    }
}

TEST(ProfilerStress, EightWritersAndAReader)
{
    constexpr int kWriters = 8;
    const int iterations = support::Scaled(20000, 100);
    support::ResetProfiler(true);
    std::atomic<int> running{kWriters};
    std::atomic<int> reports{0};
    std::thread reader([&] {
        while (running > 0) {
            std::ostringstream out;
            Profiler::Report(out);
            ++reports;
        }
    });
    std::vector<std::thread> writers;
    std::vector<std::thread::id> ids(kWriters);
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            ids[static_cast<size_t>(w)] = std::this_thread::get_id();
            support::WaitFor([&] { return reports > 0; }); // overlap with the reader
            Writer(w, iterations);
            --running;
        });
    }
    for (auto& t : writers) {
        t.join();
    }
    reader.join();

    // Per thread: every scope counted, every extra added to each open scope
    // exactly once, stacks empty.
    double bytesTotal = 0.0;
    for (int i = 0; i < iterations; ++i) {
        bytesTotal += i % 1000;
    }
    const support::ProfilerTables tables = support::Profiles();
    for (int w = 0; w < kWriters; ++w) {
        const auto id = ids[static_cast<size_t>(w)];
        const std::string own = "thread " + std::to_string(w);
        EXPECT_TRUE(tables.Stack(id).empty());
        EXPECT_EQ(tables.Paths(id), (std::set<std::string>{"request", "request/parse", "request/parse/route",
                                                           "request/parse/route/encode", "request/parse/untimed"}));
        EXPECT_EQ(tables.Record("request/parse/route", "", id).count, iterations - (iterations + 2) / 3);
        EXPECT_EQ(tables.Record("request/parse/route/encode", "", id).count, iterations / 3);
        const auto bytes = tables.Record("request", "bytes", id);
        EXPECT_EQ(std::tuple(bytes.count, bytes.total, bytes.min, bytes.max),
                  std::tuple(iterations, bytesTotal, 0.0, static_cast<double>(std::min(iterations - 1, 999))));
        EXPECT_EQ(tables.Record("request/parse/untimed", own, id).count, (iterations + 29) / 30);
    }
    support::Figure("profiler reports read meanwhile", reports);
}

} // namespace
