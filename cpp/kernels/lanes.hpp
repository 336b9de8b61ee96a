#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace quorvane::kernels {

// Eight values side by side, in vectors of four: comparisons of vectors that are wider than the
// machine's are taken apart into single numbers by GCC, ten times as slow.
inline constexpr std::size_t kLanes = 8;
inline constexpr std::size_t kWidth = 4;
inline constexpr std::size_t kParts = kLanes / kWidth;
using Vector [[gnu::vector_size(kWidth * sizeof(double))]] = double;
using VectorBits [[gnu::vector_size(kWidth * sizeof(double))]] = std::int64_t;

// The row itself where eight values are left of it, else a copy of those with fillers after them.
inline const double* next_lanes(const double* row, std::size_t left, double filler,
                                double (&copy)[kLanes]) {
    if (left >= kLanes) return row;
    std::fill(std::copy(row, row + left, copy), std::end(copy), filler);
    return copy;
}

}  // namespace quorvane::kernels
