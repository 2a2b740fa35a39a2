// The profiler's registry lock: shared holders run together, an exclusive
// holder runs alone, and a waiting writer does not hold new readers back.
#include "Support.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using orvun::cpu::SharedMutex;
using support::WaitFor;

// A thread that never gets the lock cannot be joined, and leaving it would
// hang the run: fail the whole test program instead.
[[noreturn]] void Stuck(const char* what)
{
    std::fprintf(stderr, "deadlock: %s\n", what);
    std::fflush(stderr);
    std::_Exit(1);
}

// A thread that asks for the exclusive mode and keeps it until released.
class Writer {
public:
    explicit Writer(SharedMutex& lock)
        : _thread([this, &lock] {
              lock.Lock();
              _holding = true;
              WaitFor([this] { return _release.load(); });
              _holding = false;
              lock.Unlock();
              _done = true;
          })
    {
    }
    ~Writer()
    {
        _release = true;
        if (!WaitFor([this] { return _done.load(); })) {
            Stuck("a writer never got the lock");
        }
        _thread.join();
    }
    bool Holding() const { return _holding; }

private:
    std::atomic<bool> _holding{false};
    std::atomic<bool> _release{false};
    std::atomic<bool> _done{false};
    std::thread _thread;
};

// Takes and gives back a shared hold on another thread; dies if it cannot.
void SharedHoldFrom(SharedMutex& lock)
{
    std::atomic<bool> held{false};
    std::thread reader([&] {
        SharedMutex::SharedHold hold(lock);
        held = true;
    });
    if (!WaitFor([&] { return held.load(); })) {
        Stuck("a reader never got the lock");
    }
    reader.join();
}

TEST(SharedMutexTest, ReadersShareAndAWaitingWriterDoesNotHoldThemBack)
{
    SharedMutex lock;
    lock.LockShared();
    SharedHoldFrom(lock); // a second reader gets in beside the first
    {
        Writer writer(lock);
        // The writer cannot get in while a reader holds the lock...
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(writer.Holding());
        // ...and new readers are still let in while it waits.
        SharedHoldFrom(lock);
        EXPECT_FALSE(writer.Holding());
        lock.UnlockShared();
        EXPECT_TRUE(WaitFor([&] { return writer.Holding(); })) << "the writer was not woken by the last reader";
    }
    EXPECT_EQ(lock.readers, 0);
    EXPECT_FALSE(lock.writing);
}

TEST(SharedMutexTest, AWriterKeepsReadersAndWritersOut)
{
    SharedMutex lock;
    std::atomic<bool> readerIn{false};
    std::atomic<bool> secondWriterIn{false};
    lock.Lock();
    std::thread reader([&] {
        SharedMutex::SharedHold hold(lock);
        readerIn = true;
    });
    std::thread writer([&] {
        SharedMutex::ExclusiveHold hold(lock);
        secondWriterIn = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(readerIn.load());
    EXPECT_FALSE(secondWriterIn.load());
    lock.Unlock();
    if (!WaitFor([&] { return readerIn && secondWriterIn; })) {
        Stuck("waiters were not woken when the writer left");
    }
    reader.join();
    writer.join();
}

// Readers and writers hammering one lock from several threads: a writer's
// changes are never seen half-made, and none is lost.
TEST(SharedMutexTest, ExclusiveChangesAreAtomicToReadersUnderContention)
{
    SharedMutex lock;
    long first = 0;
    long second = 0;
    std::atomic<long> torn{0};
    constexpr int kRounds = 20000;
    auto write = [&] {
        for (int i = 0; i < kRounds; ++i) {
            SharedMutex::ExclusiveHold hold(lock);
            ++first;
            ++second;
        }
    };
    auto read = [&] {
        for (int i = 0; i < kRounds; ++i) {
            SharedMutex::SharedHold hold(lock);
            if (first != second) {
                ++torn;
            }
        }
    };
    std::thread writers[] = {std::thread(write), std::thread(write)};
    std::thread readers[] = {std::thread(read), std::thread(read)};
    for (auto& t : writers) {
        t.join();
    }
    for (auto& t : readers) {
        t.join();
    }
    EXPECT_EQ(first, 2L * kRounds);
    EXPECT_EQ(second, 2L * kRounds);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(lock.readers, 0);
}

} // namespace
