// Scoped per-thread profiler.
//
// A `Profiler` object is one named scope on the thread that constructs it;
// scopes opened inside it nest, and each scope accumulates its times in a
// record keyed by the "/"-joined names of the open scopes. `Extra` attaches a
// value (a byte count, say) to every scope open on the calling thread.
//
// The operations are inline so that every library using them works on the one
// set of tables defined in OrvunCpu; the layout of these types is therefore an
// interface between libraries.
//
// Threads: any thread may open scopes and record extras. A scope must end on
// the thread that opened it, innermost first. The tables are guarded by
// `profilesMutex`; `Report` may run on any thread at any time.
//
// Ownership: the tables belong to OrvunCpu and live as long as the process;
// these operations only ever add to them. Records are keyed by
// std::thread::id, and a thread started after another was joined may get the
// same id, and so continue that thread's records.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#define ORVUN_CPU_API __attribute__((visibility("default")))

namespace orvun::cpu {

// Reader/writer lock over the profiler's tables. Shared holders are not held
// back by a waiting writer. The operations do not nest: never ask for the
// exclusive mode while holding the shared one.
class ORVUN_CPU_API SharedMutex {
public:
    std::mutex mutex;
    std::condition_variable condition;
    std::int32_t readers = 0;
    bool writing = false;

    void LockShared()
    {
        std::unique_lock<std::mutex> lock(Acquire(mutex), std::adopt_lock);
        condition.wait(lock, [this] { return !writing; });
        ++readers;
    }
    void UnlockShared()
    {
        std::lock_guard<std::mutex> lock(Acquire(mutex), std::adopt_lock);
        if (--readers == 0) {
            condition.notify_one();
        }
    }
    void Lock()
    {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return readers == 0 && !writing; });
        writing = true;
    }
    void Unlock()
    {
        std::lock_guard<std::mutex> lock(mutex);
        writing = false;
        condition.notify_all();
    }

    // Takes `m`, spinning briefly before blocking. The sections under the
    // internal mutex are a few instructions long, so a thread that finds it
    // taken nearly always gets it within a few tries; blocking at once would
    // cost both threads a futex call on every collision.
    static std::mutex& Acquire(std::mutex& m)
    {
        for (int tries = 0; tries < 100; ++tries) {
            if (m.try_lock()) {
                return m;
            }
            __builtin_ia32_pause();
        }
        m.lock();
        return m;
    }

    // Guards that give the hold back on every path, exceptions included.
    class SharedHold {
    public:
        explicit SharedHold(SharedMutex& m) : _m(m) { _m.LockShared(); }
        ~SharedHold() { _m.UnlockShared(); }
        SharedHold(const SharedHold&) = delete;
        SharedHold& operator=(const SharedHold&) = delete;

    private:
        SharedMutex& _m;
    };
    class ExclusiveHold {
    public:
        explicit ExclusiveHold(SharedMutex& m) : _m(m) { _m.Lock(); }
        ~ExclusiveHold() { _m.Unlock(); }
        ExclusiveHold(const ExclusiveHold&) = delete;
        ExclusiveHold& operator=(const ExclusiveHold&) = delete;

    private:
        SharedMutex& _m;
    };
};

// One named scope, timed from construction to destruction (or `Stop`), on the
// thread that builds it. Neither copyable nor movable: keep it on that
// thread's stack. Does nothing while recording is off.
class ORVUN_CPU_API Profiler {
public:
    // Statistics of one path (or of one extra inside a scope record): the
    // number of samples, their sum, smallest and largest value. Samples are
    // milliseconds for scopes and the caller's unit for extras (bytes for the
    // sockets' "TCP TX", "UDP TX", "UDP RX").
    struct Profile {
        std::int32_t count = 0;
        double total = 0.0;
        double min = -1.0; // -1.0: no sample yet
        double max = 0.0;
        std::unordered_map<std::string, Profile> extraProfiles;

        void Add(double sample)
        {
            ++count;
            total += sample;
            min = min == -1.0 ? sample : std::min(min, sample);
            max = std::max(sample, max);
        }
    };

    // The registry. Keys are only ever added, under the exclusive mode of
    // `profilesMutex`; a thread changes its own entries under the shared mode.
    static std::unordered_map<std::thread::id, std::unordered_map<std::string, Profile>> profiles;
    static std::unordered_map<std::thread::id, std::vector<std::string>> profileStacks;
    static std::unordered_map<std::thread::id, std::string> threadNames;
    static std::set<std::string> extras;
    // Master switch, false by default. Change it with `SetEnabled`.
    static bool enabled;
    static SharedMutex profilesMutex;

    // Opens the scope `name` on the calling thread; with `start` it is timed
    // from the end of construction. Throws std::system_error or allocation
    // failures; nothing is left registered then.
    explicit Profiler(const std::string& name, bool start = true) { Open(name, start); }
    ~Profiler() { Stop(); }
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    // Ends the scope: adds its time when timed and removes its name from the
    // thread's stack. Only the first call does anything.
    void Stop()
    {
        if (profile == nullptr) {
            return;
        }
        if (running) {
            double elapsed;
            {
                std::lock_guard<std::mutex> lock(mutex);
                elapsed = (static_cast<double>(NowNanoseconds()) - startTime * 1000000.0) / 1000000.0;
            }
            running = false;
            // The record is updated under the shared hold so that `Report`,
            // which reads under the exclusive mode, sees consistent records.
            SharedMutex::SharedHold hold(profilesMutex);
            profile->Add(elapsed);
            PopStack();
        } else {
            SharedMutex::SharedHold hold(profilesMutex);
            PopStack();
        }
        profile = nullptr;
    }

    // Adds `value` under `name` to every scope open on the calling thread,
    // and enters `name` in `extras`. Records nothing while disabled or on a
    // thread that never opened an enabled scope.
    static void Extra(const std::string& name, double value)
    {
        // The check alone inlines into callers: profiling is off by default.
        if (IsEnabled()) {
            RecordExtra(name, value);
        }
    }

    // Names the calling thread in `threadNames` (not the system thread), the
    // label `Report` shows; a second call replaces the name. Works whether or
    // not recording is on. Throws std::system_error or allocation failures.
    static void SetThreadName(const std::string& name)
    {
        const std::thread::id id = std::this_thread::get_id();
        SharedMutex::ExclusiveHold hold(profilesMutex);
        threadNames[id] = name;
    }

    // Whether recording is on. Any thread, any time.
    static bool IsEnabled() { return std::atomic_ref<bool>(enabled).load(std::memory_order_relaxed); }
    // Switches recording on or off; scopes already open keep their state.
    static void SetEnabled(bool on) { std::atomic_ref<bool>(enabled).store(on, std::memory_order_relaxed); }

    // Writes every thread (by its registered name where it has one), every
    // path with count, total, min, max and mean milliseconds, and every extra
    // with its count and total, sorted by thread name, path and extra name.
    // Holds the exclusive mode while it reads, so other threads' scopes and
    // extras wait for it; writes to `out` afterwards. Throws allocation
    // failures and what `out` throws.
    static void Report(std::ostream& out);

    // Object state, in this order; see `Stop`.
    std::mutex mutex;
    double startTime = 0.0; // milliseconds since the system clock's epoch
    bool running = false;
    Profile* profile = nullptr; // null: inert or ended

private:
    static void WriteTables(std::ostream& text);

    static std::int64_t NowNanoseconds()
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    }

    // Per-thread scratch for paths, so that the common case allocates nothing.
    // Out of line on purpose: a thread_local inside an inline function gets a
    // construction guard per shared library, so two libraries would build and
    // destroy the one object twice.
    static std::string& Scratch();

    // Runs `change` under the exclusive mode from inside a shared hold: the
    // hold is given back first and taken again afterwards, on every path.
    template <typename Change> static void WithExclusive(Change&& change)
    {
        profilesMutex.UnlockShared();
        struct Retake {
            ~Retake() { profilesMutex.LockShared(); }
        } retake;
        SharedMutex::ExclusiveHold exclusive(profilesMutex);
        change();
    }

    // What `Extra` does while recording is on.
    static void RecordExtra(const std::string& name, double value)
    {
        const std::thread::id id = std::this_thread::get_id();
        SharedMutex::SharedHold hold(profilesMutex);
        auto found = profiles.find(id);
        if (found == profiles.end()) {
            return;
        }
        // Map nodes stay put when other threads add keys; iterators may not.
        auto& records = found->second;
        if (extras.find(name) == extras.end()) {
            WithExclusive([&name] { extras.insert(name); });
        }
        const std::vector<std::string>& stack = profileStacks.at(id);
        if (stack.empty()) {
            return;
        }
        // The outermost path is the bare name: no copy for it, and none at
        // all in the common case of one open scope.
        Entry(records.at(stack.front()).extraProfiles, name).Add(value);
        if (stack.size() == 1) {
            return;
        }
        std::string& path = Scratch();
        path = stack.front();
        for (auto scope = stack.begin() + 1; scope != stack.end(); ++scope) {
            // A separator per level, as `Open` builds paths: an empty scope
            // name must not merge two levels into another scope's path.
            path += '/';
            path += *scope;
            Entry(records.at(path).extraProfiles, name).Add(value);
        }
    }

    // `map[key]` without hashing the key when it is already there: `find`
    // compares the keys of a small map one by one, where `[]` always hashes.
    template <typename Map> static Profile& Entry(Map& map, const std::string& key)
    {
        auto found = map.find(key);
        return found != map.end() ? found->second : map[key];
    }

    static void PopStack()
    {
        auto stack = profileStacks.find(std::this_thread::get_id());
        if (stack != profileStacks.end() && !stack->second.empty()) {
            stack->second.pop_back();
        }
    }

    void Open(const std::string& name, bool start)
    {
        if (!IsEnabled()) {
            return;
        }
        const std::thread::id id = std::this_thread::get_id();
        {
            SharedMutex::SharedHold hold(profilesMutex);
            auto threadProfiles = profiles.find(id);
            if (threadProfiles == profiles.end()) {
                WithExclusive([id] {
                    profiles[id];
                    profileStacks[id];
                });
                threadProfiles = profiles.find(id);
            }
            std::vector<std::string>& stack = profileStacks.at(id);
            if (stack.empty()) {
                // No scope open: the path is the bare name, used as it is.
                profile = &Entry(threadProfiles->second, name);
            } else {
                std::string& path = Scratch();
                path.clear();
                for (const std::string& scope : stack) {
                    path += scope;
                    path += '/';
                }
                path += name;
                profile = &Entry(threadProfiles->second, path);
            }
            stack.push_back(name);
        }
        if (start) {
            std::lock_guard<std::mutex> lock(mutex);
            running = true;
            startTime = static_cast<double>(NowNanoseconds()) / 1000000.0;
        }
    }
};

} // namespace orvun::cpu
