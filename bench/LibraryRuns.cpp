// The library's side of every network scenario.
#include "Scenarios.h"

#include "cpu/Profiler.h"
#include "net/Socket.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace bench {

using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;
using orvun::net::SocketError;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

namespace {

const char* const kHost = "127.0.0.1";

} // namespace

namespace {

class LibTcpRttPeer : public RttPeer {
public:
    LibTcpRttPeer(const Counts& counts, bool profiling)
        : _profiling(profiling), _listener(kHost, 0, [](std::unique_ptr<TcpSocket> connection) {
              unsigned char message[64];
              try {
                  for (;;) {
                      connection->Read(message, sizeof(message));
                      connection->Write(message, sizeof(message));
                      connection->Flush();
                  }
              } catch (const SocketError&) {
                  // The client has closed: the run is over.
              }
          })
    {
        _client = std::make_unique<TcpSocket>(kHost, _listener.GetLocalPort(), 64, 0);
        std::vector<double> ignored;
        Run(counts.rttWarmup, ignored);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        ProfilingSession session(_profiling, "bench tcp_rtt");
        unsigned char reply[64];
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const auto start = Clock::now();
            _client->Write(_request, sizeof(_request));
            _client->Flush();
            _client->Read(reply, sizeof(reply));
            const auto end = Clock::now();
            if (reply[0] != _tag) {
                throw RunFailed("tcp_rtt: wrong reply");
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

private:
    bool _profiling;
    unsigned char _tag = 0;
    unsigned char _request[64] = {};
    TcpListener _listener;
    std::unique_ptr<TcpSocket> _client; // closed first: that ends the server's loop
};

class LibUdpRttPeer : public RttPeer {
public:
    LibUdpRttPeer(const Counts& counts, bool profiling)
        : _profiling(profiling), _server(kHost, 0,
                                         [](const UdpSocket& socket, ReadOnlyStream&& datagram) {
                                             UdpSocket reply(socket);
                                             reply.Write(datagram.GetBufferData(), datagram.GetBufferSize());
                                             reply.Flush();
                                         }),
          _client(kHost, _server.GetLocalPort(), 64)
    {
        _client.Receive([this](const UdpSocket&, ReadOnlyStream&& datagram) {
            _first.store(datagram.GetBufferData()[0], std::memory_order_relaxed);
            _arrived.Post();
        });
        std::vector<double> ignored;
        Run(counts.rttWarmup, ignored);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        ProfilingSession session(_profiling, "bench udp_rtt");
        for (int i = 0; i < rounds; ++i) {
            _request[0] = ++_tag;
            const std::uint32_t seen = _arrived.Seen();
            const auto start = Clock::now();
            _client.Write(_request, sizeof(_request));
            _client.Flush();
            _arrived.WaitBeyond(seen);
            const auto end = Clock::now();
            if (_first.load(std::memory_order_relaxed) != _tag) {
                throw RunFailed("udp_rtt: wrong reply");
            }
            samples.push_back(MicrosecondsBetween(start, end));
        }
    }

private:
    bool _profiling;
    unsigned char _tag = 0;
    unsigned char _request[64] = {};
    Handoff _arrived;
    std::atomic<unsigned char> _first{0};
    UdpListener _server;
    UdpSocket _client; // stopped first, then the server
};

} // namespace

std::unique_ptr<RttPeer> LibTcpRtt(const Counts& counts, bool profiling)
{
    return std::make_unique<LibTcpRttPeer>(counts, profiling);
}

std::unique_ptr<RttPeer> LibUdpRtt(const Counts& counts, bool profiling)
{
    return std::make_unique<LibUdpRttPeer>(counts, profiling);
}

namespace {

// A connecting library socket whose descriptor the bench can reach, to push
// out a block's tail (raw::PushTail). Everything else is the library's.
class ClientSocket : public TcpSocket {
public:
    using TcpSocket::TcpSocket;
    int Descriptor() const { return _socket; }
};

class LibTcpBulkPeer : public BlockPeer {
public:
    LibTcpBulkPeer(const Counts& counts, bool profiling)
        : _profiling(profiling), _source(counts.bulkChunk, 0x5a),
          _listener(kHost, 0, [this](std::unique_ptr<TcpSocket> connection) { Receive(*connection); })
    {
        _client = std::make_unique<ClientSocket>(kHost, _listener.GetLocalPort(), _source.size(), 0);
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_profiling, "bench tcp_bulk");
        _progress.Expect(static_cast<std::int64_t>(_sent) + units);
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            StampChunk(_source.data(), _sent++);
            _client->Write(_source.data(), _source.size());
            _client->Flush();
        }
        const std::int64_t end = _progress.Wait("tcp_bulk", [this] { raw::PushTail(_client->Descriptor()); });
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
    }

private:
    void Receive(TcpSocket& connection)
    {
        std::vector<unsigned char> chunk(_source.size());
        try {
            for (std::uint64_t i = 0;; ++i) {
                connection.Read(chunk.data(), chunk.size());
                if (!CheckChunk(chunk.data(), i)) {
                    _progress.Broken();
                }
                _progress.Add(1);
            }
        } catch (const SocketError&) {
            // The client has closed.
        }
    }

    bool _profiling;
    std::uint64_t _sent = 0;
    std::vector<unsigned char> _source;
    Progress _progress;
    TcpListener _listener;
    std::unique_ptr<ClientSocket> _client; // closed first: that ends the receiver
};

// Receives blocks of `block` 16-byte messages and checks their order.
void ReceiveMessages(TcpSocket& connection, int block, Progress& progress)
{
    std::vector<unsigned char> chunk(std::size_t{4096} * 16);
    std::uint64_t next = 0;
    try {
        for (;;) {
            for (auto left = static_cast<std::size_t>(block); left > 0;) {
                const std::size_t take = std::min<std::size_t>(4096, left);
                connection.Read(chunk.data(), take * 16);
                if (!CheckMessages(chunk.data(), take, next)) {
                    progress.Broken();
                }
                next += take;
                left -= take;
            }
            progress.Add(block);
        }
    } catch (const SocketError&) {
        // The client has closed.
    }
}

class LibTcpSmallPeer : public BlockPeer {
public:
    LibTcpSmallPeer(int block, bool worker, bool profiling)
        : _profiling(profiling), _listener(kHost, 0, [this, block](std::unique_ptr<TcpSocket> connection) {
              ReceiveMessages(*connection, block, _progress);
          })
    {
        _client = std::make_unique<ClientSocket>(kHost, _listener.GetLocalPort(), 16, 0);
        if (worker) {
            _client->SetNonBlockingFlush();
        }
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_profiling, "bench tcp_small");
        _progress.Expect(static_cast<std::int64_t>(_sent) + units);
        unsigned char message[16];
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            FillMessage(message, _sent++);
            _client->Write(message, sizeof(message));
            _client->Flush();
        }
        const std::int64_t end = _progress.Wait("tcp_small", [this] { raw::PushTail(_client->Descriptor()); });
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
    }

private:
    bool _profiling;
    std::uint64_t _sent = 0;
    Progress _progress;
    TcpListener _listener;
    std::unique_ptr<ClientSocket> _client;
};

class LibUdpRatePeer : public BlockPeer {
public:
    LibUdpRatePeer(std::size_t size, bool profiling)
        : _profiling(profiling), _payload(size, 0x33),
          _server(kHost, 0, [this](const UdpSocket&, ReadOnlyStream&&) { _arrivals.Arrived(); }),
          _client(kHost, _server.GetLocalPort(), size)
    {
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_profiling, "bench udp_rate");
        return UdpBlock(_arrivals, units, [&] {
            for (int i = 0; i < units; ++i) {
                _client.Write(_payload.data(), _payload.size());
                _client.Flush();
            }
        });
    }

private:
    bool _profiling;
    std::vector<unsigned char> _payload;
    ArrivalCounter _arrivals;
    UdpListener _server;
    UdpSocket _client;
};

class LibTcpAcceptPeer : public BlockPeer {
public:
    explicit LibTcpAcceptPeer(bool profiling)
        : _profiling(profiling), _listener(kHost, 0, [this](std::unique_ptr<TcpSocket>) {
              // The connection closes when the callback returns.
              _progress.Add(1);
          })
    {
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_profiling, "bench tcp_accept");
        _sent += units;
        _progress.Expect(_sent);
        const unsigned short port = _listener.GetLocalPort();
        const std::int64_t start = NowNs();
        for (int i = 0; i < units; ++i) {
            TcpSocket client(kHost, port, 0, 0);
        }
        const std::int64_t end = _progress.Wait("tcp_accept");
        return BlockResult{static_cast<double>(units), static_cast<double>(end - start) / 1e9,
                           static_cast<double>(units)};
    }

private:
    bool _profiling;
    std::int64_t _sent = 0;
    Progress _progress;
    TcpListener _listener;
};

} // namespace

std::unique_ptr<BlockPeer> LibTcpBulk(const Counts& counts, bool profiling)
{
    return std::make_unique<LibTcpBulkPeer>(counts, profiling);
}

std::unique_ptr<BlockPeer> LibTcpSmall(int block, bool worker, bool profiling)
{
    return std::make_unique<LibTcpSmallPeer>(block, worker, profiling);
}

std::unique_ptr<BlockPeer> LibUdpRate(std::size_t size, bool profiling)
{
    return std::make_unique<LibUdpRatePeer>(size, profiling);
}

std::unique_ptr<BlockPeer> LibTcpAccept(bool profiling) { return std::make_unique<LibTcpAcceptPeer>(profiling); }

} // namespace bench
