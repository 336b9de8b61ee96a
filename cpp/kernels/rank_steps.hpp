#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "kernels/rank.hpp"

// What ranking a long row consists of, for one thread or several: a radix sort of (leading bits of
// the key, slot) pairs packed in 64 bits, then exact ranks.
//
// Keys are integers in the order of the doubles. They are made dense: the exponents between zero
// and the smallest magnitude of the day are cut out, and the smallest key is subtracted. The
// leading bits of what is left are sorted in two or three passes. Slots that agree in all of those
// bits are put in order by their full keys while ranks are given out; with continuous values there
// are few of them.

namespace quorvane::kernels::rank_steps {

struct Extremes {
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -std::numeric_limits<double>::infinity();
    double smallest = std::numeric_limits<double>::infinity();  // magnitude that is not zero

    void add(const Extremes& others) {
        lowest = std::min(lowest, others.lowest);
        highest = std::max(highest, others.highest);
        smallest = std::min(smallest, others.smallest);
    }
    [[nodiscard]] bool nothing_seen() const { return lowest > highest; }
};

// Of the values that are not NaN; what is there already counts too.
void find_extremes(const double* values, std::size_t size, Extremes& extremes);

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

inline constexpr int kSlotBits = 32;

inline std::uint32_t slot_of(std::uint64_t packed) { return static_cast<std::uint32_t>(packed); }

// Packs every value that is not NaN, the first one's slot being `first_slot`, and adds the digits
// of all passes to the histograms, which lie one after the other. Returns how many there are.
std::size_t pack(std::span<const double> values, std::uint64_t first_slot, const Keys& keys,
                 std::uint64_t* packed, std::uint32_t* histograms);

// Stable sort by the digit at `shift`: `places` says where the next entry of each bucket goes.
void move_by_digit(std::span<const std::uint64_t> from, std::uint64_t* to, int shift,
                   std::span<std::uint32_t> places);

// fractions[i] = i / count for i from `first` to `last` - 1.
void fill_fractions(std::size_t count, std::size_t first, std::size_t last, double* fractions);

// Ranks the sorted entries from `first` to `last` - 1, which are whole groups of equal leading
// bits.
void rank_range(std::span<const std::uint64_t> sorted, std::size_t first, std::size_t last,
                const double* fractions, std::span<const double> values, const Keys& keys,
                std::vector<RankWorkspace::Entry>& entries, std::span<double> out);

}  // namespace quorvane::kernels::rank_steps
