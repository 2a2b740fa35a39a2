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

// Runs `receive` with a read from `connection` until the client closes,
// which the library reports by throwing.
template <typename Receive> void ReceiveUntilClosed(TcpSocket& connection, Receive&& receive)
{
    try {
        receive([&connection](unsigned char* data, std::size_t size) {
            connection.Read(data, size);
            return true;
        });
    } catch (const SocketError&) {
        // The client has closed.
    }
}

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
        WarmUp(counts.rttWarmup);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        ProfilingSession session(_profiling, "bench tcp_rtt");
        unsigned char reply[RoundTrips::kSize];
        _rounds.Run(rounds, samples, [&](const unsigned char* request, std::size_t size, unsigned char tag) {
            _client->Write(request, size);
            _client->Flush();
            _client->Read(reply, sizeof(reply));
            return reply[0] == tag;
        });
    }

private:
    bool _profiling;
    RoundTrips _rounds{"tcp_rtt"};
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
        _client.Receive(
            [this](const UdpSocket&, ReadOnlyStream&& datagram) { _replies.Post(datagram.GetBufferData()[0]); });
        WarmUp(counts.rttWarmup);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        ProfilingSession session(_profiling, "bench udp_rtt");
        _rounds.Run(rounds, samples, _replies, [this](const unsigned char* request, std::size_t size) {
            _client.Write(request, size);
            _client.Flush();
        });
    }

private:
    bool _profiling;
    RoundTrips _rounds{"udp_rtt"};
    ReplyHandoff _replies;
    UdpListener _server;
    UdpSocket _client; // stopped first, then the server
};

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
          _listener(kHost, 0, [this](std::unique_ptr<TcpSocket> connection) {
              ReceiveUntilClosed(*connection, [&](auto&& read) { ReceiveChunks(_progress, _source.size(), read); });
          })
    {
        _client = std::make_unique<ClientSocket>(kHost, _listener.GetLocalPort(), _source.size(), 0);
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_profiling, "bench tcp_bulk");
        return ChunkBlock(
            _progress, _sent, _source.data(), units,
            [this] {
                _client->Write(_source.data(), _source.size());
                _client->Flush();
            },
            [this] { raw::PushTail(_client->Descriptor()); });
    }

private:
    bool _profiling;
    std::uint64_t _sent = 0;
    std::vector<unsigned char> _source;
    Progress _progress;
    TcpListener _listener;
    std::unique_ptr<ClientSocket> _client; // closed first: that ends the receiver
};

class LibTcpSmallPeer : public BlockPeer {
public:
    LibTcpSmallPeer(int block, bool worker, bool profiling)
        : _profiling(profiling), _listener(kHost, 0, [this, block](std::unique_ptr<TcpSocket> connection) {
              ReceiveUntilClosed(*connection, [&](auto&& read) { ReceiveMessages(_progress, block, read); });
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
        return MessageBlock(
            _progress, _sent, units,
            [this](const unsigned char* message, std::size_t size) {
                _client->Write(message, size);
                _client->Flush();
            },
            [this] { raw::PushTail(_client->Descriptor()); });
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
        const unsigned short port = _listener.GetLocalPort();
        return TimedBlock(_progress, "tcp_accept", _sent, units, [&] {
            for (int i = 0; i < units; ++i) {
                TcpSocket client(kHost, port, 0, 0);
            }
        });
    }

private:
    bool _profiling;
    std::int64_t _sent = 0;
    Progress _progress;
    TcpListener _listener;
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
