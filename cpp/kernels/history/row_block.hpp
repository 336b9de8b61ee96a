#pragma once

#include <algorithm>
#include <span>
#include <utility>
#include <vector>

#include "kernels/history/block_kernel.hpp"

namespace quorvane::kernels {

// The scratch memory of a kernel that needs none.
struct NoWorkspace {};

// A kernel that remembers nothing from day to day: compute(values, workspace, out) of each row.
template <class Compute, class Workspace>
class RowBlock final : public BlockKernel {
public:
    RowBlock(Compute compute, std::size_t slots, std::size_t workers)
        : compute_(std::move(compute)),
          scratch_(workers, Scratch{std::vector<double>(slots), {}}) {}

    [[nodiscard]] Share share() const noexcept override { return Share::days; }

    void run(const DayBlock& block, std::size_t first, std::size_t last,
             std::size_t worker) override {
        auto& [copy, workspace] = scratch_[worker];
        for (std::size_t day = first; day < last; ++day) {
            const std::span row(block.row(day), block.slots);
            std::copy(row.begin(), row.end(), copy.begin());
            compute_(std::span<const double>(copy), workspace, row);
        }
    }

private:
    struct Scratch {
        std::vector<double> row;
        Workspace workspace;
    };

    Compute compute_;
    std::vector<Scratch> scratch_;
};

}  // namespace quorvane::kernels
