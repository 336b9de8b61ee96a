// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/centered_rank.hpp"

#include <cstddef>

#include "kernels/wide_rank.hpp"

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD double count_present(const double* values, std::size_t size) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < size; ++i) count += values[i] == values[i] ? 1 : 0;
    return static_cast<double>(count);
}

// The nearest whole number: adding this leaves no room for a fraction.
constexpr double kNoFraction = 0x1.8p52;

// Twice a rank is a whole number below 2^34, so a fraction of n has enough digits to tell it.
QUORVANE_SIMD void center(double* ranks, std::size_t size, double count) {
    for (std::size_t i = 0; i < size; ++i) {
        const double twice = (2.0 * count * ranks[i] + kNoFraction) - kNoFraction;
        ranks[i] = (twice - (count + 1.0)) / count;
    }
}

}  // namespace

void centered_rank(std::span<const double> values, RankWorkspace& workspace,
                   std::span<double> out) {
    rank_fraction(values, workspace, out);
    center(out.data(), out.size(), count_present(values.data(), values.size()));
}

void centered_rank_wide(std::span<const double> values, std::size_t threads,
                        RankWorkspace& workspace, std::span<double> out) {
    rank_fraction_wide(values, threads, workspace, out);
    center(out.data(), out.size(), count_present(values.data(), values.size()));
}

}  // namespace quorvane::kernels
