// Library state shared by many threads at once: the profiler's tables, with
// eight threads writing while another reads them out, and name resolution.
#include <optional>
#include <sstream>
#include <tuple>

#include "support/ProfilerTables.h"
#include "support/Stress.h"

namespace {

using orvun::cpu::Profiler;

// Each writer runs scope "request" around one to three nested scopes, an
// extra of `i % 1000` bytes in the innermost, and every 30th time an untimed
// scope below "parse" with an extra named after the thread; meanwhile a
// reader writes reports.
TEST(ProfilerStress, EightWritersAndAReader)
{
    constexpr int kWriters = 8;
    const int iterations = support::Scaled(20000, 100);
    support::ResetProfiler(true);
    std::atomic<int> reports{0};
    std::jthread reader([&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); ++reports) {
            std::ostringstream out;
            Profiler::Report(out);
        }
    });
    support::RunThreads(kWriters, [&](int w) {
        const std::string name = "writer " + std::to_string(w);
        Profiler::SetThreadName(name);
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
                Profiler::Extra(name, 1.0);
            }
        }
    });

    // Per thread: every scope counted, every extra added to each open scope
    // exactly once (the bytes add up to the sum of i % 1000), stacks empty.
    const double bytesTotal = iterations / 1000 * 499500.0 + (iterations % 1000) * (iterations % 1000 - 1) / 2.0;
    const support::ProfilerTables tables = support::Profiles();
    EXPECT_EQ(tables.names.size(), kWriters);
    for (const auto& [id, name] : tables.names) {
        EXPECT_TRUE(tables.Stack(id).empty());
        EXPECT_EQ(tables.Paths(id), (std::set<std::string>{"request", "request/parse", "request/parse/route",
                                                           "request/parse/route/encode", "request/parse/untimed"}));
        EXPECT_EQ(tables.Record("request/parse/route", "", id).count, iterations - (iterations + 2) / 3);
        EXPECT_EQ(tables.Record("request/parse/route/encode", "", id).count, iterations / 3);
        const auto bytes = tables.Record("request", "bytes", id);
        EXPECT_EQ(std::tuple(bytes.count, bytes.total, bytes.min, bytes.max),
                  std::tuple(iterations, bytesTotal, 0.0, static_cast<double>(std::min(iterations - 1, 999))));
        EXPECT_EQ(tables.Record("request/parse/untimed", name, id).count, (iterations + 29) / 30);
    }
    support::Figure("profiler reports read meanwhile", reports);
}

// Name resolution on several threads at once: no thread sees another's answer.
TEST(ResolveStress, ThreadsResolvingAtOnceGetTheirOwnAnswers)
{
    constexpr int kThreads = 6;
    const int rounds = support::Scaled(3000, 100);
    std::atomic<int> wrong{0};
    support::RunThreads(kThreads, [&](int t) {
        orvun::net::Socket socket;
        const auto port = static_cast<unsigned short>(1000 + t);
        for (int round = 0; round < rounds; ++round) {
            const std::string host = "127.0." + std::to_string(t) + "." + std::to_string(round % 250 + 1);
            socket.ResolveAddress(host, port);
            wrong += socket.GetRemoteAddress() != host || socket.GetRemotePort() != port;
            socket.ResolveAddress("localhost", port);
            wrong += socket.GetRemoteAddress() != "127.0.0.1";
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    support::Figure("concurrent name lookups", 2.0 * kThreads * rounds);
}

} // namespace
