#include "kernels/history/ewma_block.hpp"

#include <algorithm>

#include "kernels/ewma.hpp"

namespace quorvane::kernels {

EwmaBlock::EwmaBlock(double decay, std::span<const double> mean, std::span<const double> weight)
    : decay_(decay),
      now_{{mean.begin(), mean.end()}, {weight.begin(), weight.end()}},
      kept_(now_) {}

// Some slots at a time, whose memory stays in the first-level cache from day to day.
void EwmaBlock::run(const DayBlock& block, std::size_t first, std::size_t last,
                    std::size_t /*worker*/) {
    constexpr std::size_t tile = 256;
    for (std::size_t slot = first; slot < last; slot += tile) {
        const std::size_t size = std::min(tile, last - slot);
        for (std::size_t day = 0; day < block.days; ++day) {
            ewma_step_in_place({block.row(day) + slot, size}, decay_, {&now_.mean[slot], size},
                               {&now_.weight[slot], size});
        }
    }
}

void EwmaBlock::keep() noexcept {
    std::ranges::copy(now_.mean, kept_.mean.begin());
    std::ranges::copy(now_.weight, kept_.weight.begin());
}

void EwmaBlock::take_back() noexcept {
    std::ranges::copy(kept_.mean, now_.mean.begin());
    std::ranges::copy(kept_.weight, now_.weight.begin());
}

}  // namespace quorvane::kernels
