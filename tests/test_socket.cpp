// What every socket shares: descriptor ownership and moves, readiness polling
// on real loopback connections, and host resolution into the address record.
#include "Support.h"

#include "net/Socket.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <latch>
#include <type_traits>

namespace {

using orvun::filesystem::Stream;
using orvun::filesystem::StreamIsWriteOnly;
using orvun::net::ResolveError;
using orvun::net::Socket;
using orvun::net::SocketError;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;
using support::Bytes;
using support::Fd;

static_assert(std::is_base_of_v<Stream, Socket>);
static_assert(!std::is_copy_constructible_v<Socket> && !std::is_copy_assignable_v<Socket>);
static_assert(std::is_nothrow_move_constructible_v<Socket> && !std::is_move_assignable_v<Socket>);
static_assert(!std::is_copy_constructible_v<TcpSocket> && !std::is_move_constructible_v<TcpSocket>);
static_assert(!std::is_copy_assignable_v<TcpSocket> && !std::is_move_assignable_v<TcpSocket>);
static_assert(!std::is_copy_constructible_v<TcpListener> && !std::is_move_constructible_v<TcpListener>);
static_assert(!std::is_copy_assignable_v<TcpListener> && !std::is_move_assignable_v<TcpListener>);
// A copy of a UDP socket is its reply socket; nothing is ever assigned.
static_assert(std::is_copy_constructible_v<UdpSocket> && !std::is_copy_assignable_v<UdpSocket>);
static_assert(!std::is_move_assignable_v<UdpSocket>);
static_assert(std::is_base_of_v<SocketError, ResolveError> && std::is_base_of_v<std::runtime_error, SocketError>);
static_assert(!std::is_base_of_v<SocketError, StreamIsWriteOnly>);

// None of the socket fields is public.
// clang-format off
template <typename T>
concept HasPublicField = requires(T& t) { t._remoteAddress; } || requires(T& t) { t._isIPv6; } ||
                         requires(T& t) { t._socket; };
// clang-format on
static_assert(!HasPublicField<Socket> && !HasPublicField<TcpSocket> && !HasPublicField<UdpListener>);

// Opens up the fields that derived classes use, and lets a test hand the
// socket a raw descriptor.
class ProbeSocket : public Socket {
public:
    ProbeSocket() = default;
    ProbeSocket(ProbeSocket&& other) noexcept : Socket(std::move(other)) {}
    const std::shared_ptr<sockaddr>& Record() const { return _remoteAddress; }
    bool IsIPv6() const { return _isIPv6; }
    int Descriptor() const { return _socket; }
    const std::vector<unsigned char>& Buffer() const { return _buffer; }
    void Adopt(int descriptor) { _socket = descriptor; }
};

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

Bytes RecordBytes(const sockaddr* record, bool ipv6)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(record);
    return Bytes(bytes, bytes + (ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)));
}

TEST(SocketBaseTest, DefaultSocketHasNothingAndClosesNothing)
{
    const size_t before = support::OpenDescriptors();
    {
        ProbeSocket socket;
        EXPECT_EQ(socket.Descriptor(), -1);
        EXPECT_EQ(socket.Record(), nullptr);
        EXPECT_FALSE(socket.IsIPv6());
        EXPECT_FALSE(static_cast<bool>(socket));
        EXPECT_EQ(socket.GetRemoteAddress(), "");
        EXPECT_EQ(socket.GetRemotePort(), 0);
        EXPECT_EQ(socket.GetLocalPort(), 0);
        EXPECT_EQ(socket.Poll(0), 0);
    }
    EXPECT_EQ(support::OpenDescriptors(), before);
}

// A move hands over descriptor and record; the descriptor is closed once,
// by whichever socket holds it last.
TEST(SocketBaseTest, MoveHandsOverDescriptorAndRecordButNotTheBuffer)
{
    unsigned short port = 0;
    Fd listener = support::RawTcpListener(true, port);
    const size_t before = support::OpenDescriptors();
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto source = std::make_unique<ProbeSocket>();
    source->Adopt(fd);
    socklen_t length = 0;
    const sockaddr_storage address = support::Loopback(true, port, length);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
    Fd peer = support::AcceptWithin(listener.Get());
    source->ResolveAddress("::1", port);
    const std::shared_ptr<sockaddr> record = source->Record();
    const Bytes pending{1, 2, 3};
    source->Write(pending.data(), pending.size());

    ProbeSocket target(std::move(*source));
    EXPECT_EQ(target.Descriptor(), fd);
    EXPECT_EQ(target.Record(), record);
    EXPECT_TRUE(target.IsIPv6());
    EXPECT_TRUE(target.Buffer().empty());
    EXPECT_EQ(target.GetRemoteAddress(), "::1");
    EXPECT_EQ(target.GetRemotePort(), port);
    EXPECT_EQ(target.GetLocalPort(), support::PeerPort(peer.Get()));

    EXPECT_EQ(source->Descriptor(), -1);
    EXPECT_EQ(source->Record(), nullptr);
    EXPECT_TRUE(source->IsIPv6());
    EXPECT_EQ(source->Buffer(), pending);
    EXPECT_EQ(source->GetRemoteAddress(), "");
    EXPECT_EQ(source->GetRemotePort(), 0);
    EXPECT_EQ(source->GetLocalPort(), 0);

    source.reset();
    EXPECT_TRUE(IsOpen(fd)) << "the moved-from socket closed the descriptor";
    support::SendAll(peer.Get(), {42});
    EXPECT_EQ(target.Poll(10000, 1), 1);
    {
        ProbeSocket last(std::move(target));
        EXPECT_EQ(last.Descriptor(), fd);
    }
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(support::OpenDescriptors(), before + 1); // only the raw peer is left
}

std::string FamilyName(const testing::TestParamInfo<bool>& param) { return param.param ? "IPv6" : "IPv4"; }

// A client TcpSocket connected to a raw listener; the client is the Socket
// under test, the raw accepted end plays the peer.
class PollTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        unsigned short port = 0;
        _listener = support::RawTcpListener(GetParam(), port);
        _client = std::make_unique<TcpSocket>(GetParam() ? "::1" : "127.0.0.1", port, 0, 5000);
        _peer = support::AcceptWithin(_listener.Get());
        ASSERT_NE(_peer.Get(), -1);
        _port = port;
        _clientFd = support::FindTcpDescriptor(support::PeerPort(_peer.Get()), port);
        ASSERT_NE(_clientFd, -1);
    }

    Bytes ReadClient(size_t size)
    {
        Bytes bytes(size);
        _client->Read(bytes.data(), bytes.size());
        return bytes;
    }

    Fd _listener;
    Fd _peer;
    std::unique_ptr<TcpSocket> _client;
    unsigned short _port = 0;
    int _clientFd = -1;
};

TEST_P(PollTest, PendingDataIsReportedAndStaysQueued)
{
    EXPECT_EQ(_client->Poll(0), 0);
    EXPECT_EQ(_client->Poll(0, 16), 0);
    EXPECT_EQ(_client->Poll(20, 0), 0);
    EXPECT_EQ(_client->GetRemoteAddress(), GetParam() ? "::1" : "127.0.0.1");
    EXPECT_EQ(_client->GetRemotePort(), _port);

    const Bytes data = support::RandomBytes(2000, 3);
    support::SendAll(_peer.Get(), data);
    ASSERT_TRUE(support::WaitFor([&] { return support::QueuedBytes(_clientFd) == 2000; })) << "the data did not arrive";
    EXPECT_EQ(_client->Poll(10000), 1);
    EXPECT_EQ(_client->Poll(10000, 1), 1);
    EXPECT_EQ(_client->Poll(10000, 2000), 1); // more than a small scratch area
    EXPECT_EQ(_client->Poll(10000, 100000), 1);
    // A peek of nothing reads as a closed peer.
    EXPECT_EQ(_client->Poll(10000, 0), -1);
    EXPECT_EQ(support::QueuedBytes(_clientFd), 2000);
    EXPECT_EQ(ReadClient(data.size()), data);
    EXPECT_EQ(_client->Poll(0, 1), 0);
}

TEST_P(PollTest, ClosedPeerIsReportedAfterTheLastByte)
{
    support::SendAll(_peer.Get(), {1, 2, 3});
    _peer.Reset();
    EXPECT_EQ(_client->Poll(10000, 3), 1);
    EXPECT_EQ(ReadClient(3), (Bytes{1, 2, 3}));
    EXPECT_EQ(_client->Poll(10000), 1);
    EXPECT_EQ(_client->Poll(10000, 1), -1);
    EXPECT_EQ(_client->Poll(10000, 64), -1);
    EXPECT_EQ(_client->Poll(10000, 0), -1);
}

INSTANTIATE_TEST_SUITE_P(Families, PollTest, testing::Values(false, true), FamilyName);

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

    // Build the expected record byte by byte: family, port high byte first,
    // the address, zero everywhere else.
    const Bytes actual = RecordBytes(socket.Record().get(), r.ipv6);
    Bytes expected(actual.size(), 0);
    const sa_family_t family = r.ipv6 ? AF_INET6 : AF_INET;
    std::memcpy(expected.data(), &family, sizeof(family));
    expected[2] = static_cast<unsigned char>(r.port >> 8);
    expected[3] = static_cast<unsigned char>(r.port & 0xFF);
    if (r.ipv6) {
        ASSERT_EQ(inet_pton(AF_INET6, r.text, expected.data() + offsetof(sockaddr_in6, sin6_addr)), 1);
    } else {
        ASSERT_EQ(inet_pton(AF_INET, r.text, expected.data() + offsetof(sockaddr_in, sin_addr)), 1);
    }
    EXPECT_EQ(actual, expected);
}

INSTANTIATE_TEST_SUITE_P(Hosts, ResolveTest,
                         testing::Values(Resolution{"127.0.0.1", 80, false, "127.0.0.1"},
                                         Resolution{"localhost", 1, false, "127.0.0.1"},
                                         Resolution{"10.1.2.3", 0x1234, false, "10.1.2.3"},
                                         Resolution{"::1", 80, true, "::1"}, Resolution{"::1", 1, true, "::1"},
                                         Resolution{"fe80::1:2", 65535, true, "fe80::1:2"},
                                         // Text with a colon that is no IPv6 literal: the all-zero address.
                                         Resolution{"[::1]", 80, true, "::"}, Resolution{"[::1]:80", 443, true, "::"},
                                         Resolution{"localhost:80", 80, true, "::"}));

class UnresolvableTest : public testing::TestWithParam<const char*> {};

TEST_P(UnresolvableTest, ThrowsTheHostInItsMessageAndKeepsTheOldRecord)
{
    const std::string host = GetParam();
    const std::string message = "Could not resolve host '" + host + "'";
    ProbeSocket socket;
    try {
        socket.ResolveAddress(host, 80);
        ADD_FAILURE() << "no ResolveError";
    } catch (const ResolveError& error) {
        EXPECT_EQ(error.what(), message);
    }
    EXPECT_EQ(socket.Record(), nullptr);
    EXPECT_FALSE(socket.IsIPv6());

    socket.ResolveAddress("::1", 4242);
    const std::shared_ptr<sockaddr> kept = socket.Record();
    EXPECT_THROW(socket.ResolveAddress(host, 80), SocketError);
    EXPECT_EQ(socket.Record(), kept);
    EXPECT_TRUE(socket.IsIPv6());
    EXPECT_EQ(socket.GetRemoteAddress(), "::1");
    EXPECT_EQ(socket.GetRemotePort(), 4242);
}

INSTANTIATE_TEST_SUITE_P(Hosts, UnresolvableTest, testing::Values("999.999.999.999", "1.2.3.4.5"));

TEST(ResolveAgainTest, ReplacesTheRecordWhileOldCopiesStayIntact)
{
    ProbeSocket socket;
    socket.ResolveAddress("127.0.0.1", 80);
    const std::shared_ptr<sockaddr> old = socket.Record();
    const Bytes oldBytes = RecordBytes(old.get(), false);

    socket.ResolveAddress("::1", 443);
    EXPECT_NE(socket.Record(), old);
    EXPECT_TRUE(socket.IsIPv6());
    EXPECT_EQ(socket.GetRemoteAddress(), "::1");
    EXPECT_EQ(socket.GetRemotePort(), 443);
    EXPECT_EQ(old.use_count(), 1) << "the socket still holds its old record";
    EXPECT_EQ(RecordBytes(old.get(), false), oldBytes);

    socket.ResolveAddress("localhost", 8080);
    EXPECT_FALSE(socket.IsIPv6());
    EXPECT_EQ(socket.GetRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(socket.GetRemotePort(), 8080);
}

// Lookups on several threads at once must not see each other's results.
TEST(ResolveAgainTest, ThreadsResolvingAtOnceGetTheirOwnAnswers)
{
    constexpr int kThreads = 6;
    constexpr int kRounds = 3000;
    std::atomic<int> wrong{0};
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ProbeSocket socket;
            start.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) {
                const std::string host = "127.0." + std::to_string(t) + "." + std::to_string(round % 250 + 1);
                const auto port = static_cast<unsigned short>(1000 + t);
                socket.ResolveAddress(host, port);
                if (socket.IsIPv6() || socket.GetRemoteAddress() != host || socket.GetRemotePort() != port) {
                    ++wrong;
                }
                socket.ResolveAddress("localhost", port);
                if (socket.GetRemoteAddress() != "127.0.0.1") {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

} // namespace
