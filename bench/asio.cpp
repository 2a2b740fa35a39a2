// The same scenarios with Boost.Asio's synchronous sockets, built when
// Boost's headers are installed. Its UDP peers receive on a thread of their
// own and hand replies over like the library, but block in the receive call
// instead of polling. The receiving end of tcp_bulk and tcp_small is the
// shared Sink, as for every variant.
#include "Support.h"

#include <boost/asio.hpp>

namespace bench {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using asio::ip::udp;

const asio::ip::address_v4 kLoopback = asio::ip::make_address_v4(kHost);

tcp::socket AcceptOne(tcp::acceptor& acceptor)
{
    tcp::socket socket = acceptor.accept();
    socket.set_option(tcp::no_delay(true));
    return socket;
}

void TcpRtt(benchmark::State& state)
{
    struct Peers {
        asio::io_context io;
        tcp::acceptor acceptor{io, tcp::endpoint(kLoopback, 0)};
        tcp::socket client{io};
        std::jthread server;
        Peers()
        {
            client.connect(acceptor.local_endpoint());
            server = std::jthread([this] {
                tcp::socket socket = AcceptOne(acceptor);
                unsigned char message[64];
                boost::system::error_code error;
                while (!error && asio::read(socket, asio::buffer(message), error) == sizeof(message)) {
                    asio::write(socket, asio::buffer(message), error);
                }
            });
        }
        ~Peers() { client.shutdown(tcp::socket::shutdown_both); }
    };
    Peers p;
    tcp::socket& client = p.client;
    RoundTrips(state, [&client](const unsigned char* request) {
        unsigned char reply[64];
        asio::write(client, asio::buffer(request, sizeof(reply)));
        asio::read(client, asio::buffer(reply));
        return reply[0];
    });
}

// A client of a Sink; `size`-byte units written one per iteration.
template <std::size_t size> void TcpStream(benchmark::State& state)
{
    struct Peers {
        Sink sink;
        asio::io_context io;
        tcp::socket client{io};
        std::vector<unsigned char> unit = std::vector<unsigned char>(size, 0x5a);
        Peers() { client.connect(tcp::endpoint(kLoopback, sink.port)); }
    };
    Peers p;
    Stream(
        state, p.sink, size, [&p] { asio::write(p.client, asio::buffer(p.unit)); },
        [&p] { PushTail(p.client.native_handle()); });
}

void TcpAccept(benchmark::State& state)
{
    struct Peers {
        asio::io_context io;
        tcp::acceptor acceptor{io, tcp::endpoint(kLoopback, 0)};
        Arrivals accepted;
        std::atomic<bool> stopping{false};
        std::jthread server{[this] {
            while (!stopping) {
                AcceptOne(acceptor);
                accepted.Add(1);
            }
        }};
        ~Peers()
        {
            stopping = true;
            tcp::socket last(io);
            last.connect(acceptor.local_endpoint()); // wakes the blocking accept
        }
    };
    Peers p;
    Connections(state, p.accepted, [&p, destination = p.acceptor.local_endpoint()] {
        tcp::socket client(p.io);
        client.connect(destination);
    });
}

// Blocking receive_from calls until an empty datagram arrives.
template <typename Handle> void ReceiveUntilEmpty(udp::socket& socket, Handle&& handle)
{
    unsigned char datagram[kDatagramCapacity];
    udp::endpoint from;
    for (std::size_t n; (n = socket.receive_from(asio::buffer(datagram), from)) > 0;) {
        handle(datagram, n, from);
    }
}

void UdpRtt(benchmark::State& state)
{
    struct Peers {
        asio::io_context io;
        udp::socket server{io, udp::endpoint(kLoopback, 0)};
        udp::socket client{io, udp::endpoint(kLoopback, 0)};
        Replies replies;
        std::jthread echo{[this] {
            ReceiveUntilEmpty(server, [this](const unsigned char* data, std::size_t size, const udp::endpoint& from) {
                server.send_to(asio::buffer(data, size), from);
            });
        }};
        std::jthread receiver{[this] {
            ReceiveUntilEmpty(client, [this](const unsigned char* data, auto...) { replies.Post(data[0]); });
        }};
        ~Peers()
        {
            SendEmpty(client.local_endpoint().port());
            SendEmpty(server.local_endpoint().port());
        }
    };
    Peers p;
    const udp::endpoint destination = p.server.local_endpoint();
    RoundTrips(state, [&](const unsigned char* request) {
        p.client.send_to(asio::buffer(request, 64), destination);
        return p.replies.Wait();
    });
}

void UdpRate(benchmark::State& state, std::size_t size)
{
    struct Peers {
        asio::io_context io;
        udp::socket server{io, udp::endpoint(kLoopback, 0)};
        udp::socket client{io, udp::v4()};
        Arrivals arrivals;
        std::jthread receiver{[this] { ReceiveUntilEmpty(server, [this](auto...) { arrivals.Add(1); }); }};
        ~Peers() { SendEmpty(server.local_endpoint().port()); }
    };
    Peers p;
    const udp::endpoint destination = p.server.local_endpoint();
    const std::vector<unsigned char> payload(size, 0x33);
    Blast(state, p.arrivals, [&] { p.client.send_to(asio::buffer(payload), destination); });
}

const bool registered = [] {
    Register("tcp_rtt/asio", TcpRtt);
    Register("tcp_bulk/asio", TcpStream<std::size_t{64} << 10>);
    Register("tcp_small/asio", TcpStream<16>);
    Register("tcp_accept/asio", TcpAccept);
    Register("udp_rtt/asio", UdpRtt);
    Register("udp_rate_64/asio", UdpRate, std::size_t{64});
    Register("udp_rate_1400/asio", UdpRate, std::size_t{1400});
    return true;
}();

} // namespace
} // namespace bench
