// TCP scenarios, the library against plain POSIX code making the same system
// calls with the same socket options (Boost.Asio's in asio.cpp):
//   tcp_rtt     64-byte request and echo, one round trip per iteration
//   tcp_bulk    one 64 KiB Write + Flush (raw: send) per iteration
//   tcp_small   one 16-byte Write + Flush per iteration, direct or worker mode
//   tcp_accept  one connect + accept + close per iteration
#include "Support.h"

#include "net/Socket.h"

#include <memory>
#include <netdb.h>

namespace bench {
namespace {

using orvun::cpu::Profiler;
using orvun::net::SocketError;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;

constexpr std::size_t kChunk = std::size_t{64} << 10;
constexpr std::size_t kMessage = 16;

// A library client whose descriptor the bench reaches, to push out a run's
// tail (PushTail); everything else is the library's.
class Client : public TcpSocket {
public:
    using TcpSocket::TcpSocket;
    int Descriptor() const { return _socket; }
};

void TcpRttRaw(benchmark::State& state)
{
    struct Peers {
        unsigned short port = 0;
        Fd listener{Bound(SOCK_STREAM, port)};
        Fd client{Connect(port)};
        std::jthread server{[this] {
            const Fd connection = Accept(listener.Get());
            unsigned char message[64];
            while (ReceiveAll(connection.Get(), message, sizeof(message)) &&
                   SendAll(connection.Get(), message, sizeof(message))) {
            }
        }};
        ~Peers() { ::shutdown(client.Get(), SHUT_RDWR); } // ends the server's loop
    };
    Peers p;
    RoundTrips(state, [client = p.client.Get()](const unsigned char* request) {
        unsigned char reply[64];
        Send(client, request, sizeof(reply));
        if (!ReceiveAll(client, reply, sizeof(reply))) {
            Fail("recv");
        }
        return reply[0];
    });
}

void TcpRttLibrary(benchmark::State& state, bool profiling)
{
    struct Peers {
        TcpListener listener{kHost, 0, [](std::unique_ptr<TcpSocket> connection) {
                                 unsigned char message[64];
                                 try {
                                     for (;;) {
                                         connection->Read(message, sizeof(message));
                                         connection->Write(message, sizeof(message));
                                         connection->Flush();
                                     }
                                 } catch (const SocketError&) {
                                     // The client has closed.
                                 }
                             }};
        TcpSocket client{kHost, listener.GetLocalPort(), 64, 0};
    };
    Peers p;
    TcpSocket& client = p.client;
    Profiling session(profiling);
    RoundTrips(state, [&client](const unsigned char* request) {
        unsigned char reply[64];
        client.Write(request, sizeof(reply));
        client.Flush();
        client.Read(reply, sizeof(reply));
        return reply[0];
    });
}

// `copy`: each chunk is first copied into a buffer of its own, as Write does.
void TcpBulkRaw(benchmark::State& state, bool copy)
{
    struct Peers {
        Sink sink;
        Fd client{Connect(sink.port)};
        std::vector<unsigned char> chunk = std::vector<unsigned char>(kChunk, 0x5a);
        std::vector<unsigned char> staging;
    };
    Peers p;
    Stream(
        state, p.sink, kChunk,
        [&p, copy] {
            if (copy) {
                p.staging.assign(p.chunk.begin(), p.chunk.end());
                Send(p.client.Get(), p.staging.data(), p.staging.size());
                p.staging.clear();
            } else {
                Send(p.client.Get(), p.chunk.data(), p.chunk.size());
            }
        },
        [&p] { PushTail(p.client.Get()); });
}

// A library client of a Sink; `worker`: flushes go through the flush worker.
template <std::size_t size, bool worker> struct LibraryStream {
    Sink sink;
    Client client{kHost, sink.port, size, 0};
    std::vector<unsigned char> unit = std::vector<unsigned char>(size, 0x5a);
    LibraryStream()
    {
        if (worker) {
            client.SetNonBlockingFlush();
        }
    }
    void Run(benchmark::State& state, bool profiling)
    {
        Profiling session(profiling);
        Stream(
            state, sink, size,
            [this] {
                client.Write(unit.data(), unit.size());
                client.Flush();
            },
            [this] { PushTail(client.Descriptor()); });
    }
};

void TcpBulkLibrary(benchmark::State& state, bool profiling) { LibraryStream<kChunk, false>().Run(state, profiling); }

void TcpSmallLibrary(benchmark::State& state, bool worker, bool profiling)
{
    if (worker) {
        LibraryStream<kMessage, true>().Run(state, profiling);
    } else {
        LibraryStream<kMessage, false>().Run(state, profiling);
    }
}

// `extra`: profiling on and, before each send, the extra a library flush
// records: what that extra alone costs.
void TcpSmallRaw(benchmark::State& state, bool extra)
{
    struct Peers {
        Sink sink;
        Fd client{Connect(sink.port)};
    };
    Peers p;
    const unsigned char message[kMessage] = {1};
    Profiling session(extra);
    Stream(
        state, p.sink, kMessage,
        [&] {
            if (extra) {
                Profiler::Extra(kTcpTx, static_cast<double>(kMessage));
            }
            Send(p.client.Get(), message, sizeof(message));
        },
        [&p] { PushTail(p.client.Get()); });
}

// `libraryCalls`: the calls the library makes on top of the bare ones, a
// poll before every accept and a name lookup before every connect.
void TcpAcceptRaw(benchmark::State& state, bool libraryCalls)
{
    struct Peers {
        unsigned short port = 0;
        Fd listener{Bound(SOCK_STREAM, port)};
        Arrivals accepted;
        std::atomic<bool> polling{false};
        std::atomic<bool> stopping{false};
        std::jthread server{[this] {
            while (!stopping) {
                if (polling && !Readable(listener.Get(), kPoll)) {
                    continue;
                }
                Accept(listener.Get()); // and closed at once
                accepted.Add(1);
            }
        }};
        ~Peers()
        {
            stopping = true;
            Connect(port); // wakes a blocking accept
        }
    };
    Peers p;
    p.polling = libraryCalls;
    Connections(state, p.accepted, [&] {
        if (libraryCalls) {
            hostent entry{};
            hostent* result = nullptr;
            char scratch[1024];
            int error = 0;
            ::gethostbyname2_r(kHost, AF_INET, &entry, scratch, sizeof(scratch), &result, &error);
        }
        Connect(p.port); // and closed at once
    });
}

void TcpAcceptLibrary(benchmark::State& state, bool profiling)
{
    struct Peers {
        Arrivals accepted;
        TcpListener listener{kHost, 0, [this](std::unique_ptr<TcpSocket>) { accepted.Add(1); }};
    };
    Peers p;
    Profiling session(profiling);
    Connections(state, p.accepted, [port = p.listener.GetLocalPort()] { TcpSocket client(kHost, port, 0, 0); });
}

const bool registered = [] {
    Register("tcp_rtt/raw", TcpRttRaw);
    Register("tcp_rtt/library", TcpRttLibrary, false);
    Register("tcp_rtt/library_profiling", TcpRttLibrary, true);
    Register("tcp_bulk/raw", TcpBulkRaw, false);
    Register("tcp_bulk/raw_copy", TcpBulkRaw, true);
    Register("tcp_bulk/library", TcpBulkLibrary, false);
    Register("tcp_bulk/library_profiling", TcpBulkLibrary, true);
    Register("tcp_small/raw", TcpSmallRaw, false);
    Register("tcp_small/raw_extra", TcpSmallRaw, true);
    Register("tcp_small/library", TcpSmallLibrary, false, false);
    Register("tcp_small/library_profiling", TcpSmallLibrary, false, true);
    Register("tcp_small/library_worker", TcpSmallLibrary, true, false);
    Register("tcp_small/library_worker_profiling", TcpSmallLibrary, true, true);
    Register("tcp_accept/raw", TcpAcceptRaw, false);
    Register("tcp_accept/raw_poll_lookup", TcpAcceptRaw, true);
    Register("tcp_accept/library", TcpAcceptLibrary, false);
    Register("tcp_accept/library_profiling", TcpAcceptLibrary, true);
    return true;
}();

} // namespace
} // namespace bench
