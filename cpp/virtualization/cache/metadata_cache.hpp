#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// A structure as a day reports it to its slot; borrowed.
struct ReportedStructure {
    PyObject* slot_object = nullptr;
    std::size_t slot = 0;
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    PyObject* own_metadata = nullptr;  // an exact dict of text and plain values, or null
    bool valid = false;
    bool says_all = false;  // its metadata is not given the key and the legs any more

    [[nodiscard]] bool has_own_words() const noexcept {
        return own_metadata != nullptr || says_all;
    }
};

// What each slot's metadata dict says. One that others have left alone need not be looked into, and
// one that nobody else holds need not be made again: a new dict with the same entries could not be
// told from it. All dicts that are known hold plain values only.
class MetadataCache {
public:
    explicit MetadataCache(const capi::DictWatcher& watcher) : dicts_(watcher) {}

    void forget();
    // The slots of active structures may be other objects from now on, and are looked at again.
    void expect_other_slots() noexcept;

    // Makes every dict known, and resets those that others have changed. False, with nothing
    // changed, when one is no exact dict, or when resetting it could run code.
    bool settle(const State& state, PyObject* metadata_by_slot);

    // The same of a list that has been reset just now, by code that may have run other code:
    // nothing is reset again. False when a dict does not say only that its slot is inactive; it
    // stays unknown.
    bool adopt_reset(const State& state, PyObject* metadata_by_slot);

    // A day of a settled list: begin, report each structure, end. Until end() the dicts of slots
    // that were active yesterday still say so; no Python code may run in between.
    void begin_day(PyObject* metadata_by_slot) noexcept;
    void report(const State& state, const ReportedStructure& structure);
    void end_day(const State& state);

    // The same when Python code runs between the structures: every slot is reset first, and a
    // structure is reported only where what its dict says now can be dropped without running code.
    void reset_day(const State& state, PyObject* metadata_by_slot);
    [[nodiscard]] bool can_report(const State& state, PyObject* metadata_by_slot,
                                  std::size_t slot) const;
    void report_alone(const State& state, PyObject* metadata_by_slot,
                      const ReportedStructure& structure);

    // During a day: start fetching a slot's dict, and then what it says.
    void prefetch(std::size_t slot) const noexcept { __builtin_prefetch(dict_of(slot)); }
    void prefetch_contents(std::size_t slot) const noexcept;

    // The slots that the last day reported, each once, in the order in which they came.
    [[nodiscard]] std::span<const std::uint32_t> reported() const noexcept { return active_; }
    // Changes with every day but those that report the same again, and with what others change.
    [[nodiscard]] std::uint32_t day() const noexcept { return day_; }

    // Another day of a settled list that reports the same keys and legs: only the validity of the
    // reported slots, by position, can be new. Which are so is found first; nothing but that needs
    // memory. It is for a day in which nobody else holds one of the dicts.
    [[nodiscard]] bool are_alone(PyObject* metadata_by_slot) const noexcept;
    void find_changed(std::span<const std::uint8_t> valid);
    void report_again(const State& state, PyObject* metadata_by_slot,
                      std::span<const std::uint8_t> valid);

    // The slot's metadata, or the dict that is put aside for it, holds this very tuple of legs.
    [[nodiscard]] bool holds_legs(std::size_t slot, PyObject* legs) const noexcept {
        return (slot < entries_.size() && entries_[slot].legs == legs) ||
               (slot < aside_.size() && aside_[slot] != nullptr &&
                aside_[slot]->entries.legs == legs);
    }

private:
    // The entries of a dict that was made here; the dict keeps them alive while it is unchanged.
    struct Entries {
        PyObject* key = nullptr;  // null: the dict says only inactive
        PyObject* legs = nullptr;
        std::uint32_t day = 0;
        bool valid = false;
        bool has_own_words = false;
    };

    // The other dict of a slot that is active on some days only: what it says while it is active
    // and what it says while it is not need not be written over each other every time.
    struct Aside {
        Ref dict;
        Entries entries;
        std::uint64_t version = 0;
    };

    void find_unknown(PyObject* metadata_by_slot);
    [[nodiscard]] bool can_reset(const State& state, PyObject* entry) const;
    void take(const State& state, std::size_t slot);
    bool rewrite(const State& state, PyObject* dict, const ReportedStructure& structure);
    bool rewrite_own_words(const State& state, PyObject* dict, const ReportedStructure& structure);
    void fill(const State& state, PyObject* dict, const ReportedStructure& structure);
    void replace(const State& state, const ReportedStructure& structure);
    void note(const ReportedStructure& structure) noexcept;
    void deactivate(const State& state, std::size_t slot);
    [[nodiscard]] bool put_aside(const State& state, std::size_t slot);
    // Apart from report(), whose usual way it would make longer.
    [[nodiscard, gnu::noinline]] bool take_back(std::size_t slot);
    [[nodiscard]] bool exchange(std::size_t slot, Aside& aside);
    void swap_with(std::size_t slot, Aside& aside) noexcept;
    [[nodiscard]] PyObject* dict_of(std::size_t slot) const noexcept {
        return PyList_GET_ITEM(list_, static_cast<Py_ssize_t>(slot));
    }

    capi::WatchedDicts dicts_;
    std::vector<Entries> entries_;
    std::vector<std::unique_ptr<Aside>> aside_;  // by slot, as far as any has one
    std::vector<std::uint32_t> active_, active_before_;
    std::vector<std::uint32_t> unknown_;
    std::vector<std::uint32_t> changed_;  // positions, between the two steps of a day
    std::uint32_t day_ = 0;
    PyObject* list_ = nullptr;  // borrowed, during a day
};

}  // namespace quorvane::virtualization
