#include "virtualization/fast/plain_legs.hpp"

#include <bit>

#include "capi/numpy.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

// Whether the id is this index.
bool is_id(PyObject* id, std::uint32_t index) noexcept {
    if (Py_IS_TYPE(id, &PyInt64ArrType_Type)) {
        return reinterpret_cast<PyInt64ScalarObject*>(id)->obval == std::int64_t{index};
    }
    return plain_size(id) == Py_ssize_t{index};
}

// Whether the weight is this very number, sign of zero and kind of NaN included.
bool is_weight(PyObject* object, double weight) noexcept {
    const std::optional<double> value = plain_float(object);
    return value && std::bit_cast<std::uint64_t>(*value) == std::bit_cast<std::uint64_t>(weight);
}

// Whether normalisation would make of the legs what the slot has.
bool say_the_same(PyObject* legs, const LegCache& cache, std::size_t slot) noexcept {
    const kernels::LegPlace& place = cache.places()[slot];
    if (cache.is_odd(slot) || !is_plain_sequence(legs) ||
        static_cast<std::size_t>(PySequence_Fast_GET_SIZE(legs)) != place.count) {
        return false;
    }
    for (std::uint32_t i = 0; i < place.count; ++i) {
        PyObject* leg = PySequence_Fast_GET_ITEM(legs, i);
        if (!is_plain_sequence(leg) || PySequence_Fast_GET_SIZE(leg) != 2 ||
            !is_id(PySequence_Fast_GET_ITEM(leg, 0), cache.flat().ids[place.begin + i]) ||
            !is_weight(PySequence_Fast_GET_ITEM(leg, 1), cache.flat().weights[place.begin + i])) {
            return false;
        }
    }
    return true;
}

// The cache, the table, and while it says so the slot's metadata.
bool is_held_by_nobody_else(PyObject* tuple, const TableCache& cache, std::size_t slot) noexcept {
    return Py_REFCNT(tuple) == (cache.metadata.holds_legs(slot, tuple) ? 3 : 2);
}

}  // namespace

// Normalisation makes a new tuple each day; one that nobody else holds cannot be told from it.
Ref legs_to_store(const TableCache& cache, const SlotCache::Found& slot, const ReportedItem& item) {
    PyObject* kept = slot.slot != nullptr ? cache.legs.tuple_of(slot.index) : nullptr;
    if (kept != nullptr &&
        (kept == item.legs || (is_held_by_nobody_else(kept, cache, slot.index) &&
                               say_the_same(item.legs, cache.legs, slot.index)))) {
        return Ref::borrow(kept);
    }
    return to_plain_legs(item.legs);
}

}  // namespace quorvane::virtualization
