// Thread-per-connection bookkeeping for servers built on TcpListener, and the
// signal handling that lets them stop at once.
//
//   int main() {
//       BlockStopSignals();                          // before any thread starts
//       ConnectionThreads connections(Serve);        // Serve(Connection&) runs per connection
//       TcpListener listener(host, port, [&](auto socket) { connections.Start(std::move(socket)); });
//       while (!WaitForStopSignal(std::chrono::milliseconds(250))) {
//           connections.Reap();
//           connections.ShutdownIdle(std::chrono::seconds(30));
//       }
//   }   // the listener stops first, then `connections` shuts down and joins every thread
//
// Threads: `Start` runs on the accept thread; everything else on any thread.
// Header-only, so that each example stays one file to copy.
#pragma once

#include "net/Socket.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <pthread.h>

namespace examples {

// Blocks SIGINT and SIGTERM in the calling thread, and so in every thread it
// starts later: no handler ever interrupts a send or a receive, and only
// WaitForStopSignal takes them.
inline void BlockStopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Waits up to `limit` for SIGINT or SIGTERM (blocked by BlockStopSignals);
// true when one came.
inline bool WaitForStopSignal(std::chrono::milliseconds limit)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
    const timespec timeout{static_cast<time_t>(seconds.count()),
                           static_cast<long>(std::chrono::nanoseconds(limit - seconds).count())};
    return sigtimedwait(&set, nullptr, &timeout) > 0;
}

// One live connection, as its handler sees it.
class Connection {
public:
    explicit Connection(std::unique_ptr<orvun::net::TcpSocket> socket) : _socket(std::move(socket)) {}

    orvun::net::TcpSocket& Socket() { return *_socket; }
    // Marks progress (a request read, a chunk sent), which keeps ShutdownIdle away.
    void Touch() { _lastActivity = Clock::now().time_since_epoch().count(); }

private:
    friend class ConnectionThreads;
    using Clock = std::chrono::steady_clock;

    std::unique_ptr<orvun::net::TcpSocket> _socket;
    std::atomic<Clock::rep> _lastActivity{Clock::now().time_since_epoch().count()};
    std::atomic<bool> _finished{false};
    std::thread _thread;
};

// Runs `handler` on a thread of its own for every connection, joins threads
// whose connection has ended, and can shut every connection down from
// outside: `Shutdown` wakes a thread blocked in Read, ReadSome, Poll or a
// Flush to a client that stopped reading, while the socket stays owned here.
class ConnectionThreads {
public:
    using Handler = std::function<void(Connection&)>;

    explicit ConnectionThreads(Handler handler) : _handler(std::move(handler)) {}
    ConnectionThreads(const ConnectionThreads&) = delete;
    ConnectionThreads& operator=(const ConnectionThreads&) = delete;
    // Shuts every connection down and joins every thread.
    ~ConnectionThreads()
    {
        std::list<Connection> all;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stopping = true;
            for (Connection& connection : _live) {
                connection._socket->Shutdown();
            }
            all.splice(all.end(), _live);
        }
        for (Connection& connection : all) {
            connection._thread.join();
        }
    }

    // Hands `socket` to a new thread; joins finished threads first. A server
    // that is stopping closes the connection instead. Throws std::system_error
    // when no thread can be started (the connection is then closed).
    void Start(std::unique_ptr<orvun::net::TcpSocket> socket)
    {
        Reap();
        std::lock_guard<std::mutex> lock(_mutex);
        if (_stopping) {
            return;
        }
        Connection& connection = _live.emplace_back(std::move(socket));
        try {
            connection._thread = std::thread([this, &connection] { Run(connection); });
        } catch (...) {
            _live.pop_back();
            throw;
        }
    }

    // Joins the threads whose connection has ended and frees their sockets.
    void Reap()
    {
        std::list<Connection> finished;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            for (auto it = _live.begin(); it != _live.end();) {
                auto next = std::next(it);
                if (it->_finished) {
                    finished.splice(finished.end(), _live, it);
                }
                it = next;
            }
        }
        for (Connection& connection : finished) {
            connection._thread.join();
        }
    }

    // Shuts down every connection that has not been touched for `limit`.
    void ShutdownIdle(std::chrono::steady_clock::duration limit)
    {
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        std::lock_guard<std::mutex> lock(_mutex);
        for (Connection& connection : _live) {
            if (now - connection._lastActivity > limit.count()) {
                connection._socket->Shutdown();
            }
        }
    }

    // Connections whose thread has not been reaped yet.
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _live.size();
    }

private:
    void Run(Connection& connection)
    {
        pthread_setname_np(pthread_self(), "connection");
        try {
            _handler(connection);
        } catch (const std::exception&) {
            // A connection that fails ends alone; the server goes on.
        }
        connection._finished = true;
    }

    Handler _handler;
    std::mutex _mutex;
    std::list<Connection> _live; // nodes do not move, so threads keep their Connection&
    bool _stopping = false;
};

} // namespace examples
