// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/zscore.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kernels/lanes.hpp"
#include "kernels/row_sums.hpp"

namespace quorvane::kernels {
namespace {

constexpr double kLargest = std::numeric_limits<double>::max();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Sums of one block are plain, sums of blocks compensated: the error does not grow with the length.
constexpr std::size_t kBlock = 128 * kLanes;

struct BlockSums {
    double count;    // finite values
    double largest;  // of |x - center|
    double first;    // sum of x - center
    double second;   // sum of (x - center)^2
};

// The sums over at most kBlock values, each multiplied by `scale` first.
QUORVANE_SIMD void sum_block(const double* values, std::size_t size, double scale, double center,
                             BlockSums& sums) {
    Vector count[kParts]{}, largest[kParts]{}, first[kParts]{}, second[kParts]{};
    for (std::size_t i = 0; i < size; i += kLanes) {
        double copy[kLanes];
        const double* row = next_lanes(values + i, size - i, kNan, copy);
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector value;
            std::memcpy(&value, row + part * kWidth, sizeof value);
            const Vector magnitude = value < 0.0 ? -value : value;
            const VectorBits finite = magnitude <= kLargest;
            const Vector deviation = finite ? value * scale - center : Vector{};
            const Vector distance = deviation < 0.0 ? -deviation : deviation;
            count[part] += finite ? Vector{} + 1.0 : Vector{};
            largest[part] = distance > largest[part] ? distance : largest[part];
            first[part] += deviation;
            second[part] += deviation * deviation;
        }
    }
    sums = {};
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const std::size_t part = lane / kWidth, i = lane % kWidth;
        sums.count += count[part][i];
        sums.largest = std::max(sums.largest, largest[part][i]);
        sums.first += first[part][i];
        sums.second += second[part][i];
    }
}

struct Sums {
    double count = 0.0;
    double largest = 0.0;
    double first = 0.0;
    double second = 0.0;
};

Sums sum_all(std::span<const double> values, double scale, double center) {
    Sums total;
    CompensatedSum first, second;
    for (std::size_t start = 0; start < values.size(); start += kBlock) {
        BlockSums block;
        sum_block(values.data() + start, std::min(kBlock, values.size() - start), scale, center,
                  block);
        total.count += block.count;
        total.largest = std::max(total.largest, block.largest);
        first.add(block.first);
        second.add(block.second);
    }
    total.first = first.value();
    total.second = second.value();
    return total;
}

QUORVANE_SIMD void standardise(const double* __restrict values, double* __restrict out,
                               std::size_t count, double scale, double mean, double deviation) {
    for (std::size_t i = 0; i < count; ++i) {
        const bool finite = std::abs(values[i]) <= kLargest;
        const double usable = finite ? values[i] : kNan;
        out[i] = (usable * scale - mean) / deviation;
    }
}

// 1 where squares and sums of the values stay well inside the double range, else the power of two
// that brings the largest value near 1.
double safe_scale(double largest) {
    constexpr double low = 0x1p-400, high = 0x1p400;
    if (largest == 0.0 || (largest >= low && largest <= high)) return 1.0;
    // Two's exponent of the smallest subnormal would overflow when negated.
    return std::ldexp(1.0, std::min(-std::ilogb(largest), 1023));
}

}  // namespace

void zscore(std::span<const double> values, std::span<double> out) {
    Sums raw = sum_all(values, 1.0, 0.0);
    const double scale = safe_scale(raw.largest);
    if (scale != 1.0) raw = sum_all(values, scale, 0.0);

    double mean = kNan, deviation = kNan;
    if (raw.count >= 2.0) {
        // Sums around the first estimate give what that estimate lost to rounding.
        const double estimate = raw.first / raw.count;
        const Sums centered = sum_all(values, scale, estimate);
        const double correction = centered.first / centered.count;
        const double variance = centered.second / centered.count - correction * correction;
        const double spread = std::sqrt(std::max(variance, 0.0));
        mean = estimate + correction;
        const bool constant = spread <= std::numeric_limits<double>::epsilon() * std::abs(mean);
        deviation = constant ? kNan : spread;
    }
    standardise(values.data(), out.data(), values.size(), scale, mean, deviation);
}

}  // namespace quorvane::kernels
