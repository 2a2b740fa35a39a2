// UDP scenarios, the library against plain POSIX code (Boost.Asio's in
// asio.cpp):
//   udp_rtt        64-byte datagram answered through a reply socket
//   udp_rate_64    datagrams blasted into a counting callback, 64 bytes
//   udp_rate_1400  the same with 1,400 bytes
// The library receives on a thread that polls for up to 100 ms before each
// datagram and hands it over; "raw_poll_thread" is plain code built the same
// way (the fair baseline), "raw_blocking" a bare blocking recvfrom loop.
#include "Support.h"

#include "net/Socket.h"

namespace bench {
namespace {

using orvun::filesystem::ReadOnlyStream;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

// A bound socket answering every datagram from a plain receive loop: the
// library's loop shape (poll first) or a bare blocking one.
struct RawEcho {
    unsigned short port = 0;
    Fd server{Bound(SOCK_DGRAM, port)};
    std::atomic<bool> running{true};
    std::jthread loop;
    explicit RawEcho(bool polling)
        : loop([this, polling] {
              auto echo = [this](const unsigned char* data, std::size_t size, const sockaddr_in& from,
                                 socklen_t length) {
                  ::sendto(server.Get(), data, size, 0, reinterpret_cast<const sockaddr*>(&from), length);
              };
              ReceiveLoop(server.Get(), polling ? &running : nullptr, echo);
          })
    {
    }
    ~RawEcho()
    {
        running = false;
        SendEmpty(port); // ends a blocking loop
    }
};

void UdpRttRawPollThread(benchmark::State& state)
{
    struct Peers {
        RawEcho echo{true};
        unsigned short port = 0;
        Fd client{Bound(SOCK_DGRAM, port)};
        std::atomic<bool> running{true};
        Replies replies;
        std::jthread receiver{[this] {
            ReceiveLoop(client.Get(), &running, [this](const unsigned char* data, auto...) { replies.Post(data[0]); });
        }};
        ~Peers() { running = false; }
    };
    Peers p;
    RoundTrips(state, [&p](const unsigned char* request) {
        SendDatagram(p.client.Get(), false, p.echo.port, request, 64);
        return p.replies.Wait();
    });
}

void UdpRttRawBlocking(benchmark::State& state)
{
    struct Peers {
        RawEcho echo{false};
        unsigned short port = 0;
        Fd client{Bound(SOCK_DGRAM, port)};
    };
    Peers p;
    RoundTrips(state, [&p](const unsigned char* request) {
        unsigned char reply[kDatagramCapacity];
        SendDatagram(p.client.Get(), false, p.echo.port, request, 64);
        if (::recv(p.client.Get(), reply, sizeof(reply), 0) < 1) {
            Fail("recv");
        }
        return reply[0];
    });
}

void UdpRttLibrary(benchmark::State& state, bool profiling)
{
    struct Peers {
        UdpListener server{kHost, 0, [](const UdpSocket& socket, ReadOnlyStream&& datagram) {
                               UdpSocket reply(socket);
                               reply.Write(datagram.GetBufferData(), datagram.GetBufferSize());
                               reply.Flush();
                           }};
        Replies replies;
        UdpSocket client{kHost, server.GetLocalPort(), 64};
        Peers()
        {
            client.Receive(
                [this](const UdpSocket&, ReadOnlyStream&& datagram) { replies.Post(datagram.GetBufferData()[0]); });
        }
    };
    Peers p;
    Profiling session(profiling);
    RoundTrips(state, [&p](const unsigned char* request) {
        p.client.Write(request, 64);
        p.client.Flush();
        return p.replies.Wait();
    });
}

template <bool polling> struct RawCounter {
    unsigned short port = 0;
    Fd server{Bound(SOCK_DGRAM, port)};
    Fd client{Checked(RawSocket(false, SOCK_DGRAM), "socket")};
    std::atomic<bool> running{true};
    Arrivals arrivals;
    std::jthread receiver{[this] {
        auto count = [this](auto...) { arrivals.Add(1); };
        ReceiveLoop(server.Get(), polling ? &running : nullptr, count);
    }};
    ~RawCounter()
    {
        running = false;
        SendEmpty(port);
    }
};

template <bool polling> void UdpRateRaw(benchmark::State& state, std::size_t size)
{
    RawCounter<polling> p;
    const std::vector<unsigned char> payload(size, 0x33);
    Blast(state, p.arrivals, [&] { SendDatagram(p.client.Get(), false, p.port, payload.data(), payload.size()); });
}

void UdpRateLibrary(benchmark::State& state, std::size_t size, bool profiling)
{
    struct Peers {
        Arrivals arrivals;
        UdpListener server{kHost, 0, [this](const UdpSocket&, ReadOnlyStream&&) { arrivals.Add(1); }};
        UdpSocket client{kHost, server.GetLocalPort(), kDatagramCapacity};
    };
    Peers p;
    const std::vector<unsigned char> payload(size, 0x33);
    Profiling session(profiling);
    Blast(state, p.arrivals, [&] {
        p.client.Write(payload.data(), payload.size());
        p.client.Flush();
    });
}

const bool registered = [] {
    Register("udp_rtt/raw_poll_thread", UdpRttRawPollThread);
    Register("udp_rtt/raw_blocking", UdpRttRawBlocking);
    Register("udp_rtt/library", UdpRttLibrary, false);
    Register("udp_rtt/library_profiling", UdpRttLibrary, true);
    for (const std::size_t size : {std::size_t{64}, std::size_t{1400}}) {
        const std::string scenario = "udp_rate_" + std::to_string(size);
        Register(scenario + "/raw_poll_thread", UdpRateRaw<true>, size);
        Register(scenario + "/raw_blocking", UdpRateRaw<false>, size);
        Register(scenario + "/library", UdpRateLibrary, size, false);
        Register(scenario + "/library_profiling", UdpRateLibrary, size, true);
    }
    return true;
}();

} // namespace
} // namespace bench
