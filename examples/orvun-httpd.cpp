// orvun-httpd: a small static-file HTTP/1.1 server built on OrvunNet.
//
// One thread per connection (ConnectionThreads.h); the accept callback only
// hands the connection over. Requests are read with ReadSome into a buffer
// and parsed by http/Http.h, which also finds the files (never outside the
// folder) and keeps small ones in memory. SIGINT and SIGTERM stop it at once,
// open connections and all; idle connections are shut down after -t seconds.
#include "ConnectionThreads.h"
#include "ServerOptions.h"
#include "http/Http.h"
#include "net/Socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <getopt.h>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

using examples::Connection;
using examples::ConnectionThreads;
using examples::ParseHost;
using examples::ParsePort;
using examples::UsageError;
using orvun::net::TcpListener;
using orvun::net::TcpSocket;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// Before closing after an error, unread bytes are read and dropped for at
// most this long, so that the close does not reset the answer away.
constexpr int kDrainMs = 1000;
constexpr size_t kDrainBytes = size_t{1} << 20;

const char* const kUsage = R"(Usage: orvun-httpd [options] [DIR]

Serves the files under DIR (default: the current folder) over HTTP/1.1 to GET
and HEAD. A folder is served by its index.html. Nothing outside DIR is
served, whatever the request or the symbolic links inside DIR say.

Options:
  -p, --port PORT        port to listen on, 0-65535 (default 8080; 0 lets
                         the system choose); printed on standard error
  -b, --bind HOST        address to listen on (default 127.0.0.1; :: takes
                         IPv6 and IPv4 clients)
  -t, --timeout SECONDS  close connections idle for SECONDS (default 10)
  -h, --help             show this help

Exit status: 0 when stopped by SIGINT or SIGTERM, 1 when it cannot listen,
2 for bad arguments.
)";

struct Options {
    std::string host = "127.0.0.1";
    unsigned short port = 8080;
    std::chrono::milliseconds timeout{10000};
    std::string folder = ".";
    bool help = false;
};

// A failure the user caused (bad arguments): exit status 2.
std::chrono::milliseconds ParseSeconds(const char* text)
{
    char* end = nullptr;
    errno = 0;
    const double seconds = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(seconds > 0.0) || seconds > 86400.0) {
        throw UsageError{std::string("-t wants a number of seconds above 0 and up to 86400, not '") + text + "'"};
    }
    return std::chrono::milliseconds(static_cast<long>(seconds * 1000.0));
}

Options ParseArguments(int argc, char** argv)
{
    const option longOptions[] = {
        {"port", required_argument, nullptr, 'p'},    {"bind", required_argument, nullptr, 'b'},
        {"timeout", required_argument, nullptr, 't'}, {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    opterr = 0;
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): arguments are parsed before any thread starts
        const int choice = getopt_long(argc, argv, "p:b:t:h", longOptions, nullptr);
        if (choice == -1) {
            break;
        }
        switch (choice) {
        case 'p':
            options.port = ParsePort(optarg);
            break;
        case 'b':
            options.host = ParseHost(optarg);
            break;
        case 't':
            options.timeout = ParseSeconds(optarg);
            break;
        case 'h':
            options.help = true;
            return options;
        default:
            if (optopt == 'p' || optopt == 'b' || optopt == 't') {
                throw UsageError{std::string("-") + static_cast<char>(optopt) + " needs a value"};
            }
            throw examples::UnknownOption(argv);
        }
    }
    if (argc - optind > 1) {
        throw UsageError{"too many arguments: one DIR at most"};
    }
    if (argc - optind == 1) {
        options.folder = argv[optind];
    }
    return options;
}

void Note(const std::string& text) { std::cerr << "orvun-httpd: " << text << '\n'; }

// The socket layer of http::Serve on an OrvunNet connection.
class Peer {
public:
    explicit Peer(Connection& connection) : _connection(connection), _socket(connection.Socket()) {}

    size_t Receive(unsigned char* data, size_t size)
    {
        const size_t count = _socket.ReadSome(data, size);
        _connection.Touch();
        return count;
    }
    void Write(const char* data, size_t size) { _socket.Write(reinterpret_cast<const unsigned char*>(data), size); }
    // With the stop signals blocked in every thread, a short send happens only
    // when the connection is shut down; the next Flush then fails.
    bool Flush()
    {
        try {
            _socket.Flush();
        } catch (const orvun::net::SendError&) {
            return false;
        }
        _connection.Touch();
        return true;
    }
    void Drain()
    {
        unsigned char scratch[4096];
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDrainMs);
        for (size_t total = 0; total < kDrainBytes;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0 || _socket.Poll(static_cast<int>(left.count())) != 1) {
                return;
            }
            const size_t count = _socket.ReadSome(scratch, sizeof(scratch));
            if (count == 0) {
                return;
            }
            total += count;
        }
    }

private:
    Connection& _connection;
    TcpSocket& _socket;
};

int Run(const Options& options, examples::http::Files& files)
{
    ConnectionThreads connections([&files](Connection& connection) {
        Peer peer(connection);
        examples::http::Serve(files, peer);
    });
    std::unique_ptr<TcpListener> listener;
    try {
        listener = std::make_unique<TcpListener>(options.host, options.port,
                                                 [&connections](std::unique_ptr<TcpSocket> socket) {
                                                     try {
                                                         connections.Start(std::move(socket));
                                                     } catch (const std::system_error&) {
                                                         // No thread to be had: this connection closes, the next may fare better.
                                                     }
                                                 });
    } catch (const orvun::net::SocketError& error) {
        Note("cannot listen on " + options.host + " port " + std::to_string(options.port) + ": " + error.what());
        return kExitFailure;
    }
    Note("listening on " + options.host + " port " + std::to_string(listener->GetLocalPort()) + ", serving " +
         options.folder);
    while (!examples::WaitForStopSignal(std::chrono::milliseconds(250))) {
        connections.Reap();
        connections.ShutdownIdle(options.timeout);
        if (const std::exception_ptr error = listener->GetThreadError()) {
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& e) {
                Note(std::string("the listener stopped: ") + e.what());
            }
            return kExitFailure;
        }
    }
    listener.reset(); // no new connection from here on; `connections` then shuts the open ones down
    Note("stopping");
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    examples::BlockStopSignals(); // before any thread starts, so that every thread inherits it
    Options options;
    try {
        options = ParseArguments(argc, argv);
    } catch (const UsageError& error) {
        Note(error.message);
        std::cerr << "Try 'orvun-httpd --help'.\n";
        return kExitUsage;
    }
    if (options.help) {
        std::cout << kUsage;
        return EXIT_SUCCESS;
    }
    const int folder = ::open(options.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        Note("cannot serve '" + options.folder + "': " + std::generic_category().message(errno));
        std::cerr << "Try 'orvun-httpd --help'.\n";
        return kExitUsage;
    }
    int status = kExitFailure;
    {
        examples::http::Files files(folder);
        try {
            status = Run(options, files);
        } catch (const std::exception& error) {
            Note(std::string("unexpected failure: ") + error.what());
        }
    }
    ::close(folder);
    return status;
}
