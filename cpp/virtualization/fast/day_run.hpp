#pragma once

#include "capi/array_view.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/fast/report.hpp"
#include "virtualization/guards/rotation_guard.hpp"

namespace quorvane::virtualization {

// Records the items that a day reports, from the first on, for as long as no Python code has to
// run. Because none runs, everything can be looked at once for all items: tables, masks, cache;
// and slots need not be reset before they are reported again, as nobody can see them in between.
class DayRun {
public:
    DayRun(const State& state, RotationGuard& guard, const DayMasks& masks, const Report& report,
           TableCache& cache);

    // Whether there is anything that can be recorded this way. Nothing is changed by asking.
    [[nodiscard]] bool is_possible();

    // Makes what the slots' metadata says known, so that resetting them may wait for the end of
    // record(). False, with nothing changed, when they must be reset before.
    [[nodiscard]] bool settle();
    // The same after that has been done.
    [[nodiscard]] bool adopt_reset();

    // Records items, resets the slots that no item has reported, and tells how many items were
    // recorded. The next item, if there is one, needs Python.
    Py_ssize_t record();

private:
    enum class Outcome { recorded, needs_python };

    // An item and the slot that its key had when the item was read.
    struct FoundItem {
        ReportedItem item;
        Ref made_key;  // of a key that was a list
        std::size_t position = 0;
        SlotCache::Found slot;
    };

    [[nodiscard]] bool record_known_columns();
    Py_ssize_t record_each();
    Py_ssize_t record_blocks();
    Py_ssize_t read_block(Py_ssize_t start);
    void fetch_new_legs(Py_ssize_t read) const noexcept;
    Outcome record_item(const FoundItem& found);
    SlotCache::Found slot_now(const FoundItem& found);
    void remember_columns(Py_ssize_t recorded);
    [[nodiscard]] bool has_same_legs(const FoundItem& found) const noexcept;
    [[nodiscard]] bool are_legs_live(std::size_t slot) const noexcept;
    void end_failed_day() const;

    const State& state_;
    RotationGuard& guard_;
    const DayMasks& masks_;
    const Report& report_;
    TableCache& cache_;
    Tables tables_;
    capi::VectorView<double> txi_input_;

    // Items are read some at a time, so that what they refer to is on its way from memory when it
    // is looked at.
    static constexpr Py_ssize_t block_size = 16;
    FoundItem block_[block_size];
};

}  // namespace quorvane::virtualization
