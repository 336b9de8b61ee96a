#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "kernels/history/block_kernel.hpp"

namespace quorvane::kernels {

// Counts over blocks of days for how long each slot has been silent, leaves the values as they are,
// and keeps for the gates of the block which slots speak on which day.
class AttendanceBlock final : public BlockKernel {
public:
    // `most_days` of a block, rows `stride` apart. Without a hold everybody speaks for ever.
    AttendanceBlock(std::optional<double> hold, std::span<const double> silent_days,
                    std::size_t most_days, std::size_t stride);

    [[nodiscard]] Share share() const noexcept override { return Share::slots; }
    void run(const DayBlock& block, std::size_t first, std::size_t last,
             std::size_t worker) override;
    void keep() noexcept override;
    void take_back() noexcept override;

    [[nodiscard]] std::span<const double> silent_days() const noexcept { return now_; }
    [[nodiscard]] bool shuts_out() const noexcept { return hold_.has_value(); }
    [[nodiscard]] std::span<const std::uint8_t> open(const DayBlock& block, std::size_t day) const {
        return {open_.data() + day * block.stride, block.slots};
    }

private:
    std::optional<double> hold_;
    std::vector<double> now_, kept_;
    std::vector<std::uint8_t> open_;
};

// Makes missing what is not finite or does not speak, by the attendance that went before in the
// same block.
class GateBlock final : public BlockKernel {
public:
    explicit GateBlock(const AttendanceBlock& attendance) : attendance_(attendance) {}

    [[nodiscard]] Share share() const noexcept override { return Share::days; }
    void run(const DayBlock& block, std::size_t first, std::size_t last,
             std::size_t worker) override;

private:
    const AttendanceBlock& attendance_;
};

}  // namespace quorvane::kernels
