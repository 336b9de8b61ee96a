#pragma once

#include <cstddef>
#include <cstring>

#include "kernels/lanes.hpp"

// Days side by side: what is read once for a structure or an instrument serves eight days.
namespace quorvane::kernels {

inline constexpr std::size_t kDays = kLanes;

// The rows of eight days, and the other way round eight numbers of each column: lanes.
using DayRows = double* [kDays];
using ConstDayRows = const double* [kDays];

namespace detail {

[[gnu::always_inline]] inline void transpose(Vector (&rows)[kWidth]) {
    const Vector even01 = __builtin_shufflevector(rows[0], rows[1], 0, 4, 2, 6);
    const Vector odd01 = __builtin_shufflevector(rows[0], rows[1], 1, 5, 3, 7);
    const Vector even23 = __builtin_shufflevector(rows[2], rows[3], 0, 4, 2, 6);
    const Vector odd23 = __builtin_shufflevector(rows[2], rows[3], 1, 5, 3, 7);
    rows[0] = __builtin_shufflevector(even01, even23, 0, 1, 4, 5);
    rows[1] = __builtin_shufflevector(odd01, odd23, 0, 1, 4, 5);
    rows[2] = __builtin_shufflevector(even01, even23, 2, 3, 6, 7);
    rows[3] = __builtin_shufflevector(odd01, odd23, 2, 3, 6, 7);
}

}  // namespace detail

// lanes[8 * column + day] = rows[day][column]
[[gnu::always_inline]] inline void rows_to_lanes(const ConstDayRows& rows, std::size_t columns,
                                                 double* lanes) {
    std::size_t column = 0;
    for (; column + kWidth <= columns; column += kWidth) {
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector square[kWidth];
            for (std::size_t i = 0; i < kWidth; ++i) {
                std::memcpy(&square[i], rows[part * kWidth + i] + column, sizeof(Vector));
            }
            detail::transpose(square);
            for (std::size_t i = 0; i < kWidth; ++i) {
                std::memcpy(lanes + (column + i) * kDays + part * kWidth, &square[i],
                            sizeof(Vector));
            }
        }
    }
    for (; column < columns; ++column) {
        for (std::size_t day = 0; day < kDays; ++day) {
            lanes[column * kDays + day] = rows[day][column];
        }
    }
}

// The lanes of four columns, in the rows from `column` on.
[[gnu::always_inline]] inline void put_columns(const Vector (&columns)[kWidth][kParts],
                                               const DayRows& rows, std::size_t column) {
    for (std::size_t part = 0; part < kParts; ++part) {
        Vector square[kWidth];
        for (std::size_t i = 0; i < kWidth; ++i) square[i] = columns[i][part];
        detail::transpose(square);
        for (std::size_t i = 0; i < kWidth; ++i) {
            std::memcpy(rows[part * kWidth + i] + column, &square[i], sizeof(Vector));
        }
    }
}

}  // namespace quorvane::kernels
