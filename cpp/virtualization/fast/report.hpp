#pragma once

#include "capi/array_view.hpp"
#include "columns/columns.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// One item of a report, read without running any Python code; borrowed.
struct ReportedItem {
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    PyObject* own_metadata = nullptr;  // an exact dict of text and plain values; null when empty
    PyObject* raw_value = nullptr;     // null where there is no object
    double value = 0.0;
};

// False when reading the item could run Python code or raise.
bool read_item(const State& state, PyObject* raw, ReportedItem& item) noexcept;

// The tuple that normalisation makes of a key that is an exact list; empty for any other key.
Ref tuple_of_list(PyObject* key);

// What a day's hook returned, as far as it can be read without running any Python code: an exact
// list or tuple of plain items, or structure columns.
class Report {
public:
    Report(const State& state, PyObject* structures) noexcept;

    // How many items there are to read; -1 when there is nothing of the kind.
    [[nodiscard]] Py_ssize_t count() const noexcept;

    // False when reading the item could run Python code or raise.
    [[nodiscard]] bool read(Py_ssize_t position, ReportedItem& item) const noexcept;

    // Whether writing the row could change values that are still to be read.
    [[nodiscard]] bool may_change_with(const capi::VectorView<double>& row) const noexcept;

    // Starts fetching what reading the item will look at first.
    void prefetch(Py_ssize_t position) const noexcept;

    // The object at this position; empty for columns, which have none.
    [[nodiscard]] Ref object_at(Py_ssize_t position) const noexcept;

    // Null when the items are objects.
    [[nodiscard]] const columns::Columns* columns() const noexcept { return columns_; }

private:
    bool read_column(Py_ssize_t position, ReportedItem& item) const noexcept;

    const State& state_;
    PyObject* structures_;
    const columns::Columns* columns_;
};

}  // namespace quorvane::virtualization
