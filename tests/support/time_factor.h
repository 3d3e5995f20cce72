// One factor for every time-out in the tests: sanitizers slow code down.
#pragma once

#include <chrono>

namespace zel::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int time_factor = 5;
#else
constexpr int time_factor = 1;
#endif

// A generous upper bound for something that normally takes milliseconds.
inline std::chrono::milliseconds patience(int ms = 10000)
{
    return std::chrono::milliseconds(ms * time_factor);
}

} // namespace zel::test
