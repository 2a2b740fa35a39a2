// The scoped profiler: per-thread records keyed by nested paths, extras
// attached to open scopes, the on/off switch and the report; and what the
// sockets count in it.
#include "support/Common.h"
#include "support/ProfilerTables.h"

#include <latch>
#include <sstream>
#include <utility>

namespace {

using namespace orvun::net;
using namespace support;
using namespace std::chrono_literals;
using orvun::cpu::SharedMutex;
using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using Profile = Profiler::Profile;
using Stack = std::vector<std::string>;

// Read before any test touches the switch.
const bool kEnabledAtStart = Profiler::enabled;

Stack MyStack() { return Profiles().Stack(); }

class ProfilerTest : public testing::Test {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
};

// Scopes record under their nested paths and only the first Stop ends one.
// An extra reaches every scope open on its thread, and only those; a thread
// that never opened a scope records nothing, not even the name.
TEST_F(ProfilerTest, ScopesNestStopOnceAndCollectExtras)
{
    std::thread([] { Profiler::Extra("stranger", 1.0); }).join();
    EXPECT_TRUE(Profiles().profiles.empty() && Profiles().extras.empty());
    {
        Profiler a("A");
        {
            Profiler b("B");
            Profiler untimed("C", false);
            EXPECT_EQ(MyStack(), (Stack{"A", "B", "C"}));
            Profiler::Extra("UDP TX", 100.0);
        }
        Profiler unnamed("");
        unnamed.Stop();
        unnamed.Stop();
        EXPECT_EQ(MyStack(), Stack{"A"});
        Profiler::Extra("UDP TX", 50.0);
        Profiler::Extra("TCP TX", -3.0);
        Profiler::Extra("min", -1.0); // reads as "no sample yet": the next value becomes the min
        Profiler::Extra("min", 4.0);
    }                             // the destructor stops `unnamed` once more
    Profiler::Extra("late", 3.0); // registered, but no scope open now
    for (int ms : {5, 3}) {
        Profiler b("B");
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(tables.Stack(), Stack{});
    EXPECT_EQ(tables.Paths(), (std::set<std::string>{"A", "A/B", "A/B/C", "A/", "B"}));
    EXPECT_EQ(tables.Record("A").count + tables.Record("A/B").count + tables.Record("A/").count, 3);
    EXPECT_EQ(Summary(tables.Record("A/B/C")), "0 0 -1 0");
    std::string extras;
    for (const auto& [path, extra] : {std::pair{"A", "UDP TX"},
                                      {"A/B", "UDP TX"},
                                      {"A/B/C", "UDP TX"},
                                      {"A/", "UDP TX"},
                                      {"A", "TCP TX"},
                                      {"A", "min"}}) {
        extras += Summary(tables.Record(path, extra)) + ", ";
    }
    EXPECT_EQ(extras, "2 150 50 100, 1 100 100 100, 1 100 100 100, 0 0 -1 0, 1 -3 -3 0, 2 3 4 4, ");
    EXPECT_TRUE(tables.Record("A", "UDP TX").extraProfiles.empty());
    EXPECT_EQ(tables.extras, (std::set<std::string>{"TCP TX", "UDP TX", "late", "min"}));
    // Timed runs accumulate; wall-clock samples, so loose bounds only.
    const Profile timed = tables.Record("B");
    EXPECT_EQ(timed.count, 2);
    EXPECT_TRUE(timed.min >= 2.0 && timed.max >= 4.0 && timed.max < 5000.0) << Summary(timed);
    EXPECT_DOUBLE_EQ(timed.total, timed.min + timed.max);
}

// Off until switched on; the switch only affects scopes opened later, and
// names are kept whatever it says.
TEST_F(ProfilerTest, SwitchOnlyAffectsScopesOpenedLater)
{
    EXPECT_FALSE(kEnabledAtStart);
    {
        Profiler open("Open");
        Profiler::SetEnabled(false);
        EXPECT_FALSE(Profiler::IsEnabled());
        {
            Profiler inert("Inert");
            Profiler::Extra("off", 1.0);
            Profiler::SetEnabled(true);
            EXPECT_EQ(MyStack(), Stack{"Open"});
        } // ends without popping "Open"
        EXPECT_EQ(MyStack(), Stack{"Open"});
        Profiler::SetEnabled(false);
    } // still records and pops
    ProfilerTables tables = Profiles();
    EXPECT_EQ(tables.Stack(), Stack{});
    EXPECT_EQ(tables.Paths(), std::set<std::string>{"Open"});
    EXPECT_EQ(tables.Record("Open").count, 1);
    EXPECT_EQ(tables.Record("Open", "off").count, 0);

    ResetProfiler(false);
    std::thread([] {
        Profiler a("A");
        Profiler b("B", false);
        Profiler::Extra("UDP RX", 1.0);
        b.Stop();
        Profiler::SetThreadName("other");
    }).join();
    Profiler::SetThreadName("first");
    Profiler::SetThreadName("second"); // replaces the first
    tables = Profiles();
    EXPECT_TRUE(tables.profiles.empty() && tables.stacks.empty() && tables.extras.empty());
    EXPECT_EQ(tables.names.size(), 2u);
    EXPECT_EQ(tables.names.at(std::this_thread::get_id()), "second");
}

TEST_F(ProfilerTest, ReportListsThreadsPathsAndExtrasInSortedOrder)
{
    std::latch alive(2); // both alive at once: the ids differ
    const auto run = [&](const char* name) {
        Profiler::SetThreadName(name);
        {
            Profiler second("second", false);
            Profiler first("first", false);
            Profiler::Extra("Zz", 1.0);
            Profiler::Extra("Aa", 2.0);
        }
        Profiler fixed("fixed", false);
        alive.arrive_and_wait();
    };
    std::thread zeta(run, "zeta");
    std::thread(run, "alpha").join();
    zeta.join();
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        for (auto& [thread, records] : Profiler::profiles) {
            records["fixed"].Add(2.0);
            records["fixed"].Add(4.0);
        }
    }
    std::ostringstream out;
    Profiler::Report(out);
    const std::string report = out.str();
    // In order: threads by label, paths and extras by name; each record's
    // count, total, min, max and mean, each extra's count and total.
    size_t at = 0;
    for (const std::string text : {"alpha", "fixed", "2", "6", "2", "4", "3", "second", "second/first", "Aa", "1", "2",
                                   "Zz", "1", "1", "zeta", "fixed"}) {
        at = report.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " missing or out of order in\n" << report;
        at += text.size();
    }
}

constexpr const char* kLoop = "UDP Listener";

// What the sockets record: "TCP TX" and "UDP TX" for every non-empty flush,
// "UDP RX" for every datagram, and the receive loop's own "UDP Listener"
// scope. The profiler's operations are inline, so this executable and
// OrvunNet each carry a copy; both must reach the one set of tables.
using ByteCountTest = ProfilerTest;

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
