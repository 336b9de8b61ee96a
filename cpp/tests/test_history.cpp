// Many days at once give what the kernels of single days give, to the bit.

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "check.hpp"
#include "kernels/ewma.hpp"
#include "kernels/history/ewma_block.hpp"
#include "kernels/history/history.hpp"
#include "kernels/history/row_block.hpp"
#include "kernels/rank.hpp"
#include "kernels/unmap.hpp"
#include "kernels/weighted_sums.hpp"

using namespace quorvane::kernels;

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double decay = 0.9;

using Clock = std::chrono::steady_clock;

// Random structures of up to four legs; every third slot reports nothing, but has legs.
struct Case {
    Case(std::size_t days_, std::size_t instruments_, std::size_t slots_)
        : days(days_), instruments(instruments_), slots(slots_), prices(days * instruments) {
        std::normal_distribution<double> normal;
        for (double& price : prices) {
            price = normal(random);
            if (random() % 20 == 0) price = nan;
            if (random() % 50 == 0) price = -infinity;
        }
        structures.offsets = {0};
        for (std::size_t slot = 0; slot < slots; ++slot) {
            places.push_back({static_cast<std::uint32_t>(legs.ids.size()),
                              static_cast<std::uint32_t>(random() % 5)});
            for (std::uint32_t leg = 0; leg < places.back().count; ++leg) {
                legs.ids.push_back(static_cast<std::uint32_t>(random() % instruments));
                legs.weights.push_back(normal(random));
            }
            const bool reported = slot % 3 != 2;
            structures.starts.push_back(reported ? 0.0 : nan);
            for (std::size_t leg = places.back().begin; reported && leg < legs.ids.size(); ++leg) {
                structures.ids.push_back(legs.ids[leg]);
                structures.weights.push_back(legs.weights[leg]);
            }
            structures.offsets.push_back(static_cast<std::uint32_t>(structures.ids.size()));
        }
        while (structures.starts.size() % kWidth != 0) {
            structures.starts.push_back(nan);
            structures.offsets.push_back(structures.offsets.back());
        }
    }

    [[nodiscard]] HistoryInput input() const {
        HistoryInput all;
        all.instruments = instruments;
        all.values = {reinterpret_cast<const char*>(prices.data()),
                      static_cast<std::ptrdiff_t>(instruments * sizeof(double)), sizeof(double)};
        return all;
    }

    // The value of a slot on a day, as a single day finds it.
    [[nodiscard]] double value(std::size_t day, std::size_t slot) const {
        double sum = structures.starts[slot];
        for (std::size_t leg = structures.offsets[slot]; leg < structures.offsets[slot + 1];
             ++leg) {
            sum += structures.weights[leg] * prices[day * instruments + structures.ids[leg]];
        }
        return std::isfinite(sum) ? sum : nan;
    }

    std::mt19937_64 random{7};
    std::size_t days, instruments, slots;
    std::vector<double> prices;
    StructuresBySlot structures;
    std::vector<LegPlace> places;
    FlatLegs legs;
};

bool same_bits(std::span<const double> left, std::span<const double> right) {
    return left.size() == right.size() &&
           std::memcmp(left.data(), right.data(), left.size_bytes()) == 0;
}

auto rank_block(std::size_t slots, std::size_t workers) {
    return RowBlock<decltype(&rank_fraction), RankWorkspace>(rank_fraction, slots, workers);
}

std::vector<double> by_days(const Case& all, bool equal_split) {
    std::vector<double> mean(all.slots, nan), weight(all.slots, 1.0), row(all.slots),
        averages(all.slots), ranks(all.slots);
    std::vector<double> output(all.days * all.instruments, nan);
    RankWorkspace workspace;
    Totals totals;
    for (std::size_t day = 0; day < all.days; ++day) {
        for (std::size_t slot = 0; slot < all.slots; ++slot) row[slot] = all.value(day, slot);
        ewma_step(row, decay, mean, weight, averages);
        rank_fraction(averages, workspace, ranks);
        totals.reset(all.instruments);
        const auto add = equal_split ? add_equal_split : add_in_proportion;
        CHECK(add(ranks, all.places, all.legs, totals));
        write_reached(totals, output.data() + day * all.instruments);
    }
    return output;
}

HistoryProgress at_once(const Case& all, bool equal_split, std::size_t workers,
                        std::vector<double>& output) {
    const std::vector<double> none(all.slots, nan), ones(all.slots, 1.0);
    EwmaBlock average(decay, none, ones);
    auto rank = rank_block(all.slots, workers);
    BlockKernel* const children[] = {&average, &rank};
    const LegsByInstrument legs(all.places, all.legs, all.instruments, equal_split);
    output.assign(all.days * all.instruments, 7.0);
    const History history{all.input(), all.structures, legs, children, all.slots, output.data()};
    return run_history(history, 0, all.days, workers, Clock::time_point::max());
}

void histories_are_their_days() {
    for (const std::size_t slots : {1UL, 7UL, 60UL, 130UL, 3000UL}) {
        for (const std::size_t instruments : {1UL, 5UL, 12UL}) {
            const Case all(72, instruments, slots);
            for (const bool equal_split : {false, true}) {
                const std::vector<double> expected = by_days(all, equal_split);
                for (const std::size_t workers : {1UL, 2UL, 5UL}) {
                    std::vector<double> output;
                    const HistoryProgress progress = at_once(all, equal_split, workers, output);
                    CHECK(progress.done == all.days && progress.refused == 0);
                    CHECK(same_bits(output, expected));
                }
            }
        }
    }
}

void what_is_left_of_eight_days_stays() {
    const Case all(29, 3, 10);
    std::vector<double> output;
    CHECK(at_once(all, false, 2, output).done == 24);
    CHECK(output[std::size_t{24} * 3] == 7.0);
}

void a_moment_that_is_over_ends_after_a_block() {
    const Case all(4000, 4, 60);
    const LegsByInstrument legs(all.places, all.legs, all.instruments, false);
    std::vector<double> output(all.days * all.instruments);
    const History history{all.input(), all.structures, legs, {}, all.slots, output.data()};
    const HistoryProgress progress = run_history(history, 0, all.days, 1, Clock::now());
    CHECK(progress.done > 0 && progress.done < all.days && progress.done % kDays == 0);
}

// One structure over one instrument, whose weight overflows with the price of one day.
void days_in_which_numpy_would_warn_are_refused_and_taken_back() {
    std::vector<double> prices(2000, 1.0);
    prices[1500] = 1e100;
    StructuresBySlot structures{{0, 1, 1, 1, 1}, {0}, {1.0}, {0.0, nan, nan, nan}};
    const std::vector<LegPlace> places = {{0, 1}};
    const LegsByInstrument legs(places, {{0}, {1e300}}, 1, false);
    HistoryInput input;
    input.instruments = 1;
    input.values = {reinterpret_cast<const char*>(prices.data()), sizeof(double), sizeof(double)};
    for (const std::size_t workers : {1UL, 3UL}) {
        const std::vector<double> none(1, nan), ones(1, 1.0);
        EwmaBlock average(decay, none, ones);
        BlockKernel* const children[] = {&average};
        std::vector<double> output(prices.size());
        const History history{input, structures, legs, children, 1, output.data()};
        const auto progress =
            run_history(history, 0, prices.size(), workers, Clock::time_point::max());
        CHECK(progress.done <= 1500 && progress.done + progress.refused > 1500);
        std::vector<double> mean(1, nan), weight(1, 1.0), out(1);
        for (std::size_t day = 0; day < progress.done; ++day) {
            ewma_step(std::span(prices).subspan(day, 1), decay, mean, weight, out);
        }
        CHECK(same_bits(average.mean(), mean) && same_bits(average.weight(), weight));
    }
}

void nothing_is_told_of_outputs_that_are_left_out() {
    const std::vector<LegPlace> places = {{0, 1}, {1, 1}};
    const LegsByInstrument legs(places, {{0, 0}, {0.0, 2.0}}, 1, false);
    std::vector<double> rows(kDays * 2), out(kDays);
    const double* day_rows[kDays];
    double* out_rows[kDays];
    for (std::size_t day = 0; day < kDays; ++day) {
        rows[day * 2] = day % 2 == 0 ? infinity : nan;
        rows[day * 2 + 1] = day == 3 ? nan : 1.5;
        day_rows[day] = &rows[day * 2];
        out_rows[day] = &out[day];
    }
    WayBackLanes lanes(2);
    CHECK(bring_back(legs, day_rows, 2, lanes, out_rows));
    CHECK(out[0] == 3.0 && out[7] == 3.0 && std::isnan(out[3]) && !std::signbit(out[3]));
}

void whoever_is_left_out_of_the_universe_is_missing() {
    Case all(8, 3, 4);
    for (double& price : all.prices) price = 1.0;
    std::vector<std::uint8_t> universe(std::size_t{8} * 3, 1);
    universe[3 * 3 + 2] = 0;
    HistoryInput input = all.input();
    input.universe = {reinterpret_cast<const char*>(universe.data()), 3, 1};
    std::vector<double> lanes(3 * kDays);
    read_lanes(input, 0, lanes.data());
    for (std::size_t day = 0; day < kDays; ++day) {
        CHECK(std::isnan(lanes[2 * kDays + day]) == (day == 3));
        CHECK(lanes[day] == 1.0);
    }
}

}  // namespace

int main() {
    histories_are_their_days();
    what_is_left_of_eight_days_stays();
    a_moment_that_is_over_ends_after_a_block();
    days_in_which_numpy_would_warn_are_refused_and_taken_back();
    nothing_is_told_of_outputs_that_are_left_out();
    whoever_is_left_out_of_the_universe_is_missing();
    return check::result();
}
