// The profiler's own costs: one scope (open + end) or one Extra, at a given
// nesting depth, on one or more threads at once.
#include "Scenarios.h"

#include "cpu/Profiler.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace bench {

using orvun::cpu::Profiler;

namespace {

// Names short enough for the small-string buffer, as the library's are.
const char* const kOuterNames[] = {"bench outer 1", "bench outer 2", "bench outer 3", "bench outer 4"};

struct Timing {
    std::int64_t start = 0;
    std::int64_t end = 0;
};

void RunOps(ProfilerOp op, int ops)
{
    if (op == ProfilerOp::Scope) {
        for (int i = 0; i < ops; ++i) {
            Profiler scope("bench scope", true);
        }
    } else if (op == ProfilerOp::Extra) {
        for (int i = 0; i < ops; ++i) {
            Profiler::Extra("bench extra", 1.0);
        }
    } else {
        for (int i = 0; i < ops; ++i) {
            Profiler::profilesMutex.LockShared();
            Profiler::profilesMutex.UnlockShared();
        }
    }
}

} // namespace

Sample ProfilerThroughput(const Counts& counts, ProfilerOp op, int depth, int threads, bool enabled)
{
    Profiler::SetEnabled(enabled);
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<Timing> timings(static_cast<std::size_t>(threads));
    {
        std::vector<std::unique_ptr<Background>> workers;
        for (int t = 0; t < threads; ++t) {
            workers.push_back(std::make_unique<Background>([&, t] {
                // A scope is measured with depth - 1 scopes around it; an
                // extra with depth scopes open.
                const int outer = op == ProfilerOp::Scope ? depth - 1 : depth;
                std::vector<std::unique_ptr<Profiler>> open;
                for (int level = 0; level < outer; ++level) {
                    open.push_back(std::make_unique<Profiler>(kOuterNames[level], true));
                }
                RunOps(op, 1000); // registers the thread and the names
                ready.fetch_add(1);
                while (!go.load(std::memory_order_acquire)) {
                    std::this_thread::yield();
                }
                timings[static_cast<std::size_t>(t)].start = NowNs();
                RunOps(op, counts.profilerOps);
                timings[static_cast<std::size_t>(t)].end = NowNs();
                while (!open.empty()) {
                    open.pop_back(); // innermost first
                }
            }));
        }
        while (ready.load() < threads) {
            std::this_thread::yield();
        }
        go.store(true, std::memory_order_release);
        for (auto& worker : workers) {
            worker->Join();
        }
    }
    Profiler::SetEnabled(false);
    std::int64_t first = timings.front().start;
    std::int64_t last = timings.front().end;
    for (const Timing& timing : timings) {
        first = std::min(first, timing.start);
        last = std::max(last, timing.end);
    }
    const double seconds = static_cast<double>(last - first) / 1e9;
    return Sample{static_cast<double>(counts.profilerOps) * threads / seconds};
}

} // namespace bench
