#include "load/Samples.h"

#include <algorithm>
#include <cmath>

void Samples::add(Clock::time_point from, Clock::time_point to) {
    micros_.push_back(std::chrono::duration<double, std::micro>(to - from).count());
}

double Samples::percentile(double share) {
    if (micros_.empty()) {
        return 0;
    }
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(count())));
    const auto wanted = micros_.begin() +
                        static_cast<std::ptrdiff_t>(std::clamp<std::size_t>(rank, 1, count()) - 1);
    std::nth_element(micros_.begin(), wanted, micros_.end());
    return *wanted;
}
