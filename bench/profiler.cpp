// The profiler's own costs, per operation, on one thread and on two at once:
//   profiler/scope_d1, scope_d4   one scope (open + end), with 0 or 3 scopes around it
//   profiler/extra_d1, extra_d4   one Extra with 1 or 4 scopes open
//   profiler/shared_hold          one LockShared + UnlockShared of the registry
//                                 lock, the part every scope and extra shares
// "_off": recording off. With two threads the reported time per operation is
// the span of both threads over all their operations, so 1-thread time /
// 2-thread time is the gain in total throughput.
#include "Support.h"

#include <memory>

namespace bench {
namespace {

using orvun::cpu::Profiler;

enum class Op { Scope, Extra, SharedHold };

const std::string kScope = "bench scope";
const std::string kExtra = "bench extra";

void Run(Op op)
{
    if (op == Op::Scope) {
        Profiler scope(kScope);
    } else if (op == Op::Extra) {
        Profiler::Extra(kExtra, 1.0);
    } else {
        Profiler::profilesMutex.LockShared();
        Profiler::profilesMutex.UnlockShared();
    }
}

// `depth`: scopes open while an extra is recorded, or around and including
// a measured scope.
void Operations(benchmark::State& state, Op op, int depth, bool enabled)
{
    Profiler::SetEnabled(enabled);
    std::vector<std::unique_ptr<Profiler>> open;
    for (int level = op == Op::Scope ? 2 : 1; level <= depth; ++level) {
        open.push_back(std::make_unique<Profiler>("outer " + std::to_string(level)));
    }
    for (int i = 0; i < 100; ++i) {
        Run(op); // registers the thread, the records and the names
    }
    if (state.thread_index() == 0) {
        Stamp(state);
    }
    // From the first operation of either thread to the end barrier, which
    // waits for the last thread: with two threads, the span of both. (Real
    // time would average the threads' own spans.)
    static std::atomic<Clock::rep> first{0};
    if (state.thread_index() == 0) {
        first = 0; // before the start barrier, which the other thread waits at
    }
    bool started = false;
    for (auto _ : state) {
        if (!started) {
            Clock::rep none = 0;
            first.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
            started = true;
        }
        Run(op);
    }
    state.SetIterationTime(Seconds(Clock::now() - Clock::time_point(Clock::duration(first.load()))));
    while (!open.empty()) {
        open.pop_back(); // innermost first
    }
    Profiler::SetEnabled(false);
}

const bool registered = [] {
    auto add = [](const char* name, Op op, int depth, bool enabled, bool twoThreads) {
        auto* b = benchmark::RegisterBenchmark(name, Operations, op, depth, enabled)->UseManualTime()->Threads(1);
        if (twoThreads) {
            b->Threads(2);
        }
    };
    add("profiler/scope_d1", Op::Scope, 1, true, true);
    add("profiler/scope_d1_off", Op::Scope, 1, false, false);
    add("profiler/scope_d4", Op::Scope, 4, true, true);
    add("profiler/extra_d1", Op::Extra, 1, true, true);
    add("profiler/extra_d1_off", Op::Extra, 1, false, false);
    add("profiler/extra_d4", Op::Extra, 4, true, true);
    add("profiler/shared_hold", Op::SharedHold, 0, true, true);
    return true;
}();

} // namespace
} // namespace bench
