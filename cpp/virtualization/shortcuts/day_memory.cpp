#include "virtualization/shortcuts/day_memory.hpp"

namespace quorvane::virtualization {

DayMemories::DayMemories() {
    static PyMethodDef definition = {"forget", forget, METH_O, nullptr};
    const Ref self = require(PyCapsule_New(this, nullptr, nullptr));
    forget_ = require(PyCFunction_New(&definition, self.get()));
}

DayMemory* DayMemories::find(PyObject* rotation) noexcept {
    const auto found = entries_.find(rotation);
    return found == entries_.end() ? nullptr : found->second.memory.get();
}

DayMemory* DayMemories::of(PyObject* rotation) {
    if (DayMemory* known = find(rotation)) return known;
    Ref weak_reference = Ref::steal(PyWeakref_NewRef(rotation, forget_.get()));
    if (!weak_reference) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw capi::PythonError();
        PyErr_Clear();  // its class allows no weak references
        return nullptr;
    }
    rotation_by_reference_[weak_reference.get()] = rotation;
    Entry& entry = entries_[rotation];
    entry = {std::move(weak_reference), std::make_unique<DayMemory>()};
    return entry.memory.get();
}

// The weak reference's callback, called while the rotation goes.
PyObject* DayMemories::forget(PyObject* capsule, PyObject* weak_reference) {
    return capi::guarded([&] {
        auto* memories = static_cast<DayMemories*>(PyCapsule_GetPointer(capsule, nullptr));
        if (memories == nullptr) throw capi::PythonError();
        const auto rotation = memories->rotation_by_reference_.find(weak_reference);
        if (rotation == memories->rotation_by_reference_.end()) return capi::none();
        const auto gone = memories->entries_.extract(rotation->second);
        memories->rotation_by_reference_.erase(rotation);
        return capi::none();
    });
}

}  // namespace quorvane::virtualization
