// Descriptor exhaustion: a listener in a child process with a low descriptor
// limit keeps receiving connections. The child survives the time it cannot
// accept, and once it frees descriptors it accepts every waiting connection.
//
// The child is this program started again with kChildFlag and the number of
// connections to expect, so the limit never touches the test process.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <mutex>

#include "StressSupport.h"
#include "net/Socket.h"

extern char** environ;

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;

constexpr const char* kChildFlag = "--descriptor-exhaustion-child";
// Descriptors the child may open beyond those it has when it sets its limit.
constexpr int kHeadroom = 16;

// ---------------------------------------------------------------- child

// The descriptor limit that leaves exactly `free` numbers unused below it.
// New descriptors take the lowest free number, and inherited ones may sit
// anywhere, so the count of open descriptors alone would not do.
rlim_t LimitLeaving(int free)
{
    std::set<int> open;
    for (const std::string& entry : support::Entries("/proc/self/fd")) {
        open.insert(std::atoi(entry.c_str()));
    }
    int number = 0;
    for (int left = free; left > 0; ++number) {
        left -= open.count(number) == 0 ? 1 : 0;
    }
    return static_cast<rlim_t>(number);
}

// Keeps every connection (greeting each with one byte) until no new one has
// come for a while, then frees them and greets and closes the rest. Reports
// on stdout: ready <port>, held <count>, accepted <count> <error?>.
int RunChild(int expected)
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

    // Out of descriptors once 1.5 s pass without a new connection.
    int last = -1;
    for (int quiet = 0, round = 0; quiet < 15 && round < 1200; ++round) {
        std::this_thread::sleep_for(100ms);
        quiet = accepted == last && last > 0 ? quiet + 1 : 0;
        last = accepted;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::printf("held %zu\n", kept.size());
        keep = false;
        kept.clear();
    }
    std::fflush(stdout);
    const bool all = support::WaitFor([&] { return accepted.load() >= expected; }, 60s);
    std::printf("accepted %d %s\n", accepted.load(), listener.GetThreadError() ? "error" : "clean");
    std::fflush(stdout);
    return all ? 0 : 4;
}

// ---------------------------------------------------------------- parent

// The child process, killed and reaped if the test ends early.
class Child {
public:
    explicit Child(int connections)
    {
        int fromChild[2];
        if (pipe2(fromChild, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2 failed";
            return;
        }
        _output = support::Fd(fromChild[0]);
        support::Fd childOut(fromChild[1]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, childOut.Get(), STDOUT_FILENO);
        std::string count = std::to_string(connections);
        char* argv[] = {const_cast<char*>("stress_exhaustion"), const_cast<char*>(kChildFlag), count.data(), nullptr};
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
            waitpid(_pid, nullptr, 0);
        }
    }

    bool Started() const { return _pid > 0; }
    // The next line the child prints, within two minutes; empty on time-out or end of output.
    std::string Receive()
    {
        const auto deadline = std::chrono::steady_clock::now() + 120s;
        while (_pending.find('\n') == std::string::npos) {
            pollfd entry{_output.Get(), POLLIN, 0};
            char chunk[256];
            if (std::chrono::steady_clock::now() > deadline) {
                return {};
            }
            if (poll(&entry, 1, 100) == 1) {
                const ssize_t n = read(_output.Get(), chunk, sizeof(chunk));
                if (n <= 0) {
                    return {};
                }
                _pending.append(chunk, static_cast<size_t>(n));
            }
        }
        std::string line = _pending.substr(0, _pending.find('\n'));
        _pending.erase(0, line.size() + 1);
        return line;
    }

    // Waits for the child to end within a minute; its exit status, or -1.
    int Wait()
    {
        int status = 0;
        if (!support::WaitFor([&] { return waitpid(_pid, &status, WNOHANG) == _pid; }, 60s)) {
            return -1;
        }
        _pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t _pid = -1;
    support::Fd _output;
    std::string _pending;
};

TEST(DescriptorExhaustion, ListenerSurvivesAndResumesAccepting)
{
    const int connections = kHeadroom + stress::Scaled(48, 8);
    stress::EnsureDescriptorRoom(static_cast<size_t>(connections));
    Child child(connections);
    ASSERT_TRUE(child.Started());
    unsigned port = 0;
    const std::string ready = child.Receive();
    ASSERT_EQ(std::sscanf(ready.c_str(), "ready %u", &port), 1) << "child said: " << ready;
    std::vector<support::Fd> clients;
    for (int i = 0; i < connections; ++i) {
        clients.push_back(support::RawTcpConnect(false, static_cast<unsigned short>(port)));
    }
    // The child takes what its limit allows, then spends a while unable to
    // accept while the rest wait in its queue.
    int held = -1;
    const std::string heldLine = child.Receive();
    ASSERT_EQ(std::sscanf(heldLine.c_str(), "held %d", &held), 1) << "child said: " << heldLine;
    EXPECT_LT(held, connections) << "the limit was never reached";
    EXPECT_GT(held, 0);
    // Each connection gets its greeting once the child has descriptors again.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    int greeted = 0;
    for (const auto& client : clients) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        greeted += support::ReadExactly(client.Get(), 1, std::max(left, 1ms)) == support::Bytes{'!'} ? 1 : 0;
    }
    EXPECT_EQ(greeted, connections) << "accepting did not resume";
    EXPECT_EQ(child.Receive(), "accepted " + std::to_string(connections) + " clean");
    EXPECT_EQ(child.Wait(), 0);
    stress::Figure("connections that waited out descriptor exhaustion", connections - held);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == kChildFlag) {
        return RunChild(std::atoi(argv[2]));
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
