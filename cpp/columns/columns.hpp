#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "capi/error.hpp"

// A day's structures as columns: one object instead of one dict per structure. The type lives in an
// extension module of its own; the rotations' module only has to recognise it.
namespace quorvane::columns {

// The legs of all structures, laid out flat. Common to all days that report the same structures.
// Offsets and ids take 32 bits: every day they are read once more.
struct Layout {
    std::vector<std::int32_t> offsets;  // structure i has the legs offsets[i] to offsets[i + 1] - 1
    std::vector<std::int32_t> leg_ids;
    std::vector<double> weights;
    std::int32_t lowest_id = 0;
    std::int32_t highest_id = -1;
};

struct Columns {
    capi::Ref keys;    // a tuple of tuples
    capi::Ref legs;    // a tuple of tuples of (int, float)
    capi::Ref values;  // an exact array of float64, maybe the caller's own
    std::shared_ptr<const Layout> layout;
};

struct Object {
    PyObject_HEAD
    alignas(Columns) std::byte content[sizeof(Columns)];
};

inline Columns& columns_of(PyObject* object) noexcept {
    return *std::launder(reinterpret_cast<Columns*>(reinterpret_cast<Object*>(object)->content));
}

// How another extension module knows the type: a capsule among the type's attributes. Neither the
// capsule nor such a type can be made in Python, and a capsule says whose it is.
struct Passport {
    PyTypeObject* type;
    std::size_t object_size;
};
inline constexpr const char* passport_attribute = "_passport";
inline constexpr const char* passport_name = "quorvane.columns.1";

// The columns of an object of this very type; null for any other object. Runs no Python code.
inline const Columns* as_columns(PyObject* object, PyObject* interned_passport_attribute) noexcept {
    PyTypeObject* type = Py_TYPE(object);
    if (!PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE)) return nullptr;
    PyObject* capsule = _PyType_Lookup(type, interned_passport_attribute);
    if (capsule == nullptr || !PyCapsule_IsValid(capsule, passport_name)) return nullptr;
    const auto* passport =
        static_cast<const Passport*>(PyCapsule_GetPointer(capsule, passport_name));
    const bool is_own = passport->type == type && passport->object_size == sizeof(Object);
    return is_own ? &columns_of(object) : nullptr;
}

}  // namespace quorvane::columns
