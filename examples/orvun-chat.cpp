// orvun-chat: a line-based chat server built on OrvunNet.
//
// Every line a client sends goes to every other client. Each client has two
// threads: its ConnectionThreads thread reads its input, blocked in
// ReadSome, and a writer thread of its own sleeps until lines are queued for
// it, then sends them. Broadcasting only appends to the other clients' queues
// under one lock, so no client ever waits for another one's socket; a client
// whose queue passes the backlog limit is shut down, which also frees both of
// its threads, a blocked ReadSome as well as a blocked Flush.
#include "ConnectionThreads.h"
#include "ServerOptions.h"
#include "net/Socket.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <getopt.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

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
constexpr size_t kMaxLine = 4096;                    // bytes, with the "\n"
constexpr size_t kReadChunk = size_t{16} * 1024;     // one ReadSome
constexpr size_t kSendBatch = size_t{64} * 1024;     // about one Flush
constexpr size_t kMinBacklog = size_t{64} * 1024;    // above any one broadcast block
constexpr size_t kDefaultBacklog = size_t{1} << 20;  // 1 MiB
constexpr size_t kMaxBacklog = size_t{1} << 30;      // 1 GiB

const char* const kUsage = R"(Usage: orvun-chat [options]

A chat server: every line a client sends goes to every other client (not back
to the sender), each line once and in the order it was sent.

Options:
  -p, --port PORT          0-65535 (default 7000); 0 lets the system choose.
                           The port is printed on standard error.
  -b, --bind HOST          address to listen on (default ::, which takes IPv4
                           and IPv6 clients on one port); IPv6 text, dotted
                           IPv4 text or a name such as localhost
  -m, --max-backlog BYTES  drop a client once more than BYTES wait to be sent
                           to it (default 1M; K and M suffixes, 64K to 1024M)
  -v, --verbose            report clients joining and leaving on standard error
  -h, --help               show this help

Lines end in "\n" and are passed on byte for byte. A line may be 4096 bytes
long, "\n" included; a client that sends a longer one is dropped, and the
line goes nowhere. A client that disconnects or resets in the middle of a
line is dropped, and that partial line goes nowhere either. A client that
stops reading is dropped once its backlog passes the limit.

SIGINT or SIGTERM stops the server: exit status 0. Exit status 1 when it
cannot listen, 2 for bad arguments.
)";

struct Options {
    std::string host = "::";
    unsigned short port = 7000;
    size_t backlog = kDefaultBacklog;
    bool verbose = false;
    bool help = false;
};

void Note(const std::string& text)
{
    // One insertion per line, so that lines from different threads stay whole.
    std::cerr << ("orvun-chat: " + text + "\n") << std::flush;
}

size_t ParseBytes(const char* text)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = std::strtoull(text, &end, 10);
    size_t unit = 1;
    if (end != text && (*end == 'K' || *end == 'k')) {
        unit = 1024;
        ++end;
    } else if (end != text && (*end == 'M' || *end == 'm')) {
        unit = size_t{1} << 20;
        ++end;
    }
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || number > kMaxBacklog / unit ||
        number * unit < kMinBacklog) {
        throw UsageError{std::string("-m wants a byte count from 64K to 1024M, not '") + text + "'"};
    }
    return static_cast<size_t>(number * unit);
}

Options ParseArguments(int argc, char** argv)
{
    const option longOptions[] = {
        {"port", required_argument, nullptr, 'p'},        {"bind", required_argument, nullptr, 'b'},
        {"max-backlog", required_argument, nullptr, 'm'}, {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},              {nullptr, 0, nullptr, 0},
    };
    Options options;
    opterr = 0;
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): arguments are parsed before any thread starts
        const int choice = getopt_long(argc, argv, ":p:b:m:vh", longOptions, nullptr);
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
        case 'm':
            options.backlog = ParseBytes(optarg);
            break;
        case 'v':
            options.verbose = true;
            break;
        case 'h':
            options.help = true;
            return options;
        case ':':
            throw UsageError{std::string(argv[optind - 1]) + " needs a value"};
        default:
            throw examples::UnknownOption(argv);
        }
    }
    if (optind < argc) {
        throw UsageError{std::string("unexpected argument '") + argv[optind] + "'"};
    }
    return options;
}

// Whole lines from one read of one client, shared by every queue it is on.
using Block = std::shared_ptr<const std::string>;

// One client, as the room sees it. Guarded by the room's lock.
struct Member {
    TcpSocket* socket = nullptr;
    std::deque<Block> queue;         // waiting to be sent to this client
    size_t backlog = 0;              // bytes in `queue` and in the batch being sent
    std::condition_variable changed; // wakes the writer: lines queued, or dropped
    const char* dropped = nullptr;
};

// Every connected client. Broadcast never touches a socket but to shut a
// client down, so one slow client cannot hold the others up.
class Room {
public:
    Room(size_t limit, bool verbose) : _limit(limit), _verbose(verbose) {}

    size_t Join(Member& member)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _members.push_back(&member);
        return _members.size();
    }

    size_t Leave(Member& member)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _members.erase(std::find(_members.begin(), _members.end(), &member));
        return _members.size();
    }

    // Queues `block` for every member but `from`; a member whose backlog
    // would pass the limit is dropped instead.
    void Broadcast(const Member& from, const Block& block)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        for (Member* member : _members) {
            if (member == &from || member->dropped != nullptr) {
                continue;
            }
            if (member->backlog + block->size() > _limit) {
                DropLocked(*member, "backlog over the limit");
                continue;
            }
            member->backlog += block->size();
            member->queue.push_back(block);
            member->changed.notify_one();
        }
    }

    // Shuts `member` down for `reason` unless it is gone already.
    void Drop(Member& member, const char* reason)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (member.dropped == nullptr) {
            DropLocked(member, reason);
        }
    }

    // Counts `batch` as sent, waits until the member's queue has lines, and
    // refills `batch` with up to about kSendBatch bytes of it. False once the
    // member has been dropped.
    bool Next(Member& member, std::vector<Block>& batch)
    {
        std::unique_lock<std::mutex> lock(_mutex);
        for (const Block& block : batch) {
            member.backlog -= block->size();
        }
        batch.clear();
        member.changed.wait(lock, [&member] { return member.dropped != nullptr || !member.queue.empty(); });
        if (member.dropped != nullptr) {
            return false;
        }
        size_t size = 0;
        while (!member.queue.empty() && size < kSendBatch) {
            size += member.queue.front()->size();
            batch.push_back(std::move(member.queue.front()));
            member.queue.pop_front();
        }
        return true;
    }

    const char* Reason(const Member& member)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return member.dropped;
    }

    bool Verbose() const { return _verbose; }

private:
    // With the lock held: lets go of the queue and wakes both of the member's
    // threads (Shutdown ends a blocked ReadSome or Flush).
    static void DropLocked(Member& member, const char* reason)
    {
        member.dropped = reason;
        member.queue.clear();
        member.socket->Shutdown();
        member.changed.notify_one();
    }

    const size_t _limit;
    const bool _verbose;
    std::mutex _mutex;
    std::vector<Member*> _members;
};

// Splits one client's input into whole lines.
class LineSplitter {
public:
    // Appends the lines that `data` completes to `lines`; false when a line
    // passes kMaxLine (the lines before it are in `lines`).
    bool Take(const unsigned char* data, size_t size, std::string& lines)
    {
        const char* at = reinterpret_cast<const char*>(data);
        const char* const end = at + size;
        while (at < end) {
            const auto* newline = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
            const char* stop = newline != nullptr ? newline + 1 : end;
            const auto piece = static_cast<size_t>(stop - at);
            // Without its "\n" yet, a line of kMaxLine bytes is already too long.
            if (_partial.size() + piece > (newline != nullptr ? kMaxLine : kMaxLine - 1)) {
                return false;
            }
            if (newline == nullptr) {
                _partial.append(at, piece);
            } else {
                lines += _partial;
                lines.append(at, piece);
                _partial.clear();
            }
            at = stop;
        }
        return true;
    }

private:
    std::string _partial; // the line being received, never passed on
};

std::string Describe(TcpSocket& socket)
{
    return socket.GetRemoteAddress() + " port " + std::to_string(socket.GetRemotePort());
}

// The writer thread: sends the member's queued lines, one Flush per batch,
// until the member is dropped. A failed send drops it, which ends the reader.
void SendQueued(Member& self, Room& room)
{
    pthread_setname_np(pthread_self(), "chat writer");
    TcpSocket& socket = *self.socket;
    std::vector<Block> batch;
    try {
        while (room.Next(self, batch)) {
            for (const Block& block : batch) {
                socket.Write(reinterpret_cast<const unsigned char*>(block->data()), block->size());
            }
            socket.Flush();
        }
    } catch (const orvun::net::SendError&) {
        room.Drop(self, "stopped taking data");
    } catch (const std::exception&) {
        room.Drop(self, "failed");
    }
}

// Reads the member's input and broadcasts its whole lines until the client
// leaves or is shut down; returns why it ended.
const char* ReceiveLines(Member& self, Room& room)
{
    TcpSocket& socket = *self.socket;
    LineSplitter splitter;
    std::vector<unsigned char> input(kReadChunk);
    try {
        for (;;) {
            const unsigned long count = socket.ReadSome(input.data(), input.size());
            if (count == 0) {
                return "disconnected";
            }
            std::string lines;
            const bool fits = splitter.Take(input.data(), count, lines);
            if (!lines.empty()) {
                room.Broadcast(self, std::make_shared<const std::string>(std::move(lines)));
            }
            if (!fits) {
                return "sent a line over 4096 bytes";
            }
        }
    } catch (const orvun::net::ReceiveError&) {
        return "reset the connection";
    } catch (const std::exception&) {
        return "failed";
    }
}

// Serves one client until it leaves, is dropped, or the server stops (which
// shuts its socket down and so ends ReceiveLines).
void Serve(Connection& connection, Room& room)
{
    TcpSocket& socket = connection.Socket();
    Member self;
    self.socket = &socket;
    const size_t online = room.Join(self);
    if (room.Verbose()) {
        Note(Describe(socket) + " joined (" + std::to_string(online) + " online)");
    }

    const char* reason = "no thread to send with";
    std::thread writer;
    try {
        writer = std::thread(SendQueued, std::ref(self), std::ref(room));
        reason = ReceiveLines(self, room);
    } catch (const std::system_error&) {
        // The writer did not start: the client goes at once.
    }
    // Dropping wakes the writer, from its wait or a blocked Flush, before the join.
    room.Drop(self, reason);
    if (writer.joinable()) {
        writer.join();
    }
    reason = room.Reason(self);
    const size_t left = room.Leave(self);
    if (room.Verbose()) {
        Note(Describe(socket) + " left: " + reason + " (" + std::to_string(left) + " online)");
    }
}

int Run(const Options& options)
{
    Room room(options.backlog, options.verbose);
    ConnectionThreads connections([&room](Connection& connection) { Serve(connection, room); });
    std::unique_ptr<TcpListener> listener;
    try {
        listener = std::make_unique<TcpListener>(options.host, options.port, [&](std::unique_ptr<TcpSocket> socket) {
            try {
                connections.Start(std::move(socket));
            } catch (const std::system_error& error) {
                Note(std::string("turned a client away: no thread for it (") + error.what() + ")");
            }
        });
    } catch (const orvun::net::ResolveError& error) {
        Note(error.what());
        return kExitFailure;
    } catch (const orvun::net::SocketError& error) {
        Note("cannot listen on " + options.host + " port " + std::to_string(options.port) + ": " + error.what());
        return kExitFailure;
    }
    Note("listening on " + options.host + " port " + std::to_string(listener->GetLocalPort()));

    while (!examples::WaitForStopSignal(std::chrono::milliseconds(250))) {
        connections.Reap();
        if (const std::exception_ptr error = listener->GetThreadError()) {
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& stopped) {
                Note(std::string("stopped accepting: ") + stopped.what());
            }
            return kExitFailure;
        }
    }
    // No new clients first; then `connections` shuts every client down and
    // joins its thread, and only then does the room go.
    listener.reset();
    if (options.verbose) {
        Note("stopping");
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    examples::BlockStopSignals();
    Options options;
    try {
        options = ParseArguments(argc, argv);
    } catch (const UsageError& error) {
        Note(error.message);
        std::cerr << "Try 'orvun-chat --help'.\n";
        return kExitUsage;
    }
    if (options.help) {
        std::cout << kUsage;
        return EXIT_SUCCESS;
    }
    return Run(options);
}
