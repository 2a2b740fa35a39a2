// Descriptor exhaustion: a listener in a child process with a low descriptor
// limit keeps receiving connections. The child survives the time it cannot
// accept, and once it frees descriptors it accepts every waiting connection.
//
// The child is this program started again with kChildFlag and the number of
// connections to expect, so the limit never touches the test process.
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include "support/Stress.h"
#include "net/Socket.h"

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

// The next line the child printed, without its newline; empty at its end.
std::string Line(FILE* child)
{
    char line[256] = "";
    return std::fgets(line, sizeof(line), child) == nullptr ? "" : std::string(line, std::strcspn(line, "\n"));
}

TEST(DescriptorExhaustion, ListenerSurvivesAndResumesAccepting)
{
    const int connections = kHeadroom + support::Scaled(48, 8);
    // `timeout` bounds every read below: the child cannot outlive it.
    char self[4096] = "";
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string command =
        "timeout -s KILL 180 '" + std::string(self) + "' " + kChildFlag + " " + std::to_string(connections);
    std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), pclose);
    ASSERT_NE(output, nullptr);
    FILE* child = output.get();
    unsigned port = 0;
    const std::string ready = Line(child);
    ASSERT_EQ(std::sscanf(ready.c_str(), "ready %u", &port), 1) << "child said: " << ready;
    std::vector<support::Fd> clients;
    for (int i = 0; i < connections; ++i) {
        clients.push_back(support::RawTcpConnect(false, static_cast<unsigned short>(port)));
    }
    // The child takes what its limit allows, then spends a while unable to
    // accept while the rest wait in its queue.
    int held = -1;
    const std::string heldLine = Line(child);
    ASSERT_EQ(std::sscanf(heldLine.c_str(), "held %d", &held), 1) << "child said: " << heldLine;
    EXPECT_LT(held, connections) << "the limit was never reached";
    // Each connection gets its greeting once the child has descriptors again.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    int greeted = 0;
    for (const auto& client : clients) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        greeted += support::ReadUpTo(client.Get(), 1, nullptr, std::max(left, 1ms)) == support::Bytes{'!'};
    }
    EXPECT_EQ(greeted, connections) << "accepting did not resume";
    EXPECT_EQ(Line(child), "accepted " + std::to_string(connections) + " clean");
    EXPECT_EQ(pclose(output.release()), 0);
    support::Figure("connections that waited out descriptor exhaustion", connections - held);
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
