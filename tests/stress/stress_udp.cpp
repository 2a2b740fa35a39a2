// UDP under load: a hundred thousand request/answer pairs through one
// listener; and TCP and UDP listeners destroyed while traffic keeps arriving.
#include <cstring>
#include <memory>

#include "support/ProfilerTables.h"
#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using support::Bytes;

// The answer to a request: its 4-byte sequence number, then the rest reversed.
Bytes Answer(Bytes request)
{
    std::reverse(request.begin() + std::min<long>(4, static_cast<long>(request.size())), request.end());
    return request;
}

// Sends `requests` datagrams (a sequence number, then up to 400 bytes of the
// pattern of (sender, sequence)) from a socket of its own, never more than 32
// unanswered, so that no queue fills; every answer must come once and whole.
void RunSender(std::uint32_t id, unsigned short port, int requests)
{
    support::Queue<Bytes> answers;
    UdpSocket socket("127.0.0.1", port, 0);
    std::vector<Bytes> sent;
    std::vector<bool> seen(static_cast<size_t>(requests), false);
    std::mt19937 random(id);
    for (int answered = 0; answered < requests;) {
        if (sent.size() < static_cast<size_t>(requests) && sent.size() - static_cast<size_t>(answered) < 32) {
            const auto sequence = static_cast<std::uint32_t>(sent.size());
            Bytes request = support::Pattern(std::uint64_t{id} << 32 | sequence, 0, 4 + random() % 400);
            std::memcpy(request.data(), &sequence, 4);
            support::Put(socket, request);
            socket.Flush();
            sent.push_back(std::move(request));
            if (sent.size() == 1) {
                // The first send gave the socket its port; answers queue until the loop runs.
                socket.Receive([&](const UdpSocket&, ReadOnlyStream&& stream) { answers.Push(support::Buffered(stream)); });
            }
            continue;
        }
        const auto answer = answers.Take(20s);
        ASSERT_TRUE(answer) << "sender " << id << ": no answer for 20 s";
        std::uint32_t sequence = 0;
        std::memcpy(&sequence, answer->data(), std::min<size_t>(4, answer->size()));
        ASSERT_LT(sequence, sent.size());
        ASSERT_FALSE(seen[sequence]) << "an answer came twice";
        ASSERT_EQ(*answer, Answer(sent[sequence]));
        seen[sequence] = true;
        ++answered;
    }
    EXPECT_EQ(socket.GetThreadError(), nullptr);
}

// 100,000 datagrams from two senders into one listener, each answered
// through a reply socket: every request answered once, and the profiler
// counted every datagram that the three receive loops received.
TEST(UdpStress, HundredThousandDatagramsAnswered)
{
    const int perSender = support::Scaled(100000, 100) / 2;
    support::ResetProfiler(true);
    std::atomic<int> requests{0};
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            ++requests;
            UdpSocket reply(socket);
            support::Put(reply, Answer(support::Buffered(stream)));
            reply.Flush();
        });
        std::thread other([&] { RunSender(1, listener.GetLocalPort(), perSender); });
        RunSender(2, listener.GetLocalPort(), perSender);
        other.join();
        EXPECT_EQ(requests, 2 * perSender) << "a request was lost or repeated";
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    const support::ProfilerTables tables = support::Profiles();
    int received = 0;
    for (const auto& [thread, records] : tables.profiles) {
        received += tables.Record("UDP Listener", "UDP RX", thread).count;
    }
    EXPECT_EQ(received, 4 * perSender);
    support::ResetProfiler(false);
    support::Figure("udp datagrams answered", 2 * perSender);
}

// A TCP and a UDP listener, of alternating families, destroyed again and
// again while a thread connects to one and sends datagrams (some longer than
// 1400 bytes) to the other, half of them kept or answered: no crash, no hang.
TEST(ListenerStress, DestroyedWhileTrafficArrives)
{
    const int rounds = support::Scaled(200, 5);
    // Family (bit 16) and ports (TCP, UDP) of the listeners now up; 0 between
    // rounds, so that no traffic goes to a port that is no longer ours.
    std::atomic<std::uint64_t> target{0};
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
        support::Fd udp[2];
        for (const bool ipv6 : {false, true}) {
            unsigned short own = 0;
            udp[ipv6] = support::RawUdp(ipv6, own);
        }
        std::mt19937 random(3);
        unsigned char drain[2048];
        for (int i = 0; !stop; ++i) {
            const std::uint64_t now = target;
            const bool ipv6 = (now >> 32) != 0;
            std::this_thread::sleep_for(now == 0 ? 1000us : 50us);
            if (now == 0) {
                continue;
            }
            socklen_t length;
            const auto address = support::Loopback(ipv6, static_cast<unsigned short>(now), length);
            const Bytes datagram = support::Pattern(random(), 0, 1 + random() % 2000); // never empty
            sendto(udp[ipv6].Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                   length);
            while (recv(udp[ipv6].Get(), drain, sizeof(drain), MSG_DONTWAIT) > 0) {
            }
            if (i % 5 == 0) {
                try {
                    TcpSocket client(ipv6 ? "::1" : "127.0.0.1", static_cast<unsigned short>(now >> 16), 0, 2000);
                    support::Put(client, datagram);
                    client.Flush();
                } catch (const SocketError&) {
                    // Refused or reset: that listener is gone.
                }
            }
        }
    });
    std::atomic<int> accepted{0};
    std::atomic<int> handled{0};
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        const bool ipv6 = round % 2 == 1;
        const int acceptedBefore = accepted;
        const int handledBefore = handled;
        std::vector<std::unique_ptr<TcpSocket>> kept;
        auto tcp = std::make_unique<TcpListener>(ipv6 ? "::1" : "127.0.0.1", 0, [&](std::unique_ptr<TcpSocket> s) {
            if (accepted++ % 2 == 0) {
                kept.push_back(std::move(s));
            }
        });
        auto udp = std::make_unique<UdpListener>(ipv6 ? "::1" : "127.0.0.1", 0,
                                                 [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
                                                     if (handled++ % 2 == 0) {
                                                         UdpSocket reply(socket);
                                                         support::Put(reply, support::Buffered(stream));
                                                         reply.Flush();
                                                     }
                                                 });
        target = std::uint64_t{ipv6} << 32 | std::uint64_t{tcp->GetLocalPort()} << 16 | udp->GetLocalPort();
        const bool reached =
            support::WaitFor([&] { return accepted > acceptedBefore && handled > handledBefore; }, 20s);
        EXPECT_TRUE(reached) << "no traffic reached the listeners of round " << round;
        EXPECT_EQ(tcp->GetThreadError(), nullptr);
        EXPECT_EQ(udp->GetThreadError(), nullptr);
        slowest = std::max(slowest, support::TimeOf([&] {
                               tcp.reset();
                               udp.reset();
                           }));
        target = 0;
        if (!reached) {
            break;
        }
    }
    // An idle loop notices the stop within one poll period; a wide margin for a loaded machine.
    EXPECT_LT(slowest, 5s);
    stop = true;
    traffic.join();
    support::Figure("listener pairs destroyed under traffic", rounds);
}

} // namespace
