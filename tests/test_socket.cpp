// What every socket shares: descriptor ownership and moves, readiness polling
// on real loopback connections, and host resolution into the address record.
#include "support/Common.h"

#include <cstring>
#include <fcntl.h>

namespace {

using namespace orvun::net;
using namespace support;

// Opens up the fields that derived classes use, and lets a test hand the
// socket a raw descriptor.
class ProbeSocket : public Socket {
public:
    ProbeSocket() = default;
    ProbeSocket(ProbeSocket&& other) noexcept : Socket(std::move(other)) {}
    const std::shared_ptr<sockaddr>& Record() const { return _remoteAddress; }
    bool IsIPv6() const { return _isIPv6; }
    int Descriptor() const { return _socket; }
    void Adopt(int descriptor) { _socket = descriptor; }
};

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

Bytes RecordBytes(const sockaddr* record, bool ipv6)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(record);
    return Bytes(bytes, bytes + (ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)));
}

// A move hands over descriptor and record but not the buffer; the descriptor
// is closed once, by whichever socket holds it last, and never by a socket without one.
TEST(SocketBaseTest, MoveHandsOverDescriptorAndRecordButNotTheBuffer)
{
    unsigned short port = 0;
    Fd listener = RawTcpListener(true, port);
    {
        ProbeSocket empty;
        EXPECT_EQ(empty.GetRemoteAddress(), "");
        EXPECT_EQ(empty.GetRemotePort(), 0);
        EXPECT_EQ(empty.GetLocalPort(), 0);
        EXPECT_EQ(empty.Poll(0), 0);
    }
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto source = std::make_unique<ProbeSocket>();
    source->Adopt(fd);
    socklen_t length = 0;
    const sockaddr_storage address = Loopback(true, port, length);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
    Fd peer = AcceptWithin(listener.Get());
    source->ResolveAddress("::1", port);
    const std::shared_ptr<sockaddr> record = source->Record();
    Put(*source, {1, 2, 3});

    ProbeSocket target(std::move(*source));
    EXPECT_EQ(target.Descriptor(), fd);
    EXPECT_EQ(target.Record(), record);
    EXPECT_EQ(target.GetBufferSize(), 0u);
    EXPECT_EQ(target.GetLocalPort(), PortOf(peer.Get(), true));
    EXPECT_EQ(source->Descriptor(), -1);
    EXPECT_EQ(source->Record(), nullptr);
    EXPECT_EQ(Buffered(*source), (Bytes{1, 2, 3}));

    source.reset();
    EXPECT_TRUE(IsOpen(fd)) << "the moved-from socket closed the descriptor";
    SendAll(peer.Get(), {42});
    EXPECT_EQ(target.Poll(10000, 1), 1);
    {
        ProbeSocket last(std::move(target));
    }
    EXPECT_FALSE(IsOpen(fd));
}

// A client TcpSocket is the Socket under test, a raw accepted end plays the peer;
// and the listeners' poll loops.
class PollTest : public FamilyTest {};

TEST_P(PollTest, PendingDataIsReportedAndStaysQueuedUntilThePeerCloses)
{
    Connection c(V6(), Host(), 5000);
    EXPECT_EQ(c.client->Poll(0, 16), 0);

    const Bytes data = RandomBytes(2000, 3);
    SendAll(c.peer.Get(), data);
    ASSERT_TRUE(WaitFor([&] { return QueuedBytes(c.clientFd) == 2000; })) << "the data did not arrive";
    EXPECT_EQ(c.client->Poll(10000, 1), 1);
    EXPECT_EQ(c.client->Poll(10000, 100000), 1); // more than a small scratch area
    EXPECT_EQ(c.client->Poll(10000, 0), -1);     // a peek of nothing reads as a closed peer
    EXPECT_EQ(QueuedBytes(c.clientFd), 2000);
    Bytes read(data.size());
    c.client->Read(read.data(), read.size());
    EXPECT_EQ(read, data);
    EXPECT_EQ(c.client->Poll(0, 1), 0);

    // A closed peer shows only after the last byte.
    SendAll(c.peer.Get(), {1, 2, 3});
    c.peer.Reset();
    EXPECT_EQ(c.client->Poll(10000, 3), 1);
    c.client->Read(read.data(), 3);
    EXPECT_EQ(c.client->Poll(10000), 1);
    EXPECT_EQ(c.client->Poll(10000, 64), -1);
}

// A signal that interrupts a listener's poll ends its loop with PollError.
TEST_P(PollTest, InterruptedPollEndsEitherListenersLoop)
{
    TcpListener tcp(Host(), 0, [](std::unique_ptr<TcpSocket>) {});
    UdpListener udp(Host(), 0, [](auto&&...) {});
    const struct {
        std::string thread;
        std::function<std::exception_ptr()> error;
        std::string message;
    } loops[] = {{"ORVUN_TCP_Lisn", [&] { return tcp.GetThreadError(); }, "TCP Socket Listener Poll Error"},
                 {"ORVUN_UDP_Lisn", [&] { return udp.GetThreadError(); }, "UDP Socket Listener Poll Error"}};
    for (const auto& loop : loops) {
        ASSERT_TRUE(InterruptPoll(loop.thread, [&] { return loop.error() != nullptr; })) << loop.thread;
        EXPECT_EQ(MessageOf<PollError>([&] { std::rethrow_exception(loop.error()); }), loop.message);
        EXPECT_TRUE(WaitFor([&] { return !HasThreadNamed(loop.thread); }));
    }
}

INSTANTIATE_TEST_SUITE_P(Families, PollTest, testing::ValuesIn(kFamilies), FamilyName);

struct Resolution {
    const char* host;
    unsigned short port;
    bool ipv6;
    const char* text; // what GetRemoteAddress gives back
};
void PrintTo(const Resolution& r, std::ostream* out) { *out << r.host << " port " << r.port; }

class ResolveTest : public testing::TestWithParam<Resolution> {};

TEST_P(ResolveTest, BuildsAZeroFilledRecordWithThePortInNetworkOrder)
{
    const Resolution& r = GetParam();
    ProbeSocket socket;
    ASSERT_NO_THROW(socket.ResolveAddress(r.host, r.port));
    ASSERT_NE(socket.Record(), nullptr);
    EXPECT_EQ(socket.IsIPv6(), r.ipv6);
    EXPECT_EQ(socket.GetRemoteAddress(), r.text);
    EXPECT_EQ(socket.GetRemotePort(), r.port);
    EXPECT_EQ(socket.Descriptor(), -1);

    // The expected record byte by byte: family, port high byte first, the
    // address, zero everywhere else.
    Bytes expected(r.ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in), 0);
    const sa_family_t family = r.ipv6 ? AF_INET6 : AF_INET;
    std::memcpy(expected.data(), &family, sizeof(family));
    expected[2] = static_cast<unsigned char>(r.port >> 8);
    expected[3] = static_cast<unsigned char>(r.port & 0xFF);
    ASSERT_EQ(inet_pton(family, r.text, expected.data() + (r.ipv6 ? 8 : 4)), 1);
    EXPECT_EQ(RecordBytes(socket.Record().get(), r.ipv6), expected);
}

INSTANTIATE_TEST_SUITE_P(Hosts, ResolveTest,
                         testing::Values(Resolution{"localhost", 1, false, "127.0.0.1"},
                                         Resolution{"10.1.2.3", 0x1234, false, "10.1.2.3"},
                                         Resolution{"fe80::1:2", 65535, true, "fe80::1:2"},
                                         // Text with a colon that is no IPv6 literal: the all-zero address.
                                         Resolution{"[::1]:80", 443, true, "::"}));

// A new record replaces the old one (copies of which stay intact); a host
// that does not resolve throws with its text and changes nothing.
TEST(ResolveAgainTest, ReplacesTheRecordOnlyWhenTheHostResolves)
{
    ProbeSocket socket;
    for (const char* host : {"999.999.999.999", "1.2.3.4.5"}) {
        EXPECT_EQ(MessageOf<ResolveError>([&] { socket.ResolveAddress(host, 80); }),
                  "Could not resolve host '" + std::string(host) + "'");
        EXPECT_EQ(socket.Record(), nullptr);
        EXPECT_FALSE(socket.IsIPv6());
    }
    socket.ResolveAddress("127.0.0.1", 80);
    const std::shared_ptr<sockaddr> old = socket.Record();
    const Bytes oldBytes = RecordBytes(old.get(), false);
    socket.ResolveAddress("::1", 443);
    EXPECT_NE(socket.Record(), old);
    EXPECT_EQ(old.use_count(), 1) << "the socket still holds its old record";
    EXPECT_EQ(RecordBytes(old.get(), false), oldBytes);

    const std::shared_ptr<sockaddr> kept = socket.Record();
    EXPECT_THROW(socket.ResolveAddress("1.2.3.4.5", 80), ResolveError);
    EXPECT_EQ(socket.Record(), kept);
    EXPECT_TRUE(socket.IsIPv6());
}

} // namespace
