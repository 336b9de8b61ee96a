#pragma once

#include "capi/change_watch.hpp"
#include "virtualization/guards/class_lookups.hpp"
#include "virtualization/guards/module_guard.hpp"
#include "virtualization/guards/tables.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

using capi::instance_dict;

// Which of the three steps of an item are the module's own, overridden by nobody.
struct OwnSteps {
    bool normalize = false;
    bool slot = false;
    bool validity = false;

    [[nodiscard]] bool all() const noexcept { return normalize && slot && validity; }
    bool operator==(const OwnSteps&) const = default;
};

// A rotation whose day can be recorded without asking Python for every step, because nobody could
// tell: its class and instance leave attribute access alone, and the bookkeeping consists of exact
// dicts, lists and integers.
class RotationGuard {
public:
    RotationGuard(const State& state, PyObject* self);

    // True while all of that holds. Any Python code may end it, so this is asked once per place
    // where Python ran; it looks again only when something has changed since the last look.
    [[nodiscard]] bool holds() {
        if (!looked_ || !still_seen()) look();
        return plain_;
    }

    // Valid right after holds(), and owned until the next look.
    [[nodiscard]] const OwnSteps& own_steps() const noexcept { return own_steps_; }
    [[nodiscard]] Tables tables() const noexcept {
        return {slot_by_key_.get(), key_by_slot_.get(), legs_by_slot_.get(),
                metadata_by_slot_.get(), max_structures_};
    }
    [[nodiscard]] PyObject* slot_by_key() const noexcept { return slot_by_key_.get(); }
    [[nodiscard]] PyObject* key_by_slot() const noexcept { return key_by_slot_.get(); }
    [[nodiscard]] PyObject* legs_by_slot() const noexcept { return legs_by_slot_.get(); }
    [[nodiscard]] PyObject* metadata_by_slot() const noexcept { return metadata_by_slot_.get(); }
    [[nodiscard]] PyObject* txi_input() const noexcept { return txi_input_.get(); }
    [[nodiscard]] Py_ssize_t max_structures() const noexcept { return max_structures_; }

private:
    void look();
    [[nodiscard]] PyTypeObject* type() const noexcept {
        return reinterpret_cast<PyTypeObject*>(type_.get());
    }
    [[nodiscard]] bool still_seen() const;
    [[nodiscard]] bool class_is_plain(PyTypeObject* type);
    [[nodiscard]] bool has_plain_attributes(PyTypeObject* type) const;
    [[nodiscard]] OwnSteps steps_of_class(PyTypeObject* type) const;
    [[nodiscard]] OwnSteps steps_left_by_instance(PyObject* dict, OwnSteps steps) const;
    [[nodiscard]] bool take_bookkeeping(PyObject* dict);
    [[nodiscard]] bool has_same_bookkeeping() const;

    const State& state_;
    PyObject* self_;
    capi::ChangeWatch watch_;
    Ref type_, dict_;
    bool looked_ = false;
    bool plain_ = false;
    OwnSteps steps_of_class_, own_steps_;
    Ref slot_by_key_, key_by_slot_, legs_by_slot_, metadata_by_slot_, txi_input_;
    Py_ssize_t max_structures_ = 0;
};

}  // namespace quorvane::virtualization
