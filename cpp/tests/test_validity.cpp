#include <algorithm>
#include <limits>
#include <vector>

#include "check.hpp"
#include "kernels/validity.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

std::vector<std::uint8_t> judged(const std::vector<std::int32_t>& offsets,
                                 const std::vector<std::int32_t>& ids,
                                 const std::vector<std::uint8_t>& dead,
                                 const std::vector<double>& values) {
    StructuresByInstrument structures;
    structures.index(offsets, ids, ids.empty() ? -1 : *std::ranges::max_element(ids));
    std::vector<std::uint8_t> valid(values.size(), 9);
    judge_structures(structures, dead, values, valid);
    return valid;
}

void only_finite_values_are_valid() {
    const std::vector<double> values = {
        1.0, -0.0, infinity, -infinity, nan, std::numeric_limits<double>::max(), 5e-324};
    const std::vector<std::int32_t> no_legs(values.size() + 1, 0);
    CHECK(judged(no_legs, {}, {}, values) == std::vector<std::uint8_t>{1, 1, 0, 0, 0, 1, 1});
}

void one_dead_leg_is_enough() {
    CHECK(judged({0, 2, 4, 4, 5}, {0, 1, 1, 2, 2}, {0, 0, 2}, {1.0, 1.0, 1.0, 1.0}) ==
          std::vector<std::uint8_t>{1, 0, 1, 0});
}

void an_instrument_outside_is_dead() {
    CHECK(judged({0, 1, 2, 3}, {0, 1, 5}, {0}, {1.0, 1.0, 1.0}) ==
          std::vector<std::uint8_t>{1, 0, 0});
}

void live_legs_do_not_make_a_value_valid() {
    CHECK(judged({0, 1, 2}, {0, 0}, {0}, {nan, 1.0}) == std::vector<std::uint8_t>{0, 1});
}

void every_place_of_a_row_of_any_length_is_judged() {
    for (std::size_t length = 1; length <= 70; ++length) {
        const std::vector<std::int32_t> no_legs(length + 1, 0);
        for (std::size_t place = 0; place < length; ++place) {
            std::vector<double> values(length, 1.0);
            std::vector<std::uint8_t> expected(length, 1);
            values[place] = place % 2 == 0 ? nan : -infinity;
            expected[place] = 0;
            CHECK(judged(no_legs, {}, {}, values) == expected);
        }
    }
}

void indexing_again_forgets_what_was_indexed() {
    StructuresByInstrument structures;
    structures.index(std::vector<std::int32_t>{0, 2}, std::vector<std::int32_t>{4, 2}, 4);
    structures.index(std::vector<std::int32_t>{0, 0, 1}, std::vector<std::int32_t>{1}, 1);
    CHECK(structures.instruments() == 2);
    CHECK(structures.of(0).empty());
    CHECK(std::ranges::equal(structures.of(1), std::vector<std::uint32_t>{1}));
    structures.index(std::vector<std::int32_t>{0}, {}, -1);
    CHECK(structures.instruments() == 0);
}

void legs_are_found_the_other_way_round() {
    StructuresByInstrument structures;
    const std::vector<std::int32_t> offsets = {0, 2, 2, 5}, ids = {3, 0, 3, 1, 3};
    structures.index(offsets, ids, 3);
    CHECK(structures.instruments() == 4);
    CHECK(std::ranges::equal(structures.of(0), std::vector<std::uint32_t>{0}));
    CHECK(std::ranges::equal(structures.of(1), std::vector<std::uint32_t>{2}));
    CHECK(structures.of(2).empty());
    CHECK(std::ranges::equal(structures.of(3), std::vector<std::uint32_t>{0, 2, 2}));
}

}  // namespace

int main() {
    only_finite_values_are_valid();
    one_dead_leg_is_enough();
    an_instrument_outside_is_dead();
    live_legs_do_not_make_a_value_valid();
    every_place_of_a_row_of_any_length_is_judged();
    legs_are_found_the_other_way_round();
    indexing_again_forgets_what_was_indexed();
    return check::result();
}
