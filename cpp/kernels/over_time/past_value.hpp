#pragma once

#include "kernels/over_time/memory.hpp"

namespace quorvane::kernels {

// The value of `days` days ago, or how far today's is above it; missing where either is.
class PastValue {
public:
    enum class Gives { value, difference };

    PastValue(std::size_t days, Gives gives) : days_(days), gives_(gives) {}

    [[nodiscard]] std::size_t window() const noexcept { return days_; }
    [[nodiscard]] std::size_t kept_rows() const noexcept { return days_; }
    [[nodiscard]] static std::size_t derived_rows() noexcept { return 0; }

    void step(const TimeMemory& memory, std::size_t position, const double* values, double* out,
              SlotRange range) const;
    static void derive(const TimeMemory& /*memory*/, std::size_t /*position*/,
                       SlotRange /*range*/) noexcept {}

private:
    std::size_t days_;
    Gives gives_;
};

}  // namespace quorvane::kernels
