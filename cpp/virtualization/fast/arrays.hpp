#pragma once

#include "capi/numpy.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// np.asarray(argument, dtype=np.float64)
Ref as_float64(const State& state, PyObject* argument);

// np.array as it is now; empty when it is NumPy's own, which need not be looked up.
Ref find_array_function(const State& state);

// array(source, dtype=np.float64, copy=True) with the function that was found a moment ago.
Ref call_copying(const State& state, const Ref& array, PyObject* source);

// An exact, contiguous float64 vector of that many numbers.
bool is_float64_row(PyObject* object, npy_intp width) noexcept;

// np.vstack(rows) of a list
Ref stack_rows(const State& state, PyObject* rows);

// np.array(<argument>, dtype=np.float64, copy=True): an array that nobody else holds. The argument
// is an expression, evaluated between the two looks at NumPy as the statement evaluates it.
template <class Argument>
Ref copy_as_float64(const State& state, Argument&& argument) {
    const Ref array = find_array_function(state);
    const Ref source = std::forward<Argument>(argument)();
    return call_copying(state, array, source.get());
}

}  // namespace quorvane::virtualization
