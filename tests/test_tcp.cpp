// TCP connections, the listener and the flush worker, over real loopback
// connections with raw POSIX sockets (or the library itself) on the other end.
#include "support/Common.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <future>
#include <netinet/tcp.h>

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;

constexpr const char* kListenerThread = "ORVUN_TCP_Lisn";
constexpr const char* kFlushThread = "ORVUN_TCP_FLUSH";

// The send time-out of a descriptor in milliseconds; -1 when it cannot be read.
long SendTimeoutMs(int fd)
{
    timeval limit{};
    socklen_t length = sizeof(limit);
    return getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length) == 0 ? limit.tv_sec * 1000 + limit.tv_usec / 1000
                                                                         : -1;
}

// Accepted connections, handed over by the accept thread.
class Inbox : public Queue<std::unique_ptr<TcpSocket>> {
public:
    TcpListener::Callback Callback()
    {
        return [this](std::unique_ptr<TcpSocket> socket) { Push(std::move(socket)); };
    }
    std::unique_ptr<TcpSocket> Next() { return Take().value_or(nullptr); }
};

class TcpTest : public FamilyTest {};

TEST_P(TcpTest, FailedConnectsThrowAndCloseTheirDescriptor)
{
    // With a time-out, a connection to a live listener succeeds and sends block without limit afterwards.
    Connection c(V6(), Host(), 1500);
    EXPECT_EQ(SendTimeoutMs(c.clientFd), 0);

    // Bound but not listening: connections to it are refused, and no one else can take the port.
    Fd holder = RawSocket(V6(), SOCK_STREAM, true);
    const unsigned short refused = PortOf(holder.Get());
    // A listener whose accept queue is full drops further handshakes, so only the time-out ends the attempt.
    unsigned short port = 0;
    Fd full = RawTcpListener(V6(), port, 0);
    socklen_t length;
    const auto address = Loopback(V6(), port, length);
    Fd fillers[2] = {RawSocket(V6(), SOCK_STREAM | SOCK_NONBLOCK), RawSocket(V6(), SOCK_STREAM | SOCK_NONBLOCK)};
    for (const Fd& filler : fillers) {
        connect(filler.Get(), reinterpret_cast<const sockaddr*>(&address), length);
    }
    EXPECT_EQ(MessageOf<ConnectionError>([&] { TcpSocket socket(Host(), refused, 0, 0); }), "TCP Connection failed");
    auto attempt = std::async(std::launch::async, [&] {
        return MessageOf<ConnectionError>([&] { TcpSocket socket(Host(), port, 0, 1500); });
    });
    const bool ended = attempt.wait_for(20s) == std::future_status::ready;
    if (!ended) {
        full.Reset(); // refuses the next retried handshake, so the attempt ends
    }
    ASSERT_TRUE(ended) << "the connect time-out was not applied";
    EXPECT_EQ(attempt.get(), "TCP Connection failed");
}

TEST_P(TcpTest, ReadWaitsForTheWholeSizeAndReportsAClosedPeer)
{
    Connection c(V6(), Host());
    // A receive time-out makes the waiting recv fail with EAGAIN, which Read retries.
    const timeval limit{0, 20000};
    ASSERT_EQ(setsockopt(c.clientFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    SendAll(c.peer.Get(), {1, 2, 3, 4});
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(c.clientFd) == 4; }));
    std::array<unsigned char, 10> data{};
    auto reading = std::async(std::launch::async, [&] { c.client->Read(data.data(), data.size()); });
    // The first segment is consumed before the second exists.
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(c.clientFd) == 0; }));
    std::this_thread::sleep_for(100ms);
    SendAll(c.peer.Get(), {5, 6, 7, 8, 9, 10});
    const bool done = reading.wait_for(10s) == std::future_status::ready;
    if (!done) {
        c.peer.Reset(); // ends the read
    }
    ASSERT_TRUE(done);
    EXPECT_NO_THROW(reading.get());
    EXPECT_EQ(data, (std::array<unsigned char, 10>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));

    // The peer closes mid-read: the bytes that came are in `data`.
    SendAll(c.peer.Get(), {7, 8, 9});
    c.peer.Reset();
    data.fill(0xEE);
    EXPECT_EQ(MessageOf<Disconnected>([&] { c.client->Read(data.data(), data.size()); }),
              "TCP Socket RECV: End point disconnected");
    EXPECT_EQ(data, (std::array<unsigned char, 10>{7, 8, 9, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_P(TcpTest, ResetPeerFailsReadsAndSendsWithoutASignal)
{
    std::signal(SIGPIPE, SIG_DFL); // whatever the parent process chose
    Connection c(V6(), Host());
    ResetConnection(c.peer);
    ASSERT_EQ(c.client->Poll(5000), 1); // the reset has arrived
    unsigned char byte = 0;
    EXPECT_EQ(MessageOf<ReceiveError>([&] { c.client->Read(&byte, 1); }), "TCP Socket Faild to RECV");

    // Without MSG_NOSIGNAL the process would die of SIGPIPE here.
    const Bytes payload(100, 'x');
    std::string message = "<no exception>";
    for (int attempt = 0; attempt < 100 && message == "<no exception>"; ++attempt) {
        if (c.client->GetBufferSize() == 0) {
            Put(*c.client, payload);
        }
        message = MessageOf<SendError>([&] { c.client->Flush(); });
    }
    EXPECT_THAT(message, testing::MatchesRegex("TCP Socket send failed: (32|104)"));
    EXPECT_EQ(Buffered(*c.client), payload);
    EXPECT_THROW(c.client->Flush(), SendError); // the same bytes are offered again
}

TEST_P(TcpTest, AcceptedConnectionIsTheCallbacksAndOutlivesTheListener)
{
    Inbox inbox;
    auto listener = std::make_unique<TcpListener>(Host(), 0, inbox.Callback());
    const unsigned short port = listener->GetLocalPort();
    ASSERT_NE(port, 0);
    EXPECT_EQ(listener->GetRemoteAddress(), Host());
    EXPECT_EQ(listener->GetRemotePort(), 0); // the bind record keeps the port asked for
    Fd client = RawTcpConnect(V6(), port);
    const unsigned short clientPort = PortOf(client.Get());
    auto accepted = inbox.Next();
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->GetRemoteAddress(), Host());
    EXPECT_EQ(accepted->GetRemotePort(), clientPort);
    const int fd = FindTcpDescriptor(port, clientPort);
    EXPECT_EQ(OptionOf(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(SendTimeoutMs(fd), 0);

    // The idle listener stops promptly and closes its port; the kept connection stays.
    EXPECT_LT(TimeOf([&] { listener.reset(); }), 2s);
    EXPECT_EQ(RawTcpConnect(V6(), port).Get(), -1);
    SendAll(client.Get(), ToBytes("ping"));
    Bytes ping(4);
    accepted->Read(ping.data(), ping.size());
    EXPECT_EQ(ping, ToBytes("ping"));
    Put(*accepted, ToBytes("pong"));
    accepted->Flush();
    EXPECT_EQ(ReadUpTo(client.Get(), 4), ToBytes("pong"));
    // Written but never flushed: the destructor drops it.
    Put(*accepted, ToBytes("dropped"));
    accepted.reset();
    bool closed = false;
    EXPECT_TRUE(ReadUpTo(client.Get(), SIZE_MAX, &closed).empty());
    EXPECT_TRUE(closed);
}

TEST_P(TcpTest, PortIsSharedOnlyWithSocketsThatAllowIt)
{
    Inbox inbox;
    TcpListener first(Host(), 0, inbox.Callback());
    const unsigned short port = first.GetLocalPort();
    std::optional<TcpListener> second;
    ASSERT_NO_THROW(second.emplace(Host(), port, inbox.Callback()));
    Fd client = RawTcpConnect(V6(), port);
    EXPECT_NE(inbox.Next(), nullptr);
    // A bound socket that allows address reuse does not keep a listener off its port.
    Fd reusing = RawSocket(V6(), SOCK_STREAM, true, 0, true);
    EXPECT_NO_THROW(TcpListener(Host(), PortOf(reusing.Get()), inbox.Callback()));

    unsigned short held = 0;
    Fd holder = RawTcpListener(V6(), held); // without reuse
    TcpListener::Callback callback = [](std::unique_ptr<TcpSocket>) {};
    EXPECT_EQ(MessageOf<BindError>([&] { TcpListener listener(Host(), held, std::move(callback)); }),
              "TCP Bind failed");
    EXPECT_TRUE(static_cast<bool>(callback)); // untouched by the failed constructor
}

// A callback that throws, or an empty one, ends the accept loop; the failure is kept for the owner.
TEST_P(TcpTest, FailingCallbackEndsTheAcceptLoopAndIsKept)
{
    std::atomic<int> calls{0};
    const TcpListener::Callback throwing = [&](std::unique_ptr<TcpSocket>) {
        ++calls;
        throw std::runtime_error("callback failed");
    };
    for (const bool empty : {false, true}) {
        SCOPED_TRACE(empty ? "empty callback" : "throwing callback");
        std::optional<TcpListener> listener(std::in_place, Host(), 0,
                                            empty ? TcpListener::Callback{} : TcpListener::Callback(throwing));
        const unsigned short port = listener->GetLocalPort();
        EXPECT_EQ(listener->GetThreadError(), nullptr);
        Fd first = RawTcpConnect(V6(), port);
        ASSERT_TRUE(WaitFor([&] { return listener->GetThreadError() != nullptr; }));
        const auto rethrow = [&] { std::rethrow_exception(listener->GetThreadError()); };
        if (empty) {
            EXPECT_THROW(rethrow(), std::bad_function_call);
        } else {
            EXPECT_EQ(MessageOf<std::runtime_error>(rethrow), "callback failed");
        }
        bool closed = false;
        ReadUpTo(first.Get(), SIZE_MAX, &closed);
        EXPECT_TRUE(closed); // the connection went down with the failed call
        // No accept thread is left to take further connections.
        EXPECT_TRUE(WaitFor([] { return !HasThreadNamed(kListenerThread); }));
        Fd second = RawTcpConnect(V6(), port);
        EXPECT_NO_THROW(listener.reset());
    }
    EXPECT_EQ(calls, 1);
}

// A small receive window keeps the worker blocked in the send of a large
// batch; flushes made meanwhile are queued and sent in order.
TEST_P(TcpTest, WorkerSendsFlushesInOrderAndStopsPromptly)
{
    Connection c(V6(), Host(), 0, 64 << 10);
    c.client->SetNonBlockingFlush();
    c.client->SetNonBlockingFlush(); // a second start does nothing
    ASSERT_TRUE(WaitFor([] { return HasThreadNamed(kFlushThread); }));
    EXPECT_EQ(ThreadsNamed(kFlushThread).size(), 1u);

    const Bytes large = RandomBytes(8u << 20, 7);
    Put(*c.client, large);
    c.client->Flush();
    ASSERT_TRUE(WaitFor([&] { return c.client->IsIdle(); })); // taken, and still being sent
    Put(*c.client, {1, 2, 3, 4, 5});
    c.client->Flush();
    EXPECT_FALSE(c.client->IsIdle());
    Put(*c.client, {6, 7, 8, 9, 10, 11, 12});
    c.client->Flush();
    const Bytes received = ReadUpTo(c.peer.Get(), large.size() + 12, nullptr, 60s);
    ASSERT_EQ(received.size(), large.size() + 12);
    EXPECT_TRUE(std::equal(large.begin(), large.end(), received.begin()));
    EXPECT_EQ(Bytes(received.end() - 12, received.end()), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));

    // Destroyed once idle, it loses nothing and returns within about one wait period.
    Put(*c.client, ToBytes("0123456789"));
    c.client->Flush();
    ASSERT_TRUE(WaitFor([&] { return c.client->IsIdle(); }));
    EXPECT_LT(TimeOf([&] { c.client.reset(); }), 2s);
    bool closed = false;
    EXPECT_EQ(ReadUpTo(c.peer.Get(), SIZE_MAX, &closed), ToBytes("0123456789"));
    EXPECT_TRUE(closed);
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
