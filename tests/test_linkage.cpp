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
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

class SharedProfilerTables : public ::testing::Test {
protected:
    void SetUp() override { ResetProfiler(true); }
    void TearDown() override { ResetProfiler(false); }
};

// A scope opened here collects the extra a flush inside OrvunNet records,
// and the receive loop's scope (OrvunNet's copy of the inline code) holds the
// scope and extra its callback (this executable's copy) opens.
TEST_F(SharedProfilerTables, BothCopiesReachTheSameRecords)
{
    std::atomic<bool> handled{false};
    std::atomic<std::thread::id> receiveThread{};
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket&, ReadOnlyStream&&) {
            Profiler scope("callback");
            Profiler::Extra("test extra", 5.0);
            receiveThread = std::this_thread::get_id();
            handled = true;
        });
        Profiler outer("linkage");
        UdpSocket client("127.0.0.1", listener.GetLocalPort(), 0);
        Put(client, ToBytes("twelve bytes"));
        client.Flush();
        ASSERT_TRUE(WaitFor([&] { return handled.load(); }));
    } // joins the receive thread: its records are complete

    const std::thread::id thread = receiveThread.load();
    const ProfilerTables tables = Profiles();
    EXPECT_EQ(Summary(tables.Record("linkage", "UDP TX")), "1 12 12 12") << "the scope opened here missed the flush";
    EXPECT_EQ(tables.names.at(thread), "ORVUN_UDP_Lisn");
    EXPECT_EQ(Summary(tables.Record("UDP Listener", "UDP RX", thread)), "1 12 12 12");
    EXPECT_EQ(Summary(tables.Record("UDP Listener", "test extra", thread)), "1 5 5 5");
    EXPECT_EQ(Summary(tables.Record("UDP Listener/callback", "test extra", thread)), "1 5 5 5")
        << "the callback's scope did not nest under the loop's";
    EXPECT_EQ(tables.extras, (std::set<std::string>{"UDP TX", "UDP RX", "test extra"}));
}

} // namespace
