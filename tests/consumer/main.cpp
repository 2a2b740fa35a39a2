// Uses an installed OrvunNet: one TCP echo and one UDP echo on loopback, with
// the byte counts read back from the profiler. Exits 0 when all went well.
#include "cpu/Profiler.h"
#include "net/Socket.h"

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

namespace {

bool Fail(const std::string& what)
{
    std::cerr << "consumer: " << what << '\n';
    return false;
}

bool TcpEcho()
{
    orvun::net::TcpListener listener("127.0.0.1", 0, [](std::unique_ptr<orvun::net::TcpSocket> connection) {
        unsigned char bytes[4] = {};
        connection->Read(bytes, sizeof(bytes));
        connection->Write(bytes, sizeof(bytes));
        connection->Flush();
    });
    orvun::net::TcpSocket client("127.0.0.1", listener.GetLocalPort(), 0, 2000);
    const unsigned char ping[4] = {'p', 'i', 'n', 'g'};
    client.Write(ping, sizeof(ping));
    client.Flush();
    unsigned char answer[4] = {};
    client.Read(answer, sizeof(answer));
    return std::string(answer, answer + 4) == "ping" || Fail("TCP echo came back wrong");
}

bool UdpEcho()
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::string answer;
    orvun::net::UdpListener listener(
        "::1", 0, [](const orvun::net::UdpSocket& receiver, orvun::filesystem::ReadOnlyStream&& datagram) {
            orvun::net::UdpSocket reply(receiver);
            reply.Write(datagram.GetBufferData(), datagram.GetBufferSize());
            reply.Flush();
        });
    orvun::net::UdpSocket client("::1", listener.GetLocalPort(), 0);
    client.Receive([&](const orvun::net::UdpSocket&, orvun::filesystem::ReadOnlyStream&& datagram) {
        std::lock_guard<std::mutex> lock(mutex);
        answer.assign(datagram.GetBufferData(), datagram.GetBufferData() + datagram.GetBufferSize());
        arrived.notify_all();
    });
    const unsigned char ping[3] = {'u', 'd', 'p'};
    client.Write(ping, sizeof(ping));
    client.Flush();
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(5), [&] { return !answer.empty(); });
    return answer == "udp" || Fail("UDP echo came back wrong or not at all");
}

} // namespace

int main()
{
    using orvun::cpu::Profiler;
    Profiler::SetEnabled(true);
    bool ok = false;
    try {
        Profiler scope("consumer");
        ok = TcpEcho() && UdpEcho();
    } catch (const orvun::net::SocketError& error) {
        Fail(error.what());
        return 1;
    }
    Profiler::Report(std::cout);
    // The flushes ran inside the installed OrvunNet; the scope was opened
    // here: both reach the one set of tables in OrvunCpu.
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    if (ok && (Profiler::extras.count("TCP TX") == 0 || Profiler::extras.count("UDP TX") == 0)) {
        ok = Fail("the profiler recorded no TX bytes");
    }
    std::cout << (ok ? "consumer: ok\n" : "consumer: FAILED\n");
    return ok ? 0 : 1;
}
