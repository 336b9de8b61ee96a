#pragma once

#include <exception>
#include <new>
#include <utility>

#include "capi/ref.hpp"

namespace quorvane::capi {

// Thrown when a C API call failed. The error itself stays where the interpreter put it, with its
// identity, traceback and context; this only unwinds the C++ stack to the nearest guarded().
class PythonError final : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "a Python error is set"; }
};

// The result of a C API call that returns a new reference, or the error that it set.
inline Ref require(PyObject* new_reference) {
    if (new_reference == nullptr) throw PythonError();
    return Ref::steal(new_reference);
}

// The status of a C API call that returns -1 with an error set.
inline int require(int status) {
    if (status < 0) throw PythonError();
    return status;
}

inline Py_ssize_t require(Py_ssize_t size) {
    if (size < 0) throw PythonError();
    return size;
}

[[noreturn]] void raise(PyObject* type, const char* text);

// raise type(argument), with the argument as the exception's single argument.
[[noreturn]] void raise(PyObject* type, PyObject* argument);

void set_error_from_cpp_exception() noexcept;

// The boundary between C++ and the interpreter: runs the body, hands its Ref over as a new
// reference, and turns whatever was thrown into the Python error.
template <class Body>
PyObject* guarded(Body&& body) noexcept {
    try {
        return std::forward<Body>(body)().release();
    } catch (...) {
        set_error_from_cpp_exception();
        return nullptr;
    }
}

// The same for slots that answer with a status.
template <class Body>
int guarded_status(Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
        return 0;
    } catch (...) {
        set_error_from_cpp_exception();
        return -1;
    }
}

// Takes the current error out of the interpreter; rethrow() puts the very same one back.
class FetchedError {
public:
    FetchedError();
    [[nodiscard]] PyObject* value() const noexcept { return value_.get(); }
    [[nodiscard]] Ref take() noexcept { return std::move(value_); }
    [[noreturn]] void rethrow();

private:
    Ref value_;
};

// Keeps the current error, if there is one, aside while it lives.
class KeptError {
public:
    KeptError();
    KeptError(const KeptError&) = delete;
    KeptError& operator=(const KeptError&) = delete;
    ~KeptError();

private:
    Ref value_;
};

// What `except` and `finally` bodies are in Python: while it lives, the current error is the one
// being handled, so sys.exc_info() shows it and an error raised meanwhile gets it as __context__.
class HandledError {
public:
    HandledError();
    HandledError(const HandledError&) = delete;
    HandledError& operator=(const HandledError&) = delete;
    ~HandledError();

    [[nodiscard]] PyObject* value() const noexcept { return error_.value(); }
    [[noreturn]] void rethrow() { error_.rethrow(); }

private:
    FetchedError error_;
    Ref outer_type_, outer_value_, outer_traceback_;
};

}  // namespace quorvane::capi
