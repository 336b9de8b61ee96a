#pragma once

#include <span>
#include <vector>

#include "kernels/history/block_kernel.hpp"

namespace quorvane::kernels {

// The average of kernels/ewma.hpp over blocks of days, with a memory of its own.
class EwmaBlock final : public BlockKernel {
public:
    EwmaBlock(double decay, std::span<const double> mean, std::span<const double> weight);

    [[nodiscard]] Share share() const noexcept override { return Share::slots; }
    void run(const DayBlock& block, std::size_t first, std::size_t last,
             std::size_t worker) override;
    void keep() noexcept override;
    void take_back() noexcept override;

    [[nodiscard]] std::span<const double> mean() const noexcept { return now_.mean; }
    [[nodiscard]] std::span<const double> weight() const noexcept { return now_.weight; }

private:
    struct Memory {
        std::vector<double> mean, weight;
    };

    double decay_;
    Memory now_, kept_;
};

}  // namespace quorvane::kernels
