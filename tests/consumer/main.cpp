// Uses an installed OrvunNet with the profiler on: one TCP echo on loopback,
// then the byte count read back. The flush runs inside the installed
// OrvunNet and the scope is opened here, so both must reach the one set of
// tables in OrvunCpu. Exits 0 when all went well.
#include "cpu/Profiler.h"
#include "net/Socket.h"

#include <iostream>
#include <memory>
#include <string>

int main()
{
    using orvun::cpu::Profiler;
    Profiler::SetEnabled(true);
    std::string answer(4, '\0');
    try {
        orvun::net::TcpListener listener("::1", 0, [](std::unique_ptr<orvun::net::TcpSocket> connection) {
            unsigned char bytes[4] = {};
            connection->Read(bytes, sizeof(bytes));
            connection->Write(bytes, sizeof(bytes));
            connection->Flush();
        });
        Profiler scope("consumer");
        orvun::net::TcpSocket client("::1", listener.GetLocalPort(), 0, 2000);
        client.Write(reinterpret_cast<const unsigned char*>("ping"), 4);
        client.Flush();
        client.Read(reinterpret_cast<unsigned char*>(answer.data()), answer.size());
    } catch (const orvun::net::SocketError& error) {
        std::cerr << "consumer: " << error.what() << '\n';
        return 1;
    }
    Profiler::Report(std::cout);
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    const auto& records = Profiler::profiles[std::this_thread::get_id()];
    const bool counted = records.contains("consumer") && records.at("consumer").extraProfiles.contains("TCP TX");
    if (answer != "ping" || !counted) {
        std::cerr << "consumer: FAILED: echo '" << answer << "', TCP TX " << (counted ? "" : "not ") << "counted\n";
        return 1;
    }
    std::cout << "consumer: ok\n";
    return 0;
}
