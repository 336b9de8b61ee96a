#include "virtualization/shortcuts/day_report.hpp"

#include "virtualization/shortcuts/inert.hpp"

namespace quorvane::virtualization {

DayReport::DayReport(const State& state, PyObject* structures) noexcept
    : state_(state),
      structures_(structures),
      columns_(columns::as_columns(structures, state.names.passport)) {}

Py_ssize_t DayReport::count() const noexcept {
    if (columns_ != nullptr) return PyTuple_GET_SIZE(columns_->keys.get());
    if (PyList_CheckExact(structures_)) return PyList_GET_SIZE(structures_);
    return PyTuple_CheckExact(structures_) ? PyTuple_GET_SIZE(structures_) : -1;
}

bool DayReport::read(Py_ssize_t position, ReportedItem& item) const noexcept {
    return columns_ != nullptr ? read_column(position, item)
                               : read_object(PySequence_Fast_GET_ITEM(structures_, position), item);
}

bool DayReport::may_change_with(const capi::VectorView<double>& row) const noexcept {
    if (columns_ == nullptr) return false;
    return capi::may_share_memory(capi::readable_vector<double>(columns_->values.get()), row);
}

void DayReport::prefetch(Py_ssize_t position) const noexcept {
    if (columns_ != nullptr) {
        __builtin_prefetch(PyTuple_GET_ITEM(columns_->legs.get(), position));
    } else {
        __builtin_prefetch(PySequence_Fast_GET_ITEM(structures_, position));
    }
}

Ref DayReport::object_at(Py_ssize_t position) const noexcept {
    if (columns_ != nullptr) return {};
    return Ref::borrow(PySequence_Fast_GET_ITEM(structures_, position));
}

bool DayReport::read_object(PyObject* raw, ReportedItem& item) const noexcept {
    ItemEntries entries;
    if (!read_inert_entries(state_, raw, entries) || entries.metadata != nullptr) return false;
    const std::optional<double> value = inert_float(entries.value);
    if (!value) return false;
    item = {entries.key, entries.legs, *value};
    return true;
}

bool DayReport::read_column(Py_ssize_t position, ReportedItem& item) const noexcept {
    const auto values = capi::readable_vector<double>(columns_->values.get());
    if (!values || position >= values.size()) return false;
    item = {PyTuple_GET_ITEM(columns_->keys.get(), position),
            PyTuple_GET_ITEM(columns_->legs.get(), position), values[position]};
    return true;
}

}  // namespace quorvane::virtualization
