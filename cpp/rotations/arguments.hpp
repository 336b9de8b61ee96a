#pragma once

#include <optional>
#include <string>

#include "capi/message.hpp"
#include "capi/numpy.hpp"

namespace quorvane::rotations {

// The value of an argument that must be an int above zero and not a bool, as an exact int.
// TypeError and ValueError name the argument, what was got and what is `allowed`.
inline capi::Ref positive_int(const char* argument, PyObject* value, const char* allowed) {
    const bool integer = capi::is_integer(value);
    capi::Ref exact = integer ? capi::to_int(value) : capi::Ref();
    if (integer && capi::compare(exact.get(), capi::make_int(0).get(), Py_GT)) return exact;

    capi::Message message;
    message.text(argument).text(" must be ").text(allowed).text(", got ").repr(value);
    if (integer) message.raise(PyExc_ValueError);
    message.text(" of type ").text(Py_TYPE(value)->tp_name).raise(PyExc_TypeError);
}

// How many columns an exact positive int asks for. ValueError when no array could have so many.
inline Py_ssize_t column_count(const char* argument, PyObject* number) {
    constexpr auto most = PY_SSIZE_T_MAX / static_cast<Py_ssize_t>(sizeof(double));
    const Py_ssize_t count = PyLong_AsSsize_t(number);
    if (count >= 0 && count <= most) return count;
    PyErr_Clear();
    capi::Message()
        .text(argument)
        .text(" must be a number of columns that fits in memory, got ")
        .repr(number)
        .raise(PyExc_ValueError);
}

// The value of an argument that must be a real number and no bool, for which `is_allowed` holds.
// TypeError and ValueError name the argument, what was got and what is `allowed`.
template <class Predicate>
double number_where(const char* argument, PyObject* value, const char* allowed,
                    Predicate is_allowed) {
    const bool real = PyFloat_Check(value) || capi::is_integer(value);
    if (real) {
        const double number = PyFloat_AsDouble(value);
        if (number == -1.0 && PyErr_Occurred() != nullptr) {
            if (PyErr_ExceptionMatches(PyExc_OverflowError) == 0) throw capi::PythonError();
            PyErr_Clear();
        } else if (is_allowed(number)) {
            return number;
        }
    }
    capi::Message message;
    message.text(argument).text(" must be ").text(allowed).text(", got ").repr(value);
    if (real) message.raise(PyExc_ValueError);
    message.text(" of type ").text(Py_TYPE(value)->tp_name).raise(PyExc_TypeError);
}

// A whole number from `least` to `most`, as a size; TypeError and ValueError otherwise.
inline std::size_t whole_number(const char* argument, PyObject* value, std::size_t least,
                                std::size_t most) {
    const std::string allowed =
        "an int from " + std::to_string(least) + " to " + std::to_string(most);
    if (!capi::is_integer(value)) positive_int(argument, value, allowed.c_str());
    return static_cast<std::size_t>(
        number_where(argument, value, allowed.c_str(), [&](double number) {
            return number >= static_cast<double>(least) && number <= static_cast<double>(most);
        }));
}

// What a parameter is for a history: an object that runs nobody's code when it is looked at.
inline bool is_plain_parameter(PyObject* value) noexcept {
    return value != nullptr &&
           (capi::is_none(value) || PyUnicode_CheckExact(value) || PyLong_CheckExact(value) ||
            PyFloat_CheckExact(value) || PyArray_CheckExact(value));
}

// The number of an exact int that fits; nothing for any other object.
inline std::optional<Py_ssize_t> plain_int(PyObject* object) noexcept {
    if (!PyLong_CheckExact(object)) return std::nullopt;
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) return std::nullopt;
    return static_cast<Py_ssize_t>(number);
}

}  // namespace quorvane::rotations
