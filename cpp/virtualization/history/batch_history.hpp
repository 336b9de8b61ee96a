#pragma once

#include <cstddef>
#include <optional>

#include "virtualization/history/batch_input.hpp"
#include "virtualization/history/batch_options.hpp"
#include "virtualization/history/batch_outputs.hpp"

namespace quorvane::virtualization {

// The days of a batch that need no Python, many at once.
class BatchHistory {
public:
    // Of matrices and a universe that are not of the usual kind no day is such.
    BatchHistory(const State& state, PyObject* self, PyObject* arrays, PyObject* universe,
                 const BatchOptions& options);

    // Computes days from `day` on, for a moment and never the last one, and tells the next day that
    // is to be computed by itself. The day before was, in this batch.
    std::size_t advance(std::size_t day, BatchOutputs& outputs);

private:
    double* place_in(BatchOutputs& outputs, std::size_t width);
    std::size_t compute(const BatchInput& input, std::size_t day, BatchOutputs& outputs);

    const State& state_;
    Ref self_;
    std::optional<BatchInput> input_;
    std::size_t workers_;
    bool ends_with_children_;
    std::size_t not_before_ = 0;  // days until then are refused
};

}  // namespace quorvane::virtualization
