#include "virtualization/cache/daily_words.hpp"

#include <algorithm>

namespace quorvane::virtualization {

namespace {

void set_entry(const Ref& dict, PyObject* word, PyObject* value) {
    require(PyDict_SetItem(dict.get(), word, value));
}

}  // namespace

bool is_same_word(PyObject* left, PyObject* right) noexcept {
    if (left == right) return true;
    if (PyUnicode_CHECK_INTERNED(left) != 0 && PyUnicode_CHECK_INTERNED(right) != 0) return false;
    return PyUnicode_Compare(left, right) == 0;
}

bool DailyWords::collect(const State& state, const ReportedStructure& structure) noexcept {
    const Names& names = state.names;
    Entry common[common_words] = {{names.key, structure.key},
                                  {names.legs, structure.legs},
                                  {names.slot, structure.slot_object},
                                  {names.active, boolean(structure.valid)}};
    if (structure.says_all) common[0].word = common[1].word = nullptr;
    size_ = 0;
    if (structure.own_metadata != nullptr) {
        if (static_cast<std::size_t>(PyDict_Size(structure.own_metadata)) > most_own_words) {
            return false;
        }
        Py_ssize_t position = 0;
        PyObject* word = nullptr;
        PyObject* value = nullptr;
        while (PyDict_Next(structure.own_metadata, &position, &word, &value) != 0) {
            for (std::size_t i = 0; i < common_words; ++i) {
                if (common[i].word == nullptr || !is_same_word(word, common[i].word)) continue;
                // The key and the legs are as the structure says them itself.
                if (i >= 2) value = common[i].value;
                common[i].word = nullptr;
                break;
            }
            add(word, value);
        }
    }
    for (const Entry& entry : common) {
        if (entry.word != nullptr) add(entry.word, entry.value);
    }
    return true;
}

bool says_only_common(const State& state, PyObject* metadata, PyObject* key,
                      PyObject* legs) noexcept {
    const DailyWords::Entry expected[] = {{state.names.key, key}, {state.names.legs, legs}};
    if (PyDict_Size(metadata) != 2) return false;
    Py_ssize_t position = 0;
    DailyWords::Entry said;
    return std::ranges::all_of(expected, [&](const DailyWords::Entry& entry) {
        PyDict_Next(metadata, &position, &said.word, &said.value);
        return said.word == entry.word && said.value == entry.value;
    });
}

Ref make_daily_metadata(const State& state, const ReportedStructure& structure) {
    const Names& names = state.names;
    PyObject* own = structure.own_metadata;
    Ref dict = own != nullptr ? require(PyDict_Copy(own)) : capi::make_dict();
    if (!structure.says_all) {
        set_default(dict.get(), names.key, structure.key);
        set_default(dict.get(), names.legs, structure.legs);
    }
    set_entry(dict, names.slot, structure.slot_object);
    set_entry(dict, names.active, boolean(structure.valid));
    return dict;
}

}  // namespace quorvane::virtualization
