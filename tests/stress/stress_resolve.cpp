// Name resolution on several threads at once: no thread sees another's answer.
#include "net/Socket.h"
#include "support/Stress.h"

namespace {

TEST(ResolveStress, ThreadsResolvingAtOnceGetTheirOwnAnswers)
{
    constexpr int kThreads = 6;
    const int rounds = support::Scaled(3000, 100);
    std::atomic<int> wrong{0};
    support::RunThreads(kThreads, [&](int t) {
        orvun::net::Socket socket;
        const auto port = static_cast<unsigned short>(1000 + t);
        for (int round = 0; round < rounds; ++round) {
            const std::string host = "127.0." + std::to_string(t) + "." + std::to_string(round % 250 + 1);
            socket.ResolveAddress(host, port);
            wrong += socket.GetRemoteAddress() != host || socket.GetRemotePort() != port;
            socket.ResolveAddress("localhost", port);
            wrong += socket.GetRemoteAddress() != "127.0.0.1";
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    support::Figure("concurrent name lookups", 2.0 * kThreads * rounds);
}

} // namespace
