#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// Scratch memory of rank_fraction. Kept by the caller from day to day, it stops growing at the
// longest row it has seen.
struct RankWorkspace {
    struct Entry {
        std::uint64_t key;
        std::uint32_t slot;
    };
    std::vector<std::uint64_t> packed;
    std::vector<std::uint64_t> sorted;
    std::vector<std::uint32_t> histogram;
    std::vector<Entry> tied;
    std::vector<double> fractions;  // i / fractions_of, as far as that
    std::size_t fractions_of = 0;
};

// Ascending rank over the number of slots that are not NaN, in (0, 1]; equal values share the
// average of their ranks. NaN stays NaN, infinities are ordered, -0.0 equals 0.0. `out` has the
// length of `values`, at most 2^32 - 1 (std::length_error otherwise).
void rank_fraction(std::span<const double> values, RankWorkspace& workspace, std::span<double> out);

}  // namespace quorvane::kernels
