// Descriptor exhaustion: a listener in a child process with a low descriptor
// limit keeps receiving connections. The child survives the time it cannot
// accept, and once it frees descriptors it accepts every waiting connection.
//
// The child is this program started again with kChildFlag, so the limit
// never touches the test process.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>

#include "StressSupport.h"
#include "net/Socket.h"

extern char** environ;

namespace {

using namespace orvun::net;

constexpr const char* kChildFlag = "--descriptor-exhaustion-child";
// Descriptors the child may open beyond those it has when it sets its limit.
constexpr int kHeadroom = 16;

// ---------------------------------------------------------------- child

// One line from stdin within `limit`; empty on time-out or end of input.
std::string ReadLine(std::chrono::milliseconds limit)
{
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{STDIN_FILENO, POLLIN, 0};
        if (poll(&entry, 1, 100) != 1) {
            continue;
        }
        char c;
        if (read(STDIN_FILENO, &c, 1) != 1) {
            break;
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
    return line;
}

// The descriptor limit that leaves exactly `free` numbers unused below it.
// New descriptors take the lowest free number, and inherited ones may sit
// anywhere, so the count of open descriptors alone would not do.
rlim_t LimitLeaving(int free)
{
    std::set<int> open;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(dir)) {
            const int fd = std::atoi(entry->d_name);
            if (entry->d_name[0] != '.' && fd != dirfd(dir)) {
                open.insert(fd);
            }
        }
        closedir(dir);
    }
    int number = 0;
    for (int left = free; left > 0; ++number) {
        if (open.count(number) == 0) {
            --left;
        }
    }
    return static_cast<rlim_t>(number);
}

// Keeps every connection (greeting each with one byte) until told to free
// them, then greets and closes the rest. Reports on stdout:
//   ready <port>, held <count>, accepted <count> <error?>.
int RunChild()
{
    std::mutex mutex;
    std::vector<std::unique_ptr<TcpSocket>> kept;
    bool keep = true;
    std::atomic<int> accepted{0};
    TcpListener listener("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> socket) {
        const unsigned char greeting = '!';
        socket->Write(&greeting, 1);
        socket->Flush();
        std::lock_guard<std::mutex> lock(mutex);
        if (keep) {
            kept.push_back(std::move(socket));
        }
        ++accepted;
    });
    {
        // UndefinedBehaviorSanitizer's vptr check needs a pipe the first time
        // it meets a type, which fails once descriptors run out: let it meet
        // the address record (released on every failed accept) while there is
        // room. No effect in other builds.
        Socket warmUp;
        warmUp.ResolveAddress("127.0.0.1", 1);
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = LimitLeaving(kHeadroom);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        std::printf("error setrlimit\n");
        return 2;
    }
    std::printf("ready %u\n", listener.GetLocalPort());
    std::fflush(stdout);

    int expected = 0;
    if (std::sscanf(ReadLine(std::chrono::seconds(120)).c_str(), "free %d", &expected) != 1) {
        std::printf("error no free command\n");
        return 3;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::printf("held %zu\n", kept.size());
        keep = false;
        kept.clear();
    }
    std::fflush(stdout);
    const bool all = support::WaitFor([&] { return accepted.load() >= expected; }, std::chrono::seconds(60));
    std::printf("accepted %d %s\n", accepted.load(), listener.GetThreadError() ? "error" : "clean");
    std::fflush(stdout);
    return all ? 0 : 4;
}

// ---------------------------------------------------------------- parent

// The child process, killed and reaped if the test ends early.
class Child {
public:
    Child()
    {
        int toChild[2];
        int fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2 failed";
            return;
        }
        _input = support::Fd(toChild[1]);
        _output = support::Fd(fromChild[0]);
        support::Fd childIn(toChild[0]);
        support::Fd childOut(fromChild[1]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, childIn.Get(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, childOut.Get(), STDOUT_FILENO);
        char* argv[] = {const_cast<char*>("stress_exhaustion"), const_cast<char*>(kChildFlag), nullptr};
        const int spawned = posix_spawn(&_pid, "/proc/self/exe", &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            _pid = -1;
            ADD_FAILURE() << "posix_spawn failed: " << std::strerror(spawned);
        }
    }
    ~Child()
    {
        if (_pid > 0) {
            kill(_pid, SIGKILL);
            int status;
            waitpid(_pid, &status, 0);
        }
    }

    bool Started() const { return _pid > 0; }
    bool Alive() const { return _pid > 0 && waitpid(_pid, nullptr, WNOHANG) == 0; }

    void Send(const std::string& line)
    {
        const std::string text = line + "\n";
        if (write(_input.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            ADD_FAILURE() << "cannot write to the child";
        }
    }

    // The next line the child prints, within `limit`; empty on time-out.
    std::string Receive(std::chrono::milliseconds limit = std::chrono::seconds(60))
    {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const auto end = _pending.find('\n');
            if (end != std::string::npos) {
                std::string line = _pending.substr(0, end);
                _pending.erase(0, end + 1);
                return line;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                return {};
            }
            pollfd entry{_output.Get(), POLLIN, 0};
            if (poll(&entry, 1, 100) != 1) {
                continue;
            }
            char chunk[256];
            const ssize_t n = read(_output.Get(), chunk, sizeof(chunk));
            if (n <= 0) {
                return {};
            }
            _pending.append(chunk, static_cast<size_t>(n));
        }
    }

    // Waits for the child to end within `limit`; its exit status, or -1.
    int Wait(std::chrono::milliseconds limit = std::chrono::seconds(60))
    {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(_pid, &status, WNOHANG) == _pid) {
                _pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

private:
    pid_t _pid = -1;
    support::Fd _input;
    support::Fd _output;
    std::string _pending;
};

// Connections that each wait for the child's one-byte greeting.
class Clients {
public:
    void Open(unsigned short port, int count)
    {
        for (int i = 0; i < count; ++i) {
            _sockets.push_back(support::RawTcpConnect(false, port));
            _greeted.push_back(false);
        }
    }
    // Collects greetings for `period`; the number greeted so far.
    int Collect(std::chrono::milliseconds period)
    {
        const auto deadline = std::chrono::steady_clock::now() + period;
        do {
            for (size_t i = 0; i < _sockets.size(); ++i) {
                unsigned char byte;
                if (!_greeted[i] && recv(_sockets[i].Get(), &byte, 1, MSG_DONTWAIT) == 1 && byte == '!') {
                    _greeted[i] = true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } while (std::chrono::steady_clock::now() < deadline && Greeted() < static_cast<int>(_sockets.size()));
        return Greeted();
    }
    int Greeted() const { return static_cast<int>(std::count(_greeted.begin(), _greeted.end(), true)); }

private:
    std::vector<support::Fd> _sockets;
    std::vector<bool> _greeted;
};

TEST(DescriptorExhaustion, ListenerSurvivesAndResumesAccepting)
{
    const int connections = kHeadroom + stress::Scaled(48, 8);
    stress::EnsureDescriptorRoom(static_cast<size_t>(connections));
    Child child;
    ASSERT_TRUE(child.Started());
    unsigned port = 0;
    const std::string ready = child.Receive();
    ASSERT_EQ(std::sscanf(ready.c_str(), "ready %u", &port), 1) << "child said: " << ready;

    Clients clients;
    clients.Open(static_cast<unsigned short>(port), connections);
    // The child takes what its limit allows, then spends a while unable to
    // accept while the rest wait in its queue.
    int greeted = 0;
    for (int last = -1; greeted != last;) {
        last = greeted;
        greeted = clients.Collect(std::chrono::milliseconds(1500));
    }
    EXPECT_LT(greeted, connections) << "the limit was never reached";
    EXPECT_GT(greeted, 0);
    ASSERT_TRUE(child.Alive()) << "the child died while out of descriptors";

    child.Send("free " + std::to_string(connections));
    int held = -1;
    const std::string heldLine = child.Receive();
    ASSERT_EQ(std::sscanf(heldLine.c_str(), "held %d", &held), 1) << "child said: " << heldLine;
    EXPECT_EQ(held, greeted);
    EXPECT_EQ(clients.Collect(std::chrono::seconds(60)), connections) << "accepting did not resume";
    EXPECT_EQ(child.Receive(), "accepted " + std::to_string(connections) + " clean");
    EXPECT_EQ(child.Wait(), 0);
    stress::Figure("connections that waited out descriptor exhaustion", connections - greeted);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == kChildFlag) {
        return RunChild();
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
