// TCP under load: concurrent clients against worker threads, and worker
// sockets destroyed in mid-stream.
#include <memory>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using support::Bytes;

Bytes Inverted(Bytes bytes)
{
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(~b);
    }
    return bytes;
}

// A thousand connections from four client threads at once, each carrying
// round trips of random sizes (a 4-byte length, then bytes of the
// connection's pattern, answered inverted), against one listener that hands
// every socket to a thread of its own; every second server socket, and every
// third client, sends through its flush worker. Every byte comes back.
TEST(TcpStress, ConcurrentClientsAgainstWorkerThreads)
{
    constexpr int kClients = 4;
    const int connectionsPerClient = support::Scaled(250, 2);
    constexpr int kRoundTrips = 4;
    std::atomic<int> completed{0};
    std::atomic<int> served{0};
    std::atomic<int> errors{0};
    std::vector<std::thread> workers; // filled on the accept thread only
    {
        TcpListener listener("::1", 0, [&](std::unique_ptr<TcpSocket> socket) {
            const bool workerMode = workers.size() % 2 == 0;
            workers.emplace_back([&, workerMode, owned = std::shared_ptr<TcpSocket>(std::move(socket))] {
                if (workerMode) {
                    owned->SetNonBlockingFlush();
                }
                try {
                    for (;; ++served) {
                        std::uint32_t size = 0;
                        owned->Read(reinterpret_cast<unsigned char*>(&size), sizeof(size));
                        Bytes payload(size);
                        owned->Read(payload.data(), payload.size());
                        support::Put(*owned, Inverted(payload));
                        owned->Flush();
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
                    TcpSocket client("::1", listener.GetLocalPort(), 0, 10000);
                    if (k % 3 == 0) {
                        client.SetNonBlockingFlush();
                    }
                    for (int r = 0; r < kRoundTrips; ++r) {
                        const auto size = static_cast<std::uint32_t>(1 + random() % 65536);
                        const Bytes payload = support::Pattern(static_cast<std::uint64_t>(c * 100000 + k), 0, size);
                        client.Write(reinterpret_cast<const unsigned char*>(&size), sizeof(size));
                        support::Put(client, payload);
                        client.Flush();
                        Bytes answer(size);
                        if (client.Poll(20000) != 1) {
                            ADD_FAILURE() << "no answer on connection " << k << " of client " << c;
                            return;
                        }
                        client.Read(answer.data(), answer.size());
                        EXPECT_EQ(answer, Inverted(payload));
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
    EXPECT_EQ(errors, 0);
    support::Figure("concurrent round trips", completed);
}

// A socket in worker mode destroyed in the middle of a stream: the
// destructor returns, and the peer got an unbroken prefix of what was flushed.
TEST(TcpStress, WorkerSocketDestroyedMidStream)
{
    const int rounds = support::Scaled(200, 5);
    unsigned short port = 0;
    support::Fd listener = support::RawTcpListener(false, port);
    std::mt19937 random(17);
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        auto client = std::make_unique<TcpSocket>("127.0.0.1", port, 0, 10000);
        support::Fd peer = support::AcceptWithin(listener.Get());
        Bytes received;
        std::thread drain([&] { received = support::ReadUpTo(peer.Get(), SIZE_MAX, nullptr, 60s); });
        client->SetNonBlockingFlush();
        std::uint64_t flushed = 0;
        for (int f = 0, flushes = 1 + static_cast<int>(random() % 64); f < flushes; ++f) {
            const Bytes bytes = support::Pattern(static_cast<std::uint64_t>(round), flushed, 1 + random() % 65536);
            support::Put(*client, bytes);
            client->Flush();
            flushed += bytes.size();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        slowest = std::max(slowest, support::TimeOf([&] { client.reset(); }));
        drain.join();
        EXPECT_EQ(received, support::Pattern(static_cast<std::uint64_t>(round), 0, received.size()))
            << "round " << round << ": the peer got bytes out of order";
        EXPECT_LE(received.size(), flushed);
    }
    // Joining waits for at most a send in progress and one wait period.
    EXPECT_LT(slowest, 10s);
    support::Figure("worker sockets destroyed mid-stream", rounds);
}

} // namespace
