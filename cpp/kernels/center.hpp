#pragma once

#include <span>

namespace quorvane::kernels {

// x - mean per slot, with the mean of the finite slots; the others give NaN.
void demean(std::span<const double> values, std::span<double> out);

// x / sum(|x|) per slot, with the sum over the finite slots; the others give NaN, and all do where
// the sum is zero.
void scale_to_one(std::span<const double> values, std::span<double> out);

}  // namespace quorvane::kernels
