#pragma once

#include "rotations/child.hpp"
#include "rotations/framework_day.hpp"

namespace quorvane::rotations::ewma {

class State : public ChildModule {
public:
    using ChildModule::ChildModule;

    // Runs the module's body: binds Ewma.
    void execute();

    using Interned = capi::Interned;
    const Interned window{"window"};
    const Interned mean_buf{"_mean"};
    const Interned weight_buf{"_weight"};
    const Interned n_alloc{"_n_alloc"};
    const Interned resize{"resize"};

    // Keys of the state dictionary, besides the window.
    const Interned mean{"mean"};
    const Interned weight{"weight"};

    const FrameworkDay framework_day;
};

// The factor of a window. ValueError when it is no positive int, or too large for a double.
double decay_of(PyObject* window);

// What the rotation remembers per column: the mean, NaN before the first value, and the weight.
struct Memory {
    Ref mean, weight;
};

// The columns that the rotation is allocated for, 0 when it grows with its inputs.
Py_ssize_t allocated_columns(const State& state, PyObject* self);

// For `size` columns that have seen nothing.
Memory new_memory(Py_ssize_t size);

// The memory for `size` columns, with what the first of them remember already.
Memory resized(const Memory& memory, Py_ssize_t size);

// The rotation's memory, which has room for N columns: without an allocation it grows. ValueError
// when an attribute is not a writable, contiguous float64 array of that length.
Memory memory_of_day(const State& state, PyObject* self, Py_ssize_t N);

// Gives the first columns back what they were.
void take_back(const Memory& memory, const Memory& yesterday) noexcept;

Memory memory_of(const State& state, PyObject* self);
void set_memory(const State& state, PyObject* self, const Memory& memory);

extern const capi::FunctionDef stateful_def;
extern const capi::FunctionDef get_state_def;
extern const capi::FunctionDef set_state_def;
extern const capi::FunctionDef resize_def;
extern const capi::FunctionDef forget_def;

}  // namespace quorvane::rotations::ewma
