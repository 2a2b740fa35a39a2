// TCP under load: concurrent clients against worker threads, and worker
// sockets destroyed in mid-stream.
#include <memory>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using support::Bytes;

// A thousand connections from four client threads at once, each carrying
// four round trips of random sizes in two halves, against one listener that
// hands every socket to a thread of its own, which echoes whatever arrives
// (an exception there ends the program); every second server socket, and
// every third client, sends through its flush worker. Every byte comes back.
TEST(TcpStress, ConcurrentClientsAgainstWorkerThreads)
{
    constexpr int kClients = 4;
    constexpr int kRoundTrips = 4;
    const int connectionsPerClient = support::Scaled(250, 2);
    std::vector<std::jthread> workers; // filled on the accept thread, joined once the listener is gone
    TcpListener listener("::1", 0, [&](std::unique_ptr<TcpSocket> socket) {
        workers.emplace_back([worker = workers.size() % 2 == 0, s = std::move(socket)] {
            if (worker) {
                s->SetNonBlockingFlush();
            }
            unsigned char chunk[65536];
            for (unsigned long n; (n = s->ReadSome(chunk, sizeof(chunk))) > 0; s->Flush()) {
                s->Write(chunk, n);
            }
        });
    });
    support::RunThreads(kClients, [&](int c) {
        std::mt19937 random(static_cast<unsigned>(100 + c));
        for (int k = 0; k < connectionsPerClient; ++k) {
            TcpSocket client("::1", listener.GetLocalPort(), 0, 10000);
            if (k % 3 == 0) {
                client.SetNonBlockingFlush();
            }
            for (int r = 0; r < kRoundTrips; ++r) {
                // The second half goes once the first comes back, so Read
                // starts before the whole answer can be there.
                const Bytes payload = support::RandomBytes(2 + random() % 65535, static_cast<unsigned>(random()));
                const unsigned long half = payload.size() / 2;
                client.Write(payload.data(), half);
                client.Flush();
                ASSERT_EQ(client.Poll(20000), 1) << "no answer on connection " << k << " of client " << c;
                client.Write(payload.data() + half, payload.size() - half);
                client.Flush();
                Bytes answer(payload.size());
                client.Read(answer.data(), answer.size());
                ASSERT_EQ(answer, payload);
            }
        }
    });
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    support::Figure("concurrent round trips", kClients * connectionsPerClient * kRoundTrips);
}

// A socket in worker mode destroyed in the middle of a stream: the
// destructor returns, and the peer got an unbroken prefix of what was
// flushed; all of it when the socket was idle before.
TEST(TcpStress, WorkerSocketDestroyedMidStream)
{
    const int rounds = support::Scaled(200, 5);
    std::mt19937 random(17);
    for (int round = 0; round < rounds; ++round) {
        support::Connection connection(false, "127.0.0.1", 10000);
        auto& client = connection.client;
        // Every second socket flushes its stream at once and is destroyed as
        // soon as the worker has taken it, while the peer has not read yet and
        // a small send buffer keeps the send going on; the others flush in
        // pieces and are destroyed at random while the peer reads.
        const bool idle = round % 2 == 0;
        const int sendBuffer = 64 << 10;
        if (idle) {
            setsockopt(connection.clientFd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
        }
        std::atomic<bool> reading{!idle};
        Bytes received;
        std::thread drain([&] {
            support::WaitFor([&] { return reading.load(); }, 60s);
            received = support::ReadUpTo(connection.peer.Get(), SIZE_MAX, nullptr, 60s);
        });
        client->SetNonBlockingFlush();
        const Bytes stream = support::RandomBytes(1 + random() % (2 << 20), static_cast<unsigned>(random()));
        for (size_t at = 0, size; at < stream.size(); at += size) {
            size = idle ? stream.size() : std::min<size_t>(stream.size() - at, 1 + random() % 65536);
            client->Write(stream.data() + at, size);
            client->Flush();
        }
        const bool taken = !idle || support::WaitFor([&] { return client->IsIdle(); });
        std::this_thread::sleep_for(std::chrono::microseconds(idle ? 0 : random() % 2000));
        reading = true;
        // Joining waits for at most a send in progress and one wait period.
        EXPECT_LT(support::TimeOf([&] { client.reset(); }), 10s) << "round " << round;
        drain.join();
        ASSERT_TRUE(taken) << "round " << round << ": the worker never took the stream";
        const size_t expected = idle ? stream.size() : std::min(received.size(), stream.size());
        ASSERT_EQ(received, Bytes(stream.begin(), stream.begin() + static_cast<long>(expected)))
            << "round " << round << ": the peer got " << received.size() << " of " << stream.size() << " bytes";
    }
    support::Figure("worker sockets destroyed mid-stream", rounds);
}

} // namespace
