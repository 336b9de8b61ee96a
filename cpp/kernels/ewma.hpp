#pragma once

#include <span>

namespace quorvane::kernels {

// The factor by which one day ages the weights: f = 1 - alpha, alpha = 1 / (1 + com),
// com = (window - 1) / 2.
[[nodiscard]] double ewma_decay(double window);

// One day of the exponentially weighted mean with adjusted weights, per slot:
//   missing (NaN or infinite):  the mean is held; W = W * f once there is a mean
//   first value x:              m = x, W stays 1
//   later value x:              W = W * f; m = (W * m + x) / (W + 1) unless m == x; W = W + 1
// A slot that has seen nothing has mean NaN and weight 1. `mean` and `weight` are updated in place
// and the new mean is copied to `out`. All spans have the length of `values`; `out` and the state
// do not overlap.
void ewma_step(std::span<const double> values, double decay, std::span<double> mean,
               std::span<double> weight, std::span<double> out);

// The same, with the new mean in the place of each value.
void ewma_step_in_place(std::span<double> values, double decay, std::span<double> mean,
                        std::span<double> weight);

}  // namespace quorvane::kernels
