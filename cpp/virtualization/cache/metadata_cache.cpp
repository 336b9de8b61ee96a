#include "virtualization/cache/metadata_cache.hpp"

#include <algorithm>

#include "virtualization/cache/daily_words.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

PyObject* entry_of(PyObject* list, std::size_t slot) noexcept {
    return PyList_GET_ITEM(list, static_cast<Py_ssize_t>(slot));
}

}  // namespace

void MetadataCache::forget() {
    dicts_.reset(0);
    entries_.clear();
    aside_.clear();
    active_.clear();
    ++day_;
}

void MetadataCache::expect_other_slots() noexcept {
    aside_.clear();
    for (const std::uint32_t slot : active_) entries_[slot].has_own_words = true;
}

void MetadataCache::find_unknown(PyObject* metadata_by_slot) {
    const auto slots = static_cast<std::size_t>(PyList_GET_SIZE(metadata_by_slot));
    if (dicts_.size() != slots) {
        forget();
        entries_.resize(slots);
        dicts_.reset(slots);
    }
    dicts_.find_unknown(PySequence_Fast_ITEMS(metadata_by_slot), unknown_);
    if (!unknown_.empty()) ++day_;
}

bool MetadataCache::settle(const State& state, PyObject* metadata_by_slot) {
    find_unknown(metadata_by_slot);
    for (const std::uint32_t slot : unknown_) {
        if (!can_reset(state, entry_of(metadata_by_slot, slot))) return false;
    }
    list_ = metadata_by_slot;
    for (const std::uint32_t slot : unknown_) take(state, slot);
    list_ = nullptr;
    return true;
}

bool MetadataCache::adopt_reset(const State& state, PyObject* metadata_by_slot) {
    // One that still says yesterday's was not in the list while that was reset.
    for (const std::uint32_t slot : active_) {
        if (entries_[slot].key != nullptr) dicts_.forget(slot);
    }
    active_.clear();
    ++day_;
    find_unknown(metadata_by_slot);
    bool all = true;
    for (const std::uint32_t slot : unknown_) {
        PyObject* entry = entry_of(metadata_by_slot, slot);
        entries_[slot] = Entries{};
        if (PyDict_CheckExact(entry) && dicts_.can_know(entry) &&
            says_only_inactive(state, entry)) {
            dicts_.know(slot, entry);
        } else {
            all = false;
        }
    }
    return all;
}

bool MetadataCache::can_reset(const State& state, PyObject* entry) const {
    return PyDict_CheckExact(entry) && dicts_.can_know(entry) &&
           (says_only_inactive(state, entry) || has_plain_entries(entry));
}

void MetadataCache::take(const State& state, std::size_t slot) {
    PyObject* dict = dict_of(slot);
    entries_[slot] = Entries{};
    if (!says_only_inactive(state, dict)) {
        PyDict_Clear(dict);
        require(PyDict_SetItem(dict, state.names.active, Py_False));
    }
    dicts_.know(slot, dict);
}

void MetadataCache::begin_day(PyObject* metadata_by_slot) noexcept {
    list_ = metadata_by_slot;
    ++day_;
    active_before_.swap(active_);
    active_.clear();
}

void MetadataCache::report(const State& state, const ReportedStructure& structure) {
    const std::size_t slot = structure.slot;
    PyObject* dict = dict_of(slot);
    Entries& entries = entries_[slot];
    if (!dicts_.knows(slot, dict)) {
        replace(state, structure);
    } else if (Py_REFCNT(dict) != 1) {
        // Whoever else holds yesterday's dict sees it reset.
        if (entries.key != nullptr && entries.day != day_) deactivate(state, slot);
        replace(state, structure);
    } else {
        if (entries.key == nullptr && !structure.has_own_words() && take_back(slot)) {
            dict = dict_of(slot);
        }
        if (entries.key == nullptr || !rewrite(state, dict, structure)) {
            fill(state, dict, structure);
        }
    }
    if (entries.day != day_) {
        entries.day = day_;
        active_.push_back(static_cast<std::uint32_t>(slot));
    }
}

void MetadataCache::end_day(const State& state) {
    for (const std::uint32_t slot : active_before_) {
        if (entries_[slot].day != day_ && entries_[slot].key != nullptr) deactivate(state, slot);
    }
    active_before_.clear();
    list_ = nullptr;
}

void MetadataCache::reset_day(const State& state, PyObject* metadata_by_slot) {
    begin_day(metadata_by_slot);
    end_day(state);
}

bool MetadataCache::can_report(const State& state, PyObject* metadata_by_slot,
                               std::size_t slot) const {
    if (std::cmp_greater_equal(slot, PyList_GET_SIZE(metadata_by_slot)) ||
        slot >= entries_.size()) {
        return false;
    }
    PyObject* entry = entry_of(metadata_by_slot, slot);
    return dicts_.knows(slot, entry) ||
           (PyDict_CheckExact(entry) && says_only_inactive(state, entry));
}

void MetadataCache::report_alone(const State& state, PyObject* metadata_by_slot,
                                 const ReportedStructure& structure) {
    list_ = metadata_by_slot;
    report(state, structure);
    list_ = nullptr;
}

bool MetadataCache::are_alone(PyObject* metadata_by_slot) const noexcept {
    constexpr std::size_t ahead = 16;
    bool alone = true;
    for (std::size_t i = 0; i < active_.size(); ++i) {
        if (i + ahead < active_.size()) {
            __builtin_prefetch(entry_of(metadata_by_slot, active_[i + ahead]));
        }
        alone &= Py_REFCNT(entry_of(metadata_by_slot, active_[i])) == 1;
    }
    return alone;
}

void MetadataCache::find_changed(std::span<const std::uint8_t> valid) {
    changed_.resize(active_.size());
    std::size_t count = 0;
    for (std::uint32_t position = 0; position < active_.size(); ++position) {
        changed_[count] = position;
        count +=
            static_cast<std::size_t>((valid[position] != 0) != entries_[active_[position]].valid);
    }
    changed_.resize(count);
}

// A dict's entries lie apart from it: a head, an index and up to five entries of 24 bytes.
void MetadataCache::prefetch_contents(std::size_t slot) const noexcept {
    const auto* dict = reinterpret_cast<const PyDictObject*>(dict_of(slot));
    const auto* entries = reinterpret_cast<const char*>(dict->ma_keys);
    for (std::size_t line = 0; line < 3; ++line) __builtin_prefetch(entries + 64 * line);
}

// Which dicts are to be written is known beforehand, so each is fetched while others are written.
// Each has the entry already: replacing its value needs no memory.
void MetadataCache::report_again(const State& state, PyObject* metadata_by_slot,
                                 std::span<const std::uint8_t> valid) {
    list_ = metadata_by_slot;
    constexpr std::size_t far_ahead = 16;
    constexpr std::size_t ahead = 8;
    for (std::size_t i = 0; i < changed_.size(); ++i) {
        if (i + far_ahead < changed_.size()) prefetch(active_[changed_[i + far_ahead]]);
        if (i + ahead < changed_.size()) prefetch_contents(active_[changed_[i + ahead]]);
        const std::uint32_t slot = active_[changed_[i]];
        const bool is_valid = valid[changed_[i]] != 0;
        dicts_.set_item(slot, dict_of(slot), state.names.active, boolean(is_valid));
        entries_[slot].valid = is_valid;
    }
    list_ = nullptr;
}

// Only what differs is written; the entries keep their order. False, with nothing written, when the
// dict has other words.
bool MetadataCache::rewrite(const State& state, PyObject* dict,
                            const ReportedStructure& structure) {
    const Names& names = state.names;
    const std::size_t slot = structure.slot;
    const Entries& entries = entries_[slot];
    if (entries.has_own_words || structure.has_own_words()) {
        return rewrite_own_words(state, dict, structure);
    }
    if (entries.key != structure.key) dicts_.set_item(slot, dict, names.key, structure.key);
    if (entries.legs != structure.legs) dicts_.set_item(slot, dict, names.legs, structure.legs);
    if (entries.valid != structure.valid) {
        dicts_.set_item(slot, dict, names.active, boolean(structure.valid));
    }
    note(structure);
    return true;
}

bool MetadataCache::rewrite_own_words(const State& state, PyObject* dict,
                                      const ReportedStructure& structure) {
    DailyWords words;
    if (!words.collect(state, structure) ||
        static_cast<std::size_t>(PyDict_Size(dict)) != words.size()) {
        return false;
    }
    Py_ssize_t position = 0;
    DailyWords::Entry old[DailyWords::capacity];
    for (std::size_t i = 0; i < words.size(); ++i) {
        PyDict_Next(dict, &position, &old[i].word, &old[i].value);
        if (!is_same_word(old[i].word, words[i].word)) return false;
    }
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (old[i].value == words[i].value) continue;
        dicts_.set_item(structure.slot, dict, old[i].word, words[i].value);
    }
    note(structure);
    return true;
}

// All words anew, in order. When there is no memory left for one, the dict is no longer known.
void MetadataCache::fill(const State& state, PyObject* dict, const ReportedStructure& structure) {
    DailyWords words;
    if (!words.collect(state, structure)) return replace(state, structure);
    dicts_.clear(structure.slot, dict);
    try {
        for (std::size_t i = 0; i < words.size(); ++i) {
            dicts_.set_item(structure.slot, dict, words[i].word, words[i].value);
        }
    } catch (const capi::PythonError&) {
        dicts_.forget(structure.slot);
        throw;
    }
    note(structure);
}

void MetadataCache::replace(const State& state, const ReportedStructure& structure) {
    Ref made = make_daily_metadata(state, structure);
    PyObject* dict = made.get();
    require(PyList_SetItem(list_, static_cast<Py_ssize_t>(structure.slot), made.release()));
    dicts_.know(structure.slot, dict);
    note(structure);
}

void MetadataCache::note(const ReportedStructure& structure) noexcept {
    Entries& entries = entries_[structure.slot];
    entries.key = structure.key;
    const bool has_own_words = structure.has_own_words();
    // Words of its own may say other legs.
    entries.legs = has_own_words ? nullptr : structure.legs;
    entries.valid = structure.valid;
    entries.has_own_words = has_own_words;
}

// When there is no memory left to say so, the dict is empty, and no longer known.
void MetadataCache::deactivate(const State& state, std::size_t slot) {
    if (put_aside(state, slot)) return;
    PyObject* dict = dict_of(slot);
    entries_[slot].key = entries_[slot].legs = nullptr;
    dicts_.clear(slot, dict);
    try {
        dicts_.set_item(slot, dict, state.names.active, Py_False);
    } catch (const capi::PythonError&) {
        dicts_.forget(slot);
        throw;
    }
}

// A dict that says what an active slot says makes room for one that says only inactive. Nobody but
// the list has either, so that nobody can tell which of the two was emptied or made anew.
bool MetadataCache::put_aside(const State& state, std::size_t slot) {
    if (entries_[slot].has_own_words || !dicts_.knows(slot, dict_of(slot))) return false;
    if (slot >= aside_.size()) aside_.resize(slot + 1);
    std::unique_ptr<Aside>& aside = aside_[slot];
    if (aside != nullptr) return aside->entries.key == nullptr && exchange(slot, *aside);
    if (Py_REFCNT(dict_of(slot)) != 1) return false;
    auto made = std::make_unique<Aside>();
    made->dict = capi::make_dict();
    require(PyDict_SetItem(made->dict.get(), state.names.active, Py_False));
    made->version = dicts_.version(slot);
    aside = std::move(made);
    swap_with(slot, *aside);
    dicts_.know(slot, dict_of(slot));
    return true;
}

bool MetadataCache::take_back(std::size_t slot) {
    return slot < aside_.size() && aside_[slot] != nullptr &&
           aside_[slot]->entries.key != nullptr && exchange(slot, *aside_[slot]);
}

bool MetadataCache::exchange(std::size_t slot, Aside& aside) {
    const std::uint64_t version = dicts_.version(slot);
    if (Py_REFCNT(dict_of(slot)) != 1 || Py_REFCNT(aside.dict.get()) != 1 ||
        !dicts_.know_again(slot, aside.dict.get(), aside.version)) {
        return false;
    }
    swap_with(slot, aside);
    aside.version = version;
    return true;
}

void MetadataCache::swap_with(std::size_t slot, Aside& aside) noexcept {
    Ref listed = Ref::steal(dict_of(slot));
    PyList_SET_ITEM(list_, static_cast<Py_ssize_t>(slot), aside.dict.release());
    aside.dict = std::move(listed);
    std::swap(entries_[slot], aside.entries);
}

}  // namespace quorvane::virtualization
