#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The universe of each day of a batch: the caller's, or one with every instrument of every day.
class BatchUniverse {
public:
    BatchUniverse(const State& state, PyObject* self, PyObject* context, PyObject* arrays,
                  PyObject* days);

    // Null where every instrument takes part.
    [[nodiscard]] PyObject* given() const noexcept { return given_.get(); }

    // What a day's context is made with. Where no code but ours sees it, one row stands for all
    // days, whose number then costs nothing.
    PyObject* of_day();

private:
    const State& state_;
    PyObject* self_;  // these three are borrowed: the call holds them
    PyObject* arrays_;
    PyObject* days_;
    Ref given_, everybody_, one_row_;
};

// arrays[0].shape[axis]
Ref extent(const State& state, PyObject* arrays, PyObject* axis);

}  // namespace quorvane::virtualization
