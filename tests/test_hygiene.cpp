// Each kind of socket opens exactly one descriptor, and every descriptor the
// library opens is close-on-exec, so a program that starts a child process
// hands it none of our sockets.
#include <fcntl.h>

#include <algorithm>
#include <set>

#include "support/Common.h"

namespace {

using namespace orvun::net;
using namespace support;

class CloseOnExecTest : public FamilyTest {};

TEST_P(CloseOnExecTest, EachSocketOpensOneCloseOnExecDescriptor)
{
    unsigned short serverPort = 0;
    Fd server = RawTcpListener(V6(), serverPort);
    const std::vector<std::string> before = Entries("/proc/self/fd");
    Queue<std::unique_ptr<TcpSocket>> accepted;
    TcpSocket client(Host(), serverPort, 0, 2000);
    TcpListener tcpListener(Host(), 0, [&](std::unique_ptr<TcpSocket> s) { accepted.Push(std::move(s)); });
    Fd rawClient = RawTcpConnect(V6(), tcpListener.GetLocalPort());
    const auto kept = accepted.Take();
    ASSERT_TRUE(kept);
    UdpSocket udpSocket(Host(), 9, 0);
    UdpListener udpListener(Host(), 0, [](auto&&...) {});
    // Type and listening state of each descriptor opened since, but the test's own raw client.
    std::multiset<std::pair<int, bool>> opened;
    for (const std::string& entry : Entries("/proc/self/fd")) {
        const int fd = std::stoi(entry);
        if (fd != rawClient.Get() && std::find(before.begin(), before.end(), entry) == before.end()) {
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << fd;
            opened.emplace(OptionOf(fd, SOL_SOCKET, SO_TYPE), OptionOf(fd, SOL_SOCKET, SO_ACCEPTCONN) == 1);
        }
    }
    EXPECT_EQ(
        opened,
        (std::multiset<std::pair<int, bool>>{
            {SOCK_STREAM, false}, {SOCK_STREAM, true}, {SOCK_STREAM, false}, {SOCK_DGRAM, false}, {SOCK_DGRAM, false}}))
        << "client, TCP listener, accepted connection, UDP socket, UDP listener";
}

INSTANTIATE_TEST_SUITE_P(Families, CloseOnExecTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
