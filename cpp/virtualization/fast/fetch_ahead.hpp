#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "capi/ref.hpp"

namespace quorvane::virtualization {

// A large state is scattered over more memory than any cache holds, and each object names the next
// one to look at. Asking for many of them before the first is needed lets them arrive together.
// Nothing here changes or makes anything.

inline void fetch(const void* place) noexcept { __builtin_prefetch(place, 1); }

// What an exact tuple holds.
inline void fetch_elements(PyObject* object) noexcept {
    if (!PyTuple_CheckExact(object)) return;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(object); ++i) fetch(PyTuple_GET_ITEM(object, i));
}

// What the elements of an exact tuple hold in their turn.
inline void fetch_parts(PyObject* object) noexcept {
    if (!PyTuple_CheckExact(object)) return;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(object); ++i) {
        fetch_elements(PyTuple_GET_ITEM(object, i));
    }
}

// Where an exact dict keeps its first entries.
inline void fetch_entries(PyObject* object) noexcept {
    if (!PyDict_CheckExact(object)) return;
    const auto* keys =
        reinterpret_cast<const char*>(reinterpret_cast<PyDictObject*>(object)->ma_keys);
    fetch(keys);
    fetch(keys + 64);
}

// Some entries of an exact dict at a time, with their keys and values asked for. Walking it makes
// nothing and so runs nothing.
class EntryBatches {
public:
    explicit EntryBatches(PyObject* dict) noexcept : dict_(dict) {}

    bool next() noexcept {
        size_ = 0;
        while (size_ < capacity &&
               PyDict_Next(dict_, &position_, &keys_[size_], &values_[size_]) != 0) {
            fetch(keys_[size_]);
            fetch(values_[size_]);
            ++size_;
        }
        return size_ != 0;
    }

    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] PyObject* key(std::size_t i) const noexcept { return keys_[i]; }
    [[nodiscard]] PyObject* value(std::size_t i) const noexcept { return values_[i]; }

private:
    static constexpr std::size_t capacity = 16;

    PyObject* dict_;
    Py_ssize_t position_ = 0;
    std::size_t size_ = 0;
    std::array<PyObject*, capacity> keys_{}, values_{};
};

// Drops the references from the first to the last; dropping the last one of an object may run code.
inline void release_in_order(std::vector<capi::Ref>& references) {
    constexpr std::size_t distance = 8;
    const std::size_t count = references.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (i + 3 * distance < count) fetch(references[i + 3 * distance].get());
        if (i + 2 * distance < count) fetch_elements(references[i + 2 * distance].get());
        if (i + distance < count) fetch_parts(references[i + distance].get());
        references[i] = capi::Ref();
    }
    references.clear();
}

}  // namespace quorvane::virtualization
