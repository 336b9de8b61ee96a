#include "virtualization/shortcuts/slot_memory.hpp"

#include "capi/dict_version.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

bool maps_inert_keys_to_slots(PyObject* slot_by_key, Py_ssize_t max_structures) noexcept {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* slot = nullptr;
    while (PyDict_Next(slot_by_key, &position, &key, &slot) != 0) {
        const Py_ssize_t index = plain_size(slot);
        if (!is_inert_key(key) || index < 0 || index >= max_structures) return false;
    }
    return true;
}

bool has_only_plain_slots(PyObject* key_by_slot) noexcept {
    Py_ssize_t position = 0;
    PyObject* slot = nullptr;
    while (PyDict_Next(key_by_slot, &position, &slot, nullptr) != 0) {
        if (!PyLong_CheckExact(slot)) return false;
    }
    return true;
}

}  // namespace

bool SlotMemory::knows(PyObject* slot_by_key, PyObject* key_by_slot, Py_ssize_t max_structures) {
    if constexpr (!capi::dicts_have_versions) return false;
    const std::uint64_t slots_version = capi::dict_version(slot_by_key);
    const std::uint64_t keys_version = capi::dict_version(key_by_slot);
    if (slots_version_ == slots_version && keys_version_ == keys_version &&
        max_structures_ == max_structures) {
        return true;
    }
    memos_.clear();
    slots_version_ = keys_version_ = 0;
    if (!capi::counts_changes(slot_by_key) || !capi::counts_changes(key_by_slot) ||
        !maps_inert_keys_to_slots(slot_by_key, max_structures) ||
        !has_only_plain_slots(key_by_slot)) {
        return false;
    }
    slots_version_ = slots_version;
    keys_version_ = keys_version;
    max_structures_ = max_structures;
    return true;
}

SlotMemory::Found SlotMemory::find(PyObject* slot_by_key, std::size_t position, PyObject* key) {
    if (position < memos_.size() && memos_[position].key.get() == key) {
        return memos_[position].found;
    }
    if (!is_inert_key(key)) return {};
    PyObject* slot = capi::dict_peek(slot_by_key, key);
    if (slot == nullptr) return {};
    const Found found{slot, static_cast<std::size_t>(plain_size(slot))};
    if (position >= memos_.size()) memos_.resize(position + 1);
    memos_[position] = {Ref::borrow(key), found};
    return found;
}

SlotMemory::Found SlotMemory::add(PyObject* slot_by_key, PyObject* key_by_slot, PyObject* key) {
    const Py_ssize_t next = PyDict_Size(slot_by_key);
    const Ref slot = capi::make_int(next);
    if (require(PyDict_Contains(key_by_slot, slot.get())) != 0) return {};
    require(PyDict_SetItem(slot_by_key, key, slot.get()));
    require(PyDict_SetItem(key_by_slot, slot.get(), key));
    slots_version_ = capi::dict_version(slot_by_key);
    keys_version_ = capi::dict_version(key_by_slot);
    return {slot.get(), static_cast<std::size_t>(next)};
}

}  // namespace quorvane::virtualization
