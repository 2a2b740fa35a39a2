// posix-httpd: orvun-httpd's twin on plain POSIX calls, the baseline of
// scripts/bench-http.sh. The same HTTP logic (examples/http/Http.h: parser,
// path checks, file cache, answers) and the same shape: a thread per
// connection, blocking recv and send, TCP_NODELAY on accepted sockets. Only
// the socket layer differs. No idle time-out: it serves the benchmark only.
//
//   posix-httpd [-p PORT] [-b IPV4] [DIR]     stops on SIGINT or SIGTERM
#include "http/Http.h"
#include "tests/support/RawPeer.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class Peer {
public:
    explicit Peer(int fd) : _fd(fd) {}

    size_t Receive(unsigned char* data, size_t size)
    {
        for (;;) {
            const ssize_t count = ::recv(_fd, data, size, 0);
            if (count >= 0) {
                return static_cast<size_t>(count);
            }
            if (errno != EINTR) {
                return 0;
            }
        }
    }
    void Write(const char* data, size_t size) { _buffer.append(data, size); }
    bool Flush()
    {
        const bool sent = rawpeer::SendAll(_fd, _buffer.data(), _buffer.size());
        _buffer.clear();
        return sent;
    }
    void Drain()
    {
        char scratch[4096];
        pollfd ready{_fd, POLLIN, 0};
        while (::poll(&ready, 1, 1000) == 1 && ::recv(_fd, scratch, sizeof(scratch), 0) > 0) {
        }
    }

private:
    int _fd;
    std::string _buffer;
};

} // namespace

int main(int argc, char** argv)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    unsigned short port = 8080;
    const char* host = "127.0.0.1";
    for (int choice = 0; (choice = getopt(argc, argv, "p:b:")) != -1;) { // NOLINT(concurrency-mt-unsafe)
        if (choice == 'p') {
            port = static_cast<unsigned short>(std::strtoul(optarg, nullptr, 10));
        } else if (choice == 'b') {
            host = optarg;
        } else {
            std::fprintf(stderr, "usage: posix-httpd [-p PORT] [-b IPV4] [DIR]\n");
            return 2;
        }
    }
    const char* folderName = optind < argc ? argv[optind] : ".";
    const int folder = ::open(folderName, O_PATH | O_DIRECTORY | O_CLOEXEC);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (folder < 0 || inet_pton(AF_INET, host, &address.sin_addr) != 1) {
        std::fprintf(stderr, "posix-httpd: bad folder or address\n");
        return 2;
    }
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    socklen_t length = sizeof(address);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listener, SOMAXCONN) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::fprintf(stderr, "posix-httpd: cannot listen: %s\n", std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
        return 1;
    }
    std::fprintf(stderr, "posix-httpd: listening on %s port %u\n", host, ntohs(address.sin_port));

    static examples::http::Files files(folder);
    std::thread([listener, on] {
        for (;;) {
            rawpeer::Fd fd = rawpeer::RawAccept(listener);
            if (fd.Get() < 0) {
                continue;
            }
            ::setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            std::thread([fd = std::move(fd)] {
                Peer peer(fd.Get());
                examples::http::Serve(files, peer);
            }).detach();
        }
    }).detach();

    int signal = 0;
    sigwait(&stop, &signal);
    // The connection threads are detached and may be blocked anywhere: leave at once.
    std::_Exit(0);
}
