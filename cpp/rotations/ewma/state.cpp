#include "rotations/ewma/state.hpp"

#include <algorithm>
#include <limits>
#include <vector>

#include "kernels/ewma.hpp"
#include "rotations/arguments.hpp"
#include "rotations/buffers.hpp"

namespace quorvane::rotations::ewma {

namespace {

using capi::attr;
using capi::positional;

void copy_head(PyObject* from, PyObject* to) {
    const auto source = writable_doubles(from).span();
    const auto target = writable_doubles(to).span();
    std::ranges::copy(source.first(std::min(source.size(), target.size())), target.begin());
}

bool is_usable(const Memory& memory) {
    return writable_doubles(memory.mean.get()) && writable_doubles(memory.weight.get());
}

bool has_room(const Memory& memory, Py_ssize_t N) {
    return is_usable(memory) && writable_doubles(memory.mean.get()).size() >= N &&
           writable_doubles(memory.weight.get()).size() >= N;
}

[[noreturn]] void raise_unusable(const State& state, PyObject* self, Py_ssize_t N) {
    message_of(state, self)
        .text("_mean and _weight must be writable, contiguous float64 arrays of at least ")
        .value(capi::make_int(N))
        .text(" entries")
        .raise(PyExc_ValueError);
}

// ---- the state dictionary ----------------------------------------------------------------------

constexpr capi::Parameter self_only[] = {positional("self")};
constexpr capi::Parameter state_parameters[] = {positional("self"), positional("state")};
constexpr capi::Parameter forget_parameters[] = {positional("self"), positional("slots")};
constexpr capi::Parameter resize_parameters[] = {positional("self"), positional("new_N_alloc")};

Ref stateful(State& /*state*/, PyObject* const* /*values*/) { return capi::to_bool(true); }

Ref get_state(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    Ref result = capi::make_dict();
    const Memory memory = memory_of(state, self);
    capi::set_item(result.get(), state.window, attr(self, state.window).get());
    capi::set_item(result.get(), state.mean,
                   as_float64(memory.mean.get(), NPY_ARRAY_ENSURECOPY).get());
    capi::set_item(result.get(), state.weight,
                   as_float64(memory.weight.get(), NPY_ARRAY_ENSURECOPY).get());
    return result;
}

Ref entry(const State& state, PyObject* self, PyObject* dictionary, PyObject* key) {
    if (PyDict_Check(dictionary)) {
        if (Ref value = capi::dict_get(dictionary, key)) return value;
    }
    message_of(state, self)
        .text("state must be a dict with the keys 'window', 'mean' and 'weight', got ")
        .repr(dictionary)
        .raise(PyExc_ValueError);
}

void check_window(const State& state, PyObject* self, PyObject* stored) {
    const Ref own = attr(self, state.window);
    if (capi::is_integer(stored) && capi::compare(stored, own.get(), Py_EQ)) return;
    message_of(state, self)
        .text("state['window'] must be the rotation's own window ")
        .repr(own.get())
        .text(", got ")
        .repr(stored)
        .raise(PyExc_ValueError);
}

// A copy of the stored array, which must have one number for each of `columns`.
Ref stored_column(const State& state, PyObject* self, PyObject* dictionary, PyObject* key,
                  PyObject* columns) {
    Ref copy = as_float64(entry(state, self, dictionary, key).get(),
                          NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_WRITEABLE | NPY_ARRAY_ENSURECOPY);
    const Ref shape = attr(copy.get(), capi::Interned("shape"));
    const Ref expected = capi::make_tuple(columns);
    if (capi::compare(shape.get(), expected.get(), Py_EQ)) return copy;
    message_of(state, self)
        .text("state['")
        .value(key)
        .text("'] must have shape ")
        .str(expected.get())
        .text(", got ")
        .str(shape.get())
        .raise(PyExc_ValueError);
}

// A day adds at most 1 to a weight, and adding 1 to 2**53 gives 2**53: no history comes to more,
// whatever windows it had. A weight beyond would hold the average where it is.
constexpr double largest_weight = 9007199254740992.0;

void check_weights(const State& state, PyObject* self, PyObject* weights) {
    const auto numbers = writable_doubles(weights).span();
    const auto bad = std::ranges::find_if_not(
        numbers, [](double weight) { return weight >= 0.0 && weight <= largest_weight; });
    if (bad == numbers.end()) return;
    message_of(state, self)
        .text("state['weight'] must hold numbers from 0 to 2**53, got ")
        .repr(capi::make_float(*bad).get())
        .text(" at column ")
        .value(capi::make_int(bad - numbers.begin()))
        .raise(PyExc_ValueError);
}

// How many columns a state must have: as many as are allocated, else as many as it says.
Ref columns_of(const State& state, PyObject* self, PyObject* dictionary) {
    Ref N_alloc = attr(self, state.n_alloc);
    if (!capi::is_none(N_alloc.get())) return N_alloc;
    const Ref stored = as_float64(entry(state, self, dictionary, state.mean).get());
    return capi::make_int(PyArray_SIZE(capi::as_array(stored.get())));
}

Ref set_state(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    PyObject* dictionary = values[1];
    check_window(state, self, entry(state, self, dictionary, state.window).get());
    const Ref columns = columns_of(state, self, dictionary);
    const Memory memory{
        stored_column(state, self, dictionary, state.mean, columns.get()),
        stored_column(state, self, dictionary, state.weight, columns.get()),
    };
    check_weights(state, self, memory.weight.get());
    set_memory(state, self, memory);
    return capi::none();
}

Ref resize(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Memory old = memory_of(state, self);
    if (!is_usable(old)) raise_unusable(state, self, 0);
    const Ref columns = positive_int("new_N_alloc", values[1], "a positive int");
    // Before anything changes: it fails when there is no room.
    const Memory memory = resized(old, column_count("new_N_alloc", columns.get()));
    capi::call(state.super_attr(self, state.resize).get(), values[1]);
    set_memory(state, self, memory);
    return capi::none();
}

// The numbers of the slots; IndexError before anything changes.
std::vector<Py_ssize_t> slots_of(const State& state, PyObject* self, PyObject* slots,
                                 Py_ssize_t columns) {
    std::vector<Py_ssize_t> numbers;
    capi::Iteration given(slots);
    while (const Ref slot = given.next()) {
        const Py_ssize_t number = PyNumber_AsSsize_t(slot.get(), PyExc_IndexError);
        if (number == -1 && PyErr_Occurred() != nullptr) throw capi::PythonError();
        if (number < 0 || number >= columns) {
            message_of(state, self)
                .text("slots must be from 0 to ")
                .value(capi::make_int(columns - 1))
                .text(", got ")
                .repr(slot.get())
                .raise(PyExc_IndexError);
        }
        numbers.push_back(number);
    }
    return numbers;
}

Ref forget(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Memory seen = memory_of(state, self);
    if (!is_usable(seen)) raise_unusable(state, self, 0);
    const auto slots = slots_of(state, self, values[1], writable_doubles(seen.mean.get()).size());
    // The slots' own code may have changed the arrays.
    const Memory memory = memory_of(state, self);
    for (const Py_ssize_t slot : slots) {
        if (!has_room(memory, slot + 1)) raise_unusable(state, self, slot + 1);
        const auto place = static_cast<std::size_t>(slot);
        writable_doubles(memory.mean.get()).span()[place] =
            std::numeric_limits<double>::quiet_NaN();
        writable_doubles(memory.weight.get()).span()[place] = 1.0;
    }
    return capi::none();
}

}  // namespace

double decay_of(PyObject* window) {
    const Ref exact = positive_int("window", window, "a positive int");
    const double number = PyLong_AsDouble(exact.get());
    if (number > 0.0) return kernels::ewma_decay(number);
    PyErr_Clear();
    capi::raise(PyExc_ValueError, "window must be a positive int below 2**1024");
}

Py_ssize_t allocated_columns(const State& state, PyObject* self) {
    const Ref allocated = attr(self, state.n_alloc);
    if (capi::is_none(allocated.get())) return 0;
    const Py_ssize_t columns = PyLong_AsSsize_t(allocated.get());
    if (columns == -1 && PyErr_Occurred() != nullptr) throw capi::PythonError();
    if (columns < 0) {
        message_of(state, self)
            .text("_n_alloc must be None or at least 0, got ")
            .repr(allocated.get())
            .raise(PyExc_ValueError);
    }
    return columns;
}

Memory new_memory(Py_ssize_t size) {
    Memory memory{new_vector(size, NPY_DOUBLE), new_vector(size, NPY_DOUBLE)};
    std::ranges::fill(writable_doubles(memory.mean.get()).span(),
                      std::numeric_limits<double>::quiet_NaN());
    std::ranges::fill(writable_doubles(memory.weight.get()).span(), 1.0);
    return memory;
}

Memory resized(const Memory& memory, Py_ssize_t size) {
    Memory larger = new_memory(size);
    copy_head(memory.mean.get(), larger.mean.get());
    copy_head(memory.weight.get(), larger.weight.get());
    return larger;
}

Memory memory_of(const State& state, PyObject* self) {
    return {attr(self, state.mean_buf), attr(self, state.weight_buf)};
}

void set_memory(const State& state, PyObject* self, const Memory& memory) {
    capi::set_attr(self, state.mean_buf, memory.mean.get());
    capi::set_attr(self, state.weight_buf, memory.weight.get());
}

Memory memory_of_day(const State& state, PyObject* self, Py_ssize_t N) {
    Memory memory = memory_of(state, self);
    if (has_room(memory, N)) return memory;
    const bool may_grow = capi::is_none(attr(self, state.n_alloc).get());
    if (!may_grow || !is_usable(memory)) raise_unusable(state, self, N);
    memory = resized(memory, N);
    set_memory(state, self, memory);
    // A subclass's __setattr__ saw the arrays.
    if (!has_room(memory, N)) raise_unusable(state, self, N);
    return memory;
}

void take_back(const Memory& memory, const Memory& yesterday) noexcept {
    // Code that ran since then may have changed the arrays.
    if (!is_usable(memory)) return;
    copy_head(yesterday.mean.get(), memory.mean.get());
    copy_head(yesterday.weight.get(), memory.weight.get());
}

const capi::FunctionDef stateful_def{"stateful", self_only, capi::body_of<State, stateful>,
                                     "True, since a day's output depends on the days before it."};

const capi::FunctionDef get_state_def{"get_state", self_only, capi::body_of<State, get_state>,
                                      R"(Return what the rotation remembers of the days so far.

Returns
-------
dict
    ``window``, and per column ``mean``, NaN before the first value, and ``weight``, the sum of the
    weights of the values so far, newest first 1. The arrays are copies.
)"};

const capi::FunctionDef set_state_def{"set_state", state_parameters,
                                      capi::body_of<State, set_state>,
                                      R"(Install a state that get_state returned.

Parameters
----------
state : dict
    Its arrays are copied.

Raises
------
ValueError
    When it is not such a dict, is of another window or number of columns, or holds a weight that
    no history gives: missing, negative, or above 2**53. Nothing changes.
)"};

const capi::FunctionDef resize_def{
    "resize", resize_parameters, capi::body_of<State, resize>,
    R"(Change the number of columns; those that stay keep their state.

Parameters
----------
new_N_alloc : int
    A positive int.

Raises
------
TypeError
    When it is not an int, or is a bool.
ValueError
    When it is not positive, or no array could have so many columns.
MemoryError
    When there is no room for them. Nothing changes then.
)"};

const capi::FunctionDef forget_def{"forget", forget_parameters, capi::body_of<State, forget>,
                                   R"(Make columns such as have seen nothing; the others stay.

Parameters
----------
slots : iterable of int
    Their numbers.

Raises
------
IndexError
    When one is not from 0 to the number of columns. Nothing changes.
)"};

}  // namespace quorvane::rotations::ewma
