// The calls that line- and request-based protocols need: reading what has
// arrived (ReadSome), waking a thread blocked on a connection (Shutdown),
// switching Nagle's algorithm (SetNoDelay), and seeing a receive loop end
// (IsReceiving). Real loopback peers on the other end.
#include "support/Common.h"

#include "net/Socket.h"

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

int NoDelayOf(int fd)
{
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &length);
    return value;
}

class ProtocolCallsTest : public FamilyTest {
protected:
    void SetUp() override
    {
        _listener = RawTcpListener(V6(), _port);
        client = std::make_unique<TcpSocket>(Host(), _port, 0, 2000);
        peer = AcceptWithin(_listener.Get());
        clientFd = FindTcpDescriptor(client->GetLocalPort(), _port);
        ASSERT_NE(clientFd, -1);
    }

    // Runs `operation` on a thread of its own and returns once that thread is
    // blocked in the system call `syscall`.
    template <typename Operation> std::future<void> StartBlocked(Operation operation, long syscall)
    {
        std::promise<pid_t> started;
        auto thread = started.get_future();
        auto done = std::async(std::launch::async, [&started, operation] {
            started.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
            operation();
        });
        const pid_t id = thread.get();
        EXPECT_TRUE(WaitFor([&] { return SyscallOf(id) == syscall; })) << "never blocked in " << syscall;
        return done;
    }

    Fd _listener;
    unsigned short _port = 0;
    std::unique_ptr<TcpSocket> client;
    Fd peer;
    int clientFd = -1;
};

TEST_P(ProtocolCallsTest, ReadSomeReturnsWhatHasArrivedAndZeroAtEndOfStream)
{
    unsigned char buffer[100] = {};
    EXPECT_TRUE(SendAll(peer.Get(), ToBytes("abc")));
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(clientFd) == 3; }));
    EXPECT_EQ(client->ReadSome(buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(Bytes(buffer, buffer + 3), ToBytes("abc"));

    // At most `size` bytes; the rest stays for the next call, or for Read.
    EXPECT_TRUE(SendAll(peer.Get(), ToBytes("defgh")));
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(clientFd) == 5; }));
    EXPECT_EQ(client->ReadSome(buffer, 0), 0u);
    EXPECT_EQ(client->ReadSome(buffer, 2), 2u);
    EXPECT_EQ(Bytes(buffer, buffer + 2), ToBytes("de"));
    client->Read(buffer, 3);
    EXPECT_EQ(Bytes(buffer, buffer + 3), ToBytes("fgh"));

    // A large payload in whatever pieces the kernel hands over, byte for byte.
    const Bytes payload = RandomBytes(3 << 20, 7);
    std::thread sender([&] {
        EXPECT_TRUE(SendAll(peer.Get(), payload));
        shutdown(peer.Get(), SHUT_WR);
    });
    Bytes received;
    std::vector<unsigned char> chunk(65536);
    unsigned long n = 0;
    while (received.size() <= payload.size() && (n = client->ReadSome(chunk.data(), chunk.size())) > 0) {
        received.insert(received.end(), chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
    sender.join();
    EXPECT_EQ(n, 0u) << "end of stream";
    EXPECT_TRUE(received == payload) << received.size() << " of " << payload.size() << " bytes, or not in order";
    EXPECT_EQ(client->ReadSome(buffer, sizeof(buffer)), 0u) << "end of stream stays";
    EXPECT_EQ(MessageOf<Disconnected>([&] { client->Read(buffer, 1); }), "TCP Socket RECV: End point disconnected");
}

TEST_P(ProtocolCallsTest, ReadSomeRetriesSignalsAndReportsAReset)
{
    // A handler without SA_RESTART makes a blocked recv fail with EINTR.
    struct sigaction quiet {};
    struct sigaction previous {};
    quiet.sa_handler = [](int) {};
    sigemptyset(&quiet.sa_mask);
    sigaction(SIGUSR1, &quiet, &previous);
    std::promise<pid_t> started;
    auto reader = std::async(std::launch::async, [&] {
        started.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
        unsigned char byte = 0;
        const unsigned long n = client->ReadSome(&byte, 1);
        return n == 1 ? static_cast<int>(byte) : -1;
    });
    const pid_t id = started.get_future().get();
    ASSERT_TRUE(WaitFor([&] { return SyscallOf(id) == SYS_recvfrom; }));
    for (int i = 0; i < 5; ++i) {
        syscall(SYS_tgkill, getpid(), id, SIGUSR1);
        WaitFor([&] { return SyscallOf(id) == SYS_recvfrom; });
    }
    EXPECT_TRUE(SendAll(peer.Get(), {42}));
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.get(), 42);
    sigaction(SIGUSR1, &previous, nullptr);

    ResetConnection(peer);
    unsigned char buffer[16];
    EXPECT_EQ(MessageOf<ReceiveError>([&] { client->ReadSome(buffer, sizeof(buffer)); }),
              "TCP Socket Faild to RECV");
}

TEST_P(ProtocolCallsTest, ShutdownWakesEveryBlockedCallPromptly)
{
    unsigned char byte = 0;
    struct Case {
        const char* name;
        std::function<void()> operation;
        long syscall;
    };
    std::atomic<int> pollResult{0};
    std::atomic<unsigned long> readSome{99};
    std::string readError;
    std::string flushError;
    // Each blocks in turn on the same socket; the first Shutdown wakes the
    // first, the later calls find the connection already shut.
    const Case cases[] = {
        {"Poll(-1)", [&] { pollResult = client->Poll(-1); }, SYS_poll},
        {"ReadSome", [&] { readSome = client->ReadSome(&byte, 1); }, SYS_recvfrom},
        {"Read", [&] { readError = MessageOf<Disconnected>([&] { client->Read(&byte, 1); }); }, SYS_recvfrom},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto done = StartBlocked(c.operation, c.syscall);
        const auto start = std::chrono::steady_clock::now();
        client->Shutdown();
        if (done.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "still blocked";
            peer.Reset(); // frees the thread, so that the test ends
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
        // Later cases block again on a fresh connection.
        SetUp();
    }
    EXPECT_EQ(pollResult, 1);
    EXPECT_EQ(readSome, 0u);
    EXPECT_EQ(readError, "TCP Socket RECV: End point disconnected");

    // A flush of several MiB to a peer that never reads blocks in send until
    // the shutdown; it then throws or returns after a short send.
    const Bytes big = RandomBytes(16 << 20, 3);
    Put(*client, big);
    auto flushed = StartBlocked(
        [&] {
            try {
                client->Flush();
            } catch (const SendError& e) {
                flushError = e.what();
            }
        },
        SYS_sendto);
    const auto start = std::chrono::steady_clock::now();
    client->Shutdown();
    if (flushed.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "still blocked";
        ResetConnection(peer);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_THAT(flushError, testing::AnyOf("", "TCP Socket send failed: 32"));
    EXPECT_EQ(client->GetBufferSize(), flushError.empty() ? 0u : big.size());

    client->Shutdown(); // twice: harmless
}

TEST_P(ProtocolCallsTest, ShutdownEndsTheFlushWorkerAtItsNextSend)
{
    client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return HasThreadNamed("ORVUN_TCP_FLUSH"); }));
    client->Shutdown();
    testing::internal::CaptureStderr();
    Put(*client, ToBytes("after shutdown"));
    client->Flush(); // queued; the worker's send fails
    const bool ended = WaitFor([] { return !HasThreadNamed("ORVUN_TCP_FLUSH"); });
    const std::string printed = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(ended);
    EXPECT_EQ(printed, "TCP Socket send failed (non-blocking)\n");
    EXPECT_TRUE(client->IsIdle());
    Put(*client, ToBytes("direct"));
    EXPECT_EQ(MessageOf<SendError>([&] { client->Flush(); }), "TCP Socket send failed: 32");
    EXPECT_EQ(client->GetBufferSize(), 6u);
}

TEST_P(ProtocolCallsTest, SetNoDelaySwitchesNaglesAlgorithm)
{
    EXPECT_EQ(NoDelayOf(clientFd), 0) << "client sockets start with Nagle's algorithm on";
    client->SetNoDelay(true);
    EXPECT_NE(NoDelayOf(clientFd), 0);
    client->SetNoDelay(false);
    EXPECT_EQ(NoDelayOf(clientFd), 0);
}

TEST_P(ProtocolCallsTest, OneThreadReadsWhileAnotherWrites)
{
    // The peer echoes everything; the client writes on one thread and reads
    // the echo on another, both at once (ThreadSanitizer watches this run).
    const Bytes payload = RandomBytes(4 << 20, 11);
    std::thread echo([&] {
        Bytes chunk(65536);
        ssize_t n = 0;
        while ((n = recv(peer.Get(), chunk.data(), chunk.size(), 0)) > 0) {
            EXPECT_TRUE(SendAll(peer.Get(), Bytes(chunk.begin(), chunk.begin() + n)));
        }
        shutdown(peer.Get(), SHUT_WR);
    });
    std::thread writer([&] {
        for (size_t offset = 0; offset < payload.size(); offset += 40000) {
            const size_t size = std::min<size_t>(40000, payload.size() - offset);
            client->Write(payload.data() + offset, size);
            client->Flush();
        }
    });
    Bytes received;
    std::vector<unsigned char> chunk(65536);
    while (received.size() < payload.size()) {
        const unsigned long n = client->ReadSome(chunk.data(), chunk.size());
        if (n == 0) {
            break;
        }
        received.insert(received.end(), chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
    writer.join();
    client->Shutdown();
    echo.join();
    EXPECT_TRUE(received == payload) << received.size() << " of " << payload.size() << " bytes, or not in order";
}

INSTANTIATE_TEST_SUITE_P(Loopback, ProtocolCallsTest, testing::ValuesIn(kFamilies), FamilyName);

class ReceiveLoopEndTest : public FamilyTest {};

TEST_P(ReceiveLoopEndTest, IsReceivingTurnsFalseWhenTheLoopEnds)
{
    const bool v6 = V6();
    unsigned short senderPort = 0;
    Fd sender = RawUdp(v6, senderPort);
    Queue<std::string> delivered;
    const UdpSocket::Callback callback = [&](const UdpSocket&, ReadOnlyStream&& d) {
        std::string text(d.GetBufferSize(), '\0');
        d.Read(reinterpret_cast<unsigned char*>(text.data()), text.size());
        if (text == "throw") {
            throw std::runtime_error("callback failed");
        }
        delivered.Push(text);
    };
    auto listener = std::make_unique<UdpListener>(Host(), 0, UdpSocket::Callback(callback));
    const unsigned short port = listener->GetLocalPort();
    EXPECT_TRUE(listener->IsReceiving());
    EXPECT_TRUE(SendDatagram(sender.Get(), v6, port, ToBytes("one")));
    ASSERT_EQ(delivered.Take(), "one");
    EXPECT_TRUE(listener->IsReceiving());

    // A zero-length datagram ends the loop quietly.
    EXPECT_TRUE(SendDatagram(sender.Get(), v6, port, {}));
    EXPECT_TRUE(WaitFor([&] { return !listener->IsReceiving(); }));
    EXPECT_EQ(listener->GetThreadError(), nullptr);

    // The recovery: let the old listener go, then bind the port anew.
    listener.reset();
    listener = std::make_unique<UdpListener>(Host(), port, UdpSocket::Callback(callback));
    EXPECT_TRUE(SendDatagram(sender.Get(), v6, port, ToBytes("two")));
    ASSERT_EQ(delivered.Take(), "two");

    // A throwing callback ends it too; the error is kept before the flag drops.
    EXPECT_TRUE(SendDatagram(sender.Get(), v6, port, ToBytes("throw")));
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
