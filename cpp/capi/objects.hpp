#pragma once

// What Python expressions mean, under short names: attribute access, subscription, calls, truth and
// the builtin conversions. Each raises what the expression would raise.

#include <cstddef>

#include "capi/error.hpp"

namespace quorvane::capi {

// ---- attributes --------------------------------------------------------------------------------

// object.name
inline Ref attr(PyObject* object, PyObject* name) {
    return require(PyObject_GetAttr(object, name));
}

// getattr(object, name, None-as-empty): empty when, and only when, AttributeError is raised.
Ref optional_attr(PyObject* object, PyObject* name);

// hasattr(object, name)
inline bool has_attr(PyObject* object, PyObject* name) {
    return static_cast<bool>(optional_attr(object, name));
}

// object.name = value
inline void set_attr(PyObject* object, PyObject* name, PyObject* value) {
    require(PyObject_SetAttr(object, name, value));
}

// The instance's own dictionary, or null; never runs Python code.
PyObject* instance_dict(PyObject* object) noexcept;

// ---- subscription ------------------------------------------------------------------------------

// object[key]
inline Ref item(PyObject* object, PyObject* key) { return require(PyObject_GetItem(object, key)); }

// object[key] = value
inline void set_item(PyObject* object, PyObject* key, PyObject* value) {
    require(PyObject_SetItem(object, key, value));
}

// object[start:stop], an empty bound being None
Ref slice_of(PyObject* object, PyObject* start, PyObject* stop);

// mapping.get(key) of an exact dict; empty when the key is absent.
Ref dict_get(PyObject* dict, PyObject* key);

// The same, borrowed; null when the key is absent.
inline PyObject* dict_peek(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred() != nullptr) throw PythonError();
    return value;
}

// dict.setdefault(key, value) of an exact dict
inline void set_default(PyObject* dict, PyObject* key, PyObject* value) {
    if (PyDict_SetDefault(dict, key, value) == nullptr) throw PythonError();
}

// ---- calls -------------------------------------------------------------------------------------

// callable(arguments...)
template <class... Arguments>
Ref call(PyObject* callable, const Arguments&... arguments) {
    PyObject* stack[] = {nullptr, arguments...};
    return require(PyObject_Vectorcall(
        callable, stack + 1, sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// callable(positional..., name=value...): the last len(names) arguments are the keywords' values.
template <class... Arguments>
Ref call_with_keywords(PyObject* callable, PyObject* names, const Arguments&... arguments) {
    PyObject* stack[] = {nullptr, arguments...};
    const auto keywords = static_cast<std::size_t>(PyTuple_GET_SIZE(names));
    return require(PyObject_Vectorcall(
        callable, stack + 1, (sizeof...(Arguments) - keywords) | PY_VECTORCALL_ARGUMENTS_OFFSET,
        names));
}

// object.name(arguments...), without making the bound method. The method is looked up when the
// arguments are already there; where evaluating them can run Python code, use attr() and call().
template <class... Arguments>
Ref call_method(PyObject* object, PyObject* name, const Arguments&... arguments) {
    PyObject* stack[] = {nullptr, object, arguments...};
    return require(PyObject_VectorcallMethod(
        name, stack + 1, (sizeof...(Arguments) + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// ---- truth and comparison ----------------------------------------------------------------------

// bool(object)
inline bool truth(PyObject* object) {
    if (object == Py_True) return true;
    if (object == Py_False || object == Py_None) return false;
    return require(PyObject_IsTrue(object)) != 0;
}

// bool(left <op> right) with no shortcut for identical objects, as the operators have none.
bool compare(PyObject* left, PyObject* right, int operation);

// key in container
inline bool contains(PyObject* container, PyObject* key) {
    return require(PySequence_Contains(container, key)) != 0;
}

inline bool is_none(PyObject* object) noexcept { return object == Py_None; }

// isinstance(object, type), which also believes what an object says of its class.
inline bool is_instance(PyObject* object, PyTypeObject& type) {
    if (Py_IS_TYPE(object, &type)) return true;
    return require(PyObject_IsInstance(object, reinterpret_cast<PyObject*>(&type))) != 0;
}

// isinstance(object, int) and not isinstance(object, bool)
inline bool is_integer(PyObject* object) {
    if (PyLong_CheckExact(object)) return true;
    return is_instance(object, PyLong_Type) && !is_instance(object, PyBool_Type);
}

// ---- conversions -------------------------------------------------------------------------------

// int(object), float(object), tuple(object), list(object), dict(object), len(object), str(object)
inline Ref to_int(PyObject* object) { return require(PyNumber_Long(object)); }
inline Ref to_float(PyObject* object) { return require(PyNumber_Float(object)); }
inline Ref to_tuple(PyObject* object) { return require(PySequence_Tuple(object)); }
inline Ref to_list(PyObject* object) { return require(PySequence_List(object)); }
Ref to_dict(PyObject* object);
inline Py_ssize_t length(PyObject* object) { return require(PyObject_Size(object)); }
inline Ref to_str(PyObject* object) { return require(PyObject_Str(object)); }
inline Ref to_repr(PyObject* object) { return require(PyObject_Repr(object)); }
inline Ref to_bool(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

inline Ref make_int(Py_ssize_t value) { return require(PyLong_FromSsize_t(value)); }
inline Ref make_float(double value) { return require(PyFloat_FromDouble(value)); }
inline Ref make_str(const char* text) { return require(PyUnicode_FromString(text)); }
inline Ref make_dict() { return require(PyDict_New()); }
inline Ref make_list(Py_ssize_t size = 0) { return require(PyList_New(size)); }

// (items...)
template <class... Items>
Ref make_tuple(const Items&... items) {
    return require(
        PyTuple_Pack(static_cast<Py_ssize_t>(sizeof...(Items)), static_cast<PyObject*>(items)...));
}

inline void append(PyObject* list, PyObject* element) { require(PyList_Append(list, element)); }

// import name, of a name without dots
Ref import_module(const char* name);

// from module import name
Ref import_from(const char* module, const char* name);

// ---- iteration ---------------------------------------------------------------------------------

// for element in iterable: the elements are asked for one by one, as the loop goes on. Nobody gets
// to see the iterator of an exact list or tuple, so there a position does. A position above 0, as
// if so many elements had been asked for, is for these and for the interpreter's own iterator over
// anything with __getitem__.
class Iteration {
public:
    explicit Iteration(PyObject* iterable, Py_ssize_t position = 0)
        : position_(position),
          is_sequence_(PyList_CheckExact(iterable) || PyTuple_CheckExact(iterable)),
          source_(is_sequence_ ? Ref::borrow(iterable) : require(PyObject_GetIter(iterable))) {
        if (position > 0 && !is_sequence_) set_iterator_position();
    }

    // The next element; empty at the end.
    Ref next() { return is_sequence_ ? next_of_sequence() : next_of_iterator(); }

    // The same into the loop's variable, which lives until the next element is there, and after the
    // loop. False at the end.
    bool next(Ref& variable) {
        Ref element = next();
        if (!element) return false;
        variable = std::move(element);
        return true;
    }

private:
    Ref next_of_iterator() {
        Ref element = Ref::steal(PyIter_Next(source_.get()));
        if (!element && PyErr_Occurred() != nullptr) throw PythonError();
        return element;
    }

    // The list may have changed since the last element; at the end it is let go.
    Ref next_of_sequence() {
        if (source_ && position_ < PySequence_Fast_GET_SIZE(source_.get())) {
            return Ref::borrow(PySequence_Fast_GET_ITEM(source_.get(), position_++));
        }
        source_ = Ref();
        return {};
    }

    void set_iterator_position();

    Py_ssize_t position_;
    bool is_sequence_;
    Ref source_;
};

// for first, second in zip(...): both variables change when both elements are there.
inline bool next_pair(Iteration& firsts, Ref& first, Iteration& seconds, Ref& second) {
    Ref next_first = firsts.next();
    if (!next_first) return false;
    Ref next_second = seconds.next();
    if (!next_second) return false;
    first = std::move(next_first);
    second = std::move(next_second);
    return true;
}

// parts... = object: unpacks exactly `count`, by ordinary iteration, with the interpreter's errors.
void unpack(PyObject* object, Ref* parts, Py_ssize_t count);

// first, second = object: unpacks exactly two, by ordinary iteration, with the interpreter's
// errors.
struct Pair {
    Ref first, second;
};
Pair unpack_pair(PyObject* object);

}  // namespace quorvane::capi
