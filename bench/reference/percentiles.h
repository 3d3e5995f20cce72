// Round trips as the end-to-end benchmarks and `zel bench` report them: timed
// one by one after a warm-up, summed up as the median and 99th percentile.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace zel::reference {

struct Percentiles {
    double median_us, p99_us;
};

inline Percentiles percentiles(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

// Calls `trip` a tenth more than `trips` times and times each call; the
// first tenth warms the path up (connections, allocations, caches) and is
// not counted.
template <typename Trip>
Percentiles time_round_trips(int trips, Trip trip)
{
    std::vector<double> samples;
    samples.reserve(size_t(trips));
    for (int i = 0; i < trips + trips / 10; ++i) {
        auto start = std::chrono::steady_clock::now();
        trip();
        if (i >= trips / 10)
            samples.push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    return percentiles(samples);
}

} // namespace zel::reference
