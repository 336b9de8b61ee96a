#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// np.asarray(argument, dtype=np.float64)
Ref as_float64(const State& state, PyObject* argument);

// array(source, dtype=np.float64, copy=True) with the function that np.array was a moment ago.
Ref call_copying(const State& state, PyObject* array, PyObject* source);

// np.array(<argument>, dtype=np.float64, copy=True): an array that nobody else holds. The argument
// is an expression, evaluated between the two looks at NumPy as the statement evaluates it.
template <class Argument>
Ref copy_as_float64(const State& state, Argument&& argument) {
    const Ref array = state.numpy(state.names.array);
    const Ref source = std::forward<Argument>(argument)();
    return call_copying(state, array.get(), source.get());
}

}  // namespace quorvane::virtualization
