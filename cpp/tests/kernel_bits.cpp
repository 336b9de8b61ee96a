// Prints, kernel by kernel, a number made of every bit of what the kernel gives, so that two builds
// can be compared: of other compilers, for other processors. Each of them prints the same.
//
// Not among them are the functions that are the C library's, which may round another way elsewhere.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <span>
#include <vector>

#include "kernels/attendance.hpp"
#include "kernels/bounds.hpp"
#include "kernels/center.hpp"
#include "kernels/centered_rank.hpp"
#include "kernels/ewma.hpp"
#include "kernels/over_time/exponential.hpp"
#include "kernels/over_time/past_value.hpp"
#include "kernels/over_time/rolling_mean.hpp"
#include "kernels/over_time/rolling_spread.hpp"
#include "kernels/transcendental.hpp"
#include "kernels/unmap.hpp"
#include "kernels/weighted_sums.hpp"
#include "kernels/wide_rank.hpp"
#include "kernels/zscore.hpp"

using namespace quorvane::kernels;

namespace {

using Row = std::vector<double>;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

// The FNV-1a hash of all bits seen. Which NaN it is says nothing: that is up to each processor.
class Digest {
public:
    void add(std::span<const double> row) {
        for (const double value : row) {
            const auto bits = std::bit_cast<std::uint64_t>(std::isnan(value) ? nan : value);
            for (int shift = 0; shift < 64; shift += 8) {
                hash_ = (hash_ ^ ((bits >> shift) & 0xff)) * 0x100000001b3;
            }
        }
    }
    void print(const char* name, const char* variant = "") const {
        std::printf("%s%s %016llx\n", name, variant, static_cast<unsigned long long>(hash_));
    }

private:
    std::uint64_t hash_ = 0xcbf29ce484222325;
};

// The generator's bits are the same everywhere; the library's distributions need not be.
class Numbers {
public:
    std::uint64_t below(std::uint64_t limit) { return random_() % limit; }

    // In [-1, 1), times a power of two.
    double scaled(int exponent) {
        return std::ldexp(static_cast<double>(random_() >> 11) - 0x1p52, exponent - 52);
    }

    // Mostly of a size that prices and returns have, some tied, a few that go to the ends.
    double value() {
        constexpr double odd[] = {nan, nan, 0.0, -0.0, infinity, -infinity, 5e-324, 1e300, -1e300};
        const std::uint64_t kind = below(24);
        if (kind < std::size(odd)) return odd[kind];
        if (kind < 14) return static_cast<double>(below(5)) * 0.25;
        return scaled(kind < 16 ? static_cast<int>(below(80)) - 40 : 0);
    }

    Row row(std::size_t size) {
        Row values(size);
        for (double& number : values) number = value();
        return values;
    }

private:
    std::mt19937_64 random_{20};
};

// Whole vectors, what is left of one, and rows long enough for other ways to sort.
constexpr std::size_t sizes[] = {1, 2, 7, 8, 9, 64, 255, 257, 1000, 5000, 70'000};

// compute(values, out) for rows of all sizes.
template <class Compute>
void print_rows(const char* name, const Compute& compute) {
    Numbers numbers;
    Digest digest;
    for (const std::size_t size : sizes) {
        for (int round = 0; round < 4; ++round) {
            const Row values = numbers.row(size);
            Row out(size, 3.0);
            compute(values, out);
            digest.add(out);
        }
    }
    digest.print(name);
}

void print_elementwise() {
    for (const char* name :
         {"abs", "cube", "exp", "reciprocal", "sigmoid", "sign", "sqrt", "square"}) {
        print_rows(name, find_elementwise(name)->kernel);
    }
}

void print_cross_sections() {
    RankWorkspace ranks;
    QuantileWorkspace quantiles;
    const auto rank = [&](auto values, auto& out) { rank_fraction(values, ranks, out); };
    const auto wide = [&](auto values, auto& out) { rank_fraction_wide(values, 3, ranks, out); };
    const auto centered = [&](auto values, auto& out) { centered_rank(values, ranks, out); };
    const auto clipped = [](auto values, auto& out) { clip(values, -0.5, 0.5, out); };
    const auto winsorized = [&](auto values, auto& out) { winsorize(values, 0.1, quantiles, out); };
    print_rows("rank_fraction", rank);
    print_rows("rank_fraction_wide", wide);
    print_rows("centered_rank", centered);
    print_rows("clip", clipped);
    print_rows("winsorize", winsorized);
    print_rows("zscore", zscore);
    print_rows("demean", demean);
    print_rows("scale_to_one", scale_to_one);
}

void print_ewma() {
    constexpr std::size_t slots = 37;
    Numbers numbers;
    Digest digest;
    const double decay = ewma_decay(20);
    Row mean(slots, nan), weight(slots, 1.0), out(slots);
    for (int day = 0; day < 300; ++day) {
        ewma_step(numbers.row(slots), decay, mean, weight, out);
        digest.add(out);
        digest.add(weight);
    }
    digest.print("ewma_step");
}

void print_attendance() {
    constexpr std::size_t slots = 37;
    Numbers numbers;
    Digest digest;
    Row silent_days(slots, nan), out(slots);
    for (int day = 0; day < 300; ++day) {
        const Row values = numbers.row(slots);
        count_silence(values, silent_days);
        let_through(values, silent_days, 3.0, out);
        digest.add(silent_days);
        digest.add(out);
    }
    digest.print("attendance");
}

// A kernel over time, from day to day.
template <class Kernel>
void print_days(const char* name, const char* variant, const Kernel& kernel) {
    constexpr std::size_t slots = 37;
    Numbers numbers;
    Digest digest;
    Row kept(kernel.kept_rows() * slots, nan), derived(kernel.derived_rows() * slots, nan);
    const TimeMemory memory{kept.data(), derived.data(), slots};
    kernel.derive(memory, 0, {0, slots});
    std::size_t position = 0;
    for (int day = 0; day < 300; ++day) {
        Row row = numbers.row(slots);
        kernel.step(memory, position, row.data(), row.data(), {0, slots});
        position = next_position(position, kernel.window());
        digest.add(row);
    }
    digest.add(kept);
    digest.print(name, variant);
}

void print_over_time() {
    print_days("past_value", ".value", PastValue(3, PastValue::Gives::value));
    print_days("past_value", ".difference", PastValue(3, PastValue::Gives::difference));
    print_days("rolling_mean", "", RollingMean(20, 5));
    print_days("rolling_spread", ".deviation",
               RollingSpread(20, 5, RollingSpread::Gives::deviation));
    print_days("rolling_spread", ".zscore", RollingSpread(20, 5, RollingSpread::Gives::zscore));
    print_days("exponential", ".mean", Exponential(0.9, Exponential::Gives::mean));
    print_days("exponential", ".deviation", Exponential(0.9, Exponential::Gives::deviation));
}

// Structures of up to four legs: from the instruments, and back onto them.
void print_structures() {
    constexpr std::size_t instruments = 50, slots = 400;
    Numbers numbers;
    std::vector<std::int32_t> offsets = {0}, ids;
    std::vector<LegPlace> places;
    FlatLegs legs;
    for (std::size_t slot = 0; slot < slots; ++slot) {
        const auto count = static_cast<std::uint32_t>(numbers.below(5));
        places.push_back({static_cast<std::uint32_t>(ids.size()), count});
        for (std::uint32_t leg = 0; leg < count; ++leg) {
            ids.push_back(static_cast<std::int32_t>(numbers.below(instruments)));
            legs.ids.push_back(static_cast<std::uint32_t>(ids.back()));
            legs.weights.push_back(numbers.scaled(1));
        }
        offsets.push_back(static_cast<std::int32_t>(ids.size()));
    }
    Digest there, in_proportion, equally;
    Totals totals;
    for (int day = 0; day < 20; ++day) {
        const Row prices = numbers.row(instruments);
        Row sums(slots), outputs(slots);
        weighted_sums(offsets, ids, legs.weights, prices, sums);
        there.add(sums);
        for (double& output : outputs) output = numbers.below(9) == 0 ? nan : numbers.scaled(0);
        totals.reset(instruments);
        const bool added = add_in_proportion(outputs, places, legs, totals);
        in_proportion.add(added ? totals.sums : Row(instruments, nan));
        totals.reset(instruments);
        const bool split = add_equal_split(outputs, places, legs, totals);
        equally.add(split ? totals.sums : Row(instruments, nan));
    }
    there.print("weighted_sums");
    in_proportion.print("add_in_proportion");
    equally.print("add_equal_split");
}

}  // namespace

int main() {
    print_elementwise();
    print_cross_sections();
    print_ewma();
    print_attendance();
    print_over_time();
    print_structures();
    return 0;
}
