// Name resolution on several threads at once: no thread sees another's answer.
#include <latch>

#include "net/Socket.h"
#include "support/Stress.h"

namespace {

TEST(ResolveStress, ThreadsResolvingAtOnceGetTheirOwnAnswers)
{
    constexpr int kThreads = 6;
    const int rounds = support::Scaled(3000, 100);
    std::atomic<int> wrong{0};
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            orvun::net::Socket socket;
            const auto port = static_cast<unsigned short>(1000 + t);
            start.arrive_and_wait();
            for (int round = 0; round < rounds; ++round) {
                const std::string host = "127.0." + std::to_string(t) + "." + std::to_string(round % 250 + 1);
                socket.ResolveAddress(host, port);
                wrong += socket.GetRemoteAddress() != host || socket.GetRemotePort() != port;
                socket.ResolveAddress("localhost", port);
                wrong += socket.GetRemoteAddress() != "127.0.0.1";
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    support::Figure("concurrent name lookups", 2.0 * kThreads * rounds);
}

} // namespace
