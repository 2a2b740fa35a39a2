// Scaling, threads and figures of the stress tests.
#pragma once

#include <cmath>
#include <cstdio>
#include <latch>

#include "support/Common.h"

namespace support {

// ORVUN_STRESS_SCALE multiplies every stress count (default 1; sanitizer
// runs use less, long local runs more).
inline int Scaled(int count, int minimum)
{
    const char* text = std::getenv("ORVUN_STRESS_SCALE");
    const double scale = text == nullptr ? 0.0 : std::atof(text);
    return std::max(minimum, static_cast<int>(std::lround(count * (scale > 0.0 ? scale : 1.0))));
}

// Runs `body(0)` .. `body(count - 1)` on threads of their own, released
// together once all have started, and joins them.
template <typename Body> void RunThreads(int count, Body&& body)
{
    std::latch start(count);
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            body(i);
        });
    }
}

// One figure of a stress run, for the reliability notes.
inline void Figure(const char* name, double value)
{
    std::printf("[ figure ] %s = %.0f\n", name, value);
    std::fflush(stdout);
}

} // namespace support
