// The median and 99th percentile of timed samples, as the end-to-end
// benchmarks report round trips.
#pragma once

#include <algorithm>
#include <vector>

namespace zel::bench {

struct Percentiles {
    double median_us, p99_us;
};

inline Percentiles percentiles(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

} // namespace zel::bench
