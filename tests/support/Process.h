// Probes of this process (its descriptors and threads) and the leak guard
// that every test runs under.
#pragma once

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace support {

// Polls `done` every millisecond until it holds or `limit` passes.
inline bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The entries of a /proc directory, "." and ".." left out, and in
// /proc/self/fd the descriptor that reads the directory too.
inline std::vector<std::string> Entries(const char* directory)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory)) {
        const std::string own = std::string(directory) == "/proc/self/fd" ? std::to_string(dirfd(dir)) : "";
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.' && entry->d_name != own) {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(dir);
    }
    return names;
}

inline size_t OpenDescriptors() { return Entries("/proc/self/fd").size(); }

// The first thread a process starts can bring a runtime thread of its own
// (ThreadSanitizer's), so one is started and joined before the first count.
inline size_t ThreadCount()
{
    static const bool warmedUp = [] {
        std::thread([] {}).join();
        return true;
    }();
    static_cast<void>(warmedUp);
    return Entries("/proc/self/task").size();
}

// Kernel ids of this process's threads whose name (comm) is `name`.
inline std::vector<pid_t> ThreadsNamed(const std::string& name)
{
    std::vector<pid_t> found;
    for (const std::string& task : Entries("/proc/self/task")) {
        std::ifstream comm("/proc/self/task/" + task + "/comm");
        std::string text;
        if (std::getline(comm, text) && text == name) {
            found.push_back(static_cast<pid_t>(std::atoi(task.c_str())));
        }
    }
    return found;
}
inline bool HasThreadNamed(const std::string& name) { return !ThreadsNamed(name).empty(); }

// While it lives, SIGUSR1 runs a handler that does nothing, installed
// without SA_RESTART: a thread it hits fails its blocking call with EINTR.
class QuietSignal {
public:
    QuietSignal()
    {
        struct sigaction quiet {};
        quiet.sa_handler = [](int) {};
        sigaction(SIGUSR1, &quiet, &_previous);
    }
    ~QuietSignal() { sigaction(SIGUSR1, &_previous, nullptr); }
    QuietSignal(const QuietSignal&) = delete;
    QuietSignal& operator=(const QuietSignal&) = delete;

private:
    struct sigaction _previous {};
};

// Interrupts the poll of the thread named `thread` with SIGUSR1 until
// `ended` holds (at most 50 tries).
inline bool InterruptPoll(const std::string& thread, const std::function<bool()>& ended)
{
    const QuietSignal quiet;
    std::vector<pid_t> ids;
    WaitFor([&] { return !(ids = ThreadsNamed(thread)).empty(); });
    for (int attempt = 0; !ids.empty() && attempt < 50 && !ended(); ++attempt) {
        syscall(SYS_tgkill, getpid(), ids.front(), SIGUSR1);
        WaitFor(ended, std::chrono::milliseconds(200));
    }
    return ended();
}

// Fails any test after which more descriptors or threads are open than
// before it, once they have had 20 s to go (threads end and sockets close a
// little after their owners). A death-test child never reaches the end of
// its test, and a program's child mode runs no test at all.
class LeakGuard : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override
    {
        _descriptors = OpenDescriptors();
        _threads = ThreadCount();
    }
    void OnTestEnd(const testing::TestInfo&) override
    {
        if (!WaitFor([&] { return OpenDescriptors() <= _descriptors && ThreadCount() <= _threads; },
                     std::chrono::seconds(20))) {
            ADD_FAILURE() << "leak: " << OpenDescriptors() << " descriptors (" << _descriptors << " before), "
                          << ThreadCount() << " threads (" << _threads << " before)";
        }
    }
    size_t _descriptors = 0;
    size_t _threads = 0;
};

inline const bool kLeakGuardInstalled = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new LeakGuard);
    return true;
}();

} // namespace support
