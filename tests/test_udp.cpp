// UDP sockets, the receive loop and the listener, over real loopback datagrams
// with raw POSIX sockets (or the library itself) on the other end.
#include "Support.h"

#include "net/Socket.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/syscall.h>

namespace {

using namespace std::chrono_literals;
using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using orvun::filesystem::StreamIsWriteOnly;
using orvun::net::BindError;
using orvun::net::PollError;
using orvun::net::ResolveError;
using orvun::net::SendError;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;
using support::Bytes;
using support::Fd;
using support::ToBytes;
using support::WaitFor;

constexpr const char* kReceiveThread = "ORVUN_UDP_Lisn";
constexpr size_t kOversized = 70000; // above the UDP payload limit of both families
constexpr auto kQuiet = 300ms;       // how long "nothing arrives" is watched

struct Family {
    bool ipv6;
    const char* host; // given to the library, and the text it reports for loopback
};
const Family kFamilies[] = {{false, "127.0.0.1"}, {true, "::1"}};
std::string FamilyName(const testing::TestParamInfo<Family>& info) { return info.param.ipv6 ? "IPv6" : "IPv4"; }
void PrintTo(const Family& family, std::ostream* out) { *out << family.host; }

void Put(Stream& stream, const Bytes& bytes) { stream.Write(bytes.data(), bytes.size()); }

Bytes Buffered(const Stream& stream)
{
    const unsigned long size = stream.GetBufferSize();
    return size == 0 ? Bytes{} : Bytes(stream.GetBufferData(), stream.GetBufferData() + size);
}

// what() of the `Error` that `action` throws, or a marker saying it threw something else or nothing.
template <typename Error, typename Action> std::string MessageOf(Action&& action)
{
    try {
        action();
    } catch (const Error& e) {
        return e.what();
    } catch (...) {
        return "<another exception>";
    }
    return "<no exception>";
}

template <typename Action> std::chrono::steady_clock::duration TimeOf(Action&& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

// A loopback port that nothing holds at the moment.
unsigned short FreePort(bool ipv6)
{
    unsigned short port = 0;
    support::RawUdp(ipv6, port);
    return port;
}

// Whether a socket without reuse options can bind loopback:`port`, i.e. nobody holds it.
bool CanBind(bool ipv6, unsigned short port)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = support::Loopback(ipv6, port, length);
    return bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0;
}

// The kernel id of this process's thread named `name`, 0 if none.
pid_t ThreadIdNamed(const std::string& name)
{
    pid_t found = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
            std::string text;
            if (entry->d_name[0] != '.' && std::getline(comm, text) && text == name) {
                found = static_cast<pid_t>(std::atoi(entry->d_name));
            }
        }
        closedir(dir);
    }
    return found;
}

size_t ThreadsNamed(const std::string& name) { return support::ThreadNames().count(name); }

// Profiler tables, read in exclusive mode: the receive thread may be updating its records.
Profiler::Profile RecordOf(std::thread::id thread, const std::string& path)
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    const auto records = Profiler::profiles.find(thread);
    if (records == Profiler::profiles.end() || !records->second.contains(path)) {
        return {};
    }
    return records->second.at(path);
}

Profiler::Profile ExtraOf(std::thread::id thread, const std::string& path, const std::string& name)
{
    const Profiler::Profile record = RecordOf(thread, path);
    const auto extra = record.extraProfiles.find(name);
    return extra == record.extraProfiles.end() ? Profiler::Profile{} : extra->second;
}

bool ExtraKnown(const std::string& name)
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    return Profiler::extras.contains(name);
}

std::vector<std::string> StackOf(std::thread::id thread)
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    const auto stack = Profiler::profileStacks.find(thread);
    return stack == Profiler::profileStacks.end() ? std::vector<std::string>{} : stack->second;
}

std::string RegisteredName(std::thread::id thread)
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    const auto name = Profiler::threadNames.find(thread);
    return name == Profiler::threadNames.end() ? std::string() : name->second;
}

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
class Inbox {
public:
    using Also = std::function<void(const UdpSocket&, const Arrival&)>;

    // `also` runs on the receive thread before the arrival is posted, so its
    // effects are visible once `Take` has returned the arrival.
    UdpSocket::Callback Callback(Also also = nullptr)
    {
        return [this, also = std::move(also)](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Arrival arrival;
            arrival.bytes.resize(stream.GetBufferSize());
            stream.Read(arrival.bytes.data(), arrival.bytes.size());
            arrival.address = socket.GetIncomingAddress();
            arrival.port = socket.GetIncomingPort();
            arrival.socket = &socket;
            arrival.thread = std::this_thread::get_id();
            if (also) {
                also(socket, arrival);
            }
            std::lock_guard<std::mutex> lock(_mutex);
            _arrivals.push_back(std::move(arrival));
            ++_count;
            _condition.notify_all();
        };
    }

    std::optional<Arrival> Take(std::chrono::milliseconds limit = 10s)
    {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_condition.wait_for(lock, limit, [this] { return !_arrivals.empty(); })) {
            return std::nullopt;
        }
        Arrival arrival = std::move(_arrivals.front());
        _arrivals.pop_front();
        return arrival;
    }

    size_t Count()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _count;
    }

private:
    std::mutex _mutex;
    std::condition_variable _condition;
    std::deque<Arrival> _arrivals;
    size_t _count = 0;
};

// Answers every datagram with its own bytes through a copy of the receiving socket.
void Echo(const UdpSocket& socket, const Arrival& arrival)
{
    UdpSocket reply(socket);
    Put(reply, arrival.bytes);
    reply.Flush();
}

// Every test starts with an empty, enabled profiler; no socket outlives a test.
class UdpProfiledTest : public testing::Test {
protected:
    void SetUp() override { support::ResetProfiler(true); }
    void TearDown() override { support::ResetProfiler(false); }
};

class UdpTest : public UdpProfiledTest, public testing::WithParamInterface<Family> {
protected:
    bool V6() const { return GetParam().ipv6; }
    const char* Host() const { return GetParam().host; }
    Fd Raw(unsigned short& port) const { return support::RawUdp(V6(), port); }
    void SendFrom(const Fd& fd, unsigned short port, const Bytes& bytes) const
    {
        support::SendDatagram(fd.Get(), V6(), port, bytes);
    }
    bool NothingArrives(const Fd& fd) const { return support::ReceiveDatagram(fd.Get(), nullptr, kQuiet).empty(); }
};

// ------------------------------------------------------------ UdpSocket

class UdpSocketTest : public UdpTest {};

TEST_P(UdpSocketTest, EmptyFlushSendsNothingAndRecordsNothing)
{
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket socket(Host(), port, 64);
    {
        Profiler scope("client");
        EXPECT_NO_THROW(socket.Flush());
    }
    EXPECT_TRUE(NothingArrives(peer));
    EXPECT_FALSE(ExtraKnown("UDP TX"));
    EXPECT_EQ(ExtraOf(std::this_thread::get_id(), "client", "UDP TX").count, 0);
}

TEST_P(UdpSocketTest, FlushSendsTheWholeBufferAsOneDatagram)
{
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket socket(Host(), port, 0);
    EXPECT_EQ(socket.GetRemoteAddress(), Host());
    EXPECT_EQ(socket.GetRemotePort(), port);
    const Bytes payload = support::RandomBytes(1000, 1);
    {
        Profiler outer("client");
        Profiler inner("inner");
        for (size_t offset = 0; offset < payload.size(); offset += 100) {
            socket.Write(payload.data() + offset, 100);
        }
        socket.Flush();
    }
    EXPECT_EQ(socket.GetBufferSize(), 0u);
    unsigned short from = 0;
    EXPECT_EQ(support::ReceiveDatagram(peer.Get(), &from), payload);
    EXPECT_NE(from, 0);
    EXPECT_EQ(from, socket.GetLocalPort()); // the first send chose the local port
    EXPECT_TRUE(NothingArrives(peer));
    for (const char* path : {"client", "client/inner"}) {
        const auto tx = ExtraOf(std::this_thread::get_id(), path, "UDP TX");
        EXPECT_EQ(tx.count, 1) << path;
        EXPECT_EQ(tx.total, 1000.0) << path;
    }

    // The buffer was emptied: the next flush carries only what came after.
    Put(socket, ToBytes("next"));
    socket.Flush();
    EXPECT_EQ(support::ReceiveDatagram(peer.Get()), ToBytes("next"));
}

TEST_P(UdpSocketTest, OversizedFlushThrowsEmsgsizeCountsAndKeepsTheBuffer)
{
    unsigned short port;
    Fd peer = Raw(port);
    UdpSocket socket(Host(), port, 0);
    const Bytes payload = support::RandomBytes(kOversized, 2);
    Put(socket, payload);
    {
        Profiler scope("client");
        EXPECT_EQ(MessageOf<SendError>([&] { socket.Flush(); }), "UDP Socket send failed with EMSGSIZE");
    }
    EXPECT_EQ(Buffered(socket), payload);
    const auto tx = ExtraOf(std::this_thread::get_id(), "client", "UDP TX");
    EXPECT_EQ(tx.count, 1);
    EXPECT_EQ(tx.total, static_cast<double>(kOversized));
    EXPECT_TRUE(NothingArrives(peer));
}

TEST_P(UdpSocketTest, FreshSocketsRefuseReadAndKnowNoSender)
{
    UdpSocket socket(Host(), 9, 0);
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned char byte = 0;
    for (UdpSocket* udp : {&socket, static_cast<UdpSocket*>(&listener)}) {
        Stream& stream = *udp;
        EXPECT_EQ(MessageOf<StreamIsWriteOnly>([&] { stream.Read(&byte, 1); }), "Write-Only Stream");
        EXPECT_EQ(MessageOf<StreamIsWriteOnly>([&] { stream.Read(nullptr, 0); }), "Write-Only Stream");
        EXPECT_EQ(udp->GetIncomingAddress(), "");
        EXPECT_EQ(udp->GetIncomingPort(), 0);
    }
}

TEST_P(UdpSocketTest, ClientReceivesTheReplyToItsFirstFlush)
{
    unsigned short peerPort;
    Fd peer = Raw(peerPort);
    Inbox inbox;
    UdpSocket client(Host(), peerPort, 0);
    Put(client, ToBytes("ping"));
    client.Flush();
    unsigned short clientPort = 0;
    ASSERT_EQ(support::ReceiveDatagram(peer.Get(), &clientPort), ToBytes("ping"));
    client.Receive(inbox.Callback());
    SendFrom(peer, clientPort, ToBytes("pong"));
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, ToBytes("pong"));
    EXPECT_EQ(arrival->address, Host());
    EXPECT_EQ(arrival->port, peerPort);
    EXPECT_EQ(arrival->socket, &client);
}

TEST_P(UdpSocketTest, DestroyingStopsPromptlyAndClosesThePort)
{
    const size_t descriptors = support::OpenDescriptors();
    unsigned short peerPort;
    Fd peer = Raw(peerPort);
    std::make_unique<UdpSocket>(Host(), peerPort, 0).reset(); // never received: closes without a join
    EXPECT_EQ(support::OpenDescriptors(), descriptors + 1);

    Inbox inbox;
    auto client = std::make_unique<UdpSocket>(Host(), peerPort, 0);
    Put(*client, ToBytes("x"));
    client->Flush();
    const unsigned short clientPort = client->GetLocalPort();
    ASSERT_FALSE(CanBind(V6(), clientPort));
    client->Receive(inbox.Callback());
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));
    EXPECT_LT(TimeOf([&] { client.reset(); }), 2s);
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }, 2s));
    EXPECT_TRUE(CanBind(V6(), clientPort));
    EXPECT_EQ(support::OpenDescriptors(), descriptors + 1);
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpSocketTest, testing::ValuesIn(kFamilies), FamilyName);

TEST_F(UdpProfiledTest, UnresolvableHostsThrowResolveErrorAndLeaveNothingOpen)
{
    const size_t descriptors = support::OpenDescriptors();
    EXPECT_EQ(MessageOf<ResolveError>([] { UdpSocket socket("999.999.999.999", 1, 0); }),
              "Could not resolve host '999.999.999.999'");
    EXPECT_EQ(MessageOf<ResolveError>([] { UdpListener listener("1.2.3.4.5", 0, [](auto&&...) {}); }),
              "Could not resolve host '1.2.3.4.5'");
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_FALSE(support::HasThreadNamed(kReceiveThread));
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

class UdpReceiveTest : public UdpTest {};

TEST_P(UdpReceiveTest, DatagramReachesTheCallbackWithItsSender)
{
    std::vector<std::string> stackInside;
    Profiler::Profile rxInside;
    Inbox inbox;
    auto listener = std::make_unique<UdpListener>(Host(), 0, inbox.Callback([&](const UdpSocket&, const Arrival& a) {
        stackInside = StackOf(a.thread);
        rxInside = ExtraOf(a.thread, "UDP Listener", "UDP RX");
    }));
    ASSERT_NE(listener->GetLocalPort(), 0);
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));

    unsigned short senderPort;
    Fd sender = Raw(senderPort);
    const Bytes payload = support::RandomBytes(10, 3);
    SendFrom(sender, listener->GetLocalPort(), payload);
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, payload);
    EXPECT_EQ(arrival->address, Host());
    EXPECT_EQ(arrival->port, senderPort);
    EXPECT_EQ(arrival->socket, listener.get());
    EXPECT_NE(arrival->thread, std::this_thread::get_id());
    // "UDP RX" was recorded before the callback, with only the loop's scope open.
    EXPECT_EQ(stackInside, std::vector<std::string>{"UDP Listener"});
    EXPECT_EQ(rxInside.count, 1);
    EXPECT_EQ(rxInside.total, 10.0);
    // Idle rounds are timed too: the scope covers the 100 ms poll wait.
    std::this_thread::sleep_for(350ms);
    EXPECT_GE(RecordOf(arrival->thread, "UDP Listener").max, 50.0);

    listener.reset();
    const auto record = RecordOf(arrival->thread, "UDP Listener");
    EXPECT_GE(record.count, 1);
    ASSERT_EQ(record.extraProfiles.size(), 1u);
    EXPECT_EQ(record.extraProfiles.at("UDP RX").count, 1);
    EXPECT_EQ(record.extraProfiles.at("UDP RX").total, 10.0);
    EXPECT_EQ(RegisteredName(arrival->thread), kReceiveThread);
    EXPECT_TRUE(StackOf(arrival->thread).empty());
}

TEST_P(UdpReceiveTest, LongDatagramIsCutToItsFirst1400Bytes)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned short port;
    Fd sender = Raw(port);
    const Bytes longer = support::RandomBytes(2000, 4);
    const Bytes exact = support::RandomBytes(1400, 5);
    SendFrom(sender, listener.GetLocalPort(), longer);
    SendFrom(sender, listener.GetLocalPort(), exact);
    const auto first = inbox.Take();
    const auto second = inbox.Take();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->bytes, Bytes(longer.begin(), longer.begin() + 1400));
    EXPECT_EQ(second->bytes, exact);
    const auto rx = ExtraOf(first->thread, "UDP Listener", "UDP RX");
    EXPECT_EQ(rx.count, 2);
    EXPECT_EQ(rx.total, 2800.0);
}

TEST_P(UdpReceiveTest, TwoSendersAreEachSeenAsThemselves)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned short onePort, twoPort;
    Fd one = Raw(onePort);
    Fd two = Raw(twoPort);
    SendFrom(one, listener.GetLocalPort(), ToBytes("one"));
    SendFrom(two, listener.GetLocalPort(), ToBytes("two"));
    std::map<Bytes, unsigned short> senders;
    for (int i = 0; i < 2; ++i) {
        const auto arrival = inbox.Take();
        ASSERT_TRUE(arrival);
        EXPECT_EQ(arrival->address, Host());
        senders[arrival->bytes] = arrival->port;
    }
    EXPECT_EQ(senders, (std::map<Bytes, unsigned short>{{ToBytes("one"), onePort}, {ToBytes("two"), twoPort}}));
}

TEST_P(UdpReceiveTest, ReplyThroughACopyComesFromTheListenersPort)
{
    struct Seen {
        std::string remoteAddress, incomingAddress = "unset";
        unsigned short remotePort = 0, incomingPort = 1;
        unsigned long buffered = 1;
    } seen;
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback([&seen](const UdpSocket& socket, const Arrival&) {
        UdpSocket reply(socket);
        seen = {reply.GetRemoteAddress(), reply.GetIncomingAddress(), reply.GetRemotePort(), reply.GetIncomingPort(),
                reply.GetBufferSize()};
        Profiler scope("reply");
        Put(reply, ToBytes("pong"));
        reply.Flush();
    }));
    Put(listener, ToBytes("stays in the listener")); // a copy starts with an empty buffer

    unsigned short port;
    Fd sender = Raw(port);
    SendFrom(sender, listener.GetLocalPort(), ToBytes("ping"));
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    unsigned short from = 0;
    EXPECT_EQ(support::ReceiveDatagram(sender.Get(), &from), ToBytes("pong"));
    EXPECT_EQ(from, listener.GetLocalPort());
    EXPECT_TRUE(NothingArrives(sender));

    EXPECT_EQ(seen.remoteAddress, arrival->address);
    EXPECT_EQ(seen.remoteAddress, Host());
    EXPECT_EQ(seen.remotePort, arrival->port);
    EXPECT_EQ(seen.remotePort, port);
    EXPECT_EQ(seen.incomingAddress, ""); // a copy has received nothing
    EXPECT_EQ(seen.incomingPort, 0);
    EXPECT_EQ(seen.buffered, 0u);
    EXPECT_EQ(Buffered(listener), ToBytes("stays in the listener"));
    for (const char* path : {"UDP Listener", "UDP Listener/reply"}) {
        const auto tx = ExtraOf(arrival->thread, path, "UDP TX");
        EXPECT_EQ(tx.count, 1) << path;
        EXPECT_EQ(tx.total, 4.0) << path;
    }
}

TEST_P(UdpReceiveTest, DestroyingACopyLeavesTheDescriptorOpen)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback(Echo));
    unsigned short port;
    Fd sender = Raw(port);
    for (int round = 0; round < 3; ++round) {
        const Bytes payload = ToBytes("round " + std::to_string(round));
        SendFrom(sender, listener.GetLocalPort(), payload);
        unsigned short from = 0;
        EXPECT_EQ(support::ReceiveDatagram(sender.Get(), &from), payload);
        EXPECT_EQ(from, listener.GetLocalPort());
    }
    EXPECT_TRUE(WaitFor([&] { return inbox.Count() == 3; })); // the echo goes out before the count
    Put(listener, ToBytes("after the copies"));
    listener.SendTo(Host(), port);
    EXPECT_EQ(support::ReceiveDatagram(sender.Get()), ToBytes("after the copies"));
}

TEST_P(UdpReceiveTest, ZeroLengthDatagramEndsTheLoopQuietly)
{
    Inbox inbox;
    auto listener = std::make_unique<UdpListener>(Host(), 0, inbox.Callback());
    const unsigned short port = listener->GetLocalPort();
    unsigned short senderPort;
    Fd sender = Raw(senderPort);
    SendFrom(sender, port, ToBytes("before"));
    ASSERT_TRUE(inbox.Take());
    SendFrom(sender, port, Bytes{});
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }));
    SendFrom(sender, port, ToBytes("after"));
    EXPECT_FALSE(inbox.Take(kQuiet));
    EXPECT_EQ(listener->GetThreadError(), nullptr);
    // The listener still sends although its loop has ended.
    Put(*listener, ToBytes("still sending"));
    listener->SendTo(Host(), senderPort);
    EXPECT_EQ(support::ReceiveDatagram(sender.Get()), ToBytes("still sending"));
    EXPECT_LT(TimeOf([&] { listener.reset(); }), 2s);
}

TEST_P(UdpReceiveTest, DestroyingWaitsForARunningCallback)
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

TEST_P(UdpReceiveTest, ProfilingDisabledStillDeliversAndRecordsNothing)
{
    support::ResetProfiler(false);
    std::optional<Arrival> arrival;
    {
        Inbox inbox;
        UdpListener listener(Host(), 0, inbox.Callback(Echo));
        ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));
        unsigned short port;
        Fd sender = Raw(port);
        SendFrom(sender, listener.GetLocalPort(), ToBytes("quiet"));
        arrival = inbox.Take();
        ASSERT_TRUE(arrival);
        EXPECT_EQ(arrival->bytes, ToBytes("quiet"));
        EXPECT_EQ(support::ReceiveDatagram(sender.Get()), ToBytes("quiet"));
        Profiler scope("client");
        UdpSocket client(Host(), port, 0);
        Put(client, ToBytes("x"));
        client.Flush();
        EXPECT_EQ(support::ReceiveDatagram(sender.Get()), ToBytes("x"));
    }
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    EXPECT_TRUE(Profiler::profiles.empty());
    EXPECT_TRUE(Profiler::extras.empty());
    ASSERT_EQ(Profiler::threadNames.size(), 1u);
    EXPECT_EQ(Profiler::threadNames.at(arrival->thread), kReceiveThread);
}

TEST_P(UdpReceiveTest, ThrowingCallbackEndsTheLoopAndIsKept)
{
    std::atomic<int> calls{0};
    std::thread::id receiveThread;
    UdpListener listener(Host(), 0, [&](const UdpSocket&, ReadOnlyStream&&) {
        receiveThread = std::this_thread::get_id();
        ++calls;
        throw std::runtime_error("callback failed");
    });
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    unsigned short port;
    Fd sender = Raw(port);
    SendFrom(sender, listener.GetLocalPort(), ToBytes("one"));
    ASSERT_TRUE(WaitFor([&] { return listener.GetThreadError() != nullptr; }));
    EXPECT_EQ(MessageOf<std::runtime_error>([&] { std::rethrow_exception(listener.GetThreadError()); }),
              "callback failed");
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }));
    SendFrom(sender, listener.GetLocalPort(), ToBytes("two"));
    EXPECT_FALSE(WaitFor([&] { return calls > 1; }, kQuiet));
    // The loop's scope was closed while the exception left it.
    EXPECT_TRUE(StackOf(receiveThread).empty());
    EXPECT_GE(RecordOf(receiveThread, "UDP Listener").count, 1);
}

TEST_P(UdpReceiveTest, EmptyCallbackEndsTheLoopWithBadFunctionCall)
{
    UdpListener listener(Host(), 0, UdpSocket::Callback{});
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));
    std::this_thread::sleep_for(200ms); // a few idle rounds are no failure
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    unsigned short port;
    Fd sender = Raw(port);
    SendFrom(sender, listener.GetLocalPort(), ToBytes("x"));
    ASSERT_TRUE(WaitFor([&] { return listener.GetThreadError() != nullptr; }));
    EXPECT_THROW(std::rethrow_exception(listener.GetThreadError()), std::bad_function_call);
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }));
}

TEST_P(UdpReceiveTest, InterruptedPollEndsTheLoopWithPollError)
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

    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    pid_t thread = 0;
    ASSERT_TRUE(WaitFor([&] { return (thread = ThreadIdNamed(kReceiveThread)) != 0; }));
    for (int attempt = 0; attempt < 50 && listener.GetThreadError() == nullptr; ++attempt) {
        syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
        WaitFor([&] { return listener.GetThreadError() != nullptr; }, 200ms);
    }
    ASSERT_NE(listener.GetThreadError(), nullptr);
    EXPECT_EQ(MessageOf<PollError>([&] { std::rethrow_exception(listener.GetThreadError()); }),
              "UDP Socket Listener Poll Error");
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }));
}

TEST_P(UdpReceiveTest, SecondReceiveThrowsAndTheFirstLoopGoesOn)
{
    Inbox first;
    Inbox second;
    UdpListener listener(Host(), 0, first.Callback());
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));
    EXPECT_THROW(listener.Receive(second.Callback()), std::logic_error);
    EXPECT_EQ(ThreadsNamed(kReceiveThread), 1u);
    unsigned short port;
    Fd sender = Raw(port);
    SendFrom(sender, listener.GetLocalPort(), ToBytes("still here"));
    const auto arrival = first.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, ToBytes("still here"));
    EXPECT_FALSE(second.Take(kQuiet));
    EXPECT_EQ(listener.GetThreadError(), nullptr);

    // The same on a plain socket.
    UdpSocket client(Host(), port, 0);
    client.Receive(first.Callback());
    EXPECT_THROW(client.Receive(second.Callback()), std::logic_error);
    EXPECT_TRUE(WaitFor([] { return ThreadsNamed(kReceiveThread) == 2; }));
    EXPECT_EQ(client.GetThreadError(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpReceiveTest, testing::ValuesIn(kFamilies), FamilyName);

// ------------------------------------------------------------ UdpListener

class UdpListenerTest : public UdpTest {};

TEST_P(UdpListenerTest, IdleListenerStopsPromptlyAndClosesItsPort)
{
    Inbox inbox;
    auto listener = std::make_unique<UdpListener>(Host(), 0, inbox.Callback());
    const unsigned short port = listener->GetLocalPort();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(WaitFor([] { return support::HasThreadNamed(kReceiveThread); }));
    EXPECT_FALSE(CanBind(V6(), port));
    EXPECT_LT(TimeOf([&] { listener.reset(); }), 2s);
    EXPECT_TRUE(WaitFor([] { return !support::HasThreadNamed(kReceiveThread); }, 2s));
    EXPECT_TRUE(CanBind(V6(), port));
}

TEST_P(UdpListenerTest, SharesItsPortWithSocketsThatAllowIt)
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
    EXPECT_TRUE(WaitFor([&] { return one.Count() + two.Count() >= senders.size(); }));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(one.Count() + two.Count(), senders.size());

    // A holder that allows only one of the two kinds of reuse is enough.
    for (const int option : {SO_REUSEPORT, SO_REUSEADDR}) {
        Fd holder(socket(V6() ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(holder.Get(), SOL_SOCKET, option, &on, sizeof(on));
        socklen_t length;
        auto address = support::Loopback(V6(), 0, length);
        ASSERT_EQ(bind(holder.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_NO_THROW({ UdpListener listener(Host(), support::LocalPort(holder.Get()), [](auto&&...) {}); })
            << (option == SO_REUSEPORT ? "SO_REUSEPORT" : "SO_REUSEADDR");
    }
}

TEST_P(UdpListenerTest, PortHeldWithoutReuseGivesBindError)
{
    unsigned short port;
    Fd holder = Raw(port); // bound without SO_REUSEPORT
    const size_t descriptors = support::OpenDescriptors();
    EXPECT_EQ(MessageOf<BindError>([&] { UdpListener listener(Host(), port, [](auto&&...) {}); }), "UDP Bind failed");
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_FALSE(support::HasThreadNamed(kReceiveThread));
}

TEST_P(UdpListenerTest, FlushSendsToTheBindAddress)
{
    const unsigned short port = FreePort(V6());
    Inbox inbox;
    UdpListener listener(Host(), port, inbox.Callback());
    ASSERT_EQ(listener.GetLocalPort(), port);
    Put(listener, ToBytes("to myself"));
    listener.Flush();
    EXPECT_EQ(listener.GetBufferSize(), 0u);
    const auto arrival = inbox.Take();
    ASSERT_TRUE(arrival);
    EXPECT_EQ(arrival->bytes, ToBytes("to myself"));
    EXPECT_EQ(arrival->address, Host());
    EXPECT_EQ(arrival->port, port);
    EXPECT_EQ(arrival->socket, &listener);
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpListenerTest, testing::ValuesIn(kFamilies), FamilyName);

// ------------------------------------------------------------ SendTo

class UdpSendToTest : public UdpTest {};

TEST_P(UdpSendToTest, EmptyBufferDoesNothingWhateverTheHost)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned short port;
    Fd peer = Raw(port);
    {
        Profiler scope("send");
        EXPECT_NO_THROW(listener.SendTo("999.999.999.999", port));
        EXPECT_NO_THROW(listener.SendTo(Host(), port));
    }
    EXPECT_TRUE(NothingArrives(peer));
    EXPECT_FALSE(ExtraKnown("UDP TX"));
}

TEST_P(UdpSendToTest, DeliversOneDatagramFromTheBoundPort)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned short port;
    Fd peer = Raw(port);
    const Bytes payload = support::RandomBytes(100, 6);
    Put(listener, payload);
    {
        Profiler scope("send");
        listener.SendTo(Host(), port);
    }
    EXPECT_EQ(listener.GetBufferSize(), 0u);
    unsigned short from = 0;
    EXPECT_EQ(support::ReceiveDatagram(peer.Get(), &from), payload);
    EXPECT_EQ(from, listener.GetLocalPort());
    EXPECT_TRUE(NothingArrives(peer));
    const auto tx = ExtraOf(std::this_thread::get_id(), "send", "UDP TX");
    EXPECT_EQ(tx.count, 1);
    EXPECT_EQ(tx.total, 100.0);
    // The destination is not kept: the peer record is still the bind address.
    EXPECT_EQ(listener.GetRemoteAddress(), Host());
    EXPECT_EQ(listener.GetRemotePort(), 0);
    if (!V6()) {
        Put(listener, ToBytes("by name"));
        listener.SendTo("localhost", port);
        EXPECT_EQ(support::ReceiveDatagram(peer.Get()), ToBytes("by name"));
    }
}

TEST_P(UdpSendToTest, UnresolvableDestinationThrowsResolveErrorAndKeepsTheBuffer)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    Put(listener, ToBytes("kept"));
    {
        Profiler scope("send");
        EXPECT_EQ(MessageOf<ResolveError>([&] { listener.SendTo("1.2.3.4.5", 9); }),
                  "Could not resolve host '1.2.3.4.5'");
    }
    EXPECT_EQ(Buffered(listener), ToBytes("kept"));
    EXPECT_EQ(ExtraOf(std::this_thread::get_id(), "send", "UDP TX").count, 1); // counted before the lookup
}

TEST_P(UdpSendToTest, OversizedThrowsEmsgsizeCountsAndKeepsTheBuffer)
{
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    unsigned short port;
    Fd peer = Raw(port);
    const Bytes payload = support::RandomBytes(kOversized, 7);
    Put(listener, payload);
    {
        Profiler scope("send");
        EXPECT_EQ(MessageOf<SendError>([&] { listener.SendTo(Host(), port); }), "UDP Socket send failed with EMSGSIZE");
    }
    EXPECT_EQ(Buffered(listener), payload);
    const auto tx = ExtraOf(std::this_thread::get_id(), "send", "UDP TX");
    EXPECT_EQ(tx.count, 1);
    EXPECT_EQ(tx.total, static_cast<double>(kOversized));
    EXPECT_TRUE(NothingArrives(peer));
}

TEST_P(UdpSendToTest, PortZeroDestinationReportsErrnoAndKeepsTheBuffer)
{
    // The kernel refuses datagrams to port 0 with EINVAL; a listener bound to
    // port 0 keeps port 0 in its peer record, so its Flush goes there too.
    UdpSocket socket(Host(), 0, 0);
    Put(socket, ToBytes("lost"));
    EXPECT_EQ(MessageOf<SendError>([&] { socket.Flush(); }), "UDP Socket send failed with errno 22");
    EXPECT_EQ(Buffered(socket), ToBytes("lost"));
    Inbox inbox;
    UdpListener listener(Host(), 0, inbox.Callback());
    Put(listener, ToBytes("kept"));
    EXPECT_EQ(MessageOf<SendError>([&] { listener.SendTo(Host(), 0); }), "UDP Socket send failed with errno 22");
    EXPECT_EQ(MessageOf<SendError>([&] { listener.Flush(); }), "UDP Socket send failed with errno 22");
    EXPECT_EQ(Buffered(listener), ToBytes("kept"));
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpSendToTest, testing::ValuesIn(kFamilies), FamilyName);

TEST_F(UdpProfiledTest, IPv6ListenerRefusesIPv4Destinations)
{
    Inbox inbox;
    UdpListener listener("::1", 0, inbox.Callback());
    unsigned short port;
    Fd peer = support::RawUdp(false, port);
    const Bytes payload = ToBytes("not for IPv4");
    Put(listener, payload);
    {
        Profiler scope("send");
        for (const char* host : {"127.0.0.1", "localhost"}) {
            EXPECT_EQ(MessageOf<SendError>([&] { listener.SendTo(host, port); }), "UDP Address is not IPv6") << host;
            EXPECT_EQ(Buffered(listener), payload) << host;
        }
    }
    EXPECT_TRUE(support::ReceiveDatagram(peer.Get(), nullptr, kQuiet).empty());
    EXPECT_EQ(ExtraOf(std::this_thread::get_id(), "send", "UDP TX").count, 2);
}

// ------------------------------------------------------------ lifetime

TEST_F(UdpProfiledTest, NothingOutlivesTheSockets)
{
    const size_t descriptors = support::OpenDescriptors();
    const size_t threads = support::ThreadCount();
    for (const Family& family : kFamilies) {
        Inbox serverInbox;
        Inbox clientInbox;
        UdpListener listener(family.host, 0, serverInbox.Callback(Echo));
        UdpSocket client(family.host, listener.GetLocalPort(), 0);
        Put(client, ToBytes("echo"));
        client.Flush();
        client.Receive(clientInbox.Callback());
        const auto echoed = clientInbox.Take();
        ASSERT_TRUE(echoed) << family.host;
        EXPECT_EQ(echoed->bytes, ToBytes("echo"));
        EXPECT_EQ(echoed->port, listener.GetLocalPort());
        EXPECT_EQ(ThreadsNamed(kReceiveThread), 2u);
    }
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
    EXPECT_TRUE(WaitFor([&] { return support::ThreadCount() <= threads; }, 2s));
    EXPECT_FALSE(support::HasThreadNamed(kReceiveThread));
}

} // namespace
