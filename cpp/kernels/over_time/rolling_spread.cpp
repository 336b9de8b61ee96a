// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/over_time/rolling_spread.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernels/over_time/present.hpp"

namespace quorvane::kernels {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargest = std::numeric_limits<double>::max();

// A mean, the sum of squares around it, and of how many numbers.
struct Moments {
    double mean, squares, count;
};

// Welford's step; both sides of the choice are evaluated, so that the loops have no branches.
[[gnu::always_inline]] inline Moments with(Moments all, double value, bool present) {
    const double count = all.count + 1.0;
    const double deviation = value - all.mean;
    const double mean = all.mean + deviation / count;
    const double squares = all.squares + deviation * (value - mean);
    return {present ? mean : all.mean, present ? squares : all.squares,
            present ? count : all.count};
}

[[gnu::always_inline]] inline Moments together(Moments tail, Moments head) {
    const double count = tail.count + head.count;
    const double share = head.count / count;
    const double apart = head.mean - tail.mean;
    const double mean = tail.mean + apart * share;
    const double squares = tail.squares + head.squares + apart * apart * (tail.count * share);
    // Of an empty part the mean says nothing.
    const bool no_tail = tail.count == 0.0, no_head = head.count == 0.0;
    return {no_tail ? head.mean : (no_head ? tail.mean : mean),
            no_tail ? head.squares : (no_head ? tail.squares : squares), count};
}

}  // namespace

struct RollingSpread::Rows {
    double *head_mean, *head_squares, *head_count, *count, *scratch;
};

namespace {

struct Day {
    const double* values;
    double* past;
    const double* tail_mean;
    const double* tail_squares;
    double *head_mean, *head_squares, *head_count, *count;
    double* out;
};

template <bool gives_zscore>
[[gnu::always_inline]] inline void spread_day(const Day& day, std::size_t size, double least) {
    const auto [values, past, tail_mean, tail_squares, head_mean, head_squares, head_count, count,
                out] = day;
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const bool present = std::abs(values[i]) <= kLargest;
        const double value = present ? values[i] : kMissing;
        const double had = past[i] == past[i] ? 1.0 : 0.0;
        const double numbers = count[i] + (present ? 1.0 : 0.0) - had;
        const Moments head = with({head_mean[i], head_squares[i], head_count[i]}, value, present);
        const Moments all = together({tail_mean[i], tail_squares[i], numbers - head.count}, head);
        past[i] = value;
        count[i] = numbers;
        head_mean[i] = head.mean;
        head_squares[i] = head.squares;
        head_count[i] = head.count;
        const double deviation = std::sqrt(all.squares / (numbers - 1.0));
        // Squares that overflow leave no deviation to divide by.
        const bool is_spread = deviation > 0.0 && deviation <= kLargest;
        const double distance = (value - all.mean) / (is_spread ? deviation : kMissing);
        const double result = gives_zscore ? distance : deviation;
        out[i] = numbers >= least ? result : kMissing;
    }
}

QUORVANE_SIMD void deviation_day(const Day& day, std::size_t size, double least) {
    spread_day<false>(day, size, least);
}

QUORVANE_SIMD void zscore_day(const Day& day, std::size_t size, double least) {
    spread_day<true>(day, size, least);
}

// The moments with a row of values more; `count` is brought up to date in place.
QUORVANE_SIMD void add_row(const double* values, const double* mean, const double* squares,
                           double* count, double* new_mean, double* new_squares, std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const Moments all =
            with({mean[i], squares[i], count[i]}, values[i], values[i] == values[i]);
        new_mean[i] = all.mean;
        new_squares[i] = all.squares;
        count[i] = all.count;
    }
}

}  // namespace

RollingSpread::Rows RollingSpread::rows(const TimeMemory& memory, std::size_t first) const {
    double* row = memory.derived_row(2 * (window_ + 1)) + first;
    const std::size_t next = memory.columns;
    return {row, row + next, row + 2 * next, row + 3 * next, row + 4 * next};
}

void RollingSpread::step(const TimeMemory& memory, std::size_t position, const double* values,
                         double* out, SlotRange range) const {
    const std::size_t first = range.first;
    const Rows own = rows(memory, first);
    const Day day{values,
                  memory.kept_row(position) + first,
                  memory.derived_row(position + 1) + first,
                  memory.derived_row(window_ + 1 + position + 1) + first,
                  own.head_mean,
                  own.head_squares,
                  own.head_count,
                  own.count,
                  out};
    if (gives_ == Gives::zscore) {
        zscore_day(day, range.size(), least_);
    } else {
        deviation_day(day, range.size(), least_);
    }
    if (position + 1 == window_) derive(memory, 0, range);
}

void RollingSpread::derive(const TimeMemory& memory, std::size_t position, SlotRange range) const {
    const std::size_t first = range.first, size = range.size();
    const Rows own = rows(memory, first);
    for (double* row : {own.head_mean, own.head_squares, own.head_count, own.count, own.scratch}) {
        std::fill_n(row, size, 0.0);
    }
    for (std::size_t day = 0; day < window_; ++day) {
        const double* values = memory.kept_row(day) + first;
        if (day < position) {
            add_row(values, own.head_mean, own.head_squares, own.head_count, own.head_mean,
                    own.head_squares, size);
        }
        count_present(values, own.count, size);
    }
    double* mean = memory.derived_row(window_) + first;
    double* squares = memory.derived_row(2 * window_ + 1) + first;
    std::fill_n(mean, size, 0.0);
    std::fill_n(squares, size, 0.0);
    for (std::size_t day = window_; day-- > position;) {
        add_row(memory.kept_row(day) + first, mean, squares, own.scratch, mean - memory.columns,
                squares - memory.columns, size);
        mean -= memory.columns;
        squares -= memory.columns;
    }
}

}  // namespace quorvane::kernels
