// One function per scenario and peer; each call is one run and returns one
// sample. Every run builds its own peers on fresh loopback ports and tears
// them down before it returns. Failures throw RunFailed (or the library's own
// exceptions).
#pragma once

#include "Harness.h"

#include "cpu/Profiler.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace bench {

// One side of a round-trip scenario, connected and warmed up when built;
// `Run` adds the microseconds of `rounds` round trips to `samples`. Peers of
// all variants live at once so that blocks of round trips can alternate
// between them: every variant then sees the same moments of a noisy host.
class RttPeer {
public:
    virtual ~RttPeer() = default;
    virtual void Run(int rounds, std::vector<double>& samples) = 0;

protected:
    // Round trips whose times are dropped; peers call it once connected.
    void WarmUp(int rounds)
    {
        std::vector<double> ignored;
        Run(rounds, ignored);
    }
};

// One side of a throughput scenario, connected when built. `Block` pushes
// `units` (chunks, messages, datagrams, connections) through and reports how
// many arrived and how long that took, from the first send to the last
// arrival. Like the round-trip peers, the peers of all variants live at once
// and their blocks alternate.
class BlockPeer {
public:
    virtual ~BlockPeer() = default;
    virtual BlockResult Block(int units) = 0;
};

// Profiling switched on, with a scope open on the calling thread, for the
// lifetime of the object; nothing at all when `on` is false.
class ProfilingSession {
public:
    ProfilingSession(bool on, const char* scope)
    {
        if (on) {
            orvun::cpu::Profiler::SetEnabled(true);
            _scope.emplace(scope, true);
        }
    }
    ProfilingSession(const ProfilingSession&) = delete;
    ProfilingSession& operator=(const ProfilingSession&) = delete;
    ~ProfilingSession()
    {
        if (_scope) {
            _scope.reset();
            orvun::cpu::Profiler::SetEnabled(false);
        }
    }

private:
    std::optional<orvun::cpu::Profiler> _scope;
};

// The library. With `profiling` the profiler is switched on and a scope is
// open on the sending thread while the peer runs.
std::unique_ptr<RttPeer> LibTcpRtt(const Counts& counts, bool profiling);
std::unique_ptr<RttPeer> LibUdpRtt(const Counts& counts, bool profiling);
// Units: 64 KiB chunks.
std::unique_ptr<BlockPeer> LibTcpBulk(const Counts& counts, bool profiling);
// Units: 16-byte messages, in blocks of `block`; `worker`: the sending
// socket hands its flushes to its flush worker.
std::unique_ptr<BlockPeer> LibTcpSmall(int block, bool worker, bool profiling);
// Units: datagrams of `size` bytes.
std::unique_ptr<BlockPeer> LibUdpRate(std::size_t size, bool profiling);
// Units: connections.
std::unique_ptr<BlockPeer> LibTcpAccept(bool profiling);

// Plain POSIX code doing the same work with the same socket options.
std::unique_ptr<RttPeer> RawTcpRtt(const Counts& counts);
std::unique_ptr<BlockPeer> RawTcpBulk(const Counts& counts, bool copy);
std::unique_ptr<BlockPeer> RawTcpSmall(int block, bool recordExtra);
// "Threaded": receive threads that poll for up to 100 ms, then receive one
// datagram, with the client's reply handed to the waiting thread, as the
// library does. "Blocking": plain blocking receive calls.
std::unique_ptr<RttPeer> RawUdpRttThreaded(const Counts& counts);
std::unique_ptr<RttPeer> RawUdpRttBlocking(const Counts& counts);
std::unique_ptr<BlockPeer> RawUdpRateThreaded(std::size_t size);
std::unique_ptr<BlockPeer> RawUdpRateBlocking(std::size_t size);
std::unique_ptr<BlockPeer> RawTcpAccept(bool libraryCalls);

#if ORVUN_BENCH_ASIO
// Boost.Asio's synchronous sockets. Its UDP peers receive on a thread of
// their own and hand replies over like the library does, but block in the
// receive call instead of polling.
std::unique_ptr<RttPeer> AsioTcpRtt(const Counts& counts);
std::unique_ptr<RttPeer> AsioUdpRtt(const Counts& counts);
std::unique_ptr<BlockPeer> AsioTcpBulk(const Counts& counts);
std::unique_ptr<BlockPeer> AsioTcpSmall(int block);
std::unique_ptr<BlockPeer> AsioUdpRate(std::size_t size);
std::unique_ptr<BlockPeer> AsioTcpAccept();
#endif

// The profiler on its own: `value` is operations per second over all
// threads; each thread runs `counts.profilerOps` operations at `depth`
// (the number of scopes open, the measured one included for scopes).
// `SharedHold`: one LockShared + UnlockShared of the registry lock, the part
// of every scope and extra that all threads share.
enum class ProfilerOp { Scope, Extra, SharedHold };
Sample ProfilerThroughput(const Counts& counts, ProfilerOp op, int depth, int threads, bool enabled);

} // namespace bench
