#include "virtualization/history/batch_universe.hpp"

#include <algorithm>

#include "capi/array_view.hpp"
#include "virtualization/history/planned_days.hpp"

namespace quorvane::virtualization {

namespace {

// np.ones((days, columns), dtype=np.uint8)
template <class Columns>
Ref make_everybody(const State& state, PyObject* days, Columns&& columns_of) {
    const Names& names = state.names;
    const Ref ones = state.numpy(names.ones);
    const Ref columns = columns_of();
    const Ref shape = capi::make_tuple(days, columns.get());
    return call_with_keywords(ones.get(), state.dtype_keyword.get(), shape.get(),
                              state.numpy(names.uint8).get());
}

// The same of an exact array, with one stored row.
Ref make_one_row(PyObject* matrix) {
    npy_intp shape[] = {PyArray_DIM(capi::as_array(matrix), 0),
                        PyArray_DIM(capi::as_array(matrix), 1)};
    npy_intp strides[] = {0, 1};
    Ref row = require(PyArray_SimpleNew(1, shape + 1, NPY_UINT8));
    auto* bytes = static_cast<npy_uint8*>(PyArray_DATA(capi::as_array(row.get())));
    std::fill(bytes, bytes + shape[1], npy_uint8{1});
    Ref all =
        require(PyArray_New(&PyArray_Type, 2, shape, NPY_UINT8, strides, bytes, 0, 0, nullptr));
    require(PyArray_SetBaseObject(capi::as_array(all.get()), row.release()));
    return all;
}

// Code that ran may have found the list, and emptied it.
bool has_two_axes(PyObject* arrays) {
    if (PyList_GET_SIZE(arrays) == 0) return false;
    PyObject* matrix = PyList_GET_ITEM(arrays, 0);
    return PyArray_CheckExact(matrix) && PyArray_NDIM(capi::as_array(matrix)) == 2;
}

}  // namespace

Ref extent(const State& state, PyObject* arrays, PyObject* axis) {
    const Ref first = require(PySequence_GetItem(arrays, 0));
    return item(attr(first.get(), state.names.shape).get(), axis);
}

BatchUniverse::BatchUniverse(const State& state, PyObject* self, PyObject* context,
                             PyObject* arrays, PyObject* days)
    : state_(state), self_(self), arrays_(arrays), days_(days) {
    if (!capi::is_none(context)) {
        given_ = capi::optional_attr(context, state.names.universe_mask);
        if (given_ && capi::is_none(given_.get())) given_ = Ref();
    }
    if (!given_) of_day();
}

PyObject* BatchUniverse::of_day() {
    if (given_) return given_.get();
    if (!everybody_ && has_two_axes(arrays_) && state_.module_guard.numpy_holds(state_) &&
        PlannedDays::is_possible(state_, self_)) {
        if (!one_row_) one_row_ = make_one_row(PyList_GET_ITEM(arrays_, 0));
        return one_row_.get();
    }
    if (!everybody_) {
        everybody_ = make_everybody(state_, days_, [&] {
            // As it was in the beginning: a day may have given the matrix another form.
            return one_row_ ? capi::make_int(PyArray_DIM(capi::as_array(one_row_.get()), 1))
                            : extent(state_, arrays_, state_.one.get());
        });
    }
    return everybody_.get();
}

}  // namespace quorvane::virtualization
