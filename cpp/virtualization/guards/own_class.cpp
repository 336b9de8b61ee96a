#include "virtualization/guards/own_class.hpp"

#include "capi/gc_pause.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

void OwnClass::remember(const Ref& made, const capi::FunctionDef& init, PyObject* first,
                        PyObject* second) {
    if (!PyType_CheckExact(made.get())) return;
    class_ = made.share();
    no_arguments_ = capi::make_tuple();
    init_ = &init;
    first_ = first;
    second_ = second;
}

bool OwnClass::is(const State& state, PyObject* object) const {
    // An exact type stays one: a class of `type` itself cannot be given another metaclass.
    if (!class_ || object != class_.get()) return false;
    return seen_.ask(type(), [&] { return look(state); });
}

bool OwnClass::look(const State& state) const {
    PyObject* init = _PyType_Lookup(type(), state.names.init);
    return init != nullptr && state.is_own(init, *init_) &&
           type()->tp_new == PyBaseObject_Type.tp_new &&
           !PyType_HasFeature(type(), Py_TPFLAGS_IS_ABSTRACT) &&
           type()->tp_getattro == PyObject_GenericGetAttr &&
           type()->tp_setattro == PyObject_GenericSetAttr &&
           _PyType_Lookup(type(), first_) == nullptr && _PyType_Lookup(type(), second_) == nullptr;
}

Ref OwnClass::make(PyObject* first, PyObject* second) const {
    const capi::GcPause no_finalizers;
    Ref instance = require(PyBaseObject_Type.tp_new(type(), no_arguments_.get(), nullptr));
    require(PyObject_GenericSetAttr(instance.get(), first_, first));
    require(PyObject_GenericSetAttr(instance.get(), second_, second));
    return instance;
}

int OwnClass::traverse(visitproc visit, void* arg) const {
    Py_VISIT(class_.get());
    return 0;
}

}  // namespace quorvane::virtualization
