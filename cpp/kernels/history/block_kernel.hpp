#pragma once

#include <cstddef>

namespace quorvane::kernels {

// Some days of all slots, a row for each day.
struct DayBlock {
    double* first;
    std::size_t stride;
    std::size_t days;
    std::size_t slots;

    [[nodiscard]] double* row(std::size_t day) const noexcept { return first + day * stride; }
};

// What a child rotation is in the computation of a whole history: it replaces the values of a block
// by its outputs. A rotation of ours takes part in histories by giving one of these for itself.
class BlockKernel {
public:
    // What several threads can divide among themselves: each takes some days of all slots, or some
    // slots of all days. A rotation that goes from one day to the next can only do the latter.
    enum class Share { days, slots };

    BlockKernel() = default;
    BlockKernel(const BlockKernel&) = delete;
    BlockKernel& operator=(const BlockKernel&) = delete;
    virtual ~BlockKernel() = default;

    [[nodiscard]] virtual Share share() const noexcept = 0;

    // The days or slots from `first` to `last - 1`. Called by several threads at once, each with
    // its own worker number.
    virtual void run(const DayBlock& block, std::size_t first, std::size_t last,
                     std::size_t worker) = 0;

    // Remembers what it knows of the days before a block, and returns to that.
    virtual void keep() noexcept {}
    virtual void take_back() noexcept {}
};

}  // namespace quorvane::kernels
