// Each kind of socket opens exactly one descriptor, and every descriptor the
// library opens is close-on-exec, so a program that starts a child process
// hands it none of our sockets.
#include <fcntl.h>

#include <cstdlib>
#include <optional>
#include <set>

#include "support/Common.h"
#include "net/Socket.h"

namespace {

using namespace orvun::net;
using namespace support;

std::set<int> Descriptors()
{
    std::set<int> found;
    for (const std::string& entry : Entries("/proc/self/fd")) {
        found.insert(std::atoi(entry.c_str()));
    }
    return found;
}

int SocketOption(int fd, int name)
{
    int value = 0;
    socklen_t length = sizeof(value);
    getsockopt(fd, SOL_SOCKET, name, &value, &length);
    return value;
}

class CloseOnExecTest : public FamilyTest {};

TEST_P(CloseOnExecTest, EachSocketOpensOneCloseOnExecDescriptor)
{
    Queue<std::unique_ptr<TcpSocket>> accepted;
    std::unique_ptr<TcpSocket> kept; // until the test ends
    std::optional<TcpSocket> client;
    std::optional<TcpListener> tcpListener;
    std::optional<UdpSocket> udpSocket;
    std::optional<UdpListener> udpListener;
    unsigned short serverPort = 0;
    Fd server = RawTcpListener(V6(), serverPort);
    Fd rawClient;
    std::set<int> known = Descriptors();
    // Runs `open`, which returns a descriptor of the test's own to leave out, or -1.
    const auto expectOne = [&](const char* kind, int type, bool listening, const std::function<int()>& open) {
        SCOPED_TRACE(kind);
        const int own = open();
        std::vector<int> opened;
        for (const int fd : Descriptors()) {
            if (!known.contains(fd) && fd != own) {
                opened.push_back(fd);
            }
        }
        known = Descriptors();
        ASSERT_EQ(opened.size(), 1u) << "the library should have opened exactly one descriptor";
        EXPECT_EQ(SocketOption(opened.front(), SO_TYPE), type);
        EXPECT_EQ(SocketOption(opened.front(), SO_ACCEPTCONN) != 0, listening);
        EXPECT_NE(fcntl(opened.front(), F_GETFD) & FD_CLOEXEC, 0);
    };
    expectOne("client", SOCK_STREAM, false, [&] { return client.emplace(Host(), serverPort, 0, 2000), -1; });
    expectOne("TcpListener", SOCK_STREAM, true, [&] {
        return tcpListener.emplace(Host(), 0, [&](std::unique_ptr<TcpSocket> s) { accepted.Push(std::move(s)); }),
               -1;
    });
    expectOne("accepted", SOCK_STREAM, false, [&] {
        rawClient = RawTcpConnect(V6(), tcpListener->GetLocalPort());
        kept = accepted.Take().value_or(nullptr);
        EXPECT_NE(kept, nullptr);
        return rawClient.Get();
    });
    expectOne("UdpSocket", SOCK_DGRAM, false, [&] { return udpSocket.emplace(Host(), 9, 0), -1; });
    expectOne("UdpListener", SOCK_DGRAM, false, [&] { return udpListener.emplace(Host(), 0, [](auto&&...) {}), -1; });
}

INSTANTIATE_TEST_SUITE_P(Families, CloseOnExecTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
