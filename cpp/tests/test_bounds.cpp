#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "check.hpp"
#include "kernels/bounds.hpp"

using quorvane::kernels::clip;
using quorvane::kernels::QuantileWorkspace;
using quorvane::kernels::winsorize;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using Row = std::vector<double>;

bool same_bits(const Row& left, const Row& right) {
    return std::ranges::equal(left, right, [](double one, double other) {
        return (one != one && other != other) ||
               std::bit_cast<std::uint64_t>(one) == std::bit_cast<std::uint64_t>(other);
    });
}

Row clipped(const Row& values, double low, double high) {
    Row out(values.size(), 3.0);
    clip(values, low, high, out);
    return out;
}

// By sorting all.
double quantile(const Row& sorted, double fraction) {
    const double index = static_cast<double>(sorted.size() - 1) * fraction;
    const auto before = static_cast<std::size_t>(index);
    const std::size_t after = std::min(before + 1, sorted.size() - 1);
    const double share = index - static_cast<double>(before),
                 apart = sorted[after] - sorted[before];
    return (share < 0.5 ? sorted[before] + apart * share : sorted[after] - apart * (1.0 - share)) +
           0.0;
}

Row reference(const Row& values, double fraction) {
    Row sorted;
    std::ranges::copy_if(values, std::back_inserter(sorted), [](double x) { return x == x; });
    if (sorted.empty()) return Row(values.size(), kNan);
    std::ranges::sort(sorted);
    const double low = quantile(sorted, fraction), high = quantile(sorted, 1.0 - fraction);
    if (low != low || high != high) return Row(values.size(), kNan);
    Row out = values;
    for (double& value : out) {
        if (value < low) value = low;
        if (value > high) value = high;
    }
    return out;
}

// Rows of many lengths and kinds, one after the other with the same workspace.
void is_the_same_as_by_sorting() {
    std::mt19937_64 random(5);
    std::normal_distribution<double> normal;
    QuantileWorkspace workspace;
    for (const std::size_t size : {0UL, 1UL, 2UL, 7UL, 512UL, 513UL, 4095UL, 70'000UL, 600UL}) {
        for (int kind = 0; kind < 7; ++kind) {
            Row values(size);
            for (double& value : values) {
                value = kind == 1   ? std::round(normal(random))
                        : kind == 2 ? 0.1
                        : kind == 3 ? std::bit_cast<double>(random())
                        : kind == 4
                            ? std::ldexp(normal(random), static_cast<int>(random() % 2000) - 1000)
                        : kind == 5 ? kNan
                        : kind == 6 ? std::copysign(kInf, normal(random))
                                    : normal(random);
                if (random() % 9 == 0) value = kNan;
            }
            for (const double fraction : {0.0, 0.01, 0.25, 1.0 / 3.0, 0.4999999999999999}) {
                Row out(size, 3.0);
                winsorize(values, fraction, workspace, out);
                CHECK(same_bits(out, reference(values, fraction)));
            }
        }
    }
}

}  // namespace

int main() {
    CHECK(same_bits(clipped({-2.0, 0.5, kNan, 9.0, -kInf, kInf}, -1.0, 1.0),
                    {-1.0, 0.5, kNan, 1.0, -1.0, 1.0}));
    CHECK(same_bits(clipped({0.0, -0.0}, 0.0, 1.0), {0.0, -0.0}));
    CHECK(same_bits(clipped({0.0, -0.0}, -1.0, -0.0), {0.0, -0.0}));
    CHECK(same_bits(clipped({0.0, 5.0, 2.0, kNan}, 3.0, 1.0), {1.0, 1.0, 1.0, kNan}));
    is_the_same_as_by_sorting();
    return check::result();
}
