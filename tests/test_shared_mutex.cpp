// The profiler's registry lock: shared holders run together, an exclusive
// holder runs alone, and a waiting writer does not hold new readers back.
#include "support/Common.h"

#include "cpu/Profiler.h"

#include <cstdio>
#include <cstdlib>
#include <future>

namespace {

using orvun::cpu::SharedMutex;
using namespace std::chrono_literals;

// Runs `body` on a thread of its own. A body that never gets the lock could
// be neither joined nor left behind, so Finish ends the test program then.
class Bounded {
public:
    template <typename Body> explicit Bounded(Body body) : _done(std::async(std::launch::async, body)) {}
    void Finish(const char* what)
    {
        if (_done.wait_for(10s) != std::future_status::ready) {
            std::fprintf(stderr, "deadlock: %s\n", what);
            std::_Exit(1);
        }
    }

private:
    std::future<void> _done;
};

void SharedHoldFrom(SharedMutex& lock)
{
    Bounded([&] { SharedMutex::SharedHold hold(lock); }).Finish("a reader never got the lock");
}

TEST(SharedMutexTest, ReadersShareAndAWaitingWriterDoesNotHoldThemBack)
{
    SharedMutex lock;
    std::atomic<bool> holding{false};
    lock.LockShared();
    SharedHoldFrom(lock); // a second reader gets in beside the first
    Bounded writer([&] {
        SharedMutex::ExclusiveHold hold(lock);
        holding = true;
    });
    // The writer cannot get in while a reader holds the lock...
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(holding);
    // ...and new readers are still let in while it waits.
    SharedHoldFrom(lock);
    EXPECT_FALSE(holding);
    lock.UnlockShared();
    writer.Finish("the writer was not woken by the last reader");
    EXPECT_EQ(lock.readers, 0);
    EXPECT_FALSE(lock.writing);
}

TEST(SharedMutexTest, AWriterKeepsReadersAndWritersOut)
{
    SharedMutex lock;
    std::atomic<bool> readerIn{false};
    std::atomic<bool> secondWriterIn{false};
    lock.Lock();
    Bounded reader([&] {
        SharedMutex::SharedHold hold(lock);
        readerIn = true;
    });
    Bounded writer([&] {
        SharedMutex::ExclusiveHold hold(lock);
        secondWriterIn = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(readerIn.load());
    EXPECT_FALSE(secondWriterIn.load());
    lock.Unlock();
    reader.Finish("a reader was not woken when the writer left");
    writer.Finish("a writer was not woken when the writer left");
}

} // namespace
