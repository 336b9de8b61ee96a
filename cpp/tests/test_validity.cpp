#include <limits>
#include <vector>

#include "check.hpp"
#include "kernels/validity.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

void only_finite_values_are_valid() {
    const std::vector<double> values = {
        1.0, -0.0, infinity, -infinity, nan, std::numeric_limits<double>::max(), 5e-324};
    std::vector<std::uint8_t> valid(values.size(), 9);
    judge_values(values, valid);
    CHECK(valid == std::vector<std::uint8_t>{1, 1, 0, 0, 0, 1, 1});
}

void one_dead_leg_is_enough() {
    const std::vector<std::int32_t> offsets = {0, 2, 4, 4, 5}, ids = {0, 1, 1, 2, 2};
    const std::vector<std::uint8_t> dead = {0, 0, 2};
    const std::vector<double> values = {1.0, 1.0, 1.0, 1.0};
    std::vector<std::uint8_t> valid(values.size(), 9);
    judge_structures(offsets, ids, dead, values, valid);
    CHECK(valid == std::vector<std::uint8_t>{1, 0, 1, 0});
}

void an_instrument_outside_is_dead() {
    const std::vector<std::int32_t> offsets = {0, 1, 2, 3}, ids = {0, 1, -1};
    std::vector<std::uint8_t> valid(3, 9);
    judge_structures(offsets, ids, std::vector<std::uint8_t>{0}, std::vector{1.0, 1.0, 1.0}, valid);
    CHECK(valid == std::vector<std::uint8_t>{1, 0, 0});
}

void live_legs_do_not_make_a_value_valid() {
    const std::vector<std::int32_t> offsets = {0, 1, 2}, ids = {0, 0};
    const std::vector<std::uint8_t> dead = {0};
    const std::vector<double> values = {nan, 1.0};
    std::vector<std::uint8_t> valid(values.size(), 9);
    judge_structures(offsets, ids, dead, values, valid);
    CHECK(valid == std::vector<std::uint8_t>{0, 1});
}

}  // namespace

int main() {
    only_finite_values_are_valid();
    one_dead_leg_is_enough();
    an_instrument_outside_is_dead();
    live_legs_do_not_make_a_value_valid();
    return check::result();
}
