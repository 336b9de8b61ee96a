#pragma once

#include <utility>

#include "capi/python.hpp"

namespace quorvane::capi {

// Ownership, said once for the whole core:
//   * a Ref owns one reference, or is empty;
//   * a PyObject* parameter is borrowed: the caller keeps it alive for the whole call;
//   * a function that gives an object away returns a Ref, never a PyObject*.
// Assigning to a Ref drops the old object last, when the Ref already holds the new one, because
// dropping an object can run any Python code.
class Ref {
public:
    Ref() noexcept = default;
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;

    Ref& operator=(Ref&& other) noexcept {
        Ref old = std::move(*this);
        object_ = std::exchange(other.object_, nullptr);
        return *this;
    }

    ~Ref() { Py_XDECREF(object_); }

    // Takes over a reference that the caller owns (the result of most C API calls).
    static Ref steal(PyObject* owned) noexcept { return Ref(owned); }

    // Adds a reference to an object that somebody else owns.
    static Ref borrow(PyObject* borrowed) noexcept { return Ref(Py_XNewRef(borrowed)); }

    [[nodiscard]] PyObject* get() const noexcept { return object_; }
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    [[nodiscard]] Ref share() const noexcept { return borrow(object_); }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    explicit Ref(PyObject* owned) noexcept : object_(owned) {}

    PyObject* object_ = nullptr;
};

inline Ref none() noexcept { return Ref::borrow(Py_None); }

}  // namespace quorvane::capi
