#include "kernels/history/attendance_block.hpp"

#include <algorithm>

#include "kernels/attendance.hpp"

namespace quorvane::kernels {

AttendanceBlock::AttendanceBlock(std::optional<double> hold, std::span<const double> silent_days,
                                 std::size_t most_days, std::size_t stride)
    : hold_(hold), now_(silent_days.begin(), silent_days.end()), kept_(now_) {
    if (shuts_out()) open_.resize(most_days * stride);
}

void AttendanceBlock::run(const DayBlock& block, std::size_t first, std::size_t last,
                          std::size_t /*worker*/) {
    const std::size_t size = last - first;
    const std::span<double> silent_days{now_.data() + first, size};
    for (std::size_t day = 0; day < block.days; ++day) {
        const std::span<const double> values{block.row(day) + first, size};
        if (hold_) {
            count_silence(values, silent_days, *hold_,
                          {open_.data() + day * block.stride + first, size});
        } else {
            count_silence(values, silent_days);
        }
    }
}

void AttendanceBlock::keep() noexcept { std::ranges::copy(now_, kept_.begin()); }

void AttendanceBlock::take_back() noexcept { std::ranges::copy(kept_, now_.begin()); }

void GateBlock::run(const DayBlock& block, std::size_t first, std::size_t last,
                    std::size_t /*worker*/) {
    for (std::size_t day = first; day < last; ++day) {
        const std::span row(block.row(day), block.slots);
        if (attendance_.shuts_out()) {
            shut_out(attendance_.open(block, day), row);
        } else {
            let_through(row, row);
        }
    }
}

}  // namespace quorvane::kernels
