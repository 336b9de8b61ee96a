#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "check.hpp"
#include "kernels/nan_mask.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using Mask = std::vector<std::uint8_t>;

void marks_nan_only() {
    const std::vector<double> row{1.0, kNan, kInf, -kNan, -kInf, 0.0, 5e-324, kNan, 2.0};
    Mask mask(row.size() + 1, 9);
    mark_nan({row.data(), 8, row.size()}, mask);
    CHECK(mask == Mask{0, 1, 0, 1, 0, 0, 0, 1, 0, 9});
}

void follows_any_stride() {
    const std::vector<double> row{kNan, 1.0, 2.0, kNan, 4.0, kNan};
    Mask mask(3);
    mark_nan({row.data(), 16, 3}, mask);
    CHECK(mask == Mask{1, 0, 0});
    mark_nan({row.data() + 5, -16, 3}, mask);
    CHECK(mask == Mask{1, 1, 0});
    mark_nan({row.data(), 0, 3}, mask);
    CHECK(mask == Mask{1, 1, 1});
    CHECK((StridedRow{row.data(), 0, 1}).contiguous());
    CHECK(!(StridedRow{row.data(), 0, 2}).contiguous());
}

void adds_to_what_is_marked() {
    const std::vector<double> row{kNan, 1.0, kInf, kNan};
    Mask mask{0, 1, 0, 1, 0};
    add_nan({row.data(), 8, 4}, mask);
    CHECK(mask == Mask{1, 1, 0, 1, 0});
    add_nan({row.data() + 3, -8, 4}, mask);
    CHECK(mask == Mask{1, 1, 0, 1, 0});
}

void merges_the_masked_part() {
    Mask into{0, 1, 0, 1, 0};
    merge_mask(Mask{0, 0, 1, 1}, into);
    CHECK(into == Mask{0, 1, 1, 1, 0});
}

void leaves_out_what_the_universe_does_not_hold() {
    CHECK(!any_left_out(Mask{}));
    CHECK(!any_left_out(Mask{1, 255, 2}));
    CHECK(any_left_out(Mask{1, 1, 0}));
    std::vector<double> row{1.0, 2.0, kNan, 4.0};
    leave_out(Mask{1, 0, 1, 7, 0}, row);
    CHECK(row[0] == 1.0 && std::isnan(row[1]) && std::isnan(row[2]) && row[3] == 4.0);
}

}  // namespace

int main() {
    marks_nan_only();
    follows_any_stride();
    adds_to_what_is_marked();
    merges_the_masked_part();
    leaves_out_what_the_universe_does_not_hold();
    return check::result();
}
