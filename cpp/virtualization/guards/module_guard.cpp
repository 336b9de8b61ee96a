#include "virtualization/guards/module_guard.hpp"

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

void ModuleGuard::remember(const State& state) {
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
          static_cast<PyObject*>(names.vstack), static_cast<PyObject*>(names.ones),
          static_cast<PyObject*>(names.uint8)}) {
        numpy_values_[index].name = name;
        numpy_values_[index++].value = capi::dict_get(numpy_dict_.get(), name);
    }
}

void ModuleGuard::remember_structure_class(const State& state) {
    structure_class_ = state.global(state.names.VirtualStructure);
    if (!PyType_CheckExact(structure_class_.get())) return;
    structure_init_ = Ref::borrow(_PyType_Lookup(structure_class(), state.names.init));
    if (PyFunction_Check(structure_init_.get())) {
        structure_init_code_ = Ref::borrow(PyFunction_GetCode(structure_init_.get()));
    }
}

bool ModuleGuard::numpy_holds(const State& state) const {
    if (!numpy_ || !PyModule_CheckExact(numpy_.get())) return false;
    // A day asks this several times, and nearly always nothing has changed in between.
    if (capi::DictWatcher::has_stamp(state.globals(), seen_.globals) &&
        capi::DictWatcher::has_stamp(numpy_dict_.get(), seen_.numpy)) {
        return numpy_was_own_;
    }
    seen_ = {state.dict_watcher.stamp(state.globals()),
             state.dict_watcher.stamp(numpy_dict_.get())};
    numpy_was_own_ = look_at_numpy(state);
    return numpy_was_own_;
}

bool ModuleGuard::look_at_numpy(const State& state) const {
    if (capi::dict_peek(state.globals(), state.names.np) != numpy_.get()) return false;
    for (const Watched& watched : numpy_values_) {
        if (capi::dict_peek(numpy_dict_.get(), watched.name) != watched.value.get()) return false;
    }
    return true;
}

Ref ModuleGuard::own(PyObject* name) const {
    const Watched* watched = numpy_values_;
    while (watched->name != name) ++watched;
    return watched->value.share();
}

bool ModuleGuard::structure_class_holds(const State& state) const {
    if (!structure_init_code_ ||
        capi::dict_peek(state.globals(), state.names.VirtualStructure) != structure_class_.get() ||
        PyFunction_GetCode(structure_init_.get()) != structure_init_code_.get()) {
        return false;
    }
    return structure_class_seen_.ask(structure_class(),
                                     [&] { return look_at_structure_class(state); });
}

bool ModuleGuard::look_at_structure_class(const State& state) const {
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

Ref ModuleGuard::new_structure() const {
    return capi::require(
        PyBaseObject_Type.tp_new(structure_class(), capi::make_tuple().get(), nullptr));
}

int ModuleGuard::traverse(visitproc visit, void* arg) const {
    Py_VISIT(structure_class_.get());
    Py_VISIT(structure_init_.get());
    Py_VISIT(structure_init_code_.get());
    return 0;
}

}  // namespace quorvane::virtualization
