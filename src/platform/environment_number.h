// Whole numbers that tests set through the environment to shorten delays and
// time-outs. Unset, they leave the library's own values in force.
#pragma once

#include <climits>
#include <cstdlib>

namespace zel {

// The positive whole number in the environment variable `name`, or
// `fallback` when it is unset, not a number, 0, or above `most`. Any thread
// (it reads the environment without the platform layer's shared buffer).
inline unsigned positive_from_environment(const char *name, unsigned fallback, unsigned most = UINT_MAX)
{
    const char *text = std::getenv(name);
    if (!text || !*text)
        return fallback;
    char *end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    return (*end || value == 0 || value > most) ? fallback : unsigned(value);
}

} // namespace zel
