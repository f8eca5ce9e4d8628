#pragma once

#include <sched.h>

#include <algorithm>
#include <vector>

/// What benchmarks that time two processes against each other share.
namespace orvex {

/// This process, and those that it forks, on one core: a hand-off then costs the same in every run.
inline void pinToOneCore() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ::sched_setaffinity(0, sizeof one, &one);
}

/// Of at least one; reorders them.
inline double median(std::vector<double>& times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    return *middle;
}

}  // namespace orvex
