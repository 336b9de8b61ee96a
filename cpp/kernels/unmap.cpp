#include "kernels/unmap.hpp"

#include <cfenv>

namespace quorvane::kernels {

namespace {

constexpr int reported = FE_OVERFLOW | FE_UNDERFLOW | FE_INVALID | FE_DIVBYZERO;

// Calls amount(slot, leg position) for every leg of every slot, in order.
template <class Amount>
[[gnu::noinline]] void add_all(const Contributions& contributions, Totals& totals, Amount amount) {
    double* sums = totals.sums.data();
    std::uint8_t* reached = totals.reached.data();
    const std::size_t* ids = contributions.ids.data();
    std::size_t position = 0;
    for (std::size_t slot = 0; slot < contributions.values.size(); ++slot) {
        const std::size_t begin = position;
        const std::size_t end = contributions.ends[slot];
        const auto amount_of = amount(slot, end - begin);
        for (; position < end; ++position) {
            sums[ids[position]] += amount_of(position);
            reached[ids[position]] = 1;
        }
    }
}

// Runs the arithmetic between two looks at the processor's exception flags. The arithmetic stands
// in a function that is not inlined, so that it cannot be moved past either look.
template <class Arithmetic>
bool runs_silently(Arithmetic&& arithmetic) noexcept {
    std::feclearexcept(reported);
    arithmetic();
    return std::fetestexcept(reported) == 0;
}

}  // namespace

void Totals::reset(std::size_t instruments) {
    sums.assign(instruments, 0.0);
    reached.assign(instruments, 0);
}

bool add_in_proportion(const Contributions& contributions, Totals& totals) noexcept {
    const double* weights = contributions.weights.data();
    return runs_silently([&] {
        add_all(contributions, totals, [&](std::size_t slot, std::size_t /*legs*/) {
            const double value = contributions.values[slot];
            return [=](std::size_t leg) { return value * weights[leg]; };
        });
    });
}

bool add_equal_split(const Contributions& contributions, Totals& totals) noexcept {
    const double* weights = contributions.weights.data();
    return runs_silently([&] {
        add_all(contributions, totals, [&](std::size_t slot, std::size_t legs) {
            const double scale = contributions.values[slot] / static_cast<double>(legs);
            return [=](std::size_t leg) { return weights[leg] >= 0.0 ? scale : -scale; };
        });
    });
}

}  // namespace quorvane::kernels
