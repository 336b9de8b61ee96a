#pragma once

#include <array>
#include <optional>
#include <span>
#include <vector>

#include "kernels/history/input.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The one matrix of a batch and the caller's universe, as they lie in memory. While this lives, no
// array can be resized: the interpreter may run other threads while the numbers are read.
class BatchInput {
public:
    // Nothing when either is no exact array of the usual kind, or there is more than one matrix.
    // A null universe is everybody's.
    static std::optional<BatchInput> of(PyObject* arrays, PyObject* universe);

    // Where the numbers lie now; false when they are no longer such.
    bool look_again();

    [[nodiscard]] const kernels::HistoryInput& numbers() const noexcept { return numbers_; }
    [[nodiscard]] std::size_t days() const noexcept { return days_; }
    [[nodiscard]] std::span<const std::span<const char>> extents() const noexcept {
        return {extents_.data(), extents_.size()};
    }

private:
    void pin(PyObject* array);

    Ref matrix_, universe_;
    kernels::HistoryInput numbers_;
    std::size_t days_ = 0;
    std::vector<std::span<const char>> extents_;
    std::vector<Ref> pins_;
};

}  // namespace quorvane::virtualization
