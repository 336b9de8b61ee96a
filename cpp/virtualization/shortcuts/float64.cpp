#include "virtualization/shortcuts/float64.hpp"

#include "capi/array_view.hpp"

namespace quorvane::virtualization {

namespace {

// An exact array that has the very dtype np.float64 stands for.
bool is_float64_array(PyObject* object) noexcept {
    if (!PyArray_CheckExact(object)) return false;
    const capi::Ref float64 =
        capi::Ref::steal(reinterpret_cast<PyObject*>(PyArray_DescrFromType(NPY_DOUBLE)));
    return reinterpret_cast<PyObject*>(PyArray_DESCR(capi::as_array(object))) == float64.get();
}

// The function is NumPy's own, and NumPy is as it was.
bool is_own(const State& state, PyObject* name, PyObject* function) {
    return state.pristine.numpy_holds(state) &&
           capi::dict_peek(state.pristine.numpy_dict(), name) == function;
}

}  // namespace

Ref as_float64(const State& state, PyObject* argument) {
    const Ref asarray = state.numpy(state.names.asarray);
    if (is_float64_array(argument) && is_own(state, state.names.asarray, asarray.get())) {
        return Ref::borrow(argument);
    }
    return call_with_keywords(asarray.get(), state.dtype_keyword.get(), argument,
                              state.numpy(state.names.float64).get());
}

Ref call_copying(const State& state, PyObject* array, PyObject* source) {
    if (is_float64_array(source) && is_own(state, state.names.array, array)) {
        return require(PyArray_NewCopy(capi::as_array(source), NPY_KEEPORDER));
    }
    return call_with_keywords(array, state.dtype_and_copy_keywords.get(), source,
                              state.numpy(state.names.float64).get(), Py_True);
}

}  // namespace quorvane::virtualization
