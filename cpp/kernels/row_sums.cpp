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

template <bool of_magnitudes>
[[gnu::always_inline]] inline void sum_lanes(const double* values, std::size_t size, double scale,
                                             BlockSum& total) {
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
            Vector magnitude, term;
            std::memcpy(&magnitude, &magnitude_bits, sizeof magnitude);
            const VectorBits finite = magnitude <= kLargest;
            bits = (of_magnitudes ? magnitude_bits : bits) & finite;
            std::memcpy(&term, &bits, sizeof term);
            count[part] -= finite;
            sum[part] += term * scale;
        }
    }
    total = {};
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const std::size_t part = lane / kWidth, i = lane % kWidth;
        total.count += static_cast<double>(count[part][i]);
        total.sum += sum[part][i];
    }
}

QUORVANE_SIMD void sum_block(const double* values, std::size_t size, double scale,
                             BlockSum& total) {
    sum_lanes<false>(values, size, scale, total);
}

QUORVANE_SIMD void magnitudes_block(const double* values, std::size_t size, double scale,
                                    BlockSum& total) {
    sum_lanes<true>(values, size, scale, total);
}

template <auto block>
RowSum sum_scaled(std::span<const double> values, double scale) {
    double count = 0.0;
    CompensatedSum sum;
    for (std::size_t start = 0; start < values.size(); start += kBlock) {
        BlockSum part;
        block(values.data() + start, std::min(kBlock, values.size() - start), scale, part);
        count += part.count;
        sum.add(part.sum);
    }
    return {count, sum.value(), scale};
}

// So many doubles of that size cannot overflow together.
constexpr double kSmall = 0x1p-64;

template <auto block>
RowSum sum_safely(std::span<const double> values) {
    const RowSum plain = sum_scaled<block>(values, 1.0);
    return std::abs(plain.sum) <= kLargest ? plain : sum_scaled<block>(values, kSmall);
}

}  // namespace

double safe_scale(double largest) {
    constexpr double low = 0x1p-400, high = 0x1p400;
    if (largest == 0.0 || (largest >= low && largest <= high)) return 1.0;
    // Two's exponent of the smallest subnormal would overflow when negated.
    return std::ldexp(1.0, std::min(-std::ilogb(largest), 1023));
}

RowSum sum_of_values(std::span<const double> values) { return sum_safely<sum_block>(values); }

RowSum sum_of_magnitudes(std::span<const double> values) {
    return sum_safely<magnitudes_block>(values);
}

}  // namespace quorvane::kernels
