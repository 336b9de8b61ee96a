#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "check.hpp"
#include "kernels/zscore.hpp"

using quorvane::kernels::zscore;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using Row = std::vector<double>;

Row zscored(const Row& values) {
    Row out(values.size(), 3.0);
    zscore(values, out);
    return out;
}

bool all_nan(const Row& row) {
    for (const double value : row) {
        if (!std::isnan(value)) return false;
    }
    return true;
}

bool same(const Row& left, const Row& right) {
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (left[i] != right[i] && !(std::isnan(left[i]) && std::isnan(right[i]))) return false;
    }
    return left.size() == right.size();
}

// With sums in extended precision, in the order of the slots.
Row reference(const Row& values) {
    long double count = 0, sum = 0, squares = 0;
    for (const double x : values) {
        if (std::isfinite(x)) ++count, sum += x;
    }
    const long double mean = sum / count;
    for (const double x : values) {
        if (std::isfinite(x)) squares += (x - mean) * (x - mean);
    }
    const long double deviation = std::sqrt(squares / count);
    Row out;
    for (const double x : values) {
        out.push_back(std::isfinite(x) ? static_cast<double>((x - mean) / deviation) : kNan);
    }
    return out;
}

void check_random(std::size_t size, double center, double width, std::mt19937_64& random) {
    std::normal_distribution<double> normal(center, width);
    Row values(size);
    for (double& value : values) {
        const auto kind = random() % 20;
        value = kind == 0 ? kNan : kind == 1 ? kInf : kind == 2 ? -kInf : normal(random);
    }
    const Row expected = reference(values), got = zscored(values);
    // One rounding of the values' size, in units of their deviation.
    const double rounding =
        4 * std::numeric_limits<double>::epsilon() * (8 + std::abs(center) / width);
    for (std::size_t i = 0; i < size; ++i) {
        CHECK(std::isnan(expected[i]) ? std::isnan(got[i])
                                      : std::abs(got[i] - expected[i]) <= rounding);
    }
}

void gives_nan_without_a_spread() {
    CHECK(zscored({}).empty());
    CHECK(all_nan(zscored({1.0})));
    CHECK(all_nan(zscored({kNan, kInf, 2.0, -kInf})));
    CHECK(all_nan(zscored({kNan, kNan})));
    CHECK(all_nan(zscored({0.0, -0.0, 0.0})));
    CHECK(all_nan(zscored(Row(1000, 0.1))));
    CHECK(all_nan(zscored({1e16, 1e16 + 2.0, 1e16})));
    CHECK(!all_nan(zscored({1e15, 1e15 + 1.0, 1e15})));
}

void is_the_same_at_every_scale() {
    const Row values{1.0, 2.0, kNan, -3.5, 0.25, 7.0};
    const Row expected = zscored(values);
    for (const int exponent : {-1070, -1022, -600, 600, 1020}) {
        Row scaled = values;
        for (double& value : scaled) value = std::ldexp(value, exponent);
        // Below 2^-1022 bits are lost on the way there; these values keep theirs until -1072.
        CHECK(same(zscored(scaled), expected));
    }
    const double largest = std::numeric_limits<double>::max();
    CHECK(same(zscored({largest, -largest}), {1.0, -1.0}));
    CHECK(same(zscored({5e-324, -5e-324}), {1.0, -1.0}));
}

}  // namespace

int main() {
    gives_nan_without_a_spread();
    is_the_same_at_every_scale();
    CHECK(same(zscored({1.0, kNan, 3.0, kInf}), {-1.0, kNan, 1.0, kNan}));
    std::mt19937_64 random(3);
    for (const std::size_t size : {40u, 1023u, 1024u, 1025u, 5000u}) {
        check_random(size, 0.0, 1.0, random);
        check_random(size, 100.0, 0.01, random);
        check_random(size, -1e-200, 1e-205, random);
    }
    return check::result();
}
