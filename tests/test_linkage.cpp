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

using orvun::cpu::Profiler;
using orvun::cpu::SharedMutex;
using orvun::filesystem::ReadOnlyStream;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

namespace {

class SharedProfilerTables : public ::testing::Test {
protected:
    void SetUp() override { support::ResetProfiler(true); }
    void TearDown() override { support::ResetProfiler(false); }

    // A copy of one record of a thread, read under the exclusive mode; a
    // record with count -1 when the thread or path is missing.
    static Profiler::Profile RecordOf(std::thread::id thread, const std::string& path)
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        Profiler::Profile missing;
        missing.count = -1;
        auto records = Profiler::profiles.find(thread);
        if (records == Profiler::profiles.end()) {
            return missing;
        }
        auto record = records->second.find(path);
        return record == records->second.end() ? missing : record->second;
    }

    static bool KnowsExtra(const std::string& name)
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        return Profiler::extras.count(name) == 1;
    }

    void ExpectExtra(const Profiler::Profile& record, const std::string& name, int count, double total)
    {
        auto extra = record.extraProfiles.find(name);
        ASSERT_NE(extra, record.extraProfiles.end()) << name << " is not in the record";
        EXPECT_EQ(extra->second.count, count) << name;
        EXPECT_DOUBLE_EQ(extra->second.total, total) << name;
    }
};

TEST_F(SharedProfilerTables, FlushesInsideNetAddToAScopeOpenedHere)
{
    unsigned short udpPort = 0;
    support::Fd udpPeer = support::RawUdp(false, udpPort);
    unsigned short tcpPort = 0;
    support::Fd tcpListener = support::RawTcpListener(true, tcpPort);
    const support::Bytes datagram = support::ToBytes("seven b");
    const support::Bytes message = support::RandomBytes(1000);
    {
        Profiler outer("linkage");
        UdpSocket udp("127.0.0.1", udpPort, 0);
        udp.Write(datagram.data(), datagram.size());
        udp.Flush();
        {
            Profiler inner("tcp");
            TcpSocket tcp("::1", tcpPort, 0, 2000);
            support::Fd accepted = support::AcceptWithin(tcpListener.Get());
            tcp.Write(message.data(), message.size());
            tcp.Flush();
            EXPECT_EQ(support::ReadExactly(accepted.Get(), message.size()), message);
        }
    }
    EXPECT_EQ(support::ReceiveDatagram(udpPeer.Get()), datagram);

    const Profiler::Profile outer = RecordOf(std::this_thread::get_id(), "linkage");
    ASSERT_EQ(outer.count, 1) << "the scope opened here has no record";
    ExpectExtra(outer, "UDP TX", 1, 7.0);
    ExpectExtra(outer, "TCP TX", 1, 1000.0);
    const Profiler::Profile inner = RecordOf(std::this_thread::get_id(), "linkage/tcp");
    ASSERT_EQ(inner.count, 1);
    ExpectExtra(inner, "TCP TX", 1, 1000.0);
    EXPECT_EQ(inner.extraProfiles.count("UDP TX"), 0U);
    EXPECT_TRUE(KnowsExtra("UDP TX"));
    EXPECT_TRUE(KnowsExtra("TCP TX"));
}

TEST_F(SharedProfilerTables, ScopeOpenedInsideNetIsSeenByCodeCompiledHere)
{
    // The receive loop (OrvunNet's copy of the inline code) names its thread
    // and opens "UDP Listener"; the callback (this executable's copy) opens a
    // scope inside it and records an extra of its own.
    std::atomic<bool> handled{false};
    std::atomic<std::thread::id> receiveThread{};
    const support::Bytes datagram = support::ToBytes("twelve bytes");
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket&, ReadOnlyStream&&) {
            Profiler scope("callback");
            Profiler::Extra("test extra", 5.0);
            receiveThread = std::this_thread::get_id();
            handled = true;
        });
        unsigned short senderPort = 0;
        support::Fd sender = support::RawUdp(false, senderPort);
        support::SendDatagram(sender.Get(), false, listener.GetLocalPort(), datagram);
        ASSERT_TRUE(support::WaitFor([&] { return handled.load(); }));
    } // joins the receive thread: its records are complete

    const std::thread::id thread = receiveThread.load();
    {
        SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        ASSERT_EQ(Profiler::threadNames.count(thread), 1U);
        EXPECT_EQ(Profiler::threadNames.at(thread), "ORVUN_UDP_Lisn");
    }
    const Profiler::Profile loop = RecordOf(thread, "UDP Listener");
    ASSERT_GE(loop.count, 1) << "the receive loop's scope is not in the tables seen here";
    ExpectExtra(loop, "UDP RX", 1, 12.0);
    ExpectExtra(loop, "test extra", 1, 5.0);
    const Profiler::Profile nested = RecordOf(thread, "UDP Listener/callback");
    ASSERT_EQ(nested.count, 1) << "the callback's scope did not nest under the loop's";
    ExpectExtra(nested, "test extra", 1, 5.0);
    EXPECT_TRUE(KnowsExtra("UDP RX"));
}

TEST_F(SharedProfilerTables, SwitchSetHereAlsoStopsRecordingInsideNet)
{
    unsigned short udpPort = 0;
    support::Fd udpPeer = support::RawUdp(true, udpPort);
    const support::Bytes datagram = support::ToBytes("off");
    {
        Profiler scope("switch"); // opened while enabled
        Profiler::SetEnabled(false);
        UdpSocket udp("::1", udpPort, 0);
        udp.Write(datagram.data(), datagram.size());
        udp.Flush();
    }
    EXPECT_EQ(support::ReceiveDatagram(udpPeer.Get()), datagram);
    const Profiler::Profile record = RecordOf(std::this_thread::get_id(), "switch");
    ASSERT_EQ(record.count, 1);
    EXPECT_TRUE(record.extraProfiles.empty());
    EXPECT_FALSE(KnowsExtra("UDP TX"));
}

TEST_F(SharedProfilerTables, AcceptedConnectionFlushesOnAWorkerThreadCountThere)
{
    // An accepted socket handed to a thread of this executable: its flush
    // (compiled into OrvunNet) records into that thread's scope.
    std::thread session;
    std::atomic<std::thread::id> sessionThread{};
    std::atomic<bool> sent{false};
    const support::Bytes answer = support::ToBytes("answer from the session");
    {
        TcpListener listener("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> connection) {
            session = std::thread([&, owned = std::move(connection)] {
                Profiler scope("session");
                sessionThread = std::this_thread::get_id();
                owned->Write(answer.data(), answer.size());
                owned->Flush();
                sent = true;
            });
        });
        support::Fd client = support::RawTcpConnect(false, listener.GetLocalPort());
        EXPECT_EQ(support::ReadExactly(client.Get(), answer.size()), answer);
        ASSERT_TRUE(support::WaitFor([&] { return sent.load(); }));
    }
    if (session.joinable()) {
        session.join();
    }
    const Profiler::Profile record = RecordOf(sessionThread.load(), "session");
    ASSERT_EQ(record.count, 1);
    ExpectExtra(record, "TCP TX", 1, static_cast<double>(answer.size()));
}

} // namespace
