// Helpers shared by the tests: raw loopback peers, bounded waits, and
// counts of descriptors and threads.
#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <random>
#include <set>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/Profiler.h"

namespace support {

using Bytes = std::vector<unsigned char>;

// Polls `done` every millisecond until it holds or `limit` passes.
inline bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline size_t CountEntries(const char* directory)
{
    size_t count = 0;
    if (DIR* dir = opendir(directory)) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        closedir(dir);
    }
    return count;
}

// Open descriptors of this process (the directory's own included, always).
inline size_t OpenDescriptors() { return CountEntries("/proc/self/fd"); }
// The first thread a process starts can bring a runtime thread of its own
// (ThreadSanitizer's), so one is started and joined before the first count.
inline size_t ThreadCount()
{
    static const bool warmedUp = [] {
        std::thread([] {}).join();
        return true;
    }();
    static_cast<void>(warmedUp);
    return CountEntries("/proc/self/task");
}

// The names (comm) of this process's threads.
inline std::multiset<std::string> ThreadNames()
{
    std::multiset<std::string> names;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
            std::string name;
            std::getline(comm, name);
            names.insert(name);
        }
        closedir(dir);
    }
    return names;
}

inline bool HasThreadNamed(const std::string& name) { return ThreadNames().count(name) != 0; }

inline Bytes RandomBytes(size_t size, unsigned seed = 12345)
{
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(generator());
    }
    return bytes;
}

inline Bytes ToBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

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
        auto* a = reinterpret_cast<sockaddr_in6*>(&storage);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(port);
        a->sin6_addr = in6addr_loopback;
        length = sizeof(sockaddr_in6);
    } else {
        auto* a = reinterpret_cast<sockaddr_in*>(&storage);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof(sockaddr_in);
    }
    return storage;
}

inline unsigned short LocalPort(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length);
    return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
}

// A raw listening TCP socket on loopback, on a port the system chose.
inline Fd RawTcpListener(bool ipv6, unsigned short& port)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = Loopback(ipv6, 0, length);
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd.Get(), 64) != 0) {
        ADD_FAILURE() << "raw TCP listener failed";
    }
    port = LocalPort(fd.Get());
    return fd;
}

// Accepts one connection, waiting at most `limit`.
inline Fd AcceptWithin(int listener, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    pollfd entry{listener, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(limit.count())) != 1) {
        ADD_FAILURE() << "no connection arrived";
        return Fd();
    }
    return Fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

inline Fd RawTcpConnect(bool ipv6, unsigned short port)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
        ADD_FAILURE() << "raw connect failed";
    }
    return fd;
}

// Reads exactly `size` bytes with a bound on the whole wait; fewer on EOF or time-out.
inline Bytes ReadExactly(int fd, size_t size, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    Bytes bytes(size);
    size_t have = 0;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (have < size) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) != 1) {
            break;
        }
        const ssize_t n = recv(fd, bytes.data() + have, size - have, 0);
        if (n <= 0) {
            break;
        }
        have += static_cast<size_t>(n);
    }
    bytes.resize(have);
    return bytes;
}

inline void SendAll(int fd, const Bytes& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            ADD_FAILURE() << "raw send failed";
            return;
        }
        sent += static_cast<size_t>(n);
    }
}

// Closes a TCP descriptor with a reset instead of an orderly shutdown.
inline void ResetConnection(Fd& fd)
{
    linger option{1, 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &option, sizeof(option));
    fd.Reset();
}

// A raw UDP socket bound to loopback on a port the system chose.
inline Fd RawUdp(bool ipv6, unsigned short& port)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = Loopback(ipv6, 0, length);
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
        ADD_FAILURE() << "raw UDP bind failed";
    }
    port = LocalPort(fd.Get());
    return fd;
}

inline void SendDatagram(int fd, bool ipv6, unsigned short port, const Bytes& bytes)
{
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), length) !=
        static_cast<ssize_t>(bytes.size())) {
        ADD_FAILURE() << "raw sendto failed";
    }
}

// One datagram within `limit`, with its sender's port; empty on time-out.
inline Bytes ReceiveDatagram(int fd, unsigned short* fromPort = nullptr,
                             std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(limit.count())) != 1) {
        return {};
    }
    Bytes bytes(65536);
    sockaddr_storage from{};
    socklen_t length = sizeof(from);
    const ssize_t n = recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (fromPort != nullptr) {
        *fromPort = ntohs(reinterpret_cast<sockaddr_in*>(&from)->sin_port);
    }
    return bytes;
}

// Clears the profiler's tables and sets its switch; call with no scope open.
inline void ResetProfiler(bool enabled)
{
    using orvun::cpu::Profiler;
    Profiler::SetEnabled(enabled);
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
    Profiler::threadNames.clear();
    Profiler::extras.clear();
}

} // namespace support

// Socket and thread probes: the library keeps its descriptors and threads to
// itself, so the tests find them through /proc and the socket calls.
#include <cerrno>
#include <cstdlib>
#include <sys/ioctl.h>

namespace support {

// The peer's port of a connected socket; 0 without one.
inline unsigned short PeerPort(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return 0;
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
}

// This process's connected TCP descriptor with these ports; -1 if none.
inline int FindTcpDescriptor(unsigned short localPort, unsigned short peerPort)
{
    int found = -1;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return found;
    }
    while (dirent* entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(dir)) {
            continue;
        }
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM &&
            LocalPort(fd) == localPort && PeerPort(fd) == peerPort) {
            found = fd;
            break;
        }
    }
    closedir(dir);
    return found;
}

// Bytes received on `fd` and not read yet; -1 on failure.
inline int QueuedBytes(int fd)
{
    int count = -1;
    ioctl(fd, FIONREAD, &count);
    return count;
}

inline timeval SendTimeout(int fd)
{
    timeval limit{-1, -1};
    socklen_t length = sizeof(limit);
    getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length);
    return limit;
}

// 0 when a raw TCP connect to loopback succeeds, else its errno.
inline int TryConnect(bool ipv6, unsigned short port)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    return connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0 ? 0 : errno;
}

// Reads until the peer closes (or fails) or `limit` passes; `closed` says which.
inline Bytes ReadUntilClosed(int fd, bool& closed, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    Bytes bytes;
    closed = false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 50) != 1) {
            continue;
        }
        unsigned char chunk[4096];
        const ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n <= 0) {
            closed = true;
            break;
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    return bytes;
}

// The kernel id of a thread of this process with that name; 0 if none.
inline pid_t ThreadIdNamed(const std::string& name)
{
    pid_t found = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
            std::string text;
            if (std::getline(comm, text) && text == name) {
                found = static_cast<pid_t>(std::atoi(entry->d_name));
            }
        }
        closedir(dir);
    }
    return found;
}

} // namespace support
