// Scaling, data and threads of the stress tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>
#include <vector>

#include "support/Common.h"

namespace support {

// ORVUN_STRESS_SCALE multiplies every stress count (default 1; sanitizer
// runs use less, long local runs more).
inline int Scaled(int count, int minimum)
{
    const char* text = std::getenv("ORVUN_STRESS_SCALE");
    const double scale = text == nullptr ? 0.0 : std::strtod(text, nullptr);
    return std::max(minimum, static_cast<int>(std::lround(count * (scale > 0.0 ? scale : 1.0))));
}

// Bytes `offset`.. of stream `stream`: they differ between streams and
// positions, so a lost, repeated or reordered byte shows.
inline Bytes Pattern(std::uint64_t stream, std::uint64_t offset, size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        const std::uint64_t x = (offset + i + 1) * 0x9E3779B97F4A7C15ull ^ (stream + 1) * 0xC2B2AE3D27D4EB4Full;
        bytes[i] = static_cast<unsigned char>(x >> 56);
    }
    return bytes;
}

// Runs `body(0)` .. `body(count - 1)` on threads of their own, released
// together once all have started, and joins them.
template <typename Body> void RunThreads(int count, Body&& body)
{
    std::latch start(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            body(i);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// One figure of a stress run, for the reliability notes.
inline void Figure(const char* name, double value)
{
    std::printf("[ figure ] %s = %.0f\n", name, value);
    std::fflush(stdout);
}

} // namespace support
