#include "virtualization/cache/table_cache.hpp"

#include "capi/gc_pause.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

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

// One dict in two places would be changed as one table without a word to the other.
bool TableCache::refresh(const Tables& tables) {
    if (tables.slot_by_key == tables.key_by_slot || tables.slot_by_key == tables.legs_by_slot ||
        tables.key_by_slot == tables.legs_by_slot) {
        return false;
    }
    const std::uint64_t generation = slots.generation();
    if (!slots.refresh(tables.slot_by_key, tables.key_by_slot, tables.max_structures)) return false;
    if (slots.generation() != generation) {
        // Equal slots of another map may be other objects, and metadata holds the map's own.
        metadata.expect_other_slots();
        columns.forget();
    }
    if (!legs.is_current(tables.legs_by_slot)) columns.forget();
    return legs.refresh(tables.legs_by_slot, tables.max_structures);
}

void TableCache::adopt(const Tables& tables) {
    slots.adopt(tables.slot_by_key, tables.key_by_slot, tables.max_structures);
    legs.adopt(tables.legs_by_slot);
    metadata.expect_other_slots();
    columns.forget();
}

bool TableCache::is_current(const Tables& tables) const noexcept {
    return slots.max_structures() == tables.max_structures &&
           slots.is_current(tables.slot_by_key, tables.key_by_slot) &&
           legs.is_laid_out(tables.legs_by_slot);
}

void set_legs(TableCache* cache, PyObject* table, PyObject* slot, PyObject* legs) {
    const Py_ssize_t index = plain_size(slot);
    if (cache == nullptr || index < 0 || index >= cache->slots.max_structures() ||
        !PyDict_CheckExact(table) || !cache->legs.is_laid_out(table) || !are_plain_legs(legs)) {
        return set_item(table, slot, legs);
    }
    cache->legs.store(table, slot, static_cast<std::size_t>(index), legs);
}

void set_slot(TableCache* cache, PyObject* map, PyObject* key, PyObject* value) {
    if (cache == nullptr || !PyDict_CheckExact(map) || !cache->slots.set_item(map, key, value)) {
        set_item(map, key, value);
    }
}

TableCaches::TableCaches(const capi::DictWatcher& watcher)
    : watcher_(watcher), table_(std::make_shared<Table>()) {
    static PyMethodDef definition = {"forget", forget, METH_O, nullptr};
    auto link = std::make_unique<TableLink>(table_);
    const Ref capsule = require(PyCapsule_New(link.get(), nullptr, drop_link));
    [[maybe_unused]] const TableLink* the_capsules = link.release();
    forget_ = require(PyCFunction_New(&definition, capsule.get()));
}

std::shared_ptr<TableCache> TableCaches::find(PyObject* rotation) const {
    const auto found = table_->entries.find(rotation);
    if (found == table_->entries.end()) return nullptr;
    const Entry& entry = found->second;
    return names_object(entry.weak_reference.get(), rotation) ? entry.cache : nullptr;
}

std::shared_ptr<TableCache> TableCaches::of(PyObject* rotation) {
    if (std::shared_ptr<TableCache> known = find(rotation)) return known;
    const capi::GcPause no_finalizers;  // which could ask for the same cache
    Ref weak_reference = Ref::steal(PyWeakref_NewRef(rotation, forget_.get()));
    if (!weak_reference) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw capi::PythonError();
        PyErr_Clear();  // its class allows no weak references
        return nullptr;
    }
    table_->rotation_by_reference[weak_reference.get()] = rotation;
    Entry& entry = table_->entries[rotation];
    entry = {std::move(weak_reference), std::make_shared<TableCache>(watcher_)};
    return entry.cache;
}

TableCaches::TableLink& TableCaches::link_of(PyObject* capsule) {
    void* link = PyCapsule_GetPointer(capsule, nullptr);
    if (link == nullptr) throw capi::PythonError();
    return *static_cast<TableLink*>(link);
}

void TableCaches::drop_link(PyObject* capsule) {
    const std::unique_ptr<TableLink> owned(&link_of(capsule));
}

// The weak reference's callback, called while the rotation goes.
PyObject* TableCaches::forget(PyObject* capsule, PyObject* weak_reference) {
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
