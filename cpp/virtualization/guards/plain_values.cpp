#include "virtualization/guards/plain_values.hpp"

#include "capi/numpy.hpp"
#include "virtualization/guards/rotation_guard.hpp"

namespace quorvane::virtualization {

namespace {

bool is_plain_element(PyObject* element) noexcept {
    PyTypeObject* type = Py_TYPE(element);
    return type == &PyUnicode_Type || type == &PyLong_Type || type == &PyFloat_Type ||
           type == &PyBool_Type || type == &PyBytes_Type || element == Py_None;
}

bool is_plain_scalar(PyObject* object) noexcept {
    PyTypeObject* type = Py_TYPE(object);
    return type == &PyDoubleArrType_Type || type == &PyInt64ArrType_Type ||
           type == &PyBoolArrType_Type;
}

// Element `index` of an exact list or tuple, owned; empty at the end or for any other object. Asked
// for one at a time, because making an object may collect garbage and so run finalizers.
Ref element_of(PyObject* sequence, Py_ssize_t index) noexcept {
    if (PyTuple_CheckExact(sequence) && index < PyTuple_GET_SIZE(sequence)) {
        return Ref::borrow(PyTuple_GET_ITEM(sequence, index));
    }
    if (PyList_CheckExact(sequence) && index < PyList_GET_SIZE(sequence)) {
        return Ref::borrow(PyList_GET_ITEM(sequence, index));
    }
    return {};
}

Ref plain_leg_id(PyObject* id) {
    if (PyLong_CheckExact(id)) return Ref::borrow(id);
    if (Py_IS_TYPE(id, &PyInt64ArrType_Type)) {
        return require(PyLong_FromLongLong(reinterpret_cast<PyInt64ScalarObject*>(id)->obval));
    }
    return {};
}

Ref plain_weight(PyObject* weight) {
    if (PyFloat_CheckExact(weight)) return Ref::borrow(weight);
    const std::optional<double> value = plain_float(weight);
    return value ? capi::make_float(*value) : Ref();
}

Ref to_plain_leg(PyObject* leg) {
    const Ref raw_id = element_of(leg, 0);
    const Ref raw_weight = element_of(leg, 1);
    if (!raw_weight || element_of(leg, 2)) return {};
    const Ref id = plain_leg_id(raw_id.get());
    if (!id) return {};
    const Ref weight = plain_weight(raw_weight.get());
    if (!weight) return {};
    return capi::make_tuple(id.get(), weight.get());
}

// Which of the item's fields a string names; null for another string. Nearly always the string is
// the interned name itself.
PyObject** field_of(const Names& names, PyObject* name, ItemEntries& entries) noexcept {
    struct Field {
        PyObject* name;
        PyObject** entry;
    };
    const Field fields[] = {{names.key, &entries.key},
                            {names.legs, &entries.legs},
                            {names.value, &entries.value},
                            {names.metadata, &entries.metadata}};
    for (const Field& field : fields) {
        if (name == field.name) return field.entry;
    }
    for (const Field& field : fields) {
        if (PyUnicode_Compare(name, field.name) == 0) return field.entry;
    }
    return nullptr;
}

bool is_empty_metadata(PyObject* metadata) noexcept {
    return metadata == Py_None || (PyDict_CheckExact(metadata) && PyDict_Size(metadata) == 0);
}

}  // namespace

bool is_plain_sequence(PyObject* object) noexcept {
    return PyTuple_CheckExact(object) || PyList_CheckExact(object);
}

bool is_plain_leg(PyObject* leg) noexcept {
    return PyTuple_CheckExact(leg) && PyTuple_GET_SIZE(leg) == 2 &&
           PyLong_CheckExact(PyTuple_GET_ITEM(leg, 0)) &&
           PyFloat_CheckExact(PyTuple_GET_ITEM(leg, 1));
}

bool are_plain_legs(PyObject* legs) noexcept {
    if (!PyTuple_CheckExact(legs)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        if (!is_plain_leg(PyTuple_GET_ITEM(legs, i))) return false;
    }
    return true;
}

bool is_plain_key(PyObject* key) noexcept {
    if (!PyTuple_CheckExact(key)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(key); ++i) {
        if (!is_plain_element(PyTuple_GET_ITEM(key, i))) return false;
    }
    return true;
}

std::optional<double> plain_float(PyObject* object) noexcept {
    if (PyFloat_CheckExact(object)) return PyFloat_AS_DOUBLE(object);
    if (Py_IS_TYPE(object, &PyDoubleArrType_Type)) {
        return reinterpret_cast<PyDoubleScalarObject*>(object)->obval;
    }
    if (PyLong_CheckExact(object)) {
        const double value = PyLong_AsDouble(object);
        if (value != -1.0 || PyErr_Occurred() == nullptr) return value;
        PyErr_Clear();  // too large: the conversion itself will say so
    }
    return std::nullopt;
}

bool is_plain_value(PyObject* object) noexcept {
    constexpr int deepest = 4;
    // NOLINTNEXTLINE(misc-no-recursion): as deep as that.
    const auto is_plain = [](auto&& self, PyObject* value, int depth) -> bool {
        if (is_plain_element(value) || is_plain_scalar(value)) return true;
        if (!PyTuple_CheckExact(value) || depth == deepest) return false;
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(value); ++i) {
            if (!self(self, PyTuple_GET_ITEM(value, i), depth + 1)) return false;
        }
        return true;
    };
    return is_plain(is_plain, object, 0);
}

Ref to_plain_legs(PyObject* legs) {
    if (are_plain_legs(legs)) return Ref::borrow(legs);
    if (!is_plain_sequence(legs)) return {};
    const Ref normalized = capi::make_list();
    for (Py_ssize_t i = 0; const Ref raw = element_of(legs, i); ++i) {
        const Ref leg = to_plain_leg(raw.get());
        if (!leg) return {};
        capi::append(normalized.get(), leg.get());
    }
    return require(PyList_AsTuple(normalized.get()));
}

bool read_plain_entries(const State& state, PyObject* raw, ItemEntries& entries) noexcept {
    PyObject* dict = PyDict_CheckExact(raw) ? raw : nullptr;
    if (Py_IS_TYPE(raw, state.module_guard.structure_class())) dict = instance_dict(raw);
    if (dict == nullptr) return false;
    // One walk over a few entries is quicker than four lookups, and compares with nobody's keys.
    Py_ssize_t position = 0;
    PyObject* name = nullptr;
    PyObject* entry = nullptr;
    while (PyDict_Next(dict, &position, &name, &entry) != 0) {
        if (!PyUnicode_CheckExact(name)) return false;
        if (PyObject** field = field_of(state.names, name, entries)) *field = entry;
    }
    if (entries.metadata != nullptr && is_empty_metadata(entries.metadata)) {
        entries.metadata = nullptr;
    }
    return entries.key != nullptr && entries.legs != nullptr;
}

bool has_plain_entries(PyObject* dict) noexcept {
    if (!PyDict_CheckExact(dict)) return false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(dict, &position, &key, &value) != 0) {
        if (!PyUnicode_CheckExact(key) || !is_plain_value(value)) return false;
    }
    return true;
}

bool says_only_inactive(const State& state, PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    return PyDict_Size(dict) == 1 && PyDict_Next(dict, &position, &key, &value) != 0 &&
           key == state.names.active && value == Py_False;
}

}  // namespace quorvane::virtualization
