#include "virtualization/shortcuts/day_memory.hpp"

#include "capi/gc_pause.hpp"

namespace quorvane::virtualization {

namespace {

// True while the weak reference has not been cleared and names this very object.
bool names_object(PyObject* weak_reference, PyObject* object) {
#if PY_VERSION_HEX >= 0x030D0000
    PyObject* target = nullptr;
    require(PyWeakref_GetRef(weak_reference, &target));
    const Ref owned = Ref::steal(target);
    return owned.get() == object;
#else
    return PyWeakref_GetObject(weak_reference) == object;
#endif
}

}  // namespace

DayMemories::DayMemories() : table_(std::make_shared<Table>()) {
    static PyMethodDef definition = {"forget", forget, METH_O, nullptr};
    auto link = std::make_unique<TableLink>(table_);
    const Ref capsule = require(PyCapsule_New(link.get(), nullptr, drop_link));
    [[maybe_unused]] const TableLink* the_capsules = link.release();
    forget_ = require(PyCFunction_New(&definition, capsule.get()));
}

std::shared_ptr<DayMemory> DayMemories::find(PyObject* rotation) const {
    const auto found = table_->entries.find(rotation);
    if (found == table_->entries.end()) return nullptr;
    const Entry& entry = found->second;
    return names_object(entry.weak_reference.get(), rotation) ? entry.memory : nullptr;
}

std::shared_ptr<DayMemory> DayMemories::of(PyObject* rotation) {
    if (std::shared_ptr<DayMemory> known = find(rotation)) return known;
    const capi::GcPause no_finalizers;  // which could ask for the same memory
    Ref weak_reference = Ref::steal(PyWeakref_NewRef(rotation, forget_.get()));
    if (!weak_reference) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw capi::PythonError();
        PyErr_Clear();  // its class allows no weak references
        return nullptr;
    }
    table_->rotation_by_reference[weak_reference.get()] = rotation;
    Entry& entry = table_->entries[rotation];
    entry = {std::move(weak_reference), std::make_shared<DayMemory>()};
    return entry.memory;
}

DayMemories::TableLink& DayMemories::link_of(PyObject* capsule) {
    void* link = PyCapsule_GetPointer(capsule, nullptr);
    if (link == nullptr) throw capi::PythonError();
    return *static_cast<TableLink*>(link);
}

void DayMemories::drop_link(PyObject* capsule) {
    const std::unique_ptr<TableLink> owned(&link_of(capsule));
}

// The weak reference's callback, called while the rotation goes.
PyObject* DayMemories::forget(PyObject* capsule, PyObject* weak_reference) {
    return capi::guarded([&] {
        const std::shared_ptr<Table> table = link_of(capsule).lock();
        if (!table) return capi::none();
        const auto rotation = table->rotation_by_reference.find(weak_reference);
        if (rotation == table->rotation_by_reference.end()) return capi::none();
        const auto gone = table->entries.extract(rotation->second);
        table->rotation_by_reference.erase(rotation);
        return capi::none();
    });
}

}  // namespace quorvane::virtualization
