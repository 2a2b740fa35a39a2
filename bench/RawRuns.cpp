// Plain POSIX baselines. They make the same system calls with the same
// socket options as the library (the accepting side sets TCP_NODELAY, the
// connecting side does not) and nothing else.
#include "Scenarios.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int kPollMs = 100;
constexpr std::size_t kDatagramCapacity = 1400;

int AcceptOne(int listener)
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        throw RunFailed("accept failed");
    }
    raw::SetNoDelay(fd);
    return fd;
}

// One recvfrom into `datagram`, handed to `handle`; false on a result
// below 1.
template <typename Handle> bool ReceiveOne(int fd, unsigned char (&datagram)[kDatagramCapacity], Handle& handle)
{
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    const ssize_t n = ::recvfrom(fd, datagram, sizeof(datagram), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 1) {
        return false;
    }
    handle(datagram, static_cast<std::size_t>(n), from, length);
    return true;
}

// The receive loop shape of the library: poll for up to 100 ms, then one
// recvfrom; `handle` gets each datagram. Ends on a result below 1 or when
// `running` is cleared.
template <typename Handle> void PollingReceiveLoop(int fd, const std::atomic<bool>& running, Handle&& handle)
{
    unsigned char datagram[kDatagramCapacity];
    while (running.load(std::memory_order_relaxed)) {
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, kPollMs);
        if (!running.load(std::memory_order_relaxed)) {
            return;
        }
        if (ready == 0) {
            continue;
        }
        if (ready < 0) {
            throw RunFailed("poll failed");
        }
        if (!ReceiveOne(fd, datagram, handle)) {
            return;
        }
    }
}

// Plain blocking recvfrom calls; ends on a result below 1 (the empty
// datagram of raw::SendEmptyDatagram).
template <typename Handle> void BlockingReceiveLoop(int fd, Handle&& handle)
{
    unsigned char datagram[kDatagramCapacity];
    while (ReceiveOne(fd, datagram, handle)) {
    }
}

// One datagram to `destination`, sent the way every raw UDP client sends.
void SendTo(int fd, const unsigned char* data, std::size_t size, const sockaddr_in& destination)
{
    ::sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
}

class RawTcpRttPeer : public RttPeer {
public:
    explicit RawTcpRttPeer(const Counts& counts)
    {
        unsigned short port;
        _listener = raw::TcpListen(port);
        _server = std::make_unique<Background>([listener = _listener] {
            const int fd = AcceptOne(listener);
            unsigned char message[64];
            while (raw::ReceiveAll(fd, message, sizeof(message))) {
                raw::SendAll(fd, message, sizeof(message));
            }
            ::close(fd);
        });
        _client = raw::TcpConnect(port);
        WarmUp(counts.rttWarmup);
    }
    ~RawTcpRttPeer() override
    {
        raw::Close(_client);
        _server.reset();
        raw::Close(_listener);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        unsigned char reply[RoundTrips::kSize];
        _rounds.Run(rounds, samples, [&](const unsigned char* request, std::size_t size, unsigned char tag) {
            raw::SendAll(_client, request, size);
            return raw::ReceiveAll(_client, reply, sizeof(reply)) && reply[0] == tag;
        });
    }

private:
    RoundTrips _rounds{"tcp_rtt"};
    int _listener = -1;
    int _client = -1;
    std::unique_ptr<Background> _server;
};

class RawUdpRttThreadedPeer : public RttPeer {
public:
    explicit RawUdpRttThreadedPeer(const Counts& counts)
    {
        _server = raw::UdpBound(_port);
        _serverLoop = std::make_unique<Background>([this] {
            PollingReceiveLoop(
                _server, _running,
                [this](const unsigned char* data, std::size_t size, const sockaddr_in& from, socklen_t length) {
                    ::sendto(_server, data, size, 0, reinterpret_cast<const sockaddr*>(&from), length);
                });
        });
        _client = raw::UdpSocket();
        _clientLoop = std::make_unique<Background>([this] {
            PollingReceiveLoop(_client, _running,
                               [this](const unsigned char* data, std::size_t, const sockaddr_in&, socklen_t) {
                                   _replies.Post(data[0]);
                               });
        });
        WarmUp(counts.rttWarmup);
    }
    ~RawUdpRttThreadedPeer() override
    {
        _running = false;
        _clientLoop.reset();
        _serverLoop.reset();
        raw::Close(_client);
        raw::Close(_server);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        const sockaddr_in destination = raw::Loopback(_port);
        _rounds.Run(rounds, samples, _replies, [&](const unsigned char* request, std::size_t size) {
            SendTo(_client, request, size, destination);
        });
    }

private:
    RoundTrips _rounds{"udp_rtt"};
    unsigned short _port = 0;
    int _server = -1;
    int _client = -1;
    std::atomic<bool> _running{true};
    ReplyHandoff _replies;
    std::unique_ptr<Background> _serverLoop;
    std::unique_ptr<Background> _clientLoop;
};

class RawUdpRttBlockingPeer : public RttPeer {
public:
    explicit RawUdpRttBlockingPeer(const Counts& counts)
    {
        _server = raw::UdpBound(_port);
        _serverLoop = std::make_unique<Background>([server = _server] {
            BlockingReceiveLoop(server, [server](const unsigned char* data, std::size_t size, const sockaddr_in& from,
                                                 socklen_t length) {
                ::sendto(server, data, size, 0, reinterpret_cast<const sockaddr*>(&from), length);
            });
        });
        _client = raw::UdpSocket();
        WarmUp(counts.rttWarmup);
    }
    ~RawUdpRttBlockingPeer() override
    {
        raw::SendEmptyDatagram(_port);
        _serverLoop.reset();
        raw::Close(_client);
        raw::Close(_server);
    }

    void Run(int rounds, std::vector<double>& samples) override
    {
        const sockaddr_in destination = raw::Loopback(_port);
        unsigned char reply[kDatagramCapacity];
        _rounds.Run(rounds, samples, [&](const unsigned char* request, std::size_t size, unsigned char tag) {
            SendTo(_client, request, size, destination);
            const ssize_t n = ::recv(_client, reply, sizeof(reply), 0);
            return n == static_cast<ssize_t>(size) && reply[0] == tag;
        });
    }

private:
    RoundTrips _rounds{"udp_rtt"};
    unsigned short _port = 0;
    int _server = -1;
    int _client = -1;
    std::unique_ptr<Background> _serverLoop;
};

// The TCP throughput peers share a shape: a listener, one accepted
// connection read by a receiver thread, and a connected client.
class RawTcpPeer : public BlockPeer {
public:
    RawTcpPeer()
    {
        unsigned short port;
        _listener = raw::TcpListen(port);
        _client = raw::TcpConnect(port);
        _accepted = AcceptOne(_listener);
    }
    ~RawTcpPeer() override
    {
        raw::Close(_client);
        _receiver.reset();
        raw::Close(_accepted);
        raw::Close(_listener);
    }

protected:
    // The receivers' read: false once the client has closed.
    auto ReadAccepted()
    {
        return [this](unsigned char* data, std::size_t size) { return raw::ReceiveAll(_accepted, data, size); };
    }

    int _listener = -1;
    int _client = -1;
    int _accepted = -1;
    Progress _progress;
    std::unique_ptr<Background> _receiver;
};

class RawTcpBulkPeer : public RawTcpPeer {
public:
    // With `copy`, every chunk is first copied into a buffer of its own and
    // sent from there, as a stream's Write + Flush must do.
    RawTcpBulkPeer(const Counts& counts, bool copy) : _copy(copy), _source(counts.bulkChunk, 0x5a)
    {
        _receiver = std::make_unique<Background>([this] { ReceiveChunks(_progress, _source.size(), ReadAccepted()); });
    }

    BlockResult Block(int units) override
    {
        return ChunkBlock(
            _progress, _sent, _source.data(), units,
            [this] {
                if (_copy) {
                    _staging.assign(_source.begin(), _source.end());
                    raw::SendAll(_client, _staging.data(), _staging.size());
                    _staging.clear();
                } else {
                    raw::SendAll(_client, _source.data(), _source.size());
                }
            },
            [this] { raw::PushTail(_client); });
    }

private:
    bool _copy;
    std::uint64_t _sent = 0;
    std::vector<unsigned char> _source;
    std::vector<unsigned char> _staging;
};

// With `recordExtra`, profiling is on and every send is preceded by the
// profiler extra a library flush records: what that extra alone costs.
class RawTcpSmallPeer : public RawTcpPeer {
public:
    RawTcpSmallPeer(int block, bool recordExtra) : _recordExtra(recordExtra)
    {
        _receiver = std::make_unique<Background>([this, block] { ReceiveMessages(_progress, block, ReadAccepted()); });
    }

    BlockResult Block(int units) override
    {
        ProfilingSession session(_recordExtra, "bench tcp_small");
        return MessageBlock(
            _progress, _sent, units,
            [this](const unsigned char* message, std::size_t size) {
                if (_recordExtra) {
                    orvun::cpu::Profiler::Extra("TCP TX", static_cast<double>(size));
                }
                // One send per message, as a direct-mode flush does.
                if (::send(_client, message, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
                    throw RunFailed("tcp_small: send failed");
                }
            },
            [this] { raw::PushTail(_client); });
    }

private:
    bool _recordExtra;
    std::uint64_t _sent = 0;
};

// A UDP receiver on its own port and a client that sends to it.
class RawUdpRatePeer : public BlockPeer {
public:
    RawUdpRatePeer(std::size_t size, bool polling) : _payload(size, 0x33), _polling(polling)
    {
        _server = raw::UdpBound(_port);
        _client = raw::UdpSocket();
        _receiver = std::make_unique<Background>([this] {
            if (_polling) {
                PollingReceiveLoop(
                    _server, _running,
                    [this](const unsigned char*, std::size_t, const sockaddr_in&, socklen_t) { _arrivals.Arrived(); });
                return;
            }
            BlockingReceiveLoop(_server, [this](const unsigned char*, std::size_t, const sockaddr_in&, socklen_t) {
                _arrivals.Arrived();
            });
        });
    }
    ~RawUdpRatePeer() override
    {
        _running = false;
        if (!_polling) {
            raw::SendEmptyDatagram(_port);
        }
        _receiver.reset();
        raw::Close(_client);
        raw::Close(_server);
    }

    BlockResult Block(int units) override
    {
        const sockaddr_in destination = raw::Loopback(_port);
        return UdpBlock(_arrivals, units, [&] {
            for (int i = 0; i < units; ++i) {
                SendTo(_client, _payload.data(), _payload.size(), destination);
            }
        });
    }

private:
    std::vector<unsigned char> _payload;
    bool _polling;
    unsigned short _port = 0;
    int _server = -1;
    int _client = -1;
    std::atomic<bool> _running{true};
    ArrivalCounter _arrivals;
    std::unique_ptr<Background> _receiver;
};

// With `libraryCalls`, each side makes the calls the library's design
// prescribes on top of the bare ones: the server polls before every accept,
// the client looks its host text up before it connects.
class RawTcpAcceptPeer : public BlockPeer {
public:
    explicit RawTcpAcceptPeer(bool libraryCalls) : _libraryCalls(libraryCalls)
    {
        _listener = raw::TcpListen(_port);
        _server = std::make_unique<Background>([this] {
            CountConnections(_progress, _stopping, [this] {
                if (_libraryCalls) {
                    pollfd entry{_listener, POLLIN, 0};
                    if (::poll(&entry, 1, kPollMs) == 0) {
                        return false;
                    }
                }
                ::close(AcceptOne(_listener));
                return true;
            });
        });
    }
    ~RawTcpAcceptPeer() override
    {
        // One more connection wakes the blocking accept.
        _stopping = true;
        raw::Close(raw::TcpConnect(_port));
        _server.reset();
        raw::Close(_listener);
    }

    BlockResult Block(int units) override
    {
        _sent += units;
        return TimedBlock(_progress, "tcp_accept", _sent, units, [&] {
            for (int i = 0; i < units; ++i) {
                if (_libraryCalls) {
                    LookUpLoopback();
                }
                ::close(raw::TcpConnect(_port));
            }
        });
    }

private:
    static void LookUpLoopback()
    {
        hostent entry{};
        hostent* result = nullptr;
        char scratch[1024];
        int error = 0;
        if (::gethostbyname2_r("127.0.0.1", AF_INET, &entry, scratch, sizeof(scratch), &result, &error) != 0 ||
            result == nullptr) {
            throw RunFailed("tcp_accept: lookup of 127.0.0.1 failed");
        }
    }

    bool _libraryCalls;
    unsigned short _port = 0;
    int _listener = -1;
    std::int64_t _sent = 0;
    std::atomic<bool> _stopping{false};
    Progress _progress;
    std::unique_ptr<Background> _server;
};

} // namespace

std::unique_ptr<RttPeer> RawTcpRtt(const Counts& counts) { return std::make_unique<RawTcpRttPeer>(counts); }

std::unique_ptr<RttPeer> RawUdpRttThreaded(const Counts& counts)
{
    return std::make_unique<RawUdpRttThreadedPeer>(counts);
}

std::unique_ptr<RttPeer> RawUdpRttBlocking(const Counts& counts)
{
    return std::make_unique<RawUdpRttBlockingPeer>(counts);
}

std::unique_ptr<BlockPeer> RawTcpBulk(const Counts& counts, bool copy)
{
    return std::make_unique<RawTcpBulkPeer>(counts, copy);
}
std::unique_ptr<BlockPeer> RawTcpSmall(int block, bool recordExtra)
{
    return std::make_unique<RawTcpSmallPeer>(block, recordExtra);
}
std::unique_ptr<BlockPeer> RawUdpRateThreaded(std::size_t size) { return std::make_unique<RawUdpRatePeer>(size, true); }
std::unique_ptr<BlockPeer> RawUdpRateBlocking(std::size_t size)
{
    return std::make_unique<RawUdpRatePeer>(size, false);
}
std::unique_ptr<BlockPeer> RawTcpAccept(bool libraryCalls) { return std::make_unique<RawTcpAcceptPeer>(libraryCalls); }

} // namespace bench
