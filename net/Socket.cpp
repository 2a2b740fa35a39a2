#include "net/Socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

namespace orvun::net {

using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;

namespace {

// One line on stderr, then abort: a broken invariant of this file.
[[noreturn]] void AssertionFailed(const char* expression, int line)
{
    std::cerr << "ASSERTION FAILED: (" << expression << ") in net/Socket:" << line << '\n' << std::flush;
    std::abort();
}

#define ORVUN_ASSERT(expression) ((expression) ? static_cast<void>(0) : AssertionFailed(#expression, __LINE__))

// Every system call of this file, so that flags and errno handling live in
// one place. Each returns what the system returns: -1 with errno set on
// failure (results the library ignores are dropped here). Nothing retries on
// EINTR: what an interrupted call means differs from caller to caller.
namespace sys {

int Open(bool ipv6, int type, int protocol)
{
    // Close-on-exec: a child process must not inherit our sockets.
    return ::socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, protocol);
}

void Close(int descriptor) { static_cast<void>(::close(descriptor)); }

void SetOption(int descriptor, int level, int name, const void* value, socklen_t length)
{
    static_cast<void>(::setsockopt(descriptor, level, name, value, length));
}

void SetSendTimeout(int descriptor, long milliseconds)
{
    timeval limit{};
    limit.tv_sec = milliseconds / 1000;
    limit.tv_usec = (milliseconds % 1000) * 1000;
    SetOption(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

int Connect(int descriptor, const sockaddr* address, socklen_t length)
{
    return ::connect(descriptor, address, length);
}

int Bind(int descriptor, const sockaddr* address, socklen_t length) { return ::bind(descriptor, address, length); }

int Listen(int descriptor, int backlog) { return ::listen(descriptor, backlog); }

// The accepted descriptor is close-on-exec, like every other.
int Accept(int descriptor, sockaddr* peer, socklen_t* length)
{
    return ::accept4(descriptor, peer, length, SOCK_CLOEXEC);
}

void Shutdown(int descriptor) { static_cast<void>(::shutdown(descriptor, SHUT_RDWR)); }

// Waits until `descriptor` is readable (or hung up, or in error).
int Poll(int descriptor, int timeout)
{
    pollfd entry{descriptor, POLLIN, 0};
    return ::poll(&entry, 1, timeout);
}

// send() that never raises SIGPIPE.
ssize_t Send(int descriptor, const unsigned char* data, size_t size)
{
    return ::send(descriptor, data, size, MSG_NOSIGNAL);
}

ssize_t Receive(int descriptor, unsigned char* data, size_t size, int flags = 0)
{
    return ::recv(descriptor, data, size, flags);
}

ssize_t SendTo(int descriptor, const std::vector<unsigned char>& data, const sockaddr* to, socklen_t length)
{
    return ::sendto(descriptor, data.data(), data.size(), 0, to, length);
}

ssize_t ReceiveFrom(int descriptor, unsigned char* data, size_t size, sockaddr* from, socklen_t* length)
{
    return ::recvfrom(descriptor, data, size, 0, from, length);
}

int LocalAddress(int descriptor, sockaddr_in6& address)
{
    socklen_t length = sizeof(address);
    return ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
}

void NameThread(const char* name) { static_cast<void>(::pthread_setname_np(::pthread_self(), name)); }

} // namespace sys

socklen_t AddressLength(bool ipv6) { return ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }

// A zero-filled address record of the family, allocated with its count.
std::shared_ptr<sockaddr> MakeRecord(bool ipv6)
{
    if (ipv6) {
        return std::reinterpret_pointer_cast<sockaddr>(std::make_shared<sockaddr_in6>());
    }
    return std::reinterpret_pointer_cast<sockaddr>(std::make_shared<sockaddr_in>());
}

// Port field: at the same offset in sockaddr_in and sockaddr_in6.
in_port_t& PortOf(sockaddr* record) { return reinterpret_cast<sockaddr_in*>(record)->sin_port; }
in_port_t PortOf(const sockaddr* record) { return reinterpret_cast<const sockaddr_in*>(record)->sin_port; }

// Address bytes of a record of the family.
void* AddressOf(sockaddr* record, bool ipv6)
{
    if (ipv6) {
        return &reinterpret_cast<sockaddr_in6*>(record)->sin6_addr;
    }
    return &reinterpret_cast<sockaddr_in*>(record)->sin_addr;
}

std::string AddressText(const sockaddr* record, bool ipv6)
{
    if (record == nullptr) {
        return {};
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (::inet_ntop(ipv6 ? AF_INET6 : AF_INET, AddressOf(const_cast<sockaddr*>(record), ipv6), text,
                    ipv6 ? INET6_ADDRSTRLEN : INET_ADDRSTRLEN) == nullptr) {
        return {};
    }
    return text;
}

// The first address of an IPv4-family name lookup.
struct Lookup {
    int family = 0;
    int length = 0;
    unsigned char address[16] = {};
};

// Reentrant lookup, so that sockets may be built on several threads at once.
Lookup LookUp(const std::string& host)
{
    std::vector<char> scratch(1024);
    hostent entry{};
    hostent* result = nullptr;
    int lookupError = 0;
    int status;
    while ((status = ::gethostbyname2_r(host.c_str(), AF_INET, &entry, scratch.data(), scratch.size(), &result,
                                        &lookupError)) == ERANGE) {
        scratch.resize(scratch.size() * 2);
    }
    if (status != 0 || result == nullptr || result->h_addr_list[0] == nullptr) {
        throw ResolveError("Could not resolve host '" + host + "'");
    }
    Lookup found;
    found.family = result->h_addrtype;
    found.length = std::min<int>(result->h_length, sizeof(found.address));
    std::memcpy(found.address, result->h_addr_list[0], found.length);
    return found;
}

bool IsIPv6Literal(const std::string& host) { return !host.empty() && host.find(':') != std::string::npos; }

[[noreturn]] void ThrowUdpSendError(int error)
{
    if (error == EMSGSIZE) {
        throw SendError("UDP Socket send failed with EMSGSIZE");
    }
    throw SendError("UDP Socket send failed with errno " + std::to_string(error));
}

// One datagram of the whole buffer; throws SendError on failure.
void SendDatagram(int descriptor, const std::vector<unsigned char>& buffer, const sockaddr* destination,
                  socklen_t length)
{
    if (sys::SendTo(descriptor, buffer, destination, length) == -1) {
        ThrowUdpSendError(errno);
    }
}

// Stops a listener loop: it sees `running` cleared within one poll period,
// after a callback in progress has returned.
void StopThread(std::unique_ptr<std::thread>& thread, std::atomic<bool>& running) noexcept
{
    if (thread && thread->joinable()) {
        running = false;
        thread->join();
    }
    thread.reset();
}

constexpr int kPollPeriodMs = 100;
constexpr int kListenBacklog = 4096;
constexpr size_t kDatagramCapacity = 1400;
// Largest flush-worker batch whose storage is kept for reuse.
constexpr size_t kKeptBatchCapacity = size_t{4} << 20;

// Profiler names, built once on first use (loading the library runs no code
// of ours): the profiler takes const std::string&, and a temporary per flush
// or datagram would cost even with profiling off.
enum class Name { TcpTx, UdpTx, UdpRx, UdpListener };
const std::string& ProfilerName(Name name)
{
    static const std::string names[] = {"TCP TX", "UDP TX", "UDP RX", "UDP Listener"};
    return names[static_cast<int>(name)];
}

// Profiler::Extra, which records nothing while profiling is off: testing the
// switch first keeps a flush from even reaching the name then.
void CountBytes(Name name, double bytes)
{
    if (Profiler::IsEnabled()) {
        Profiler::Extra(ProfilerName(name), bytes);
    }
}

} // namespace

// ---------------------------------------------------------------- Socket

Socket::Socket() = default;

Socket::Socket(Socket&& other) noexcept
    : filesystem::Stream(), _remoteAddress(std::move(other._remoteAddress)), _isIPv6(other._isIPv6),
      _socket(std::exchange(other._socket, -1))
{
}

Socket::~Socket()
{
    if (_socket != -1) {
        sys::Close(_socket);
    }
}

// Not const: the exported signature is part of the interface.
int Socket::Poll(int timeout) // NOLINT(readability-make-member-function-const)
{
    return sys::Poll(_socket, timeout);
}

int Socket::Poll(int timeout, unsigned long size)
{
    const int ready = Poll(timeout);
    if (ready <= 0) {
        return ready;
    }
    // The peeked bytes are thrown away; they stay queued for the next read.
    unsigned char small[512];
    std::unique_ptr<unsigned char[]> large;
    unsigned char* scratch = small;
    if (size > sizeof(small)) {
        large = std::make_unique_for_overwrite<unsigned char[]>(size);
        scratch = large.get();
    }
    if (sys::Receive(_socket, scratch, size, MSG_PEEK) == 0) {
        return -1;
    }
    return ready;
}

std::string Socket::GetRemoteAddress() const { return AddressText(_remoteAddress.get(), _isIPv6); }

unsigned short Socket::GetRemotePort() const { return _remoteAddress ? ntohs(PortOf(_remoteAddress.get())) : 0; }

unsigned short Socket::GetLocalPort() const
{
    sockaddr_in6 local{};
    if (_socket == -1 || sys::LocalAddress(_socket, local) != 0) {
        return 0;
    }
    return ntohs(PortOf(reinterpret_cast<const sockaddr*>(&local)));
}

void Socket::ResolveAddress(const std::string& host, unsigned short port)
{
    if (IsIPv6Literal(host)) {
        auto record = MakeRecord(true);
        record->sa_family = AF_INET6;
        // Text that is no IPv6 address leaves the unspecified address.
        static_cast<void>(::inet_pton(AF_INET6, host.c_str(), AddressOf(record.get(), true)));
        PortOf(record.get()) = htons(port);
        _isIPv6 = true;
        _remoteAddress = std::move(record);
        return;
    }
    const Lookup found = LookUp(host);
    bool ipv6 = false;
    if (found.family == AF_INET6) {
        ipv6 = true;
    } else if (found.family != AF_INET) {
        ORVUN_ASSERT(!"Unknown address type");
    }
    auto record = MakeRecord(ipv6);
    record->sa_family = static_cast<sa_family_t>(found.family);
    PortOf(record.get()) = htons(port);
    std::memcpy(AddressOf(record.get(), ipv6), found.address, found.length);
    _isIPv6 = ipv6;
    _remoteAddress = std::move(record);
}

// ---------------------------------------------------------------- TcpSocket

TcpSocket::TcpSocket(const std::string& host, unsigned short port, unsigned long size, long timeout) : Socket(size)
{
    Socket::ResolveAddress(host, port);
    _socket = sys::Open(_isIPv6, SOCK_STREAM, IPPROTO_TCP);
    if (timeout != 0) {
        // The send time-out also bounds a blocking connect.
        sys::SetSendTimeout(_socket, timeout);
    }
    if (sys::Connect(_socket, _remoteAddress.get(), AddressLength(_isIPv6)) < 0) {
        throw ConnectionError("TCP Connection failed");
    }
    if (timeout != 0) {
        sys::SetSendTimeout(_socket, 0);
    }
}

TcpSocket::TcpSocket(int descriptor, std::shared_ptr<sockaddr> peer, bool isIPv6) noexcept
{
    _socket = descriptor;
    _remoteAddress = std::move(peer);
    _isIPv6 = isIPv6;
}

TcpSocket::~TcpSocket()
{
    _nonBlockingFlush = false;
    _flushCondition.notify_all();
    if (_flushThread.joinable()) {
        _flushThread.join();
    }
}

void TcpSocket::Read(unsigned char* data, unsigned long size)
{
    unsigned long received = 0;
    while (received < size) {
        const ssize_t count = sys::Receive(_socket, data + received, size - received);
        if (count > 0) {
            received += static_cast<unsigned long>(count);
        } else if (count == 0) {
            throw Disconnected("TCP Socket RECV: End point disconnected");
        } else if (errno != EAGAIN) {
            throw ReceiveError("TCP Socket Faild to RECV");
        }
    }
}

unsigned long TcpSocket::ReadSome(unsigned char* data, unsigned long size)
{
    if (size == 0) {
        return 0;
    }
    for (;;) {
        const ssize_t count = sys::Receive(_socket, data, size);
        if (count >= 0) {
            return static_cast<unsigned long>(count);
        }
        if (errno != EAGAIN && errno != EINTR) {
            throw ReceiveError("TCP Socket Faild to RECV");
        }
    }
}

void TcpSocket::Shutdown() noexcept
{
    // Not close(): a thread blocked on the descriptor must never see its
    // number reused by another socket. The destructor closes it.
    sys::Shutdown(_socket);
}

void TcpSocket::SetNoDelay(bool on) noexcept
{
    const int value = on ? 1 : 0;
    sys::SetOption(_socket, IPPROTO_TCP, TCP_NODELAY, &value, sizeof(value));
}

void TcpSocket::Flush()
{
    const unsigned long size = GetBufferSize();
    if (size == 0) {
        return;
    }
    CountBytes(Name::TcpTx, static_cast<double>(size));
    if (_nonBlockingFlush) {
        {
            std::lock_guard<std::mutex> lock(_flushMutex);
            _flushQueue.insert(_flushQueue.end(), _buffer.begin(), _buffer.end());
            _flushCondition.notify_one();
        }
        Stream::Flush();
        return;
    }
    if (sys::Send(_socket, _buffer.data(), _buffer.size()) == -1) {
        throw SendError("TCP Socket send failed: " + std::to_string(errno));
    }
    Stream::Flush();
}

void TcpSocket::SetNonBlockingFlush()
{
    if (_flushThread.joinable()) {
        return;
    }
    _nonBlockingFlush = true;
    try {
        _flushThread = std::thread([this] { RunFlushWorker(); });
    } catch (...) {
        _nonBlockingFlush = false;
        throw;
    }
}

bool TcpSocket::IsIdle()
{
    if (!_nonBlockingFlush) {
        return true;
    }
    std::lock_guard<std::mutex> lock(_flushMutex);
    return _flushQueue.empty();
}

void TcpSocket::RunFlushWorker()
{
    sys::NameThread("ORVUN_TCP_FLUSH");
    // Two buffers take turns: the worker takes the whole queue and leaves its
    // emptied previous batch in its place, so a steady stream of flushes stops
    // reallocating (and faulting in fresh pages) once both have grown. A large
    // batch is let go after its send, so that a burst does not keep its memory.
    std::vector<unsigned char> batch;
    while (_nonBlockingFlush) {
        {
            std::unique_lock<std::mutex> lock(_flushMutex);
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPollPeriodMs);
            _flushCondition.wait_until(lock, deadline, [this] { return !_nonBlockingFlush || !_flushQueue.empty(); });
            if (!_nonBlockingFlush) {
                break;
            }
            if (_flushQueue.empty()) {
                continue;
            }
            batch.swap(_flushQueue);
        }
        const bool failed = sys::Send(_socket, batch.data(), batch.size()) == -1;
        if (batch.capacity() > kKeptBatchCapacity) {
            std::vector<unsigned char>().swap(batch);
        } else {
            batch.clear();
        }
        if (failed) {
            std::cerr << "TCP Socket send failed (non-blocking)" << std::endl;
            break;
        }
    }
    _nonBlockingFlush = false;
}

// ---------------------------------------------------------------- TcpListener

TcpListener::TcpListener(const std::string& host, unsigned short port, Callback&& callback)
{
    static const int so_reuse = 1;
    static const int so_nodelay = 1;

    Socket::ResolveAddress(host, port);
    _socket = sys::Open(_isIPv6, SOCK_STREAM, IPPROTO_TCP);
    sys::SetOption(_socket, SOL_SOCKET, SO_REUSEADDR, &so_reuse, sizeof(so_reuse));
    sys::SetOption(_socket, SOL_SOCKET, SO_REUSEPORT, &so_reuse, sizeof(so_reuse));
    sys::SetOption(_socket, IPPROTO_TCP, TCP_NODELAY, &so_nodelay, sizeof(so_nodelay));
    if (sys::Bind(_socket, _remoteAddress.get(), AddressLength(_isIPv6)) < 0) {
        throw BindError("TCP Bind failed");
    }
    if (sys::Listen(_socket, kListenBacklog) < 0) {
        throw ListenError("TCP Socket Failed to listen");
    }
    _listenerThread =
        std::make_unique<std::thread>([this, accepted = std::move(callback)] { RunAcceptLoop(accepted); });
}

TcpListener::~TcpListener() { StopThread(_listenerThread, _running); }

std::exception_ptr TcpListener::GetThreadError() const { return _threadError.Get(); }

void TcpListener::RunAcceptLoop(const Callback& callback)
{
    static const int so_nodelay = 1;
    sys::NameThread("ORVUN_TCP_Lisn");
    try {
        while (_running) {
            const int ready = Poll(kPollPeriodMs);
            if (ready == 0) {
                continue;
            }
            if (ready == -1) {
                throw PollError("TCP Socket Listener Poll Error");
            }
            if (ready != 1) {
                ORVUN_ASSERT(!"polled > 1");
            }
            auto peer = MakeRecord(_isIPv6);
            socklen_t length = AddressLength(_isIPv6);
            const int descriptor = sys::Accept(_socket, peer.get(), &length);
            if (descriptor < 0) {
                continue;
            }
            // Accepted connections keep blocking sends without a time-out.
            sys::SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, &so_nodelay, sizeof(so_nodelay));
            std::unique_ptr<TcpSocket> connection(new TcpSocket(descriptor, std::move(peer), _isIPv6));
            callback(std::move(connection));
        }
    } catch (...) {
        // Never let a failure end the process; the owner reads it instead.
        _threadError.Set(std::current_exception());
    }
}

// ---------------------------------------------------------------- UdpSocket

UdpSocket::UdpSocket(const std::string& host, unsigned short port, unsigned long size) : Socket(size)
{
    Socket::ResolveAddress(host, port);
    _socket = sys::Open(_isIPv6, SOCK_DGRAM, IPPROTO_UDP);
    _ownsSocket = true;
    _addressLength = AddressLength(_isIPv6);
}

UdpSocket::UdpSocket(const UdpSocket& src) : Socket()
{
    _isIPv6 = src._isIPv6;
    _socket = src._socket;
    _addressLength = src._addressLength;
    _remoteAddress = MakeRecord(_isIPv6);
    ORVUN_ASSERT(src._incomingAddress);
    std::memcpy(_remoteAddress.get(), src._incomingAddress.get(),
                std::min<socklen_t>(_addressLength, AddressLength(_isIPv6)));
}

UdpSocket::~UdpSocket()
{
    StopReceiving();
    if (!_ownsSocket) {
        _socket = -1;
    }
    _incomingAddress.reset();
}

void UdpSocket::StopReceiving() noexcept { StopThread(_receiveThread, _running); }

void UdpSocket::Read(unsigned char*, unsigned long) { throw filesystem::StreamIsWriteOnly(); }

void UdpSocket::Flush()
{
    const unsigned long size = GetBufferSize();
    if (size == 0) {
        return;
    }
    CountBytes(Name::UdpTx, static_cast<double>(size));
    SendDatagram(_socket, _buffer, _remoteAddress.get(), AddressLength(_isIPv6));
    Stream::Flush();
}

std::string UdpSocket::GetIncomingAddress() const { return AddressText(_incomingAddress.get(), _isIPv6); }

unsigned short UdpSocket::GetIncomingPort() const
{
    return _incomingAddress ? ntohs(PortOf(_incomingAddress.get())) : 0;
}

void UdpSocket::Receive(Callback&& callback)
{
    if (_receiveThread) {
        throw std::logic_error("UdpSocket::Receive: the socket already has a receive thread");
    }
    // The loop gets its own copy; the caller's function object stays as it is.
    _receiving = true;
    try {
        _receiveThread = std::make_unique<std::thread>([this, handler = callback] { RunReceiveLoop(handler); });
    } catch (...) {
        _receiving = false;
        throw;
    }
}

std::exception_ptr UdpSocket::GetThreadError() const { return _threadError.Get(); }

bool UdpSocket::IsReceiving() const noexcept { return _receiving; }

void UdpSocket::RunReceiveLoop(const Callback& callback)
{
    // Cleared on every way out of the loop, after a thread error is stored, so
    // that an owner who sees the loop ended also sees why.
    struct Ended {
        std::atomic<bool>& receiving;
        ~Ended() { receiving = false; }
    } ended{_receiving};
    sys::NameThread("ORVUN_UDP_Lisn");
    try {
        Profiler::SetThreadName("ORVUN_UDP_Lisn");
        while (_running) {
            Profiler scope(ProfilerName(Name::UdpListener), true);
            const int ready = Poll(kPollPeriodMs);
            if (!_running) {
                return;
            }
            if (ready == 0) {
                continue;
            }
            if (ready == -1) {
                throw PollError("UDP Socket Listener Poll Error");
            }
            if (ready != 1) {
                ORVUN_ASSERT(!"polled > 1");
            }
            std::vector<unsigned char> datagram(kDatagramCapacity);
            if (!_incomingAddress) {
                _incomingAddress = MakeRecord(_isIPv6);
            }
            const auto received = static_cast<std::int32_t>(
                sys::ReceiveFrom(_socket, datagram.data(), kDatagramCapacity, _incomingAddress.get(), &_addressLength));
            if (received < 1) {
                return;
            }
            CountBytes(Name::UdpRx, static_cast<double>(received));
            datagram.resize(static_cast<size_t>(received));
            callback(*this, ReadOnlyStream(std::move(datagram)));
        }
    } catch (...) {
        // Never let a failure end the process; the owner reads it instead.
        _threadError.Set(std::current_exception());
    }
}

// ---------------------------------------------------------------- UdpListener

UdpListener::UdpListener(const std::string& host, unsigned short port, Callback&& callback) : UdpSocket(host, port, 0)
{
    static const int so_reuse = 1;
    sys::SetOption(_socket, SOL_SOCKET, SO_REUSEADDR, &so_reuse, sizeof(so_reuse));
    sys::SetOption(_socket, SOL_SOCKET, SO_REUSEPORT, &so_reuse, sizeof(so_reuse));
    if (sys::Bind(_socket, _remoteAddress.get(), AddressLength(_isIPv6)) < 0) {
        throw BindError("UDP Bind failed");
    }
    Receive(std::move(callback));
}

UdpListener::~UdpListener() { StopReceiving(); }

void UdpListener::SendTo(const std::string& host, unsigned short port)
{
    const unsigned long size = GetBufferSize();
    if (size == 0) {
        return;
    }
    CountBytes(Name::UdpTx, static_cast<double>(size));

    // Built for this call only, in the listener's family whatever `host` says.
    sockaddr_in6 destination{};
    auto* record = reinterpret_cast<sockaddr*>(&destination);
    record->sa_family = _isIPv6 ? AF_INET6 : AF_INET;
    PortOf(record) = htons(port);
    if (_isIPv6 && IsIPv6Literal(host)) {
        static_cast<void>(::inet_pton(AF_INET6, host.c_str(), AddressOf(record, true)));
    } else {
        const Lookup found = LookUp(host);
        if (found.family != (_isIPv6 ? AF_INET6 : AF_INET)) {
            throw SendError(_isIPv6 ? "UDP Address is not IPv6" : "UDP Address is not IPv4");
        }
        std::memcpy(AddressOf(record, _isIPv6), found.address, found.length);
    }
    SendDatagram(_socket, _buffer, record, AddressLength(_isIPv6));
    Stream::Flush();
}

} // namespace orvun::net
