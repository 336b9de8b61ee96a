#include "capi/class_builder.hpp"

namespace quorvane::capi {

ClassBuilder::ClassBuilder(const FunctionHome& home, const char* name, const Ref& base)
    : home_(home), name_(name), bases_(make_tuple(base.get())) {
    prepare(bases_);
}

ClassBuilder::ClassBuilder(const FunctionHome& home, const char* name)
    : home_(home), name_(name), bases_(make_tuple()) {
    prepare(bases_);
}

void ClassBuilder::prepare(const Ref& bases) {
    const Ref prepare_class = import_from("types", "prepare_class");
    const Ref prepared = call(prepare_class.get(), make_str(name_).get(), bases.get());
    metaclass_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 0));
    namespace_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 1));
    keywords_ = Ref::borrow(PyTuple_GET_ITEM(prepared.get(), 2));
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
    set(definition.name, require(PyStaticMethod_New(function(definition).get())).get());
    return *this;
}

ClassBuilder& ClassBuilder::property(const FunctionDef& definition) {
    auto* property_type = reinterpret_cast<PyObject*>(&PyProperty_Type);
    set(definition.name, call(property_type, function(definition).get()).get());
    return *this;
}

Ref ClassBuilder::class_cell() {
    Ref cell = require(PyCell_New(nullptr));
    set("__classcell__", cell.get());
    return cell;
}

Ref ClassBuilder::build() {
    const Ref arguments = make_tuple(make_str(name_).get(), bases_.get(), namespace_.get());
    return require(PyObject_Call(metaclass_.get(), arguments.get(), keywords_.get()));
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
