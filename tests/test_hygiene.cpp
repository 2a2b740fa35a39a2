// Each kind of socket opens exactly one descriptor, and every descriptor the
// library opens is close-on-exec, so a program that starts a child process
// hands it none of our sockets.
#include <fcntl.h>

#include <optional>
#include <set>

#include "support/Common.h"

namespace {

using namespace orvun::net;
using namespace support;

std::set<std::string> Descriptors()
{
    const auto entries = Entries("/proc/self/fd");
    return {entries.begin(), entries.end()};
}

class CloseOnExecTest : public FamilyTest {};

TEST_P(CloseOnExecTest, EachSocketOpensOneCloseOnExecDescriptor)
{
    Queue<std::unique_ptr<TcpSocket>> accepted;
    std::optional<TcpSocket> client;
    std::optional<TcpListener> tcpListener;
    std::optional<UdpSocket> udpSocket;
    std::optional<UdpListener> udpListener;
    unsigned short serverPort = 0;
    Fd server = RawTcpListener(V6(), serverPort);
    Fd rawClient;
    std::set<std::string> known = Descriptors();
    // Runs `open`, then checks what it opened beside the test's own raw client.
    const auto expectOne = [&](const char* kind, int type, bool listening, const std::function<void()>& open) {
        SCOPED_TRACE(kind);
        open();
        std::vector<int> opened;
        for (const std::string& fd : Descriptors()) {
            if (!known.contains(fd) && std::stoi(fd) != rawClient.Get()) {
                opened.push_back(std::stoi(fd));
            }
        }
        known = Descriptors();
        ASSERT_EQ(opened.size(), 1u) << "the library should have opened exactly one descriptor";
        EXPECT_EQ(OptionOf(opened.front(), SOL_SOCKET, SO_TYPE), type);
        EXPECT_EQ(OptionOf(opened.front(), SOL_SOCKET, SO_ACCEPTCONN) != 0, listening);
        EXPECT_NE(fcntl(opened.front(), F_GETFD) & FD_CLOEXEC, 0);
    };
    expectOne("client", SOCK_STREAM, false, [&] { client.emplace(Host(), serverPort, 0, 2000); });
    expectOne("TcpListener", SOCK_STREAM, true, [&] {
        tcpListener.emplace(Host(), 0, [&](std::unique_ptr<TcpSocket> s) { accepted.Push(std::move(s)); });
    });
    std::optional<std::unique_ptr<TcpSocket>> kept; // until the test ends
    expectOne("accepted", SOCK_STREAM, false, [&] {
        rawClient = RawTcpConnect(V6(), tcpListener->GetLocalPort());
        EXPECT_TRUE(kept = accepted.Take());
    });
    expectOne("UdpSocket", SOCK_DGRAM, false, [&] { udpSocket.emplace(Host(), 9, 0); });
    expectOne("UdpListener", SOCK_DGRAM, false, [&] { udpListener.emplace(Host(), 0, [](auto&&...) {}); });
}

INSTANTIATE_TEST_SUITE_P(Families, CloseOnExecTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
