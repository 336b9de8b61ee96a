#pragma once

#include <span>

namespace quorvane::kernels {

// (x - mean) / std per slot, with the mean and the population standard deviation of the finite
// slots. Slots that are not finite give NaN; so does every slot where fewer than two are finite or
// where the deviation is at most eps * |mean|, which is no more than the rounding of the mean.
// Values near the ends of the double range are scaled by a power of two first, so no sum overflows.
// `out` has the length of `values`.
void zscore(std::span<const double> values, std::span<double> out);

}  // namespace quorvane::kernels
