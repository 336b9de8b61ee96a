// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/over_time/rolling_mean.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernels/over_time/present.hpp"

namespace quorvane::kernels {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargest = std::numeric_limits<double>::max();

QUORVANE_SIMD void mean_day(const double* values, double* past, const double* tail, double* head,
                            double* count, double* out, std::size_t size, double least) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const bool present = std::abs(values[i]) <= kLargest;
        const double value = present ? values[i] : kMissing;
        const double had = past[i] == past[i] ? 1.0 : 0.0;
        const double numbers = count[i] + (present ? 1.0 : 0.0) - had;
        const double sum = head[i] + (present ? value : 0.0);
        past[i] = value;
        count[i] = numbers;
        head[i] = sum;
        const double mean = (tail[i] + sum) / numbers;
        out[i] = numbers >= least ? mean : kMissing;
    }
}

// to = from + values, where there is a value.
QUORVANE_SIMD void add_present(const double* values, const double* from, double* to,
                               std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        to[i] = from[i] + (values[i] == values[i] ? values[i] : 0.0);
    }
}

}  // namespace

void RollingMean::step(const TimeMemory& memory, std::size_t position, const double* values,
                       double* out, SlotRange range) const {
    const std::size_t first = range.first;
    mean_day(values, memory.kept_row(position) + first, memory.derived_row(position + 1) + first,
             memory.derived_row(window_ + 1) + first, memory.derived_row(window_ + 2) + first, out,
             range.size(), least_);
    if (position + 1 == window_) derive(memory, 0, range);
}

void RollingMean::derive(const TimeMemory& memory, std::size_t position, SlotRange range) const {
    const std::size_t first = range.first, size = range.size();
    double* head = memory.derived_row(window_ + 1) + first;
    double* count = memory.derived_row(window_ + 2) + first;
    std::fill_n(head, size, 0.0);
    std::fill_n(count, size, 0.0);
    std::fill_n(memory.derived_row(window_) + first, size, 0.0);
    for (std::size_t day = 0; day < window_; ++day) {
        const double* values = memory.kept_row(day) + first;
        if (day < position) add_present(values, head, head, size);
        count_present(values, count, size);
    }
    for (std::size_t day = window_; day-- > position;) {
        add_present(memory.kept_row(day) + first, memory.derived_row(day + 1) + first,
                    memory.derived_row(day) + first, size);
    }
}

}  // namespace quorvane::kernels
