#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// Legs laid out flat, and where those of one slot lie; 32 bits, for the less to read every day.
struct FlatLegs {
    std::vector<std::uint32_t> ids;
    std::vector<double> weights;
};
struct LegPlace {
    std::uint32_t begin = 0;
    std::uint32_t count = 0;
};

// Running totals per instrument, and which instruments got any contribution.
struct Totals {
    std::vector<double> sums;
    std::vector<std::uint8_t> reached;

    void reset(std::size_t instruments);
};

// Both add what every slot with a finite output and any legs contributes, in slot order and then
// in leg order; there is a place for every output, and every id is below the totals' size. They
// answer false when the arithmetic overflowed, underflowed or was invalid, which is where NumPy may
// warn, and when a sum is NaN: the totals are worthless then. Which of two NaN, and so which sign,
// a sum keeps is for the compiler to choose, and NumPy's may have chosen otherwise.

// sums[id] += output * weight
bool add_in_proportion(std::span<const double> outputs, std::span<const LegPlace> places,
                       const FlatLegs& legs, Totals& totals) noexcept;

// sums[id] += output / number of legs, negated for a weight below zero or NaN
bool add_equal_split(std::span<const double> outputs, std::span<const LegPlace> places,
                     const FlatLegs& legs, Totals& totals) noexcept;

// Writes the totals of the instruments that were reached; the others keep what they hold.
template <class Output>
void write_reached(const Totals& totals, Output&& output) {
    for (std::size_t i = 0; i < totals.sums.size(); ++i) {
        if (totals.reached[i] != 0) output[static_cast<std::ptrdiff_t>(i)] = totals.sums[i];
    }
}

}  // namespace quorvane::kernels
