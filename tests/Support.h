// Helpers shared by the tests: raw loopback peers, bounded waits, probes of
// this process's descriptors and threads, and copies of the profiler's tables.
#pragma once

#include <arpa/inet.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/Profiler.h"

namespace support {

using Bytes = std::vector<unsigned char>;
using orvun::cpu::Profiler;

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

template <typename Action> std::chrono::steady_clock::duration TimeOf(Action&& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

// what() of the `Error` that `action` throws, or a marker saying it threw something else or nothing.
template <typename Error, typename Action> std::string MessageOf(Action&& action)
{
    try {
        action();
    } catch (const Error& e) {
        return e.what();
    } catch (...) {
        return "<another exception>";
    }
    return "<no exception>";
}

// Items a library thread hands over, for the test thread to take within a bound.
template <typename T> class Queue {
public:
    void Push(T item)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _items.push_back(std::move(item));
        ++_pushed;
        _condition.notify_all();
    }
    std::optional<T> Take(std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_condition.wait_for(lock, limit, [this] { return !_items.empty(); })) {
            return std::nullopt;
        }
        T item = std::move(_items.front());
        _items.pop_front();
        return item;
    }
    size_t Pushed()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _pushed;
    }

private:
    std::mutex _mutex;
    std::condition_variable _condition;
    std::deque<T> _items;
    size_t _pushed = 0;
};

// The entries of a /proc directory, "." and ".." left out, and in
// /proc/self/fd the descriptor that reads the directory too.
inline std::vector<std::string> Entries(const char* directory)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory)) {
        const std::string own = std::string(directory) == "/proc/self/fd" ? std::to_string(dirfd(dir)) : "";
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.' && entry->d_name != own) {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(dir);
    }
    return names;
}

inline size_t OpenDescriptors() { return Entries("/proc/self/fd").size(); }
// The first thread a process starts can bring a runtime thread of its own
// (ThreadSanitizer's), so one is started and joined before the first count.
inline size_t ThreadCount()
{
    static const bool warmedUp = [] {
        std::thread([] {}).join();
        return true;
    }();
    static_cast<void>(warmedUp);
    return Entries("/proc/self/task").size();
}

// Kernel ids of this process's threads whose name (comm) is `name`.
inline std::vector<pid_t> ThreadsNamed(const std::string& name)
{
    std::vector<pid_t> found;
    for (const std::string& task : Entries("/proc/self/task")) {
        std::ifstream comm("/proc/self/task/" + task + "/comm");
        std::string text;
        if (std::getline(comm, text) && text == name) {
            found.push_back(static_cast<pid_t>(std::atoi(task.c_str())));
        }
    }
    return found;
}
inline bool HasThreadNamed(const std::string& name) { return !ThreadsNamed(name).empty(); }

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

template <typename Stream> void Put(Stream& stream, const Bytes& bytes) { stream.Write(bytes.data(), bytes.size()); }

template <typename Stream> Bytes Buffered(const Stream& stream)
{
    const unsigned long size = stream.GetBufferSize();
    return size == 0 ? Bytes{} : Bytes(stream.GetBufferData(), stream.GetBufferData() + size);
}

// The loopback address of a family: the text given to the library, which is
// also the text it reports.
struct Family {
    bool ipv6;
    const char* host;
};
inline const Family kFamilies[] = {{false, "127.0.0.1"}, {true, "::1"}};
inline std::string FamilyName(const testing::TestParamInfo<Family>& info) { return info.param.ipv6 ? "IPv6" : "IPv4"; }
inline void PrintTo(const Family& family, std::ostream* out) { *out << family.host; }

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

// A socket of the family, bound to loopback:`port` (0: the system chooses)
// when `bound` says so; none when that bind fails.
inline Fd RawSocket(bool ipv6, int type, bool bound = false, unsigned short port = 0)
{
    Fd fd(socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0));
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
    if ((peer ? getpeername : getsockname)(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return 0;
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
}

// A raw listening TCP socket on loopback, on a port the system chose.
inline Fd RawTcpListener(bool ipv6, unsigned short& port)
{
    Fd fd = RawSocket(ipv6, SOCK_STREAM, true);
    if (fd.Get() < 0 || listen(fd.Get(), 64) != 0) {
        ADD_FAILURE() << "raw TCP listener failed";
    }
    port = PortOf(fd.Get());
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

// 0 when a raw TCP connect to loopback:`port` succeeds, else its errno; `fd` gets the socket.
inline int TryConnect(bool ipv6, unsigned short port, Fd* fd = nullptr)
{
    Fd own = RawSocket(ipv6, SOCK_STREAM);
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    const int result = connect(own.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0 ? 0 : errno;
    if (fd != nullptr) {
        *fd = std::move(own);
    }
    return result;
}

inline Fd RawTcpConnect(bool ipv6, unsigned short port)
{
    Fd fd;
    EXPECT_EQ(TryConnect(ipv6, port, &fd), 0) << "raw connect failed";
    return fd;
}

// Reads a socket or pipe until `size` bytes have come, the peer has closed
// (or the read failed; `closed` says so) or `limit` has passed.
inline Bytes ReadUpTo(int fd, size_t size, bool* closed, std::chrono::milliseconds limit)
{
    Bytes bytes;
    bool ended = false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!ended && bytes.size() < size && std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        unsigned char chunk[65536];
        if (poll(&entry, 1, 50) == 1) {
            const ssize_t n = read(fd, chunk, std::min(sizeof(chunk), size - bytes.size()));
            ended = n <= 0;
            bytes.insert(bytes.end(), chunk, chunk + std::max<ssize_t>(n, 0));
        }
    }
    if (closed != nullptr) {
        *closed = ended;
    }
    return bytes;
}
inline Bytes ReadExactly(int fd, size_t size, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    return ReadUpTo(fd, size, nullptr, limit);
}
inline Bytes ReadUntilClosed(int fd, bool& closed, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    return ReadUpTo(fd, SIZE_MAX, &closed, limit);
}

inline void SendAll(int fd, const Bytes& bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(n, 0) << "raw send failed";
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

// This process's connected TCP descriptor with these ports; -1 if none.
inline int FindTcpDescriptor(unsigned short localPort, unsigned short peerPort)
{
    for (const std::string& entry : Entries("/proc/self/fd")) {
        const int fd = std::atoi(entry.c_str());
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM &&
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
    ioctl(fd, FIONREAD, &count);
    return count;
}

// A raw UDP socket bound to loopback on a port the system chose.
inline Fd RawUdp(bool ipv6, unsigned short& port)
{
    Fd fd = RawSocket(ipv6, SOCK_DGRAM, true);
    EXPECT_GE(fd.Get(), 0) << "raw UDP bind failed";
    port = PortOf(fd.Get());
    return fd;
}

inline void SendDatagram(int fd, bool ipv6, unsigned short port, const Bytes& bytes)
{
    socklen_t length;
    auto address = Loopback(ipv6, port, length);
    EXPECT_EQ(sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), length),
              static_cast<ssize_t>(bytes.size()))
        << "raw sendto failed";
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

// Interrupts the poll of the thread named `thread` with a signal whose
// handler does nothing, until `ended` holds (at most 50 tries).
inline bool InterruptPoll(const std::string& thread, const std::function<bool()>& ended)
{
    struct sigaction quiet {};
    struct sigaction previous {};
    quiet.sa_handler = [](int) {};
    sigemptyset(&quiet.sa_mask);
    sigaction(SIGUSR1, &quiet, &previous);
    std::vector<pid_t> ids;
    WaitFor([&] { return !(ids = ThreadsNamed(thread)).empty(); });
    for (int attempt = 0; !ids.empty() && attempt < 50 && !ended(); ++attempt) {
        syscall(SYS_tgkill, getpid(), ids.front(), SIGUSR1);
        WaitFor(ended, std::chrono::milliseconds(200));
    }
    sigaction(SIGUSR1, &previous, nullptr);
    return ended();
}

// Clears the profiler's tables and sets its switch; call with no scope open.
inline void ResetProfiler(bool enabled)
{
    Profiler::SetEnabled(enabled);
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
    Profiler::threadNames.clear();
    Profiler::extras.clear();
}

// A copy of the profiler's tables, taken under the exclusive mode since
// library threads may be updating their records.
struct ProfilerTables {
    using Profile = Profiler::Profile;
    std::unordered_map<std::thread::id, std::unordered_map<std::string, Profile>> profiles;
    std::unordered_map<std::thread::id, std::vector<std::string>> stacks;
    std::unordered_map<std::thread::id, std::string> names;
    std::set<std::string> extras;

    // The record of `path` (or its extra `extra`) on `thread`; an empty record when missing.
    Profile Record(const std::string& path, const std::string& extra = "",
                   std::thread::id thread = std::this_thread::get_id()) const
    {
        if (!profiles.contains(thread) || !profiles.at(thread).contains(path)) {
            return {};
        }
        const Profile& record = profiles.at(thread).at(path);
        if (extra.empty()) {
            return record;
        }
        return record.extraProfiles.contains(extra) ? record.extraProfiles.at(extra) : Profile{};
    }
    std::set<std::string> Paths(std::thread::id thread = std::this_thread::get_id()) const
    {
        std::set<std::string> paths;
        for (const auto& [path, record] : profiles.contains(thread) ? profiles.at(thread) : Records{}) {
            paths.insert(path);
        }
        return paths;
    }
    std::vector<std::string> Stack(std::thread::id thread = std::this_thread::get_id()) const
    {
        return stacks.contains(thread) ? stacks.at(thread) : std::vector<std::string>{"(no stack)"};
    }

private:
    using Records = std::unordered_map<std::string, Profile>;
};
inline ProfilerTables Profiles()
{
    orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
    return {Profiler::profiles, Profiler::profileStacks, Profiler::threadNames, Profiler::extras};
}

// Count, total, min and max of a record, as one comparable text.
inline std::string Summary(const Profiler::Profile& record)
{
    std::ostringstream text;
    text << record.count << ' ' << record.total << ' ' << record.min << ' ' << record.max;
    return text.str();
}

// ---- stress tests

// ORVUN_STRESS_SCALE multiplies every stress count (default 1; sanitizer
// runs use less, long local runs more).
inline int Scaled(int count, int minimum)
{
    const char* text = std::getenv("ORVUN_STRESS_SCALE");
    const double scale = text == nullptr ? 0.0 : std::strtod(text, nullptr);
    return std::max(minimum, static_cast<int>(std::lround(count * (scale > 0.0 ? scale : 1.0))));
}

// Bytes `offset`.. of stream `stream`: they differ between streams and
// positions, so a lost, repeated or reordered byte shows.
inline Bytes Pattern(std::uint64_t stream, std::uint64_t offset, size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        const std::uint64_t x = (offset + i + 1) * 0x9E3779B97F4A7C15ull ^ (stream + 1) * 0xC2B2AE3D27D4EB4Full;
        bytes[i] = static_cast<unsigned char>(x >> 56);
    }
    return bytes;
}

// Raises the soft descriptor limit to make room for `needed` more (the
// tests, not the library, own process limits).
inline void EnsureDescriptorRoom(size_t needed)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto wanted = static_cast<rlim_t>(OpenDescriptors() + needed + 64);
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Descriptor and thread counts at construction, compared later with a
// bounded wait (threads end and sockets close a little after their owners).
class Baseline {
public:
    void ExpectRestored() const
    {
        EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() == _descriptors; }, std::chrono::seconds(20)))
            << OpenDescriptors() << " descriptors now, " << _descriptors << " at the start";
        EXPECT_TRUE(WaitFor([&] { return ThreadCount() == _threads; }, std::chrono::seconds(20)))
            << ThreadCount() << " threads now, " << _threads << " at the start";
    }

private:
    size_t _descriptors = OpenDescriptors();
    size_t _threads = ThreadCount();
};

// One figure of a stress run, for the reliability notes.
inline void Figure(const char* name, double value)
{
    std::printf("[ figure ] %s = %.0f\n", name, value);
    std::fflush(stdout);
}

} // namespace support
