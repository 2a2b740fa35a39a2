// UDP sockets, the receive loop and the listener, over real loopback datagrams
// with raw POSIX sockets (or the library itself) on the other end.
#include "Support.h"

#include "net/Socket.h"

#include <deque>
#include <future>
#include <optional>

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using orvun::filesystem::StreamIsWriteOnly;

constexpr const char* kReceiveThread = "ORVUN_UDP_Lisn";
constexpr size_t kOversized = 70000; // above the UDP payload limit of both families
constexpr auto kQuiet = 300ms;       // how long "nothing arrives" is watched

// Whether a socket without reuse options can bind loopback:`port`, i.e. nobody holds it.
bool CanBind(bool ipv6, unsigned short port) { return RawSocket(ipv6, SOCK_DGRAM, true, port).Get() >= 0; }

// A datagram as the receive callback saw it.
struct Arrival {
    Bytes bytes;
    std::string address;
    unsigned short port = 0;
    const UdpSocket* socket = nullptr;
    std::thread::id thread;
};

// Collects what a receive callback is handed, for the test thread to take.
// Declare it before the socket that uses it, so that the socket goes first.
class Inbox : public Queue<Arrival> {
public:
    using Also = std::function<void(const UdpSocket&, const Arrival&)>;

    // `also` runs on the receive thread before the arrival is posted, so its
    // effects are visible once `Take` has returned the arrival.
    UdpSocket::Callback Callback(Also also = nullptr)
    {
        return [this, also = std::move(also)](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Arrival arrival{Bytes(stream.GetBufferSize()), socket.GetIncomingAddress(), socket.GetIncomingPort(),
                            &socket, std::this_thread::get_id()};
            stream.Read(arrival.bytes.data(), arrival.bytes.size());
            if (also) {
                also(socket, arrival);
            }
            Push(std::move(arrival));
        };
    }
};

// Answers every datagram with its own bytes through a copy of the receiving socket.
void Echo(const UdpSocket& socket, const Arrival& arrival)
{
    UdpSocket reply(socket);
    Put(reply, arrival.bytes);
    reply.Flush();
}

// Every test starts with an empty, enabled profiler; no socket outlives a test.
class UdpTest : public testing::TestWithParam<Family> {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
    bool V6() const { return GetParam().ipv6; }
    const char* Host() const { return GetParam().host; }
    Fd Raw(unsigned short& port) const { return RawUdp(V6(), port); }
    void SendFrom(const Fd& fd, unsigned short port, const Bytes& bytes) const
    {
        SendDatagram(fd.Get(), V6(), port, bytes);
    }
    bool NothingArrives(const Fd& fd) const { return ReceiveDatagram(fd.Get(), nullptr, kQuiet).empty(); }
};

// ------------------------------------------------------------ UdpSocket

TEST_P(UdpTest, FlushSendsTheBufferAsOneDatagram)
{
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket socket(Host(), port, 0);
    EXPECT_EQ(socket.GetRemoteAddress(), Host());
    EXPECT_EQ(socket.GetRemotePort(), port);
    const Bytes payload = RandomBytes(1000, 1);
    {
        Profiler outer("client");
        socket.Flush(); // empty: neither sent nor recorded
        EXPECT_FALSE(Profiles().extras.contains("UDP TX"));
        Profiler inner("inner");
        for (size_t offset = 0; offset < payload.size(); offset += 100) {
            socket.Write(payload.data() + offset, 100);
        }
        socket.Flush();
    }
    EXPECT_EQ(socket.GetBufferSize(), 0u);
    unsigned short from = 0;
    EXPECT_EQ(ReceiveDatagram(peer.Get(), &from), payload);
    EXPECT_NE(from, 0);
    EXPECT_EQ(from, socket.GetLocalPort()); // the first send chose the local port
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record("client", "UDP TX")), "1 1000 1000 1000");
    EXPECT_EQ(Summary(tables.Record("client/inner", "UDP TX")), "1 1000 1000 1000");

    // The buffer was emptied: the next flush carries only what came after.
    Put(socket, ToBytes("next"));
    socket.Flush();
    EXPECT_EQ(ReceiveDatagram(peer.Get()), ToBytes("next"));
    EXPECT_TRUE(NothingArrives(peer));
}

// A client gets the echo of its first flush on the port that flush chose.
// Then the client and the idle listener each stop within about a poll period
// and free their port, and nothing is left. With profiling off, the loops
// recorded nothing but their thread names.
TEST_P(UdpTest, NothingOutlivesTheSockets)
{
    ResetProfiler(false);
    const size_t descriptors = OpenDescriptors();
    const size_t threads = ThreadCount();
    std::make_unique<UdpSocket>(Host(), 9, 0).reset(); // never received: closes without a join
    EXPECT_EQ(OpenDescriptors(), descriptors);
    {
        Inbox serverInbox;
        Inbox clientInbox;
        std::unique_ptr<UdpSocket> listener = std::make_unique<UdpListener>(Host(), 0, serverInbox.Callback(Echo));
        auto client = std::make_unique<UdpSocket>(Host(), listener->GetLocalPort(), 0);
        Profiler scope("client");
        Put(*client, ToBytes("echo"));
        client->Flush();
        client->Receive(clientInbox.Callback());
        const auto echoed = clientInbox.Take();
        ASSERT_TRUE(echoed);
        EXPECT_EQ(echoed->bytes, ToBytes("echo"));
        EXPECT_EQ(echoed->address, Host());
        EXPECT_EQ(echoed->port, listener->GetLocalPort());
        EXPECT_EQ(echoed->socket, client.get());
        EXPECT_EQ(ThreadsNamed(kReceiveThread).size(), 2u);
        size_t running = 2;
        for (auto* socket : {&client, &listener}) {
            const unsigned short port = (*socket)->GetLocalPort();
            ASSERT_FALSE(CanBind(V6(), port));
            EXPECT_LT(TimeOf([&] { socket->reset(); }), 2s);
            --running;
            EXPECT_TRUE(WaitFor([&] { return ThreadsNamed(kReceiveThread).size() == running; }, 2s));
            EXPECT_TRUE(CanBind(V6(), port));
        }
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() <= threads; }, 2s));
    const ProfilerTables tables = Profiles();
    EXPECT_TRUE(tables.profiles.empty());
    EXPECT_TRUE(tables.extras.empty());
    ASSERT_FALSE(tables.names.empty());
    for (const auto& [thread, name] : tables.names) {
        EXPECT_EQ(name, kReceiveThread);
    }
}

TEST(UdpDeathTest, CopyOfASocketThatNeverReceivedAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            UdpSocket socket("127.0.0.1", 9, 0);
            UdpSocket copy(socket);
        },
        "^ASSERTION FAILED: \\(src\\._incomingAddress\\) in net/Socket:[0-9]+\n$");
}

// ------------------------------------------------------------ receive loop

// Each datagram (cut to 1400 bytes) reaches the callback with its sender,
// inside the loop's scope, with "UDP RX" recorded before.
TEST_P(UdpTest, DatagramsReachTheCallbackWithTheirSender)
{
    std::vector<std::string> stackInside;
    Profiler::Profile rxInside;
    Inbox inbox;
    auto listener = std::make_unique<UdpListener>(Host(), 0, inbox.Callback([&](const UdpSocket&, const Arrival& a) {
        if (stackInside.empty()) { // the first datagram only
            const ProfilerTables tables = Profiles();
            stackInside = tables.Stack(a.thread);
            rxInside = tables.Record("UDP Listener", "UDP RX", a.thread);
        }
    }));
    ASSERT_NE(listener->GetLocalPort(), 0);
    ASSERT_TRUE(WaitFor([] { return HasThreadNamed(kReceiveThread); }));
    unsigned short onePort, twoPort;
    Fd one = Raw(onePort);
    Fd two = Raw(twoPort);
    const Bytes payload = RandomBytes(10, 3);
    SendFrom(one, listener->GetLocalPort(), payload);
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, payload);
    EXPECT_EQ(arrival->address, Host());
    EXPECT_EQ(arrival->port, onePort);
    EXPECT_EQ(arrival->socket, listener.get());
    EXPECT_NE(arrival->thread, std::this_thread::get_id());
    EXPECT_EQ(stackInside, std::vector<std::string>{"UDP Listener"});
    EXPECT_EQ(Summary(rxInside), "1 10 10 10");
    // Idle rounds are timed too: the scope covers the 100 ms poll wait.
    std::this_thread::sleep_for(350ms);
    EXPECT_GE(Profiles().Record("UDP Listener", "", arrival->thread).max, 50.0);

    const Bytes longer = RandomBytes(2000, 4);
    const Bytes exact = RandomBytes(1400, 5);
    SendFrom(two, listener->GetLocalPort(), longer);
    SendFrom(one, listener->GetLocalPort(), exact);
    for (const auto& [port, bytes] :
         {std::pair{twoPort, Bytes(longer.begin(), longer.begin() + 1400)}, std::pair{onePort, exact}}) {
        const auto next = inbox.Take();
        ASSERT_TRUE(next);
        EXPECT_EQ(next->bytes, bytes);
        EXPECT_EQ(next->port, port);
    }
    listener.reset();
    const ProfilerTables tables = Profiles();
    const auto record = tables.Record("UDP Listener", "", arrival->thread);
    EXPECT_GE(record.count, 1);
    ASSERT_EQ(record.extraProfiles.size(), 1u);
    EXPECT_EQ(Summary(record.extraProfiles.at("UDP RX")), "3 2810 10 1400");
    EXPECT_EQ(tables.names.at(arrival->thread), kReceiveThread);
    EXPECT_TRUE(tables.Stack(arrival->thread).empty());
}

// Each copy is a reply socket that borrows the listener's descriptor.
TEST_P(UdpTest, RepliesThroughCopiesComeFromTheListenersPort)
{
    struct Seen {
        std::string remoteAddress, incomingAddress = "unset";
        unsigned short remotePort = 0, incomingPort = 1;
        unsigned long buffered = 1;
    } seen;
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback([&seen](const UdpSocket& socket, const Arrival& arrival) {
        UdpSocket reply(socket);
        seen = {reply.GetRemoteAddress(), reply.GetIncomingAddress(), reply.GetRemotePort(), reply.GetIncomingPort(),
                reply.GetBufferSize()};
        Profiler scope("reply");
        Put(reply, arrival.bytes);
        reply.Flush();
    }));
    Put(listener, ToBytes("stays in the listener")); // a copy starts with an empty buffer

    unsigned short port;
    Fd sender = Raw(port);
    for (int round = 0; round < 3; ++round) {
        const Bytes payload = ToBytes("round " + std::to_string(round));
        SendFrom(sender, listener.GetLocalPort(), payload);
        unsigned short from = 0;
        EXPECT_EQ(ReceiveDatagram(sender.Get(), &from), payload);
        EXPECT_EQ(from, listener.GetLocalPort());
    }
    EXPECT_TRUE(NothingArrives(sender));
    ASSERT_TRUE(WaitFor([&] { return inbox.Pushed() == 3; }));
    EXPECT_EQ(seen.remoteAddress, Host());
    EXPECT_EQ(seen.remotePort, port);
    EXPECT_EQ(seen.incomingAddress, ""); // a copy has received nothing
    EXPECT_EQ(seen.incomingPort, 0);
    EXPECT_EQ(seen.buffered, 0u);
    const std::thread::id thread = inbox.Take()->thread;
    const ProfilerTables tables = Profiles();
    for (const char* path : {"UDP Listener", "UDP Listener/reply"}) {
        EXPECT_EQ(Summary(tables.Record(path, "UDP TX", thread)), "3 21 7 7") << path;
    }

    // The copies are gone, the descriptor is still the listener's.
    EXPECT_EQ(Buffered(listener), ToBytes("stays in the listener"));
    listener.SendTo(Host(), port);
    EXPECT_EQ(ReceiveDatagram(sender.Get()), ToBytes("stays in the listener"));
}

TEST_P(UdpTest, ZeroLengthDatagramEndsTheLoopQuietly)
{
    Inbox inbox;
    auto listener = std::make_unique<UdpListener>(Host(), 0, inbox.Callback());
    const unsigned short port = listener->GetLocalPort();
    unsigned short senderPort;
    Fd sender = Raw(senderPort);
    SendFrom(sender, port, ToBytes("before"));
    ASSERT_TRUE(inbox.Take());
    SendFrom(sender, port, Bytes{});
    EXPECT_TRUE(WaitFor([] { return !HasThreadNamed(kReceiveThread); }));
    SendFrom(sender, port, ToBytes("after"));
    EXPECT_FALSE(inbox.Take(kQuiet));
    EXPECT_EQ(listener->GetThreadError(), nullptr);
    // The listener still sends although its loop has ended.
    Put(*listener, ToBytes("still sending"));
    listener->SendTo(Host(), senderPort);
    EXPECT_EQ(ReceiveDatagram(sender.Get()), ToBytes("still sending"));
    EXPECT_LT(TimeOf([&] { listener.reset(); }), 2s);
}

TEST_P(UdpTest, DestroyingWaitsForARunningCallback)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    auto listener = std::make_unique<UdpListener>(Host(), 0, [&](const UdpSocket&, ReadOnlyStream&&) {
        entered.set_value();
        released.wait_for(10s);
    });
    unsigned short port;
    Fd sender = Raw(port);
    SendFrom(sender, listener->GetLocalPort(), ToBytes("hold"));
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
    auto destroying = std::async(std::launch::async, [&] { listener.reset(); });
    EXPECT_EQ(destroying.wait_for(kQuiet), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(destroying.wait_for(10s), std::future_status::ready);
}

// A callback that throws, or an empty one, ends the loop; the failure is kept for the owner.
TEST_P(UdpTest, FailingCallbackEndsTheLoopAndIsKept)
{
    std::atomic<int> calls{0};
    std::thread::id receiveThread;
    const UdpSocket::Callback throwing = [&](const UdpSocket&, ReadOnlyStream&&) {
        receiveThread = std::this_thread::get_id();
        ++calls;
        throw std::runtime_error("callback failed");
    };
    for (const bool empty : {false, true}) {
        SCOPED_TRACE(empty ? "empty callback" : "throwing callback");
        UdpListener listener(Host(), 0, empty ? UdpSocket::Callback{} : UdpSocket::Callback(throwing));
        ASSERT_TRUE(WaitFor([] { return HasThreadNamed(kReceiveThread); }));
        std::this_thread::sleep_for(200ms); // a few idle rounds are no failure
        EXPECT_EQ(listener.GetThreadError(), nullptr);
        unsigned short port;
        Fd sender = Raw(port);
        SendFrom(sender, listener.GetLocalPort(), ToBytes("one"));
        ASSERT_TRUE(WaitFor([&] { return listener.GetThreadError() != nullptr; }));
        const auto rethrow = [&] { std::rethrow_exception(listener.GetThreadError()); };
        if (empty) {
            EXPECT_THROW(rethrow(), std::bad_function_call);
        } else {
            EXPECT_EQ(MessageOf<std::runtime_error>(rethrow), "callback failed");
        }
        EXPECT_TRUE(WaitFor([] { return !HasThreadNamed(kReceiveThread); }));
        SendFrom(sender, listener.GetLocalPort(), ToBytes("two"));
        EXPECT_FALSE(WaitFor([&] { return calls > 1; }, kQuiet));
    }
    // The loop's scope was closed while the exception left it.
    const ProfilerTables tables = Profiles();
    EXPECT_TRUE(tables.Stack(receiveThread).empty());
    EXPECT_GE(tables.Record("UDP Listener", "", receiveThread).count, 1);
}

TEST_P(UdpTest, InterruptedPollEndsTheLoopWithPollError)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    ASSERT_TRUE(InterruptPoll(kReceiveThread, [&] { return listener.GetThreadError() != nullptr; }));
    EXPECT_EQ(MessageOf<PollError>([&] { std::rethrow_exception(listener.GetThreadError()); }),
              "UDP Socket Listener Poll Error");
    EXPECT_TRUE(WaitFor([] { return !HasThreadNamed(kReceiveThread); }));
}

// Reading is refused; a second Receive too, while the first loop goes on.
TEST_P(UdpTest, ReadAndASecondReceiveAreRefused)
{
    Inbox first;
    Inbox second;
    unsigned short port;
    Fd sender = Raw(port);
    UdpSocket client(Host(), port, 0);
    {
        UdpListener idle(Host(), 0, [](auto&&...) {}); // receives nothing
        unsigned char byte = 0;
        for (UdpSocket* udp : {&client, static_cast<UdpSocket*>(&idle)}) {
            Stream& stream = *udp;
            EXPECT_EQ(MessageOf<StreamIsWriteOnly>([&] { stream.Read(&byte, 1); }), "Write-Only Stream");
            EXPECT_EQ(MessageOf<StreamIsWriteOnly>([&] { stream.Read(nullptr, 0); }), "Write-Only Stream");
            EXPECT_EQ(udp->GetIncomingAddress(), ""); // nothing received yet
            EXPECT_EQ(udp->GetIncomingPort(), 0);
        }
    }
    UdpListener listener(Host(), 0, first.Callback());
    ASSERT_TRUE(WaitFor([] { return HasThreadNamed(kReceiveThread); }));
    EXPECT_THROW(listener.Receive(second.Callback()), std::logic_error);
    EXPECT_TRUE(WaitFor([] { return ThreadsNamed(kReceiveThread).size() == 1; }));
    SendFrom(sender, listener.GetLocalPort(), ToBytes("still here"));
    const auto arrival = first.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, ToBytes("still here"));
    EXPECT_FALSE(second.Take(kQuiet));
    EXPECT_EQ(listener.GetThreadError(), nullptr);

    // The same on a plain socket.
    client.Receive(first.Callback());
    EXPECT_THROW(client.Receive(second.Callback()), std::logic_error);
    EXPECT_TRUE(WaitFor([] { return ThreadsNamed(kReceiveThread).size() == 2; }));
    EXPECT_EQ(client.GetThreadError(), nullptr);
}

// ------------------------------------------------------------ UdpListener

TEST_P(UdpTest, PortIsSharedOnlyWithSocketsThatAllowIt)
{
    Inbox one;
    Inbox two;
    UdpListener first(Host(), 0, one.Callback());
    const unsigned short port = first.GetLocalPort();
    std::unique_ptr<UdpListener> second;
    ASSERT_NO_THROW(second = std::make_unique<UdpListener>(Host(), port, two.Callback()));
    EXPECT_EQ(second->GetLocalPort(), port);
    // The kernel spreads senders over both; each datagram reaches exactly one.
    std::vector<Fd> senders;
    for (int i = 0; i < 8; ++i) {
        unsigned short senderPort;
        senders.push_back(Raw(senderPort));
        SendFrom(senders.back(), port, ToBytes("datagram"));
    }
    EXPECT_TRUE(WaitFor([&] { return one.Pushed() + two.Pushed() >= senders.size(); }));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(one.Pushed() + two.Pushed(), senders.size());

    // A holder that allows only one of the two kinds of reuse is enough.
    for (const int option : {SO_REUSEPORT, SO_REUSEADDR}) {
        Fd holder = RawSocket(V6(), SOCK_DGRAM);
        const int on = 1;
        setsockopt(holder.Get(), SOL_SOCKET, option, &on, sizeof(on));
        socklen_t length;
        auto address = Loopback(V6(), 0, length);
        ASSERT_EQ(bind(holder.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_NO_THROW({ UdpListener listener(Host(), PortOf(holder.Get()), [](auto&&...) {}); })
            << (option == SO_REUSEPORT ? "SO_REUSEPORT" : "SO_REUSEADDR");
    }
    // One that allows neither is not.
    unsigned short held;
    Fd holder = Raw(held);
    const size_t descriptors = OpenDescriptors();
    EXPECT_EQ(MessageOf<BindError>([&] { UdpListener listener(Host(), held, [](auto&&...) {}); }), "UDP Bind failed");
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(ThreadsNamed(kReceiveThread).size(), 2u);
}

TEST_P(UdpTest, SendsFromItsBoundPort)
{
    unsigned short bound;
    Raw(bound); // a port free a moment ago
    Inbox inbox;
    UdpListener listener(Host(), bound, inbox.Callback());
    ASSERT_EQ(listener.GetLocalPort(), bound);
    unsigned short port;
    Fd peer = Raw(port);
    const Bytes payload = RandomBytes(100, 6);
    {
        Profiler scope("send");
        EXPECT_NO_THROW(listener.SendTo("999.999.999.999", port)); // empty: no lookup, nothing sent
        Put(listener, payload);
        listener.SendTo(Host(), port);
    }
    EXPECT_EQ(listener.GetBufferSize(), 0u);
    unsigned short from = 0;
    EXPECT_EQ(ReceiveDatagram(peer.Get(), &from), payload);
    EXPECT_EQ(from, bound);
    EXPECT_EQ(Summary(Profiles().Record("send", "UDP TX")), "1 100 100 100");
    if (!V6()) {
        Put(listener, ToBytes("by name"));
        listener.SendTo("localhost", port);
        EXPECT_EQ(ReceiveDatagram(peer.Get()), ToBytes("by name"));
    }
    EXPECT_TRUE(NothingArrives(peer));

    // The destination was not kept: Flush goes to the bind address, the listener itself.
    Put(listener, ToBytes("to myself"));
    listener.Flush();
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, ToBytes("to myself"));
    EXPECT_EQ(arrival->address, Host());
    EXPECT_EQ(arrival->port, bound);
    EXPECT_EQ(arrival->socket, &listener);
}

// Every failed send throws, keeps the buffer, and has counted its bytes in "UDP TX" first.
TEST_P(UdpTest, FailedSendsKeepTheBufferAndAreCounted)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback()); // keeps port 0 in its peer record
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket toPeer(Host(), port, 0);
    UdpSocket toZero(Host(), 0, 0); // the kernel refuses port 0 with EINVAL
    const Bytes oversized = RandomBytes(kOversized, 2);
    const std::string emsgsize = "UDP Socket send failed with EMSGSIZE";
    const std::string einval = "UDP Socket send failed with errno 22";
    int attempts = 0;
    double bytes = 0;
    const auto expect = [&](UdpSocket& socket, const Bytes& payload, const std::function<std::string()>& send,
                            const std::string& message) {
        SCOPED_TRACE(message);
        Put(socket, payload);
        {
            Profiler scope("send");
            EXPECT_EQ(send(), message);
        }
        EXPECT_EQ(Buffered(socket), payload);
        socket.Stream::Flush(); // discards
        ++attempts;
        bytes += static_cast<double>(payload.size());
    };
    expect(
        toPeer, oversized, [&] { return MessageOf<SendError>([&] { toPeer.Flush(); }); }, emsgsize);
    expect(
        listener, oversized, [&] { return MessageOf<SendError>([&] { listener.SendTo(Host(), port); }); }, emsgsize);
    expect(
        toZero, ToBytes("lost"), [&] { return MessageOf<SendError>([&] { toZero.Flush(); }); }, einval);
    expect(
        listener, ToBytes("kept"), [&] { return MessageOf<SendError>([&] { listener.Flush(); }); }, einval);
    expect(
        listener, ToBytes("kept"), [&] { return MessageOf<SendError>([&] { listener.SendTo(Host(), 0); }); }, einval);
    expect(
        listener, ToBytes("kept"), [&] { return MessageOf<ResolveError>([&] { listener.SendTo("1.2.3.4.5", 9); }); },
        "Could not resolve host '1.2.3.4.5'");
    if (V6()) { // IPv4 destinations, literal or looked up, are refused
        for (const char* host : {"127.0.0.1", "localhost"}) {
            expect(
                listener, ToBytes("not for IPv4"),
                [&] { return MessageOf<SendError>([&] { listener.SendTo(host, port); }); }, "UDP Address is not IPv6");
        }
    }
    const auto tx = Profiles().Record("send", "UDP TX");
    EXPECT_EQ(tx.count, attempts);
    EXPECT_EQ(tx.total, bytes);
    EXPECT_TRUE(NothingArrives(peer));
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
