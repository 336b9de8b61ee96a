// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/center.hpp"

#include <cstddef>
#include <limits>

#include "kernels/row_sums.hpp"

namespace quorvane::kernels {

namespace {

constexpr double kLargest = std::numeric_limits<double>::max();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

QUORVANE_SIMD void subtract(const double* __restrict values, double mean, double* __restrict out,
                            std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const double usable = std::abs(values[i]) <= kLargest ? values[i] : kNan;
        out[i] = usable - mean;
    }
}

QUORVANE_SIMD void divide(const double* __restrict values, double scale, double sum,
                          double* __restrict out, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const double usable = std::abs(values[i]) <= kLargest ? values[i] : kNan;
        out[i] = usable * scale / sum;
    }
}

}  // namespace

void demean(std::span<const double> values, std::span<double> out) {
    const RowMean row = mean_of(values);
    // The mean lies between the values, so it is in range again.
    subtract(values.data(), row.mean / row.scale, out.data(), values.size());
}

void scale_to_one(std::span<const double> values, std::span<double> out) {
    const GrossSum total = gross_sum_of(values);
    divide(values.data(), total.scale, total.sum == 0.0 ? kNan : total.sum, out.data(),
           values.size());
}

}  // namespace quorvane::kernels
