#include "virtualization/shortcuts/leg_memory.hpp"

#include <algorithm>
#include <limits>
#include <new>

#include "capi/dict_version.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

// An id that is an index, and small enough to be kept in half the space.
bool is_index(PyObject* id) noexcept {
    const Py_ssize_t index = plain_size(id);
    return index >= 0 && index < std::numeric_limits<std::uint32_t>::max();
}

}  // namespace

bool LegMemory::accepts(PyObject* legs) noexcept {
    if (!PyTuple_CheckExact(legs)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        PyObject* leg = PyTuple_GET_ITEM(legs, i);
        if (!is_normal_leg(leg) || !is_index(PyTuple_GET_ITEM(leg, 0))) return false;
    }
    return true;
}

void LegMemory::store(std::size_t slot, PyObject* legs) {
    if (slot >= places_.size()) {
        legs_.resize(slot + 1);
        places_.resize(slot + 1);
    }
    kernels::LegPlace& place = places_[slot];
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(legs));
    if (count > place.count) {
        live_ -= place.count;
        place.count = 0;
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

// Room for `count` legs at the end; where it begins.
std::uint32_t LegMemory::grow(std::size_t count) {
    const std::size_t begin = flat_.ids.size();
    if (begin + count > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
    flat_.ids.resize(begin + count);
    flat_.weights.resize(begin + count);
    return static_cast<std::uint32_t>(begin);
}

bool LegMemory::load(PyObject* legs_by_slot, Py_ssize_t max_structures) {
    clear();
    if (!capi::counts_changes(legs_by_slot)) return false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    while (PyDict_Next(legs_by_slot, &position, &key, &legs) != 0) {
        const Py_ssize_t slot = plain_size(key);
        if (slot < 0 || slot >= max_structures || !accepts(legs)) {
            clear();
            return false;
        }
        store(static_cast<std::size_t>(slot), legs);
    }
    now_describes(legs_by_slot);
    return true;
}

bool LegMemory::describes(PyObject* legs_by_slot) const noexcept {
    return version_ != 0 && PyDict_CheckExact(legs_by_slot) &&
           capi::dict_version(legs_by_slot) == version_;
}

void LegMemory::now_describes(PyObject* legs_by_slot) noexcept {
    version_ = capi::dict_version(legs_by_slot);
}

void LegMemory::clear() noexcept {
    legs_.clear();
    places_.clear();
    flat_.ids.clear();
    flat_.weights.clear();
    live_ = 0;
    id_bound_ = 0;
    version_ = 0;
}

// Moves the legs that are still used to the front, in slot order.
void LegMemory::compact() {
    kernels::FlatLegs packed;
    packed.ids.reserve(live_);
    packed.weights.reserve(live_);
    for (kernels::LegPlace& place : places_) {
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
