#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

/// Durations of one measurement.
class Samples {
public:
    using Clock = std::chrono::steady_clock;

    void reserve(std::size_t count) { micros_.reserve(count); }
    void add(Clock::time_point from, Clock::time_point to);
    std::size_t count() const { return micros_.size(); }

    /// The value, in microseconds, that `share` (0 to 1) of the samples do not exceed; 0 without
    /// samples.
    double percentile(double share);

private:
    std::vector<double> micros_;
};
