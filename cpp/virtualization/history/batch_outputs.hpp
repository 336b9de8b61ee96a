#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The outputs of a batch, a row for each day, as they come: objects, until a history writes many
// rows at once into one matrix.
class BatchOutputs {
public:
    explicit BatchOutputs(Py_ssize_t days);

    // The next day's output.
    void append(const State& state, PyObject* row);

    // Where a history may write the days that follow, a row of `width` numbers each; null when a
    // day before gave something else than such a row.
    double* place_of_rows(Py_ssize_t width);
    // So many of them are written.
    void take(Py_ssize_t days) noexcept { filled_ += days; }

    // np.vstack of all rows.
    Ref stacked(const State& state);

private:
    bool copy_to_matrix(PyObject* row);
    void return_to_rows();

    Py_ssize_t days_;
    Py_ssize_t filled_ = 0;
    Ref rows_ = capi::make_list();
    Ref matrix_;  // instead of the rows
};

}  // namespace quorvane::virtualization
