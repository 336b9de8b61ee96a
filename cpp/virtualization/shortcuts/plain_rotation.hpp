#pragma once

#include "capi/change_watch.hpp"
#include "virtualization/shortcuts/pristine.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

using capi::instance_dict;

// A rotation whose day can be recorded without asking Python for every step, because nobody could
// tell: its class and instance leave attribute access and the three per-item steps alone, and the
// bookkeeping consists of exact dicts, lists and integers.
class PlainRotation {
public:
    PlainRotation(const State& state, PyObject* self);

    // True while all of that holds. Any Python code may end it, so this is asked before each use of
    // the members below; it looks again only when something has changed since the last look.
    [[nodiscard]] bool holds() {
        if (!looked_ || !still_seen()) look();
        return plain_;
    }

    // Valid right after holds(), and owned until the next look.
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
    [[nodiscard]] bool class_is_plain(PyTypeObject* type) const;
    [[nodiscard]] bool instance_is_plain(PyObject* dict) const;
    [[nodiscard]] bool take_bookkeeping(PyObject* dict);
    [[nodiscard]] bool has_same_bookkeeping() const;

    const State& state_;
    PyObject* self_;
    capi::ChangeWatch watch_;
    Ref type_, dict_;
    bool looked_ = false;
    bool plain_ = false;
    Ref slot_by_key_, key_by_slot_, legs_by_slot_, metadata_by_slot_, txi_input_;
    Py_ssize_t max_structures_ = 0;
};

// An attribute that reading cannot observe: held by the instance, with a class that leaves
// attribute access alone. Empty when it is anything else.
Ref plain_attribute(PyObject* object, PyObject* name);

}  // namespace quorvane::virtualization
