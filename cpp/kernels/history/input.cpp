// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/history/input.hpp"

#include <algorithm>
#include <limits>

#include "kernels/history/day_lanes.hpp"

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD void read_rows(const double* const* rows, std::size_t columns, double* lanes) {
    ConstDayRows days;
    std::copy(rows, rows + kDays, days);
    rows_to_lanes(days, columns, lanes);
}

void read_strided(const HistoryInput& input, std::size_t first_day, double* lanes) {
    for (std::size_t day = 0; day < kDays; ++day) {
        const char* place = input.values.day(first_day + day);
        for (std::size_t column = 0; column < input.instruments; ++column) {
            std::memcpy(lanes + column * kDays + day, place, sizeof(double));
            place += input.values.column_stride;
        }
    }
}

void leave_out(const HistoryInput& input, std::size_t first_day, double* lanes) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t day = 0; day < kDays; ++day) {
        const char* place = input.universe.day(first_day + day);
        for (std::size_t column = 0; column < input.instruments; ++column) {
            if (*place == 0) lanes[column * kDays + day] = nan;
            place += input.universe.column_stride;
        }
    }
}

}  // namespace

void read_lanes(const HistoryInput& input, std::size_t first_day, double* lanes) {
    if (input.values.contiguous_rows()) {
        const double* rows[kDays];
        for (std::size_t day = 0; day < kDays; ++day) {
            rows[day] = reinterpret_cast<const double*>(input.values.day(first_day + day));
        }
        read_rows(rows, input.instruments, lanes);
    } else {
        read_strided(input, first_day, lanes);
    }
    if (input.universe.first != nullptr) leave_out(input, first_day, lanes);
}

}  // namespace quorvane::kernels
