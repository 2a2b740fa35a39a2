// Every descriptor the library opens is close-on-exec, so a program that
// starts a child process hands it none of our sockets.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <optional>

#include "Support.h"
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

bool CloseOnExec(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

int SocketOption(int fd, int name)
{
    int value = 0;
    socklen_t length = sizeof(value);
    getsockopt(fd, SOL_SOCKET, name, &value, &length);
    return value;
}

ino_t InodeOf(int fd)
{
    struct stat info {};
    fstat(fd, &info);
    return info.st_ino;
}

// Runs a shell that prints what each of its descriptors refers to, and
// returns the socket inodes among them.
std::set<ino_t> SocketsSeenByChild()
{
    // `timeout` bounds the reads below.
    FILE* child = popen("timeout -s KILL 20 sh -c 'for f in /proc/$$/fd/*; do readlink \"$f\"; done; true'", "r");
    std::set<ino_t> inodes;
    if (child == nullptr) {
        ADD_FAILURE() << "popen failed";
        return inodes;
    }
    char line[256];
    while (std::fgets(line, sizeof(line), child) != nullptr) {
        unsigned long inode = 0;
        if (std::sscanf(line, "socket:[%lu]", &inode) == 1) {
            inodes.insert(static_cast<ino_t>(inode));
        }
    }
    EXPECT_EQ(pclose(child), 0);
    return inodes;
}

class CloseOnExecTest : public testing::TestWithParam<Family> {};

// Each kind of socket opens exactly one descriptor, close-on-exec. A shell
// started while all five are open sees none of them, but does see a socket
// opened without the flag (so the probe works).
TEST_P(CloseOnExecTest, ChildProcessInheritsNoLibrarySocket)
{
    const bool v6 = GetParam().ipv6;
    const char* host = GetParam().host;
    Queue<std::unique_ptr<TcpSocket>> accepted; // kept until the test ends
    std::optional<TcpSocket> client;
    std::optional<TcpListener> tcpListener;
    std::optional<UdpSocket> udpSocket;
    std::optional<UdpListener> udpListener;
    unsigned short serverPort = 0;
    Fd server = RawTcpListener(v6, serverPort);
    Fd rawClient;
    std::set<int> known = Descriptors();
    std::vector<int> ours;
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
        EXPECT_TRUE(CloseOnExec(opened.front()));
        ours.push_back(opened.front());
    };
    expectOne("client", SOCK_STREAM, false, [&] { return client.emplace(host, serverPort, 0, 2000), -1; });
    expectOne("TcpListener", SOCK_STREAM, true, [&] {
        return tcpListener.emplace(host, 0,
                                   [&](std::unique_ptr<TcpSocket> socket) { accepted.Push(std::move(socket)); }),
               -1;
    });
    expectOne("accepted", SOCK_STREAM, false, [&] {
        rawClient = RawTcpConnect(v6, tcpListener->GetLocalPort());
        EXPECT_TRUE(WaitFor([&] { return accepted.Pushed() == 1; }));
        return rawClient.Get();
    });
    expectOne("UdpSocket", SOCK_DGRAM, false, [&] { return udpSocket.emplace(host, 9, 0), -1; });
    expectOne("UdpListener", SOCK_DGRAM, false, [&] { return udpListener.emplace(host, 0, [](auto&&...) {}), -1; });
    ASSERT_EQ(ours.size(), 5u);

    Fd inherited(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_FALSE(CloseOnExec(inherited.Get()));
    const auto seen = SocketsSeenByChild();
    EXPECT_EQ(seen.count(InodeOf(inherited.Get())), 1u) << "the probe does not see inherited sockets";
    for (const int fd : ours) {
        EXPECT_EQ(seen.count(InodeOf(fd)), 0u) << "descriptor " << fd << " was handed to the child";
    }
}

INSTANTIATE_TEST_SUITE_P(Families, CloseOnExecTest, testing::ValuesIn(kFamilies), FamilyName);

} // namespace
