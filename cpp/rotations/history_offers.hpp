#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "capi/native_function.hpp"
#include "kernels/history/block_kernel.hpp"

// What functions of one of our modules offer, so that another can compute whole histories without
// calling them day by day.
namespace quorvane::rotations {

// RotationBase.__call__: it prepares a day as the documentation of `compute` says, and nothing
// else.
inline constexpr const char* day_offer = "quorvane.day.1";

// The two methods of PlannedStructures: the hook, and what it asks for the values.
inline constexpr const char* planned_hook_offer = "quorvane.planned_hook.1";
inline constexpr const char* planned_values_offer = "quorvane.planned_values.1";

// A child rotation's compute. The content is a ChildOpener.
inline constexpr const char* child_offer = "quorvane.child.1";

class HistoryChild;

// A child that takes part already and stands earlier in the chain.
struct ChildBefore {
    PyObject* object;
    HistoryChild* child;
};

// What a history asks of a child.
struct ChildRequest {
    PyObject* child;
    std::size_t slots;
    std::size_t workers;
    // A block has so many days at most, with rows so far apart.
    std::size_t most_days;
    std::size_t stride;
    std::span<const ChildBefore> before;
    // Memory that the history reads: no buffer of the child's may lie in it.
    std::span<const std::span<const char>> inputs;
};

// A child's part in a history. While the kernel computes, the interpreter may run other threads.
class HistoryChild {
public:
    HistoryChild() = default;
    HistoryChild(const HistoryChild&) = delete;
    HistoryChild& operator=(const HistoryChild&) = delete;
    virtual ~HistoryChild() = default;

    [[nodiscard]] virtual kernels::BlockKernel& kernel() noexcept = 0;

    // How many bytes its part took, and gives back, besides what each slot has of anything.
    [[nodiscard]] virtual std::size_t memory() const noexcept { return 0; }

    // Whether the child still has the objects that the kernel was made from.
    [[nodiscard]] virtual bool holds() const = 0;

    // Gives the child what the kernel remembers. Only while it holds; nothing fails.
    virtual void deliver() noexcept {}
};

// Null where the child's days are not all that the kernel would do. Runs nobody's code.
using ChildOpener = std::unique_ptr<HistoryChild> (*)(void* state, const ChildRequest& request);

}  // namespace quorvane::rotations
