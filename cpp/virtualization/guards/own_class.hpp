#pragma once

#include "capi/change_watch.hpp"
#include "virtualization/names.hpp"

namespace quorvane::capi {
struct FunctionDef;
}

namespace quorvane::virtualization {

using capi::Ref;
class State;

// A small class of the module whose initialiser does nothing but set two attributes. While nobody
// has changed the class, its instances are made, and their attributes read, without calling it.
class OwnClass {
public:
    // Remembers the class, right after it was made, with what its initialiser sets.
    void remember(const Ref& made, const capi::FunctionDef& init, PyObject* first,
                  PyObject* second);

    // True of the class itself while making an instance, and setting and reading the two
    // attributes, run nobody's code.
    [[nodiscard]] bool is(const State& state, PyObject* object) const;

    // A new instance; only while is() holds. Nothing else runs meanwhile.
    [[nodiscard]] Ref make(PyObject* first, PyObject* second) const;

    int traverse(visitproc visit, void* arg) const;

private:
    [[nodiscard]] bool look(const State& state) const;
    [[nodiscard]] PyTypeObject* type() const noexcept {
        return reinterpret_cast<PyTypeObject*>(class_.get());
    }

    Ref class_, no_arguments_;
    const capi::FunctionDef* init_ = nullptr;
    PyObject* first_ = nullptr;  // interned, owned by the module's names
    PyObject* second_ = nullptr;
    mutable capi::TypeAnswer seen_;
};

}  // namespace quorvane::virtualization
