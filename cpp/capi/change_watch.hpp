#pragma once

#include <cstdint>

#include "capi/error.hpp"

namespace quorvane::capi {

// Tells, for the price of a few comparisons, that none of some dicts and types has been changed
// since they were added. It may report a change that did not matter, never miss one.
//
// Up to Python 3.11 every dict carries a version; later ones tell a watcher of every change.
class DictWatcher {
public:
    DictWatcher(const DictWatcher&) = delete;
    DictWatcher& operator=(const DictWatcher&) = delete;

    // The version of the dict's contents, 0 when it cannot be known.
    [[nodiscard]] std::uint64_t version_of(PyObject* dict) const;

#if PY_VERSION_HEX >= 0x030C0000
    DictWatcher();
    ~DictWatcher();

private:
    int id_ = -1;
#else
    DictWatcher() = default;
#endif
};

// The version of a type and all its bases, 0 when the interpreter gave it none.
inline unsigned int version_of(PyTypeObject* type) noexcept {
#if PY_VERSION_HEX < 0x030C0000
    if (!PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG)) return 0;
#endif
    return type->tp_version_tag;
}

// Remembers for which version of a type a question was last answered with yes. Versions never start
// again: the same one always means the same type with the same contents.
class TypeAnswer {
public:
    // The answer of question(), which is not asked again while the type is as it was at a yes.
    template <class Question>
    bool ask(PyTypeObject* type, const Question& question) {
        unsigned int version = version_of(type);
        if (version != 0 && version == yes_of_) return true;
        // Looking something up gives a type its version, and may run code that changes the type:
        // only an answer that it came through unchanged counts.
        if (version == 0) {
            if (!question()) return false;
            version = version_of(type);
        }
        if (version == 0 || !question() || version_of(type) != version) return false;
        yes_of_ = version;
        return true;
    }

private:
    unsigned int yes_of_ = 0;
};

// From Python 3.13 on an instance's own dictionary may be a view of values inside the instance, and
// its watchers are not told of every change of them. Such a dictionary must be looked into instead.
inline constexpr bool instance_dicts_tell_changes = PY_VERSION_HEX < 0x030D0000;

class ChangeWatch {
public:
    explicit ChangeWatch(const DictWatcher& watcher) : watcher_(&watcher) {}

    void clear() noexcept { dicts_ = types_ = 0; }
    void add_dict(PyObject* dict) {
        dict_[dicts_] = Ref::borrow(dict);
        dict_version_[dicts_++] = watcher_->version_of(dict);
    }
    void add_type(PyTypeObject* type) {
        type_[types_] = Ref::borrow(reinterpret_cast<PyObject*>(type));
        type_version_[types_++] = version_of(type);
    }

    [[nodiscard]] bool unchanged() const {
        for (int i = 0; i < dicts_; ++i) {
            const std::uint64_t version = dict_version_[i];
            if (version == 0 || watcher_->version_of(dict_[i].get()) != version) return false;
        }
        for (int i = 0; i < types_; ++i) {
            auto* type = reinterpret_cast<PyTypeObject*>(type_[i].get());
            if (type_version_[i] == 0 || version_of(type) != type_version_[i]) return false;
        }
        return true;
    }

private:
    static constexpr int capacity = 4;

    const DictWatcher* watcher_;
    Ref dict_[capacity];
    std::uint64_t dict_version_[capacity] = {};
    int dicts_ = 0;
    Ref type_[capacity];
    unsigned int type_version_[capacity] = {};
    int types_ = 0;
};

}  // namespace quorvane::capi
