#pragma once

#include <cstdint>
#include <vector>

#include "capi/error.hpp"

namespace quorvane::capi {

// A number that an exact dict has until somebody else changes it, and that no other dict ever has;
// none when that cannot be known.
class DictStamp {
private:
    friend class DictWatcher;

    std::uint64_t number_ = 0;
#if PY_VERSION_HEX >= 0x030C0000
    // When, by the notices' clock, this dict had it: until the clock moves, it still has.
    mutable PyObject* dict_ = nullptr;
    mutable std::uint64_t time_ = 0;
#endif
};

// Tells whether others have changed a dict since it was last looked at. It may report a change that
// did not matter, never miss one. From Python 3.12 on the interpreter tells a watcher of every
// change of a watched dict, its end included; on 3.11 every dict carries a number of its contents.
class DictWatcher {
public:
    // Takes the interpreter's watcher for this package, which is never given back: a dict keeps its
    // mark, and the next owner of the number would be told of our dicts.
    DictWatcher();
    DictWatcher(const DictWatcher&) = delete;
    DictWatcher& operator=(const DictWatcher&) = delete;

    [[nodiscard]] DictStamp stamp(PyObject* dict) const noexcept;

    [[nodiscard]] static bool has_stamp(PyObject* dict, const DictStamp& stamp) noexcept;

    // dict[key] = value as a change of our own: a dict that had the stamp has another one then,
    // which only the caller knows. What goes meanwhile may run code, whose changes count.
    static void set_item(PyObject* dict, DictStamp& stamp, PyObject* key, PyObject* value);

    // False of an instance's own dictionary that shares its values with the instance where the
    // interpreter changes these without a word, as 3.13.0 does.
    [[nodiscard]] bool is_told_of(PyObject* dict) const noexcept;
    [[nodiscard]] bool is_told_of_instances() const noexcept { return is_told_of_instances_; }

private:
    friend class WatchedDicts;

    [[nodiscard]] bool watch(PyObject* dict) const noexcept;

    // -1: the interpreter has none left, and nothing is ever known. Not asked for before 3.12.
    [[maybe_unused]] int id_ = -1;
    bool is_told_of_instances_ = true;
};

// Many dicts by index, of each of which it is known what it says until somebody else changes it.
class WatchedDicts {
public:
    explicit WatchedDicts(const DictWatcher& watcher);
    WatchedDicts(const WatchedDicts&) = delete;
    WatchedDicts& operator=(const WatchedDicts&) = delete;
    ~WatchedDicts();

    [[nodiscard]] std::size_t size() const noexcept { return known_.size(); }

    // So many dicts, none of them known.
    void reset(std::size_t count);

    [[nodiscard]] bool can_know(PyObject* dict) const noexcept { return watcher_.is_told_of(dict); }

    // The exact dict at this index is known from now on.
    void know(std::size_t index, PyObject* dict) noexcept;
    [[nodiscard]] bool knows(std::size_t index, PyObject* dict) const noexcept;

    // A dict that was known at this index before is so again, in place of another. False, with
    // nothing done, when it has been changed since; version() is what was said of it then.
    [[nodiscard]] bool know_again(std::size_t index, PyObject* dict,
                                  std::uint64_t version) noexcept;
    [[nodiscard]] std::uint64_t version(std::size_t index) const noexcept;

    void forget(std::size_t index) noexcept { known_[index] = nullptr; }

    // The indices at which there is an unknown dict or another object, in increasing order.
    void find_unknown(PyObject* const* objects, std::vector<std::uint32_t>& indices) const;

    // Changes of our own: a dict that is known stays so.
    void set_item(std::size_t index, PyObject* dict, PyObject* key, PyObject* value);
    void clear(std::size_t index, PyObject* dict) noexcept;

private:
    const DictWatcher& watcher_;
    std::vector<PyObject*> known_;  // borrowed: the end of a dict is a change
#if PY_VERSION_HEX >= 0x030C0000
    std::uint32_t group_;  // a number of its own among all objects of this class
#else
    std::vector<std::uint64_t> versions_;
#endif
};

}  // namespace quorvane::capi
