#include "capi/class_builder.hpp"

namespace quorvane::capi {

Ref super_attr(PyObject* class_cell, PyObject* self, PyObject* name) {
    const Ref own_class = Ref::steal(PyCell_Get(class_cell));
    if (!own_class) raise(PyExc_RuntimeError, "super(): empty __class__ cell");
    auto* super_type = reinterpret_cast<PyObject*>(&PySuper_Type);
    return attr(call(super_type, own_class.get(), self).get(), name);
}

ClassBuilder::ClassBuilder(const FunctionHome& home, const char* name, const Ref& base)
    : home_(home), name_(name), given_bases_(make_tuple(base.get())) {
    prepare();
}

ClassBuilder::ClassBuilder(const FunctionHome& home, const char* name)
    : home_(home), name_(name), given_bases_(make_tuple()) {
    prepare();
}

void ClassBuilder::prepare() {
    const Ref resolve_bases = import_from("types", "resolve_bases");
    bases_ = call(resolve_bases.get(), given_bases_.get());
    const Ref prepare_class = import_from("types", "prepare_class");
    const Ref prepared = call(prepare_class.get(), make_str(name_).get(), bases_.get());
    metaclass_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 0));
    namespace_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 1));
    keywords_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 2));
    if (PyMapping_Check(namespace_.get()) == 0) {
        PyErr_Format(PyExc_TypeError, "%U.__prepare__() must return a mapping, not %.200s",
                     attr(metaclass_.get(), make_str("__name__").get()).get(),
                     Py_TYPE(namespace_.get())->tp_name);
        throw PythonError();
    }
    set("__module__", home_.module_name);
    set("__qualname__", make_str(name_).get());
}

ClassBuilder& ClassBuilder::doc(const char* text) {
    set("__doc__", make_str(text).get());
    return *this;
}

ClassBuilder& ClassBuilder::attribute(const char* name, PyObject* value) {
    set(name, value);
    return *this;
}

ClassBuilder& ClassBuilder::method(const FunctionDef& definition) {
    set(definition.name, function(definition).get());
    return *this;
}

ClassBuilder& ClassBuilder::static_method(const FunctionDef& definition) {
    auto* static_method_type = reinterpret_cast<PyObject*>(&PyStaticMethod_Type);
    set(definition.name, call(static_method_type, function(definition).get()).get());
    return *this;
}

ClassBuilder& ClassBuilder::property(const FunctionDef& definition) {
    auto* property_type = reinterpret_cast<PyObject*>(&PyProperty_Type);
    set(definition.name, call(property_type, function(definition).get()).get());
    return *this;
}

Ref ClassBuilder::class_cell() {
    class_cell_ = require(PyCell_New(nullptr));
    set("__classcell__", class_cell_.get());
    return class_cell_.share();
}

Ref ClassBuilder::build() {
    if (bases_.get() != given_bases_.get()) set("__orig_bases__", given_bases_.get());
    const Ref name = make_str(name_);
    const Ref arguments = make_tuple(name.get(), bases_.get(), namespace_.get());
    Ref made = require(PyObject_Call(metaclass_.get(), arguments.get(), keywords_.get()));
    if (class_cell_) check_cell(name.get(), made.get());
    return made;
}

// The errors of a class statement whose metaclass lost or changed the cell.
void ClassBuilder::check_cell(PyObject* name, PyObject* made) const {
    const Ref content = Ref::steal(PyCell_Get(class_cell_.get()));
    if (!PyType_Check(made) || content.get() == made) return;
    if (!content) {
        PyErr_Format(PyExc_RuntimeError,
                     "__class__ not set defining %.200R as %.200R. Was __classcell__ propagated to "
                     "type.__new__?",
                     name, made);
    } else {
        PyErr_Format(PyExc_TypeError, "__class__ set to %.200R defining %.200R as %.200R",
                     content.get(), name, made);
    }
    throw PythonError();
}

Ref ClassBuilder::function(const FunctionDef& definition) {
    return make_native_function(home_.function_type, definition, home_.module, home_.state,
                                home_.module_name, name_);
}

void ClassBuilder::set(const char* name, PyObject* value) {
    // Through the mapping protocol: __prepare__ may return any mapping.
    set_item(namespace_.get(), make_str(name).get(), value);
}

}  // namespace quorvane::capi
