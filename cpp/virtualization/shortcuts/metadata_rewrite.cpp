#include "virtualization/shortcuts/metadata_rewrite.hpp"

#include "virtualization/shortcuts/fetch_ahead.hpp"

namespace quorvane::virtualization {

namespace {

constexpr Py_ssize_t distance = 8;

void fetch_values(PyObject* dict) noexcept {
    if (!PyDict_CheckExact(dict)) return;
    Py_ssize_t position = 0;
    PyObject* value = nullptr;
    while (PyDict_Next(dict, &position, nullptr, &value) != 0) fetch(value);
}

// The slots are visited downwards.
void fetch_slots_below(PyObject** own, PyObject** given, Py_ssize_t slot) noexcept {
    if (slot >= 3 * distance) {
        fetch(own[slot - 3 * distance]);
        fetch(given[slot - 3 * distance]);
    }
    if (slot >= 2 * distance) {
        fetch_entries(own[slot - 2 * distance]);
        fetch_entries(given[slot - 2 * distance]);
    }
    if (slot >= distance) {
        fetch_values(own[slot - distance]);
        fetch_values(given[slot - distance]);
    }
}

}  // namespace

bool MetadataRewrite::run(PyObject* given) {
    PyObject** own_dicts = PySequence_Fast_ITEMS(list_);
    PyObject** given_dicts = PySequence_Fast_ITEMS(given);
    for (Py_ssize_t slot = PyList_GET_SIZE(list_); slot-- > 0;) {
        fetch_slots_below(own_dicts, given_dicts, slot);
        PyObject* dict = given_dicts[slot];
        if (!PyDict_CheckExact(dict)) return false;
        const auto index = static_cast<std::uint32_t>(slot);
        if (!rewrite_values(index, own_dicts[slot], dict)) replace_dict(index, dict);
    }
    // A copy of the dictionary that holds the list would be somebody else who holds it.
    return Py_REFCNT(list_) == 1;
}

bool MetadataRewrite::rewrite_values(std::uint32_t slot, PyObject* dict, PyObject* given) {
    if (Py_REFCNT(dict) != 1 || !PyDict_CheckExact(dict)) return false;
    const auto size = static_cast<std::size_t>(PyDict_Size(dict));
    if (size > most_words || size != static_cast<std::size_t>(PyDict_Size(given))) return false;
    std::array<PyObject*, most_words> words{}, old_values{}, new_values{};
    Py_ssize_t own_position = 0;
    Py_ssize_t given_position = 0;
    for (std::size_t i = 0; i < size; ++i) {
        Words pair;
        PyDict_Next(dict, &own_position, &pair.own, &old_values[i]);
        PyDict_Next(given, &given_position, &pair.given, &new_values[i]);
        if (!is_same_word(i, pair)) return false;
        words[i] = pair.own;
    }
    std::uint32_t mask = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (old_values[i] != new_values[i]) mask |= std::uint32_t{1} << i;
    }
    if (mask == 0) return true;
    make_room();
    changes_.push_back({slot, mask});
    for (std::size_t i = 0; i < size; ++i) {
        if (old_values[i] != new_values[i]) replaced_.push_back(Ref::borrow(old_values[i]));
    }
    for (std::size_t i = 0; i < size; ++i) {
        if (old_values[i] != new_values[i]) require(PyDict_SetItem(dict, words[i], new_values[i]));
    }
    return true;
}

void MetadataRewrite::replace_dict(std::uint32_t slot, PyObject* given) {
    Ref copy = require(PyDict_Copy(given));
    make_room();
    PyObject** place = PySequence_Fast_ITEMS(list_) + slot;
    changes_.push_back({slot, whole_dict});
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
    if (replaced_.size() + most_words > replaced_.capacity()) {
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
    const auto count = static_cast<std::size_t>(__builtin_popcount(change.mask));
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
