#include "virtualization/cache/slot_cache.hpp"

#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

bool maps_to_slots(PyObject* slot_by_key, Py_ssize_t max_structures) noexcept {
    Py_ssize_t position = 0;
    PyObject* slot = nullptr;
    while (PyDict_Next(slot_by_key, &position, nullptr, &slot) != 0) {
        const Py_ssize_t index = plain_size(slot);
        if (index < 0 || index >= max_structures) return false;
    }
    return true;
}

bool has_only_plain_keys(PyObject* slot_by_key) noexcept {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    while (PyDict_Next(slot_by_key, &position, &key, nullptr) != 0) {
        if (!is_plain_key(key)) return false;
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

bool SlotCache::is_current(PyObject* slot_by_key, PyObject* key_by_slot) const noexcept {
    return capi::DictWatcher::has_stamp(slot_by_key, slots_stamp_) &&
           capi::DictWatcher::has_stamp(key_by_slot, keys_stamp_);
}

bool SlotCache::refresh(PyObject* slot_by_key, PyObject* key_by_slot, Py_ssize_t max_structures) {
    if (max_structures_ == max_structures && is_current(slot_by_key, key_by_slot)) return true;
    max_structures_ = -1;
    if (!watcher_.is_told_of(slot_by_key) || !watcher_.is_told_of(key_by_slot) ||
        !maps_to_slots(slot_by_key, max_structures) || !has_only_plain_slots(key_by_slot)) {
        return false;
    }
    adopt(slot_by_key, key_by_slot, max_structures);
    have_odd_keys_ = !has_only_plain_keys(slot_by_key);
    return is_current(slot_by_key, key_by_slot);
}

void SlotCache::adopt(PyObject* slot_by_key, PyObject* key_by_slot,
                      Py_ssize_t max_structures) noexcept {
    memos_.clear();
    slots_stamp_ = watcher_.stamp(slot_by_key);
    keys_stamp_ = watcher_.stamp(key_by_slot);
    max_structures_ = max_structures;
    have_odd_keys_ = false;
    ++generation_;
}

SlotCache::Found SlotCache::find(PyObject* slot_by_key, std::size_t position, PyObject* key) {
    if (position < memos_.size() && memos_[position].key.get() == key) {
        return memos_[position].found;
    }
    if (have_odd_keys_ || !is_plain_key(key)) return {};
    PyObject* slot = capi::dict_peek(slot_by_key, key);
    if (slot == nullptr) return {};
    const Found found{slot, static_cast<std::size_t>(plain_size(slot))};
    remember(position, key, found);
    return found;
}

void SlotCache::remember(std::size_t position, PyObject* key, const Found& found) {
    if (position >= memos_.size()) memos_.resize(position + 1);
    memos_[position] = {Ref::borrow(key), found};
}

SlotCache::Found SlotCache::add(PyObject* slot_by_key, PyObject* key_by_slot, PyObject* key) {
    const Py_ssize_t next = PyDict_Size(slot_by_key);
    const Ref slot = capi::make_int(next);
    if (require(PyDict_Contains(key_by_slot, slot.get())) != 0) return {};
    capi::DictWatcher::set_item(slot_by_key, slots_stamp_, key, slot.get());
    capi::DictWatcher::set_item(key_by_slot, keys_stamp_, slot.get(), key);
    return {slot.get(), static_cast<std::size_t>(next)};
}

bool SlotCache::set_item(PyObject* map, PyObject* key, PyObject* value) {
    const auto is_plain = [](PyObject* object) noexcept {
        return PyLong_CheckExact(object) || is_plain_key(object);
    };
    if (have_odd_keys_ || !is_plain(key) || !is_plain(value) ||
        plain_size(value) >= max_structures_ || require(PyDict_Contains(map, key)) != 0) {
        return false;
    }
    for (capi::DictStamp* stamp : {&slots_stamp_, &keys_stamp_}) {
        if (!capi::DictWatcher::has_stamp(map, *stamp)) continue;
        capi::DictWatcher::set_item(map, *stamp, key, value);
        return true;
    }
    return false;
}

}  // namespace quorvane::virtualization
