#include <cmath>
#include <limits>
#include <vector>

#include "check.hpp"
#include "kernels/weighted_sums.hpp"

using namespace quorvane::kernels;

namespace {

std::vector<double> sums_of(const std::vector<std::int32_t>& offsets,
                            const std::vector<std::int32_t>& ids,
                            const std::vector<double>& weights, const std::vector<double>& inputs) {
    std::vector<double> out(offsets.size() - 1, 99.0);
    weighted_sums(offsets, ids, weights, inputs, out);
    return out;
}

void legs_are_added_in_their_order() {
    // 1e16 + 1 is 1e16: only from the left does the sum end at 1.
    const auto sums = sums_of({0, 3}, {0, 1, 2}, {1.0, -1.0, 1.0}, {1e16, 1e16, 1.0});
    CHECK(sums[0] == 1.0);
    const auto other = sums_of({0, 3}, {2, 0, 1}, {1.0, 1.0, -1.0}, {1e16, 1e16, 1.0});
    CHECK(other[0] == 0.0);
}

void a_structure_without_legs_is_zero() {
    const auto sums = sums_of({0, 0, 1, 1}, {0}, {2.0}, {3.0});
    CHECK(sums[0] == 0.0 && sums[1] == 6.0 && sums[2] == 0.0);
}

void a_missing_input_makes_the_sum_missing() {
    const auto sums =
        sums_of({0, 2}, {0, 1}, {1.0, 1.0}, {1.0, std::numeric_limits<double>::quiet_NaN()});
    CHECK(sums[0] != sums[0]);
}

void sums_begin_at_plus_zero() {
    const auto sums = sums_of({0, 1}, {0}, {1.0}, {-0.0});
    CHECK(sums[0] == 0.0 && !std::signbit(sums[0]));
}

void products_are_rounded_before_they_are_added() {
    // Rounded, the product is 1; added unrounded, what was cut off would be left.
    const double above = 1.0 + 0x1p-30, below = 1.0 - 0x1p-30;
    const auto sums = sums_of({0, 2}, {0, 1}, {-1.0, above}, {1.0, below});
    CHECK(sums[0] == 0.0);
}

void infinity_times_zero_is_missing() {
    const double infinity = std::numeric_limits<double>::infinity();
    const auto sums = sums_of({0, 1, 2}, {0, 0}, {0.0, -1.0}, {infinity});
    CHECK(std::isnan(sums[0]) && sums[1] == -infinity);
}

}  // namespace

int main() {
    legs_are_added_in_their_order();
    a_structure_without_legs_is_zero();
    a_missing_input_makes_the_sum_missing();
    sums_begin_at_plus_zero();
    products_are_rounded_before_they_are_added();
    infinity_times_zero_is_missing();
    return check::result();
}
