// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/rank.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kernels/lanes.hpp"

// Of a short row all pairs are compared. A longer one goes through a radix sort of (leading bits of
// the key, slot) pairs packed in 64 bits, then exact ranks.
//
// Keys are integers in the order of the doubles. They are made dense: the exponents between zero
// and the smallest magnitude of the day are cut out, and the smallest key is subtracted. The
// leading bits of what is left are sorted in two or three passes. Slots that agree in all of those
// bits are put in order by their full keys while ranks are given out; with continuous values there
// are few of them.

namespace quorvane::kernels {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct Extremes {
    double lowest = kInfinity;
    double highest = -kInfinity;
    double smallest = kInfinity;  // magnitude that is not zero

    [[nodiscard]] bool nothing_seen() const { return lowest > highest; }
};

// Comparisons with NaN are false, so NaN is never taken.
QUORVANE_SIMD void find_extremes(const double* values, std::size_t size, Extremes& extremes) {
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

// The integer of a double, and the digits of its leading bits.
class Keys {
public:
    Keys(const Extremes& extremes, std::size_t size)
        : gap_(std::bit_cast<std::int64_t>(extremes.smallest) - 1),
          lowest_(static_cast<std::uint64_t>(signed_key(extremes.lowest))) {
        passes = size < kManySlots ? 2 : 3;
        digit_bits = size < kVeryFewSlots ? 7 : size < kFewSlots ? 9 : 11;
        // 32 bits are left for them beside the slot.
        const int sorted_bits = std::min(passes * digit_bits, 32);
        const int width = 64 - std::countl_zero((*this)(extremes.highest));
        shift_ = std::max(0, width - sorted_bits);
    }

    // Distance from the lowest value's key. Equal exactly where the values are.
    [[nodiscard]] std::uint64_t operator()(double value) const {
        return static_cast<std::uint64_t>(signed_key(value)) - lowest_;
    }
    [[nodiscard]] std::uint64_t leading(double value) const { return (*this)(value) >> shift_; }
    [[nodiscard]] std::size_t buckets() const { return std::size_t{1} << digit_bits; }

    int passes;
    int digit_bits;

private:
    // Where another pass, or a larger histogram, begins to pay for itself.
    static constexpr std::size_t kVeryFewSlots = 256, kFewSlots = 4096, kManySlots = 65536;

    // Both zeros give 0 and the smallest magnitude gives 1.
    [[nodiscard]] std::int64_t signed_key(double value) const {
        const auto magnitude = std::bit_cast<std::int64_t>(std::abs(value));
        const std::int64_t dense = magnitude == 0 ? 0 : magnitude - gap_;
        return value < 0.0 ? -dense : dense;
    }

    std::int64_t gap_;
    std::uint64_t lowest_;
    int shift_;
};

constexpr int kSlotBits = 32;
constexpr std::size_t kShortRow = 64;

std::uint32_t slot_of(std::uint64_t packed) { return static_cast<std::uint32_t>(packed); }

// Long enough for vector code, short enough to stay in the first-level cache.
constexpr std::size_t kBlock = 256;

// The leading bits of the keys, whatever they are for NaN.
QUORVANE_SIMD void leading_bits(const double* __restrict values, std::uint64_t* __restrict leading,
                                std::size_t size, const Keys keys) {
    for (std::size_t i = 0; i < size; ++i) leading[i] = keys.leading(values[i]);
}

// Packs every value that is not NaN and counts its digits. Returns how many there are.
template <int passes>
std::size_t pack(std::span<const double> values, const Keys& keys, RankWorkspace& workspace) {
    const std::size_t buckets = keys.buckets(), mask = buckets - 1;
    const int digit_bits = keys.digit_bits;
    workspace.packed.resize(std::max(workspace.packed.size(), values.size()));
    workspace.histogram.assign(passes * buckets, 0);
    std::uint64_t* packed = workspace.packed.data();
    std::uint32_t* histogram = workspace.histogram.data();

    std::size_t count = 0;
    std::uint64_t leading[kBlock];
    for (std::size_t start = 0; start < values.size(); start += kBlock) {
        const std::size_t size = std::min(kBlock, values.size() - start);
        leading_bits(values.data() + start, leading, size, keys);
        for (std::size_t i = 0; i < size; ++i) {
            // NaN takes part with a step of zero: a branch would be hard to predict.
            const bool present = values[start + i] == values[start + i];
            packed[count] = leading[i] << kSlotBits | (start + i);
            count += present;
            for (int pass = 0; pass < passes; ++pass) {
                const std::uint64_t digit = leading[i] >> (pass * digit_bits) & mask;
                histogram[static_cast<std::size_t>(pass) * buckets + digit] += present;
            }
        }
    }
    return count;
}

// Stable sort by one digit, whose histogram is replaced by the buckets' ends.
void sort_by_digit(std::span<const std::uint64_t> from, std::uint64_t* to, int shift,
                   std::span<std::uint32_t> histogram) {
    std::uint32_t start = 0;
    for (std::uint32_t& bucket : histogram) start += std::exchange(bucket, start);
    const std::size_t mask = histogram.size() - 1;
    for (const std::uint64_t entry : from) to[histogram[entry >> shift & mask]++] = entry;
}

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
        sort_by_digit({from, count}, to, shift, histogram);
        std::swap(from, to);
    }
    return {from, count};
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

// Every value counts twice those that are smaller and once those that are equal, itself among them;
// NaN compares with nothing.
QUORVANE_SIMD void rank_short(const double* values, std::size_t size, double* out) {
    double present = 0.0;
    for (std::size_t i = 0; i < size; ++i) present += values[i] == values[i] ? 1.0 : 0.0;
    for (std::size_t i = 0; i < size; i += kLanes) {
        double copy[kLanes];
        const double* row = next_lanes(values + i, size - i, kNan, copy);
        Vector value[kParts];
        std::memcpy(value, row, sizeof value);
        VectorBits counted[kParts]{};
        for (std::size_t j = 0; j < size; ++j) {
            const Vector other = Vector{} + values[j];
            for (std::size_t part = 0; part < kParts; ++part) {
                counted[part] -= (other < value[part]) + (other <= value[part]);
            }
        }
        for (std::size_t lane = 0; lane < std::min(kLanes, size - i); ++lane) {
            const std::int64_t twice = counted[lane / kWidth][lane % kWidth];
            // Of equal ones the average of their ranks; exact in a double.
            const double average = static_cast<double>(twice + 1) / 2.0;
            out[i + lane] = twice == 0 ? kNan : average / present;
        }
    }
}

void rank_sorted(std::span<const std::uint64_t> sorted, std::span<const double> values,
                 const Keys& keys, std::vector<RankWorkspace::Entry>& entries,
                 std::span<double> out) {
    const auto count = static_cast<double>(sorted.size());
    for (std::size_t first = 0, last; first < sorted.size(); first = last) {
        last = first + 1;
        const std::uint64_t leading = sorted[first] >> kSlotBits;
        while (last < sorted.size() && sorted[last] >> kSlotBits == leading) ++last;
        if (last == first + 1) {
            out[slot_of(sorted[first])] = static_cast<double>(last) / count;
        } else {
            rank_group(sorted.subspan(first, last - first), values, keys, first, count, entries,
                       out);
        }
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
    const std::size_t count =
        keys.passes == 2 ? pack<2>(values, keys, workspace) : pack<3>(values, keys, workspace);
    rank_sorted(sort_packed(keys, count, workspace), values, keys, workspace.tied, out);
}

}  // namespace quorvane::kernels
