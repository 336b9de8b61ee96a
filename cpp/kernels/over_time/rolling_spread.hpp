#pragma once

#include "kernels/over_time/memory.hpp"

namespace quorvane::kernels {

// The deviation (ddof 1) of the last `window` days that have a number, or how many of those
// deviations today's number lies above their mean; missing where there are fewer than `least` or
// than two. Infinite values are missing.
//
// As RollingMean has sums of a block's tails and of the next one's head, this has their means and
// their sums of squares around those: each by Welford's steps, and both together by the formula of
// Chan, Golub and LeVeque (1983). All that is added is positive, so nothing cancels.
class RollingSpread {
public:
    enum class Gives { deviation, zscore };

    RollingSpread(std::size_t window, std::size_t least, Gives gives)
        : window_(window), least_(static_cast<double>(least < 2 ? 2 : least)), gives_(gives) {}

    [[nodiscard]] std::size_t window() const noexcept { return window_; }
    [[nodiscard]] std::size_t kept_rows() const noexcept { return window_; }
    // Means and sums of squares of the tails, of which the last are 0; the head's mean, sum and
    // count; the window's count; and one to work with.
    [[nodiscard]] std::size_t derived_rows() const noexcept { return 2 * (window_ + 1) + 5; }

    void step(const TimeMemory& memory, std::size_t position, const double* values, double* out,
              SlotRange range) const;
    void derive(const TimeMemory& memory, std::size_t position, SlotRange range) const;

private:
    struct Rows;
    [[nodiscard]] Rows rows(const TimeMemory& memory, std::size_t first) const;

    std::size_t window_;
    double least_;
    Gives gives_;
};

}  // namespace quorvane::kernels
