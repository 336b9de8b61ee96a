// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/row_sums.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kernels/lanes.hpp"

namespace quorvane::kernels {

namespace {

constexpr double kLargest = std::numeric_limits<double>::max();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Sums of one block are plain, sums of blocks compensated: the error does not grow with the length.
constexpr std::size_t kBlock = 32 * kLanes;

struct BlockSum {
    double count, sum;
};

// The sum of value * scale - center, or of the magnitudes.
template <bool of_magnitudes>
[[gnu::always_inline]] inline void sum_lanes(const double* values, std::size_t size, double scale,
                                             double center, BlockSum& total) {
    constexpr std::int64_t kWithoutSign = std::numeric_limits<std::int64_t>::max();
    VectorBits count[kParts]{};
    Vector sum[kParts]{};
    for (std::size_t i = 0; i < size; i += kLanes) {
        double copy[kLanes];
        const double* row = next_lanes(values + i, size - i, kNan, copy);
        for (std::size_t part = 0; part < kParts; ++part) {
            VectorBits bits;
            std::memcpy(&bits, row + part * kWidth, sizeof bits);
            const VectorBits magnitude_bits = bits & kWithoutSign;
            Vector value, magnitude, term;
            std::memcpy(&value, &bits, sizeof value);
            std::memcpy(&magnitude, &magnitude_bits, sizeof magnitude);
            const VectorBits finite = magnitude <= kLargest;
            term = of_magnitudes ? magnitude * scale : value * scale - center;
            std::memcpy(&bits, &term, sizeof bits);
            bits &= finite;
            std::memcpy(&term, &bits, sizeof term);
            count[part] -= finite;
            sum[part] += term;
        }
    }
    total = {};
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const std::size_t part = lane / kWidth, i = lane % kWidth;
        total.count += static_cast<double>(count[part][i]);
        total.sum += sum[part][i];
    }
}

QUORVANE_SIMD void sum_block(const double* values, std::size_t size, double scale, double center,
                             BlockSum& total) {
    sum_lanes<false>(values, size, scale, center, total);
}

QUORVANE_SIMD void magnitudes_block(const double* values, std::size_t size, double scale,
                                    double center, BlockSum& total) {
    sum_lanes<true>(values, size, scale, center, total);
}

template <auto block>
BlockSum sum_all(std::span<const double> values, double scale, double center) {
    double count = 0.0;
    CompensatedSum sum;
    for (std::size_t start = 0; start < values.size(); start += kBlock) {
        BlockSum part;
        block(values.data() + start, std::min(kBlock, values.size() - start), scale, center, part);
        count += part.count;
        sum.add(part.sum);
    }
    return {count, sum.value()};
}

// So many doubles of that size cannot overflow together.
constexpr double kSmall = 0x1p-64;

bool is_finite(double value) { return std::abs(value) <= kLargest; }

RowMean scaled_mean(std::span<const double> values, double scale) {
    const BlockSum plain = sum_all<sum_block>(values, scale, 0.0);
    const double estimate = plain.sum / plain.count;
    // Sums around the first estimate give what that estimate lost to rounding.
    const BlockSum centered = sum_all<sum_block>(values, scale, estimate);
    return {plain.count, estimate + centered.sum / centered.count, scale};
}

}  // namespace

RowMean mean_of(std::span<const double> values) {
    const RowMean plain = scaled_mean(values, 1.0);
    const bool is_known = plain.count == 0.0 || is_finite(plain.mean);
    return is_known ? plain : scaled_mean(values, kSmall);
}

GrossSum gross_sum_of(std::span<const double> values) {
    const double plain = sum_all<magnitudes_block>(values, 1.0, 0.0).sum;
    if (is_finite(plain)) return {plain, 1.0};
    return {sum_all<magnitudes_block>(values, kSmall, 0.0).sum, kSmall};
}

}  // namespace quorvane::kernels
