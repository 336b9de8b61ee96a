#include "virtualization/persistence.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter utility_parameters[] = {positional("self"), positional("utility")};
constexpr capi::Parameter resize_parameters[] = {positional("self"), positional("new_N_alloc")};

Ref checkpoint(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    const Ref write = attr(values[1], names.write);
    const Ref name = attr(self, names.name);
    call(write.get(), name.get(), call_method(self, names.get_state).get());
    return capi::none();
}

// Nothing stored, an unusable record and a state that is refused are all the same to the caller.
Ref recover(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    const Ref read = attr(values[1], names.read);
    const Ref stored = call(read.get(), attr(self, names.name).get());
    if (!capi::is_instance(stored.get(), PyDict_Type)) return capi::to_bool(false);
    try {
        call_method(self, names.set_state, stored.get());
    } catch (const capi::PythonError&) {
        if (!PyErr_ExceptionMatches(PyExc_Exception)) throw;
        const capi::FetchedError discarded;
        return capi::to_bool(false);
    }
    return capi::to_bool(true);
}

// min(int(left), int(right)), the first of equals
Ref smaller(const Ref& left, const Ref& right) {
    Ref first = capi::to_int(left.get());
    Ref second = capi::to_int(right.get());
    return capi::compare(second.get(), first.get(), Py_LT) ? std::move(second) : std::move(first);
}

// Growing never raises the limit: legs may name only instruments that existed before.
void keep_limit(const State& state, PyObject* self, const Ref& old_N_alloc) {
    const Names& names = state.names;
    if (!capi::is_none(old_N_alloc.get())) {
        const Ref limit = attr(self, names.structure_N_limit);
        const Ref kept = capi::is_none(limit.get()) ? capi::to_int(old_N_alloc.get())
                                                    : smaller(limit, old_N_alloc);
        set_attr(self, names.structure_N_limit, kept.get());
    }
    if (!capi::is_none(attr(self, names.structure_N_limit).get()) &&
        capi::compare(attr(self, names.n_alloc).get(), attr(self, names.structure_N_limit).get(),
                      Py_LT)) {
        set_attr(self, names.structure_N_limit, attr(self, names.n_alloc).get());
    }
}

Ref new_buffer(const State& state, PyObject* self, PyObject* function, PyObject* dtype) {
    const Ref callable = state.numpy(function);
    const Ref size = attr(self, state.names.n_alloc);
    return call_with_keywords(callable.get(), state.dtype_keyword.get(), size.get(),
                              state.numpy(dtype).get());
}

Ref resize(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* new_N_alloc = values[1];
    const char* not_positive = "new_N_alloc must be a positive integer";
    if (!capi::is_integer(new_N_alloc)) capi::raise(PyExc_TypeError, not_positive);
    if (capi::compare(new_N_alloc, state.zero.get(), Py_LE)) {
        capi::raise(PyExc_ValueError, not_positive);
    }
    const Ref old_N_alloc = attr(self, names.n_alloc);
    set_attr(self, names.n_alloc, capi::to_int(new_N_alloc).get());
    set_attr(self, names.output_buf, new_buffer(state, self, names.empty, names.float64).get());
    set_attr(self, names.combined_nan_buf, new_buffer(state, self, names.zeros, names.uint8).get());
    keep_limit(state, self, old_N_alloc);
    return capi::none();
}

}  // namespace

const capi::FunctionDef checkpoint_def{
    "checkpoint", utility_parameters, capi::body_of<State, checkpoint>,
    R"(Write the state to a storage object under this rotation's name.

Parameters
----------
utility : object with ``write(name, state)``
    It must copy what it keeps in memory: the state shares its contents with the rotation. Its
    errors propagate.
)"};

const capi::FunctionDef recover_def{
    "recover", utility_parameters, capi::body_of<State, recover>,
    R"(Read this rotation's state from a storage object and install it.

Parameters
----------
utility : object with ``read(name)``
    Gives the state written under the name, or None. Its errors propagate.

Returns
-------
bool
    False when nothing usable is stored or the state was refused.
)"};

const capi::FunctionDef resize_def{
    "resize", resize_parameters, capi::body_of<State, resize>,
    R"(Change the number of instruments that the rotation is allocated for.

The buffers are made anew; children, slots, legs and metadata stay as they are, and legs may still
name only instruments that existed before.

Parameters
----------
new_N_alloc : int
    A positive integer.

Raises
------
TypeError
    When it is not an integer.
ValueError
    When it is not positive.
)"};

}  // namespace quorvane::virtualization
