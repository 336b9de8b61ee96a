#include "virtualization/shortcuts/pristine.hpp"

#include "capi/dict_version.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

void Pristine::remember(const State& state) {
    const Names& names = state.names;
    const Ref numpy = state.global(names.np);
    remember_structure_class(state);
    if (!PyModule_CheckExact(numpy.get())) return;  // a stand-in may answer as it likes
    numpy_ = numpy.share();
    numpy_dict_ = Ref::borrow(PyModule_GetDict(numpy_.get()));
    int index = 0;
    for (PyObject* name :
         {static_cast<PyObject*>(names.nan), static_cast<PyObject*>(names.float64),
          static_cast<PyObject*>(names.zeros), static_cast<PyObject*>(names.array),
          static_cast<PyObject*>(names.asarray), static_cast<PyObject*>(names.isfinite),
          static_cast<PyObject*>(names.vstack)}) {
        numpy_values_[index].name = name;
        numpy_values_[index++].value = capi::dict_get(numpy_dict_.get(), name);
    }
}

void Pristine::remember_structure_class(const State& state) {
    structure_class_ = state.global(state.names.VirtualStructure);
    if (!PyType_CheckExact(structure_class_.get())) return;
    structure_init_ = Ref::borrow(_PyType_Lookup(structure_class(), state.names.init));
    if (PyFunction_Check(structure_init_.get())) {
        structure_init_code_ = Ref::borrow(PyFunction_GetCode(structure_init_.get()));
    }
}

bool Pristine::numpy_holds(const State& state) const {
    if (!numpy_ || !PyModule_CheckExact(numpy_.get())) return false;
    if constexpr (!capi::dicts_have_versions) return look_at_numpy(state);
    // A day asks this several times, and nearly always nothing has changed in between.
    const Versions now{capi::dict_version(state.globals()), capi::dict_version(numpy_dict_.get())};
    if (now != seen_) {
        numpy_was_own_ = look_at_numpy(state);
        seen_ = now;
    }
    return numpy_was_own_;
}

bool Pristine::look_at_numpy(const State& state) const {
    if (capi::dict_peek(state.globals(), state.names.np) != numpy_.get()) return false;
    for (const Watched& watched : numpy_values_) {
        if (capi::dict_peek(numpy_dict_.get(), watched.name) != watched.value.get()) return false;
    }
    return true;
}

Ref Pristine::own(PyObject* name) const {
    const Watched* watched = numpy_values_;
    while (watched->name != name) ++watched;
    return watched->value.share();
}

bool Pristine::structure_class_holds(const State& state) const {
    if (!structure_init_code_ ||
        capi::dict_peek(state.globals(), state.names.VirtualStructure) != structure_class_.get() ||
        PyFunction_GetCode(structure_init_.get()) != structure_init_code_.get()) {
        return false;
    }
    return structure_class_seen_.ask(structure_class(),
                                     [&] { return look_at_structure_class(state); });
}

bool Pristine::look_at_structure_class(const State& state) const {
    PyTypeObject* type = structure_class();
    const Names& names = state.names;
    return type->tp_new == PyBaseObject_Type.tp_new &&
           type->tp_getattro == PyObject_GenericGetAttr &&
           type->tp_setattro == PyObject_GenericSetAttr && type->tp_finalize == nullptr &&
           _PyType_Lookup(type, names.init) == structure_init_.get() &&
           _PyType_Lookup(type, names.key) == nullptr &&
           _PyType_Lookup(type, names.legs) == nullptr &&
           _PyType_Lookup(type, names.value) == nullptr &&
           _PyType_Lookup(type, names.metadata) == Py_None;
}

Ref Pristine::new_structure() const {
    return capi::require(
        PyBaseObject_Type.tp_new(structure_class(), capi::make_tuple().get(), nullptr));
}

int Pristine::traverse(visitproc visit, void* arg) const {
    Py_VISIT(structure_class_.get());
    Py_VISIT(structure_init_.get());
    Py_VISIT(structure_init_code_.get());
    return 0;
}

}  // namespace quorvane::virtualization
