#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "check.hpp"
#include "kernels/ewma.hpp"

using quorvane::kernels::ewma_decay;
using quorvane::kernels::ewma_step;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

bool same_bits(double left, double right) {
    if (std::isnan(left) || std::isnan(right)) return std::isnan(left) && std::isnan(right);
    return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}

// The rule as it is said, one slot at a time and with branches.
struct Slot {
    double mean = kNan, weight = 1.0;

    void see(double x, double f) {
        if (!std::isfinite(x)) {
            if (!std::isnan(mean)) weight *= f;
        } else if (std::isnan(mean)) {
            mean = x;
        } else {
            weight *= f;
            if (mean != x) mean = (weight * mean + x) / (weight + 1.0);
            weight += 1.0;
        }
    }
};

void check_against_slots(std::size_t slots, double window, std::mt19937_64& random) {
    const double decay = ewma_decay(window);
    std::vector<Slot> expected(slots);
    std::vector<double> values(slots), mean(slots, kNan), weight(slots, 1.0), out(slots, 7.0);
    const double choices[] = {kNan, kInf, -kInf, 0.0, -0.0, 1.0, 1e308, -1e308, 5e-324};
    std::normal_distribution<double> normal;
    for (int day = 0; day < 60; ++day) {
        for (double& value : values) {
            value = random() % 3 == 0 ? choices[random() % std::size(choices)] : normal(random);
        }
        ewma_step(values, decay, mean, weight, out);
        for (std::size_t i = 0; i < slots; ++i) {
            expected[i].see(values[i], decay);
            CHECK(same_bits(out[i], expected[i].mean));
            CHECK(same_bits(mean[i], expected[i].mean));
            CHECK(same_bits(weight[i], expected[i].weight));
        }
    }
}

}  // namespace

int main() {
    CHECK(ewma_decay(1.0) == 0.0);
    CHECK(ewma_decay(3.0) == 0.5);

    std::mt19937_64 random(20);
    for (const std::size_t slots : {0u, 1u, 7u, 8u, 9u, 64u, 131u}) {
        for (const double window : {1.0, 2.0, 20.0, 1e6}) {
            check_against_slots(slots, window, random);
        }
    }
    return check::result();
}
