// UDP under load: a hundred thousand request/answer pairs through one
// listener; and TCP and UDP listeners destroyed while traffic keeps arriving.
#include <memory>
#include <set>

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

// 100,000 datagrams of 1 to 400 random bytes from two senders into one
// listener, each answered through a reply socket. Each sender sends 32, then
// waits for their answers, so that no queue fills: every answer comes once
// and unchanged.
TEST(UdpStress, HundredThousandDatagramsAnswered)
{
    const int perSender = support::Scaled(100000, 100) / 2;
    UdpListener listener("127.0.0.1", 0, Echo);
    support::RunThreads(2, [&](int id) {
        support::Queue<Bytes> answers;
        UdpSocket socket("127.0.0.1", listener.GetLocalPort(), 0);
        std::mt19937 random(static_cast<unsigned>(id));
        for (int sent = 0; sent < perSender;) {
            std::multiset<Bytes> asked;
            std::multiset<Bytes> answered;
            for (; asked.size() < 32 && sent < perSender; ++sent) {
                const Bytes& request =
                    *asked.insert(support::RandomBytes(1 + random() % 400, static_cast<unsigned>(random())));
                support::Put(socket, request);
                socket.Flush();
                if (sent == 0) { // the send gave the socket its port; answers queue until the loop runs
                    socket.Receive([&](const UdpSocket&, ReadOnlyStream&& in) { answers.Push(support::Buffered(in)); });
                }
            }
            while (answered.size() < asked.size()) {
                const auto answer = answers.Take(20s);
                ASSERT_TRUE(answer) << "sender " << id << ": no answer for 20 s";
                answered.insert(*answer);
            }
            ASSERT_EQ(answered, asked) << "sender " << id << ": answers lost, repeated or changed";
        }
        EXPECT_EQ(socket.GetThreadError(), nullptr);
    });
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
    std::jthread traffic([&](const std::stop_token& stop) {
        unsigned short own = 0;
        const support::Fd udp[] = {support::RawUdp(false, own), support::RawUdp(true, own)};
        std::mt19937 random(3);
        for (int i = 0; !stop.stop_requested(); ++i) {
            const std::uint64_t now = target;
            const support::Family& family = support::kFamilies[now >> 32];
            std::this_thread::sleep_for(now == 0 ? 1000us : 50us);
            if (now == 0) {
                continue;
            }
            // Answers are left unread: once the socket's queue is full the system drops them.
            const Bytes datagram(1 + random() % 2000, static_cast<unsigned char>(i)); // never empty
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
        ASSERT_TRUE(support::WaitFor([&] { return accepted > acceptedBefore && handled > handledBefore; }, 20s))
            << "no traffic reached the listeners of round " << round;
        EXPECT_EQ(tcp->GetThreadError(), nullptr);
        EXPECT_EQ(udp->GetThreadError(), nullptr);
        // An idle loop notices the stop within one poll period; a wide margin for a loaded machine.
        EXPECT_LT(support::TimeOf([&] { tcp.reset(), udp.reset(); }), 5s) << "round " << round;
        target = 0;
    }
    support::Figure("listener pairs destroyed under traffic", rounds);
}

} // namespace
