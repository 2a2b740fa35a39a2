// UDP under load: a hundred thousand request/answer pairs through one
// listener, and listeners destroyed while datagrams keep arriving.
#include <condition_variable>
#include <memory>
#include <mutex>

#include "StressSupport.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using orvun::cpu::Profiler;
using orvun::filesystem::ReadOnlyStream;
using stress::GetU32;
using stress::PutU32;
using support::Bytes;

// A datagram is a header (sender, sequence number) and a payload that
// follows the pattern of (sender, sequence); the answer carries the same
// header and the payload reversed.
Bytes Datagram(std::uint32_t sender, std::uint32_t sequence, size_t payload)
{
    Bytes bytes(8);
    PutU32(bytes.data(), sender);
    PutU32(bytes.data() + 4, sequence);
    const Bytes tail = stress::Pattern(std::uint64_t{sender} << 32 | sequence, 0, payload);
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}

Bytes ReadAll(ReadOnlyStream& stream)
{
    Bytes bytes(stream.GetBufferSize());
    stream.Read(bytes.data(), bytes.size());
    return bytes;
}

// One sender: a window of requests in flight, answers counted by its own
// receive loop. The window keeps the listener's queue far below what the
// kernel would drop.
class Sender {
public:
    Sender(std::uint32_t id, unsigned short port, int requests)
        : _id(id), _requests(requests), _answered(static_cast<size_t>(requests), 0), _socket("127.0.0.1", port, 0)
    {
    }

    // Sends every request, never more than `window` unanswered; false when
    // answers stopped coming.
    bool Run(int window)
    {
        std::mt19937 random(_id);
        for (int sequence = 0; sequence < _requests; ++sequence) {
            {
                std::unique_lock<std::mutex> lock(_mutex);
                if (!_changed.wait_for(lock, std::chrono::seconds(20),
                                       [&] { return sequence - _answerCount < window; })) {
                    ADD_FAILURE() << "sender " << _id << ": no answer for 20 s at " << sequence;
                    return false;
                }
            }
            const Bytes request = Datagram(_id, static_cast<std::uint32_t>(sequence), random() % 400);
            _socket.Write(request.data(), request.size());
            _socket.Flush();
            _bytes += request.size();
            if (sequence == 0) {
                // The first send gave the socket its port; answers queue until
                // the loop runs.
                _socket.Receive([this](const UdpSocket&, ReadOnlyStream&& stream) { Answer(ReadAll(stream)); });
            }
        }
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, std::chrono::seconds(20), [&] { return _answerCount == _requests; });
    }

    int Answered()
    {
        std::lock_guard<std::mutex> lock(_mutex);
        return _answerCount;
    }
    int Wrong() const { return _wrong; }
    int Duplicates() const { return _duplicates; }
    std::uint64_t ByteCount() const { return _bytes; }
    std::exception_ptr ThreadError() const { return _socket.GetThreadError(); }

private:
    void Answer(const support::Bytes& answer)
    {
        std::lock_guard<std::mutex> lock(_mutex);
        const std::uint32_t sequence = answer.size() >= 8 ? GetU32(answer.data() + 4) : 0;
        if (answer.size() < 8 || GetU32(answer.data()) != _id || sequence >= _answered.size()) {
            ++_wrong;
            return;
        }
        support::Bytes expected = Datagram(_id, sequence, answer.size() - 8);
        std::reverse(expected.begin() + 8, expected.end());
        if (answer != expected) {
            ++_wrong;
        } else if (_answered[sequence]++ != 0) {
            ++_duplicates;
        } else {
            ++_answerCount;
            _bytes += answer.size();
            _changed.notify_all();
        }
    }

    std::uint32_t _id;
    int _requests;
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<unsigned char> _answered;
    int _answerCount = 0;
    std::atomic<int> _wrong{0};
    std::atomic<int> _duplicates{0};
    std::atomic<std::uint64_t> _bytes{0};
    UdpSocket _socket;
};

// 100,000 datagrams from two senders into one listener, each answered
// through a reply socket: every request answered, every answer delivered,
// and the profiler counted every datagram received.
TEST(UdpStress, HundredThousandDatagramsAnswered)
{
    const int total = stress::Scaled(100000, 100);
    const int perSender = total / 2;
    support::ResetProfiler(true);
    const stress::ResourceBaseline baseline;
    std::atomic<int> requests{0};
    std::atomic<int> badRequests{0};
    std::uint64_t bytes = 0;
    {
        UdpListener listener("127.0.0.1", 0, [&](const UdpSocket& socket, ReadOnlyStream&& stream) {
            Bytes request = ReadAll(stream);
            ++requests;
            if (request.size() < 8 ||
                !stress::MatchesPattern(std::uint64_t{GetU32(request.data())} << 32 | GetU32(request.data() + 4), 0,
                                        request.data() + 8, request.size() - 8)) {
                ++badRequests;
            }
            std::reverse(request.begin() + std::min<size_t>(8, request.size()), request.end());
            UdpSocket reply(socket);
            reply.Write(request.data(), request.size());
            reply.Flush();
        });
        Sender first(1, listener.GetLocalPort(), perSender);
        Sender second(2, listener.GetLocalPort(), perSender);
        bool firstDone = false;
        std::thread other([&] { firstDone = first.Run(32); });
        const bool secondDone = second.Run(32);
        other.join();
        EXPECT_TRUE(firstDone);
        EXPECT_TRUE(secondDone);
        for (Sender* sender : {&first, &second}) {
            EXPECT_EQ(sender->Answered(), perSender);
            EXPECT_EQ(sender->Wrong(), 0);
            EXPECT_EQ(sender->Duplicates(), 0);
            EXPECT_EQ(sender->ThreadError(), nullptr);
            bytes += sender->ByteCount();
        }
        EXPECT_EQ(requests, 2 * perSender) << "a request was lost or repeated";
        EXPECT_EQ(badRequests, 0);
        EXPECT_EQ(listener.GetThreadError(), nullptr);
    }
    // Three receive loops ran (the listener and both senders): "UDP RX" in
    // their "UDP Listener" records counts every request and every answer.
    int received = 0;
    {
        orvun::cpu::SharedMutex::ExclusiveHold hold(Profiler::profilesMutex);
        for (const auto& [id, records] : Profiler::profiles) {
            auto scope = records.find("UDP Listener");
            if (scope != records.end()) {
                auto rx = scope->second.extraProfiles.find("UDP RX");
                if (rx != scope->second.extraProfiles.end()) {
                    received += rx->second.count;
                }
            }
        }
    }
    EXPECT_EQ(received, 4 * perSender);
    support::ResetProfiler(false);
    baseline.ExpectRestored();
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
    std::atomic<int> sent{0};
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
                if (port == 0 || (now >> 16) != t) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    continue;
                }
                // Some longer than the loop's 1400 bytes; none empty, since an
                // empty datagram ends a receive loop.
                const Bytes datagram = stress::Pattern(random(), 0, 1 + random() % 2000);
                socklen_t length;
                auto address = support::Loopback(t == 1, port, length);
                if (sendto(socket.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
                           length) > 0) {
                    ++sent;
                }
                while (recv(socket.Get(), drain, sizeof(drain), MSG_DONTWAIT) > 0) {
                }
                std::this_thread::sleep_for(std::chrono::microseconds(50));
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
        const bool reached = support::WaitFor([&] { return handled > before; }, std::chrono::seconds(20));
        EXPECT_TRUE(reached) << "no datagram reached listener " << round;
        EXPECT_EQ(listener->GetThreadError(), nullptr);
        const auto start = std::chrono::steady_clock::now();
        listener.reset();
        target = 0;
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
        if (!reached) {
            break;
        }
    }
    EXPECT_LT(slowest, std::chrono::seconds(5));
    stop = true;
    for (auto& t : senders) {
        t.join();
    }
    baseline.ExpectRestored();
    stress::Figure("udp listeners destroyed under traffic", rounds);
    stress::Figure("udp datagrams handled meanwhile", handled);
}

} // namespace
