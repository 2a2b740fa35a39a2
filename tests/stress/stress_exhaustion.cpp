// Descriptor exhaustion: a listener that has used up the descriptors its
// process may open keeps retrying while connections wait in its queue, and
// accepts every one of them once descriptors are free again.
#include <fcntl.h>
#include <sys/resource.h>

#include <memory>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;

TEST(DescriptorExhaustion, ListenerSurvivesAndResumesAccepting)
{
    constexpr int kHeadroom = 16; // descriptors the listener may open once the limit is set
    const int connections = kHeadroom + support::Scaled(48, 8);
    std::vector<std::unique_ptr<TcpSocket>> kept; // every connection, touched by the accept thread only
    std::atomic<bool> limited{false};
    std::atomic<int> accepted{0};
    TcpListener listener("127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> socket) {
        support::WaitFor([&] { return limited.load(); }, 60s); // the connections queue up meanwhile
        kept.push_back(std::move(socket));
        ++accepted;
    });
    // Each connection waits in the listener's queue; a connect that times out
    // throws, and fails the test.
    std::vector<std::unique_ptr<TcpSocket>> clients;
    for (int i = 0; i < connections; ++i) {
        clients.push_back(std::make_unique<TcpSocket>("127.0.0.1", listener.GetLocalPort(), 0, 10000));
    }
    // UndefinedBehaviorSanitizer's vptr check needs a pipe the first time it
    // meets a type, which fails once descriptors run out: let it meet the
    // address record (released on every failed accept) while there is room.
    Socket().ResolveAddress("127.0.0.1", 1);
    // The limit that leaves exactly kHeadroom numbers unused below it: new
    // descriptors take the lowest free number, and inherited ones may sit
    // anywhere, so the count of open descriptors alone would not do.
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit limit{0, saved.rlim_max};
    for (int free = kHeadroom; free > 0; ++limit.rlim_cur) {
        free -= fcntl(static_cast<int>(limit.rlim_cur), F_GETFD) == -1 ? 1 : 0;
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    limited = true;
    // The listener takes what the limit allows, then spends a while unable to accept.
    for (int last = -1; last != accepted;) {
        last = accepted;
        std::this_thread::sleep_for(500ms);
    }
    const int held = accepted;
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_LT(held, connections) << "the limit was never reached";
    EXPECT_TRUE(support::WaitFor([&] { return accepted == connections; }, 60s)) << "accepting did not resume";
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    support::Figure("connections that waited out descriptor exhaustion", connections - held);
}

} // namespace
