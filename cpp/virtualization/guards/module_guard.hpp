#pragma once

#include "capi/change_watch.hpp"
#include "virtualization/names.hpp"

namespace quorvane::virtualization {

using capi::Ref;
class State;

// The module's surroundings as they were when it was imported. While nobody has replaced anything
// in them, what the module would get by calling them is known without the call.
class ModuleGuard {
public:
    // Remembers NumPy and the record class, right after both were bound in the module: from then on
    // other code may run.
    void remember(const State& state);

    // NumPy's functions and constants that the day uses are its own.
    [[nodiscard]] bool numpy_holds(const State& state) const;

    // VirtualStructure is the module's own dataclass and makes its instances as it did.
    [[nodiscard]] bool structure_class_holds(const State& state) const;

    // Once both were true: what no version of a dictionary or a type tells still is so. NumPy is a
    // module like any other, the record's class is called as classes are, and its initialiser has
    // the code that it had.
    [[nodiscard]] bool is_unversioned_rest_own() const noexcept {
        return PyModule_CheckExact(numpy_.get()) &&
               Py_IS_TYPE(structure_class_.get(), &PyType_Type) &&
               PyFunction_GetCode(structure_init_.get()) == structure_init_code_.get();
    }

    // What NumPy had under one of these names; only once numpy_holds() was true.
    [[nodiscard]] Ref own(PyObject* name) const;

    // NumPy's nan, borrowed; only once numpy_holds() was true.
    [[nodiscard]] PyObject* nan() const noexcept { return numpy_values_[0].value.get(); }

    // A new instance of the record class without any field.
    [[nodiscard]] Ref new_structure() const;

    [[nodiscard]] PyObject* numpy_dict() const noexcept { return numpy_dict_.get(); }
    [[nodiscard]] PyTypeObject* structure_class() const noexcept {
        return reinterpret_cast<PyTypeObject*>(structure_class_.get());
    }

    int traverse(visitproc visit, void* arg) const;

private:
    static constexpr int watched_names = 9;

    struct Watched {
        PyObject* name = nullptr;  // interned, owned by the module's names
        Ref value;
    };

    // Of the module's own dictionary and of NumPy's.
    struct Stamps {
        capi::DictStamp globals;
        capi::DictStamp numpy;
    };

    [[nodiscard]] bool look_at_numpy(const State& state) const;
    [[nodiscard]] bool look_at_structure_class(const State& state) const;

    Ref numpy_, numpy_dict_;
    mutable Stamps seen_;
    mutable bool numpy_was_own_ = false;
    Watched numpy_values_[watched_names];
    void remember_structure_class(const State& state);

    Ref structure_class_, structure_init_, structure_init_code_;
    mutable capi::TypeAnswer structure_class_seen_;
};

}  // namespace quorvane::virtualization
