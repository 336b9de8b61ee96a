#include "virtualization/fast/report.hpp"

#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

bool read_item(const State& state, PyObject* raw, ReportedItem& item) noexcept {
    ItemEntries entries;
    if (!read_plain_entries(state, raw, entries) ||
        (entries.metadata != nullptr && !has_plain_entries(entries.metadata))) {
        return false;
    }
    if (entries.value == nullptr) {
        if (!PyDict_CheckExact(raw)) return false;
        entries.value = state.module_guard.nan();
    }
    const std::optional<double> value = plain_float(entries.value);
    if (!value) return false;
    item = {entries.key, entries.legs, entries.metadata, entries.value, *value};
    return true;
}

Ref tuple_of_list(PyObject* key) {
    return PyList_CheckExact(key) ? require(PyList_AsTuple(key)) : Ref();
}

Report::Report(const State& state, PyObject* structures) noexcept
    : state_(state),
      structures_(structures),
      columns_(columns::as_columns(structures, state.names.passport)) {}

Py_ssize_t Report::count() const noexcept {
    if (columns_ != nullptr) return PyTuple_GET_SIZE(columns_->keys.get());
    if (PyList_CheckExact(structures_)) return PyList_GET_SIZE(structures_);
    return PyTuple_CheckExact(structures_) ? PyTuple_GET_SIZE(structures_) : -1;
}

bool Report::read(Py_ssize_t position, ReportedItem& item) const noexcept {
    return columns_ != nullptr
               ? read_column(position, item)
               : read_item(state_, PySequence_Fast_GET_ITEM(structures_, position), item);
}

bool Report::may_change_with(const capi::VectorView<double>& row) const noexcept {
    if (columns_ == nullptr) return false;
    return capi::may_share_memory(capi::readable_vector<double>(columns_->values.get()), row);
}

void Report::prefetch(Py_ssize_t position) const noexcept {
    if (columns_ != nullptr) {
        __builtin_prefetch(PyTuple_GET_ITEM(columns_->legs.get(), position));
    } else {
        __builtin_prefetch(PySequence_Fast_GET_ITEM(structures_, position));
    }
}

Ref Report::object_at(Py_ssize_t position) const noexcept {
    if (columns_ != nullptr) return {};
    return Ref::borrow(PySequence_Fast_GET_ITEM(structures_, position));
}

bool Report::read_column(Py_ssize_t position, ReportedItem& item) const noexcept {
    const auto values = capi::readable_vector<double>(columns_->values.get());
    if (!values || position >= values.size()) return false;
    item = {PyTuple_GET_ITEM(columns_->keys.get(), position),
            PyTuple_GET_ITEM(columns_->legs.get(), position), nullptr, nullptr, values[position]};
    return true;
}

}  // namespace quorvane::virtualization
