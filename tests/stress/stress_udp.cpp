// UDP under load: a hundred thousand request/answer pairs through one
// listener, and listeners destroyed while datagrams keep arriving.
#include <memory>
#include <mutex>

#include "StressSupport.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace std::chrono_literals;
using orvun::filesystem::ReadOnlyStream;
using stress::GetU32;
using support::Bytes;

// A datagram is a header (sender, sequence number) and a payload that
// follows the pattern of (sender, sequence); the answer carries the same
// header and the payload reversed.
Bytes Datagram(std::uint32_t sender, std::uint32_t sequence, size_t payload)
{
    Bytes bytes = stress::Pattern(std::uint64_t{sender} << 32 | sequence, 0, payload + 8);
    stress::PutU32(bytes.data(), sender);
    stress::PutU32(bytes.data() + 4, sequence);
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

Bytes ReadAll(ReadOnlyStream& stream)
{
    Bytes bytes(stream.GetBufferSize());
    stream.Read(bytes.data(), bytes.size());
    return bytes;
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
                    socket.Receive([&](const UdpSocket&, ReadOnlyStream&& stream) { answers.Push(ReadAll(stream)); });
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
    const int perSender = stress::Scaled(100000, 100) / 2;
    support::ResetProfiler(true);
    std::atomic<int> requests{0};
    std::atomic<int> badRequests{0};
    std::uint64_t bytes = 0;
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Bytes request = ReadAll(stream);
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
    stress::Figure("udp datagrams answered", 2 * perSender);
    stress::Figure("udp bytes round-tripped", static_cast<double>(bytes));
}

// A listener destroyed again and again while two senders keep sending to
// it, half of the datagrams answered: no crash, no hang, nothing left behind.
TEST(UdpStress, ListenerDestroyedWhileDatagramsArrive)
{
    const int rounds = stress::Scaled(200, 5);
    const stress::ResourceBaseline baseline;
    // The port of the listener now up and its family (bit 16); 0 between
    // listeners, so that no datagram goes to a port that is no longer ours.
    std::atomic<int> target{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int t = 0; t < 2; ++t) {
        senders.emplace_back([&, t] {
            unsigned short own = 0;
            support::Fd socket = support::RawUdp(t == 1, own);
            std::mt19937 random(static_cast<unsigned>(t));
            unsigned char drain[2048];
            while (!stop) {
                const int now = target;
                const auto port = static_cast<unsigned short>(now & 0xffff);
                if (port != 0 && (now >> 16) == t) {
                    // Some longer than the loop's 1400 bytes; none empty, since
                    // an empty datagram ends a receive loop.
                    const Bytes datagram = stress::Pattern(random(), 0, 1 + random() % 2000);
                    socklen_t length;
                    const auto address = support::Loopback(t == 1, port, length);
                    static_cast<void>(sendto(socket.Get(), datagram.data(), datagram.size(), 0,
                                             reinterpret_cast<const sockaddr*>(&address), length));
                    while (recv(socket.Get(), drain, sizeof(drain), MSG_DONTWAIT) > 0) {
                    }
                }
                std::this_thread::sleep_for(port == 0 ? 1000us : 50us);
            }
        });
    }
    std::atomic<int> handled{0};
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int round = 0; round < rounds; ++round) {
        // Alternate families; each sender sends to one of them.
        const bool ipv6 = round % 2 == 1;
        const int before = handled;
        auto listener = std::make_unique<UdpListener>(
            ipv6 ? "::1" : "127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
                if (handled++ % 2 == 0) {
                    UdpSocket reply(socket);
                    reply.Write(stream.GetBufferData(), stream.GetBufferSize());
                    reply.Flush();
                }
            });
        target = listener->GetLocalPort() | (ipv6 ? 1 << 16 : 0);
        const bool reached = support::WaitFor([&] { return handled > before; }, 20s);
        EXPECT_TRUE(reached) << "no datagram reached listener " << round;
        EXPECT_EQ(listener->GetThreadError(), nullptr);
        slowest = std::max(slowest, support::TimeOf([&] { listener.reset(); }));
        target = 0;
        if (!reached) {
            break;
        }
    }
    EXPECT_LT(slowest, 5s);
    stop = true;
    for (auto& t : senders) {
        t.join();
    }
    baseline.ExpectRestored();
    stress::Figure("udp listeners destroyed under traffic", rounds);
    stress::Figure("udp datagrams handled meanwhile", handled);
}

} // namespace
