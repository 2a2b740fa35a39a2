// Raw POSIX loopback peers for the tests and the benchmarks (the raw
// baselines): the other end of a library socket, built without the library.
// No test framework here: failures show in return values (an Fd of -1, false,
// fewer bytes than asked for). The calls on plain buffers make no more system
// calls than they name and do not allocate, for the benchmarks' timed loops.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace rawpeer {

using Bytes = std::vector<unsigned char>;

// A raw descriptor closed by its destructor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : _fd(fd) {}
    Fd(Fd&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept
    {
        Reset(std::exchange(other._fd, -1));
        return *this;
    }
    ~Fd() { Reset(); }
    int Get() const { return _fd; }
    void Reset(int fd = -1)
    {
        if (_fd >= 0) {
            ::close(_fd);
        }
        _fd = fd;
    }

private:
    int _fd = -1;
};

inline sockaddr_storage Loopback(bool ipv6, unsigned short port, socklen_t& length)
{
    sockaddr_storage storage{};
    if (ipv6) {
        *reinterpret_cast<sockaddr_in6*>(&storage) = {AF_INET6, htons(port), 0, in6addr_loopback, 0};
    } else {
        *reinterpret_cast<sockaddr_in*>(&storage) = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    }
    length = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    return storage;
}

// A socket of the family, bound to loopback:`port` (0: the system chooses)
// when `bound` says so, with SO_REUSEADDR set first when `reuse` does; -1 when
// that bind fails.
inline Fd RawSocket(bool ipv6, int type, bool bound = false, unsigned short port = 0, bool reuse = false)
{
    Fd fd(::socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0));
    if (const int on = 1; reuse) {
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    }
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    if (bound && ::bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
        return Fd();
    }
    return fd;
}

// The local (or with `peer`, the remote) port of a socket; 0 without one.
inline unsigned short PortOf(int fd, bool peer = false)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    if ((peer ? ::getpeername : ::getsockname)(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return 0;
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
}

// A listening TCP socket on loopback, on a port the system chose; -1 on failure.
inline Fd RawTcpListener(bool ipv6, unsigned short& port, int backlog = 64, bool reuse = false)
{
    Fd fd = RawSocket(ipv6, SOCK_STREAM, true, 0, reuse);
    if (fd.Get() < 0 || ::listen(fd.Get(), backlog) != 0) {
        return Fd();
    }
    port = PortOf(fd.Get());
    return fd;
}

// True when `fd` has something to read (or has failed) within `limit`.
inline bool Readable(int fd, std::chrono::milliseconds limit)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(limit.count())) == 1;
}

// One accepted connection, waiting as long as it takes; -1 on failure.
inline Fd RawAccept(int listener) { return Fd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)); }

// One accepted connection within `limit`; -1 when none came.
inline Fd AcceptWithin(int listener, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    return Readable(listener, limit) ? RawAccept(listener) : Fd();
}

// A connected TCP socket; -1 when the connect failed.
inline Fd RawTcpConnect(bool ipv6, unsigned short port)
{
    Fd fd = RawSocket(ipv6, SOCK_STREAM);
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    return ::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0 ? std::move(fd) : Fd();
}

// Reads until `size` bytes have come, the peer has closed (or the read
// failed; `closed` says so) or `limit` has passed.
inline Bytes ReadUpTo(int fd, size_t size = SIZE_MAX, bool* closed = nullptr,
                      std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    Bytes bytes;
    bool ended = false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!ended && bytes.size() < size && std::chrono::steady_clock::now() < deadline) {
        unsigned char chunk[65536];
        if (Readable(fd, std::chrono::milliseconds(50))) {
            const ssize_t n = ::read(fd, chunk, std::min(sizeof(chunk), size - bytes.size()));
            ended = n <= 0;
            bytes.insert(bytes.end(), chunk, chunk + std::max<ssize_t>(n, 0));
        }
    }
    if (closed != nullptr) {
        *closed = ended;
    }
    return bytes;
}

// Blocking `call`s (send or recv) until `size` bytes went, an interrupted one
// retried; false once one failed or the peer closed.
template <typename Byte, typename Call> bool Whole(Call call, int fd, Byte* data, size_t size, int flags)
{
    for (size_t done = 0; done < size;) {
        const ssize_t n = call(fd, data + done, size - done, flags);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

// False when a send failed before every byte went.
inline bool SendAll(int fd, const void* data, size_t size)
{
    return Whole(::send, fd, static_cast<const unsigned char*>(data), size, MSG_NOSIGNAL);
}
inline bool SendAll(int fd, const Bytes& bytes) { return SendAll(fd, bytes.data(), bytes.size()); }

// False once the peer has closed (or a read failed) before `size` bytes came.
inline bool ReceiveAll(int fd, void* data, size_t size)
{
    return Whole(::recv, fd, static_cast<unsigned char*>(data), size, 0);
}

// Closes a TCP descriptor with a reset instead of an orderly shutdown.
inline void ResetConnection(Fd& fd)
{
    linger option{1, 0};
    ::setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &option, sizeof(option));
    fd.Reset();
}

// This process's connected TCP descriptor with these ports; -1 if none.
inline int FindTcpDescriptor(unsigned short localPort, unsigned short peerPort)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::atoi(entry.path().filename().c_str());
        int type = 0;
        socklen_t length = sizeof(type);
        if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM &&
            PortOf(fd) == localPort && PortOf(fd, true) == peerPort) {
            return fd;
        }
    }
    return -1;
}

// Bytes received on `fd` and not read yet; -1 on failure.
inline int QueuedBytes(int fd)
{
    int count = -1;
    ::ioctl(fd, FIONREAD, &count);
    return count;
}

// A UDP socket bound to loopback on a port the system chose; -1 on failure.
inline Fd RawUdp(bool ipv6, unsigned short& port, bool reuse = false)
{
    Fd fd = RawSocket(ipv6, SOCK_DGRAM, true, 0, reuse);
    port = PortOf(fd.Get());
    return fd;
}

inline bool SendDatagram(int fd, bool ipv6, unsigned short port, const void* data, size_t size)
{
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    return ::sendto(fd, data, size, 0, reinterpret_cast<sockaddr*>(&address), length) == static_cast<ssize_t>(size);
}
inline bool SendDatagram(int fd, bool ipv6, unsigned short port, const Bytes& bytes)
{
    return SendDatagram(fd, ipv6, port, bytes.data(), bytes.size());
}

// One datagram within `limit`, with its sender's port; empty on time-out.
inline Bytes ReceiveDatagram(int fd, unsigned short* fromPort = nullptr,
                             std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    if (!Readable(fd, limit)) {
        return {};
    }
    Bytes bytes(65536);
    sockaddr_storage from{};
    socklen_t length = sizeof(from);
    const ssize_t n = ::recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (fromPort != nullptr) {
        *fromPort = ntohs(reinterpret_cast<sockaddr_in*>(&from)->sin_port);
    }
    return bytes;
}

} // namespace rawpeer
