// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/over_time/exponential.hpp"

#include <cmath>
#include <limits>

namespace quorvane::kernels {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargest = std::numeric_limits<double>::max();

// The average with a value more, whose weight is 1. An equal value leaves the mean alone:
// recomputing could move it by a rounding error.
[[gnu::always_inline]] inline double moved(double mean, double aged, double value) {
    return mean != value ? (aged * mean + value) / (aged + 1.0) : mean;
}

QUORVANE_SIMD void mean_day(const double* values, double decay, double* means, double* weights,
                            double* out, std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const double value = values[i], held = means[i];
        const bool has_mean = held == held;
        const bool observed = std::abs(value) <= kLargest;
        const double aged = weights[i] * decay;
        const double updated = has_mean ? moved(held, aged, value) : value;
        const double weight = has_mean ? aged + 1.0 : 1.0;
        means[i] = observed ? updated : held;
        weights[i] = observed ? weight : aged;
        out[i] = means[i];
    }
}

struct Rows {
    double *means, *weights, *squared_weights, *variances;
};

QUORVANE_SIMD void deviation_day(const double* values, double decay, const Rows& rows, double* out,
                                 std::size_t size) {
    const auto [means, weights, squared_weights, variances] = rows;
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const double value = values[i], held = means[i];
        const bool has_mean = held == held;
        const bool observed = std::abs(value) <= kLargest;
        const double aged = weights[i] * decay;
        const double aged_squares = squared_weights[i] * (decay * decay);
        const double mean = has_mean ? moved(held, aged, value) : value;
        const double step = held - mean, rest = value - mean;
        const double variance =
            has_mean ? (aged * (variances[i] + step * step) + rest * rest) / (aged + 1.0) : 0.0;
        means[i] = observed ? mean : held;
        variances[i] = observed ? variance : variances[i];
        weights[i] = observed ? (has_mean ? aged + 1.0 : 1.0) : aged;
        squared_weights[i] = observed ? (has_mean ? aged_squares + 1.0 : 1.0) : aged_squares;
        const double numerator = weights[i] * weights[i];
        const double denominator = numerator - squared_weights[i];
        const double unbiased = numerator / denominator * variances[i];
        out[i] = denominator > 0.0 ? std::sqrt(unbiased) : kMissing;
    }
}

}  // namespace

void Exponential::step(const TimeMemory& memory, std::size_t /*position*/, const double* values,
                       double* out, SlotRange range) const {
    double* means = memory.kept_row(0) + range.first;
    double* weights = memory.kept_row(1) + range.first;
    if (gives_ == Gives::mean) {
        mean_day(values, decay_, means, weights, out, range.size());
        return;
    }
    const Rows rows{means, weights, memory.kept_row(2) + range.first,
                    memory.kept_row(3) + range.first};
    deviation_day(values, decay_, rows, out, range.size());
}

}  // namespace quorvane::kernels
