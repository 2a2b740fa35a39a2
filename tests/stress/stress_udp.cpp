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

std::uint32_t GetU32(const unsigned char* at)
{
    std::uint32_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

// A datagram is a header (sender, sequence number) and a payload that
// follows the pattern of (sender, sequence); the answer carries the same
// header and the payload reversed.
Bytes Datagram(std::uint32_t sender, std::uint32_t sequence, size_t payload)
{
    Bytes bytes = support::Pattern(std::uint64_t{sender} << 32 | sequence, 0, payload + 8);
    std::memcpy(bytes.data(), &sender, 4);
    std::memcpy(bytes.data() + 4, &sequence, 4);
    return bytes;
}

// Whether a request or (`reversed`) an answer is whole.
bool Intact(Bytes datagram, bool reversed)
{
    if (datagram.size() < 8) {
        return false;
    }
    if (reversed) {
        std::reverse(datagram.begin() + 8, datagram.end());
    }
    return datagram == Datagram(GetU32(datagram.data()), GetU32(datagram.data() + 4), datagram.size() - 8);
}

// Sends `requests` datagrams from a socket of its own, never more than
// `window` unanswered (which keeps the listener's queue far below what the
// kernel would drop), and checks every answer as its receive loop hands it on.
struct Sender {
    std::uint32_t id;
    int answered = 0;
    int wrong = 0; // damaged, foreign or repeated answers
    std::uint64_t bytes = 0;
    std::exception_ptr error = nullptr;

    void Run(unsigned short port, int requests, int window)
    {
        support::Queue<Bytes> answers;
        UdpSocket socket("127.0.0.1", port, 0);
        std::vector<bool> seen(static_cast<size_t>(requests), false);
        std::mt19937 random(id);
        for (int sent = 0; answered + wrong < requests;) {
            if (sent < requests && sent - answered - wrong < window) {
                const Bytes request = Datagram(id, static_cast<std::uint32_t>(sent), random() % 400);
                socket.Write(request.data(), request.size());
                socket.Flush();
                bytes += request.size();
                if (sent++ == 0) {
                    // The first send gave the socket its port; answers queue until the loop runs.
                    socket.Receive(
                        [&](const UdpSocket&, ReadOnlyStream&& stream) { answers.Push(support::Buffered(stream)); });
                }
                continue;
            }
            const auto answer = answers.Take(20s);
            if (!answer) {
                ADD_FAILURE() << "sender " << id << ": no answer for 20 s at " << sent;
                break;
            }
            const std::uint32_t sequence = answer->size() < 8 ? 0 : GetU32(answer->data() + 4);
            if (!Intact(*answer, true) || GetU32(answer->data()) != id || sequence >= seen.size() || seen[sequence]) {
                ++wrong;
            } else {
                seen[sequence] = true;
                ++answered;
                bytes += answer->size();
            }
        }
        error = socket.GetThreadError();
    }
};

// 100,000 datagrams from two senders into one listener, each answered
// through a reply socket: every request answered, every answer delivered,
// and the profiler counted every datagram received.
TEST(UdpStress, HundredThousandDatagramsAnswered)
{
    const int perSender = support::Scaled(100000, 100) / 2;
    support::ResetProfiler(true);
    std::atomic<int> requests{0};
    std::atomic<int> badRequests{0};
    std::uint64_t bytes = 0;
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Bytes request = support::Buffered(stream);
            ++requests;
            badRequests += Intact(request, false) ? 0 : 1;
            std::reverse(request.begin() + std::min<size_t>(8, request.size()), request.end());
            UdpSocket reply(socket);
            reply.Write(request.data(), request.size());
            reply.Flush();
        });
        Sender first{1};
        Sender second{2};
        std::thread other([&] { first.Run(listener.GetLocalPort(), perSender, 32); });
        second.Run(listener.GetLocalPort(), perSender, 32);
        other.join();
        for (const Sender* sender : {&first, &second}) {
            EXPECT_EQ(sender->answered, perSender);
            EXPECT_EQ(sender->wrong, 0);
            EXPECT_EQ(sender->error, nullptr);
            bytes += sender->bytes;
        }
        EXPECT_EQ(requests, 2 * perSender) << "a request was lost or repeated";
        EXPECT_EQ(badRequests, 0);
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    // Three receive loops ran (the listener and both senders): "UDP RX" in
    // their "UDP Listener" records counts every request and every answer.
    const support::ProfilerTables tables = support::Profiles();
    int received = 0;
    for (const auto& [thread, records] : tables.profiles) {
        received += tables.Record("UDP Listener", "UDP RX", thread).count;
    }
    EXPECT_EQ(received, 4 * perSender);
    support::ResetProfiler(false);
    support::Figure("udp datagrams answered", 2 * perSender);
    support::Figure("udp bytes round-tripped", static_cast<double>(bytes));
}

// A TCP and a UDP listener, of alternating families, destroyed again and
// again while a thread connects to one and another sends datagrams to the
// other, half of them answered or kept: no crash, no hang, nothing left.
TEST(ListenerStress, DestroyedWhileTrafficArrives)
{
    const int rounds = support::Scaled(200, 5);
    // Family (bit 16) and port of each listener now up; 0 between rounds, so
    // that no traffic goes to a port that is no longer ours.
    std::atomic<int> tcpTarget{0};
    std::atomic<int> udpTarget{0};
    std::atomic<bool> stop{false};
    std::thread connector([&] {
        while (!stop) {
            const int now = tcpTarget;
            try {
                if (now != 0) {
                    TcpSocket client((now >> 16) != 0 ? "::1" : "127.0.0.1", static_cast<unsigned short>(now), 0, 2000);
                    support::Put(client, support::Pattern(0, 0, 100));
                    client.Flush();
                }
            } catch (const SocketError&) {
                // Refused or reset: that listener is gone.
            }
            // Steady traffic without running through the ephemeral ports.
            std::this_thread::sleep_for(now == 0 ? 1000us : 250us);
        }
    });
    std::thread sender([&] {
        support::Fd sockets[2];
        for (const bool ipv6 : {false, true}) {
            unsigned short own = 0;
            sockets[ipv6] = support::RawUdp(ipv6, own);
        }
        std::mt19937 random(3);
        unsigned char drain[2048];
        while (!stop) {
            const int now = udpTarget;
            const int fd = sockets[(now >> 16) != 0].Get();
            if (now != 0) {
                // Some longer than the loop's 1400 bytes; none empty, since
                // an empty datagram ends a receive loop.
                socklen_t length;
                const auto address = support::Loopback((now >> 16) != 0, static_cast<unsigned short>(now), length);
                const Bytes datagram = support::Pattern(random(), 0, 1 + random() % 2000);
                static_cast<void>(sendto(fd, datagram.data(), datagram.size(), 0,
                                         reinterpret_cast<const sockaddr*>(&address), length));
                while (recv(fd, drain, sizeof(drain), MSG_DONTWAIT) > 0) {
                }
            }
            std::this_thread::sleep_for(now == 0 ? 1000us : 50us);
        }
    });
    std::atomic<int> accepted{0};
    std::atomic<int> handled{0};
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        const bool ipv6 = round % 2 == 1;
        const char* host = ipv6 ? "::1" : "127.0.0.1";
        const int acceptedBefore = accepted;
        const int handledBefore = handled;
        std::vector<std::unique_ptr<TcpSocket>> kept;
        auto tcp = std::make_unique<TcpListener>(host, 0, [&](std::unique_ptr<TcpSocket> socket) {
            if (accepted++ % 2 == 0) {
                kept.push_back(std::move(socket));
            }
        });
        auto udp = std::make_unique<UdpListener>(host, 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            if (handled++ % 2 == 0) {
                UdpSocket reply(socket);
                reply.Write(stream.GetBufferData(), stream.GetBufferSize());
                reply.Flush();
            }
        });
        tcpTarget = tcp->GetLocalPort() | (ipv6 ? 1 << 16 : 0);
        udpTarget = udp->GetLocalPort() | (ipv6 ? 1 << 16 : 0);
        const bool reached =
            support::WaitFor([&] { return accepted > acceptedBefore && handled > handledBefore; }, 20s);
        EXPECT_TRUE(reached) << "no traffic reached the listeners of round " << round;
        EXPECT_EQ(tcp->GetThreadError(), nullptr);
        EXPECT_EQ(udp->GetThreadError(), nullptr);
        slowest = std::max(slowest, support::TimeOf([&] {
                               tcp.reset();
                               udp.reset();
                           }));
        tcpTarget = 0;
        udpTarget = 0;
        if (!reached) {
            break;
        }
    }
    // An idle loop notices the stop within one poll period; allow a wide
    // margin for a loaded machine.
    EXPECT_LT(slowest, 5s);
    stop = true;
    connector.join();
    sender.join();
    support::Figure("listener pairs destroyed under traffic", rounds);
    support::Figure("tcp connections accepted meanwhile", accepted);
    support::Figure("udp datagrams handled meanwhile", handled);
}

} // namespace
