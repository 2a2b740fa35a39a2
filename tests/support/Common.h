// What most tests share: the library's sockets, the raw peers, bounded waits,
// a queue between a library thread and the test, byte helpers and the two
// loopback families.
// Including it puts the test under the leak guard.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <ostream>
#include <random>
#include <string>

#include "net/Socket.h"
#include "support/Process.h"
#include "support/RawPeer.h"

namespace support {

using namespace rawpeer;

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

private:
    std::mutex _mutex;
    std::condition_variable _condition;
    std::deque<T> _items;
};

inline Bytes RandomBytes(size_t size, unsigned seed = 12345)
{
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(generator());
    }
    return bytes;
}

// An int socket option of `fd`; -1 when it cannot be read.
inline int OptionOf(int fd, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof(value);
    return getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

inline Bytes ToBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

template <typename Stream> void Put(Stream& stream, const Bytes& bytes) { stream.Write(bytes.data(), bytes.size()); }

template <typename Stream> Bytes Buffered(const Stream& stream)
{
    const unsigned long size = stream.GetBufferSize();
    return size == 0 ? Bytes{} : Bytes(stream.GetBufferData(), stream.GetBufferData() + size);
}

// A library client connected to a raw listener, and the raw accepted end.
// `window` shrinks the listener's receive buffer first.
struct Connection {
    Connection(bool ipv6, const char* host, long timeout = 0, int window = 0)
    {
        listener = RawTcpListener(ipv6, port);
        if (window > 0) {
            setsockopt(listener.Get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof(window));
        }
        client = std::make_unique<orvun::net::TcpSocket>(host, port, 0, timeout);
        peer = AcceptWithin(listener.Get());
        clientFd = FindTcpDescriptor(client->GetLocalPort(), port);
        EXPECT_NE(clientFd, -1);
    }
    Fd listener;
    unsigned short port = 0;
    std::unique_ptr<orvun::net::TcpSocket> client;
    Fd peer;
    int clientFd = -1; // the client's own descriptor
};

// The loopback address of a family: the text given to the library, which is
// also the text it reports.
struct Family {
    bool ipv6;
    const char* host;
};
inline const Family kFamilies[] = {{false, "127.0.0.1"}, {true, "::1"}};
inline std::string FamilyName(const testing::TestParamInfo<Family>& info) { return info.param.ipv6 ? "IPv6" : "IPv4"; }
inline void PrintTo(const Family& family, std::ostream* out) { *out << family.host; }

// Tests over both families; V6() and Host() give the parameter's.
class FamilyTest : public testing::TestWithParam<Family> {
protected:
    bool V6() const { return GetParam().ipv6; }
    const char* Host() const { return GetParam().host; }
};

} // namespace support
