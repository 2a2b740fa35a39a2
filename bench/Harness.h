// Shared pieces of the benchmark: counts, samples and statistics, a watchdog
// that ends a hung run, a thread-to-thread handoff, and raw loopback helpers
// used by the baselines.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <netinet/in.h>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double SecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

inline double MicrosecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

inline std::int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// How much work each scenario does in one run.
struct Counts {
    int rttRounds = 20000;
    int rttWarmup = 500;
    std::size_t bulkBytes = std::size_t{256} << 20;
    std::size_t bulkChunk = std::size_t{64} << 10;
    int smallMessages = 200000;
    int udpRttRounds = 20000;
    int udpRateDatagrams = 200000;
    int acceptConnections = 2000;
    int profilerOps = 300000;

    static Counts Quick()
    {
        Counts c;
        c.rttRounds = 200;
        c.rttWarmup = 20;
        c.bulkBytes = std::size_t{4} << 20;
        c.smallMessages = 2000;
        c.udpRttRounds = 200;
        c.udpRateDatagrams = 2000;
        c.acceptConnections = 50;
        c.profilerOps = 2000;
        return c;
    }
};

// What one block of a throughput peer did (see Scenarios.h): units that
// arrived, the time from the first send to the last arrival, units sent.
struct BlockResult {
    double delivered = 0.0;
    double seconds = 0.0;
    double offered = 0.0;
};

// One run of one variant. `value` is the headline figure (median
// microseconds for latencies, events per second for rates).
struct Sample {
    double value = 0.0;
    double p99 = 0.0;  // latencies only
    double loss = 0.0; // UDP rates only: fraction of datagrams not delivered
};

// A failed run: wrong bytes, a missing peer, a refused connection.
class RunFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double fraction);
// Latency sample from per-round-trip microseconds.
Sample LatencySample(std::vector<double> microseconds);

// Ends the process when the armed run is not disarmed in time, so that a
// hang shows up as a failure instead of a stuck job.
class Watchdog {
public:
    static void Start();
    static void Arm(const std::string& what, int seconds);
    static void Disarm();
};

// Hands "a reply arrived" from a receive thread to the waiting thread.
class Handoff {
public:
    void Post()
    {
        _sequence.fetch_add(1, std::memory_order_release);
        _sequence.notify_one();
    }
    std::uint32_t Seen() const { return _sequence.load(std::memory_order_acquire); }
    // Waits until a post beyond `seen` has happened.
    void WaitBeyond(std::uint32_t seen) const
    {
        std::uint32_t now;
        while ((now = _sequence.load(std::memory_order_acquire)) == seen) {
            _sequence.wait(now, std::memory_order_acquire);
        }
    }

private:
    std::atomic<std::uint32_t> _sequence{0};
};

// Progress of a TCP receiver, read by the sending thread: units that arrived,
// when the last ones did, and whether any came wrong.
class Progress {
public:
    // Receiver side.
    void Add(std::int64_t units)
    {
        _lastAt.store(NowNs(), std::memory_order_relaxed);
        if (_arrived.fetch_add(units) + units >= _target.load()) {
            std::lock_guard<std::mutex> lock(_mutex);
            _reached.notify_all();
        }
    }
    void Broken() { _broken = true; }

    // Sender side: announce the total expected after this block, then send.
    void Expect(std::int64_t total) { _target.store(total); }
    // Waits until the expected total has arrived, calling `nudge` first and
    // then every 200 us; returns when the last unit arrived. Throws
    // RunFailed when a unit came wrong.
    template <typename Nudge> std::int64_t Wait(const char* what, Nudge&& nudge)
    {
        const std::int64_t target = _target.load();
        std::unique_lock<std::mutex> lock(_mutex);
        while (_arrived.load() < target) {
            lock.unlock();
            nudge();
            lock.lock();
            _reached.wait_for(lock, std::chrono::microseconds(200), [&] { return _arrived.load() >= target; });
        }
        if (_broken) {
            throw RunFailed(std::string(what) + ": bytes lost or out of order");
        }
        return _lastAt.load(std::memory_order_relaxed);
    }
    std::int64_t Wait(const char* what)
    {
        return Wait(what, [] {});
    }

private:
    std::atomic<std::int64_t> _arrived{0};
    std::atomic<std::int64_t> _target{0};
    std::atomic<std::int64_t> _lastAt{0};
    std::atomic<bool> _broken{false};
    std::mutex _mutex;
    std::condition_variable _reached;
};

// A thread whose exception is handed to the thread that joins it.
class Background {
public:
    template <typename Body> explicit Background(Body&& body)
        : _thread([this, run = std::forward<Body>(body)]() mutable {
              try {
                  run();
              } catch (...) {
                  _error = std::current_exception();
              }
          })
    {
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;
    ~Background()
    {
        if (_thread.joinable()) {
            _thread.join();
        }
    }
    // Waits for the thread and rethrows what it threw.
    void Join()
    {
        if (_thread.joinable()) {
            _thread.join();
        }
        if (_error) {
            std::rethrow_exception(std::exchange(_error, nullptr));
        }
    }

private:
    std::exception_ptr _error;
    std::thread _thread;
};

// Raw loopback helpers for the baselines. All throw RunFailed.
namespace raw {

sockaddr_in Loopback(unsigned short port);
int TcpListen(unsigned short& port);
int TcpConnect(unsigned short port);
void SetNoDelay(int fd);
// Sends what Nagle's algorithm holds back on a connection whose sender keeps
// it on (the library's connecting sockets do): switching TCP_NODELAY on
// pushes pending data out; it is switched off again at once. Without it the
// last bytes of a block would wait for the peer's delayed acknowledgement
// (up to 40 ms), which says nothing about throughput.
void PushTail(int fd);
void SendAll(int fd, const unsigned char* data, std::size_t size);
// False when the peer closed before `size` bytes arrived.
bool ReceiveAll(int fd, unsigned char* data, std::size_t size);
int UdpSocket();
int UdpBound(unsigned short& port);
unsigned short LocalPort(int fd);
// A zero-length datagram to 127.0.0.1:`port`; blocking receivers stop on it.
void SendEmptyDatagram(unsigned short port);
void Close(int fd);

} // namespace raw

// Waits until `count` reaches `target` or stops changing for `quiet`;
// returns false in the second case.
bool WaitForCount(const std::atomic<std::int64_t>& count, std::int64_t target, std::chrono::milliseconds quiet);

// Counts arrivals and remembers when the last one happened.
struct ArrivalCounter {
    std::atomic<std::int64_t> count{0};
    std::atomic<std::int64_t> lastAt{0};
    void Arrived()
    {
        lastAt.store(NowNs(), std::memory_order_relaxed);
        count.fetch_add(1, std::memory_order_release);
    }
};

// The accounting of one UDP block: `sendAll` sends `units` datagrams; the
// block ends when all have arrived or arrivals pause for 5 ms. Datagrams
// that straggle in later count for the next block.
template <typename SendAll> BlockResult UdpBlock(ArrivalCounter& arrivals, int units, SendAll&& sendAll)
{
    const std::int64_t before = arrivals.count.load(std::memory_order_acquire);
    const std::int64_t start = NowNs();
    sendAll();
    WaitForCount(arrivals.count, before + units, std::chrono::milliseconds(5));
    const std::int64_t delivered = arrivals.count.load(std::memory_order_acquire) - before;
    const std::int64_t end = delivered > 0 ? arrivals.lastAt.load(std::memory_order_relaxed) : NowNs();
    return BlockResult{static_cast<double>(delivered),
                       static_cast<double>(std::max(end - start, std::int64_t{1})) / 1e9, static_cast<double>(units)};
}

// The 16-byte messages of tcp_small and the chunk stamps of tcp_bulk.
void FillMessage(unsigned char* message, std::uint64_t index);
// Checks `count` consecutive messages starting at `first`.
bool CheckMessages(const unsigned char* data, std::size_t count, std::uint64_t first);
void StampChunk(unsigned char* chunk, std::uint64_t index);
bool CheckChunk(const unsigned char* chunk, std::uint64_t index);

// The reply of a threaded round trip: its first byte, handed from the
// receive thread to the waiting thread.
class ReplyHandoff {
public:
    void Post(unsigned char first)
    {
        _first.store(first, std::memory_order_relaxed);
        _arrived.Post();
    }
    std::uint32_t Seen() const { return _arrived.Seen(); }
    void WaitBeyond(std::uint32_t seen) const { _arrived.WaitBeyond(seen); }
    unsigned char First() const { return _first.load(std::memory_order_relaxed); }

private:
    Handoff _arrived;
    std::atomic<unsigned char> _first{0};
};

// The round trips of tcp_rtt and udp_rtt: 64-byte requests whose first byte
// is a running tag that the reply must carry back. `what` names the scenario
// in failures.
class RoundTrips {
public:
    explicit RoundTrips(const char* what) : _what(what) {}

    // `exchange(request, size, tag)` makes one round trip and says whether
    // the reply was right; the time it takes is one sample.
    template <typename Exchange> void Run(int rounds, std::vector<double>& samples, Exchange&& exchange)
    {
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const auto start = Clock::now();
            const bool right = exchange(_request, sizeof(_request), _tag);
            const auto end = Clock::now();
            if (!right) {
                Fail();
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

    // `send(request, size)` sends one request; the reply arrives on another
    // thread, which posts it to `replies`.
    template <typename Send>
    void Run(int rounds, std::vector<double>& samples, const ReplyHandoff& replies, Send&& send)
    {
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const std::uint32_t seen = replies.Seen();
            const auto start = Clock::now();
            send(_request, sizeof(_request));
            replies.WaitBeyond(seen);
            const auto end = Clock::now();
            if (replies.First() != _tag) {
                Fail();
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

    // The request buffer, for exchanges outside the measured rounds.
    unsigned char* Request() { return _request; }
    static constexpr std::size_t kSize = 64;

private:
    [[noreturn]] void Fail() const { throw RunFailed(std::string(_what) + ": wrong reply"); }

    const char* _what;
    unsigned char _tag = 0;
    unsigned char _request[kSize] = {};
};

// One block of a TCP throughput peer: announces `total` units expected after
// it, runs `send`, then waits for the receiver, calling `nudge` while it
// waits. Time runs from the first send to the last arrival.
template <typename Send, typename Nudge>
BlockResult TimedBlock(Progress& progress, const char* what, std::int64_t total, int units, Send&& send, Nudge&& nudge)
{
    progress.Expect(total);
    const std::int64_t start = NowNs();
    send();
    const std::int64_t end = progress.Wait(what, nudge);
    return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9, static_cast<double>(units)};
}

template <typename Send>
BlockResult TimedBlock(Progress& progress, const char* what, std::int64_t total, int units, Send&& send)
{
    return TimedBlock(progress, what, total, units, send, [] {});
}

// The senders of the TCP throughput peers, counting units in `sent`.
//
// tcp_bulk: stamps each chunk into `chunk`, then `send()` sends it.
template <typename Send, typename Nudge> BlockResult
ChunkBlock(Progress& progress, std::uint64_t& sent, unsigned char* chunk, int units, Send&& send, Nudge&& nudge)
{
    return TimedBlock(
        progress, "tcp_bulk", static_cast<std::int64_t>(sent) + units, units,
        [&] {
            for (int i = 0; i < units; ++i) {
                StampChunk(chunk, sent++);
                send();
            }
        },
        nudge);
}

// tcp_small: `send(message, size)` sends each 16-byte message.
template <typename Send, typename Nudge>
BlockResult MessageBlock(Progress& progress, std::uint64_t& sent, int units, Send&& send, Nudge&& nudge)
{
    unsigned char message[16];
    return TimedBlock(
        progress, "tcp_small", static_cast<std::int64_t>(sent) + units, units,
        [&] {
            for (int i = 0; i < units; ++i) {
                FillMessage(message, sent++);
                send(message, sizeof(message));
            }
        },
        nudge);
}

// The receivers of the TCP throughput peers. `read(data, size)` fills
// `size` bytes and returns false once the peer has closed.
//
// tcp_bulk: stamped chunks of `size` bytes, one unit each.
template <typename Read> void ReceiveChunks(Progress& progress, std::size_t size, Read&& read)
{
    std::vector<unsigned char> chunk(size);
    for (std::uint64_t i = 0; read(chunk.data(), chunk.size()); ++i) {
        if (!CheckChunk(chunk.data(), i)) {
            progress.Broken();
        }
        progress.Add(1);
    }
}

// tcp_small: blocks of `block` 16-byte messages, checked for order, read at
// most 4096 messages at a time.
template <typename Read> void ReceiveMessages(Progress& progress, int block, Read&& read)
{
    std::vector<unsigned char> chunk(std::size_t{4096} * 16);
    std::uint64_t next = 0;
    for (;;) {
        for (auto left = static_cast<std::size_t>(block); left > 0;) {
            const std::size_t take = std::min<std::size_t>(4096, left);
            if (!read(chunk.data(), take * 16)) {
                return;
            }
            if (!CheckMessages(chunk.data(), take, next)) {
                progress.Broken();
            }
            next += take;
            left -= take;
        }
        progress.Add(block);
    }
}

// tcp_accept: `acceptOne` takes one connection and closes it, or returns
// false when there was none yet. Connections count until `stopping` is set.
template <typename AcceptOne>
void CountConnections(Progress& progress, const std::atomic<bool>& stopping, AcceptOne&& acceptOne)
{
    for (;;) {
        if (!acceptOne()) {
            continue;
        }
        if (stopping.load()) {
            return;
        }
        progress.Add(1);
    }
}

} // namespace bench
