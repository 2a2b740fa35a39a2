#include "Harness.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

double Median(std::vector<double> values)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

double Percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(rank, values.size() - 1)];
}

Sample LatencySample(std::vector<double> microseconds)
{
    Sample sample;
    sample.p99 = Percentile(microseconds, 0.99);
    sample.value = Median(std::move(microseconds));
    return sample;
}

bool WaitForCount(const std::atomic<std::int64_t>& count, std::int64_t target, std::chrono::milliseconds quiet)
{
    std::int64_t last = count.load(std::memory_order_acquire);
    auto lastChange = Clock::now();
    for (;;) {
        const std::int64_t now = count.load(std::memory_order_acquire);
        if (now >= target) {
            return true;
        }
        if (now != last) {
            last = now;
            lastChange = Clock::now();
        } else if (Clock::now() - lastChange > quiet) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

namespace {

std::mutex watchMutex;
std::string watchWhat;
std::int64_t watchDeadline = 0; // 0: disarmed

} // namespace

void Watchdog::Start()
{
    std::thread([] {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            std::lock_guard<std::mutex> lock(watchMutex);
            if (watchDeadline != 0 && NowNs() > watchDeadline) {
                std::fprintf(stderr, "orvun_bench: %s did not finish in time\n", watchWhat.c_str());
                std::fflush(stderr);
                std::_Exit(3);
            }
        }
    }).detach();
}

void Watchdog::Arm(const std::string& what, int seconds)
{
    std::lock_guard<std::mutex> lock(watchMutex);
    watchWhat = what;
    watchDeadline = NowNs() + std::int64_t{seconds} * 1000000000;
}

void Watchdog::Disarm()
{
    std::lock_guard<std::mutex> lock(watchMutex);
    watchDeadline = 0;
}

namespace raw {

namespace {

[[noreturn]] void Fail(const char* what) { throw RunFailed(std::string(what) + ": " + std::strerror(errno)); }

} // namespace

sockaddr_in Loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned short LocalPort(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("getsockname");
    }
    return ntohs(address.sin_port);
}

int TcpListen(unsigned short& port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        Fail("socket");
    }
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    const sockaddr_in address = Loopback(0);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd, 4096) != 0) {
        ::close(fd);
        Fail("bind/listen");
    }
    port = LocalPort(fd);
    return fd;
}

int TcpConnect(unsigned short port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        Fail("socket");
    }
    const sockaddr_in address = Loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        Fail("connect");
    }
    return fd;
}

void SetNoDelay(int fd)
{
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

void PushTail(int fd)
{
    const int on = 1;
    const int off = 0;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &off, sizeof(off));
}

void SendAll(int fd, const unsigned char* data, std::size_t size)
{
    std::size_t sent = 0;
    while (sent < size) {
        const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            Fail("send");
        }
        sent += static_cast<std::size_t>(n);
    }
}

bool ReceiveAll(int fd, unsigned char* data, std::size_t size)
{
    std::size_t received = 0;
    while (received < size) {
        const ssize_t n = ::recv(fd, data + received, size - received, 0);
        if (n == 0) {
            return false;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            Fail("recv");
        }
        received += static_cast<std::size_t>(n);
    }
    return true;
}

int UdpSocket()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
        Fail("socket");
    }
    return fd;
}

int UdpBound(unsigned short& port)
{
    const int fd = UdpSocket();
    const sockaddr_in address = Loopback(0);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        Fail("bind");
    }
    port = LocalPort(fd);
    return fd;
}

void SendEmptyDatagram(unsigned short port)
{
    const int fd = UdpSocket();
    const sockaddr_in address = Loopback(port);
    ::sendto(fd, "", 0, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::close(fd);
}

void Close(int fd)
{
    if (fd >= 0) {
        ::close(fd);
    }
}

} // namespace raw

void FillMessage(unsigned char* message, std::uint64_t index)
{
    const std::uint64_t inverse = ~index;
    std::memcpy(message, &index, 8);
    std::memcpy(message + 8, &inverse, 8);
}

bool CheckMessages(const unsigned char* data, std::size_t count, std::uint64_t first)
{
    for (std::size_t i = 0; i < count; ++i) {
        std::uint64_t index;
        std::uint64_t inverse;
        std::memcpy(&index, data + 16 * i, 8);
        std::memcpy(&inverse, data + 16 * i + 8, 8);
        if (index != first + i || inverse != ~(first + i)) {
            return false;
        }
    }
    return true;
}

void StampChunk(unsigned char* chunk, std::uint64_t index) { std::memcpy(chunk, &index, 8); }

bool CheckChunk(const unsigned char* chunk, std::uint64_t index)
{
    std::uint64_t stamp;
    std::memcpy(&stamp, chunk, 8);
    return stamp == index;
}

} // namespace bench
