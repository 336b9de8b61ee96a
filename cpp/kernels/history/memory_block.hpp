#pragma once

#include <algorithm>
#include <atomic>
#include <span>
#include <utility>
#include <vector>

#include "kernels/history/block_kernel.hpp"
#include "kernels/over_time/memory.hpp"

namespace quorvane::kernels {

// A kernel over time (over_time/memory.hpp) over blocks of days, with a memory of its own.
template <class Kernel>
class MemoryBlock final : public BlockKernel {
public:
    // `most_days` of a block.
    MemoryBlock(Kernel kernel, std::span<const double> kept, std::span<const double> derived,
                std::size_t position, std::size_t slots, std::size_t most_days)
        : kernel_(std::move(kernel)),
          slots_(slots),
          position_(position),
          kept_(kept.begin(), kept.end()),
          derived_(derived.begin(), derived.end()),
          before_(slots *
                  (has_window() ? std::min(most_days, kernel_.window()) : kernel_.kept_rows())) {}

    [[nodiscard]] Share share() const noexcept override { return Share::slots; }

    // Some slots at a time, whose memory stays in a near cache from day to day.
    void run(const DayBlock& block, std::size_t first, std::size_t last,
             std::size_t /*worker*/) override {
        constexpr std::size_t tile = 256;
        for (std::size_t slot = first; slot < last; slot += tile) {
            run_tile(block, {slot, std::min(slot + tile, last)});
        }
        // All threads of a block write the same.
        days_.store(block.days, std::memory_order_relaxed);
    }

    void keep() noexcept override {
        position_ = position();
        days_.store(0, std::memory_order_relaxed);
        if (!has_window()) std::ranges::copy(kept_, before_.begin());
    }

    void take_back() noexcept override {
        const std::size_t days = days_.exchange(0, std::memory_order_relaxed);
        if (!has_window()) {
            std::ranges::copy(before_, kept_.begin());
            return;
        }
        for (std::size_t day = 0; day < std::min(days, kernel_.window()); ++day) {
            std::copy_n(&before_[day * slots_], slots_, row_of(day));
        }
        kernel_.derive(memory(), position_, {0, slots_});
    }

    // The memory after all days so far.
    [[nodiscard]] std::span<const double> kept() const noexcept { return kept_; }
    [[nodiscard]] std::span<const double> derived() const noexcept { return derived_; }
    [[nodiscard]] std::size_t position() const noexcept {
        return position_after(position_, days_.load(std::memory_order_relaxed), kernel_.window());
    }

private:
    [[nodiscard]] bool has_window() const noexcept { return kernel_.window() != 0; }
    [[nodiscard]] TimeMemory memory() noexcept { return {kept_.data(), derived_.data(), slots_}; }

    // The row that a block's day overwrites first.
    [[nodiscard]] double* row_of(std::size_t day) noexcept {
        return memory().kept_row(position_after(position_, day, kernel_.window()));
    }

    void run_tile(const DayBlock& block, SlotRange range) {
        if (has_window()) keep_tile(block.days, range);
        std::size_t position = position_;
        for (std::size_t day = 0; day < block.days; ++day) {
            double* row = block.row(day) + range.first;
            kernel_.step(memory(), position, row, row, range);
            position = next_position(position, kernel_.window());
        }
    }

    void keep_tile(std::size_t days, SlotRange range) {
        for (std::size_t day = 0; day < std::min(days, kernel_.window()); ++day) {
            std::copy_n(row_of(day) + range.first, range.size(),
                        &before_[day * slots_ + range.first]);
        }
    }

    Kernel kernel_;
    std::size_t slots_, position_;
    std::atomic<std::size_t> days_ = 0;
    std::vector<double> kept_, derived_;
    // What the present block has overwritten: the rows of a window, or all that is kept.
    std::vector<double> before_;
};

}  // namespace quorvane::kernels
