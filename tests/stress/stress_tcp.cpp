// TCP under load: thousands of connections through one listener, concurrent
// clients against worker threads, objects destroyed in mid-traffic, and
// peers that reset the connection while we send.
#include <csignal>
#include <list>
#include <memory>
#include <mutex>

#include "StressSupport.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using stress::GetU32;
using stress::PutU32;
using support::Bytes;

constexpr long kConnectTimeoutMs = 10000;

// A request is an 8-byte header (stream id, payload length) and the payload;
// the answer is the payload with every byte inverted.
Bytes Request(std::uint32_t id, const Bytes& payload)
{
    Bytes bytes(8 + payload.size());
    PutU32(bytes.data(), id);
    PutU32(bytes.data() + 4, static_cast<std::uint32_t>(payload.size()));
    std::copy(payload.begin(), payload.end(), bytes.begin() + 8);
    return bytes;
}

Bytes Inverted(Bytes bytes)
{
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(~b);
    }
    return bytes;
}

// Serves one request on `socket`: reads it, checks its pattern, answers.
// Returns the stream id; throws Disconnected when the peer has gone.
std::uint32_t ServeOne(TcpSocket& socket, std::atomic<int>& corrupt)
{
    unsigned char header[8];
    socket.Read(header, sizeof(header));
    const std::uint32_t id = GetU32(header);
    Bytes payload(GetU32(header + 4));
    socket.Read(payload.data(), payload.size());
    if (!stress::MatchesPattern(id, 0, payload.data(), payload.size())) {
        ++corrupt;
    }
    const Bytes answer = Inverted(payload);
    socket.Write(answer.data(), answer.size());
    socket.Flush();
    return id;
}

// Sends one request and checks the answer; false when it did not come back
// whole within the bound.
bool RoundTrip(TcpSocket& client, std::uint32_t id, size_t size)
{
    const Bytes payload = stress::Pattern(id, 0, size);
    const Bytes request = Request(id, payload);
    client.Write(request.data(), request.size());
    client.Flush();
    if (client.Poll(20000) != 1) {
        ADD_FAILURE() << "no answer for stream " << id;
        return false;
    }
    Bytes answer(size);
    client.Read(answer.data(), answer.size());
    if (answer != Inverted(payload)) {
        ADD_FAILURE() << "wrong answer for stream " << id;
        return false;
    }
    return true;
}

// 5,000 connections through one listener; the callback answers each and
// keeps every second one. Every byte arrives, a dropped connection is closed
// right after its callback, and every descriptor comes back at the end.
TEST(TcpStress, ManyConnectionsKeptAndDropped)
{
    const int connections = stress::Scaled(5000, 10);
    stress::EnsureDescriptorRoom(static_cast<size_t>(connections));
    const stress::ResourceBaseline baseline;
    std::mt19937 random(7);
    std::uint64_t bytesMoved = 0;
    std::atomic<int> handled{0};
    std::atomic<int> corrupt{0};
    std::atomic<int> callbackErrors{0};
    int closedAfterDrop = 0;
    {
        std::mutex keptMutex;
        std::vector<std::unique_ptr<TcpSocket>> kept;
        TcpListener listener("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> socket) {
            try {
                const std::uint32_t id = ServeOne(*socket, corrupt);
                if (id % 2 == 0) {
                    std::lock_guard<std::mutex> lock(keptMutex);
                    kept.push_back(std::move(socket));
                }
            } catch (const std::exception&) {
                ++callbackErrors;
            }
            ++handled;
        });
        const unsigned short port = listener.GetLocalPort();
        for (int i = 0; i < connections; ++i) {
            const auto id = static_cast<std::uint32_t>(i);
            const size_t size = 1 + random() % 8192;
            TcpSocket client("127.0.0.1", port, 0, kConnectTimeoutMs);
            if (!RoundTrip(client, id, size)) {
                break;
            }
            bytesMoved += 2 * size;
            if (id % 2 == 1) {
                // The listener dropped it: the peer's close shows as end of stream.
                if (client.Poll(20000, 1) != -1) {
                    ADD_FAILURE() << "connection " << id << " was dropped but not closed";
                    break;
                }
                ++closedAfterDrop;
            }
        }
        ASSERT_TRUE(support::WaitFor([&] { return handled == connections; }, std::chrono::seconds(20)));
        EXPECT_EQ(corrupt, 0);
        EXPECT_EQ(callbackErrors, 0);
        EXPECT_EQ(closedAfterDrop, connections / 2);
        {
            std::lock_guard<std::mutex> lock(keptMutex);
            EXPECT_EQ(kept.size(), static_cast<size_t>((connections + 1) / 2));
            // Kept connections are still open: the peer is gone, the socket is not.
            for (auto& socket : kept) {
                if (socket->Poll(0) == 0) {
                    ADD_FAILURE() << "a kept connection should see its client's close";
                    break;
                }
            }
            kept.clear();
        }
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    baseline.ExpectRestored();
    stress::Figure("tcp connections", connections);
    stress::Figure("tcp bytes round-tripped", static_cast<double>(bytesMoved));
}

// Worker threads that serve the connections a listener hands them.
class WorkerPool {
public:
    explicit WorkerPool(std::atomic<int>& corrupt) : _corrupt(corrupt) {}
    ~WorkerPool() { JoinAll(); }

    // The listener's callback: one thread per connection, every second
    // connection answering through its flush worker.
    TcpListener::Callback Callback()
    {
        return [this](std::unique_ptr<TcpSocket> socket) {
            std::lock_guard<std::mutex> lock(_mutex);
            const bool workerMode = (_started++ % 2) == 0;
            _threads.emplace_back([this, workerMode, owned = std::shared_ptr<TcpSocket>(std::move(socket))] {
                if (workerMode) {
                    owned->SetNonBlockingFlush();
                }
                try {
                    for (;;) {
                        ServeOne(*owned, _corrupt);
                        ++_served;
                    }
                } catch (const Disconnected&) {
                    // The client is done.
                } catch (const std::exception&) {
                    ++_errors;
                }
                // Answers queued for the flush worker are sent before the client
                // closes (it reads them all first), so nothing is lost here.
            });
        };
    }
    void JoinAll()
    {
        std::list<std::thread> threads;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            threads.swap(_threads);
        }
        for (auto& t : threads) {
            t.join();
        }
    }
    int Served() const { return _served; }
    int Errors() const { return _errors; }
    int Started()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _started;
    }

private:
    std::atomic<int>& _corrupt;
    std::mutex _mutex;
    std::list<std::thread> _threads;
    int _started = 0;
    std::atomic<int> _served{0};
    std::atomic<int> _errors{0};
};

// Several client threads make round trips at once, each over connections of
// its own, against one listener that hands every socket to a worker thread.
TEST(TcpStress, ConcurrentClientsAgainstWorkerThreads)
{
    constexpr int kClients = 4;
    const int connectionsPerClient = stress::Scaled(40, 2);
    constexpr int kRoundTrips = 20;
    const stress::ResourceBaseline baseline;
    std::atomic<int> corrupt{0};
    std::atomic<int> completed{0};
    std::atomic<std::uint64_t> bytesMoved{0};
    {
        WorkerPool pool(corrupt);
        TcpListener listener("::1", 0, pool.Callback());
        const unsigned short port = listener.GetLocalPort();
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                std::mt19937 random(static_cast<unsigned>(100 + c));
                for (int k = 0; k < connectionsPerClient; ++k) {
                    TcpSocket client("::1", port, 0, kConnectTimeoutMs);
                    if (k % 3 == 0) {
                        client.SetNonBlockingFlush();
                    }
                    for (int r = 0; r < kRoundTrips; ++r) {
                        const auto id = static_cast<std::uint32_t>((c * 100000 + k * 100 + r));
                        const size_t size = 1 + random() % 65536;
                        if (!RoundTrip(client, id, size)) {
                            return;
                        }
                        bytesMoved += 2 * size;
                        ++completed;
                    }
                }
            });
        }
        for (auto& t : clients) {
            t.join();
        }
        pool.JoinAll();
        EXPECT_EQ(completed, kClients * connectionsPerClient * kRoundTrips);
        EXPECT_EQ(pool.Served(), completed);
        EXPECT_EQ(pool.Started(), kClients * connectionsPerClient);
        EXPECT_EQ(pool.Errors(), 0);
        EXPECT_EQ(corrupt, 0);
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    baseline.ExpectRestored();
    stress::Figure("concurrent round trips", completed);
    stress::Figure("concurrent bytes round-tripped", static_cast<double>(bytesMoved));
}

// A listener destroyed again and again while connections keep arriving:
// no crash, no hang, nothing left behind.
TEST(TcpStress, ListenerDestroyedWhileConnectionsArrive)
{
    const int rounds = stress::Scaled(200, 5);
    const stress::ResourceBaseline baseline;
    // 0 between listeners, so that no client knocks at a port no longer ours.
    std::atomic<unsigned short> currentPort{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> traffic;
    for (int t = 0; t < 2; ++t) {
        traffic.emplace_back([&, t] {
            const Bytes hello = stress::Pattern(static_cast<std::uint64_t>(t), 0, 100);
            while (!stop) {
                const unsigned short port = currentPort;
                if (port == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    continue;
                }
                try {
                    TcpSocket client("127.0.0.1", port, 0, 2000);
                    client.Write(hello.data(), hello.size());
                    client.Flush();
                } catch (const SocketError&) {
                    // Refused or reset: that listener is gone.
                }
                // Steady traffic without running through the ephemeral ports.
                std::this_thread::sleep_for(std::chrono::microseconds(250));
            }
        });
    }
    std::atomic<int> accepted{0};
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<TcpSocket>> kept;
        const int before = accepted;
        auto listener = std::make_unique<TcpListener>("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> socket) {
            if (accepted++ % 2 == 0) {
                kept.push_back(std::move(socket));
            }
        });
        currentPort = listener->GetLocalPort();
        const bool reached = support::WaitFor([&] { return accepted > before; }, std::chrono::seconds(20));
        EXPECT_TRUE(reached) << "no connection reached listener " << round;
        EXPECT_EQ(listener->GetThreadError(), nullptr);
        const auto start = std::chrono::steady_clock::now();
        listener.reset();
        currentPort = 0;
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
        if (!reached) {
            break;
        }
    }
    // An idle accept loop notices the stop within one poll period; allow
    // a wide margin for a loaded machine.
    EXPECT_LT(slowest, std::chrono::seconds(5));
    stop = true;
    for (auto& t : traffic) {
        t.join();
    }
    baseline.ExpectRestored();
    stress::Figure("tcp listeners destroyed under traffic", rounds);
    stress::Figure("tcp connections accepted meanwhile", accepted);
}

// A peer that reads a random amount and then resets the connection.
class ResettingPeer {
public:
    explicit ResettingPeer(bool ipv6) { _listener = support::RawTcpListener(ipv6, _port); }
    unsigned short Port() const { return _port; }

    // Serves the next connection on a thread of its own.
    void ServeNext(size_t readBeforeReset)
    {
        Join();
        _thread = std::thread([this, readBeforeReset] {
            support::Fd peer = support::AcceptWithin(_listener.Get(), std::chrono::seconds(20));
            support::ReadExactly(peer.Get(), readBeforeReset, std::chrono::seconds(20));
            support::ResetConnection(peer);
        });
    }
    void Join()
    {
        if (_thread.joinable()) {
            _thread.join();
        }
    }
    void Close()
    {
        Join();
        _listener.Reset();
    }
    ~ResettingPeer() { Join(); }

private:
    unsigned short _port = 0;
    support::Fd _listener;
    std::thread _thread;
};

bool IsResetErrno(const std::string& message)
{
    return message == "TCP Socket send failed: " + std::to_string(ECONNRESET) ||
           message == "TCP Socket send failed: " + std::to_string(EPIPE);
}

// Direct-mode flushes into a connection the peer resets part-way: every
// time a SendError naming the errno, the buffer kept, no SIGPIPE.
TEST(TcpStress, PeerResetsDuringDirectSends)
{
    // Default disposition, so a send without MSG_NOSIGNAL would end the test.
    std::signal(SIGPIPE, SIG_DFL);
    const int rounds = stress::Scaled(100, 5);
    const stress::ResourceBaseline baseline;
    std::mt19937 random(11);
    int faults = 0;
    ResettingPeer peer(false);
    for (int round = 0; round < rounds; ++round) {
        peer.ServeNext(random() % (256 * 1024));
        TcpSocket client("127.0.0.1", peer.Port(), 0, kConnectTimeoutMs);
        const Bytes chunk = stress::Pattern(static_cast<std::uint64_t>(round), 0, 32 * 1024);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool failed = false;
        while (!failed && std::chrono::steady_clock::now() < deadline) {
            if (client.GetBufferSize() == 0) {
                client.Write(chunk.data(), chunk.size());
            }
            try {
                client.Flush();
            } catch (const SendError& error) {
                failed = true;
                EXPECT_TRUE(IsResetErrno(error.what())) << error.what();
                EXPECT_EQ(client.GetBufferSize(), chunk.size()) << "a failed flush keeps its bytes";
            }
        }
        if (failed) {
            // Once the reset is reported, a send meets a closed pipe (EPIPE),
            // which would raise SIGPIPE without MSG_NOSIGNAL.
            try {
                client.Flush();
                ADD_FAILURE() << "a flush after the reset succeeded";
            } catch (const SendError& error) {
                EXPECT_TRUE(IsResetErrno(error.what())) << error.what();
            }
        }
        EXPECT_TRUE(failed) << "round " << round << ": the reset never showed";
        faults += failed ? 1 : 0;
        peer.Join();
    }
    peer.Close();
    baseline.ExpectRestored();
    stress::Figure("resets survived in direct mode", faults);
}

// The same with the flush worker: its failed send writes its one line to
// stderr and hands sending back, so the next flush reports SendError.
TEST(TcpStress, PeerResetsDuringWorkerSends)
{
    std::signal(SIGPIPE, SIG_DFL);
    const int rounds = stress::Scaled(100, 5);
    const stress::ResourceBaseline baseline;
    ResettingPeer peer(true);
    std::mt19937 random(13);
    int faults = 0;
    ::testing::internal::CaptureStderr();
    for (int round = 0; round < rounds; ++round) {
        peer.ServeNext(random() % (256 * 1024));
        TcpSocket client("::1", peer.Port(), 0, kConnectTimeoutMs);
        client.SetNonBlockingFlush();
        const Bytes chunk = stress::Pattern(static_cast<std::uint64_t>(round), 0, 32 * 1024);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool failed = false;
        while (!failed && std::chrono::steady_clock::now() < deadline) {
            // Like a real producer, wait for the worker before queueing more.
            if (!support::WaitFor([&] { return client.IsIdle(); }, std::chrono::seconds(20))) {
                break;
            }
            client.Write(chunk.data(), chunk.size());
            try {
                client.Flush();
            } catch (const SendError& error) {
                failed = true;
                EXPECT_TRUE(IsResetErrno(error.what())) << error.what();
            }
        }
        EXPECT_TRUE(failed) << "round " << round << ": the reset never showed";
        faults += failed ? 1 : 0;
        peer.Join();
    }
    const std::string errors = ::testing::internal::GetCapturedStderr();
    size_t lines = 0;
    for (size_t at = errors.find("TCP Socket send failed (non-blocking)\n"); at != std::string::npos;
         at = errors.find("TCP Socket send failed (non-blocking)\n", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, static_cast<size_t>(faults)) << errors;
    peer.Close();
    baseline.ExpectRestored();
    stress::Figure("resets survived in worker mode", faults);
}

// A socket in worker mode destroyed in the middle of a stream: the
// destructor returns, the peer got an unbroken prefix of what was flushed,
// and nothing is left behind.
TEST(TcpStress, WorkerSocketDestroyedMidStream)
{
    const int rounds = stress::Scaled(200, 5);
    const stress::ResourceBaseline baseline;
    unsigned short port = 0;
    support::Fd listener = support::RawTcpListener(false, port);
    std::mt19937 random(17);
    std::uint64_t delivered = 0;
    std::uint64_t dropped = 0;
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        const auto stream = static_cast<std::uint64_t>(round);
        auto client = std::make_unique<TcpSocket>("127.0.0.1", port, 0, kConnectTimeoutMs);
        support::Fd peer = support::AcceptWithin(listener.Get());
        ASSERT_NE(peer.Get(), -1);
        std::uint64_t received = 0;
        bool intact = true;
        std::thread drain([&] {
            unsigned char chunk[65536];
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (std::chrono::steady_clock::now() < deadline) {
                pollfd entry{peer.Get(), POLLIN, 0};
                if (poll(&entry, 1, 200) != 1) {
                    continue;
                }
                const ssize_t n = recv(peer.Get(), chunk, sizeof(chunk), 0);
                if (n <= 0) {
                    return;
                }
                intact = intact && stress::MatchesPattern(stream, received, chunk, static_cast<size_t>(n));
                received += static_cast<std::uint64_t>(n);
            }
        });
        client->SetNonBlockingFlush();
        std::uint64_t flushed = 0;
        const int flushes = 1 + static_cast<int>(random() % 64);
        for (int f = 0; f < flushes; ++f) {
            const size_t size = 1 + random() % 65536;
            const Bytes bytes = stress::Pattern(stream, flushed, size);
            client->Write(bytes.data(), bytes.size());
            client->Flush();
            flushed += size;
        }
        if (random() % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        }
        const auto start = std::chrono::steady_clock::now();
        client.reset();
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
        drain.join();
        EXPECT_TRUE(intact) << "round " << round << ": the peer got bytes out of order";
        EXPECT_LE(received, flushed);
        delivered += received;
        dropped += flushed - received;
    }
    // Joining waits for at most a send in progress and one wait period.
    EXPECT_LT(slowest, std::chrono::seconds(10));
    listener.Reset();
    baseline.ExpectRestored();
    stress::Figure("worker sockets destroyed mid-stream", rounds);
    stress::Figure("bytes delivered before destruction", static_cast<double>(delivered));
    stress::Figure("queued bytes dropped by destruction", static_cast<double>(dropped));
}

} // namespace
