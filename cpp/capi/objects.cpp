#include "capi/objects.hpp"

namespace quorvane::capi {

Ref optional_attr(PyObject* object, PyObject* name) {
    PyObject* value = nullptr;
#if PY_VERSION_HEX >= 0x030D0000
    require(PyObject_GetOptionalAttr(object, name, &value));
#else
    require(_PyObject_LookupAttr(object, name, &value));
#endif
    return Ref::steal(value);
}

PyObject* instance_dict(PyObject* object) noexcept {
    PyObject** place = _PyObject_GetDictPtr(object);
    return place == nullptr ? nullptr : *place;
}

Ref slice_of(PyObject* object, PyObject* start, PyObject* stop) {
    const Ref slice = require(PySlice_New(start, stop, nullptr));
    return item(object, slice.get());
}

Ref dict_get(PyObject* dict, PyObject* key) { return Ref::borrow(dict_peek(dict, key)); }

bool compare(PyObject* left, PyObject* right, int operation) {
    return truth(require(PyObject_RichCompare(left, right, operation)).get());
}

Ref to_dict(PyObject* object) {
    if (!PyDict_CheckExact(object)) {
        return require(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), object));
    }
    // Not PyDict_Copy, which knows more cases in which keys need not be compared.
    Ref copy = make_dict();
    require(PyDict_Update(copy.get(), object));
    return copy;
}

namespace {

// __import__(name, ..., names): through the builtin, which programs may have replaced.
Ref run_import(const char* name, PyObject* names) {
    const Ref hook = item(PyEval_GetBuiltins(), make_str("__import__").get());
    const Ref level = make_int(0);
    const Ref globals = make_dict();
    return call(hook.get(), make_str(name).get(), globals.get(), globals.get(), names, level.get());
}

}  // namespace

Ref import_module(const char* name) { return run_import(name, Py_None); }

Ref import_from(const char* module, const char* name) {
    // As the statement does: the attribute, else a submodule that is still being imported.
    const Ref key = make_str(name);
    const Ref imported = run_import(module, make_tuple(key.get()).get());
    if (Ref found = optional_attr(imported.get(), key.get())) return found;
    const Ref dotted = require(PyUnicode_FromFormat("%s.%s", module, name));
    if (Ref found = Ref::steal(PyImport_GetModule(dotted.get()))) return found;
    const Ref module_name = make_str(module);
    Ref path = Ref::steal(PyModule_GetFilenameObject(imported.get()));
    if (!path) PyErr_Clear();
    const Ref text =
        require(PyUnicode_FromFormat("cannot import name %R from %R (%V)", key.get(),
                                     module_name.get(), path.get(), "unknown location"));
    PyErr_SetImportError(text.get(), module_name.get(), path.get());
    throw PythonError();
}

void Iteration::set_iterator_position() {
    // What unpickling such an iterator uses.
    require(PyObject_CallMethod(source_.get(), "__setstate__", "n", position_));
}

namespace {

Pair pair_of(PyObject* first, PyObject* second) {
    return {Ref::borrow(first), Ref::borrow(second)};
}

[[noreturn]] void raise_not_unpackable(PyObject* object) {
    // Only a type that cannot be iterated at all gets this text; an error of __iter__ is kept.
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(object)->tp_iter == nullptr &&
        !PySequence_Check(object)) {
        PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                     Py_TYPE(object)->tp_name);
    }
    throw PythonError();
}

}  // namespace

Pair unpack_pair(PyObject* object) {
    if (PyTuple_CheckExact(object) && PyTuple_GET_SIZE(object) == 2) {
        return pair_of(PyTuple_GET_ITEM(object, 0), PyTuple_GET_ITEM(object, 1));
    }
    if (PyList_CheckExact(object) && PyList_GET_SIZE(object) == 2) {
        return pair_of(PyList_GET_ITEM(object, 0), PyList_GET_ITEM(object, 1));
    }
    Ref parts[2];
    unpack(object, parts, 2);
    return {std::move(parts[0]), std::move(parts[1])};
}

namespace {

// Python 3.14 and later tell the number of values where asking for it runs no code.
[[noreturn]] void raise_too_many(PyObject* object, Py_ssize_t count) {
#if PY_VERSION_HEX >= 0x030E0000
    Py_ssize_t got = 0;
    if (PyTuple_CheckExact(object) || PyList_CheckExact(object)) got = Py_SIZE(object);
    if (PyDict_CheckExact(object)) got = PyDict_Size(object);
    if (got > count) {
        PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zd, got %zd)", count,
                     got);
        throw PythonError();
    }
#else
    static_cast<void>(object);
#endif
    PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zd)", count);
    throw PythonError();
}

}  // namespace

void unpack(PyObject* object, Ref* parts, Py_ssize_t count) {
    const Ref iterator = Ref::steal(PyObject_GetIter(object));
    if (!iterator) raise_not_unpackable(object);
    for (Py_ssize_t got = 0; got < count; ++got) {
        parts[got] = Ref::steal(PyIter_Next(iterator.get()));
        if (parts[got]) continue;
        if (PyErr_Occurred() == nullptr) {
            PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)",
                         count, got);
        }
        throw PythonError();
    }
    Ref surplus = Ref::steal(PyIter_Next(iterator.get()));
    if (surplus) {
        // What dropping it changes, the error tells.
        surplus = Ref();
        raise_too_many(object, count);
    }
    if (PyErr_Occurred() != nullptr) throw PythonError();
}

}  // namespace quorvane::capi
