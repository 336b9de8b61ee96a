// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/rank_steps.hpp"

#include <cstring>

#include "kernels/lanes.hpp"

namespace quorvane::kernels::rank_steps {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Comparisons with NaN are false, so NaN is never taken.
QUORVANE_SIMD void find_all(const double* values, std::size_t size, Extremes& extremes) {
    const Vector infinities = Vector{} + kInfinity;
    Vector lowest[kParts], highest[kParts], smallest[kParts];
    for (std::size_t part = 0; part < kParts; ++part) {
        lowest[part] = smallest[part] = infinities;
        highest[part] = -infinities;
    }
    for (std::size_t i = 0; i < size; i += kLanes) {
        double copy[kLanes];
        const double* row = next_lanes(values + i, size - i, values[i], copy);
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector value;
            std::memcpy(&value, row + part * kWidth, sizeof value);
            const Vector magnitude = value < 0.0 ? -value : value;
            const Vector usable = magnitude > 0.0 ? magnitude : infinities;
            lowest[part] = value < lowest[part] ? value : lowest[part];
            highest[part] = value > highest[part] ? value : highest[part];
            smallest[part] = usable < smallest[part] ? usable : smallest[part];
        }
    }
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const std::size_t part = lane / kWidth, i = lane % kWidth;
        extremes.lowest = std::min(extremes.lowest, lowest[part][i]);
        extremes.highest = std::max(extremes.highest, highest[part][i]);
        extremes.smallest = std::min(extremes.smallest, smallest[part][i]);
    }
}

// Long enough for vector code, short enough to stay in the first-level cache.
constexpr std::size_t kBlock = 256;

// The leading bits of the keys, whatever they are for NaN.
QUORVANE_SIMD void leading_bits(const double* __restrict values, std::uint64_t* __restrict leading,
                                std::size_t size, const Keys keys) {
    for (std::size_t i = 0; i < size; ++i) leading[i] = keys.leading(values[i]);
}

template <int passes>
std::size_t pack_for(std::span<const double> values, std::uint64_t first_slot, const Keys& keys,
                     std::uint64_t* packed, std::uint32_t* histogram) {
    const std::size_t buckets = keys.buckets(), mask = buckets - 1;
    const int digit_bits = keys.digit_bits;

    std::size_t count = 0;
    std::uint64_t leading[kBlock];
    for (std::size_t start = 0; start < values.size(); start += kBlock) {
        const std::size_t size = std::min(kBlock, values.size() - start);
        leading_bits(values.data() + start, leading, size, keys);
        for (std::size_t i = 0; i < size; ++i) {
            // NaN takes part with a step of zero: a branch would be hard to predict.
            const bool present = values[start + i] == values[start + i];
            packed[count] = leading[i] << kSlotBits | (first_slot + start + i);
            count += present;
            for (int pass = 0; pass < passes; ++pass) {
                const std::uint64_t digit = leading[i] >> (pass * digit_bits) & mask;
                histogram[static_cast<std::size_t>(pass) * buckets + digit] += present;
            }
        }
    }
    return count;
}

QUORVANE_SIMD void divide_all(double count, std::size_t first, std::size_t size,
                              double* fractions) {
    const auto number = static_cast<double>(first);
    Vector numbers = {number, number + 1.0, number + 2.0, number + 3.0};
    std::size_t i = 0;
    for (; i + kWidth <= size; i += kWidth, numbers += static_cast<double>(kWidth)) {
        const Vector quotients = numbers / count;
        std::memcpy(fractions + i, &quotients, sizeof quotients);
    }
    for (; i < size; ++i) fractions[i] = (number + static_cast<double>(i)) / count;
}

// Orders the entries and ranks their slots; `before` values are smaller than all of them.
void rank_entries(std::vector<RankWorkspace::Entry>& entries, std::size_t before, double count,
                  std::span<double> out) {
    if (!std::ranges::is_sorted(entries, {}, &RankWorkspace::Entry::key)) {
        std::ranges::sort(entries, {}, &RankWorkspace::Entry::key);
    }
    for (std::size_t first = 0, last; first < entries.size(); first = last) {
        last = first + 1;
        while (last < entries.size() && entries[last].key == entries[first].key) ++last;
        // The average of the ranks before + first + 1 to before + last; exact in a double.
        const double average = static_cast<double>(2 * before + first + 1 + last) / 2.0;
        for (std::size_t i = first; i < last; ++i) out[entries[i].slot] = average / count;
    }
}

// Ranks slots that agree in their leading bits.
void rank_group(std::span<const std::uint64_t> group, std::span<const double> values,
                const Keys& keys, std::size_t before, double count,
                std::vector<RankWorkspace::Entry>& entries, std::span<double> out) {
    entries.clear();
    for (const std::uint64_t packed : group) {
        entries.push_back({keys(values[slot_of(packed)]), slot_of(packed)});
    }
    rank_entries(entries, before, count, out);
}

}  // namespace

void find_extremes(const double* values, std::size_t size, Extremes& extremes) {
    find_all(values, size, extremes);
}

std::size_t pack(std::span<const double> values, std::uint64_t first_slot, const Keys& keys,
                 std::uint64_t* packed, std::uint32_t* histograms) {
    return keys.passes == 2 ? pack_for<2>(values, first_slot, keys, packed, histograms)
                            : pack_for<3>(values, first_slot, keys, packed, histograms);
}

void fill_fractions(std::size_t count, std::size_t first, std::size_t last, double* fractions) {
    divide_all(static_cast<double>(count), first, last - first, fractions + first);
}

void move_by_digit(std::span<const std::uint64_t> from, std::uint64_t* to, int shift,
                   std::span<std::uint32_t> places) {
    const std::size_t mask = places.size() - 1;
    for (const std::uint64_t entry : from) to[places[entry >> shift & mask]++] = entry;
}

void rank_range(std::span<const std::uint64_t> sorted, std::size_t first, std::size_t last,
                const double* fractions, std::span<const double> values, const Keys& keys,
                std::vector<RankWorkspace::Entry>& entries, std::span<double> out) {
    const auto count = static_cast<double>(sorted.size());
    for (std::size_t begin = first, end; begin < last; begin = end) {
        end = begin + 1;
        const std::uint64_t leading = sorted[begin] >> kSlotBits;
        while (end < last && sorted[end] >> kSlotBits == leading) ++end;
        if (end == begin + 1) {
            out[slot_of(sorted[begin])] = fractions[end];
        } else {
            rank_group(sorted.subspan(begin, end - begin), values, keys, begin, count, entries,
                       out);
        }
    }
}

}  // namespace quorvane::kernels::rank_steps
