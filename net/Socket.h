// IPv4 and IPv6 TCP and UDP sockets that behave as buffered byte streams.
//
// Every socket is an `orvun::filesystem::Stream`: `Write` only buffers, `Flush`
// puts the buffer on the wire with one system call (one datagram for UDP),
// and a failed flush keeps the buffer. No destructor flushes.
//
// Threads: the caller's threads construct, use and destroy the objects; a
// given object is used by one thread at a time unless a method says
// otherwise. The listeners and the UDP receive loop run one thread each, the
// flush worker one per `TcpSocket` that asks for it; each destructor stops and
// joins its thread before it closes the descriptor.
//
// Errors: every failure is an exception derived from `SocketError` (itself a
// std::runtime_error), apart from the standard library's own
// (std::system_error when a thread cannot start, allocation failures).
#pragma once

#include "cpu/Profiler.h"
#include "filesystem/Stream.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#define ORVUN_NET_API __attribute__((visibility("default")))

namespace orvun::net {

// Base of every failure the network classes report; never thrown itself.
class ORVUN_NET_API SocketError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~SocketError() override {}
};
// A host text that the name lookup does not find.
class ORVUN_NET_API ResolveError : public SocketError {
public:
    using SocketError::SocketError;
    ~ResolveError() override {}
};
// `bind` failed in a listener's constructor.
class ORVUN_NET_API BindError : public SocketError {
public:
    using SocketError::SocketError;
    ~BindError() override {}
};
// `listen` failed in `TcpListener`'s constructor.
class ORVUN_NET_API ListenError : public SocketError {
public:
    using SocketError::SocketError;
    ~ListenError() override {}
};
// `connect` failed (refused, unreachable, time-out) in `TcpSocket`'s constructor.
class ORVUN_NET_API ConnectionError : public SocketError {
public:
    using SocketError::SocketError;
    ~ConnectionError() override {}
};
// `TcpSocket::Read` found the connection closed by the peer.
class ORVUN_NET_API Disconnected : public SocketError {
public:
    using SocketError::SocketError;
    ~Disconnected() override {}
};
// `TcpSocket::Read` failed.
class ORVUN_NET_API ReceiveError : public SocketError {
public:
    using SocketError::SocketError;
    ~ReceiveError() override {}
};
// A send failed, or `UdpListener::SendTo` got a destination of the wrong family.
class ORVUN_NET_API SendError : public SocketError {
public:
    using SocketError::SocketError;
    ~SendError() override {}
};
// `poll` failed on a listener's thread (kept for `GetThreadError`).
class ORVUN_NET_API PollError : public SocketError {
public:
    using SocketError::SocketError;
    ~PollError() override {}
};

namespace detail {
// Internal, not for users. The exception that ended a library thread, written
// once by that thread and read by any thread.
class ThreadError {
public:
    void Set(std::exception_ptr error)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _error = std::move(error);
    }
    std::exception_ptr Get() const
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _error;
    }

private:
    mutable std::mutex _mutex;
    std::exception_ptr _error;
};
} // namespace detail

// What every socket has: a descriptor, the peer (or bind) address record and
// its family. Owns the descriptor and closes it on destruction. Movable, not
// copyable.
class ORVUN_NET_API Socket : public filesystem::Stream {
public:
    // No descriptor, no address.
    Socket();
    // As Socket(), on a stream given the capacity hint `size`.
    explicit Socket(unsigned long size) : filesystem::Stream(size) {}
    // Takes the descriptor and address record; the new socket's buffer starts
    // empty and `other` is left without descriptor or record.
    Socket(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket& operator=(Socket&&) = delete;
    // Closes the descriptor if there is one. Never flushes.
    ~Socket() override;

    // Waits up to `timeout` ms (negative: no limit) for the descriptor to be
    // readable. Returns poll's result: 1 ready (readable, closed by the peer,
    // or in error), 0 timed out, -1 failed (errno as poll left it). Throws
    // nothing. Blocks the calling thread; use it before a `Read` that must not
    // block for long.
    int Poll(int timeout);
    // As `Poll(timeout)`, then peeks up to `size` bytes when ready (they stay
    // queued): -1 when the peek finds the connection closed by the peer.
    int Poll(int timeout, unsigned long size);

    // Numeric text of the address record; "" without one.
    std::string GetRemoteAddress() const;
    // Port of the address record in host order; 0 without one.
    unsigned short GetRemotePort() const;
    // Port the descriptor is bound to (getsockname); 0 without a descriptor.
    unsigned short GetLocalPort() const;

    // Replaces the address record with `host` and `port`: text with a colon is
    // an IPv6 literal (invalid text gives the all-zero address), anything else
    // is looked up for IPv4. Throws ResolveError and then changes nothing.
    // The constructors call it before the descriptor exists; calling it later
    // does not change the descriptor's family.
    virtual void ResolveAddress(const std::string& host, unsigned short port);

protected:
    std::shared_ptr<sockaddr> _remoteAddress;
    bool _isIPv6 = false;
    int _socket = -1;
};

class TcpListener;

// One connected TCP byte stream. `Flush` sends the buffer with one `send`
// (or, after `SetNonBlockingFlush`, hands it to a worker thread); `Read` waits
// for an exact number of bytes. Neither copyable nor movable: accepted
// connections come as std::unique_ptr<TcpSocket>.
//
// Threads: the connection is full duplex. One thread at a time writes
// (Write, Flush, SetNonBlockingFlush) and one thread at a time reads (Read,
// ReadSome, Poll); the two may be different threads working at the same time,
// since reading touches neither the buffer nor the flush queue. `IsIdle`,
// `Shutdown` and `SetNoDelay` may be called from any thread; the destructor
// runs when no other thread uses the socket any more.
class ORVUN_NET_API TcpSocket : public Socket {
public:
    // Connects to `host`:`port`, blocking the calling thread meanwhile. `size`
    // is the buffer's capacity hint; `timeout` bounds the connection attempt in
    // milliseconds (0: none). Throws ResolveError or ConnectionError ("TCP
    // Connection failed"), with nothing left open. Nagle's algorithm stays on:
    // write a whole request, then Flush once, or the second part of a split
    // request can wait for the peer's delayed acknowledgement (about 40 ms);
    // `SetNoDelay(true)` switches it off.
    TcpSocket(const std::string& host, unsigned short port, unsigned long size, long timeout);
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;
    // Stops the flush worker (bytes it has not taken are dropped), then
    // closes the connection. Never flushes.
    ~TcpSocket() override;

    // Fills `data` with exactly `size` bytes, blocking the calling thread until
    // they have arrived. Throws Disconnected when the peer closes first, or
    // after `Shutdown` (the bytes received so far are in `data`), and
    // ReceiveError when `recv` fails (a reset, a signal).
    void Read(unsigned char* data, unsigned long size) override;
    // Waits until at least one byte has arrived, then copies what one `recv`
    // gives, at most `size` bytes, into `data` and returns the count. Returns
    // 0 at end of stream (the peer has closed its sending side, or `Shutdown`
    // was called), and at once without a system call when `size` is 0. Throws
    // ReceiveError ("TCP Socket Faild to RECV") when `recv` fails, e.g. on a
    // reset; interruptions by signals are retried. Keeps no bytes of its own,
    // so it mixes freely with `Read`:
    //     while ((n = socket.ReadSome(buffer, sizeof buffer)) > 0) { ... }
    unsigned long ReadSome(unsigned char* data, unsigned long size);
    // Sends the buffered bytes with one `send` and empties the buffer; a short
    // send is not retried. Throws SendError ("TCP Socket send failed: " and
    // errno) and keeps the buffer; `Stream::Flush()` drops those bytes
    // instead. In worker mode it only queues the bytes. Records the profiler
    // extra "TCP TX".
    // A signal handled by the flushing thread (any handler, SA_RESTART or not)
    // can end a blocked `send` early: it returns the count sent so far, and the
    // rest of the buffer is dropped without an error. Keep handled signals out
    // of threads that flush large buffers (block them with pthread_sigmask and
    // take them in one thread with sigwait).
    void Flush() override;
    // Shuts the connection down in both directions (shutdown(SHUT_RDWR)). Any
    // thread may call it at any time, also while another thread is blocked on
    // this socket: `Read` then throws Disconnected, `ReadSome` returns 0,
    // `Poll` reports the socket ready, and `Flush` throws SendError or returns
    // after a short send whose rest is dropped; the flush worker's next send
    // fails. The descriptor stays open until the destructor, so no thread ever
    // uses a closed or reused descriptor number. Calling it again, or after the
    // peer has gone, does nothing. Throws nothing.
    void Shutdown() noexcept;
    // Switches Nagle's algorithm off (`on` true: TCP_NODELAY set) or back on.
    // Client sockets start with it on, accepted sockets with it off. Any
    // thread; throws nothing (a refused option is ignored).
    void SetNoDelay(bool on) noexcept;
    // Starts the flush worker "ORVUN_TCP_FLUSH": from now on `Flush` queues
    // and the worker sends everything queued with one `send`. A failed worker
    // send writes one line to stderr and returns the socket to direct mode.
    // Does nothing when a worker was already started. Throws std::system_error
    // when the thread cannot start (the socket stays in direct mode).
    void SetNonBlockingFlush();
    // True when no flushed byte is waiting for the worker (always in direct
    // mode). A batch the worker has taken may still be in `send`; the
    // destructor waits for that one, so destroying the socket once this is
    // true loses nothing. Any thread may call it.
    bool IsIdle();

protected:
    std::atomic<bool> _nonBlockingFlush{false};
    std::mutex _flushMutex;
    std::condition_variable _flushCondition;
    std::vector<unsigned char> _flushQueue;
    std::thread _flushThread;

private:
    friend class TcpListener;
    // An accepted connection: takes `descriptor` and the peer record.
    TcpSocket(int descriptor, std::shared_ptr<sockaddr> peer, bool isIPv6) noexcept;
    void RunFlushWorker();
};

// Listens on a host and port and hands every accepted connection, with
// TCP_NODELAY set, to `callback` on its thread "ORVUN_TCP_Lisn", one at a
// time. The callback owns the socket it is given; a socket it does not keep is
// closed when it returns. Neither copyable nor movable.
//
// Threads: constructor, destructor and accessors on the owner's thread; the
// callback on the accept thread, which must not destroy the listener. A thread
// the callback starts inherits the name "ORVUN_TCP_Lisn"; name it yourself.
class ORVUN_NET_API TcpListener : public Socket {
public:
    using Callback = std::function<void(std::unique_ptr<TcpSocket>)>;

    // Binds (address and port reuse; port 0: the system chooses, see
    // GetLocalPort), listens and starts the accept thread, which owns
    // `callback` from then on. Because of SO_REUSEPORT a second listener of the
    // same user on a busy port starts without error and the kernel shares the
    // incoming connections between the two. Throws ResolveError, BindError ("TCP Bind
    // failed"), ListenError or std::system_error, with nothing left open.
    // After ResolveError, BindError or ListenError `callback` is untouched;
    // when the thread cannot start it has already been moved and is gone.
    TcpListener(const std::string& host, unsigned short port, Callback&& callback);
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;
    // Stops and joins the accept thread (waits for a running callback), then
    // closes the listening descriptor. Accepted sockets stay open.
    ~TcpListener() override;

    // The exception that ended the accept loop (a PollError, or what the
    // callback threw); null while the loop runs. Any thread, any time.
    std::exception_ptr GetThreadError() const;

protected:
    std::unique_ptr<std::thread> _listenerThread;
    std::atomic<bool> _running{true};

private:
    void RunAcceptLoop(const Callback& callback);
    detail::ThreadError _threadError;
};

// A write-only datagram socket: `Flush` sends the buffer as one datagram to the
// peer given at construction. `Receive` starts a thread that hands each
// incoming datagram to a callback. A copy of a socket, made inside that
// callback, is a reply socket: it borrows the descriptor (and must not outlive
// the original) and its peer is the datagram's sender.
//
// Threads: one thread at a time writes and flushes a given object; the receive
// callback runs on the thread "ORVUN_UDP_Lisn".
class ORVUN_NET_API UdpSocket : public Socket {
public:
    using Callback = std::function<void(const UdpSocket&, filesystem::ReadOnlyStream&&)>;

    // An unbound, unconnected UDP socket of the family of `host`, sending to
    // `host`:`port`. `size` is the buffer's capacity hint. Throws ResolveError.
    // The first Flush gives it a local port (GetLocalPort is 0 before), on
    // which `Receive` then gets the answers.
    UdpSocket(const std::string& host, unsigned short port, unsigned long size);
    // A reply socket to the sender of the datagram `src` received last. Call it
    // on the receive thread; `src` must have received (else the process aborts).
    UdpSocket(const UdpSocket& src);
    UdpSocket& operator=(const UdpSocket&) = delete;
    // Stops and joins the receive thread, then closes the descriptor unless it
    // is borrowed. Never flushes.
    ~UdpSocket() override;

    // Always throws filesystem::StreamIsWriteOnly.
    void Read(unsigned char* data, unsigned long size) override;
    // Sends the buffer as one datagram to the peer and empties it. Throws
    // SendError ("... with EMSGSIZE" for an oversized datagram, "... with
    // errno N" otherwise) and keeps the buffer. Records "UDP TX".
    void Flush() override;

    // Sender of the datagram being handled, "" / 0 before the first one and in
    // copies. Call them from the receive callback.
    std::string GetIncomingAddress() const;
    unsigned short GetIncomingPort() const;

    // Starts the receive thread with a copy of `callback`. Each datagram of up
    // to 1400 bytes (longer ones are cut) reaches the callback inside the
    // profiler scope "UDP Listener", with "UDP RX" recorded. A zero-length
    // datagram or a failed receive ends the loop. Throws std::logic_error when
    // a receive thread exists already, std::system_error when it cannot start.
    // The callback runs on the receive thread, one datagram at a time; the
    // thread owns its copy and destroys it when it ends. The stream it gets is
    // destroyed when it returns. Threads the callback starts inherit the name
    // "ORVUN_UDP_Lisn".
    void Receive(Callback&& callback);

    // The exception that ended the receive loop (a PollError, or what the
    // callback threw); null otherwise, also when a zero-length datagram or a
    // failed receive ended it. Any thread, any time.
    std::exception_ptr GetThreadError() const;
    // True from `Receive` until the receive loop has ended, whatever ended it:
    // a zero-length datagram, a failed receive, an exception (see
    // GetThreadError) or the destructor. A listener whose loop has ended
    // receives nothing more; build a new one on the same port. Any thread, any
    // time.
    bool IsReceiving() const noexcept;

protected:
    // Clears `_running` and joins the receive thread, if any.
    void StopReceiving() noexcept;

    std::shared_ptr<sockaddr> _incomingAddress;
    socklen_t _addressLength = 0;
    std::unique_ptr<std::thread> _receiveThread;
    std::atomic<bool> _running{true};
    bool _ownsSocket = false;

private:
    void RunReceiveLoop(const Callback& callback);
    detail::ThreadError _threadError;
    std::atomic<bool> _receiving{false};
};

// A UDP socket bound to a host and port (address and port reuse) whose
// receive loop runs from construction; the callback receives the listener
// itself. `SendTo` sends the buffer to any host of the listener's family.
//
// Threads: as UdpSocket; the callback must not destroy the listener.
class ORVUN_NET_API UdpListener : public UdpSocket {
public:
    // Binds `host`:`port` (port 0: the system chooses; see GetLocalPort) and
    // starts the receive thread "ORVUN_UDP_Lisn" with `callback`. Because of
    // SO_REUSEPORT a second listener of the same user on a busy port starts
    // without error and takes part of the datagrams. Throws
    // ResolveError, BindError ("UDP Bind failed") or std::system_error, with
    // nothing left open or running.
    UdpListener(const std::string& host, unsigned short port, Callback&& callback);
    // Stops and joins the receive thread (waits for a running callback and at
    // most one 100 ms poll), then closes the descriptor. Reply sockets copied
    // from it must be gone.
    ~UdpListener() override;

    // Sends the buffer as one datagram to `host`:`port` from the bound port
    // and empties it. The family is the listener's: on an IPv6 listener text
    // with a colon is an IPv6 literal and anything else is refused unless the
    // IPv4 lookup gives an IPv6 address, so an IPv6 listener bound to "::"
    // reaches an IPv4 peer only through IPv4-mapped text ("::ffff:127.0.0.1").
    // Throws ResolveError or SendError; the buffer is kept then (`Stream::Flush()`
    // drops it). Records "UDP TX".
    void SendTo(const std::string& host, unsigned short port);
};

} // namespace orvun::net
