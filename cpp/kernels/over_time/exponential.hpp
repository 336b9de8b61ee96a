#pragma once

#include "kernels/over_time/memory.hpp"

namespace quorvane::kernels {

// The exponentially weighted mean, or deviation, whose weights shrink by `decay` from day to day:
// with adjusted weights, missing days aging them, and the deviation without bias. Infinite values
// are missing. The steps are those of pandas, one by one.
class Exponential {
public:
    enum class Gives { mean, deviation };

    Exponential(double decay, Gives gives) : decay_(decay), gives_(gives) {}

    [[nodiscard]] static std::size_t window() noexcept { return 0; }
    // The mean and the sum of weights; the sum of their squares and the variance.
    [[nodiscard]] std::size_t kept_rows() const noexcept { return gives_ == Gives::mean ? 2 : 4; }
    [[nodiscard]] static std::size_t derived_rows() noexcept { return 0; }

    void step(const TimeMemory& memory, std::size_t position, const double* values, double* out,
              SlotRange range) const;
    static void derive(const TimeMemory& /*memory*/, std::size_t /*position*/,
                       SlotRange /*range*/) noexcept {}

private:
    double decay_;
    Gives gives_;
};

}  // namespace quorvane::kernels
