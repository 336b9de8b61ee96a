#include "capi/method.hpp"

#include "capi/class_builder.hpp"
#include "capi/gc_pause.hpp"

namespace quorvane::capi {

namespace {

// Functions that take their object as the first argument, by their type's own promise.
bool binds_first_argument(PyObject* found) noexcept {
    return found != nullptr && PyType_HasFeature(Py_TYPE(found), Py_TPFLAGS_METHOD_DESCRIPTOR);
}

// How the interpreter calls instances of classes that define __call__.
ternaryfunc call_slot() {
    static const ternaryfunc slot = [] {
        // A finalizer that calls such an instance would wait here for itself.
        const GcPause no_finalizers;
        const Ref body = make_dict();
        require(PyDict_SetItemString(body.get(), "__call__", Py_None));
        const Ref made =
            quorvane::capi::call(reinterpret_cast<PyObject*>(&PyType_Type),
                                 make_str("Called").get(), make_tuple().get(), body.get());
        return reinterpret_cast<PyTypeObject*>(made.get())->tp_call;
    }();
    return slot;
}

// The first `name` behind `own_class` among the classes of the type; empty when that cannot be told
// from here: builtin classes may keep their dictionaries elsewhere.
Ref find_behind(PyTypeObject* type, PyObject* own_class, PyObject* name) {
    const Ref classes = Ref::borrow(type->tp_mro);
    if (!classes) return {};
    const Py_ssize_t count = PyTuple_GET_SIZE(classes.get());
    Py_ssize_t i = 0;
    while (i < count && PyTuple_GET_ITEM(classes.get(), i) != own_class) ++i;
    for (++i; i < count; ++i) {
        auto* next = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(classes.get(), i));
        if (!PyType_HasFeature(next, Py_TPFLAGS_HEAPTYPE)) return {};
        const Ref dict = Ref::borrow(next->tp_dict);
        if (Ref found = dict_get(dict.get(), name)) return found;
    }
    return {};
}

}  // namespace

Method Method::of(PyObject* object, PyObject* name) {
    if (Py_TYPE(object)->tp_getattro != PyObject_GenericGetAttr) return Method(attr(object, name));
    Ref function = Ref::borrow(_PyType_Lookup(Py_TYPE(object), name));
    if (!binds_first_argument(function.get())) return Method(attr(object, name));
    const Ref dict = Ref::borrow(instance_dict(object));
    if (dict) {
        if (Ref own = dict_get(dict.get(), name)) return Method(std::move(own));
    }
    return {std::move(function), object};
}

Method Method::of_super(PyObject* class_cell, PyObject* self, PyObject* name) {
    const Ref own_class = Ref::steal(PyCell_Get(class_cell));
    const bool ordinary =
        own_class && PyType_Check(own_class.get()) && !PyType_Check(self) &&
        PyType_IsSubtype(Py_TYPE(self), reinterpret_cast<PyTypeObject*>(own_class.get())) != 0;
    if (ordinary) {
        Ref found = find_behind(Py_TYPE(self), own_class.get(), name);
        if (binds_first_argument(found.get())) return {std::move(found), self};
    }
    return Method(super_attr(class_cell, self, name));
}

Method Method::called_by(PyObject* object, PyObject* name) {
    if (Py_TYPE(object)->tp_call == call_slot()) {
        Ref function = Ref::borrow(_PyType_Lookup(Py_TYPE(object), name));
        if (binds_first_argument(function.get())) return {std::move(function), object};
    }
    return Method(Ref::borrow(object));
}

Ref Method::call(PyObject** stack, std::size_t count, PyObject* keyword_names) const {
    if (object_ == nullptr) {
        return require(PyObject_Vectorcall(callable_.get(), stack + 1,
                                           count | PY_VECTORCALL_ARGUMENTS_OFFSET, keyword_names));
    }
    stack[0] = object_;
    return require(PyObject_Vectorcall(callable_.get(), stack, count + 1, keyword_names));
}

}  // namespace quorvane::capi
