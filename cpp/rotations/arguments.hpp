#pragma once

#include <optional>

#include "capi/message.hpp"

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

// The number of an exact int that fits; nothing for any other object.
inline std::optional<Py_ssize_t> plain_int(PyObject* object) noexcept {
    if (!PyLong_CheckExact(object)) return std::nullopt;
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) return std::nullopt;
    return static_cast<Py_ssize_t>(number);
}

}  // namespace quorvane::rotations
