#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// Legs laid out flat: a structure has `count` of them from `begin` on.
struct FlatLegs {
    std::vector<std::size_t> ids;
    std::vector<double> weights;
};

// A slot that contributes on a day: its output and where its legs are.
struct Contribution {
    double value;
    std::size_t begin;
    std::size_t count;
};

// Running totals per instrument, and which instruments got any contribution.
struct Totals {
    std::vector<double> sums;
    std::vector<std::uint8_t> reached;

    void reset(std::size_t instruments);
};

// Both add every contribution in the given order, then in leg order; every id is below the totals'
// size. They answer false when the arithmetic overflowed, underflowed or was invalid, which is
// where NumPy may warn: the totals are worthless then.

// sums[id] += value * weight
bool add_in_proportion(std::span<const Contribution> contributions, const FlatLegs& legs,
                       Totals& totals) noexcept;

// sums[id] += value / number of legs, negated for a weight below zero or NaN
bool add_equal_split(std::span<const Contribution> contributions, const FlatLegs& legs,
                     Totals& totals) noexcept;

// Writes the totals of the instruments that were reached; the others keep what they hold.
template <class Output>
void write_reached(const Totals& totals, Output&& output) {
    for (std::size_t i = 0; i < totals.sums.size(); ++i) {
        if (totals.reached[i] != 0) output[static_cast<std::ptrdiff_t>(i)] = totals.sums[i];
    }
}

}  // namespace quorvane::kernels
