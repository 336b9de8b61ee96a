#include "kernels/unmap.hpp"

#include <cfenv>

namespace quorvane::kernels {

namespace {

constexpr int reported = FE_OVERFLOW | FE_UNDERFLOW | FE_INVALID | FE_DIVBYZERO;

// amount(contribution) gives what a leg of that contribution adds, by the leg's weight.
template <class Amount>
[[gnu::noinline]] void add_all(std::span<const Contribution> contributions, const FlatLegs& legs,
                               Totals& totals, Amount amount) {
    double* sums = totals.sums.data();
    std::uint8_t* reached = totals.reached.data();
    const std::size_t* ids = legs.ids.data();
    const double* weights = legs.weights.data();
    for (const Contribution& contribution : contributions) {
        const auto amount_of = amount(contribution);
        const std::size_t end = contribution.begin + contribution.count;
        for (std::size_t leg = contribution.begin; leg < end; ++leg) {
            sums[ids[leg]] += amount_of(weights[leg]);
            reached[ids[leg]] = 1;
        }
    }
}

// Adds between two looks at the processor's exception flags. The arithmetic stands in a function
// that is not inlined, so that it cannot be moved past either look.
template <class Amount>
bool adds_silently(std::span<const Contribution> contributions, const FlatLegs& legs,
                   Totals& totals, Amount amount) noexcept {
    std::feclearexcept(reported);
    add_all(contributions, legs, totals, amount);
    return std::fetestexcept(reported) == 0;
}

}  // namespace

void Totals::reset(std::size_t instruments) {
    sums.assign(instruments, 0.0);
    reached.assign(instruments, 0);
}

bool add_in_proportion(std::span<const Contribution> contributions, const FlatLegs& legs,
                       Totals& totals) noexcept {
    return adds_silently(contributions, legs, totals, [](const Contribution& contribution) {
        return [value = contribution.value](double weight) { return value * weight; };
    });
}

bool add_equal_split(std::span<const Contribution> contributions, const FlatLegs& legs,
                     Totals& totals) noexcept {
    return adds_silently(contributions, legs, totals, [](const Contribution& contribution) {
        const double scale = contribution.value / static_cast<double>(contribution.count);
        return [scale](double weight) { return weight >= 0.0 ? scale : -scale; };
    });
}

}  // namespace quorvane::kernels
