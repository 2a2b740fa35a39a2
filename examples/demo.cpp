// OrvunNet in one screen: a TCP server and a UDP server on loopback, a client
// for each, a few messages each way, then the profiler's byte counts.
//
// TCP (IPv4): the listener hands each accepted connection to a session
// thread, which switches the connection to worker-mode flushing, greets the
// client and echoes one request. Messages are framed as one length byte and
// the text, because TcpSocket::Read waits for an exact number of bytes.
//
// UDP (IPv6): the listener answers a datagram through a reply socket (a copy
// of the receiving socket, made inside the callback), and the main thread
// sends one more datagram with UdpListener::SendTo. The client receives both
// on its own receive thread.
#include "cpu/Profiler.h"
#include "net/Socket.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;
using orvun::net::Disconnected;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

namespace {

constexpr auto kWaitLimit = std::chrono::seconds(5);

// Lines come from several threads; one lock keeps them whole.
void Say(const std::string& who, const std::string& text)
{
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    std::cout << "  " << who << std::string(who.size() < 12 ? 12 - who.size() : 1, ' ') << text << '\n' << std::flush;
}

// One length byte, then the text, written and flushed as one message.
void SendMessage(TcpSocket& socket, const std::string& text)
{
    if (text.size() > 255) {
        throw std::length_error("message longer than 255 bytes");
    }
    const auto length = static_cast<unsigned char>(text.size());
    socket.Write(&length, 1);
    socket.Write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    socket.Flush();
}

std::string ReceiveMessage(TcpSocket& socket)
{
    unsigned char length = 0;
    socket.Read(&length, 1);
    std::string text(length, '\0');
    socket.Read(reinterpret_cast<unsigned char*>(text.data()), length);
    return text;
}

std::string Text(ReadOnlyStream& stream)
{
    std::string text(stream.GetBufferSize(), '\0');
    stream.Read(reinterpret_cast<unsigned char*>(text.data()), text.size());
    return text;
}

// Datagrams that the UDP client's receive thread hands to the main thread.
class Inbox {
public:
    void Put(std::string text)
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _texts.push_back(std::move(text));
        }
        _arrived.notify_all();
    }
    std::string Take()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_arrived.wait_for(lock, kWaitLimit, [this] { return !_texts.empty(); })) {
            throw std::runtime_error("no datagram arrived within 5 seconds");
        }
        std::string text = std::move(_texts.front());
        _texts.pop_front();
        return text;
    }

private:
    std::mutex _mutex;
    std::condition_variable _arrived;
    std::deque<std::string> _texts;
};

// Runs on its own thread with sole ownership of one accepted connection.
void TcpSession(std::unique_ptr<TcpSocket> connection)
{
    Profiler::SetThreadName("tcp-session");
    Profiler scope("TCP session"); // the flushes below add "TCP TX" here
    try {
        connection->SetNonBlockingFlush();
        SendMessage(*connection, "hello from the TCP server");
        const std::string request = ReceiveMessage(*connection);
        Say("tcp server", "got \"" + request + "\", answering through the flush worker");
        SendMessage(*connection, "echo: " + request);
        // The client closes once it has its answer. Destroying the socket
        // earlier could drop bytes the worker has not sent yet.
        unsigned char ignored = 0;
        connection->Read(&ignored, 1);
    } catch (const Disconnected&) {
        Say("tcp server", "client closed the connection");
    } catch (const std::exception& error) {
        Say("tcp server", std::string("session failed: ") + error.what());
    }
}

// Session threads, joined on every way out (a session ends when its client
// closes, so the clients must be gone first).
class Sessions {
public:
    Sessions() = default;
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;
    ~Sessions()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        for (std::thread& session : _threads) {
            session.join();
        }
    }
    void Start(std::unique_ptr<TcpSocket> connection)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _threads.emplace_back(TcpSession, std::move(connection));
    }

private:
    std::mutex _mutex;
    std::vector<std::thread> _threads;
};

void RunTcp(Sessions& sessions)
{
    {
        // The callback runs on the accept thread: it only hands the socket on,
        // so the listener is free to accept the next connection at once.
        TcpListener listener("127.0.0.1", 0, [&sessions](std::unique_ptr<TcpSocket> connection) {
            sessions.Start(std::move(connection));
        });
        const unsigned short port = listener.GetLocalPort();
        Say("tcp server", "listening on 127.0.0.1 port " + std::to_string(port));

        TcpSocket client("127.0.0.1", port, 0, 1000);
        Say("tcp client", "connected from port " + std::to_string(client.GetLocalPort()));
        Say("tcp client", "got \"" + ReceiveMessage(client) + "\"");
        SendMessage(client, "ping over TCP");
        Say("tcp client", "sent \"ping over TCP\"");
        Say("tcp client", "got \"" + ReceiveMessage(client) + "\"");
        if (auto error = listener.GetThreadError()) {
            std::rethrow_exception(error);
        }
    } // the client closes, then the listener stops its accept thread
}

void RunUdp()
{
    UdpListener listener("::1", 0, [](const UdpSocket& receiver, ReadOnlyStream&& datagram) {
        const std::string text = Text(datagram);
        Say("udp server", "got \"" + text + "\" from [" + receiver.GetIncomingAddress() +
                              "]:" + std::to_string(receiver.GetIncomingPort()) + ", answering through a reply socket");
        UdpSocket reply(receiver); // addressed to the sender, shares the listener's port
        const std::string answer = "echo: " + text;
        reply.Write(reinterpret_cast<const unsigned char*>(answer.data()), answer.size());
        reply.Flush(); // "UDP TX" inside this thread's "UDP Listener" scope
    });
    const unsigned short serverPort = listener.GetLocalPort();
    Say("udp server", "listening on ::1 port " + std::to_string(serverPort));

    Inbox inbox;
    UdpSocket client("::1", serverPort, 0);
    client.Receive([&inbox](const UdpSocket&, ReadOnlyStream&& datagram) {
        Profiler::SetThreadName("udp-client"); // tells the two receive threads apart in the readout
        inbox.Put(Text(datagram));
    });

    const std::string ping = "ping over UDP";
    client.Write(reinterpret_cast<const unsigned char*>(ping.data()), ping.size());
    client.Flush(); // the first send gives the client its port
    Say("udp client", "sent \"" + ping + "\" from port " + std::to_string(client.GetLocalPort()));
    Say("udp client", "got \"" + inbox.Take() + "\"");

    const std::string notice = "notice sent with SendTo";
    listener.Write(reinterpret_cast<const unsigned char*>(notice.data()), notice.size());
    listener.SendTo("::1", client.GetLocalPort());
    Say("udp server", "SendTo ::1 port " + std::to_string(client.GetLocalPort()));
    Say("udp client", "got \"" + inbox.Take() + "\"");

    for (const UdpSocket* socket : {static_cast<const UdpSocket*>(&listener), static_cast<const UdpSocket*>(&client)}) {
        if (auto error = socket->GetThreadError()) {
            std::rethrow_exception(error);
        }
    }
}

} // namespace

int main()
{
    Profiler::SetEnabled(true);
    Profiler::SetThreadName("main");
    try {
        std::cout << "OrvunNet demo: TCP over IPv4, UDP over IPv6, all on loopback\n";
        {
            // Session threads are joined only at the end: a joined thread's id can
            // be given to the next new thread, and the profiler keys its records
            // by thread id.
            Sessions sessions;
            Profiler scope("demo"); // the main thread's flushes add their bytes here
            RunTcp(sessions);
            RunUdp();
        } // every listener, client and session is gone: their threads are joined
        std::cout << "\nProfiler readout (per thread, per scope; extras are byte counts):\n";
        Profiler::Report(std::cout);
        // Tests run the demo too: a counter that went missing is a failure.
        orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        for (const char* counter : {"TCP TX", "UDP TX", "UDP RX"}) {
            if (!Profiler::extras.contains(counter)) {
                std::cerr << "orvun-demo: nothing was recorded as \"" << counter << "\"\n";
                return EXIT_FAILURE;
            }
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "orvun-demo: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
