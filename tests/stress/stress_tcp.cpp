// TCP under load: concurrent clients against worker threads, and worker
// sockets destroyed in mid-stream.
#include <memory>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
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
// payload inverted. Throws Disconnected when the peer has gone.
void ServeOne(TcpSocket& socket, std::atomic<int>& corrupt)
{
    std::uint32_t header[2];
    socket.Read(reinterpret_cast<unsigned char*>(header), sizeof(header));
    Bytes payload(header[1]);
    socket.Read(payload.data(), payload.size());
    corrupt += payload == support::Pattern(header[0], 0, payload.size()) ? 0 : 1;
    support::Put(socket, Inverted(payload));
    socket.Flush();
}

// Sends one request (one flush) and checks the answer; false when it did not
// come back whole within the bound.
bool RoundTrip(TcpSocket& client, std::uint32_t id, size_t size)
{
    const Bytes payload = support::Pattern(id, 0, size);
    const std::uint32_t header[2] = {id, static_cast<std::uint32_t>(size)};
    client.Write(reinterpret_cast<const unsigned char*>(header), sizeof(header));
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

// A thousand connections from four client threads at once, each carrying
// round trips of random sizes, against one listener that hands every socket
// to a thread of its own; every second server socket, and every third
// client, sends through its flush worker. Every byte comes back and every
// descriptor and thread is given back.
TEST(TcpStress, ConcurrentClientsAgainstWorkerThreads)
{
    constexpr int kClients = 4;
    const int connectionsPerClient = support::Scaled(250, 2);
    constexpr int kRoundTrips = 4;
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
                        if (!RoundTrip(client, static_cast<std::uint32_t>(c * 100000 + k * 10 + r), size)) {
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
    support::Figure("concurrent round trips", completed);
    support::Figure("concurrent bytes round-tripped", static_cast<double>(bytesMoved));
}

// A socket in worker mode destroyed in the middle of a stream: the
// destructor returns, the peer got an unbroken prefix of what was flushed,
// and nothing is left behind.
TEST(TcpStress, WorkerSocketDestroyedMidStream)
{
    const int rounds = support::Scaled(200, 5);
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
            const Bytes bytes = support::Pattern(stream, flushed, 1 + random() % 65536);
            client->Write(bytes.data(), bytes.size());
            client->Flush();
            flushed += bytes.size();
        }
        if (random() % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        }
        slowest = std::max(slowest, support::TimeOf([&] { client.reset(); }));
        drain.join();
        EXPECT_EQ(received, support::Pattern(stream, 0, received.size()))
            << "round " << round << ": the peer got bytes out of order";
        EXPECT_LE(received.size(), flushed);
        delivered += received.size();
        dropped += flushed - received.size();
    }
    // Joining waits for at most a send in progress and one wait period.
    EXPECT_LT(slowest, 10s);
    listener.Reset();
    support::Figure("worker sockets destroyed mid-stream", rounds);
    support::Figure("bytes delivered before destruction", static_cast<double>(delivered));
    support::Figure("queued bytes dropped by destruction", static_cast<double>(dropped));
}

} // namespace
