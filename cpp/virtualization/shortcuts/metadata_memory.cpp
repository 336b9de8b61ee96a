#include "virtualization/shortcuts/metadata_memory.hpp"

#include "capi/dict_version.hpp"

namespace quorvane::virtualization {

namespace {

// How far ahead the next dicts are fetched: a million of them do not fit in any cache.
constexpr std::size_t prefetch_distance = 64;

void set_entry(PyObject* dict, PyObject* key, PyObject* value) {
    require(PyDict_SetItem(dict, key, value));
}

PyObject* boolean(bool value) noexcept { return value ? Py_True : Py_False; }

}  // namespace

bool says_only_inactive(const State& state, PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    return PyDict_Size(dict) == 1 && PyDict_Next(dict, &position, &key, &value) != 0 &&
           key == state.names.active && value == Py_False;
}

bool MetadataMemory::describes(PyObject* metadata_by_slot) noexcept {
    const std::size_t slots = versions_.size();
    if (slots == 0 || static_cast<std::size_t>(PyList_GET_SIZE(metadata_by_slot)) != slots) {
        return false;
    }
    PyObject** dicts = PySequence_Fast_ITEMS(metadata_by_slot);
    alone_ = true;
    for (std::size_t slot = 0; slot < slots; ++slot) {
        if (slot + prefetch_distance < slots) {
            __builtin_prefetch(dicts[slot + prefetch_distance]);
        }
        if (!PyDict_CheckExact(dicts[slot]) || capi::dict_version(dicts[slot]) != versions_[slot]) {
            return false;
        }
        alone_ &= Py_REFCNT(dicts[slot]) == 1;
    }
    return true;
}

bool MetadataMemory::adopt(const State& state, PyObject* metadata_by_slot) {
    const auto slots = static_cast<std::size_t>(PyList_GET_SIZE(metadata_by_slot));
    versions_.clear();
    active_.clear();
    ++day_;
    entries_.assign(slots, Entries{});
    valid_.assign(slots, 0);
    std::vector<std::uint64_t> versions(slots);
    for (std::size_t slot = 0; slot < slots; ++slot) {
        PyObject* dict = PyList_GET_ITEM(metadata_by_slot, static_cast<Py_ssize_t>(slot));
        if (!PyDict_CheckExact(dict) || !capi::counts_changes(dict) ||
            !says_only_inactive(state, dict)) {
            return false;
        }
        versions[slot] = capi::dict_version(dict);
    }
    versions_ = std::move(versions);
    return true;
}

void MetadataMemory::begin_day(PyObject* metadata_by_slot) noexcept {
    list_ = metadata_by_slot;
    ++day_;
    active_before_.swap(active_);
    active_.clear();
}

void MetadataMemory::report(const State& state, PyObject* slot_object, std::size_t slot,
                            PyObject* key, PyObject* legs, bool valid) {
    PyObject* dict = dict_of(slot);
    Entries& entries = entries_[slot];
    const bool known = entries.key != nullptr;
    if (known && Py_REFCNT(dict) == 1) {
        renew(state, dict, slot, key, legs, valid);
    } else {
        if (known) deactivate(state, slot);  // whoever else holds it sees it reset
        replace(state, slot_object, slot, key, legs, valid);
    }
    if (entries.day != day_) {
        entries.day = day_;
        active_.push_back(static_cast<std::uint32_t>(slot));
    }
}

void MetadataMemory::end_day(const State& state) {
    for (const std::uint32_t slot : active_before_) {
        if (entries_[slot].day != day_) deactivate(state, slot);
    }
    active_before_.clear();
    list_ = nullptr;
}

void MetadataMemory::find_changed(std::span<const std::uint8_t> valid) {
    changed_.resize(active_.size());
    std::size_t count = 0;
    for (std::uint32_t position = 0; position < active_.size(); ++position) {
        changed_[count] = position;
        count += static_cast<std::size_t>(valid[position] != valid_[active_[position]]);
    }
    changed_.resize(count);
}

// A dict's entries lie apart from it: a head, an index and up to five entries of 24 bytes.
void MetadataMemory::prefetch_contents(std::size_t slot) const noexcept {
    const auto* dict = reinterpret_cast<const PyDictObject*>(dict_of(slot));
    const auto* entries = reinterpret_cast<const char*>(dict->ma_keys);
    for (std::size_t line = 0; line < 3; ++line) __builtin_prefetch(entries + 64 * line);
}

// Which dicts are to be written is known beforehand, so each is fetched while others are written.
// Each has the entry already: replacing its value needs no memory.
void MetadataMemory::report_again(const State& state, PyObject* metadata_by_slot,
                                  std::span<const std::uint8_t> valid) {
    list_ = metadata_by_slot;
    constexpr std::size_t far_ahead = 16;
    constexpr std::size_t ahead = 8;
    for (std::size_t i = 0; i < changed_.size(); ++i) {
        if (i + far_ahead < changed_.size()) prefetch(active_[changed_[i + far_ahead]]);
        if (i + ahead < changed_.size()) prefetch_contents(active_[changed_[i + ahead]]);
        const std::uint32_t slot = active_[changed_[i]];
        PyObject* dict = dict_of(slot);
        const std::uint8_t validity = valid[changed_[i]];
        set_entry(dict, state.names.active, boolean(validity != 0));
        valid_[slot] = validity;
        versions_[slot] = capi::dict_version(dict);
    }
    list_ = nullptr;
}

// Only what differs is written; the entries keep their order.
void MetadataMemory::renew(const State& state, PyObject* dict, std::size_t slot, PyObject* key,
                           PyObject* legs, bool valid) {
    const Names& names = state.names;
    const Entries& entries = entries_[slot];
    const bool same_validity = valid_[slot] == static_cast<std::uint8_t>(valid);
    if (entries.key == key && entries.legs == legs && same_validity) return;
    if (entries.key != key) set_entry(dict, names.key, key);
    if (entries.legs != legs) set_entry(dict, names.legs, legs);
    if (!same_validity) set_entry(dict, names.active, boolean(valid));
    remember(slot, dict, key, legs, valid);
}

void MetadataMemory::replace(const State& state, PyObject* slot_object, std::size_t slot,
                             PyObject* key, PyObject* legs, bool valid) {
    const Names& names = state.names;
    Ref dict = capi::make_dict();
    set_entry(dict.get(), names.key, key);
    set_entry(dict.get(), names.legs, legs);
    set_entry(dict.get(), names.slot, slot_object);
    set_entry(dict.get(), names.active, boolean(valid));
    remember(slot, dict.get(), key, legs, valid);
    require(PyList_SetItem(list_, static_cast<Py_ssize_t>(slot), dict.release()));
}

void MetadataMemory::remember(std::size_t slot, PyObject* dict, PyObject* key, PyObject* legs,
                              bool valid) noexcept {
    entries_[slot].key = key;
    entries_[slot].legs = legs;
    valid_[slot] = static_cast<std::uint8_t>(valid);
    versions_[slot] = capi::dict_version(dict);
}

void MetadataMemory::deactivate(const State& state, std::size_t slot) {
    PyObject* dict = dict_of(slot);
    entries_[slot].key = entries_[slot].legs = nullptr;
    PyDict_Clear(dict);
    set_entry(dict, state.names.active, Py_False);
    versions_[slot] = capi::dict_version(dict);
}

}  // namespace quorvane::virtualization
