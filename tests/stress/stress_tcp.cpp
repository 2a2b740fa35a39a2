// TCP under load: thousands of connections through one listener, concurrent
// clients against worker threads, objects destroyed in mid-traffic, and
// peers that reset the connection while we send.
#include <csignal>
#include <memory>
#include <mutex>

#include "StressSupport.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using stress::GetU32;
using support::Bytes;

constexpr long kConnectTimeoutMs = 10000;

Bytes Inverted(Bytes bytes)
{
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(~b);
    }
    return bytes;
}

// Serves one request on `socket`: an 8-byte header (stream id, payload
// length) and a payload that follows the stream's pattern, answered with the
// payload inverted. Returns the stream id; throws Disconnected when the peer
// has gone.
std::uint32_t ServeOne(TcpSocket& socket, std::atomic<int>& corrupt)
{
    unsigned char header[8];
    socket.Read(header, sizeof(header));
    Bytes payload(GetU32(header + 4));
    socket.Read(payload.data(), payload.size());
    corrupt += stress::MatchesPattern(GetU32(header), 0, payload.data(), payload.size()) ? 0 : 1;
    const Bytes answer = Inverted(payload);
    socket.Write(answer.data(), answer.size());
    socket.Flush();
    return GetU32(header);
}

// Sends one request (one flush) and checks the answer; false when it did not
// come back whole within the bound.
bool RoundTrip(TcpSocket& client, std::uint32_t id, size_t size)
{
    const Bytes payload = stress::Pattern(id, 0, size);
    unsigned char header[8];
    stress::PutU32(header, id);
    stress::PutU32(header + 4, static_cast<std::uint32_t>(size));
    client.Write(header, sizeof(header));
    client.Write(payload.data(), payload.size());
    client.Flush();
    Bytes answer(size);
    if (client.Poll(20000) != 1) {
        ADD_FAILURE() << "no answer for stream " << id;
        return false;
    }
    client.Read(answer.data(), answer.size());
    const bool right = answer == Inverted(payload);
    EXPECT_TRUE(right) << "wrong answer for stream " << id;
    return right;
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
                if (ServeOne(*socket, corrupt) % 2 == 0) {
                    std::lock_guard<std::mutex> lock(keptMutex);
                    kept.push_back(std::move(socket));
                }
            } catch (const std::exception&) {
                ++callbackErrors;
            }
            ++handled;
        });
        for (int i = 0; i < connections; ++i) {
            const size_t size = 1 + random() % 8192;
            TcpSocket client("127.0.0.1", listener.GetLocalPort(), 0, kConnectTimeoutMs);
            if (!RoundTrip(client, static_cast<std::uint32_t>(i), size)) {
                break;
            }
            bytesMoved += 2 * size;
            // A dropped connection: the peer's close shows as end of stream.
            if (i % 2 == 1 && client.Poll(20000, 1) != -1) {
                ADD_FAILURE() << "connection " << i << " was dropped but not closed";
                break;
            }
            closedAfterDrop += i % 2;
        }
        ASSERT_TRUE(support::WaitFor([&] { return handled == connections; }, 20s));
        EXPECT_EQ(corrupt, 0);
        EXPECT_EQ(callbackErrors, 0);
        EXPECT_EQ(closedAfterDrop, connections / 2);
        {
            std::lock_guard<std::mutex> lock(keptMutex);
            EXPECT_EQ(kept.size(), static_cast<size_t>((connections + 1) / 2));
            // Kept connections are still open: they see their client's close.
            EXPECT_TRUE(std::all_of(kept.begin(), kept.end(), [](auto& socket) { return socket->Poll(0) == 1; }));
            kept.clear();
        }
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    baseline.ExpectRestored();
    stress::Figure("tcp connections", connections);
    stress::Figure("tcp bytes round-tripped", static_cast<double>(bytesMoved));
}

// Several client threads make round trips at once, each over connections of
// its own, against one listener that hands every socket to a thread of its
// own; every second server socket, and every third client, sends through its
// flush worker.
TEST(TcpStress, ConcurrentClientsAgainstWorkerThreads)
{
    constexpr int kClients = 4;
    const int connectionsPerClient = stress::Scaled(40, 2);
    constexpr int kRoundTrips = 20;
    const stress::ResourceBaseline baseline;
    std::atomic<int> corrupt{0};
    std::atomic<int> completed{0};
    std::atomic<int> served{0};
    std::atomic<int> errors{0};
    std::atomic<std::uint64_t> bytesMoved{0};
    std::vector<std::thread> workers; // filled on the accept thread only
    {
        TcpListener listener("::1", 0, [&](std::unique_ptr<TcpSocket> socket) {
            const bool workerMode = workers.size() % 2 == 0;
            workers.emplace_back([&, workerMode, owned = std::shared_ptr<TcpSocket>(std::move(socket))] {
                if (workerMode) {
                    owned->SetNonBlockingFlush();
                }
                try {
                    for (;;) {
                        ServeOne(*owned, corrupt);
                        ++served;
                    }
                } catch (const Disconnected&) {
                    // The client is done; it read every answer first, so nothing queued is lost.
                } catch (const std::exception&) {
                    ++errors;
                }
            });
        });
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                std::mt19937 random(static_cast<unsigned>(100 + c));
                for (int k = 0; k < connectionsPerClient; ++k) {
                    TcpSocket client("::1", listener.GetLocalPort(), 0, kConnectTimeoutMs);
                    if (k % 3 == 0) {
                        client.SetNonBlockingFlush();
                    }
                    for (int r = 0; r < kRoundTrips; ++r) {
                        const size_t size = 1 + random() % 65536;
                        if (!RoundTrip(client, static_cast<std::uint32_t>(c * 100000 + k * 100 + r), size)) {
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
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    for (auto& t : workers) {
        t.join();
    }
    EXPECT_EQ(completed, kClients * connectionsPerClient * kRoundTrips);
    EXPECT_EQ(served, completed);
    EXPECT_EQ(workers.size(), static_cast<size_t>(kClients * connectionsPerClient));
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(corrupt, 0);
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
                try {
                    if (port != 0) {
                        TcpSocket client("127.0.0.1", port, 0, 2000);
                        client.Write(hello.data(), hello.size());
                        client.Flush();
                    }
                } catch (const SocketError&) {
                    // Refused or reset: that listener is gone.
                }
                // Steady traffic without running through the ephemeral ports.
                std::this_thread::sleep_for(port == 0 ? 1000us : 250us);
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
        const bool reached = support::WaitFor([&] { return accepted > before; }, 20s);
        EXPECT_TRUE(reached) << "no connection reached listener " << round;
        EXPECT_EQ(listener->GetThreadError(), nullptr);
        slowest = std::max(slowest, support::TimeOf([&] { listener.reset(); }));
        currentPort = 0;
        if (!reached) {
            break;
        }
    }
    // An idle accept loop notices the stop within one poll period; allow
    // a wide margin for a loaded machine.
    EXPECT_LT(slowest, 5s);
    stop = true;
    for (auto& t : traffic) {
        t.join();
    }
    baseline.ExpectRestored();
    stress::Figure("tcp listeners destroyed under traffic", rounds);
    stress::Figure("tcp connections accepted meanwhile", accepted);
}

// Flushes of 32 KiB into connections that a peer resets after reading a
// random amount: every time a SendError naming the errno, the buffer kept,
// and no SIGPIPE (its default action is restored first). Through the flush
// worker, its failed send writes its one line to stderr and hands sending
// back, so the next flush reports the SendError.
void PeerResetsDuringSends(bool worker)
{
    std::signal(SIGPIPE, SIG_DFL);
    const int rounds = stress::Scaled(100, 5);
    std::mt19937 random(worker ? 13 : 11);
    unsigned short port = 0;
    support::Fd listener = support::RawTcpListener(worker, port);
    const auto isReset = [](const std::string& message) {
        return message == "TCP Socket send failed: " + std::to_string(ECONNRESET) ||
               message == "TCP Socket send failed: " + std::to_string(EPIPE);
    };
    int faults = 0;
    testing::internal::CaptureStderr();
    for (int round = 0; round < rounds; ++round) {
        std::thread peer([&listener, readBeforeReset = random() % (256 * 1024)] {
            support::Fd fd = support::AcceptWithin(listener.Get(), 20s);
            support::ReadExactly(fd.Get(), readBeforeReset, 20s);
            support::ResetConnection(fd);
        });
        TcpSocket client(worker ? "::1" : "127.0.0.1", port, 0, kConnectTimeoutMs);
        if (worker) {
            client.SetNonBlockingFlush();
        }
        const Bytes chunk = stress::Pattern(static_cast<std::uint64_t>(round), 0, 32 * 1024);
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        std::string failure;
        // Like a real producer, wait for the worker before queueing more.
        while (failure.empty() && std::chrono::steady_clock::now() < deadline &&
               support::WaitFor([&] { return client.IsIdle(); }, 20s)) {
            if (client.GetBufferSize() == 0) {
                client.Write(chunk.data(), chunk.size());
            }
            try {
                client.Flush();
            } catch (const SendError& error) {
                failure = error.what();
            }
        }
        EXPECT_TRUE(isReset(failure)) << "round " << round << ": " << failure;
        if (!failure.empty()) {
            ++faults;
            EXPECT_EQ(client.GetBufferSize(), chunk.size()) << "a failed flush keeps its bytes";
            // Once the reset is reported, a send meets a closed pipe (EPIPE),
            // which would raise SIGPIPE without MSG_NOSIGNAL.
            const std::string again = support::MessageOf<SendError>([&] { client.Flush(); });
            EXPECT_TRUE(isReset(again)) << again;
        }
        peer.join();
    }
    const std::string errors = testing::internal::GetCapturedStderr();
    size_t lines = 0;
    const std::string line = "TCP Socket send failed (non-blocking)\n";
    for (size_t at = errors.find(line); at != std::string::npos; at = errors.find(line, at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, worker ? static_cast<size_t>(faults) : 0u) << errors;
    stress::Figure(worker ? "resets survived in worker mode" : "resets survived in direct mode", faults);
}

TEST(TcpStress, PeerResetsDuringDirectSends) { PeerResetsDuringSends(false); }

TEST(TcpStress, PeerResetsDuringWorkerSends) { PeerResetsDuringSends(true); }

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
        Bytes received;
        std::thread drain([&] {
            bool closed = false;
            received = support::ReadUntilClosed(peer.Get(), closed, 60s);
        });
        client->SetNonBlockingFlush();
        std::uint64_t flushed = 0;
        for (int f = 0, flushes = 1 + static_cast<int>(random() % 64); f < flushes; ++f) {
            const Bytes bytes = stress::Pattern(stream, flushed, 1 + random() % 65536);
            client->Write(bytes.data(), bytes.size());
            client->Flush();
            flushed += bytes.size();
        }
        if (random() % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        }
        slowest = std::max(slowest, support::TimeOf([&] { client.reset(); }));
        drain.join();
        EXPECT_TRUE(stress::MatchesPattern(stream, 0, received.data(), received.size()))
            << "round " << round << ": the peer got bytes out of order";
        EXPECT_LE(received.size(), flushed);
        delivered += received.size();
        dropped += flushed - received.size();
    }
    // Joining waits for at most a send in progress and one wait period.
    EXPECT_LT(slowest, 10s);
    listener.Reset();
    baseline.ExpectRestored();
    stress::Figure("worker sockets destroyed mid-stream", rounds);
    stress::Figure("bytes delivered before destruction", static_cast<double>(delivered));
    stress::Figure("queued bytes dropped by destruction", static_cast<double>(dropped));
}

} // namespace
