// Helpers for the stress tests: the scale knob, deterministic byte patterns
// and checks that every descriptor and thread is given back.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Support.h"

namespace stress {

// ORVUN_STRESS_SCALE multiplies every count (default 1; sanitizer runs use
// less, long local runs more).
inline double Scale()
{
    const char* text = std::getenv("ORVUN_STRESS_SCALE");
    const double scale = text == nullptr ? 0.0 : std::strtod(text, nullptr);
    return scale > 0.0 ? scale : 1.0;
}

inline int Scaled(int count, int minimum = 1)
{
    return std::max(minimum, static_cast<int>(std::lround(count * Scale())));
}

// Byte `offset` of stream `stream`: differs between streams and positions,
// so a lost, repeated or reordered byte shows.
inline unsigned char PatternByte(std::uint64_t stream, std::uint64_t offset)
{
    const std::uint64_t x = (offset + 1) * 0x9E3779B97F4A7C15ull ^ (stream + 1) * 0xC2B2AE3D27D4EB4Full;
    return static_cast<unsigned char>(x >> 56);
}

inline support::Bytes Pattern(std::uint64_t stream, std::uint64_t offset, size_t size)
{
    support::Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = PatternByte(stream, offset + i);
    }
    return bytes;
}

inline bool MatchesPattern(std::uint64_t stream, std::uint64_t offset, const unsigned char* data, size_t size)
{
    return size == 0 || Pattern(stream, offset, size) == support::Bytes(data, data + size);
}

inline void PutU32(unsigned char* at, std::uint32_t value) { std::memcpy(at, &value, sizeof(value)); }
inline std::uint32_t GetU32(const unsigned char* at)
{
    std::uint32_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

// Makes room for `needed` more descriptors by raising the soft limit (the
// tests, not the library, own process limits).
inline void EnsureDescriptorRoom(size_t needed)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto wanted = static_cast<rlim_t>(support::OpenDescriptors() + needed + 64);
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// The descriptor and thread counts at construction, compared later with a
// bounded wait (threads end and sockets close a little after their owners).
class ResourceBaseline {
public:
    ResourceBaseline() : _descriptors(support::OpenDescriptors()), _threads(support::ThreadCount()) {}

    void ExpectRestored() const
    {
        EXPECT_TRUE(
            support::WaitFor([&] { return support::OpenDescriptors() == _descriptors; }, std::chrono::seconds(20)))
            << "descriptors: " << support::OpenDescriptors() << " now, " << _descriptors << " at the start";
        EXPECT_TRUE(support::WaitFor([&] { return support::ThreadCount() == _threads; }, std::chrono::seconds(20)))
            << "threads: " << support::ThreadCount() << " now, " << _threads << " at the start";
    }

private:
    size_t _descriptors;
    size_t _threads;
};

// Writes a figure of the run on one line, for the reliability notes.
inline void Figure(const std::string& name, double value)
{
    std::printf("[ figure ] %s = %.0f (scale %.2f)\n", name.c_str(), value, Scale());
    std::fflush(stdout);
}

} // namespace stress
