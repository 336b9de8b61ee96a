#pragma once

#include <cstdint>

#include "capi/dict_watch.hpp"

namespace quorvane::capi {

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

// Tells, for the price of a few comparisons, that none of some dicts and types has been changed
// since they were added. It may report a change that did not matter, never miss one.
class ChangeWatch {
public:
    explicit ChangeWatch(const DictWatcher& watcher) : watcher_(watcher) {}

    void clear() noexcept { dicts_ = types_ = 0; }
    void add_dict(PyObject* dict) {
        dict_[dicts_] = Ref::borrow(dict);
        stamp_[dicts_++] = watcher_.stamp(dict);
    }
    void add_type(PyTypeObject* type) {
        type_[types_] = Ref::borrow(reinterpret_cast<PyObject*>(type));
        type_version_[types_++] = version_of(type);
    }

    [[nodiscard]] bool unchanged() const noexcept {
        for (int i = 0; i < dicts_; ++i) {
            if (!DictWatcher::has_stamp(dict_[i].get(), stamp_[i])) return false;
        }
        for (int i = 0; i < types_; ++i) {
            auto* type = reinterpret_cast<PyTypeObject*>(type_[i].get());
            if (type_version_[i] == 0 || version_of(type) != type_version_[i]) return false;
        }
        return true;
    }

private:
    static constexpr int capacity = 4;

    const DictWatcher& watcher_;
    Ref dict_[capacity];
    DictStamp stamp_[capacity];
    int dicts_ = 0;
    Ref type_[capacity];
    unsigned int type_version_[capacity] = {};
    int types_ = 0;
};

}  // namespace quorvane::capi
