// orvun_instructions OPERATION COUNT: runs one operation COUNT times for
// scripts/ci-instructions.sh, which runs it under callgrind with
// instrumentation off at start and divides the counted instructions by COUNT.
// Only the window between the two client requests in Count is counted, on
// every thread; the script reads the thread it names (1: main, 2: the first
// thread started). Outside valgrind the requests do nothing.
#include "cpu/Profiler.h"
#include "net/Socket.h"
#include "tests/support/RawPeer.h"

#include <valgrind/callgrind.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using orvun::cpu::Profiler;
using namespace orvun::net;
using namespace rawpeer;

namespace {

const char* const kHost = "127.0.0.1";

template <typename Operation> void Count(long count, Operation&& operation)
{
    CALLGRIND_START_INSTRUMENTATION;
    for (long i = 0; i < count; ++i) {
        operation();
    }
    CALLGRIND_STOP_INSTRUMENTATION;
}

class RawClient : public TcpSocket {
public:
    using TcpSocket::TcpSocket;
    int Descriptor() const { return _socket; }
};

// Scopes open around the measured operation, outermost first.
std::vector<std::unique_ptr<Profiler>> OpenScopes(int depth)
{
    Profiler::SetEnabled(true);
    std::vector<std::unique_ptr<Profiler>> open;
    for (int level = 1; level <= depth; ++level) {
        open.push_back(std::make_unique<Profiler>("outer " + std::to_string(level)));
    }
    return open;
}

// 16-byte flushes to a peer that reads nothing until the end. Worker mode:
// the worker is first left blocked in a send that the small buffers cannot
// take, so the measured flushes only queue, as they do while the worker is
// busy, and no scheduling decides what they cost.
int Flush(const std::string& mode, long count)
{
    unsigned short port = 0;
    const Fd listener = RawTcpListener(false, port, 1);
    const int small = 4096; // set before the client connects: the accepted socket inherits it
    ::setsockopt(listener.Get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    std::optional<RawClient> client(std::in_place, kHost, port, 16, 0);
    const Fd accepted = AcceptWithin(listener.Get());
    const int peer = accepted.Get();
    // A reader from the start, except in worker mode; either way the process
    // has a second thread, as every user of the library does, which makes the
    // C library take its multi-threaded paths.
    std::thread drain;
    auto startDrain = [&drain, peer] {
        drain = std::thread([peer] {
            std::vector<unsigned char> sink(std::size_t{1} << 16);
            while (::recv(peer, sink.data(), sink.size(), 0) > 0) {
            }
        });
    };
    if (mode != "worker") {
        startDrain();
    }
    const unsigned char message[16] = {1, 2, 3};
    if (mode == "raw") {
        Count(count, [&] { ::send(client->Descriptor(), message, sizeof(message), MSG_NOSIGNAL); });
    } else {
        if (mode == "worker") {
            ::setsockopt(client->Descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
            client->SetNonBlockingFlush();
            const std::vector<unsigned char> fill(std::size_t{1} << 20);
            client->Write(fill.data(), fill.size());
            client->Flush();
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        Count(count, [&] {
            client->Write(message, sizeof(message));
            client->Flush();
        });
    }
    if (!drain.joinable()) {
        startDrain();
    }
    client.reset();
    drain.join();
    return 0;
}

// One receive-loop iteration per datagram: each is sent only once the one
// before it has reached the callback and the loop is back in its poll.
int Receive(long count)
{
    std::atomic<long> arrived{0};
    UdpListener listener(kHost, 0, [&arrived](const UdpSocket&, orvun::filesystem::ReadOnlyStream&&) {
        arrived.fetch_add(1);
        arrived.notify_one();
    });
    const Fd fd = RawSocket(false, SOCK_DGRAM);
    const unsigned short port = listener.GetLocalPort();
    const unsigned char datagram[64] = {7};
    auto one = [&](long seen) {
        SendDatagram(fd.Get(), false, port, datagram, sizeof(datagram));
        arrived.wait(seen);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    one(0);
    long seen = 1;
    Count(count, [&] { one(seen++); });
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string operation = argc == 3 ? argv[1] : "";
    const long count = argc == 3 ? std::atol(argv[2]) : 0;
    const std::string extraName = "bench extra";
    if (count <= 0) {
        // fall through to the usage line
    } else if (operation == "send_raw" || operation == "flush_direct" || operation == "flush_worker") {
        return Flush(operation.substr(operation.find('_') + 1), count);
    } else if (operation == "extra_depth1" || operation == "extra_depth4") {
        const auto open = OpenScopes(operation.back() - '0');
        Profiler::Extra(extraName, 1.0); // registers the name
        Count(count, [&] { Profiler::Extra(extraName, 1.0); });
        return 0;
    } else if (operation == "scope") {
        const std::string name = "bench scope";
        OpenScopes(0);
        Profiler{name}; // registers the thread and the record
        Count(count, [&] { Profiler scope(name); });
        return 0;
    } else if (operation == "receive_loop") {
        return Receive(count);
    }
    std::fprintf(stderr, "usage: orvun_instructions send_raw|flush_direct|flush_worker|extra_depth1|extra_depth4|"
                         "scope|receive_loop COUNT\n");
    return 2;
}
