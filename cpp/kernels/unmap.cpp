#include "kernels/unmap.hpp"

#include <bit>

#include "kernels/exception_flags.hpp"

namespace quorvane::kernels {

namespace {

// By its bits, so that asking raises no flag.
bool is_finite(double value) noexcept {
    constexpr std::uint64_t exponent = 0x7ff0'0000'0000'0000;
    return (std::bit_cast<std::uint64_t>(value) & exponent) != exponent;
}

// amount(output, number of legs) gives what a leg adds, by the leg's weight.
template <class Amount>
[[gnu::noinline]] void add_all(std::span<const double> outputs, const LegPlace* places,
                               const FlatLegs& legs, Totals& totals, Amount amount) {
    double* sums = totals.sums.data();
    std::uint8_t* reached = totals.reached.data();
    const std::uint32_t* ids = legs.ids.data();
    const double* weights = legs.weights.data();
    for (std::size_t slot = 0; slot < outputs.size(); ++slot) {
        const auto [begin, count] = places[slot];
        if (count == 0 || !is_finite(outputs[slot])) continue;
        const auto amount_of = amount(outputs[slot], count);
        for (std::size_t leg = begin; leg < std::size_t{begin} + count; ++leg) {
            sums[ids[leg]] += amount_of(weights[leg]);
            reached[ids[leg]] = 1;
        }
    }
}

// Every sum is looked at, without a way out, so that several are at once.
bool has_nan(std::span<const double> sums) noexcept {
    bool found = false;
    for (const double sum : sums) found |= sum != sum;
    return found;
}

// Adds between two looks at the processor's exception flags. The arithmetic stands in a function
// that is not inlined, so that it cannot be moved past either look.
template <class Amount>
bool adds_silently(std::span<const double> outputs, std::span<const LegPlace> places,
                   const FlatLegs& legs, Totals& totals, Amount amount) noexcept {
    clear_exceptions();
    add_all(outputs, places.data(), legs, totals, amount);
    return !has_exceptions() && !has_nan(totals.sums);
}

}  // namespace

void Totals::reset(std::size_t instruments) {
    sums.assign(instruments, 0.0);
    reached.assign(instruments, 0);
}

bool add_in_proportion(std::span<const double> outputs, std::span<const LegPlace> places,
                       const FlatLegs& legs, Totals& totals) noexcept {
    return adds_silently(outputs, places, legs, totals, [](double output, std::size_t /*count*/) {
        return [output](double weight) { return output * weight; };
    });
}

bool add_equal_split(std::span<const double> outputs, std::span<const LegPlace> places,
                     const FlatLegs& legs, Totals& totals) noexcept {
    return adds_silently(outputs, places, legs, totals, [](double output, std::size_t count) {
        const double scale = output / static_cast<double>(count);
        return [scale](double weight) { return weight >= 0.0 ? scale : -scale; };
    });
}

}  // namespace quorvane::kernels
