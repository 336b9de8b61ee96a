#pragma once

#include <array>

#include "virtualization/cache/metadata_cache.hpp"

namespace quorvane::virtualization {

// What a slot's metadata says on the day of a structure, in order: its own words, of which the slot
// and whether it is active are always the day's, and then what it has not said itself.
class DailyWords {
public:
    struct Entry {
        PyObject* word;
        PyObject* value;
    };

    static constexpr std::size_t capacity = 12;

    // False when there are more words than are worth comparing.
    bool collect(const State& state, const ReportedStructure& structure) noexcept;

    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] const Entry& operator[](std::size_t i) const noexcept { return entries_[i]; }

private:
    void add(PyObject* word, PyObject* value) noexcept { entries_[size_++] = {word, value}; }

    static constexpr std::size_t common_words = 4;
    static constexpr std::size_t most_own_words = capacity - common_words;

    std::array<Entry, capacity> entries_;
    std::size_t size_ = 0;
};

// The object that says so; it never goes.
inline PyObject* boolean(bool value) noexcept { return value ? Py_True : Py_False; }

// Equal strings. Nearly always they are the same object, and interned ones that differ are not.
bool is_same_word(PyObject* left, PyObject* right) noexcept;

// A structure's metadata that says its key and its legs, and nothing of its own.
bool says_only_common(const State& state, PyObject* metadata, PyObject* key,
                      PyObject* legs) noexcept;

// The dict of a new day's structure, as the steps make it.
Ref make_daily_metadata(const State& state, const ReportedStructure& structure);

}  // namespace quorvane::virtualization
