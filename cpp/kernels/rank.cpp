// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/rank.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kernels/lanes.hpp"
#include "kernels/rank_steps.hpp"

// Of a short row all pairs are compared. A longer one is sorted.

namespace quorvane::kernels {
namespace {

using namespace rank_steps;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t kShortRow = 128;

// The packed entries in ascending order of their leading bits.
std::span<const std::uint64_t> sort_packed(const Keys& keys, std::size_t count,
                                           RankWorkspace& workspace) {
    workspace.sorted.resize(std::max(workspace.sorted.size(), workspace.packed.size()));
    std::uint64_t* from = workspace.packed.data();
    std::uint64_t* to = workspace.sorted.data();
    for (int pass = 0; pass < keys.passes; ++pass) {
        const int shift = kSlotBits + pass * keys.digit_bits;
        const std::span histogram(
            workspace.histogram.data() + static_cast<std::size_t>(pass) * keys.buckets(),
            keys.buckets());
        const bool one_bucket = histogram[*from >> shift & (keys.buckets() - 1)] == count;
        if (one_bucket) continue;
        std::uint32_t start = 0;
        for (std::uint32_t& bucket : histogram) start += std::exchange(bucket, start);
        move_by_digit({from, count}, to, shift, histogram);
        std::swap(from, to);
    }
    return {from, count};
}

// How many of the values are smaller than each, or not larger; NaN compares with nothing. As
// doubles, which hold such counts exactly.
template <bool or_equal>
[[gnu::always_inline]] inline void count_smaller(const double* values, std::size_t size,
                                                 double* counts) {
    for (std::size_t i = 0; i < size; i += kLanes) {
        double copy[kLanes];
        const double* row = next_lanes(values + i, size - i, kNan, copy);
        Vector value[kParts], counted[kParts]{};
        std::memcpy(value, row, sizeof value);
        VectorBits found[kParts]{};
        for (std::size_t j = 0; j < size; ++j) {
            const Vector other = Vector{} + values[j];
            for (std::size_t part = 0; part < kParts; ++part) {
                found[part] -= or_equal ? other <= value[part] : other < value[part];
            }
        }
        for (std::size_t part = 0; part < kParts; ++part) {
            // A small integer in the low bits of 2^52, which is taken off again.
            const VectorBits shifted = found[part] + 0x4330'0000'0000'0000;
            std::memcpy(&counted[part], &shifted, sizeof shifted);
            counted[part] -= 0x1p52;
        }
        std::memcpy(counts + i, counted, sizeof counted);
    }
}

// By comparing all pairs; nearly always once, since there are equal values only if fewer pairs than
// all have a smaller one.
QUORVANE_SIMD void rank_short(const double* values, std::size_t size, double* out) {
    double smaller[kShortRow], not_larger[kShortRow];
    count_smaller<false>(values, size, smaller);
    double present = 0.0, pairs = 0.0;
    for (std::size_t i = 0; i < size; ++i) {
        present += values[i] == values[i] ? 1.0 : 0.0;
        pairs += smaller[i];
    }
    if (pairs == present * (present - 1.0) / 2.0) {
        for (std::size_t i = 0; i < size; ++i) {
            out[i] = values[i] == values[i] ? (smaller[i] + 1.0) / present : kNan;
        }
        return;
    }
    count_smaller<true>(values, size, not_larger);
    for (std::size_t i = 0; i < size; ++i) {
        // Of equal ones the average of their ranks; exact in a double.
        const double average = (smaller[i] + not_larger[i] + 1.0) / 2.0;
        out[i] = values[i] == values[i] ? average / present : kNan;
    }
}

}  // namespace

void rank_fraction(std::span<const double> values, RankWorkspace& workspace,
                   std::span<double> out) {
    if (values.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("rank: at most 2^32 - 1 slots can be ranked");
    }
    if (values.size() <= kShortRow) return rank_short(values.data(), values.size(), out.data());
    std::ranges::fill(out, kNan);
    Extremes extremes;
    find_extremes(values.data(), values.size(), extremes);
    if (extremes.nothing_seen()) return;

    const Keys keys(extremes, values.size());
    workspace.packed.resize(std::max(workspace.packed.size(), values.size()));
    workspace.histogram.assign(static_cast<std::size_t>(keys.passes) * keys.buckets(), 0);
    const std::size_t count =
        pack(values, 0, keys, workspace.packed.data(), workspace.histogram.data());
    const auto sorted = sort_packed(keys, count, workspace);
    if (workspace.fractions_of != count) {
        workspace.fractions.resize(std::max(workspace.fractions.size(), count + 1));
        fill_fractions(count, 1, count + 1, workspace.fractions.data());
        workspace.fractions_of = count;
    }
    rank_range(sorted, 0, count, workspace.fractions.data(), values, keys, workspace.tied, out);
}

}  // namespace quorvane::kernels
