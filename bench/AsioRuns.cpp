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

} // namespace

namespace {

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
        std::vector<double> ignored;
        Run(counts.rttWarmup, ignored);
    }
    ~AsioTcpRttPeer() override
    {
        _client.close();
        _server.reset();
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        unsigned char reply[64];
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const auto start = Clock::now();
            asio::write(_client, asio::buffer(_request));
            asio::read(_client, asio::buffer(reply));
            const auto end = Clock::now();
            if (reply[0] != _tag) {
                throw RunFailed("tcp_rtt: wrong reply");
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

private:
    unsigned char _tag = 0;
    unsigned char _request[64] = {};
    asio::io_context _io;
    tcp::acceptor _acceptor;
    tcp::socket _client;
    std::unique_ptr<Background> _server;
};

} // namespace

std::unique_ptr<RttPeer> AsioTcpRtt(const Counts& counts) { return std::make_unique<AsioTcpRttPeer>(counts); }

namespace {

class AsioUdpRttPeer : public RttPeer {
public:
    explicit AsioUdpRttPeer(const Counts& counts)
        : _server(_io, udp::endpoint(kLoopback, 0)), _client(_io),
          _destination(kLoopback, _server.local_endpoint().port())
    {
        _serverLoop = std::make_unique<Background>([this] {
            unsigned char datagram[1400];
            for (;;) {
                udp::endpoint from;
                const std::size_t n = _server.receive_from(asio::buffer(datagram), from);
                if (n == 0) {
                    return;
                }
                _server.send_to(asio::buffer(datagram, n), from);
            }
        });
        _client.open(udp::v4());
        // Bind the client by a first exchange before its receive thread starts.
        unsigned char reply[1400];
        _client.send_to(asio::buffer(_request), _destination);
        _client.receive(asio::buffer(reply));
        _clientLoop = std::make_unique<Background>([this] {
            unsigned char datagram[1400];
            for (;;) {
                udp::endpoint from;
                if (_client.receive_from(asio::buffer(datagram), from) == 0) {
                    return;
                }
                _first.store(datagram[0], std::memory_order_relaxed);
                _arrived.Post();
            }
        });
        std::vector<double> ignored;
        Run(counts.rttWarmup, ignored);
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
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const std::uint32_t seen = _arrived.Seen();
            const auto start = Clock::now();
            _client.send_to(asio::buffer(_request), _destination);
            _arrived.WaitBeyond(seen);
            const auto end = Clock::now();
            if (_first.load(std::memory_order_relaxed) != _tag) {
                throw RunFailed("udp_rtt: wrong reply");
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

private:
    unsigned char _tag = 0;
    unsigned char _request[64] = {};
    Handoff _arrived;
    std::atomic<unsigned char> _first{0};
    asio::io_context _io;
    udp::socket _server;
    udp::socket _client;
    udp::endpoint _destination;
    std::unique_ptr<Background> _serverLoop;
    std::unique_ptr<Background> _clientLoop;
};

} // namespace

std::unique_ptr<RttPeer> AsioUdpRtt(const Counts& counts) { return std::make_unique<AsioUdpRttPeer>(counts); }

namespace {

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
        _receiver = std::make_unique<Background>([this, size = _source.size()] {
            std::vector<unsigned char> chunk(size);
            boost::system::error_code error;
            for (std::uint64_t i = 0;; ++i) {
                asio::read(_accepted, asio::buffer(chunk), error);
                if (error) {
                    return;
                }
                if (!CheckChunk(chunk.data(), i)) {
                    _progress.Broken();
                }
                _progress.Add(1);
            }
        });
    }

    BlockResult Block(int units) override
    {
        _progress.Expect(static_cast<std::int64_t>(_sent) + units);
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            StampChunk(_source.data(), _sent++);
            asio::write(_client, asio::buffer(_source));
        }
        const std::int64_t end = _progress.Wait("tcp_bulk", [this] { raw::PushTail(_client.native_handle()); });
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
    }

private:
    std::uint64_t _sent = 0;
    std::vector<unsigned char> _source;
};

class AsioTcpSmallPeer : public AsioTcpPeer {
public:
    explicit AsioTcpSmallPeer(int block)
    {
        _receiver = std::make_unique<Background>([this, block] {
            std::vector<unsigned char> chunk(std::size_t{4096} * 16);
            std::uint64_t next = 0;
            boost::system::error_code error;
            for (;;) {
                for (auto left = static_cast<std::size_t>(block); left > 0;) {
                    const std::size_t take = std::min<std::size_t>(4096, left);
                    asio::read(_accepted, asio::buffer(chunk.data(), take * 16), error);
                    if (error) {
                        return;
                    }
                    if (!CheckMessages(chunk.data(), take, next)) {
                        _progress.Broken();
                    }
                    next += take;
                    left -= take;
                }
                _progress.Add(block);
            }
        });
    }

    BlockResult Block(int units) override
    {
        _progress.Expect(static_cast<std::int64_t>(_sent) + units);
        unsigned char message[16];
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            FillMessage(message, _sent++);
            asio::write(_client, asio::buffer(message));
        }
        const std::int64_t end = _progress.Wait("tcp_small", [this] { raw::PushTail(_client.native_handle()); });
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
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
            unsigned char datagram[1400];
            for (;;) {
                udp::endpoint from;
                if (_server.receive_from(asio::buffer(datagram), from) == 0) {
                    return;
                }
                _arrivals.Arrived();
            }
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
            for (;;) {
                AcceptOne(_io, _acceptor);
                if (_stopping.load()) {
                    return;
                }
                _progress.Add(1);
            }
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
        _progress.Expect(_sent);
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            tcp::socket client(_io);
            client.connect(_destination);
        }
        const std::int64_t end = _progress.Wait("tcp_accept");
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
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

std::unique_ptr<BlockPeer> AsioTcpBulk(const Counts& counts) { return std::make_unique<AsioTcpBulkPeer>(counts); }
std::unique_ptr<BlockPeer> AsioTcpSmall(int block) { return std::make_unique<AsioTcpSmallPeer>(block); }
std::unique_ptr<BlockPeer> AsioUdpRate(std::size_t size) { return std::make_unique<AsioUdpRatePeer>(size); }
std::unique_ptr<BlockPeer> AsioTcpAccept() { return std::make_unique<AsioTcpAcceptPeer>(); }

} // namespace bench
