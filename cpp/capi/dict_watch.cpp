#include "capi/dict_watch.hpp"

#include <algorithm>
#include <cstring>

#if PY_VERSION_HEX >= 0x030C0000
#include "capi/dict_notices.hpp"
#endif

namespace quorvane::capi {

namespace {

// Enough to be on its way from memory when it is looked at.
[[maybe_unused]] constexpr std::size_t prefetch_distance = 64;

}  // namespace

void WatchedDicts::reset(std::size_t count) {
    known_.assign(count, nullptr);
#if PY_VERSION_HEX < 0x030C0000
    versions_.assign(count, 0);
#endif
}

#if PY_VERSION_HEX >= 0x030C0000

DictWatcher::DictWatcher()
    : id_(notices::watcher_id()), is_told_of_instances_(notices::tells_of_instances(id_)) {}

bool DictWatcher::watch(PyObject* dict) const noexcept {
    if (id_ < 0) return false;
    if (PyDict_Watch(id_, dict) == 0) return true;
    PyErr_Clear();
    return false;
}

// Watched again each time: a dict that ended unheard, while an interpreter ended, may have left its
// stamp to another one at the same address.
DictStamp DictWatcher::stamp(PyObject* dict) const noexcept {
    DictStamp stamp;
    if (watch(dict)) stamp.number_ = notices::stamp_of(dict);
    return stamp;
}

bool DictWatcher::has_stamp(PyObject* dict, const DictStamp& stamp) noexcept {
    if (stamp.dict_ == dict && stamp.time_ == notices::time()) return true;
    if (stamp.number_ == 0 || !notices::has_stamp(dict, stamp.number_)) return false;
    stamp.dict_ = dict;
    stamp.time_ = notices::time();
    return true;
}

void DictWatcher::set_item(PyObject* dict, DictStamp& stamp, PyObject* key, PyObject* value) {
    const std::uint64_t old = stamp.number_;
    const notices::Expected own(has_stamp(dict, stamp) ? dict : nullptr, key);
    require(PyDict_SetItem(dict, key, value));
    stamp.number_ = notices::renewed(dict, old);
}

bool DictWatcher::is_told_of([[maybe_unused]] PyObject* dict) const noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    return is_told_of_instances_ || reinterpret_cast<PyDictObject*>(dict)->ma_values == nullptr;
#else
    return true;
#endif
}

WatchedDicts::WatchedDicts(const DictWatcher& watcher)
    : watcher_(watcher), group_(notices::add_group(known_)) {}

WatchedDicts::~WatchedDicts() { notices::remove_group(group_); }

void WatchedDicts::know(std::size_t index, PyObject* dict) noexcept {
    known_[index] = nullptr;
    if (watcher_.is_told_of(dict) && watcher_.watch(dict) &&
        notices::put_in_group(dict, group_, static_cast<std::uint32_t>(index))) {
        known_[index] = dict;
    }
}

bool WatchedDicts::knows(std::size_t index, PyObject* dict) const noexcept {
    return index < known_.size() && known_[index] == dict;
}

bool WatchedDicts::know_again(std::size_t index, PyObject* dict,
                              std::uint64_t /*version*/) noexcept {
    if (!notices::is_in_group(dict, group_, static_cast<std::uint32_t>(index))) return false;
    known_[index] = dict;
    return true;
}

// A dict that is not at its index any more still has its place in the group until it is changed.
std::uint64_t WatchedDicts::version(std::size_t /*index*/) const noexcept { return 0; }

void WatchedDicts::find_unknown(PyObject* const* objects,
                                std::vector<std::uint32_t>& indices) const {
    constexpr std::size_t stretch = 512;
    indices.clear();
    const std::size_t count = known_.size();
    for (std::size_t begin = 0; begin < count; begin += stretch) {
        const std::size_t end = std::min(begin + stretch, count);
        if (std::memcmp(objects + begin, known_.data() + begin,
                        (end - begin) * sizeof(PyObject*)) == 0) {
            continue;
        }
        for (std::size_t index = begin; index < end; ++index) {
            if (objects[index] != known_[index]) {
                indices.push_back(static_cast<std::uint32_t>(index));
            }
        }
    }
}

void WatchedDicts::set_item(std::size_t index, PyObject* dict, PyObject* key, PyObject* value) {
    const notices::Expected own(knows(index, dict) ? dict : nullptr, key);
    require(PyDict_SetItem(dict, key, value));
}

void WatchedDicts::clear(std::size_t index, PyObject* dict) noexcept {
    const notices::Expected own(knows(index, dict) ? dict : nullptr, nullptr);
    PyDict_Clear(dict);
}

#else

namespace {

std::uint64_t version_of(PyObject* dict) noexcept {
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

}  // namespace

DictWatcher::DictWatcher() = default;

bool DictWatcher::watch(PyObject* /*dict*/) const noexcept { return true; }

DictStamp DictWatcher::stamp(PyObject* dict) const noexcept {
    DictStamp stamp;
    stamp.number_ = version_of(dict);
    return stamp;
}

bool DictWatcher::has_stamp(PyObject* dict, const DictStamp& stamp) noexcept {
    return version_of(dict) == stamp.number_;
}

void DictWatcher::set_item(PyObject* dict, DictStamp& stamp, PyObject* key, PyObject* value) {
    const bool was_known = has_stamp(dict, stamp);
    require(PyDict_SetItem(dict, key, value));
    if (was_known) stamp.number_ = version_of(dict);
}

bool DictWatcher::is_told_of(PyObject* /*dict*/) const noexcept { return true; }

WatchedDicts::WatchedDicts(const DictWatcher& watcher) : watcher_(watcher) {}

WatchedDicts::~WatchedDicts() = default;

void WatchedDicts::know(std::size_t index, PyObject* dict) noexcept {
    known_[index] = dict;
    versions_[index] = version_of(dict);
}

bool WatchedDicts::knows(std::size_t index, PyObject* dict) const noexcept {
    return index < known_.size() && known_[index] == dict && PyDict_CheckExact(dict) &&
           versions_[index] == version_of(dict);
}

bool WatchedDicts::know_again(std::size_t index, PyObject* dict, std::uint64_t version) noexcept {
    if (version_of(dict) != version) return false;
    known_[index] = dict;
    versions_[index] = version;
    return true;
}

std::uint64_t WatchedDicts::version(std::size_t index) const noexcept { return versions_[index]; }

void WatchedDicts::find_unknown(PyObject* const* objects,
                                std::vector<std::uint32_t>& indices) const {
    indices.clear();
    const std::size_t count = known_.size();
    for (std::size_t index = 0; index < count; ++index) {
        if (index + prefetch_distance < count) {
            __builtin_prefetch(objects[index + prefetch_distance]);
        }
        if (!knows(index, objects[index])) indices.push_back(static_cast<std::uint32_t>(index));
    }
}

void WatchedDicts::set_item(std::size_t index, PyObject* dict, PyObject* key, PyObject* value) {
    const bool was_known = knows(index, dict);
    require(PyDict_SetItem(dict, key, value));
    if (was_known) versions_[index] = version_of(dict);
}

void WatchedDicts::clear(std::size_t index, PyObject* dict) noexcept {
    const bool was_known = knows(index, dict);
    PyDict_Clear(dict);
    if (was_known) versions_[index] = version_of(dict);
}

#endif

}  // namespace quorvane::capi
