#include "virtualization/fast/metadata_rewrite.hpp"

#include <algorithm>
#include <bit>

#include "virtualization/fast/fetch_ahead.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

bool MetadataRewrite::run(PyObject* given) {
    const Py_ssize_t slots = PyList_GET_SIZE(list_);
    std::array<Comparison, batch> compared;
    for (Py_ssize_t end = slots; end > 0; end -= batch) {
        fetch_dicts(given, end - 2 * batch);
        fetch_all_entries(given, end - batch);
        const Py_ssize_t count = std::min(batch, end);
        for (Py_ssize_t i = 0; i < count; ++i) {
            const Py_ssize_t slot = end - 1 - i;
            PyObject* dict = PyList_GET_ITEM(given, slot);
            if (!PyDict_CheckExact(dict)) return false;
            compare(PyList_GET_ITEM(list_, slot), dict, compared[static_cast<std::size_t>(i)]);
        }
        for (Py_ssize_t i = 0; i < count; ++i) {
            const Py_ssize_t slot = end - 1 - i;
            const Comparison& comparison = compared[static_cast<std::size_t>(i)];
            if (!comparison.has_same_words) {
                PyObject* dict = PyList_GET_ITEM(given, slot);
                // Copying a dict with gaps puts its keys in anew, and compares those of one hash.
                if (!has_text_keys(dict)) return false;
                replace_dict(slot, dict);
            } else if (comparison.differing != 0) {
                write_values(slot, comparison);
            }
        }
    }
    // A copy of the dictionary that holds the list would be somebody else who holds it.
    return Py_REFCNT(list_) == 1;
}

// Of the batch of slots below `end`, none when that is not above zero.
void MetadataRewrite::fetch_dicts(PyObject* given, Py_ssize_t end) const noexcept {
    for (Py_ssize_t slot = end; slot-- > std::max(end - batch, Py_ssize_t{0});) {
        fetch(PyList_GET_ITEM(list_, slot));
        fetch(PyList_GET_ITEM(given, slot));
    }
}

void MetadataRewrite::fetch_all_entries(PyObject* given, Py_ssize_t end) const noexcept {
    for (Py_ssize_t slot = end; slot-- > std::max(end - batch, Py_ssize_t{0});) {
        fetch_entries(PyList_GET_ITEM(list_, slot));
        fetch_entries(PyList_GET_ITEM(given, slot));
    }
}

void MetadataRewrite::compare(PyObject* dict, PyObject* given, Comparison& comparison) noexcept {
    comparison.has_same_words = false;
    comparison.differing = 0;
    if (Py_REFCNT(dict) != 1 || !PyDict_CheckExact(dict)) return;
    const Py_ssize_t size = PyDict_Size(dict);
    if (size > most_words || size != PyDict_Size(given)) return;
    Py_ssize_t own_position = 0;
    Py_ssize_t given_position = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(size); ++i) {
        Words words;
        Entry& entry = comparison.entries[i];
        PyDict_Next(dict, &own_position, &words.own, &entry.old_value);
        PyDict_Next(given, &given_position, &words.given, &entry.new_value);
        if (!is_same_word(i, words)) return;
        entry.word = words.own;
        if (entry.old_value == entry.new_value) continue;
        comparison.differing |= std::uint32_t{1} << i;
        fetch(entry.old_value);
        fetch(entry.new_value);
    }
    comparison.has_same_words = true;
}

void MetadataRewrite::write_values(Py_ssize_t slot, const Comparison& comparison) {
    make_room();
    PyObject* dict = PyList_GET_ITEM(list_, slot);
    changes_.push_back({static_cast<std::uint32_t>(slot), comparison.differing});
    for (std::uint32_t rest = comparison.differing; rest != 0; rest &= rest - 1) {
        const Entry& entry = comparison.entries[static_cast<std::size_t>(std::countr_zero(rest))];
        replaced_.push_back(Ref::borrow(entry.old_value));
    }
    for (std::uint32_t rest = comparison.differing; rest != 0; rest &= rest - 1) {
        const Entry& entry = comparison.entries[static_cast<std::size_t>(std::countr_zero(rest))];
        require(PyDict_SetItem(dict, entry.word, entry.new_value));
    }
}

void MetadataRewrite::replace_dict(Py_ssize_t slot, PyObject* given) {
    Ref copy = require(PyDict_Copy(given));
    make_room();
    PyObject** place = PySequence_Fast_ITEMS(list_) + slot;
    changes_.push_back({static_cast<std::uint32_t>(slot), whole_dict});
    replaced_.push_back(Ref::steal(*place));
    *place = copy.release();
}

bool MetadataRewrite::is_same_word(std::size_t position, const Words& words) noexcept {
    Words& known = same_words_[position];
    if (words.own == known.own && words.given == known.given) return true;
    if (!PyUnicode_CheckExact(words.own) || !PyUnicode_CheckExact(words.given) ||
        PyUnicode_Compare(words.own, words.given) != 0) {
        return false;
    }
    known = words;
    return true;
}

// So that noting a change, once it is made, cannot fail.
void MetadataRewrite::make_room() {
    if (changes_.size() == changes_.capacity()) changes_.reserve(2 * changes_.size() + 64);
    if (replaced_.size() + static_cast<std::size_t>(most_words) > replaced_.capacity()) {
        replaced_.reserve(2 * replaced_.size() + 256);
    }
}

void MetadataRewrite::release() { release_in_order(replaced_); }

void MetadataRewrite::undo() noexcept {
    if (changes_.empty()) return;
    const capi::KeptError reason;
    for (; !changes_.empty(); changes_.pop_back()) {
        const Change& change = changes_.back();
        if (change.mask == whole_dict) {
            PyObject** place = PySequence_Fast_ITEMS(list_) + change.slot;
            const Ref copy = Ref::steal(*place);
            *place = replaced_.back().release();
            replaced_.pop_back();
        } else {
            undo_values(change);
        }
    }
}

// Writing to a word that is there allocates nothing and so cannot fail.
void MetadataRewrite::undo_values(const Change& change) {
    PyObject* dict = PyList_GET_ITEM(list_, static_cast<Py_ssize_t>(change.slot));
    const auto count = static_cast<std::size_t>(std::popcount(change.mask));
    std::size_t next = replaced_.size() - count;
    Py_ssize_t position = 0;
    PyObject* word = nullptr;
    for (std::uint32_t rest = change.mask;
         rest != 0 && PyDict_Next(dict, &position, &word, nullptr) != 0; rest >>= 1) {
        if ((rest & 1) != 0) PyDict_SetItem(dict, word, replaced_[next++].get());
    }
    replaced_.resize(replaced_.size() - count);
}

}  // namespace quorvane::virtualization
