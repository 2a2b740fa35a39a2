// What the sockets record in the profiler: "TCP TX" and "UDP TX" for every
// non-empty flush, "UDP RX" for every datagram, and the receive loop's own
// "UDP Listener" scope. The profiler's operations are inline, so this
// executable and OrvunNet each carry a copy; both must reach the one set of
// tables, which every case here relies on.
#include "support/Common.h"
#include "support/ProfilerTables.h"

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;

constexpr const char* kLoop = "UDP Listener";

class ByteCountTest : public testing::Test {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
};

// Each flush counts on the flushing thread in every scope open there: an
// empty one not at all, a worker-mode one when queued (not when the worker
// sends), a failed UDP send all the same.
TEST_F(ByteCountTest, FlushesCountTheirBytesInEveryOpenScope)
{
    unsigned short tcpPort = 0;
    unsigned short udpPort = 0;
    Fd tcpPeer = RawTcpListener(false, tcpPort);
    Fd udpPeer = RawUdp(false, udpPort);
    TcpSocket direct("127.0.0.1", tcpPort, 0, 0);
    TcpSocket worker("127.0.0.1", tcpPort, 0, 0);
    worker.SetNonBlockingFlush();
    UdpSocket udp("127.0.0.1", udpPort, 0);
    for (const auto& [socket, name] :
         {std::pair<Stream*, const char*>{&direct, "TCP TX"}, {&worker, "TCP TX"}, {&udp, "UDP TX"}}) {
        ResetProfiler(true);
        {
            Profiler outer("outer");
            socket->Flush();
            Put(*socket, {1, 2, 3, 4, 5});
            socket->Flush();
            Profiler inner("inner");
            Put(*socket, {6, 7, 8, 9, 10, 11, 12});
            socket->Flush();
        }
        const ProfilerTables tables = Profiles();
        EXPECT_EQ(Summary(tables.Record("outer", name)), "2 12 5 7") << name;
        EXPECT_EQ(Summary(tables.Record("outer/inner", name)), "1 7 7 7") << name;
    }
    UdpListener listener("127.0.0.1", 0, [](auto&&...) {});
    UdpSocket toZero("127.0.0.1", 0, 0); // the kernel refuses port 0
    {
        Profiler scope("sendto");
        listener.SendTo("127.0.0.1", udpPort); // empty
        Put(listener, Bytes(100, 'x'));
        listener.SendTo("127.0.0.1", udpPort);
    }
    {
        Profiler scope("failed");
        Put(toZero, Bytes(3, 'x'));
        EXPECT_THROW(toZero.Flush(), SendError);
        Put(listener, Bytes(70000, 'x'));
        EXPECT_THROW(listener.SendTo("127.0.0.1", 9), SendError);
        EXPECT_THROW(listener.SendTo("1.2.3.4.5", 9), ResolveError);
    }
    const ProfilerTables tables = Profiles();
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
// before its callback runs. A scope the callback opens (this executable's
// copy of the inline code) nests under the loop's (OrvunNet's copy), and a
// reply flushed inside it counts in both. Idle rounds are timed too: the
// scope covers the 100 ms poll wait.
TEST_F(ByteCountTest, DatagramsAndRepliesCountInTheLoopsScope)
{
    Queue<LoopView> views;
    auto listener =
        std::make_unique<UdpListener>("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            const ProfilerTables tables = Profiles();
            views.Push({tables.Stack(), tables.Record(kLoop, "UDP RX"), std::this_thread::get_id()});
            Profiler scope("reply");
            UdpSocket reply(socket);
            Put(reply, Buffered(stream));
            reply.Flush();
        });
    unsigned short own;
    Fd sender = RawUdp(false, own);
    for (const size_t size : {10, 2000, 1400}) {
        EXPECT_TRUE(SendDatagram(sender.Get(), false, listener->GetLocalPort(), RandomBytes(size)));
    }
    const auto first = views.Take();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->stack, std::vector<std::string>{kLoop});
    EXPECT_EQ(Summary(first->rx), "1 10 10 10");
    ASSERT_TRUE(views.Take() && views.Take());
    std::this_thread::sleep_for(350ms);
    listener.reset();
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record(kLoop, "UDP RX", first->thread)), "3 2810 10 1400");
    EXPECT_EQ(Summary(tables.Record(kLoop, "UDP TX", first->thread)), "3 2810 10 1400");
    EXPECT_EQ(Summary(tables.Record("UDP Listener/reply", "UDP TX", first->thread)), "3 2810 10 1400");
    EXPECT_EQ(tables.extras, (std::set<std::string>{"UDP RX", "UDP TX"}));
    EXPECT_GE(tables.Record(kLoop, "", first->thread).count, 5);
    EXPECT_GE(tables.Record(kLoop, "", first->thread).max, 50.0);
    EXPECT_EQ(tables.names.at(first->thread), "ORVUN_UDP_Lisn");
    EXPECT_TRUE(tables.Stack(first->thread).empty());
}

} // namespace
