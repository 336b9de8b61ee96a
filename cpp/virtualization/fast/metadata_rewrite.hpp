#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Makes a list of dicts say what other dicts say, as if each of its dicts were a new copy of the
// other one. A dict that nobody else holds and that has the same words in the same order is not
// made again: only the values that differ are written, and those that are already there stay.
// Everything that goes is held until release(), so nothing runs before that and every change can be
// undone; until keep() it is undone when the rewrite ends.
class MetadataRewrite {
public:
    // Nobody else holds `list`, an exact list. No Python code may run until keep().
    explicit MetadataRewrite(PyObject* list) noexcept : list_(list) {}
    MetadataRewrite(const MetadataRewrite&) = delete;
    MetadataRewrite& operator=(const MetadataRewrite&) = delete;
    ~MetadataRewrite() { undo(); }

    // False when an entry of the other list, which is as long, is no exact dict, or when somebody
    // would hold the list afterwards.
    bool run(PyObject* given);

    void keep() noexcept { changes_.clear(); }

    // Drops what was replaced, in the order in which dropping the old list would have done it.
    void release();

private:
    static constexpr Py_ssize_t most_words = 8;
    // So many slots are compared, and what they hold is fetched, before the first is written. The
    // slots are visited downwards.
    static constexpr Py_ssize_t batch = 16;
    static constexpr std::uint32_t whole_dict = std::uint32_t{1} << most_words;

    // What has been replaced at a slot: the whole dict, or the values of the words in the mask.
    struct Change {
        std::uint32_t slot;
        std::uint32_t mask;
    };
    struct Words {
        PyObject* own = nullptr;
        PyObject* given = nullptr;
    };

    // Which entries of a dict differ from those of the one that it is to be like.
    struct Entry {
        PyObject* word;
        PyObject* old_value;
        PyObject* new_value;
    };
    struct Comparison {
        bool has_same_words;
        std::uint32_t differing;  // by position
        std::array<Entry, most_words> entries;
    };

    void fetch_dicts(PyObject* given, Py_ssize_t end) const noexcept;
    void fetch_all_entries(PyObject* given, Py_ssize_t end) const noexcept;
    void compare(PyObject* dict, PyObject* given, Comparison& comparison) noexcept;
    void write_values(Py_ssize_t slot, const Comparison& comparison);
    void replace_dict(Py_ssize_t slot, PyObject* given);
    bool is_same_word(std::size_t position, const Words& words) noexcept;
    void make_room();
    void undo() noexcept;
    void undo_values(const Change& change);

    PyObject* list_;
    std::vector<Change> changes_;
    std::vector<Ref> replaced_;
    // Words found to be the same; nearly always they are the same objects in the next dict.
    std::array<Words, most_words> same_words_{};
};

}  // namespace quorvane::virtualization
