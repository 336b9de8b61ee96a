#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// Each value, or `low` where it is below that, or `high` where it is above; NaN stays, and so does
// the sign of a zero that is a bound. As np.clip, which gives `high` where the two are the wrong
// way round.
void clip(std::span<const double> values, double low, double high, std::span<double> out);

// Scratch memory of winsorize, kept by the caller from day to day.
struct QuantileWorkspace {
    std::vector<std::uint32_t> histogram;
    std::vector<std::uint16_t> bucket_of;
    std::vector<double> chosen;
};

// Clips at the quantiles `fraction` and 1 - `fraction` of the values that are not NaN, each
// interpolated linearly between two values, as np.nanquantile does it; none is -0.0. NaN stays;
// all is NaN where a quantile lies between two equal infinities.
void winsorize(std::span<const double> values, double fraction, QuantileWorkspace& workspace,
               std::span<double> out);

}  // namespace quorvane::kernels
