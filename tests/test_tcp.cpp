// TCP connections, the listener and the flush worker, over real loopback
// connections with raw POSIX sockets (or the library itself) on the other end.
#include "Support.h"

#include "net/Socket.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <sys/syscall.h>
#include <type_traits>

namespace {

using namespace std::chrono_literals;
using orvun::cpu::Profiler;
using orvun::net::ConnectionError;
using orvun::net::Disconnected;
using orvun::net::PollError;
using orvun::net::ReceiveError;
using orvun::net::ResolveError;
using orvun::net::SendError;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using support::Bytes;
using support::Fd;
using support::WaitFor;

constexpr const char* kListenerThread = "ORVUN_TCP_Lisn";
constexpr const char* kFlushThread = "ORVUN_TCP_FLUSH";

// Neither copyable nor movable, and the accepting constructor is the listener's alone.
static_assert(!std::is_copy_constructible_v<TcpSocket> && !std::is_move_constructible_v<TcpSocket>);
static_assert(!std::is_copy_constructible_v<TcpListener> && !std::is_move_constructible_v<TcpListener>);
static_assert(!std::is_constructible_v<TcpSocket, int, std::shared_ptr<sockaddr>, bool>);

struct Family {
    bool ipv6;
    const char* host; // what the library is given
    const char* text; // what GetRemoteAddress reports for loopback
};
const Family kFamilies[] = {{false, "127.0.0.1", "127.0.0.1"}, {true, "::1", "::1"}};
std::string FamilyName(const testing::TestParamInfo<Family>& info) { return info.param.ipv6 ? "IPv6" : "IPv4"; }
void PrintTo(const Family& family, std::ostream* out) { *out << family.host; }

void Put(TcpSocket& socket, const Bytes& bytes) { socket.Write(bytes.data(), bytes.size()); }

template <typename Action> std::chrono::steady_clock::duration TimeOf(Action&& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

// Collects accepted connections on the listener's thread, with the name of
// the thread that delivered each.
class Inbox {
public:
    TcpListener::Callback Callback()
    {
        return [this](std::unique_ptr<TcpSocket> socket) {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof(name));
            std::lock_guard<std::mutex> lock(_mutex);
            _sockets.push_back(std::move(socket));
            _threadNames.emplace_back(name);
            _arrived.notify_all();
        };
    }
    std::unique_ptr<TcpSocket> Take(std::chrono::milliseconds limit = 10s)
    {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_arrived.wait_for(lock, limit, [this] { return !_sockets.empty(); })) {
            return nullptr;
        }
        auto socket = std::move(_sockets.front());
        _sockets.pop_front();
        return socket;
    }
    std::vector<std::string> ThreadNames()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _threadNames;
    }

private:
    std::mutex _mutex;
    std::condition_variable _arrived;
    std::deque<std::unique_ptr<TcpSocket>> _sockets;
    std::vector<std::string> _threadNames;
};

// "TCP TX" as recorded in the calling thread's record of `path`.
Profiler::Profile TcpTx(const std::string& path)
{
    orvun::cpu::SharedMutex::SharedHold hold(Profiler::profilesMutex);
    auto thread = Profiler::profiles.find(std::this_thread::get_id());
    if (thread == Profiler::profiles.end() || !thread->second.contains(path)) {
        return {};
    }
    const auto& extras = thread->second.at(path).extraProfiles;
    auto found = extras.find("TCP TX");
    return found == extras.end() ? Profiler::Profile{} : found->second;
}

bool TcpTxKnown()
{
    orvun::cpu::SharedMutex::SharedHold hold(Profiler::profilesMutex);
    return Profiler::extras.contains("TCP TX");
}

// A client TcpSocket connected to a raw listener of the parameter's family.
class TcpSocketTest : public testing::TestWithParam<Family> {
protected:
    struct Connection {
        std::unique_ptr<TcpSocket> client;
        Fd peer;           // the raw accepted end
        int clientFd = -1; // the client's own descriptor
    };

    void SetUp() override { _listener = support::RawTcpListener(GetParam().ipv6, _port); }

    Connection Connect(long timeout = 0)
    {
        Connection c;
        c.client = std::make_unique<TcpSocket>(GetParam().host, _port, 0, timeout);
        c.peer = support::AcceptWithin(_listener.Get());
        c.clientFd = support::FindTcpDescriptor(support::PeerPort(c.peer.Get()), _port);
        EXPECT_NE(c.clientFd, -1);
        return c;
    }

    Fd _listener;
    unsigned short _port = 0;
};

TEST_P(TcpSocketTest, ConnectsToThePeerAndReportsIt)
{
    auto c = Connect();
    EXPECT_EQ(c.client->GetRemoteAddress(), GetParam().text);
    EXPECT_EQ(c.client->GetRemotePort(), _port);
    Put(*c.client, support::ToBytes("hello"));
    c.client->Flush();
    EXPECT_EQ(c.client->GetBufferSize(), 0u);
    EXPECT_EQ(support::ReadExactly(c.peer.Get(), 5), support::ToBytes("hello"));
}

TEST_P(TcpSocketTest, RefusedConnectionThrowsAndClosesItsDescriptor)
{
    // Bound but not listening: connections to it are refused, and no one else can take the port.
    Fd holder(socket(GetParam().ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = support::Loopback(GetParam().ipv6, 0, length);
    ASSERT_EQ(bind(holder.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    const unsigned short port = support::LocalPort(holder.Get());

    const size_t before = support::OpenDescriptors();
    try {
        TcpSocket socket(GetParam().host, port, 0, 0);
        FAIL() << "connected to a port without listener";
    } catch (const ConnectionError& e) {
        EXPECT_STREQ(e.what(), "TCP Connection failed");
    }
    EXPECT_EQ(support::OpenDescriptors(), before);
}

TEST_P(TcpSocketTest, ConnectTimeoutBoundsTheAttemptOnly)
{
    // With a time-out, a connection to a live listener succeeds and sends block without limit afterwards.
    auto c = Connect(1500);
    const timeval limit = support::SendTimeout(c.clientFd);
    EXPECT_EQ(limit.tv_sec, 0);
    EXPECT_EQ(limit.tv_usec, 0);

    // A listener whose accept queue is full drops further handshakes, so only the time-out ends the attempt.
    unsigned short port = 0;
    Fd full = support::RawTcpListener(GetParam().ipv6, port);
    ASSERT_EQ(listen(full.Get(), 0), 0);
    std::vector<Fd> fillers;
    for (int i = 0; i < 2; ++i) {
        fillers.emplace_back(socket(GetParam().ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        socklen_t length;
        auto address = support::Loopback(GetParam().ipv6, port, length);
        connect(fillers.back().Get(), reinterpret_cast<sockaddr*>(&address), length);
    }
    const size_t before = support::OpenDescriptors();
    auto attempt = std::async(std::launch::async, [&] {
        try {
            TcpSocket socket(GetParam().host, port, 0, 1500);
            return std::string("connected");
        } catch (const ConnectionError& e) {
            return std::string(e.what());
        }
    });
    const bool ended = attempt.wait_for(20s) == std::future_status::ready;
    if (!ended) {
        full.Reset(); // refuses the next retried handshake, so the attempt ends
    }
    ASSERT_TRUE(ended) << "the connect time-out was not applied";
    EXPECT_EQ(attempt.get(), "TCP Connection failed");
    EXPECT_EQ(support::OpenDescriptors(), before);
}

TEST_P(TcpSocketTest, ReadWaitsForTheWholeSizeAcrossSegments)
{
    auto c = Connect();
    support::SendAll(c.peer.Get(), {1, 2, 3, 4});
    ASSERT_TRUE(WaitFor([&] { return support::QueuedBytes(c.clientFd) == 4; }));

    std::array<unsigned char, 10> data{};
    auto reading = std::async(std::launch::async, [&] { c.client->Read(data.data(), data.size()); });
    // The first segment is consumed before the second exists.
    ASSERT_TRUE(WaitFor([&] { return support::QueuedBytes(c.clientFd) == 0; }));
    support::SendAll(c.peer.Get(), {5, 6, 7, 8, 9, 10});

    const bool done = reading.wait_for(10s) == std::future_status::ready;
    if (!done) {
        c.peer.Reset(); // ends the read
    }
    ASSERT_TRUE(done);
    EXPECT_NO_THROW(reading.get());
    EXPECT_EQ(data, (std::array<unsigned char, 10>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST_P(TcpSocketTest, ReadOfNothingReturnsAtOnceEvenWhenThePeerHasClosed)
{
    auto c = Connect();
    c.peer.Reset();
    ASSERT_EQ(c.client->Poll(5000, 1), -1);
    unsigned char byte = 0x5A;
    EXPECT_NO_THROW(c.client->Read(&byte, 0));
    EXPECT_EQ(byte, 0x5A);
    EXPECT_THROW(c.client->Read(&byte, 1), Disconnected);
}

TEST_P(TcpSocketTest, PeerClosingMidReadThrowsDisconnectedWithThePartialBytes)
{
    auto c = Connect();
    support::SendAll(c.peer.Get(), {7, 8, 9});
    c.peer.Reset();
    std::array<unsigned char, 10> data;
    data.fill(0xEE);
    try {
        c.client->Read(data.data(), data.size());
        FAIL() << "read past the end of the connection";
    } catch (const Disconnected& e) {
        EXPECT_STREQ(e.what(), "TCP Socket RECV: End point disconnected");
    }
    EXPECT_EQ(data, (std::array<unsigned char, 10>{7, 8, 9, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_P(TcpSocketTest, ReadFromAResetConnectionThrowsReceiveError)
{
    auto c = Connect();
    support::ResetConnection(c.peer);
    ASSERT_EQ(c.client->Poll(5000), 1); // the reset has arrived
    unsigned char byte = 0;
    try {
        c.client->Read(&byte, 1);
        FAIL() << "read from a reset connection";
    } catch (const ReceiveError& e) {
        EXPECT_STREQ(e.what(), "TCP Socket Faild to RECV");
    }
}

TEST_P(TcpSocketTest, SendToAResetPeerThrowsWithErrnoAndKeepsTheBuffer)
{
    auto c = Connect();
    support::ResetConnection(c.peer);
    ASSERT_EQ(c.client->Poll(5000), 1);

    // Without MSG_NOSIGNAL the process would die of SIGPIPE here.
    const Bytes payload(100, 'x');
    std::string message;
    unsigned long buffered = 0;
    for (int attempt = 0; attempt < 100 && message.empty(); ++attempt) {
        if (c.client->GetBufferSize() == 0) {
            Put(*c.client, payload);
        }
        buffered = c.client->GetBufferSize();
        try {
            c.client->Flush();
        } catch (const SendError& e) {
            message = e.what();
        }
    }
    EXPECT_THAT(message, testing::MatchesRegex("TCP Socket send failed: (32|104)"));
    EXPECT_EQ(c.client->GetBufferSize(), buffered);
    EXPECT_NE(c.client->GetBufferSize(), 0u);
    EXPECT_THROW(c.client->Flush(), SendError); // the same bytes are offered again
}

TEST_P(TcpSocketTest, UnflushedBytesAreNeverSent)
{
    auto c = Connect();
    Put(*c.client, support::ToBytes("dropped"));
    c.client.reset();
    bool closed = false;
    EXPECT_TRUE(support::ReadUntilClosed(c.peer.Get(), closed).empty());
    EXPECT_TRUE(closed);
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpSocketTest, testing::ValuesIn(kFamilies), FamilyName);

TEST(TcpResolveTest, UnresolvableHostsThrowResolveErrorAndLeaveNothingOpen)
{
    const size_t descriptors = support::OpenDescriptors();
    const size_t threads = support::ThreadCount();
    try {
        TcpSocket socket("999.999.999.999", 1, 0, 0);
        FAIL() << "resolved an invalid address";
    } catch (const ResolveError& e) {
        EXPECT_STREQ(e.what(), "Could not resolve host '999.999.999.999'");
    }
    TcpListener::Callback callback = [](std::unique_ptr<TcpSocket>) {};
    try {
        TcpListener listener("1.2.3.4.5", 0, std::move(callback));
        FAIL() << "resolved an invalid address";
    } catch (const ResolveError& e) {
        EXPECT_STREQ(e.what(), "Could not resolve host '1.2.3.4.5'");
    }
    EXPECT_TRUE(static_cast<bool>(callback)); // not taken by a failed constructor
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_LE(support::ThreadCount(), threads); // threads of earlier tests may still be leaving
}

TEST(TcpResolveTest, LocalhostConnectsOverIPv4)
{
    unsigned short port = 0;
    Fd listener = support::RawTcpListener(false, port);
    TcpSocket socket("localhost", port, 0, 0);
    Fd peer = support::AcceptWithin(listener.Get());
    EXPECT_EQ(socket.GetRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(socket.GetRemotePort(), port);
}

// Large payloads between two library sockets: a client and the connection a listener accepted.
// Parameter: the bytes written per flush.
class TcpPayloadTest : public testing::TestWithParam<unsigned long> {};
constexpr unsigned long kPayloadSize = 6ul << 20;

TEST_P(TcpPayloadTest, SeveralMebibytesArriveByteForByte)
{
    const unsigned long chunk = GetParam();
    const Bytes payload = support::RandomBytes(kPayloadSize);
    Inbox inbox;
    TcpListener listener("127.0.0.1", 0, inbox.Callback());
    TcpSocket client("127.0.0.1", listener.GetLocalPort(), 0, 0);
    auto accepted = inbox.Take();
    ASSERT_NE(accepted, nullptr);

    Bytes received(payload.size());
    auto reading = std::async(std::launch::async, [&] { accepted->Read(received.data(), received.size()); });
    auto writing = std::async(std::launch::async, [&] {
        for (size_t offset = 0; offset < payload.size(); offset += chunk) {
            client.Write(payload.data() + offset, std::min<size_t>(chunk, payload.size() - offset));
            client.Flush();
        }
    });
    const bool done = reading.wait_for(60s) == std::future_status::ready;
    const bool intact = done && received == payload;
    if (!intact) {
        // Wakes a sender or receiver that would otherwise wait for ever.
        shutdown(support::FindTcpDescriptor(client.GetLocalPort(), listener.GetLocalPort()), SHUT_RDWR);
        shutdown(support::FindTcpDescriptor(listener.GetLocalPort(), client.GetLocalPort()), SHUT_RDWR);
    }
    EXPECT_TRUE(done);
    EXPECT_TRUE(intact);
    EXPECT_NO_THROW(reading.get());
    EXPECT_NO_THROW(writing.get());
}

std::string FlushesName(const testing::TestParamInfo<unsigned long>& info)
{
    return info.param == kPayloadSize ? "OneFlush" : "ManyFlushes";
}
INSTANTIATE_TEST_SUITE_P(Flushes, TcpPayloadTest, testing::Values(kPayloadSize, 64ul << 10), FlushesName);

class TcpProfilerTest : public testing::Test {
protected:
    void SetUp() override
    {
        support::ResetProfiler(true);
        _listener = support::RawTcpListener(false, _port);
        _client = std::make_unique<TcpSocket>("127.0.0.1", _port, 0, 0);
        _peer = support::AcceptWithin(_listener.Get());
    }
    void TearDown() override { support::ResetProfiler(false); }

    Fd _listener;
    unsigned short _port = 0;
    std::unique_ptr<TcpSocket> _client;
    Fd _peer;
};

TEST_F(TcpProfilerTest, EmptyFlushDoesNothing)
{
    {
        Profiler scope("tcp");
        _client->Flush();
        _client->SetNonBlockingFlush();
        _client->Flush();
        EXPECT_TRUE(_client->IsIdle());
    }
    EXPECT_EQ(TcpTx("tcp").count, 0);
    EXPECT_FALSE(TcpTxKnown());
}

TEST_F(TcpProfilerTest, FlushRecordsItsSizeInTheOpenScopes)
{
    {
        Profiler outer("tcp");
        Put(*_client, Bytes(10, 1));
        _client->Flush();
        Profiler inner("inner");
        Put(*_client, Bytes(4, 2));
        _client->Flush();
    }
    Put(*_client, Bytes(3, 3));
    _client->Flush(); // no scope open: not recorded
    const auto outer = TcpTx("tcp");
    EXPECT_EQ(outer.count, 2);
    EXPECT_EQ(outer.total, 14.0);
    EXPECT_EQ(outer.min, 4.0);
    EXPECT_EQ(outer.max, 10.0);
    const auto inner = TcpTx("tcp/inner");
    EXPECT_EQ(inner.count, 1);
    EXPECT_EQ(inner.total, 4.0);
    EXPECT_EQ(support::ReadExactly(_peer.Get(), 17).size(), 17u);
}

TEST_F(TcpProfilerTest, WorkerTakesFlushesMadeWhileItIsBusyInFlushOrder)
{
    // A small receive window keeps the worker blocked in the send of a large batch.
    const int window = 64 << 10;
    unsigned short port = 0;
    Fd slowListener = support::RawTcpListener(false, port);
    ASSERT_EQ(setsockopt(slowListener.Get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof(window)), 0);
    TcpSocket client("127.0.0.1", port, 0, 0);
    Fd peer = support::AcceptWithin(slowListener.Get());
    client.SetNonBlockingFlush();
    EXPECT_TRUE(client.IsIdle());

    const Bytes large = support::RandomBytes(8u << 20, 7);
    Put(client, large);
    client.Flush();
    ASSERT_TRUE(WaitFor([&] { return client.IsIdle(); })); // taken, and still being sent
    {
        Profiler scope("batch");
        Put(client, {1, 2, 3, 4, 5});
        client.Flush();
        EXPECT_FALSE(client.IsIdle());
        Put(client, {6, 7, 8, 9, 10, 11, 12});
        client.Flush();
        EXPECT_FALSE(client.IsIdle());
        EXPECT_EQ(client.GetBufferSize(), 0u);
    }
    const auto tx = TcpTx("batch");
    EXPECT_EQ(tx.count, 2);
    EXPECT_EQ(tx.total, 12.0);
    EXPECT_EQ(tx.min, 5.0);
    EXPECT_EQ(tx.max, 7.0);

    const Bytes received = support::ReadExactly(peer.Get(), large.size() + 12, 60s);
    ASSERT_EQ(received.size(), large.size() + 12);
    EXPECT_TRUE(std::equal(large.begin(), large.end(), received.begin()));
    EXPECT_EQ(Bytes(received.end() - 12, received.end()), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_TRUE(WaitFor([&] { return client.IsIdle(); }));
}

class TcpListenerTest : public testing::TestWithParam<Family> {
protected:
    bool V6() const { return GetParam().ipv6; }
    const char* Host() const { return GetParam().host; }
};

TEST_P(TcpListenerTest, AcceptedConnectionDescribesThePeerAndIsKeptByTheCallback)
{
    Inbox inbox;
    auto listener = std::make_unique<TcpListener>(Host(), 0, inbox.Callback());
    const unsigned short port = listener->GetLocalPort();
    ASSERT_NE(port, 0);
    Fd client = support::RawTcpConnect(V6(), port);
    const unsigned short clientPort = support::LocalPort(client.Get());
    auto accepted = inbox.Take();
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(inbox.ThreadNames(), std::vector<std::string>{kListenerThread});

    EXPECT_EQ(accepted->GetRemoteAddress(), GetParam().text);
    EXPECT_EQ(accepted->GetRemotePort(), clientPort);
    EXPECT_EQ(accepted->GetLocalPort(), port);
    EXPECT_EQ(accepted->GetBufferSize(), 0u);
    EXPECT_TRUE(accepted->IsIdle());

    const int fd = support::FindTcpDescriptor(port, clientPort);
    ASSERT_NE(fd, -1);
    int nodelay = 0;
    socklen_t length = sizeof(nodelay);
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &length), 0);
    EXPECT_NE(nodelay, 0);
    const timeval limit = support::SendTimeout(fd);
    EXPECT_EQ(limit.tv_sec, 0);
    EXPECT_EQ(limit.tv_usec, 0);

    // A kept connection outlives the callback and the listener.
    listener.reset();
    support::SendAll(client.Get(), support::ToBytes("ping"));
    Bytes ping(4);
    accepted->Read(ping.data(), ping.size());
    EXPECT_EQ(ping, support::ToBytes("ping"));
    Put(*accepted, support::ToBytes("pong"));
    accepted->Flush();
    EXPECT_EQ(support::ReadExactly(client.Get(), 4), support::ToBytes("pong"));
}

TEST_P(TcpListenerTest, ConnectionNotKeptIsClosedWhenTheCallbackReturns)
{
    std::atomic<int> calls{0};
    // One callback takes the socket by value, the other leaves the pointer holding it.
    TcpListener byValue(Host(), 0, [&](std::unique_ptr<TcpSocket> socket) { calls += socket != nullptr; });
    TcpListener byReference(Host(), 0, [&](std::unique_ptr<TcpSocket>&& socket) { calls += socket != nullptr; });
    for (TcpListener* listener : {&byValue, &byReference}) {
        Fd client = support::RawTcpConnect(V6(), listener->GetLocalPort());
        bool closed = false;
        EXPECT_TRUE(support::ReadUntilClosed(client.Get(), closed).empty());
        EXPECT_TRUE(closed);
    }
    EXPECT_EQ(calls, 2);
}

TEST_P(TcpListenerTest, PortZeroListensOnAChosenPortButReportsZero)
{
    Inbox inbox;
    TcpListener listener(Host(), 0, inbox.Callback());
    EXPECT_EQ(listener.GetRemotePort(), 0);
    EXPECT_EQ(listener.GetRemoteAddress(), GetParam().text);
    ASSERT_NE(listener.GetLocalPort(), 0);
    TcpSocket client(Host(), listener.GetLocalPort(), 0, 0);
    EXPECT_NE(inbox.Take(), nullptr);
}

TEST_P(TcpListenerTest, TwoListenersShareOnePort)
{
    Inbox inbox;
    TcpListener first(Host(), 0, inbox.Callback());
    const unsigned short port = first.GetLocalPort();
    std::optional<TcpListener> second;
    ASSERT_NO_THROW(second.emplace(Host(), port, inbox.Callback()));
    std::vector<Fd> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(support::RawTcpConnect(V6(), port));
        EXPECT_NE(inbox.Take(), nullptr);
    }
}

TEST_P(TcpListenerTest, PortHeldWithoutReuseGivesBindError)
{
    unsigned short port = 0;
    Fd holder = support::RawTcpListener(V6(), port);
    const size_t descriptors = support::OpenDescriptors();
    const size_t threads = support::ThreadCount();
    TcpListener::Callback callback = [](std::unique_ptr<TcpSocket>) {};
    try {
        TcpListener listener(Host(), port, std::move(callback));
        FAIL() << "bound a port held by another socket";
    } catch (const orvun::net::BindError& e) {
        EXPECT_STREQ(e.what(), "TCP Bind failed");
    }
    EXPECT_TRUE(static_cast<bool>(callback));
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_LE(support::ThreadCount(), threads);
}

TEST_P(TcpListenerTest, IdleListenerStopsPromptlyAndClosesItsPort)
{
    auto listener = std::make_unique<TcpListener>(Host(), 0, [](std::unique_ptr<TcpSocket>) {});
    const unsigned short port = listener->GetLocalPort();
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kListenerThread); }));
    EXPECT_LT(TimeOf([&] { listener.reset(); }), 2s);
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kListenerThread); }, 2s));
    EXPECT_EQ(support::TryConnect(V6(), port), ECONNREFUSED);
}

TEST_P(TcpListenerTest, ThrowingCallbackEndsTheAcceptLoopAndIsKept)
{
    std::atomic<int> calls{0};
    std::optional<TcpListener> listener(std::in_place, Host(), 0, [&](std::unique_ptr<TcpSocket>) {
        ++calls;
        throw std::runtime_error("callback failed");
    });
    const unsigned short port = listener->GetLocalPort();
    EXPECT_EQ(listener->GetThreadError(), nullptr);
    Fd first = support::RawTcpConnect(V6(), port);
    ASSERT_TRUE(WaitFor([&] { return listener->GetThreadError() != nullptr; }));
    try {
        std::rethrow_exception(listener->GetThreadError());
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "callback failed");
    }
    bool closed = false;
    support::ReadUntilClosed(first.Get(), closed);
    EXPECT_TRUE(closed);

    // No accept thread is left to take further connections.
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kListenerThread); }));
    Fd second = support::RawTcpConnect(V6(), port);
    EXPECT_EQ(calls, 1);
    EXPECT_NO_THROW(listener.reset());
}

TEST_P(TcpListenerTest, EmptyCallbackEndsTheAcceptLoopWithBadFunctionCall)
{
    std::optional<TcpListener> listener(std::in_place, Host(), 0, TcpListener::Callback{});
    Fd client = support::RawTcpConnect(V6(), listener->GetLocalPort());
    ASSERT_TRUE(WaitFor([&] { return listener->GetThreadError() != nullptr; }));
    EXPECT_THROW(std::rethrow_exception(listener->GetThreadError()), std::bad_function_call);
    bool closed = false;
    support::ReadUntilClosed(client.Get(), closed);
    EXPECT_TRUE(closed); // the connection went down with the failed call
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kListenerThread); }));
    EXPECT_NO_THROW(listener.reset());
}

TEST_P(TcpListenerTest, InterruptedPollEndsTheAcceptLoopWithPollError)
{
    // A handler that does nothing, so that the signal only interrupts poll.
    struct HandlerGuard {
        struct sigaction previous {};
        HandlerGuard()
        {
            struct sigaction quiet {};
            quiet.sa_handler = [](int) {};
            sigemptyset(&quiet.sa_mask);
            sigaction(SIGUSR1, &quiet, &previous);
        }
        ~HandlerGuard() { sigaction(SIGUSR1, &previous, nullptr); }
    } guard;

    TcpListener listener(Host(), 0, [](std::unique_ptr<TcpSocket>) {});
    pid_t thread = 0;
    ASSERT_TRUE(WaitFor([&] { return (thread = support::ThreadIdNamed(kListenerThread)) != 0; }));
    for (int attempt = 0; attempt < 50 && listener.GetThreadError() == nullptr; ++attempt) {
        syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
        WaitFor([&] { return listener.GetThreadError() != nullptr; }, 200ms);
    }
    ASSERT_NE(listener.GetThreadError(), nullptr);
    try {
        std::rethrow_exception(listener.GetThreadError());
    } catch (const PollError& e) {
        EXPECT_STREQ(e.what(), "TCP Socket Listener Poll Error");
    }
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kListenerThread); }));
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpListenerTest, testing::ValuesIn(kFamilies), FamilyName);

class TcpFlushWorkerTest : public TcpSocketTest {};

TEST_P(TcpFlushWorkerTest, ManySmallFlushesArriveInOrder)
{
    auto c = Connect();
    c.client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kFlushThread); }));
    const Bytes payload = support::RandomBytes(300000, 3);
    for (size_t offset = 0, size = 1; offset < payload.size(); offset += size, size = size % 97 + 1) {
        c.client->Write(payload.data() + offset, std::min(size, payload.size() - offset));
        c.client->Flush();
        EXPECT_EQ(c.client->GetBufferSize(), 0u);
    }
    EXPECT_EQ(support::ReadExactly(c.peer.Get(), payload.size(), 30s), payload);
    EXPECT_TRUE(WaitFor([&] { return c.client->IsIdle(); }));
}

TEST_P(TcpFlushWorkerTest, SecondStartDoesNothing)
{
    auto c = Connect();
    c.client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kFlushThread); }));
    const size_t threads = support::ThreadCount();
    c.client->SetNonBlockingFlush();
    EXPECT_LE(support::ThreadCount(), threads);
    EXPECT_EQ(support::ThreadNames().count(kFlushThread), 1u);
    Put(*c.client, support::ToBytes("still one"));
    c.client->Flush();
    EXPECT_EQ(support::ReadExactly(c.peer.Get(), 9), support::ToBytes("still one"));
}

TEST_P(TcpFlushWorkerTest, FailedSendFallsBackToDirectFlushes)
{
    auto c = Connect();
    c.client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kFlushThread); }));
    support::ResetConnection(c.peer);
    ASSERT_EQ(c.client->Poll(5000), 1);

    testing::internal::CaptureStderr();
    for (int attempt = 0; attempt < 50 && support::HasThreadNamed(kFlushThread); ++attempt) {
        Put(*c.client, Bytes(10, 'q'));
        c.client->Flush(); // only queued while the worker runs
        WaitFor([] { return !support::HasThreadNamed(kFlushThread); }, 200ms);
    }
    const bool workerEnded = !support::HasThreadNamed(kFlushThread);
    const std::string printed = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(workerEnded);
    EXPECT_EQ(printed, "TCP Socket send failed (non-blocking)\n");
    EXPECT_TRUE(c.client->IsIdle());

    // The socket is back in direct mode, and a new start does not revive the worker.
    c.client->SetNonBlockingFlush();
    EXPECT_FALSE(support::HasThreadNamed(kFlushThread));
    Put(*c.client, Bytes(10, 'r'));
    EXPECT_THROW(c.client->Flush(), SendError);
    EXPECT_EQ(c.client->GetBufferSize(), 10u);
}

TEST_P(TcpFlushWorkerTest, DestroyingReturnsPromptlyAndLosesNothingOnceIdle)
{
    auto c = Connect();
    c.client->SetNonBlockingFlush();
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kFlushThread); }));
    Put(*c.client, support::ToBytes("0123456789"));
    c.client->Flush();
    ASSERT_TRUE(WaitFor([&] { return c.client->IsIdle(); }));
    EXPECT_LT(TimeOf([&] { c.client.reset(); }), 2s);
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kFlushThread); }, 2s));
    bool closed = false;
    EXPECT_EQ(support::ReadUntilClosed(c.peer.Get(), closed), support::ToBytes("0123456789"));
    EXPECT_TRUE(closed);
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpFlushWorkerTest, testing::ValuesIn(kFamilies), FamilyName);

TEST(TcpLifetimeTest, NothingOutlivesListenerAndSockets)
{
    const size_t descriptors = support::OpenDescriptors();
    const size_t threads = support::ThreadCount();
    {
        Inbox inbox;
        TcpListener listener("::1", 0, inbox.Callback());
        TcpSocket direct("::1", listener.GetLocalPort(), 0, 0);
        TcpSocket worker("::1", listener.GetLocalPort(), 0, 0);
        worker.SetNonBlockingFlush();
        for (TcpSocket* socket : {&direct, &worker}) {
            auto accepted = inbox.Take();
            ASSERT_NE(accepted, nullptr);
            Put(*socket, support::ToBytes("abc"));
            socket->Flush();
            Bytes got(3);
            accepted->Read(got.data(), got.size());
            EXPECT_EQ(got, support::ToBytes("abc"));
        }
    }
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_TRUE(WaitFor([&] { return support::ThreadCount() <= threads; }, 2s));
    EXPECT_FALSE(support::HasThreadNamed(kListenerThread));
    EXPECT_FALSE(support::HasThreadNamed(kFlushThread));
}

} // namespace
