// UDP under load: a hundred thousand request/answer pairs through one
// listener; and TCP and UDP listeners destroyed while traffic keeps arriving.
#include <cstring>
#include <map>
#include <memory>

#include "support/Stress.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using support::Bytes;

// Answers a datagram with its own bytes, through a reply socket.
void Echo(const UdpSocket& socket, ReadOnlyStream&& stream)
{
    UdpSocket reply(socket);
    support::Put(reply, support::Buffered(stream));
    reply.Flush();
}

// Sends `requests` datagrams (a sequence number, then up to 400 bytes of the
// pattern of (sender, sequence)) from a socket of its own, 32 at a time so
// that no queue fills; every answer must come once and whole.
void RunSender(int id, unsigned short port, int requests)
{
    support::Queue<Bytes> answers;
    UdpSocket socket("127.0.0.1", port, 0);
    std::mt19937 random(id);
    for (std::uint32_t sequence = 0; sequence < static_cast<std::uint32_t>(requests);) {
        std::map<std::uint32_t, Bytes> waiting;
        for (; waiting.size() < 32 && sequence < static_cast<std::uint32_t>(requests); ++sequence) {
            Bytes request = support::Pattern(std::uint64_t(id) << 32 | sequence, 0, 4 + random() % 400);
            std::memcpy(request.data(), &sequence, 4);
            support::Put(socket, request);
            socket.Flush();
            if (sequence == 0) {
                // The first send gave the socket its port; answers queue until the loop runs.
                socket.Receive(
                    [&](const UdpSocket&, ReadOnlyStream&& stream) { answers.Push(support::Buffered(stream)); });
            }
            waiting.emplace(sequence, std::move(request));
        }
        while (!waiting.empty()) {
            const auto answer = answers.Take(20s);
            ASSERT_TRUE(answer) << "sender " << id << ": no answer for 20 s";
            std::uint32_t number = 0;
            std::memcpy(&number, answer->data(), std::min<size_t>(4, answer->size()));
            const auto request = waiting.find(number);
            ASSERT_TRUE(request != waiting.end()) << "an answer came twice or unasked";
            ASSERT_EQ(*answer, request->second);
            waiting.erase(request);
        }
    }
    EXPECT_EQ(socket.GetThreadError(), nullptr);
}

// 100,000 datagrams from two senders into one listener, each answered
// through a reply socket: every request arrives once and is answered once.
TEST(UdpStress, HundredThousandDatagramsAnswered)
{
    const int perSender = support::Scaled(100000, 100) / 2;
    std::atomic<int> requests{0};
    UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
        ++requests;
        Echo(socket, std::move(stream));
    });
    support::RunThreads(2, [&](int s) { RunSender(s, listener.GetLocalPort(), perSender); });
    EXPECT_EQ(requests, 2 * perSender) << "a request was lost or repeated";
    EXPECT_EQ(listener.GetThreadError(), nullptr);
    support::Figure("udp datagrams answered", 2 * perSender);
}

// A TCP and a UDP listener, of alternating families, destroyed again and
// again while a thread connects to one and sends datagrams (some longer than
// 1400 bytes) to the other, half of them kept or answered: no crash, no hang.
TEST(ListenerStress, DestroyedWhileTrafficArrives)
{
    const int rounds = support::Scaled(200, 5);
    // Family (bit 32) and ports (TCP, UDP) of the listeners now up; 0 between
    // rounds, so that no traffic goes to a port that is no longer ours.
    std::atomic<std::uint64_t> target{0};
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
        unsigned short own = 0;
        const support::Fd udp[] = {support::RawUdp(false, own), support::RawUdp(true, own)};
        std::mt19937 random(3);
        for (int i = 0; !stop; ++i) {
            const std::uint64_t now = target;
            const support::Family& family = support::kFamilies[now >> 32];
            std::this_thread::sleep_for(now == 0 ? 1000us : 50us);
            if (now == 0) {
                continue;
            }
            // Answers are left unread: once the socket's queue is full the system drops them.
            const Bytes datagram = support::Pattern(random(), 0, 1 + random() % 2000); // never empty
            support::SendDatagram(udp[family.ipv6].Get(), family.ipv6, static_cast<unsigned short>(now), datagram);
            if (i % 5 == 0) {
                try {
                    TcpSocket client(family.host, static_cast<unsigned short>(now >> 16), 0, 2000);
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
        const char* host = support::kFamilies[round % 2].host;
        const int acceptedBefore = accepted;
        const int handledBefore = handled;
        std::vector<std::unique_ptr<TcpSocket>> kept;
        auto tcp = std::make_unique<TcpListener>(host, 0, [&](std::unique_ptr<TcpSocket> s) {
            if (accepted++ % 2 == 0) {
                kept.push_back(std::move(s));
            }
        });
        auto udp = std::make_unique<UdpListener>(host, 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            if (handled++ % 2 == 0) {
                Echo(socket, std::move(stream));
            }
        });
        target = std::uint64_t(round % 2) << 32 | std::uint64_t{tcp->GetLocalPort()} << 16 | udp->GetLocalPort();
        const bool reached =
            support::WaitFor([&] { return accepted > acceptedBefore && handled > handledBefore; }, 20s);
        EXPECT_TRUE(reached) << "no traffic reached the listeners of round " << round;
        EXPECT_EQ(tcp->GetThreadError(), nullptr);
        EXPECT_EQ(udp->GetThreadError(), nullptr);
        slowest = std::max(slowest, support::TimeOf([&] { tcp.reset(), udp.reset(); }));
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
