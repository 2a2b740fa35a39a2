// UDP sockets, the receive loop and the listener, over real loopback datagrams
// with raw POSIX sockets (or the library itself) on the other end.
#include "support/Common.h"

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using orvun::filesystem::StreamIsWriteOnly;

constexpr const char* kReceiveThread = "ORVUN_UDP_Lisn";
constexpr auto kQuiet = 300ms; // how long "nothing arrives" is watched

// Whether a socket without reuse options can bind loopback:`port`, i.e. nobody holds it.
bool CanBind(bool ipv6, unsigned short port) { return RawSocket(ipv6, SOCK_DGRAM, true, port).Get() >= 0; }

// A datagram as the receive callback saw it.
struct Arrival {
    Bytes bytes;
    std::string address;
    unsigned short port = 0;
    const UdpSocket* socket = nullptr;
    bool operator==(const Arrival&) const = default;
};
void PrintTo(const Arrival& a, std::ostream* out)
{
    *out << a.bytes.size() << " bytes from " << a.address << " port " << a.port << " to " << a.socket;
}

// Collects what a receive callback is handed. Declare it before the socket
// that uses it, so that the socket goes first.
class Inbox : public Queue<Arrival> {
public:
    // `also` runs on the receive thread before the arrival is posted.
    UdpSocket::Callback Callback(std::function<void(const UdpSocket&, const Arrival&)> also = nullptr)
    {
        return [this, also = std::move(also)](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Arrival arrival{Buffered(stream), socket.GetIncomingAddress(), socket.GetIncomingPort(), &socket};
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

class UdpTest : public FamilyTest {
protected:
    Fd Raw(unsigned short& port) const { return RawUdp(V6(), port); }
    void SendFrom(const Fd& fd, unsigned short port, const Bytes& bytes) const
    {
        EXPECT_TRUE(SendDatagram(fd.Get(), V6(), port, bytes));
    }
    bool NothingArrives(const Fd& fd) const { return ReceiveDatagram(fd.Get(), nullptr, kQuiet).empty(); }
};

TEST_P(UdpTest, FlushSendsTheBufferAsOneDatagram)
{
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket socket(Host(), port, 0);
    EXPECT_EQ(socket.GetRemoteAddress(), Host());
    EXPECT_EQ(socket.GetRemotePort(), port);
    const Bytes payload = RandomBytes(1000, 1);
    socket.Flush(); // empty: nothing sent
    Put(socket, Bytes(payload.begin(), payload.begin() + 600));
    Put(socket, Bytes(payload.begin() + 600, payload.end()));
    socket.Flush();
    unsigned short from = 0;
    EXPECT_EQ(ReceiveDatagram(peer.Get(), &from), payload);
    EXPECT_EQ(from, socket.GetLocalPort()); // the first send chose the local port
    Put(socket, ToBytes("next"));
    socket.Flush();
    EXPECT_EQ(ReceiveDatagram(peer.Get()), ToBytes("next"));
    EXPECT_TRUE(NothingArrives(peer));
}

// A client gets the echo of its first flush on the port that flush chose;
// then the client and the idle listener each stop within about a poll
// period and free their port.
TEST_P(UdpTest, ReceivingSocketsStopPromptlyAndFreeTheirPort)
{
    Inbox serverInbox;
    Inbox clientInbox;
    std::unique_ptr<UdpSocket> listener = std::make_unique<UdpListener>(Host(), 0, serverInbox.Callback(Echo));
    auto client = std::make_unique<UdpSocket>(Host(), listener->GetLocalPort(), 0);
    Put(*client, ToBytes("echo"));
    client->Flush();
    client->Receive(clientInbox.Callback());
    const Arrival echoed = clientInbox.Take().value_or(Arrival{});
    EXPECT_EQ(echoed, (Arrival{ToBytes("echo"), Host(), listener->GetLocalPort(), client.get()}));
    EXPECT_EQ(ThreadsNamed(kReceiveThread).size(), 2u);
    // The reply copy only borrowed the listener's descriptor.
    Put(*listener, ToBytes("again"));
    static_cast<UdpListener&>(*listener).SendTo(Host(), client->GetLocalPort());
    EXPECT_EQ(clientInbox.Take().value_or(Arrival{}).bytes, ToBytes("again"));
    for (auto* socket : {&client, &listener}) {
        const unsigned short port = (*socket)->GetLocalPort();
        ASSERT_FALSE(CanBind(V6(), port));
        EXPECT_LT(TimeOf([&] { socket->reset(); }), 2s);
        EXPECT_TRUE(CanBind(V6(), port));
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

// A listener hands each datagram, cut to 1400 bytes, with its sender to its
// one callback: a second Receive is refused and the first loop goes on. A
// plain socket has no sender before it receives, refuses reading, and runs
// one receive loop too.
TEST_P(UdpTest, EachDatagramReachesTheOneCallbackWithItsSender)
{
    Inbox first;
    Inbox second;
    UdpListener listener(Host(), 0, first.Callback());
    EXPECT_THROW(listener.Receive(second.Callback()), std::logic_error);
    unsigned short onePort, twoPort;
    Fd one = Raw(onePort);
    Fd two = Raw(twoPort);
    const Bytes small = RandomBytes(10, 3);
    const Bytes longer = RandomBytes(2000, 4);
    const Bytes exact = RandomBytes(1400, 5);
    SendFrom(one, listener.GetLocalPort(), small);
    SendFrom(two, listener.GetLocalPort(), longer);
    SendFrom(one, listener.GetLocalPort(), exact);
    for (const auto& [port, bytes] :
         {std::pair{onePort, small}, std::pair{twoPort, Bytes(longer.begin(), longer.begin() + 1400)},
          std::pair{onePort, exact}}) {
        EXPECT_EQ(first.Take().value_or(Arrival{}), (Arrival{bytes, Host(), port, &listener}));
    }
    EXPECT_FALSE(second.Take(kQuiet));

    UdpSocket client(Host(), onePort, 0);
    EXPECT_EQ(client.GetIncomingAddress(), "");
    EXPECT_EQ(client.GetIncomingPort(), 0);
    unsigned char byte = 0;
    EXPECT_EQ(MessageOf<StreamIsWriteOnly>([&] { static_cast<Stream&>(client).Read(&byte, 0); }), "Write-Only Stream");
    client.Receive(first.Callback());
    EXPECT_THROW(client.Receive(second.Callback()), std::logic_error);
    EXPECT_TRUE(WaitFor([] { return ThreadsNamed(kReceiveThread).size() == 2; }));
}

TEST_P(UdpTest, PortIsSharedOnlyWithSocketsThatAllowIt)
{
    Inbox one;
    Inbox two;
    UdpListener first(Host(), 0, one.Callback());
    EXPECT_NO_THROW(UdpListener(Host(), first.GetLocalPort(), two.Callback()));
    // A holder that allows only one of the two kinds of reuse is enough; one that allows neither is not.
    for (const int option : {SO_REUSEPORT, SO_REUSEADDR, 0}) {
        Fd holder = RawSocket(V6(), SOCK_DGRAM);
        const int on = 1;
        setsockopt(holder.Get(), SOL_SOCKET, option, &on, sizeof(on));
        socklen_t length;
        auto address = Loopback(V6(), 0, length);
        ASSERT_EQ(bind(holder.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(MessageOf<BindError>([&] { UdpListener listener(Host(), PortOf(holder.Get()), [](auto&&...) {}); }),
                  option == 0 ? "UDP Bind failed" : "<no exception>")
            << option;
    }
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
    EXPECT_NO_THROW(listener.SendTo("999.999.999.999", port)); // empty: no lookup, nothing sent
    Put(listener, ToBytes("payload"));
    listener.SendTo(Host(), port);
    unsigned short from = 0;
    EXPECT_EQ(ReceiveDatagram(peer.Get(), &from), ToBytes("payload"));
    EXPECT_EQ(from, bound);
    if (!V6()) {
        Put(listener, ToBytes("by name"));
        listener.SendTo("localhost", port);
        EXPECT_EQ(ReceiveDatagram(peer.Get()), ToBytes("by name"));
    }
    EXPECT_TRUE(NothingArrives(peer));
    // The destination was not kept: Flush goes to the bind address, the listener itself.
    Put(listener, ToBytes("to myself"));
    listener.Flush();
    EXPECT_EQ(inbox.Take().value_or(Arrival{}), (Arrival{ToBytes("to myself"), Host(), bound, &listener}));
}

// Every failed send throws and keeps the buffer.
TEST_P(UdpTest, FailedSendsKeepTheBuffer)
{
    UdpListener listener(Host(), 0, [](auto&&...) {}); // keeps port 0 in its peer record
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket toPeer(Host(), port, 0);
    UdpSocket toZero(Host(), 0, 0);                // the kernel refuses port 0 with EINVAL
    const Bytes oversized = RandomBytes(70000, 2); // above the UDP payload limit of both families
    const std::string emsgsize = "UDP Socket send failed with EMSGSIZE";
    const std::string einval = "UDP Socket send failed with errno 22";
    const auto expect = [&](UdpSocket& socket, const Bytes& payload, auto send, const std::string& message) {
        Put(socket, payload);
        EXPECT_EQ(send(), message);
        EXPECT_EQ(Buffered(socket), payload) << message;
        socket.Stream::Flush(); // discards
    };
    const auto flush = [](UdpSocket& s) { return [&s] { return MessageOf<SendError>([&] { s.Flush(); }); }; };
    const auto sendTo = [&](const char* host, unsigned short to) {
        return [&listener, host, to] { return MessageOf<SendError>([&] { listener.SendTo(host, to); }); };
    };
    expect(toPeer, oversized, flush(toPeer), emsgsize);
    expect(listener, oversized, sendTo(Host(), port), emsgsize);
    expect(toZero, ToBytes("lost"), flush(toZero), einval);
    expect(listener, ToBytes("kept"), flush(listener), einval);
    expect(listener, ToBytes("kept"), sendTo(Host(), 0), einval);
    expect(
        listener, ToBytes("kept"), [&] { return MessageOf<ResolveError>([&] { listener.SendTo("1.2.3.4.5", 9); }); },
        "Could not resolve host '1.2.3.4.5'");
    if (V6()) { // IPv4 destinations, literal or looked up, are refused
        expect(listener, ToBytes("not for IPv4"), sendTo("127.0.0.1", port), "UDP Address is not IPv6");
        expect(listener, ToBytes("not for IPv4"), sendTo("localhost", port), "UDP Address is not IPv6");
    }
    EXPECT_TRUE(NothingArrives(peer));
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
