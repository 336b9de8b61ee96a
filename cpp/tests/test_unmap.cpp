#include <limits>
#include <vector>

#include "check.hpp"
#include "kernels/unmap.hpp"

using namespace quorvane::kernels;

namespace {

// Slot 0: 2.0 over (0, 0.5) and (3, -1.0); slot 1: 4.0 over (3, 0.0).
const std::vector<double> outputs = {2.0, 4.0};
const std::vector<LegPlace> places = {{0, 2}, {2, 1}};
const FlatLegs legs = {{0, 3, 3}, {0.5, -1.0, 0.0}};

Totals zeros(std::size_t instruments) {
    Totals totals;
    totals.reset(instruments);
    return totals;
}

void proportional_adds_value_times_weight() {
    Totals totals = zeros(5);
    CHECK(add_in_proportion(outputs, places, legs, totals));
    CHECK(totals.sums[0] == 1.0);
    CHECK(totals.sums[3] == -2.0);
    CHECK(totals.reached[0] == 1 && totals.reached[3] == 1 && totals.reached[1] == 0);
}

void equal_split_uses_only_the_sign_and_counts_zero_as_positive() {
    Totals totals = zeros(5);
    CHECK(add_equal_split(outputs, places, legs, totals));
    CHECK(totals.sums[0] == 1.0);
    CHECK(totals.sums[3] == 3.0);
}

// Whether adding one slot's legs, all on instrument 0, has nothing to report.
bool is_silent(double value, const std::vector<double>& weights) {
    Totals totals = zeros(1);
    const std::vector<LegPlace> one = {{0, static_cast<std::uint32_t>(weights.size())}};
    return add_in_proportion(std::vector{value}, one,
                             {std::vector<std::uint32_t>(weights.size(), 0), weights}, totals);
}

void overflow_underflow_and_invalid_are_told() {
    const double infinity = std::numeric_limits<double>::infinity();
    CHECK(!is_silent(std::numeric_limits<double>::max(), {2.0}));
    CHECK(!is_silent(1e-300, {1e-300}));
    CHECK(!is_silent(1.0, {infinity, -infinity}));
    CHECK(is_silent(1.0, {infinity}));
}

void a_sum_that_is_no_number_is_told() {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    CHECK(!is_silent(1.0, {nan}));
    CHECK(!is_silent(1.0, {2.0, nan, -nan, 1.0}));
    CHECK(is_silent(1.0, {2.0, 1.0}));
}

void slots_without_legs_or_a_finite_output_contribute_nothing() {
    const double infinity = std::numeric_limits<double>::infinity();
    const std::vector<double> odd = {infinity, -infinity, std::numeric_limits<double>::quiet_NaN(),
                                     1.0};
    const std::vector<LegPlace> all_but_last = {{0, 1}, {0, 1}, {0, 1}, {0, 0}};
    Totals totals = zeros(1);
    CHECK(add_in_proportion(odd, all_but_last, {{0}, {1.0}}, totals));
    CHECK(add_equal_split(odd, all_but_last, {{0}, {1.0}}, totals));
    CHECK(totals.reached[0] == 0);
}

void only_reached_instruments_are_written() {
    Totals totals = zeros(2);
    const std::vector<LegPlace> one = {{0, 1}};
    CHECK(add_in_proportion(std::vector{1.0}, one, {{1}, {0.25}}, totals));
    double output[] = {7.0, 7.0};
    write_reached(totals, output);
    CHECK(output[0] == 7.0 && output[1] == 0.25);
}

}  // namespace

int main() {
    proportional_adds_value_times_weight();
    equal_split_uses_only_the_sign_and_counts_zero_as_positive();
    overflow_underflow_and_invalid_are_told();
    a_sum_that_is_no_number_is_told();
    slots_without_legs_or_a_finite_output_contribute_nothing();
    only_reached_instruments_are_written();
    return check::result();
}
