#pragma once

#include <memory>
#include <vector>

#include "capi/plain_attributes.hpp"
#include "columns/columns.hpp"
#include "kernels/history/history.hpp"
#include "rotations/framework_day.hpp"
#include "rotations/history_offers.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/guards/rotation_guard.hpp"
#include "virtualization/history/batch_input.hpp"

namespace quorvane::virtualization {

// Days of a rotation that follow from their input alone: after a day that went well, of a
// ready-made rotation whose structures stay the same, whose children are ours, and in which nobody
// has replaced anything. Every such day does the same as the one before, with other numbers, so
// that what it leaves behind is its output and what the children remember; the rest is what the
// next day taken by itself leaves behind.
class PlannedDays {
public:
    // The days after `day`, which was the last one computed; null when they are not such.
    static std::unique_ptr<PlannedDays> after(const State& state, PyObject* self,
                                              const BatchInput& input, std::size_t day,
                                              std::size_t workers);

    // Whether a rotation of this class can have such days at all.
    static bool is_possible(const State& state, PyObject* self);

    // The day on which other structures begin, or the number of days.
    [[nodiscard]] std::size_t end() const noexcept { return end_; }

    // As many threads as were asked for, or as there is memory for.
    [[nodiscard]] std::size_t workers() const noexcept { return workers_; }

    [[nodiscard]] std::size_t slots() const noexcept {
        return static_cast<std::size_t>(guard_.max_structures());
    }

    // How many bytes of the children's memory are copied, at the beginning and at the end.
    [[nodiscard]] std::size_t copied() const noexcept;

    [[nodiscard]] kernels::History history(double* output, bool ends_with_children) const;

    // Whether all is as it was when this was made, after the interpreter ran other threads.
    [[nodiscard]] bool hold();

    // Gives the children what they remember now; only right after hold().
    void deliver() noexcept {
        for (const auto& child : children_) child->deliver();
    }

private:
    PlannedDays(const State& state, PyObject* self, std::size_t workers);

    bool look(const BatchInput& input, std::size_t day);
    bool take_columns(std::size_t day);
    bool take_children(const BatchInput& input);
    [[nodiscard]] bool has_plain_attributes(const BatchInput& input);
    [[nodiscard]] bool has_known_tables();
    void lay_out();

    const State& state_;
    Ref self_;
    RotationGuard guard_;
    capi::SeenInstance seen_;
    std::shared_ptr<TableCache> cache_;
    std::size_t workers_;
    Ref columns_, child_list_;
    std::size_t end_ = 0;
    bool equal_split_ = false;
    kernels::HistoryInput input_;
    kernels::StructuresBySlot structures_;
    std::unique_ptr<kernels::LegsByInstrument> legs_;
    std::vector<Ref> child_objects_;
    std::vector<std::unique_ptr<rotations::HistoryChild>> children_;
    std::vector<kernels::BlockKernel*> kernels_;
};

}  // namespace quorvane::virtualization
