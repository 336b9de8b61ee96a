#pragma once

#include "kernels/over_time/memory.hpp"

namespace quorvane::kernels {

// The mean of the last `window` days that have a number, missing where there are fewer of them than
// `least`. Infinite values are missing.
//
// Nothing is ever subtracted: days come in blocks of a window's length. Of the block before there
// is the sum from each day to the block's end, of the present one the sum from its beginning; a
// window is a tail of the one and the head of the other. So no number leaves a trace once it has
// left the window, and the error is at most that of adding up `window` numbers.
class RollingMean {
public:
    RollingMean(std::size_t window, std::size_t least)
        : window_(window), least_(static_cast<double>(least)) {}

    [[nodiscard]] std::size_t window() const noexcept { return window_; }
    [[nodiscard]] std::size_t kept_rows() const noexcept { return window_; }
    // The tails, of which the last is 0, the head, and how many numbers there are.
    [[nodiscard]] std::size_t derived_rows() const noexcept { return window_ + 3; }

    void step(const TimeMemory& memory, std::size_t position, const double* values, double* out,
              SlotRange range) const;
    void derive(const TimeMemory& memory, std::size_t position, SlotRange range) const;

private:
    std::size_t window_;
    double least_;
};

}  // namespace quorvane::kernels
