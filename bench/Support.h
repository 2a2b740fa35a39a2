// Shared pieces of orvun_bench: raw loopback helpers for the baselines (on
// the tests' raw peers, tests/support/RawPeer.h), a counter of what a
// receiver got, and the three timing loops every scenario uses (round trips,
// streams, datagram blasts). Benchmarks are named "<scenario>/<variant>";
// scripts/bench-table.py pairs them by those names.
#pragma once

#include "cpu/Profiler.h"
#include "tests/support/RawPeer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <netinet/tcp.h>

namespace bench {

using namespace rawpeer;

using Clock = std::chrono::steady_clock;
inline const char* const kHost = "127.0.0.1";
inline const std::string kTcpTx = "TCP TX";     // the extra every library flush records
constexpr std::chrono::milliseconds kPoll{100}; // the library's receive and accept loops poll this long
constexpr std::size_t kDatagramCapacity = 1400;

inline double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// When a repetition started, in seconds since the program did: the host's
// speed drifts over seconds, so scripts/bench-table.py compares each
// repetition with the baseline's repetition nearest in time.
inline void Stamp(benchmark::State& state)
{
    static const Clock::time_point started = Clock::now();
    state.counters["at_s"] = Seconds(Clock::now() - started);
}

// Registers `run(state, args...)` under `name`. Every benchmark builds its
// peers (listeners, connections, their threads) at the start of each
// repetition and is timed by hand, the peer's side included; microseconds.
// Streams and blasts run at least 50 ms a repetition whatever the command
// line says: a scheduling gap of a few ms on the shared host would be a large
// part of a shorter one, where a round trip's median shrugs it off.
template <typename Run, typename... Args> void Register(const std::string& name, Run run, Args... args)
{
    auto* registered = benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { run(state, args...); })
                           ->UseManualTime()
                           ->Unit(benchmark::kMicrosecond);
    if (name.starts_with("tcp_bulk") || name.starts_with("tcp_small") || name.starts_with("udp_rate")) {
        registered->MinTime(0.05);
    }
}

// ---------------------------------------------------------------- raw POSIX

[[noreturn]] inline void Fail(const char* what)
{
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

// `fd`, or an exception when the call that made it failed.
inline Fd Checked(Fd fd, const char* what)
{
    if (fd.Get() < 0) {
        Fail(what);
    }
    return fd;
}

// A socket of `type` bound to 127.0.0.1 on a free port with SO_REUSEADDR;
// TCP sockets listen.
inline Fd Bound(int type, unsigned short& port)
{
    return Checked(type == SOCK_STREAM ? RawTcpListener(false, port, 4096, true) : RawUdp(false, port, true), "bind");
}

inline Fd Connect(unsigned short port) { return Checked(RawTcpConnect(false, port), "connect"); }

inline void SetNoDelay(int fd, int on) { ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)); }

// The accepting side sets TCP_NODELAY, as the library's listener does.
inline Fd Accept(int listener)
{
    Fd fd = Checked(RawAccept(listener), "accept");
    SetNoDelay(fd.Get(), 1);
    return fd;
}

// Sends what Nagle's algorithm holds back on a client that keeps it on (the
// library's connecting sockets do): without it a run's last bytes wait for
// the peer's delayed acknowledgement, up to 40 ms.
inline void PushTail(int fd)
{
    SetNoDelay(fd, 1);
    SetNoDelay(fd, 0);
}

// SendAll, or an exception.
inline void Send(int fd, const void* data, std::size_t size)
{
    if (!SendAll(fd, data, size)) {
        Fail("send");
    }
}

// With `running`, the receive loop of the library built from plain calls:
// poll for up to 100 ms, then one recvfrom, until `running` is cleared.
// Without, blocking recvfrom calls until an empty datagram arrives.
// `handle(data, size, from, length)` gets each datagram.
template <typename Handle> void ReceiveLoop(int fd, const std::atomic<bool>* running, Handle&& handle)
{
    unsigned char datagram[kDatagramCapacity];
    while (running == nullptr || *running) {
        if (running != nullptr && (!Readable(fd, kPoll) || !*running)) {
            continue;
        }
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t n = ::recvfrom(fd, datagram, sizeof(datagram), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (n > 0) {
            handle(datagram, static_cast<std::size_t>(n), from, length);
        } else if (running == nullptr) {
            return;
        }
    }
}

// Ends a blocking ReceiveLoop on `port`.
inline void SendEmpty(unsigned short port) { SendDatagram(RawSocket(false, SOCK_DGRAM).Get(), false, port, "", 0); }

// ---------------------------------------------------------------- peers

// Profiling on, with a scope open on this thread, while it lives; nothing
// when `on` is false.
class Profiling {
public:
    explicit Profiling(bool on)
    {
        if (on) {
            orvun::cpu::Profiler::SetEnabled(true);
            _scope.emplace("bench");
        }
    }
    ~Profiling()
    {
        if (_scope) {
            _scope.reset();
            orvun::cpu::Profiler::SetEnabled(false);
        }
    }

private:
    std::optional<orvun::cpu::Profiler> _scope;
};

// What a receiver got and when the last of it came.
struct Arrivals {
    std::atomic<std::int64_t> count{0};
    std::atomic<Clock::rep> last{0};

    void Add(std::int64_t n)
    {
        last.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
        count.fetch_add(n, std::memory_order_release);
    }
    Clock::time_point Last() const { return Clock::time_point(Clock::duration(last.load())); }

    // Until `target` has arrived, calling `nudge` every 200 us; throws after
    // 30 s (bytes lost). Returns when the last unit came.
    template <typename Nudge> Clock::time_point WaitFor(std::int64_t target, Nudge&& nudge)
    {
        for (const auto limit = Clock::now() + std::chrono::seconds(30); count.load() < target;) {
            if (Clock::now() > limit) {
                throw std::runtime_error("the receiver did not get everything in 30 s");
            }
            nudge();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return Last();
    }

    // Until `target` has arrived or nothing came for 5 ms (datagrams may be
    // lost); returns how many arrived.
    std::int64_t WaitQuiet(std::int64_t target)
    {
        std::int64_t seen = count.load();
        for (auto changed = Clock::now(); seen < target && Clock::now() - changed < std::chrono::milliseconds(5);) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            if (const std::int64_t now = count.load(); now != seen) {
                seen = now;
                changed = Clock::now();
            }
        }
        return seen;
    }
};

// The first byte of each reply, handed from a receive thread to the thread
// that waits for it.
class Replies {
public:
    void Post(unsigned char first)
    {
        _first.store(first, std::memory_order_relaxed);
        _arrived.release();
    }
    unsigned char Wait()
    {
        if (!_arrived.try_acquire_for(std::chrono::seconds(5))) {
            throw std::runtime_error("no reply in 5 s");
        }
        return _first.load(std::memory_order_relaxed);
    }

private:
    std::counting_semaphore<> _arrived{0};
    std::atomic<unsigned char> _first{0};
};

// The receiving end of tcp_bulk and tcp_small, the same for every variant:
// one accepted connection read as fast as it comes, until the client closes.
class Sink {
public:
    unsigned short port = 0;
    Arrivals bytes;

    Sink()
        : _listener(Bound(SOCK_STREAM, port)), _reader([this] {
              const Fd connection = Accept(_listener.Get());
              std::vector<unsigned char> buffer(std::size_t{1} << 18);
              for (ssize_t n; (n = ::recv(connection.Get(), buffer.data(), buffer.size(), 0)) > 0;) {
                  bytes.Add(n);
              }
          })
    {
    }

private:
    Fd _listener;
    std::jthread _reader;
};

// ---------------------------------------------------------------- timing loops

// One 64-byte round trip per iteration: `exchange(request)` returns the first
// byte of the reply, which must carry the request's tag back. Manual time per
// round trip; its median and 99th percentile as counters.
template <typename Exchange> void RoundTrips(benchmark::State& state, Exchange&& exchange)
{
    Stamp(state);
    unsigned char request[64] = {};
    for (int i = 0; i < 10; ++i) {
        exchange(request); // caches, after other benchmarks ran
    }
    std::vector<double> microseconds;
    microseconds.reserve(static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state) {
        ++request[0];
        const auto start = Clock::now();
        const unsigned char tag = exchange(request);
        const double seconds = Seconds(Clock::now() - start);
        if (tag != request[0]) {
            state.SkipWithError("a reply came back wrong");
            break;
        }
        state.SetIterationTime(seconds);
        microseconds.push_back(seconds * 1e6);
    }
    if (!microseconds.empty()) {
        std::sort(microseconds.begin(), microseconds.end());
        state.counters["p50_us"] = microseconds[microseconds.size() / 2];
        state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
    }
}

// One unit of `size` bytes per iteration into a Sink; manual time from the
// first send to the arrival of the last byte. `tail` pushes out what Nagle's
// algorithm holds back (see PushTail).
template <typename Send, typename Tail>
void Stream(benchmark::State& state, Sink& sink, std::size_t size, Send&& send, Tail&& tail)
{
    // Untimed: the connection's first segments and the reader's first wake-up.
    const std::int64_t warmUp = std::max<std::int64_t>(1, 65536 / static_cast<std::int64_t>(size));
    for (std::int64_t i = 0; i < warmUp; ++i) {
        send();
    }
    const std::int64_t before = warmUp * static_cast<std::int64_t>(size);
    sink.bytes.WaitFor(before, tail);
    Stamp(state);
    const auto start = Clock::now();
    for (auto _ : state) {
        send();
    }
    const auto total = static_cast<std::int64_t>(state.iterations() * size);
    state.SetIterationTime(Seconds(sink.bytes.WaitFor(before + total, tail) - start));
    state.SetBytesProcessed(total);
}

// One datagram per iteration into a counting receiver; manual time from the
// first send to the last arrival. Counters: delivered datagrams per second,
// and the fraction lost (the sender outruns every receiver).
template <typename Send> void Blast(benchmark::State& state, Arrivals& arrivals, Send&& send)
{
    for (int i = 0; i < 10; ++i) {
        send(); // untimed: the receiver's first wake-up
    }
    const std::int64_t before = arrivals.WaitQuiet(10);
    Stamp(state);
    const auto start = Clock::now();
    for (auto _ : state) {
        send();
    }
    const auto sent = static_cast<std::int64_t>(state.iterations());
    const std::int64_t delivered = arrivals.WaitQuiet(before + sent) - before;
    const double seconds = Seconds((delivered > 0 ? arrivals.Last() : Clock::now()) - start);
    state.SetIterationTime(seconds);
    state.counters["delivered_per_s"] = static_cast<double>(delivered) / seconds;
    state.counters["loss"] = 1.0 - static_cast<double>(delivered) / static_cast<double>(sent);
}

// One connection per iteration, `connectOne` connecting and closing it; the
// server counts the ones it accepted (and closed) in `accepted`. Manual time
// until the server has taken the last one.
template <typename ConnectOne> void Connections(benchmark::State& state, Arrivals& accepted, ConnectOne&& connectOne)
{
    for (int i = 0; i < 10; ++i) {
        connectOne(); // untimed: the server's first wake-up
    }
    accepted.WaitFor(10, [] {});
    Stamp(state);
    const auto start = Clock::now();
    for (auto _ : state) {
        connectOne();
    }
    const auto target = 10 + static_cast<std::int64_t>(state.iterations());
    state.SetIterationTime(Seconds(accepted.WaitFor(target, [] {}) - start));
}

} // namespace bench
