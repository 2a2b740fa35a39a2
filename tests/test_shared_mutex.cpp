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

// Takes the lock in `Hold`'s mode on a thread of its own and sets `in` once it
// holds it. A thread that never gets the lock could be neither joined nor
// left behind, so Finish ends the test program then.
template <typename Hold> class Taker {
public:
    explicit Taker(SharedMutex& lock)
        : _done(std::async(std::launch::async, [&] {
              Hold hold(lock);
              in = true;
          }))
    {
    }
    void Finish(const char* what)
    {
        if (_done.wait_for(10s) != std::future_status::ready) {
            std::fprintf(stderr, "deadlock: %s\n", what);
            std::_Exit(1);
        }
    }
    std::atomic<bool> in{false};

private:
    std::future<void> _done;
};
using Reader = Taker<SharedMutex::SharedHold>;
using Writer = Taker<SharedMutex::ExclusiveHold>;

TEST(SharedMutexTest, ReadersShareAndAWaitingWriterDoesNotHoldThemBack)
{
    SharedMutex lock;
    lock.LockShared();
    Reader(lock).Finish("a second reader was kept out by the first");
    Writer writer(lock);
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(writer.in) << "a writer got in beside a reader";
    Reader(lock).Finish("a waiting writer kept a new reader out");
    EXPECT_FALSE(writer.in);
    lock.UnlockShared();
    writer.Finish("the writer was not woken by the last reader");
    EXPECT_EQ(lock.readers, 0);
    EXPECT_FALSE(lock.writing);
}

TEST(SharedMutexTest, AWriterKeepsReadersAndWritersOut)
{
    SharedMutex lock;
    lock.Lock();
    Reader reader(lock);
    Writer writer(lock);
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(reader.in);
    EXPECT_FALSE(writer.in);
    lock.Unlock();
    reader.Finish("a reader was not woken when the writer left");
    writer.Finish("a writer was not woken when the writer left");
}

} // namespace
