#pragma once

#include <cstddef>
#include <span>

namespace quorvane::kernels {

// What a function over time remembers of each slot: a column of `kept` numbers, NaN where nothing
// was seen, and numbers `derived` from those, which save time. Rows are `columns` apart.
//
// A kernel that works on it is a value with
//
//   window()         how many days it remembers one by one, a row of `kept` for each; 0 for others
//   kept_rows(), derived_rows()
//   step(memory, position, values, out, range)
//                    one day of some slots: the row at `position` is the oldest of the window, and
//                    becomes today's. `values` and `out` may be the same row.
//   derive(memory, position, range)
//                    makes `derived` anew from what is kept, to the bit what the steps made of it;
//                    `position` is the next day's.
struct TimeMemory {
    double* kept;
    double* derived;
    std::size_t columns;

    [[nodiscard]] double* kept_row(std::size_t row) const noexcept { return kept + row * columns; }
    [[nodiscard]] double* derived_row(std::size_t row) const noexcept {
        return derived + row * columns;
    }
};

// The slots from `first` to `last` - 1.
struct SlotRange {
    std::size_t first, last;

    [[nodiscard]] std::size_t size() const noexcept { return last - first; }
};

// The position of the day after one.
constexpr std::size_t next_position(std::size_t position, std::size_t window) noexcept {
    return position + 1 < window ? position + 1 : 0;
}

// The position so many days later.
constexpr std::size_t position_after(std::size_t position, std::size_t days,
                                     std::size_t window) noexcept {
    return window == 0 ? 0 : (position + days) % window;
}

}  // namespace quorvane::kernels
