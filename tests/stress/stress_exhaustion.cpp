// Descriptor exhaustion: a listener that has used up the descriptors its
// process may open keeps retrying while connections wait in its queue, and
// accepts every one of them once descriptors are free again.
#include <sys/resource.h>

#include <memory>
#include <mutex>
#include <set>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;

// Descriptors the listener may open once the limit is set.
constexpr int kHeadroom = 16;

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

TEST(DescriptorExhaustion, ListenerSurvivesAndResumesAccepting)
{
    const int connections = kHeadroom + support::Scaled(48, 8);
    std::mutex mutex;
    std::vector<std::unique_ptr<TcpSocket>> kept; // every connection, until `keep` is cleared
    bool keep = true;
    std::atomic<bool> limited{false};
    std::atomic<int> accepted{0};
    TcpListener listener("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> socket) {
        support::WaitFor([&] { return limited.load(); }, 60s); // the connections queue up meanwhile
        std::lock_guard<std::mutex> lock(mutex);
        if (keep) {
            kept.push_back(std::move(socket));
        }
        ++accepted;
    });
    std::vector<support::Fd> clients;
    for (int i = 0; i < connections; ++i) {
        clients.push_back(support::RawTcpConnect(false, listener.GetLocalPort()));
    }
    {
        // UndefinedBehaviorSanitizer's vptr check needs a pipe the first time
        // it meets a type, which fails once descriptors run out: let it meet
        // the address record (released on every failed accept) while there is
        // room. No effect in other builds.
        Socket warmUp;
        warmUp.ResolveAddress("127.0.0.1", 1);
    }
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit limit = saved;
    limit.rlim_cur = LimitLeaving(kHeadroom);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    limited = true;
    // The listener takes what the limit allows, then spends a while unable to accept.
    for (int last = -1; last != accepted;) {
        last = accepted;
        std::this_thread::sleep_for(500ms);
    }
    int held = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        held = static_cast<int>(kept.size());
        keep = false;
        kept.clear();
    }
    EXPECT_LT(held, connections) << "the limit was never reached";
    EXPECT_TRUE(support::WaitFor([&] { return accepted == connections; }, 60s)) << "accepting did not resume";
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    support::Figure("connections that waited out descriptor exhaustion", connections - held);
}

} // namespace
