// Every descriptor the library opens is close-on-exec, so a program that
// starts a child process hands it none of our sockets.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>

#include "Support.h"
#include "net/Socket.h"

extern char** environ;

namespace {

using namespace orvun::net;
using support::Fd;

// The open descriptors of this process, without the one that lists them.
std::set<int> Descriptors()
{
    std::set<int> found;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        ADD_FAILURE() << "cannot list /proc/self/fd";
        return found;
    }
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            const int fd = std::atoi(entry->d_name);
            if (fd != dirfd(dir)) {
                found.insert(fd);
            }
        }
    }
    closedir(dir);
    return found;
}

std::vector<int> OpenedSince(const std::set<int>& before, const std::set<int>& ignore = {})
{
    std::vector<int> opened;
    for (int fd : Descriptors()) {
        if (before.count(fd) == 0 && ignore.count(fd) == 0) {
            opened.push_back(fd);
        }
    }
    return opened;
}

bool IsSocket(int fd)
{
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode);
}

bool CloseOnExec(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

int SocketType(int fd)
{
    int type = 0;
    socklen_t length = sizeof(type);
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length);
    return type;
}

bool IsListening(int fd)
{
    int listening = 0;
    socklen_t length = sizeof(listening);
    getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    return listening != 0;
}

// Expects exactly one new descriptor, a socket of `type`, and returns it.
int TheOneNewSocket(const std::vector<int>& opened, int type)
{
    EXPECT_EQ(opened.size(), 1u) << "the library should have opened exactly one descriptor";
    if (opened.size() != 1) {
        return -1;
    }
    const int fd = opened.front();
    EXPECT_TRUE(IsSocket(fd));
    EXPECT_EQ(SocketType(fd), type);
    return fd;
}

const char* Loopback(bool ipv6) { return ipv6 ? "::1" : "127.0.0.1"; }

// Accepted connections, kept until the test ends.
struct Accepted {
    std::mutex mutex;
    std::vector<std::unique_ptr<TcpSocket>> sockets;

    TcpListener::Callback Keeper()
    {
        return [this](std::unique_ptr<TcpSocket> socket) {
            std::lock_guard<std::mutex> lock(mutex);
            sockets.push_back(std::move(socket));
        };
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return sockets.size();
    }
};

class CloseOnExecTest : public ::testing::TestWithParam<bool> {};

TEST_P(CloseOnExecTest, ClientTcpSocket)
{
    unsigned short port = 0;
    Fd server = support::RawTcpListener(GetParam(), port);
    const auto before = Descriptors();
    TcpSocket client(Loopback(GetParam()), port, 0, 2000);
    const int fd = TheOneNewSocket(OpenedSince(before), SOCK_STREAM);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(CloseOnExec(fd));
    EXPECT_FALSE(IsListening(fd));
}

TEST_P(CloseOnExecTest, AcceptedTcpSocket)
{
    Accepted accepted;
    TcpListener listener(Loopback(GetParam()), 0, accepted.Keeper());
    const auto before = Descriptors();
    Fd client = support::RawTcpConnect(GetParam(), listener.GetLocalPort());
    ASSERT_TRUE(support::WaitFor([&] { return accepted.Count() == 1; }));
    const int fd = TheOneNewSocket(OpenedSince(before, {client.Get()}), SOCK_STREAM);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(CloseOnExec(fd));
    EXPECT_EQ(support::LocalPort(fd), listener.GetLocalPort());
}

TEST_P(CloseOnExecTest, TcpListener)
{
    const auto before = Descriptors();
    TcpListener listener(Loopback(GetParam()), 0, [](std::unique_ptr<TcpSocket>) {});
    const int fd = TheOneNewSocket(OpenedSince(before), SOCK_STREAM);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(CloseOnExec(fd));
    EXPECT_TRUE(IsListening(fd));
    EXPECT_EQ(support::LocalPort(fd), listener.GetLocalPort());
}

TEST_P(CloseOnExecTest, UdpSocket)
{
    const auto before = Descriptors();
    UdpSocket socket(Loopback(GetParam()), 9, 0);
    const int fd = TheOneNewSocket(OpenedSince(before), SOCK_DGRAM);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(CloseOnExec(fd));
}

TEST_P(CloseOnExecTest, UdpListener)
{
    const auto before = Descriptors();
    UdpListener listener(Loopback(GetParam()), 0, [](const UdpSocket&, orvun::filesystem::ReadOnlyStream&&) {});
    const int fd = TheOneNewSocket(OpenedSince(before), SOCK_DGRAM);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(CloseOnExec(fd));
    EXPECT_EQ(support::LocalPort(fd), listener.GetLocalPort());
}

INSTANTIATE_TEST_SUITE_P(Families, CloseOnExecTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& family) { return family.param ? "IPv6" : "IPv4"; });

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
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return {};
    }
    Fd readEnd(pipeEnds[0]);
    Fd writeEnd(pipeEnds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDOUT_FILENO);
    const char* script = "for f in /proc/$$/fd/*; do readlink \"$f\"; done";
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(script), nullptr};
    pid_t child = -1;
    const int spawned = posix_spawn(&child, "/bin/sh", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    writeEnd.Reset();
    if (spawned != 0) {
        ADD_FAILURE() << "posix_spawn failed: " << std::strerror(spawned);
        return {};
    }
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    char chunk[4096];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{readEnd.Get(), POLLIN, 0};
        if (poll(&entry, 1, 200) != 1) {
            continue;
        }
        const ssize_t n = read(readEnd.Get(), chunk, sizeof(chunk));
        if (n <= 0) {
            break;
        }
        output.append(chunk, static_cast<size_t>(n));
    }
    int status = 0;
    if (!support::WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(20))) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        ADD_FAILURE() << "the child did not finish";
    }
    std::set<ino_t> inodes;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "socket:[%lu]", &inode) == 1) {
            inodes.insert(static_cast<ino_t>(inode));
        }
    }
    return inodes;
}

// The library's sockets of every kind stay behind when a child is started,
// while a socket opened without the flag is inherited (the probe sees it).
TEST(CloseOnExec, ChildProcessInheritsNoLibrarySocket)
{
    Accepted accepted;
    const auto before = Descriptors();
    TcpListener tcpListener("127.0.0.1", 0, accepted.Keeper());
    UdpListener udpListener("127.0.0.1", 0, [](const UdpSocket&, orvun::filesystem::ReadOnlyStream&&) {});
    UdpSocket udpSocket("127.0.0.1", udpListener.GetLocalPort(), 0);
    TcpSocket client("127.0.0.1", tcpListener.GetLocalPort(), 0, 2000);
    ASSERT_TRUE(support::WaitFor([&] { return accepted.Count() == 1; }));
    const auto ours = OpenedSince(before);
    ASSERT_EQ(ours.size(), 5u) << "listener, accepted, client, UDP socket, UDP listener";

    Fd inherited(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_FALSE(CloseOnExec(inherited.Get()));

    const auto seen = SocketsSeenByChild();
    EXPECT_EQ(seen.count(InodeOf(inherited.Get())), 1u) << "the probe does not see inherited sockets";
    for (int fd : ours) {
        EXPECT_EQ(seen.count(InodeOf(fd)), 0u) << "descriptor " << fd << " was handed to the child";
    }
}

} // namespace
