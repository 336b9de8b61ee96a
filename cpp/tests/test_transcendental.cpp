#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string_view>
#include <vector>

#include "check.hpp"
#include "kernels/transcendental.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using Row = std::vector<double>;

Row applied(std::string_view name, const Row& values) {
    Row out(values.size(), 3.0);
    find_elementwise(name)->kernel(values, out);
    return out;
}

bool same(const Row& left, const Row& right) {
    for (std::size_t i = 0; i < left.size(); ++i) {
        const bool both_nan = std::isnan(left[i]) && std::isnan(right[i]);
        if (!both_nan && (left[i] != right[i] || std::signbit(left[i]) != std::signbit(right[i]))) {
            return false;
        }
    }
    return left.size() == right.size();
}

// Distance in representable numbers; both of one sign.
std::int64_t ulps(double left, double right) {
    return std::abs(std::bit_cast<std::int64_t>(left) - std::bit_cast<std::int64_t>(right));
}

double exact_sigmoid(double x) {
    const long double e = std::exp(-std::abs(static_cast<long double>(x)));
    return static_cast<double>((x < 0 ? e : 1.0L) / (1.0L + e));
}

double exact_exp(double x) { return static_cast<double>(std::exp(static_cast<long double>(x))); }

Row wide_values() {
    Row values;
    std::mt19937_64 random(1);
    for (double width : {1e-300, 1e-8, 0.3, 1.0, 10.0, 50.0, 760.0}) {
        std::uniform_real_distribution<double> uniform(-width, width);
        for (int i = 0; i < 20'000; ++i) values.push_back(uniform(random));
    }
    return values;
}

void is_near_the_exact_value() {
    const Row values = wide_values();
    const Row sigmoids = applied("sigmoid", values), powers = applied("exp", values);
    std::int64_t worst_sigmoid = 0, worst_exp = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        worst_sigmoid = std::max(worst_sigmoid, ulps(sigmoids[i], exact_sigmoid(values[i])));
        worst_exp = std::max(worst_exp, ulps(powers[i], exact_exp(values[i])));
    }
    CHECK(worst_exp <= 1);
    CHECK(worst_sigmoid <= 3);
}

void sigmoid_stays_inside_the_range() {
    const Row got = applied("sigmoid", {kInf, -kInf, 1e308, -1e308, 800.0, -800.0, 0.0, -0.0});
    CHECK(same(got, {1.0, 0.0, 1.0, 0.0, 1.0, 0.0, 0.5, 0.5}));
}

void keeps_nan_and_gives_nan_outside_the_domain() {
    for (const ElementwiseFunction& function : elementwise_functions()) {
        CHECK(same(applied(function.name, {kNan, -kNan}), {kNan, kNan}));
    }
    for (const std::string_view name : {"log", "log2", "log10", "sqrt"}) {
        CHECK(std::isnan(applied(name, {-1.0})[0]));
    }
    CHECK(same(applied("log1p", {-1.0, -2.0, 0.0}), {-kInf, kNan, 0.0}));
    CHECK(same(applied("log", {0.0, 1.0}), {-kInf, 0.0}));
    CHECK(same(applied("sin", {kInf, 0.0}), {kNan, 0.0}));
}

void knows_simple_values() {
    CHECK(same(applied("abs", {-2.0, 3.0, -0.0, -kInf}), {2.0, 3.0, 0.0, kInf}));
    CHECK(same(applied("sign", {-2.0, 3.0, 0.0, -kInf, 5e-324}), {-1.0, 1.0, 0.0, -1.0, 1.0}));
    CHECK(same(applied("square", {-3.0, 0.5}), {9.0, 0.25}));
    CHECK(same(applied("cube", {-3.0, 0.5}), {-27.0, 0.125}));
    CHECK(same(applied("sqrt", {9.0, 2.25}), {3.0, 1.5}));
    CHECK(ulps(applied("cbrt", {-27.0})[0], -3.0) <= 1);
    CHECK(same(applied("reciprocal", {4.0, 0.0, -0.0}), {0.25, kInf, -kInf}));
    CHECK(same(applied("exp", {0.0, -0.0, kInf, -kInf, 710.0, -746.0}),
               {1.0, 1.0, kInf, 0.0, kInf, 0.0}));
    CHECK(same(applied("tanh", {kInf, 0.0}), {1.0, 0.0}));
}

void works_in_place() {
    Row row{1.0, -2.0, 3.0};
    find_elementwise("square")->kernel(row, row);
    CHECK(same(row, {1.0, 4.0, 9.0}));
}

}  // namespace

int main() {
    CHECK(find_elementwise("sigmoids") == nullptr);
    CHECK(std::ranges::is_sorted(elementwise_functions(), {}, &ElementwiseFunction::name));
    is_near_the_exact_value();
    sigmoid_stays_inside_the_range();
    keeps_nan_and_gives_nan_outside_the_domain();
    knows_simple_values();
    works_in_place();
    return check::result();
}
