// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/ewma.hpp"

#include <cmath>
#include <cstddef>
#include <limits>

namespace quorvane::kernels {

double ewma_decay(double window) {
    const double com = (window - 1.0) / 2.0;
    const double alpha = 1.0 / (1.0 + com);
    return 1.0 - alpha;
}

namespace {

// One slot on one day: the new mean. Both sides of every choice are evaluated, so that the loops
// have no branches.
[[gnu::always_inline]] inline double advance(double value, double decay, double& mean,
                                             double& weight) {
    const double held = mean;
    const bool has_mean = held == held;
    const bool observed = std::abs(value) <= std::numeric_limits<double>::max();

    const double aged = has_mean ? weight * decay : weight;
    // An equal value leaves the mean alone: recomputing could move it by a rounding error.
    const double moved = held != value ? (aged * held + value) / (aged + 1.0) : held;
    const double updated = has_mean ? moved : value;
    mean = observed ? updated : held;
    weight = has_mean && observed ? aged + 1.0 : aged;
    return mean;
}

QUORVANE_SIMD void step(const double* __restrict values, double decay, double* __restrict mean,
                        double* __restrict weight, double* __restrict out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) out[i] = advance(values[i], decay, mean[i], weight[i]);
}

QUORVANE_SIMD void step_in_place(double* __restrict values, double decay, double* __restrict mean,
                                 double* __restrict weight, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        values[i] = advance(values[i], decay, mean[i], weight[i]);
    }
}

}  // namespace

void ewma_step(std::span<const double> values, double decay, std::span<double> mean,
               std::span<double> weight, std::span<double> out) {
    step(values.data(), decay, mean.data(), weight.data(), out.data(), values.size());
}

void ewma_step_in_place(std::span<double> values, double decay, std::span<double> mean,
                        std::span<double> weight) {
    step_in_place(values.data(), decay, mean.data(), weight.data(), values.size());
}

}  // namespace quorvane::kernels
