#include "virtualization/cache/leg_cache.hpp"

#include <algorithm>
#include <new>

#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

// An id that is an index, and small enough to be kept in half the space.
bool is_index(PyObject* id) noexcept {
    const Py_ssize_t index = plain_size(id);
    return index >= 0 && index < std::numeric_limits<std::uint32_t>::max();
}

PyObject* id_of(PyObject* legs, Py_ssize_t i) noexcept {
    return PyTuple_GET_ITEM(PyTuple_GET_ITEM(legs, i), 0);
}

bool has_only_indices(PyObject* legs) noexcept {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        if (!is_index(id_of(legs, i))) return false;
    }
    return true;
}

}  // namespace

bool LegCache::refresh(PyObject* legs_by_slot, Py_ssize_t max_structures) {
    if (is_laid_out(legs_by_slot)) return true;
    clear();
    if (!watcher_.is_told_of(legs_by_slot) || !lay_out_table(legs_by_slot, max_structures)) {
        clear();
        return false;
    }
    stamp_ = watcher_.stamp(legs_by_slot);
    laid_out_ = true;
    return is_current(legs_by_slot);
}

void LegCache::adopt(PyObject* legs_by_slot) noexcept {
    clear();
    stamp_ = watcher_.stamp(legs_by_slot);
}

bool LegCache::lay_out_table(PyObject* legs_by_slot, Py_ssize_t max_structures) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    while (PyDict_Next(legs_by_slot, &position, &key, &legs) != 0) {
        const Py_ssize_t slot = plain_size(key);
        if (slot < 0 || slot >= max_structures || !are_plain_legs(legs)) return false;
        lay_out(static_cast<std::size_t>(slot), legs);
    }
    return true;
}

// What is laid out without being stored, when storing fails, is not current either.
void LegCache::store(PyObject* legs_by_slot, PyObject* slot_object, std::size_t slot,
                     PyObject* legs) {
    capi::DictStamp stamp = std::exchange(stamp_, {});
    lay_out(slot, legs);
    capi::DictWatcher::set_item(legs_by_slot, stamp, slot_object, legs);
    stamp_ = stamp;
}

void LegCache::lay_out(std::size_t slot, PyObject* legs) {
    if (slot >= places_.size()) {
        legs_.resize(slot + 1);
        places_.resize(slot + 1);
    }
    kernels::LegPlace& place = places_[slot];
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(legs));
    if (!has_only_indices(legs)) {
        vacate(place);
        place.begin = odd_place;
        ++odd_slots_;
        legs_[slot] = Ref::borrow(legs);
        return;
    }
    if (is_odd(slot) || count > place.count) {
        vacate(place);
        if (flat_.ids.size() > 2 * live_ + 1024) compact();
        place.begin = grow(count);
    } else {
        live_ -= place.count;
    }
    live_ += count;
    place.count = static_cast<std::uint32_t>(count);
    for (std::size_t i = 0; i < count; ++i) {
        PyObject* leg = PyTuple_GET_ITEM(legs, static_cast<Py_ssize_t>(i));
        const auto id = static_cast<std::uint32_t>(plain_size(PyTuple_GET_ITEM(leg, 0)));
        id_bound_ = std::max(id_bound_, std::size_t{id} + 1);
        flat_.ids[place.begin + i] = id;
        flat_.weights[place.begin + i] = PyFloat_AS_DOUBLE(PyTuple_GET_ITEM(leg, 1));
    }
    legs_[slot] = Ref::borrow(legs);
}

// A place of no legs.
void LegCache::vacate(kernels::LegPlace& place) noexcept {
    if (place.begin == odd_place) --odd_slots_;
    live_ -= place.count;
    place = kernels::LegPlace{};
}

// Room for `count` legs at the end; where it begins.
std::uint32_t LegCache::grow(std::size_t count) {
    const std::size_t begin = flat_.ids.size();
    if (begin + count >= odd_place) throw std::bad_alloc();
    flat_.ids.resize(begin + count);
    flat_.weights.resize(begin + count);
    return static_cast<std::uint32_t>(begin);
}

void LegCache::clear() noexcept {
    legs_.clear();
    places_.clear();
    flat_.ids.clear();
    flat_.weights.clear();
    live_ = 0;
    odd_slots_ = 0;
    id_bound_ = 0;
    laid_out_ = false;
    stamp_ = {};
}

// Moves the legs that are still used to the front, in slot order.
void LegCache::compact() {
    kernels::FlatLegs packed;
    packed.ids.reserve(live_);
    packed.weights.reserve(live_);
    for (kernels::LegPlace& place : places_) {
        if (place.count == 0) continue;
        const auto begin = static_cast<std::ptrdiff_t>(place.begin);
        const auto end = begin + static_cast<std::ptrdiff_t>(place.count);
        place.begin = static_cast<std::uint32_t>(packed.ids.size());
        packed.ids.insert(packed.ids.end(), flat_.ids.begin() + begin, flat_.ids.begin() + end);
        packed.weights.insert(packed.weights.end(), flat_.weights.begin() + begin,
                              flat_.weights.begin() + end);
    }
    flat_ = std::move(packed);
}

}  // namespace quorvane::virtualization
