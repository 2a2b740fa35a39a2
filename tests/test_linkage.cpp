// The profiler's operations are inline, so this executable and OrvunNet each
// carry their own copy of them; both must reach the one set of tables that
// OrvunCpu defines. A scope opened here and an extra recorded inside OrvunNet
// (or the other way round) have to land in the same record.
#include "Support.h"

#include "cpu/Profiler.h"
#include "net/Socket.h"

#include <atomic>
#include <string>
#include <thread>

namespace {

using namespace support;
using orvun::filesystem::ReadOnlyStream;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

class SharedProfilerTables : public ::testing::Test {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
};

// Flushes inside OrvunNet add to scopes opened here and obey the switch set here.
TEST_F(SharedProfilerTables, FlushesInsideNetAddToAScopeOpenedHere)
{
    unsigned short udpPort = 0;
    Fd udpPeer = RawUdp(false, udpPort);
    unsigned short tcpPort = 0;
    Fd tcpListener = RawTcpListener(true, tcpPort);
    const Bytes datagram = ToBytes("seven b");
    const Bytes message = RandomBytes(1000);
    {
        Profiler outer("linkage");
        UdpSocket udp("127.0.0.1", udpPort, 0);
        Put(udp, datagram);
        udp.Flush();
        {
            Profiler inner("tcp");
            TcpSocket tcp("::1", tcpPort, 0, 2000);
            Fd accepted = AcceptWithin(tcpListener.Get());
            tcp.Flush(); // empty: neither sent nor recorded
            Put(tcp, message);
            tcp.Flush();
            EXPECT_EQ(ReadExactly(accepted.Get(), message.size()), message);
        }
        Profiler::SetEnabled(false);
        Put(udp, datagram);
        udp.Flush();
    }
    EXPECT_EQ(ReceiveDatagram(udpPeer.Get()), datagram);
    EXPECT_EQ(ReceiveDatagram(udpPeer.Get()), datagram);

    const ProfilerTables tables = Profiles();
    ASSERT_EQ(tables.Record("linkage").count, 1) << "the scope opened here has no record";
    EXPECT_EQ(Summary(tables.Record("linkage", "UDP TX")), "1 7 7 7");
    EXPECT_EQ(Summary(tables.Record("linkage", "TCP TX")), "1 1000 1000 1000");
    ASSERT_EQ(tables.Record("linkage/tcp").count, 1);
    EXPECT_EQ(Summary(tables.Record("linkage/tcp", "TCP TX")), "1 1000 1000 1000");
    EXPECT_EQ(tables.Record("linkage/tcp").extraProfiles.count("UDP TX"), 0U);
    EXPECT_EQ(tables.extras, (std::set<std::string>{"TCP TX", "UDP TX"}));
}

TEST_F(SharedProfilerTables, ScopeOpenedInsideNetIsSeenByCodeCompiledHere)
{
    // The receive loop (OrvunNet's copy of the inline code) names its thread
    // and opens "UDP Listener"; the callback (this executable's copy) opens a
    // scope inside it and records an extra of its own.
    std::atomic<bool> handled{false};
    std::atomic<std::thread::id> receiveThread{};
    const Bytes datagram = ToBytes("twelve bytes");
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket&, ReadOnlyStream&&) {
            Profiler scope("callback");
            Profiler::Extra("test extra", 5.0);
            receiveThread = std::this_thread::get_id();
            handled = true;
        });
        unsigned short senderPort = 0;
        Fd sender = RawUdp(false, senderPort);
        SendDatagram(sender.Get(), false, listener.GetLocalPort(), datagram);
        ASSERT_TRUE(WaitFor([&] { return handled.load(); }));
    } // joins the receive thread: its records are complete

    const std::thread::id thread = receiveThread.load();
    const ProfilerTables tables = Profiles();
    ASSERT_EQ(tables.names.count(thread), 1U);
    EXPECT_EQ(tables.names.at(thread), "ORVUN_UDP_Lisn");
    ASSERT_GE(tables.Record("UDP Listener", "", thread).count, 1)
        << "the receive loop's scope is not in the tables seen here";
    EXPECT_EQ(Summary(tables.Record("UDP Listener", "UDP RX", thread)), "1 12 12 12");
    EXPECT_EQ(Summary(tables.Record("UDP Listener", "test extra", thread)), "1 5 5 5");
    ASSERT_EQ(tables.Record("UDP Listener/callback", "", thread).count, 1)
        << "the callback's scope did not nest under the loop's";
    EXPECT_EQ(Summary(tables.Record("UDP Listener/callback", "test extra", thread)), "1 5 5 5");
    EXPECT_TRUE(tables.extras.contains("UDP RX"));
}

} // namespace
