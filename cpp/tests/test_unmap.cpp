#include <limits>

#include "check.hpp"
#include "kernels/unmap.hpp"

using namespace quorvane::kernels;

namespace {

// Slot 0: 2.0 over (0, 0.5) and (3, -1.0); slot 1: 4.0 over (3, 0.0).
Contributions example() { return {{2.0, 4.0}, {2, 3}, {0, 3, 3}, {0.5, -1.0, 0.0}}; }

void proportional_adds_value_times_weight() {
    Totals totals;
    totals.reset(5);
    CHECK(add_in_proportion(example(), totals));
    CHECK(totals.sums[0] == 1.0);
    CHECK(totals.sums[3] == -2.0);
    CHECK(totals.reached[0] == 1 && totals.reached[3] == 1 && totals.reached[1] == 0);
}

void equal_split_uses_only_the_sign_and_counts_zero_as_positive() {
    Totals totals;
    totals.reset(5);
    CHECK(add_equal_split(example(), totals));
    CHECK(totals.sums[0] == 1.0);
    CHECK(totals.sums[3] == 3.0);
}

void overflow_and_invalid_are_told() {
    const double huge = std::numeric_limits<double>::max();
    const double infinity = std::numeric_limits<double>::infinity();
    Totals totals;
    totals.reset(1);
    CHECK(!add_in_proportion({{huge}, {1}, {0}, {2.0}}, totals));
    totals.reset(1);
    CHECK(!add_in_proportion({{1.0}, {2}, {0, 0}, {infinity, -infinity}}, totals));
    totals.reset(1);
    CHECK(!add_in_proportion({{1e-300}, {1}, {0}, {1e-300}}, totals));
    totals.reset(1);
    CHECK(add_in_proportion({{1.0}, {1}, {0}, {infinity}}, totals));
}

void only_reached_instruments_are_written() {
    Totals totals;
    totals.reset(2);
    CHECK(add_in_proportion({{1.0}, {1}, {1}, {0.25}}, totals));
    double output[] = {7.0, 7.0};
    write_reached(totals, output);
    CHECK(output[0] == 7.0 && output[1] == 0.25);
}

}  // namespace

int main() {
    proportional_adds_value_times_weight();
    equal_split_uses_only_the_sign_and_counts_zero_as_positive();
    overflow_and_invalid_are_told();
    only_reached_instruments_are_written();
    return check::result();
}
