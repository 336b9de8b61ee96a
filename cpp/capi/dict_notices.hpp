#pragma once

#include <cstdint>
#include <vector>

#include "capi/python.hpp"

// What the interpreter's notices of changed dicts leave behind. A dict has a place here while it is
// as it was when somebody looked; the first notice of a change takes the place away. All
// interpreters of a process that this package can be in share one lock, and so one of these.
namespace quorvane::capi::notices {

// The package's watcher in the current interpreter, taken on first use; -1 when there is none left.
int watcher_id() noexcept;

// Whether an instance's own dictionary tells of what is changed through the instance.
bool tells_of_instances(int watcher_id) noexcept;

// Of a watched dict: its number, given to it if it has none; 0 when there is no memory for that.
std::uint64_t stamp_of(PyObject* dict) noexcept;
bool has_stamp(PyObject* dict, std::uint64_t stamp) noexcept;
// Another number instead of this one, so that others who know the dict by it take it for changed; 0
// when the dict has got another one meanwhile.
std::uint64_t renewed(PyObject* dict, std::uint64_t stamp) noexcept;

// Goes on with every stamp that a dict loses: as long as it stands, all have theirs. Never 0.
std::uint64_t time() noexcept;

// A group is an array of dicts, in which a changed one becomes null.
std::uint32_t add_group(std::vector<PyObject*>& dicts);
void remove_group(std::uint32_t group) noexcept;

// Of a watched dict: whoever had looked at it takes it for changed. False without memory.
bool put_in_group(PyObject* dict, std::uint32_t group, std::uint32_t index) noexcept;
// Whether it still has that place, which it loses to the first change.
bool is_in_group(PyObject* dict, std::uint32_t group, std::uint32_t index) noexcept;

// One change of our own of one dict, of which nobody need be told: a key is given a value, or, with
// a null key, the dict is emptied. With a null dict none is expected.
class Expected {
public:
    Expected(PyObject* dict, PyObject* key) noexcept;
    Expected(const Expected&) = delete;
    Expected& operator=(const Expected&) = delete;
    ~Expected();
};

}  // namespace quorvane::capi::notices
