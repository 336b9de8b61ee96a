#pragma once

#include "virtualization/cache/live_instruments.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/fast/report.hpp"
#include "virtualization/fast/structure_record.hpp"
#include "virtualization/guards/rotation_guard.hpp"
#include "virtualization/item_recording.hpp"

namespace quorvane::virtualization {

// Takes a day's structures into the tables. The leading ones that need no Python code are recorded
// in one run; between the others Python may run, so each is recorded by itself. What only Python
// can say is asked for step by step, and no other step.
class Recording {
public:
    Recording(const State& state, PyObject* self, const DayMasks& masks, PyObject* structures);

    // Resets every slot and records the leading structures; how many. The last entry that was
    // reset, if any, is the variable of that loop.
    Py_ssize_t begin(Ref& reset_entry);

    // Records the structure at a position of the day, which the variable holds.
    void record(LastItem& last, std::size_t position);

    [[nodiscard]] const Report& report() const noexcept { return report_; }

private:
    // A structure between its steps, and the slot that it has by then.
    struct Item {
        PlainStructure structure;
        Ref slot_object;
        std::size_t slot = 0;
        std::size_t position = 0;
        bool was_judged_by_step = false;
    };

    // The step after which the variables of a structure hold what its steps made. Those that follow
    // are taken one by one.
    enum class Reached { nothing, structure, slot, verdict, end };

    [[nodiscard]] bool is_ready();
    [[nodiscard]] bool reset_plainly(Ref& reset_entry);
    [[nodiscard]] bool went_on(const LastItem& last, Item& item);

    Reached record_plainly(LastItem& last, Item& item);
    Reached normalize(LastItem& last, Item& item);
    Reached find_slot(LastItem& last, Item& item);
    Reached judge(LastItem& last, Item& item, bool& valid);
    Reached store(LastItem& last, const Item& item, bool valid);

    [[nodiscard]] bool read(PyObject* raw, Item& item);
    [[nodiscard]] bool take_slot(PyObject* slot, Item& item) const;
    [[nodiscard]] bool store_plainly(const Item& item, bool valid);
    void fill_variables(LastItem& last, const Item& item, Reached reached) const;

    const State& state_;
    PyObject* self_;
    const DayMasks& masks_;
    RotationGuard guard_;
    const Report report_;
    const std::shared_ptr<TableCache> cache_;
    Tables tables_;
    int looks_ = 0;
};

}  // namespace quorvane::virtualization
