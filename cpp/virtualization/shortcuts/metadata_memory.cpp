#include "virtualization/shortcuts/metadata_memory.hpp"

#include "capi/dict_version.hpp"

namespace quorvane::virtualization {

namespace {

// How far ahead the next dicts are fetched: a million of them do not fit in any cache.
constexpr std::size_t prefetch_distance = 24;

void set_entry(PyObject* dict, PyObject* key, PyObject* value) {
    require(PyDict_SetItem(dict, key, value));
}

PyObject* boolean(bool value) noexcept { return value ? Py_True : Py_False; }

}  // namespace

bool says_only_inactive(const State& state, PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    return PyDict_Size(dict) == 1 && PyDict_Next(dict, &position, &key, &value) != 0 &&
           key == state.names.active && value == Py_False;
}

bool MetadataMemory::describes(PyObject* metadata_by_slot) const noexcept {
    const std::size_t slots = versions_.size();
    if (slots == 0 || static_cast<std::size_t>(PyList_GET_SIZE(metadata_by_slot)) != slots) {
        return false;
    }
    PyObject** dicts = PySequence_Fast_ITEMS(metadata_by_slot);
    for (std::size_t slot = 0; slot < slots; ++slot) {
        if (slot + prefetch_distance < slots) {
            __builtin_prefetch(dicts[slot + prefetch_distance]);
        }
        if (!PyDict_CheckExact(dicts[slot]) || capi::dict_version(dicts[slot]) != versions_[slot]) {
            return false;
        }
    }
    return true;
}

bool MetadataMemory::adopt(const State& state, PyObject* metadata_by_slot) {
    const auto slots = static_cast<std::size_t>(PyList_GET_SIZE(metadata_by_slot));
    versions_.clear();
    active_.clear();
    entries_.assign(slots, Entries{});
    std::vector<std::uint64_t> versions(slots);
    for (std::size_t slot = 0; slot < slots; ++slot) {
        PyObject* dict = PyList_GET_ITEM(metadata_by_slot, static_cast<Py_ssize_t>(slot));
        if (!PyDict_CheckExact(dict) || !says_only_inactive(state, dict)) return false;
        versions[slot] = capi::dict_version(dict);
    }
    versions_ = std::move(versions);
    return true;
}

void MetadataMemory::begin_day(PyObject* metadata_by_slot) noexcept {
    list_ = metadata_by_slot;
    ++day_;
    active_before_.swap(active_);
    active_.clear();
}

void MetadataMemory::report(const State& state, PyObject* slot_object, std::size_t slot,
                            PyObject* key, PyObject* legs, bool valid) {
    PyObject* dict = dict_of(slot);
    Entries& entries = entries_[slot];
    const bool known = entries.key != nullptr;
    if (known && Py_REFCNT(dict) == 1) {
        renew(state, dict, entries, key, legs, valid);
    } else {
        if (known) deactivate(state, slot);  // whoever else holds it sees it reset
        replace(state, slot_object, slot, key, legs, valid);
    }
    if (entries.day != day_) {
        entries.day = day_;
        active_.push_back(slot);
    }
}

void MetadataMemory::end_day(const State& state) {
    for (const std::size_t slot : active_before_) {
        if (entries_[slot].day != day_) deactivate(state, slot);
    }
    active_before_.clear();
    list_ = nullptr;
}

// Only what differs is written; the entries keep their order.
void MetadataMemory::renew(const State& state, PyObject* dict, Entries& entries, PyObject* key,
                           PyObject* legs, bool valid) {
    const Names& names = state.names;
    if (entries.key == key && entries.legs == legs && entries.valid == valid) return;
    if (entries.key != key) set_entry(dict, names.key, key);
    if (entries.legs != legs) set_entry(dict, names.legs, legs);
    if (entries.valid != valid) set_entry(dict, names.active, boolean(valid));
    entries.key = key;
    entries.legs = legs;
    entries.valid = valid;
    versions_[static_cast<std::size_t>(&entries - entries_.data())] = capi::dict_version(dict);
}

void MetadataMemory::replace(const State& state, PyObject* slot_object, std::size_t slot,
                             PyObject* key, PyObject* legs, bool valid) {
    const Names& names = state.names;
    Ref dict = capi::make_dict();
    set_entry(dict.get(), names.key, key);
    set_entry(dict.get(), names.legs, legs);
    set_entry(dict.get(), names.slot, slot_object);
    set_entry(dict.get(), names.active, boolean(valid));
    Entries& entries = entries_[slot];
    entries.key = key;
    entries.legs = legs;
    entries.valid = valid;
    versions_[slot] = capi::dict_version(dict.get());
    require(PyList_SetItem(list_, static_cast<Py_ssize_t>(slot), dict.release()));
}

void MetadataMemory::deactivate(const State& state, std::size_t slot) {
    PyObject* dict = dict_of(slot);
    entries_[slot].key = entries_[slot].legs = nullptr;
    PyDict_Clear(dict);
    set_entry(dict, state.names.active, Py_False);
    versions_[slot] = capi::dict_version(dict);
}

PyObject* MetadataMemory::dict_of(std::size_t slot) const noexcept {
    return PyList_GET_ITEM(list_, static_cast<Py_ssize_t>(slot));
}

}  // namespace quorvane::virtualization
