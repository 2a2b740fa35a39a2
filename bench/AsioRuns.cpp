// The same scenarios with Boost.Asio's synchronous sockets, as a peer.
#include "Scenarios.h"

#include <boost/asio.hpp>

#include <algorithm>
#include <memory>
#include <vector>

namespace bench {

namespace asio = boost::asio;
using asio::ip::tcp;
using asio::ip::udp;

namespace {

const asio::ip::address_v4 kLoopback = asio::ip::make_address_v4("127.0.0.1");

tcp::socket AcceptOne(asio::io_context& io, tcp::acceptor& acceptor)
{
    tcp::socket socket(io);
    acceptor.accept(socket);
    socket.set_option(tcp::no_delay(true));
    return socket;
}

// Blocking receive_from calls; `handle(data, size, from)` gets each datagram.
// Ends on the empty datagram of raw::SendEmptyDatagram.
template <typename Handle> void ReceiveUntilEmpty(udp::socket& socket, Handle&& handle)
{
    unsigned char datagram[1400];
    for (;;) {
        udp::endpoint from;
        const std::size_t n = socket.receive_from(asio::buffer(datagram), from);
        if (n == 0) {
            return;
        }
        handle(datagram, n, from);
    }
}

// The receivers' read on an accepted connection: false once the client has
// closed.
auto ReadFrom(tcp::socket& socket)
{
    return [&socket](unsigned char* data, std::size_t size) {
        boost::system::error_code error;
        asio::read(socket, asio::buffer(data, size), error);
        return !error;
    };
}

class AsioTcpRttPeer : public RttPeer {
public:
    explicit AsioTcpRttPeer(const Counts& counts) : _acceptor(_io, tcp::endpoint(kLoopback, 0)), _client(_io)
    {
        _server = std::make_unique<Background>([this] {
            tcp::socket socket = AcceptOne(_io, _acceptor);
            unsigned char message[64];
            boost::system::error_code error;
            for (;;) {
                asio::read(socket, asio::buffer(message), error);
                if (error) {
                    return;
                }
                asio::write(socket, asio::buffer(message), error);
                if (error) {
                    return;
                }
            }
        });
        _client.connect(tcp::endpoint(kLoopback, _acceptor.local_endpoint().port()));
        WarmUp(counts.rttWarmup);
    }
    ~AsioTcpRttPeer() override
    {
        _client.close();
        _server.reset();
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        unsigned char reply[RoundTrips::kSize];
        _rounds.Run(rounds, samples, [&](const unsigned char* request, std::size_t size, unsigned char tag) {
            asio::write(_client, asio::buffer(request, size));
            asio::read(_client, asio::buffer(reply));
            return reply[0] == tag;
        });
    }

private:
    RoundTrips _rounds{"tcp_rtt"};
    asio::io_context _io;
    tcp::acceptor _acceptor;
    tcp::socket _client;
    std::unique_ptr<Background> _server;
};

class AsioUdpRttPeer : public RttPeer {
public:
    explicit AsioUdpRttPeer(const Counts& counts)
        : _server(_io, udp::endpoint(kLoopback, 0)), _client(_io),
          _destination(kLoopback, _server.local_endpoint().port())
    {
        _serverLoop = std::make_unique<Background>([this] {
            ReceiveUntilEmpty(_server, [this](const unsigned char* data, std::size_t size, const udp::endpoint& from) {
                _server.send_to(asio::buffer(data, size), from);
            });
        });
        _client.open(udp::v4());
        // Bind the client by a first exchange before its receive thread starts.
        unsigned char reply[1400];
        _client.send_to(asio::buffer(_rounds.Request(), RoundTrips::kSize), _destination);
        _client.receive(asio::buffer(reply));
        _clientLoop = std::make_unique<Background>([this] {
            ReceiveUntilEmpty(_client, [this](const unsigned char* data, std::size_t, const udp::endpoint&) {
                _replies.Post(data[0]);
            });
        });
        WarmUp(counts.rttWarmup);
    }
    ~AsioUdpRttPeer() override
    {
        raw::SendEmptyDatagram(_client.local_endpoint().port());
        raw::SendEmptyDatagram(_destination.port());
        _clientLoop.reset();
        _serverLoop.reset();
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        _rounds.Run(rounds, samples, _replies, [this](const unsigned char* request, std::size_t size) {
            _client.send_to(asio::buffer(request, size), _destination);
        });
    }

private:
    RoundTrips _rounds{"udp_rtt"};
    ReplyHandoff _replies;
    asio::io_context _io;
    udp::socket _server;
    udp::socket _client;
    udp::endpoint _destination;
    std::unique_ptr<Background> _serverLoop;
    std::unique_ptr<Background> _clientLoop;
};

// A listener, one accepted connection read by a receiver thread, and a
// connected client, as in the raw peers.
class AsioTcpPeer : public BlockPeer {
public:
    AsioTcpPeer() : _acceptor(_io, tcp::endpoint(kLoopback, 0)), _client(_io), _accepted(_io)
    {
        _client.connect(tcp::endpoint(kLoopback, _acceptor.local_endpoint().port()));
        _accepted = AcceptOne(_io, _acceptor);
    }
    ~AsioTcpPeer() override
    {
        _client.close();
        _receiver.reset();
    }

protected:
    asio::io_context _io;
    tcp::acceptor _acceptor;
    tcp::socket _client;
    tcp::socket _accepted;
    Progress _progress;
    std::unique_ptr<Background> _receiver;
};

class AsioTcpBulkPeer : public AsioTcpPeer {
public:
    explicit AsioTcpBulkPeer(const Counts& counts) : _source(counts.bulkChunk, 0x5a)
    {
        _receiver = std::make_unique<Background>(
            [this, size = _source.size()] { ReceiveChunks(_progress, size, ReadFrom(_accepted)); });
    }

    BlockResult Block(int units) override
    {
        return ChunkBlock(
            _progress, _sent, _source.data(), units, [this] { asio::write(_client, asio::buffer(_source)); },
            [this] { raw::PushTail(_client.native_handle()); });
    }

private:
    std::uint64_t _sent = 0;
    std::vector<unsigned char> _source;
};

class AsioTcpSmallPeer : public AsioTcpPeer {
public:
    explicit AsioTcpSmallPeer(int block)
    {
        _receiver =
            std::make_unique<Background>([this, block] { ReceiveMessages(_progress, block, ReadFrom(_accepted)); });
    }

    BlockResult Block(int units) override
    {
        return MessageBlock(
            _progress, _sent, units,
            [this](const unsigned char* message, std::size_t size) {
                asio::write(_client, asio::buffer(message, size));
            },
            [this] { raw::PushTail(_client.native_handle()); });
    }

private:
    std::uint64_t _sent = 0;
};

class AsioUdpRatePeer : public BlockPeer {
public:
    explicit AsioUdpRatePeer(std::size_t size)
        : _payload(size, 0x33), _server(_io, udp::endpoint(kLoopback, 0)), _client(_io),
          _destination(kLoopback, _server.local_endpoint().port())
    {
        _client.open(udp::v4());
        _receiver = std::make_unique<Background>([this] {
            ReceiveUntilEmpty(_server,
                              [this](const unsigned char*, std::size_t, const udp::endpoint&) { _arrivals.Arrived(); });
        });
    }
    ~AsioUdpRatePeer() override
    {
        raw::SendEmptyDatagram(_destination.port());
        _receiver.reset();
    }

    BlockResult Block(int units) override
    {
        return UdpBlock(_arrivals, units, [&] {
            for (int i = 0; i < units; ++i) {
                _client.send_to(asio::buffer(_payload), _destination);
            }
        });
    }

private:
    std::vector<unsigned char> _payload;
    ArrivalCounter _arrivals;
    asio::io_context _io;
    udp::socket _server;
    udp::socket _client;
    udp::endpoint _destination;
    std::unique_ptr<Background> _receiver;
};

class AsioTcpAcceptPeer : public BlockPeer {
public:
    AsioTcpAcceptPeer()
        : _acceptor(_io, tcp::endpoint(kLoopback, 0)), _destination(kLoopback, _acceptor.local_endpoint().port())
    {
        _server = std::make_unique<Background>([this] {
            CountConnections(_progress, _stopping, [this] {
                AcceptOne(_io, _acceptor);
                return true;
            });
        });
    }
    ~AsioTcpAcceptPeer() override
    {
        // One more connection wakes the blocking accept.
        _stopping = true;
        tcp::socket last(_io);
        last.connect(_destination);
        _server.reset();
    }

    BlockResult Block(int units) override
    {
        _sent += units;
        return TimedBlock(_progress, "tcp_accept", _sent, units, [&] {
            for (int i = 0; i < units; ++i) {
                tcp::socket client(_io);
                client.connect(_destination);
            }
        });
    }

private:
    asio::io_context _io;
    tcp::acceptor _acceptor;
    tcp::endpoint _destination;
    std::int64_t _sent = 0;
    std::atomic<bool> _stopping{false};
    Progress _progress;
    std::unique_ptr<Background> _server;
};

} // namespace

std::unique_ptr<RttPeer> AsioTcpRtt(const Counts& counts) { return std::make_unique<AsioTcpRttPeer>(counts); }

std::unique_ptr<RttPeer> AsioUdpRtt(const Counts& counts) { return std::make_unique<AsioUdpRttPeer>(counts); }

std::unique_ptr<BlockPeer> AsioTcpBulk(const Counts& counts) { return std::make_unique<AsioTcpBulkPeer>(counts); }
std::unique_ptr<BlockPeer> AsioTcpSmall(int block) { return std::make_unique<AsioTcpSmallPeer>(block); }
std::unique_ptr<BlockPeer> AsioUdpRate(std::size_t size) { return std::make_unique<AsioUdpRatePeer>(size); }
std::unique_ptr<BlockPeer> AsioTcpAccept() { return std::make_unique<AsioTcpAcceptPeer>(); }

} // namespace bench
