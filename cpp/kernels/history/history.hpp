#pragma once

#include <chrono>
#include <cstddef>
#include <span>

#include "kernels/history/block_kernel.hpp"
#include "kernels/history/input.hpp"
#include "kernels/history/structure_values.hpp"
#include "kernels/history/way_back.hpp"

namespace quorvane::kernels {

// Days that report the same structures, from input to output.
struct History {
    HistoryInput input;
    const StructuresBySlot& structures;
    const LegsByInstrument& legs;
    std::span<BlockKernel* const> children;
    std::size_t slots;  // the structures' are rounded up to whole vectors
    double* output;     // a row of all instruments per day
    // What left the children instead, before it goes back: a row of all slots per day.
    bool ends_with_children = false;
};

// How far a history came.
struct HistoryProgress {
    std::size_t done;     // the day after the last one computed
    std::size_t refused;  // so many days after that are to be computed one by one
};

// Computes days from `first` on, some at a time, until fewer than eight are left before `last` or
// the time is over; at least eight, unless they are refused. Days are refused where NumPy would
// warn, or memory runs out; the children are then as if those days had never been tried.
HistoryProgress run_history(const History& history, std::size_t first, std::size_t last,
                            std::size_t workers, std::chrono::steady_clock::time_point end);

// The largest block that a history hands to its children.
struct BlockSize {
    std::size_t days, stride;
};
BlockSize largest_block(std::size_t slots, std::size_t workers);

// The bytes that it needs for itself, apart from what the children have.
std::size_t history_memory(std::size_t instruments, std::size_t slots, std::size_t workers);

}  // namespace quorvane::kernels
