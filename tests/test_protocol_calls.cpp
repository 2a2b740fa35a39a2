// The calls that line- and request-based protocols need: reading what has
// arrived (ReadSome), waking a thread blocked on a connection (Shutdown),
// switching Nagle's algorithm (SetNoDelay), and seeing a receive loop end
// (IsReceiving). Real loopback peers on the other end.
#include "support/Common.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <future>

#include <netinet/tcp.h>
#include <sys/syscall.h>

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;

// The system call a thread is blocked in (/proc/.../syscall), or -1 while it runs.
long SyscallOf(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long number = -1;
    return file >> number ? number : -1;
}

class ProtocolCallsTest : public FamilyTest {
protected:
    // Runs `operation` on a thread of its own and returns once that thread is
    // blocked in the system call `syscall`.
    template <typename Operation>
    std::future<void> StartBlocked(Operation operation, long syscall, pid_t* tid = nullptr)
    {
        std::promise<pid_t> started;
        auto thread = started.get_future();
        auto done = std::async(std::launch::async, [&started, operation] {
            started.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
            operation();
        });
        const pid_t id = thread.get();
        if (tid != nullptr) {
            *tid = id;
        }
        EXPECT_TRUE(WaitFor([&] { return SyscallOf(id) == syscall; })) << "never blocked in " << syscall;
        return done;
    }

    Connection c{V6(), Host(), 2000};
};

// ReadSome waits for something to arrive (retrying when a signal interrupts
// the wait) and returns at most `size` bytes; after a reset it throws, at end
// of stream it returns 0.
TEST_P(ProtocolCallsTest, ReadSomeReturnsWhatHasArrived)
{
    const QuietSignal quiet; // without SA_RESTART: a blocked recv fails with EINTR
    unsigned char buffer[100] = {};
    unsigned long got = 0;
    pid_t id = 0;
    auto reader = StartBlocked([&] { got = c.client->ReadSome(buffer, sizeof(buffer)); }, SYS_recvfrom, &id);
    for (int i = 0; i < 5; ++i) {
        syscall(SYS_tgkill, getpid(), id, SIGUSR1);
        WaitFor([&] { return SyscallOf(id) == SYS_recvfrom; });
    }
    EXPECT_TRUE(SendAll(c.peer.Get(), ToBytes("abc")));
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(Bytes(buffer, buffer + got), ToBytes("abc"));

    // At most `size` bytes; the rest stays for the next call, or for Read.
    EXPECT_TRUE(SendAll(c.peer.Get(), ToBytes("defgh")));
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(c.clientFd) == 5; }));
    EXPECT_EQ(c.client->ReadSome(buffer, 0), 0u);
    EXPECT_EQ(c.client->ReadSome(buffer, 2), 2u);
    EXPECT_EQ(Bytes(buffer, buffer + 2), ToBytes("de"));
    c.client->Read(buffer, 3);
    EXPECT_EQ(Bytes(buffer, buffer + 3), ToBytes("fgh"));

    ResetConnection(c.peer);
    EXPECT_EQ(MessageOf<ReceiveError>([&] { c.client->ReadSome(buffer, sizeof(buffer)); }), "TCP Socket Faild to RECV");

    // End of stream: 0, and it stays.
    c = Connection(V6(), Host(), 2000);
    shutdown(c.peer.Get(), SHUT_WR);
    EXPECT_EQ(c.client->ReadSome(buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(c.client->ReadSome(buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(MessageOf<Disconnected>([&] { c.client->Read(buffer, 1); }), "TCP Socket RECV: End point disconnected");
}

// Each call blocks on a fresh connection whose peer never sends nor reads;
// a Shutdown from this thread ends it within a second. A flush of several
// MiB throws, or returns after a short send whose rest is dropped.
TEST_P(ProtocolCallsTest, ShutdownWakesEveryBlockedCallPromptly)
{
    unsigned char byte = 0;
    std::string result;
    const std::pair<std::function<void()>, long> cases[] = {
        {[&] { result = std::to_string(c.client->Poll(-1)); }, SYS_poll},
        {[&] { result = std::to_string(c.client->ReadSome(&byte, 1)); }, SYS_recvfrom},
        {[&] { result = MessageOf<Disconnected>([&] { c.client->Read(&byte, 1); }); }, SYS_recvfrom},
        {[&] {
             result = MessageOf<SendError>([&] { c.client->Flush(); });
             result += " " + std::to_string(c.client->GetBufferSize());
         },
         SYS_sendto},
    };
    std::vector<std::string> results;
    for (const auto& [operation, syscall] : cases) {
        c = Connection(V6(), Host(), 2000);
        Put(*c.client, RandomBytes(16 << 20, 3)); // only the flush sends it
        auto done = StartBlocked(operation, syscall);
        const auto start = std::chrono::steady_clock::now();
        c.client->Shutdown();
        if (done.wait_for(10s) != std::future_status::ready) {
            ResetConnection(c.peer); // frees the thread, so that the test ends
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s) << syscall;
        c.client->Shutdown(); // twice: harmless
        results.push_back(result);
    }
    EXPECT_THAT(results,
                testing::ElementsAre("1", "0", "TCP Socket RECV: End point disconnected",
                                     testing::AnyOf("<no exception> 0", "TCP Socket send failed: 32 16777216")));
}

TEST_P(ProtocolCallsTest, ShutdownEndsTheFlushWorkerAtItsNextSend)
{
    c.client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return HasThreadNamed("ORVUN_TCP_FLUSH"); }));
    c.client->Shutdown();
    testing::internal::CaptureStderr();
    Put(*c.client, ToBytes("after shutdown"));
    c.client->Flush(); // queued; the worker's send fails
    const bool ended = WaitFor([] { return !HasThreadNamed("ORVUN_TCP_FLUSH"); });
    const std::string printed = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_EQ(printed, "TCP Socket send failed (non-blocking)\n");
    EXPECT_TRUE(c.client->IsIdle());
    c.client->SetNonBlockingFlush(); // does not revive the worker: flushes are direct from now on
    EXPECT_FALSE(HasThreadNamed("ORVUN_TCP_FLUSH"));
    Put(*c.client, ToBytes("direct"));
    EXPECT_EQ(MessageOf<SendError>([&] { c.client->Flush(); }), "TCP Socket send failed: 32");
    EXPECT_EQ(c.client->GetBufferSize(), 6u);
}

TEST_P(ProtocolCallsTest, SetNoDelaySwitchesNaglesAlgorithm)
{
    EXPECT_EQ(OptionOf(c.clientFd, IPPROTO_TCP, TCP_NODELAY), 0) << "client sockets start with Nagle's algorithm on";
    c.client->SetNoDelay(true);
    EXPECT_NE(OptionOf(c.clientFd, IPPROTO_TCP, TCP_NODELAY), 0);
    c.client->SetNoDelay(false);
    EXPECT_EQ(OptionOf(c.clientFd, IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_P(ProtocolCallsTest, OneThreadReadsWhileAnotherWrites)
{
    // The peer echoes; the client writes a large random payload on one thread
    // and reads the echo with ReadSome on another, both at once (under
    // ThreadSanitizer too), and gets every byte back in order.
    const Bytes payload = RandomBytes(4 << 20, 11);
    std::thread echo([&] {
        Bytes chunk(65536);
        ssize_t n = 0;
        while ((n = recv(c.peer.Get(), chunk.data(), chunk.size(), 0)) > 0 &&
               SendAll(c.peer.Get(), Bytes(chunk.begin(), chunk.begin() + n))) {
        }
        shutdown(c.peer.Get(), SHUT_WR);
    });
    std::thread writer([&] {
        for (size_t offset = 0; offset < payload.size(); offset += 40000) {
            c.client->Write(payload.data() + offset, std::min<size_t>(40000, payload.size() - offset));
            c.client->Flush();
        }
    });
    Bytes received;
    Bytes chunk(65536);
    unsigned long n = 0;
    while (received.size() < payload.size() && (n = c.client->ReadSome(chunk.data(), chunk.size())) > 0) {
        received.insert(received.end(), chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
    writer.join();
    c.client->Shutdown();
    echo.join();
    EXPECT_TRUE(received == payload) << received.size() << " of " << payload.size() << " bytes, or not in order";
}

INSTANTIATE_TEST_SUITE_P(Loopback, ProtocolCallsTest, testing::ValuesIn(kFamilies), FamilyName);

class ReceiveLoopEndTest : public FamilyTest {};

TEST_P(ReceiveLoopEndTest, IsReceivingTurnsFalseWhenTheLoopEnds)
{
    unsigned short senderPort = 0;
    Fd sender = RawUdp(V6(), senderPort);
    Queue<Bytes> delivered;
    const UdpSocket::Callback callback = [&](const UdpSocket&, ReadOnlyStream&& datagram) {
        if (Buffered(datagram) == ToBytes("throw")) {
            throw std::runtime_error("callback failed");
        }
        delivered.Push(Buffered(datagram));
    };
    auto listener = std::make_unique<UdpListener>(Host(), 0, UdpSocket::Callback(callback));
    const unsigned short port = listener->GetLocalPort();
    EXPECT_TRUE(listener->IsReceiving());
    EXPECT_TRUE(SendDatagram(sender.Get(), V6(), port, ToBytes("one")));
    ASSERT_EQ(delivered.Take(), ToBytes("one"));
    EXPECT_TRUE(listener->IsReceiving());

    // A zero-length datagram ends the loop quietly.
    EXPECT_TRUE(SendDatagram(sender.Get(), V6(), port, {}));
    EXPECT_TRUE(WaitFor([&] { return !listener->IsReceiving(); }));
    EXPECT_EQ(listener->GetThreadError(), nullptr);

    // The recovery: let the old listener go, then bind the port anew.
    listener.reset();
    listener = std::make_unique<UdpListener>(Host(), port, UdpSocket::Callback(callback));
    EXPECT_TRUE(SendDatagram(sender.Get(), V6(), port, ToBytes("two")));
    ASSERT_EQ(delivered.Take(), ToBytes("two"));

    // A throwing callback ends it too; the error is kept before the flag drops.
    EXPECT_TRUE(SendDatagram(sender.Get(), V6(), port, ToBytes("throw")));
    ASSERT_TRUE(WaitFor([&] { return !listener->IsReceiving(); }));
    EXPECT_NE(listener->GetThreadError(), nullptr);

    // A plain socket receives only once Receive is called.
    UdpSocket plain(Host(), senderPort, 0);
    EXPECT_FALSE(plain.IsReceiving());
    plain.Receive([](const UdpSocket&, ReadOnlyStream&&) {});
    EXPECT_TRUE(plain.IsReceiving());
}

INSTANTIATE_TEST_SUITE_P(Loopback, ReceiveLoopEndTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
