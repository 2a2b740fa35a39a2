// orvun-cat: a small netcat built on OrvunNet.
//
// Standard input goes to the socket (one Write and one Flush per chunk read),
// what arrives goes to standard output. TCP or UDP, connecting or listening,
// IPv4 or IPv6 as the host text says. Diagnostics go to standard error.
#include "cpu/Profiler.h"
#include "net/Socket.h"
#include "ServerOptions.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <getopt.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

using examples::UsageError;
using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;
using orvun::net::UdpListener;
using orvun::net::UdpSocket;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// Stdin chunks: a TCP chunk is one send; a UDP chunk is one datagram, kept
// within what an OrvunNet receiver takes whole (1400 bytes).
constexpr size_t kTcpChunk = size_t{64} * 1024;
constexpr size_t kUdpChunk = 1400;
constexpr int kStepMs = 20;

const char* const kUsage = R"(Usage: orvun-cat [options] HOST PORT
       orvun-cat -l [options] HOST PORT

Copies standard input to a TCP or UDP socket and what arrives to standard output.

  HOST        a name such as localhost, dotted IPv4 text, or IPv6 text (with a
              colon, brackets allowed: ::1 or [::1]); it picks IPv4 or IPv6
  PORT        0-65535; when listening, 0 lets the system choose

Options:
  -l, --listen         listen on HOST PORT instead of connecting; the chosen
                       port is printed on standard error. TCP serves the first
                       connection only; UDP answers the first sender.
  -u, --udp            UDP instead of TCP: every chunk of input (at most 1400
                       bytes) is one datagram
  -w, --wait SECONDS   give up connecting after SECONDS (TCP; default 10)
  -q, --quit SECONDS   after the end of input, quit once nothing has arrived
                       for SECONDS. Without it, TCP runs until the peer closes
                       and UDP until interrupted.
      --stats          print the profiler's readout on standard error at exit
                       (TCP TX, UDP TX, UDP RX; TCP RX is counted by orvun-cat)
  -v, --verbose        report connections and senders on standard error
  -h, --help           show this help

Exit status: 0 when the session ended normally, 1 when it failed (host not
resolved, connection refused, send or receive failed), 2 for bad arguments,
128+N when stopped by signal N.
)";

struct Options {
    bool listen = false;
    bool udp = false;
    bool stats = false;
    bool verbose = false;
    bool help = false;
    long waitMs = 10000;
    std::optional<long> quitMs;
    std::string host;
    unsigned short port = 0;
};

// A failure of the session: exit status 1.
struct SessionError {
    std::string message;
};

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void OnSignal(int number) { stopSignal = number; }

// The tool, unlike the library, owns the process: an interrupt ends the
// session cleanly so that --stats still prints.
void InstallSignalHandlers()
{
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

long ParseSeconds(const char* option, const char* text)
{
    char* end = nullptr;
    errno = 0;
    const double seconds = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(seconds >= 0.0) || seconds > 86400.0) {
        throw UsageError{std::string(option) + " wants a number of seconds from 0 to 86400, not '" + text + "'"};
    }
    return static_cast<long>(seconds * 1000.0);
}

Options ParseArguments(int argc, char** argv)
{
    enum { kStats = 1000 };
    const option longOptions[] = {
        {"listen", no_argument, nullptr, 'l'},     {"udp", no_argument, nullptr, 'u'},
        {"wait", required_argument, nullptr, 'w'}, {"quit", required_argument, nullptr, 'q'},
        {"stats", no_argument, nullptr, kStats},   {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},       {nullptr, 0, nullptr, 0},
    };
    Options options;
    opterr = 0;
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): arguments are parsed before any thread starts
        const int choice = getopt_long(argc, argv, "luw:q:vh", longOptions, nullptr);
        if (choice == -1) {
            break;
        }
        switch (choice) {
        case 'l':
            options.listen = true;
            break;
        case 'u':
            options.udp = true;
            break;
        case 'w':
            options.waitMs = ParseSeconds("-w", optarg);
            break;
        case 'q':
            options.quitMs = ParseSeconds("-q", optarg);
            break;
        case 'v':
            options.verbose = true;
            break;
        case kStats:
            options.stats = true;
            break;
        case 'h':
            options.help = true;
            return options;
        default:
            if (optopt == 'w' || optopt == 'q') {
                throw UsageError{std::string("-") + static_cast<char>(optopt) + " needs a number of seconds"};
            }
            throw UsageError{
                "unknown option '" +
                (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) + "'"};
        }
    }
    if (argc - optind != 2) {
        throw UsageError{argc - optind < 2 ? "HOST and PORT are required" : "too many arguments"};
    }
    options.host = examples::ParseHost(argv[optind], "HOST is empty");
    options.port = examples::ParsePort(argv[optind + 1], "PORT must be a number");
    if (!options.listen && options.port == 0) {
        throw UsageError{"cannot connect to port 0"};
    }
    return options;
}

// strerror's text without its shared buffer (the receive thread reports too).
std::string ErrorText(int error) { return std::generic_category().message(error); }

void Note(const std::string& text) { std::cerr << "orvun-cat: " << text << '\n'; }

std::int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Writes all of `size` bytes to standard output.
void WriteOut(const unsigned char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(STDOUT_FILENO, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw SessionError{std::string("cannot write to standard output: ") + ErrorText(errno)};
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
}

// Standard input, read in chunks once poll says it is ready.
class Input {
public:
    explicit Input(size_t chunk) : _chunk(chunk) {}

    bool Open() const { return _open; }

    // Waits up to `timeoutMs` for input; returns the chunk read, empty when
    // nothing came (then `Open()` tells whether the input has ended).
    std::vector<unsigned char> Take(int timeoutMs)
    {
        pollfd entry{STDIN_FILENO, POLLIN, 0};
        const int ready = ::poll(&entry, 1, timeoutMs);
        if (ready <= 0) {
            if (ready < 0 && errno != EINTR) {
                throw SessionError{std::string("cannot poll standard input: ") + ErrorText(errno)};
            }
            return {};
        }
        std::vector<unsigned char> chunk(_chunk);
        const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                return {};
            }
            throw SessionError{std::string("cannot read standard input: ") + ErrorText(errno)};
        }
        if (count == 0) {
            _open = false;
            _closedAtMs = NowMs();
        }
        chunk.resize(static_cast<size_t>(count));
        return chunk;
    }

    // With -q: input has ended and nothing arrived for the given time since.
    bool QuietLongEnough(const std::optional<long>& quitMs, std::int64_t lastArrivalMs) const
    {
        return !_open && quitMs && NowMs() - std::max(_closedAtMs, lastArrivalMs) >= *quitMs;
    }

private:
    size_t _chunk;
    bool _open = true;
    std::int64_t _closedAtMs = 0;
};

void Rethrow(const std::exception_ptr& error)
{
    if (error) {
        std::rethrow_exception(error);
    }
}

// ------------------------------------------------------------------ TCP

// Copies in both directions on one thread until the peer closes, the input
// has ended and -q has passed, or a signal arrives. One thread, because a
// TcpSocket is used by one thread at a time.
void PumpTcp(TcpSocket& socket, const Options& options)
{
    Input input(kTcpChunk);
    std::int64_t lastArrivalMs = NowMs();
    std::vector<unsigned char> received;
    while (stopSignal == 0 && !input.QuietLongEnough(options.quitMs, lastArrivalMs)) {
        const int ready = socket.Poll(input.Open() ? 0 : kStepMs);
        if (ready == -1) {
            throw SessionError{std::string("cannot poll the connection: ") + ErrorText(errno)};
        }
        if (ready == 1) {
            // Read takes exact lengths, so take what is there byte by byte:
            // a ready socket has at least one byte, or the peer has closed
            // (then Read throws Disconnected).
            received.clear();
            try {
                do {
                    unsigned char byte = 0;
                    socket.Read(&byte, 1);
                    received.push_back(byte);
                } while (received.size() < kTcpChunk && socket.Poll(0) == 1);
            } catch (const orvun::net::Disconnected&) {
                WriteOut(received.data(), received.size());
                Profiler::Extra("TCP RX", static_cast<double>(received.size()));
                if (options.verbose) {
                    Note("the peer closed the connection");
                }
                return;
            }
            WriteOut(received.data(), received.size());
            Profiler::Extra("TCP RX", static_cast<double>(received.size()));
            lastArrivalMs = NowMs();
        }
        if (input.Open()) {
            const std::vector<unsigned char> chunk = input.Take(kStepMs);
            if (!chunk.empty()) {
                socket.Write(chunk.data(), chunk.size());
                socket.Flush();
            }
        }
    }
}

void RunTcpClient(const Options& options)
{
    TcpSocket socket(options.host, options.port, 0, options.waitMs);
    if (options.verbose) {
        Note("connected to " + socket.GetRemoteAddress() + " port " + std::to_string(socket.GetRemotePort()) +
             " from port " + std::to_string(socket.GetLocalPort()));
    }
    PumpTcp(socket, options);
}

void RunTcpServer(const Options& options)
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::unique_ptr<TcpSocket> connection;

    auto listener = std::make_unique<TcpListener>(options.host, options.port, [&](std::unique_ptr<TcpSocket> accepted) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!connection) {
            connection = std::move(accepted);
            arrived.notify_all();
        } // later connections are closed as the callback returns
    });
    Note("listening on " + options.host + " port " + std::to_string(listener->GetLocalPort()));
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!connection && stopSignal == 0) {
            arrived.wait_for(lock, std::chrono::milliseconds(100));
            Rethrow(listener->GetThreadError());
        }
    }
    listener.reset(); // one connection only: stop accepting
    if (!connection) {
        return;
    }
    if (options.verbose) {
        Note("connection from " + connection->GetRemoteAddress() + " port " +
             std::to_string(connection->GetRemotePort()));
    }
    PumpTcp(*connection, options);
}

// ------------------------------------------------------------------ UDP

// What the receive thread shares with the main thread.
struct Arrivals {
    std::atomic<std::int64_t> lastMs{0};
    std::mutex mutex;
    std::string peerHost; // first sender, when listening
    unsigned short peerPort = 0;
    std::exception_ptr outputError;
};

UdpSocket::Callback Printer(Arrivals& arrivals, const Options& options, bool rememberSender)
{
    return [&arrivals, &options, rememberSender](const UdpSocket& receiver, ReadOnlyStream&& datagram) {
        std::lock_guard<std::mutex> lock(arrivals.mutex);
        if (rememberSender && arrivals.peerPort == 0) {
            arrivals.peerHost = receiver.GetIncomingAddress();
            arrivals.peerPort = receiver.GetIncomingPort();
        }
        if (options.verbose) {
            Note(std::to_string(datagram.GetBufferSize()) + " bytes from " + receiver.GetIncomingAddress() + " port " +
                 std::to_string(receiver.GetIncomingPort()));
        }
        try {
            WriteOut(datagram.GetBufferData(), datagram.GetBufferSize());
        } catch (...) {
            arrivals.outputError = std::current_exception();
        }
        arrivals.lastMs = NowMs();
    };
}

// Sends input chunks with `send` until the input has ended and -q has passed,
// or a signal arrives; `ready` says whether there is somebody to send to yet.
template <typename Ready, typename Send>
void PumpUdp(const Options& options, Arrivals& arrivals, const UdpSocket& receiver, Ready ready, Send send)
{
    Input input(kUdpChunk);
    arrivals.lastMs = NowMs();
    while (stopSignal == 0 && !input.QuietLongEnough(options.quitMs, arrivals.lastMs)) {
        {
            std::lock_guard<std::mutex> lock(arrivals.mutex);
            Rethrow(arrivals.outputError);
        }
        Rethrow(receiver.GetThreadError());
        if (!input.Open() || !ready()) {
            ::poll(nullptr, 0, kStepMs);
            continue;
        }
        const std::vector<unsigned char> chunk = input.Take(kStepMs);
        if (!chunk.empty()) {
            send(chunk);
        }
    }
}

void RunUdpClient(const Options& options)
{
    Arrivals arrivals;
    UdpSocket socket(options.host, options.port, 0);
    socket.Receive(Printer(arrivals, options, false));
    PumpUdp(
        options, arrivals, socket, [] { return true; },
        [&socket](const std::vector<unsigned char>& chunk) {
            socket.Write(chunk.data(), chunk.size());
            socket.Flush();
        });
}

void RunUdpServer(const Options& options)
{
    Arrivals arrivals;
    UdpListener listener(options.host, options.port, Printer(arrivals, options, true));
    Note("listening on " + options.host + " port " + std::to_string(listener.GetLocalPort()) + " (UDP)");
    std::string peerHost;
    unsigned short peerPort = 0;
    PumpUdp(
        options, arrivals, listener,
        [&] {
            std::lock_guard<std::mutex> lock(arrivals.mutex);
            peerHost = arrivals.peerHost;
            peerPort = arrivals.peerPort;
            return peerPort != 0;
        },
        [&](const std::vector<unsigned char>& chunk) {
            listener.Write(chunk.data(), chunk.size());
            listener.SendTo(peerHost, peerPort);
        });
}

int Run(const Options& options)
{
    if (options.udp && options.listen) {
        RunUdpServer(options);
    } else if (options.udp) {
        RunUdpClient(options);
    } else if (options.listen) {
        RunTcpServer(options);
    } else {
        RunTcpClient(options);
    }
    return stopSignal != 0 ? 128 + stopSignal : EXIT_SUCCESS;
}

std::string Describe(const Options& options)
{
    return std::string(options.udp ? "UDP " : "TCP ") + options.host + " port " + std::to_string(options.port);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = ParseArguments(argc, argv);
    } catch (const UsageError& error) {
        Note(error.message);
        std::cerr << "Try 'orvun-cat --help'.\n";
        return kExitUsage;
    }
    if (options.help) {
        std::cout << kUsage;
        return EXIT_SUCCESS;
    }
    InstallSignalHandlers();
    if (options.stats) {
        Profiler::SetEnabled(true);
        Profiler::SetThreadName("orvun-cat");
    }

    int status = kExitFailure;
    {
        // Sends on this thread count under this scope.
        Profiler scope("orvun-cat");
        try {
            status = Run(options);
        } catch (const SessionError& error) {
            Note(error.message);
        } catch (const orvun::net::ResolveError& error) {
            Note(error.what());
        } catch (const orvun::net::ConnectionError& error) {
            Note("cannot connect to " + Describe(options) + ": connection refused or timed out (" + error.what() + ")");
        } catch (const orvun::net::BindError& error) {
            Note("cannot listen on " + Describe(options) + ": address in use or not local (" + error.what() + ")");
        } catch (const orvun::net::ReceiveError& error) {
            Note(std::string("connection lost while receiving (") + error.what() + ")");
        } catch (const orvun::net::SendError& error) {
            Note(std::string("connection lost while sending (") + error.what() + ")");
        } catch (const orvun::net::SocketError& error) {
            Note(error.what());
        } catch (const std::exception& error) {
            Note(std::string("unexpected failure: ") + error.what());
        }
    }
    if (options.stats) {
        Profiler::Report(std::cerr);
    }
    return status;
}
