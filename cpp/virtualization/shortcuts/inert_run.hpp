#pragma once

#include "capi/array_view.hpp"
#include "virtualization/shortcuts/day_memory.hpp"
#include "virtualization/shortcuts/day_report.hpp"
#include "virtualization/shortcuts/plain_rotation.hpp"

namespace quorvane::virtualization {

// Records the items that a day reports, from the first on, for as long as no Python code has to
// run. Because none runs, everything can be looked at once for all items: tables, masks, memory;
// and slots need not be reset before they are reported again, as nobody can see them in between.
class InertRun {
public:
    InertRun(const State& state, PlainRotation& plain, const DayMasks& masks,
             const DayReport& report, std::shared_ptr<DayMemory> memory);

    // Whether there is anything that can be recorded this way. Nothing is changed by asking.
    [[nodiscard]] bool is_possible();

    // Whether the slots' metadata is known to be as yesterday left it, so that resetting them may
    // wait for the end of record(). Otherwise they must be reset before; then adopt() them.
    [[nodiscard]] bool may_postpone_reset() const;
    [[nodiscard]] bool adopt_reset_slots() const;

    // Records items, resets the slots that no item has reported, and tells how many items were
    // recorded. The next item, if there is one, needs Python.
    Py_ssize_t record();

private:
    enum class Outcome { recorded, needs_python };

    [[nodiscard]] bool record_same_again();
    Py_ssize_t record_each();
    Outcome record_item(std::size_t position);
    SlotMemory::Found new_slot(PyObject* key);
    void remember_legs(const SlotMemory::Found& slot, PyObject* legs);
    void remember_columns(Py_ssize_t recorded);
    [[nodiscard]] bool are_legs_live(std::size_t slot) const noexcept;
    void end_failed_day() const;

    const State& state_;
    PlainRotation& plain_;
    const DayMasks& masks_;
    const DayReport& report_;
    std::shared_ptr<DayMemory> memory_;
    capi::VectorView<double> txi_input_;
};

}  // namespace quorvane::virtualization
