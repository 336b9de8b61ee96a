// Blocks of days leave the memory that their days leave, to the bit, and take back what they did.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "check.hpp"
#include "kernels/history/memory_block.hpp"
#include "kernels/over_time/exponential.hpp"
#include "kernels/over_time/past_value.hpp"
#include "kernels/over_time/rolling_mean.hpp"
#include "kernels/over_time/rolling_spread.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
using Rows = std::vector<double>;

bool same_bits(std::span<const double> left, std::span<const double> right) {
    return std::ranges::equal(left, right, [](double one, double other) {
        return (one != one && other != other) ||
               std::bit_cast<std::uint64_t>(one) == std::bit_cast<std::uint64_t>(other);
    });
}

Rows random_rows(std::size_t size, std::mt19937_64& random) {
    const double choices[] = {nan, nan, infinity, -infinity, 0.0, -0.0, 1e300, 5e-324, 0.1, 0.1};
    std::normal_distribution<double> normal;
    Rows rows(size);
    for (double& value : rows) {
        value = random() % 3 == 0 ? choices[random() % std::size(choices)] : normal(random);
    }
    return rows;
}

// A memory that goes from day to day.
template <class Kernel>
struct Days {
    Days(const Kernel& kernel_, std::size_t slots_)
        : kernel(kernel_),
          slots(slots_),
          kept(kernel.kept_rows() * slots, nan),
          derived(kernel.derived_rows() * slots, nan) {
        kernel.derive(memory(), 0, {0, slots});
    }

    TimeMemory memory() { return {kept.data(), derived.data(), slots}; }

    void see(std::span<double> row) {
        kernel.step(memory(), position, row.data(), row.data(), {0, slots});
        position = next_position(position, kernel.window());
    }

    Kernel kernel;
    std::size_t slots, position = 0;
    Rows kept, derived;
};

// Each worker does some slots; where there are more workers than slots, some do none.
template <class Kernel>
void run_block(MemoryBlock<Kernel>& block, Rows& rows, std::size_t days, std::size_t slots,
               std::size_t workers) {
    const DayBlock all{rows.data(), slots, days, slots};
    std::vector<std::thread> team;
    team.reserve(workers);
    for (std::size_t worker = 0; worker < workers; ++worker) {
        team.emplace_back([&, worker] {
            block.run(all, slots * worker / workers, slots * (worker + 1) / workers, worker);
        });
    }
    for (std::thread& member : team) member.join();
}

template <class Kernel>
void check_same_memory(const MemoryBlock<Kernel>& block, const Days<Kernel>& days) {
    CHECK(same_bits(block.kept(), days.kept));
    CHECK(block.position() == days.position);
}

// Every second block is taken back and done again with other numbers.
template <class Kernel>
void check_blocks(const Kernel& kernel, std::size_t slots, std::size_t workers,
                  std::mt19937_64& random) {
    constexpr std::size_t most_days = 40;
    Days<Kernel> days(kernel, slots);
    MemoryBlock<Kernel> block(kernel, days.kept, days.derived, days.position, slots, most_days);
    CHECK(block.share() == BlockKernel::Share::slots);
    for (const std::size_t size : {1UL, 8UL, 40UL, 3UL, 16UL, 40UL, 40UL, 7UL}) {
        block.keep();
        check_same_memory(block, days);
        if (random() % 2 == 0) {
            Rows others = random_rows(size * slots, random);
            run_block(block, others, size, slots, workers);
            block.take_back();
            check_same_memory(block, days);
            block.keep();
        }
        Rows rows = random_rows(size * slots, random), expected = rows;
        run_block(block, rows, size, slots, workers);
        for (std::size_t day = 0; day < size; ++day) {
            days.see(std::span(expected).subspan(day * slots, slots));
        }
        CHECK(same_bits(rows, expected));
        check_same_memory(block, days);
    }
}

// What is made anew says the same as what the steps made: the days after it are the same.
template <class Kernel>
void check_derive(const Kernel& kernel, std::mt19937_64& random) {
    constexpr std::size_t slots = 11;
    Days<Kernel> days(kernel, slots);
    for (int day = 0; day < 40; ++day) {
        Days<Kernel> as_it_was = days, anew = days;
        std::ranges::fill(anew.derived, nan);
        kernel.derive(anew.memory(), anew.position, {0, 4});
        kernel.derive(anew.memory(), anew.position, {4, slots});
        for (int after = 0; after < 20; ++after) {
            Rows row = random_rows(slots, random), same = row;
            as_it_was.see(row);
            anew.see(same);
            CHECK(same_bits(row, same));
        }
        Rows row = random_rows(slots, random);
        days.see(row);
    }
}

template <class Kernel>
void check_kernel(const Kernel& kernel) {
    std::mt19937_64 random(7);
    for (const std::size_t slots : {1UL, 9UL, 256UL, 257UL, 600UL}) {
        for (const std::size_t workers : {1UL, 2UL, 5UL}) {
            check_blocks(kernel, slots, workers, random);
        }
    }
    check_derive(kernel, random);
}

void nothing_is_taken_back_of_a_block_that_did_not_run() {
    const RollingMean kernel(3, 1);
    Days<RollingMean> days(kernel, 2);
    MemoryBlock<RollingMean> block(kernel, days.kept, days.derived, 0, 2, 8);
    block.keep();
    block.take_back();
    check_same_memory(block, days);
}

void positions_go_round() {
    CHECK(next_position(0, 1) == 0 && next_position(1, 3) == 2 && next_position(2, 3) == 0);
    CHECK(next_position(0, 0) == 0);
    CHECK(position_after(2, 0, 3) == 2 && position_after(2, 8, 3) == 1);
    CHECK(position_after(0, 8, 0) == 0);
}

}  // namespace

int main() {
    for (const std::size_t window : {1UL, 2UL, 5UL, 39UL, 40UL, 41UL, 200UL}) {
        check_kernel(RollingMean(window, 1));
        check_kernel(PastValue(window, PastValue::Gives::value));
        check_kernel(PastValue(window, PastValue::Gives::difference));
        if (window < 2) continue;
        check_kernel(RollingSpread(window, 1, RollingSpread::Gives::deviation));
        check_kernel(RollingSpread(window, 2, RollingSpread::Gives::zscore));
    }
    check_kernel(Exponential(0.9, Exponential::Gives::mean));
    check_kernel(Exponential(0.0, Exponential::Gives::deviation));
    check_kernel(Exponential(0.9, Exponential::Gives::deviation));
    nothing_is_taken_back_of_a_block_that_did_not_run();
    positions_go_round();
    return check::result();
}
