#include "capi/change_watch.hpp"

namespace quorvane::capi {

#if PY_VERSION_HEX >= 0x030C0000

namespace {

// One count for all watched dicts: a change of any of them makes every version look old.
std::uint64_t changes = 1;

int count_change(PyDict_WatchEvent /*event*/, PyObject* /*dict*/, PyObject* /*key*/,
                 PyObject* /*value*/) {
    ++changes;
    return 0;
}

}  // namespace

DictWatcher::DictWatcher() : id_(PyDict_AddWatcher(count_change)) {
    // The interpreter has few watchers; without one nothing is ever known to be unchanged.
    if (id_ < 0) PyErr_Clear();
}

DictWatcher::~DictWatcher() {
    if (id_ >= 0 && PyDict_ClearWatcher(id_) < 0) PyErr_Clear();
}

std::uint64_t DictWatcher::version_of(PyObject* dict) const {
    if (id_ < 0) return 0;
    require(PyDict_Watch(id_, dict));
    return changes;
}

#else

std::uint64_t DictWatcher::version_of(PyObject* dict) const {
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

#endif

}  // namespace quorvane::capi
