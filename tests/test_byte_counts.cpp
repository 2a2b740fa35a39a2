// What the sockets record in the profiler: "TCP TX" and "UDP TX" for every
// non-empty flush, "UDP RX" for every datagram, and the receive loop's own
// "UDP Listener" scope. The profiler's operations are inline, so this
// executable and OrvunNet each carry a copy; both must reach the one set of
// tables, which every case here relies on.
#include "support/Common.h"
#include "support/ProfilerTables.h"

#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;

constexpr const char* kLoop = "UDP Listener";

class ByteCountTest : public testing::Test {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
    // Sends each datagram to loopback:`port` from a raw socket.
    void Send(unsigned short port, std::initializer_list<Bytes> datagrams)
    {
        unsigned short own;
        _sender = RawUdp(false, own);
        for (const Bytes& datagram : datagrams) {
            EXPECT_TRUE(SendDatagram(_sender.Get(), false, port, datagram));
        }
    }
    Fd _sender;
};

// Flushes an empty buffer, then 5 bytes and 7 bytes, inside scope "outer"
// and the 7 inside "outer/inner" too.
template <typename Socket> void FlushNothingThenFiveThenSeven(Socket& socket)
{
    Profiler outer("outer");
    socket.Flush();
    Put(socket, {1, 2, 3, 4, 5});
    socket.Flush();
    Profiler inner("inner");
    Put(socket, {6, 7, 8, 9, 10, 11, 12});
    socket.Flush();
}

// A worker-mode flush counts on the flushing thread when queued, not when the worker sends.
TEST_F(ByteCountTest, TcpFlushCountsItsBytesInEveryOpenScope)
{
    unsigned short port = 0;
    Fd listener = RawTcpListener(false, port);
    for (const bool worker : {false, true}) {
        ResetProfiler(true);
        TcpSocket client("127.0.0.1", port, 0, 0);
        if (worker) {
            client.SetNonBlockingFlush();
        }
        FlushNothingThenFiveThenSeven(client);
        const ProfilerTables tables = Profiles();
        EXPECT_EQ(Summary(tables.Record("outer", "TCP TX")), "2 12 5 7") << worker;
        EXPECT_EQ(Summary(tables.Record("outer/inner", "TCP TX")), "1 7 7 7") << worker;
    }
}

TEST_F(ByteCountTest, UdpFlushAndSendToCountTheirBytesInEveryOpenScope)
{
    unsigned short port;
    Fd peer = RawUdp(false, port);
    UdpSocket socket("127.0.0.1", port, 0);
    FlushNothingThenFiveThenSeven(socket);
    UdpListener listener("127.0.0.1", 0, [](auto&&...) {});
    {
        Profiler scope("sendto");
        listener.SendTo("127.0.0.1", port); // empty
        Put(listener, Bytes(100, 'x'));
        listener.SendTo("127.0.0.1", port);
    }
    UdpSocket toZero("127.0.0.1", 0, 0); // the kernel refuses port 0
    {
        Profiler scope("failed"); // counted too
        Put(toZero, Bytes(3, 'x'));
        EXPECT_THROW(toZero.Flush(), SendError);
        Put(listener, Bytes(70000, 'x'));
        EXPECT_THROW(listener.SendTo("127.0.0.1", 9), SendError);
        EXPECT_THROW(listener.SendTo("1.2.3.4.5", 9), ResolveError);
    }
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record("outer", "UDP TX")), "2 12 5 7");
    EXPECT_EQ(Summary(tables.Record("outer/inner", "UDP TX")), "1 7 7 7");
    EXPECT_EQ(Summary(tables.Record("sendto", "UDP TX")), "1 100 100 100");
    EXPECT_EQ(Summary(tables.Record("failed", "UDP TX")), "3 140003 3 70000");
}

// Where the receive loop's records are seen from inside its callback.
struct LoopView {
    std::vector<std::string> stack;
    Profiler::Profile rx;
    std::thread::id thread;
};

// Each datagram is counted, cut to 1400 bytes, inside the loop's scope and
// before its callback runs. Idle rounds are timed too: the scope covers the
// 100 ms poll wait.
TEST_F(ByteCountTest, EachDatagramIsCountedBeforeItsCallback)
{
    Queue<LoopView> views;
    auto listener = std::make_unique<UdpListener>("127.0.0.1", 0, [&](const UdpSocket&, ReadOnlyStream&&) {
        const ProfilerTables tables = Profiles();
        views.Push({tables.Stack(), tables.Record(kLoop, "UDP RX"), std::this_thread::get_id()});
    });
    Send(listener->GetLocalPort(), {RandomBytes(10), RandomBytes(2000), RandomBytes(1400)});
    const auto first = views.Take();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->stack, std::vector<std::string>{kLoop});
    EXPECT_EQ(Summary(first->rx), "1 10 10 10");
    ASSERT_TRUE(views.Take() && views.Take());
    std::this_thread::sleep_for(350ms);
    listener.reset();
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record(kLoop, "UDP RX", first->thread)), "3 2810 10 1400");
    EXPECT_GE(tables.Record(kLoop, "", first->thread).count, 5);
    EXPECT_GE(tables.Record(kLoop, "", first->thread).max, 50.0);
    EXPECT_EQ(tables.names.at(first->thread), "ORVUN_UDP_Lisn");
    EXPECT_TRUE(tables.Stack(first->thread).empty());
}

// A scope the callback opens (this executable's copy of the inline code)
// nests under the loop's (OrvunNet's copy), and a reply flushed inside it
// counts in both.
TEST_F(ByteCountTest, RepliesCountInTheLoopsScopeAndTheCallbacks)
{
    Queue<std::thread::id> handled;
    UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
        Profiler scope("reply");
        UdpSocket reply(socket);
        Put(reply, Buffered(stream));
        reply.Flush();
        handled.Push(std::this_thread::get_id());
    });
    Send(listener.GetLocalPort(), {ToBytes("seven b")});
    const auto thread = handled.Take();
    ASSERT_TRUE(thread);
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record(kLoop, "UDP TX", *thread)), "1 7 7 7");
    EXPECT_EQ(Summary(tables.Record("UDP Listener/reply", "UDP TX", *thread)), "1 7 7 7");
    EXPECT_EQ(tables.extras, (std::set<std::string>{"UDP RX", "UDP TX"}));
}

} // namespace
