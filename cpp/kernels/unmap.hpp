#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// The legs of the slots that contribute on a day, flat and in slot order: slot s has the value
// values[s] and the legs ends[s - 1] .. ends[s] - 1 of ids and weights.
struct Contributions {
    std::vector<double> values;
    std::vector<std::size_t> ends;
    std::vector<std::size_t> ids;
    std::vector<double> weights;

    void clear() noexcept {
        values.clear();
        ends.clear();
        ids.clear();
        weights.clear();
    }
};

// Running totals per instrument, and which instruments got any contribution.
struct Totals {
    std::vector<double> sums;
    std::vector<std::uint8_t> reached;

    void reset(std::size_t instruments);
};

// Both add every contribution in slot order, then leg order; every id is below the totals' size.
// They answer false when the arithmetic overflowed, underflowed or was invalid, which is where
// NumPy may warn: the totals are worthless then.

// sums[id] += value * weight
bool add_in_proportion(const Contributions& contributions, Totals& totals) noexcept;

// sums[id] += value / number of legs, negated for a weight below zero or NaN
bool add_equal_split(const Contributions& contributions, Totals& totals) noexcept;

// Writes the totals of the instruments that were reached; the others keep what they hold.
template <class Output>
void write_reached(const Totals& totals, Output&& output) {
    for (std::size_t i = 0; i < totals.sums.size(); ++i) {
        if (totals.reached[i] != 0) output[static_cast<std::ptrdiff_t>(i)] = totals.sums[i];
    }
}

}  // namespace quorvane::kernels
