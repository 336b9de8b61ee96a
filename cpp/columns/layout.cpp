#include "columns/layout.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "capi/array_view.hpp"
#include "capi/message.hpp"

namespace quorvane::columns {

namespace {

using capi::Message;
using capi::Ref;
using capi::require;

[[noreturn]] void reject(PyObject* type, const char* argument, const char* rule, const Ref& got) {
    Message().text(argument).text(rule).text(", got ").str(got.get()).raise(type);
}

Ref shape_of(PyObject* array) { return require(PyObject_GetAttrString(array, "shape")); }

Ref dtype_of(PyObject* array) { return require(PyObject_GetAttrString(array, "dtype")); }

// The argument as an exact array of one axis.
Ref vector_from(const char* argument, PyObject* given) {
    Ref array = require(PyArray_FromAny(given, nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    if (PyArray_NDIM(capi::as_array(array.get())) != 1) {
        reject(PyExc_ValueError, argument, " must have one axis", shape_of(array.get()));
    }
    return array;
}

// The vector as native, contiguous numbers of the type; a vector without entries has no type.
Ref cast_vector(const Ref& array, int type_number) {
    PyArrayObject* given = capi::as_array(array.get());
    if (PyArray_SIZE(given) == 0 && PyArray_TYPE(given) != type_number) {
        npy_intp none[] = {0};
        return require(PyArray_SimpleNew(1, none, type_number));
    }
    return require(PyArray_FromAny(
        array.get(), PyArray_DescrFromType(type_number), 1, 1,
        NPY_ARRAY_IN_ARRAY | NPY_ARRAY_NOTSWAPPED | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST,
        nullptr));
}

template <class T>
std::vector<T> copy_of(const Ref& array) {
    const auto* data = static_cast<const T*>(PyArray_DATA(capi::as_array(array.get())));
    return {data, data + PyArray_SIZE(capi::as_array(array.get()))};
}

Ref integer_of(std::int64_t number) { return require(PyLong_FromLongLong(number)); }
Ref integer_of(std::uint64_t number) { return require(PyLong_FromUnsignedLongLong(number)); }

template <class Wide>
std::vector<std::int32_t> narrowed(const char* argument, const std::vector<Wide>& wide) {
    const auto fits = [](Wide number) { return std::in_range<std::int32_t>(number); };
    if (const auto odd = std::ranges::find_if_not(wide, fits); odd != wide.end()) {
        Ref got = integer_of(*odd);
        reject(PyExc_ValueError, argument, " must fit in 32 bits", got);
    }
    std::vector<std::int32_t> narrow(wide.size());
    std::ranges::transform(wide, narrow.begin(),
                           [](Wide number) { return static_cast<std::int32_t>(number); });
    return narrow;
}

std::vector<std::int32_t> integers_from(const char* argument, PyObject* given) {
    const Ref array = vector_from(argument, given);
    const bool is_integer = PyTypeNum_ISINTEGER(PyArray_TYPE(capi::as_array(array.get())));
    if (!is_integer && PyArray_SIZE(capi::as_array(array.get())) != 0) {
        reject(PyExc_TypeError, argument, " must be integers", dtype_of(array.get()));
    }
    if (PyTypeNum_ISUNSIGNED(PyArray_TYPE(capi::as_array(array.get())))) {
        return narrowed(argument, copy_of<std::uint64_t>(cast_vector(array, NPY_UINT64)));
    }
    return narrowed(argument, copy_of<std::int64_t>(cast_vector(array, NPY_INT64)));
}

// Real numbers as float64, maybe the caller's own array.
Ref numbers_from(const char* argument, PyObject* given) {
    const Ref array = vector_from(argument, given);
    const int type_number = PyArray_TYPE(capi::as_array(array.get()));
    const bool is_real = PyTypeNum_ISINTEGER(type_number) || PyTypeNum_ISFLOAT(type_number) ||
                         PyTypeNum_ISBOOL(type_number);
    if (!is_real && PyArray_SIZE(capi::as_array(array.get())) != 0) {
        reject(PyExc_TypeError, argument, " must be real numbers", dtype_of(array.get()));
    }
    return cast_vector(array, NPY_DOUBLE);
}

void require_count(const char* argument, const char* of_what, std::size_t got, std::size_t wanted) {
    if (got == wanted) return;
    Message()
        .text(argument)
        .text(" must have ")
        .value(capi::make_int(static_cast<Py_ssize_t>(wanted)))
        .text(of_what)
        .text(", got ")
        .value(capi::make_int(static_cast<Py_ssize_t>(got)))
        .raise(PyExc_ValueError);
}

void check_offsets(const Layout& layout, Py_ssize_t structures) {
    const auto& offsets = layout.offsets;
    require_count("offsets", " entries, one more than keys", offsets.size(),
                  static_cast<std::size_t>(structures) + 1);
    const auto legs = static_cast<Py_ssize_t>(layout.leg_ids.size());
    if (offsets.front() == 0 && offsets.back() == legs && std::ranges::is_sorted(offsets)) return;
    Message()
        .text("offsets must rise from 0 to the number of legs, ")
        .value(capi::make_int(legs))
        .text(", got an array that does not")
        .raise(PyExc_ValueError);
}

Ref make_leg(std::int32_t id, double weight) {
    const Ref leg_id = capi::make_int(id);
    return capi::make_tuple(leg_id.get(), capi::make_float(weight).get());
}

}  // namespace

Ref keys_from(PyObject* keys) {
    const Ref given = capi::to_tuple(keys);
    const Py_ssize_t structures = PyTuple_GET_SIZE(given.get());
    Ref exact = require(PyTuple_New(structures));
    for (Py_ssize_t i = 0; i < structures; ++i) {
        PyObject* key = PyTuple_GET_ITEM(given.get(), i);
        if (!PyTuple_Check(key)) {
            reject(PyExc_TypeError, "keys", " must be tuples", capi::to_repr(key));
        }
        PyTuple_SET_ITEM(exact.get(), i, capi::to_tuple(key).release());
    }
    return exact;
}

std::shared_ptr<const Layout> layout_from(PyObject* offsets, PyObject* leg_ids, PyObject* weights,
                                          Py_ssize_t structures) {
    auto layout = std::make_shared<Layout>();
    layout->offsets = integers_from("offsets", offsets);
    layout->leg_ids = integers_from("leg_ids", leg_ids);
    layout->weights = copy_of<double>(numbers_from("weights", weights));
    require_count("weights", " entries, one for each of leg_ids", layout->weights.size(),
                  layout->leg_ids.size());
    check_offsets(*layout, structures);
    if (!layout->leg_ids.empty()) {
        const auto [lowest, highest] = std::ranges::minmax(layout->leg_ids);
        layout->lowest_id = lowest;
        layout->highest_id = highest;
    }
    return layout;
}

Ref values_from(PyObject* values, Py_ssize_t structures) {
    Ref numbers = numbers_from("values", values);
    require_count("values", " entries, one for each of keys",
                  static_cast<std::size_t>(PyArray_SIZE(capi::as_array(numbers.get()))),
                  static_cast<std::size_t>(structures));
    return numbers;
}

Ref make_legs(const Layout& layout) {
    const auto structures = static_cast<Py_ssize_t>(layout.offsets.size()) - 1;
    Ref all = require(PyTuple_New(structures));
    for (Py_ssize_t i = 0; i < structures; ++i) {
        const auto first = static_cast<std::size_t>(layout.offsets[static_cast<std::size_t>(i)]);
        const auto end = static_cast<std::size_t>(layout.offsets[static_cast<std::size_t>(i) + 1]);
        Ref legs = require(PyTuple_New(static_cast<Py_ssize_t>(end - first)));
        for (std::size_t leg = first; leg < end; ++leg) {
            PyTuple_SET_ITEM(legs.get(), static_cast<Py_ssize_t>(leg - first),
                             make_leg(layout.leg_ids[leg], layout.weights[leg]).release());
        }
        PyTuple_SET_ITEM(all.get(), i, legs.release());
    }
    return all;
}

}  // namespace quorvane::columns
