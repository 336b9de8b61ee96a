#include "virtualization/fast/state_checks.hpp"

#include <cmath>

#include "capi/gc_pause.hpp"
#include "virtualization/fast/fetch_ahead.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

// Wider child spaces are not worth a set of their slots.
constexpr Py_ssize_t widest = Py_ssize_t{1} << 24;

bool is_leg_within(PyObject* leg, Py_ssize_t limit) noexcept {
    if (!is_plain_leg(leg)) return false;
    const Py_ssize_t id = plain_size(PyTuple_GET_ITEM(leg, 0));
    return id >= 0 && id < limit && std::isfinite(PyFloat_AS_DOUBLE(PyTuple_GET_ITEM(leg, 1)));
}

bool are_legs_within(PyObject* legs, Py_ssize_t limit) noexcept {
    if (!PyTuple_CheckExact(legs)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        if (!is_leg_within(PyTuple_GET_ITEM(legs, i), limit)) return false;
    }
    return true;
}

bool has(const SlotSet& slots, Py_ssize_t slot) noexcept {
    return slot >= 0 && static_cast<std::size_t>(slot) < slots.size() &&
           slots[static_cast<std::size_t>(slot)];
}

}  // namespace

bool are_inverse_maps(PyObject* raw_slot_by_key, PyObject* raw_key_by_slot,
                      Py_ssize_t max_structures, SlotSet& slots) {
    if (!PyDict_CheckExact(raw_slot_by_key) || !PyDict_CheckExact(raw_key_by_slot) ||
        PyDict_Size(raw_slot_by_key) != PyDict_Size(raw_key_by_slot) || max_structures < 0 ||
        max_structures > widest) {
        return false;
    }
    slots.resize(static_cast<std::size_t>(max_structures));
    EntryBatches forward(raw_slot_by_key);
    EntryBatches backward(raw_key_by_slot);
    while (forward.next() && backward.next()) {
        for (std::size_t i = 0; i < forward.size(); ++i) fetch_elements(forward.key(i));
        for (std::size_t i = 0; i < forward.size(); ++i) {
            const Py_ssize_t slot = plain_size(forward.value(i));
            if (slot < 0 || slot >= max_structures || slot != plain_size(backward.key(i)) ||
                forward.key(i) != backward.value(i) || !is_plain_key(forward.key(i))) {
                return false;
            }
            slots[static_cast<std::size_t>(slot)] = true;
        }
    }
    return true;
}

SlotSet slots_of(PyObject* key_by_slot, Py_ssize_t max_structures) {
    SlotSet slots;
    if (max_structures < 0 || max_structures > widest) return slots;
    slots.resize(static_cast<std::size_t>(max_structures));
    EntryBatches entries(key_by_slot);
    while (entries.next()) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const Py_ssize_t slot = plain_size(entries.key(i));
            if (slot >= 0 && slot < max_structures) slots[static_cast<std::size_t>(slot)] = true;
        }
    }
    return slots;
}

bool are_legs_of_slots(PyObject* raw_legs_by_slot, const SlotSet& slots,
                       Py_ssize_t limit) noexcept {
    if (!PyDict_CheckExact(raw_legs_by_slot)) return false;
    EntryBatches entries(raw_legs_by_slot);
    while (entries.next()) {
        for (std::size_t i = 0; i < entries.size(); ++i) fetch_elements(entries.value(i));
        for (std::size_t i = 0; i < entries.size(); ++i) fetch_parts(entries.value(i));
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (!has(slots, plain_size(entries.key(i))) ||
                !are_legs_within(entries.value(i), limit)) {
                return false;
            }
        }
    }
    return true;
}

Ref copy_metadata_list(PyObject* raw, Py_ssize_t max_structures) {
    constexpr Py_ssize_t distance = 16;
    if (!PyList_CheckExact(raw) || PyList_GET_SIZE(raw) != max_structures) return {};
    const capi::GcPause no_finalizers;  // which could change the list
    Ref copies = capi::make_list(max_structures);
    for (Py_ssize_t i = 0; i < max_structures; ++i) {
        if (i + 2 * distance < max_structures) fetch(PyList_GET_ITEM(raw, i + 2 * distance));
        if (i + distance < max_structures) fetch_entries(PyList_GET_ITEM(raw, i + distance));
        PyObject* entry = PyList_GET_ITEM(raw, i);
        // Copying a dict with gaps puts its keys in anew, and compares those of one hash.
        if (!has_text_keys(entry)) return {};
        PyList_SET_ITEM(copies.get(), i, require(PyDict_Copy(entry)).release());
    }
    return copies;
}

}  // namespace quorvane::virtualization
