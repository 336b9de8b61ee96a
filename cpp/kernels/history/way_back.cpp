// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/history/way_back.hpp"

#include <algorithm>
#include <limits>

#include "kernels/exception_flags.hpp"

namespace quorvane::kernels {

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// By its bits, so that asking raises no flag.
[[gnu::always_inline]] inline void find_finite(const Vector& values, VectorBits& finite) {
    constexpr std::int64_t exponent = 0x7ff0'0000'0000'0000;
    VectorBits bits;
    std::memcpy(&bits, &values, sizeof bits);
    finite = (bits & exponent) != exponent;
}

[[gnu::always_inline]] inline void load(const double* place, Vector& values) {
    std::memcpy(&values, place, sizeof values);
}

QUORVANE_SIMD void find_whole(const double* lanes, std::size_t slots, std::uint8_t* whole) {
    for (std::size_t slot = 0; slot < slots; ++slot) {
        VectorBits all_parts = ~VectorBits{};
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector values;
            VectorBits finite;
            load(lanes + slot * kDays + part * kWidth, values);
            find_finite(values, finite);
            all_parts &= finite;
        }
        std::int64_t all = -1;
        for (std::size_t i = 0; i < kWidth; ++i) all &= all_parts[i];
        whole[slot] = all != 0;
    }
}

QUORVANE_SIMD void turn(const double* const* day_rows, std::size_t slots, double* lanes) {
    ConstDayRows rows;
    std::copy(day_rows, day_rows + kDays, rows);
    rows_to_lanes(rows, slots, lanes);
}

QUORVANE_SIMD void divide(double* lanes, const double* counts, std::size_t slots) {
    for (std::size_t slot = 0; slot < slots; ++slot) {
        for (std::size_t day = 0; day < kDays; ++day) lanes[slot * kDays + day] /= counts[slot];
    }
}

struct Sources {
    const std::uint32_t* offsets;
    const std::uint32_t* slots;
    const double* weights;
    const double* outputs;
    const std::uint8_t* whole;
};

// What an instrument gets on eight days where every output is finite.
[[gnu::always_inline]] inline void add_up(const Sources& from, std::size_t first, std::size_t last,
                                          Vector (&sums)[kParts]) {
    for (Vector& sum : sums) sum = Vector{};
    for (std::size_t i = first; i < last; ++i) {
        const double* output = from.outputs + std::size_t{from.slots[i]} * kDays;
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector value;
            load(output + part * kWidth, value);
            sums[part] += value * from.weights[i];
        }
    }
}

// The same where some are not. What does not contribute is left out after the multiplication, since
// 0 times infinity is NaN, and takes part in it as 0, since that product is no exception.
[[gnu::always_inline]] inline void add_up_finite(const Sources& from, std::size_t first,
                                                 std::size_t last, Vector (&sums)[kParts]) {
    VectorBits reached[kParts]{};
    for (Vector& sum : sums) sum = Vector{};
    for (std::size_t i = first; i < last; ++i) {
        const double* output = from.outputs + std::size_t{from.slots[i]} * kDays;
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector value;
            VectorBits finite;
            load(output + part * kWidth, value);
            find_finite(value, finite);
            const Vector amount = (finite ? value : Vector{}) * from.weights[i];
            sums[part] = finite ? sums[part] + amount : sums[part];
            reached[part] |= finite;
        }
    }
    for (std::size_t part = 0; part < kParts; ++part) {
        sums[part] = reached[part] ? sums[part] : Vector{} + kNan;
    }
}

[[gnu::always_inline]] inline void gather(const Sources& from, std::size_t instrument,
                                          Vector (&sums)[kParts]) {
    const std::size_t first = from.offsets[instrument], last = from.offsets[instrument + 1];
    std::uint8_t whole = first < last;
    for (std::size_t i = first; i < last; ++i) whole &= from.whole[from.slots[i]];
    if (whole != 0) {
        add_up(from, first, last, sums);
    } else {
        add_up_finite(from, first, last, sums);
    }
}

QUORVANE_SIMD void gather_all(const Sources& from, std::size_t instruments,
                              double* const* day_rows) {
    DayRows rows;
    std::copy(day_rows, day_rows + kDays, rows);
    std::size_t instrument = 0;
    for (; instrument + kWidth <= instruments; instrument += kWidth) {
        Vector sums[kWidth][kParts];
        for (std::size_t i = 0; i < kWidth; ++i) gather(from, instrument + i, sums[i]);
        put_columns(sums, rows, instrument);
    }
    for (; instrument < instruments; ++instrument) {
        Vector sums[kParts];
        gather(from, instrument, sums);
        for (std::size_t day = 0; day < kDays; ++day) {
            rows[day][instrument] = sums[day / kWidth][day % kWidth];
        }
    }
}

}  // namespace

LegsByInstrument::LegsByInstrument(std::span<const LegPlace> places, const FlatLegs& legs,
                                   std::size_t instruments, bool equal_split)
    : offsets(instruments + 1), counts(equal_split ? places.size() : 0, 1.0) {
    std::size_t total = 0;
    for (const auto [begin, count] : places) {
        for (std::size_t leg = begin; leg < std::size_t{begin} + count; ++leg) {
            ++offsets[legs.ids[leg] + 1];
        }
        total += count;
    }
    for (std::size_t i = 1; i < offsets.size(); ++i) offsets[i] += offsets[i - 1];
    slots.resize(total);
    weights.resize(total);
    std::vector<std::uint32_t> next(offsets.begin(), offsets.end() - 1);
    for (std::size_t slot = 0; slot < places.size(); ++slot) {
        const auto [begin, count] = places[slot];
        if (equal_split && count > 0) counts[slot] = static_cast<double>(count);
        for (std::size_t leg = begin; leg < std::size_t{begin} + count; ++leg) {
            const std::uint32_t place = next[legs.ids[leg]]++;
            const double sign = legs.weights[leg] >= 0.0 ? 1.0 : -1.0;
            slots[place] = static_cast<std::uint32_t>(slot);
            weights[place] = equal_split ? sign : legs.weights[leg];
        }
    }
}

bool bring_back(const LegsByInstrument& legs, const double* const* rows, std::size_t slots,
                WayBackLanes& lanes, double* const* out) noexcept {
    double* outputs = lanes.outputs.data();
    turn(rows, slots, outputs);
    // All arithmetic stands in functions of their own: it cannot be moved past either look.
    clear_exceptions();
    if (!legs.counts.empty()) divide(outputs, legs.counts.data(), legs.counts.size());
    find_whole(outputs, slots, lanes.whole.data());
    const Sources from{legs.offsets.data(), legs.slots.data(), legs.weights.data(), outputs,
                       lanes.whole.data()};
    gather_all(from, legs.instruments(), out);
    return !has_exceptions();
}

}  // namespace quorvane::kernels
