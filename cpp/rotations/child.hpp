#pragma once

#include <array>
#include <concepts>
#include <span>

#include "capi/class_builder.hpp"
#include "capi/message.hpp"
#include "capi/names.hpp"
#include "capi/numpy.hpp"

namespace quorvane::rotations {

using capi::Ref;

// What the class of a ready-made rotation consists of. A constant: its functions refer to it.
struct ChildClass {
    const char* class_name;
    const char* doc;
    const char* name;  // what _name says
    capi::FunctionDef init, compute;
};

// What an initialiser takes: self, the rotation's own parameters, N_alloc.
template <std::same_as<capi::Parameter>... Own>
constexpr std::array<capi::Parameter, sizeof...(Own) + 2> init_parameters_with(Own... own) {
    return {capi::positional("self"), own..., capi::keyword_only("N_alloc", "None")};
}

// What an initialiser got for one of these; borrowed.
struct Argument {
    PyObject* parameter;
    PyObject* value;
};

// What the modules of the ready-made rotations have in common: one class each, a subclass of
// RotationBase, and the way to the methods that it overrides.
class ChildModule {
public:
    explicit ChildModule(PyObject* module)
        : function_type_(capi::make_native_function_type(module)), module_(module) {}

    // Runs the module's body: binds the class, to which `extend(builder)` adds what it has besides.
    template <class Extend>
    void bind_class(const ChildClass& child, void* state, Extend extend) {
        capi::import_numpy();
        const Ref base =
            capi::import_from("quorvane.functions.rotations._boilerplate", "RotationBase");
        const Ref module_name = capi::require(PyModule_GetNameObject(module_));
        const capi::FunctionHome home{function_type_.get(), module_, state, module_name.get()};
        capi::ClassBuilder builder(home, child.class_name, base);
        builder.doc(child.doc)
            .attribute("_name", capi::make_str(child.name).get())
            .attribute("arity", capi::make_int(1).get())
            .method(child.init)
            .method(child.compute);
        extend(builder);
        class_cell_ = builder.class_cell();
        capi::require(PyModule_AddObjectRef(module_, child.class_name, builder.build().get()));
    }

    // super().<attribute>
    [[nodiscard]] Ref super_attr(PyObject* self, PyObject* attribute) const {
        return capi::super_attr(class_cell_.get(), self, attribute);
    }

    // super().__init__(N_alloc=N_alloc, **arguments); then each is an attribute too.
    void initialise(PyObject* self, std::span<const Argument> arguments, PyObject* N_alloc) const {
        initialise_base(self, arguments, N_alloc);
        for (const auto& [parameter, value] : arguments) capi::set_attr(self, parameter, value);
    }

    int traverse(visitproc visit, void* arg) const {
        Py_VISIT(function_type_.get());
        Py_VISIT(class_cell_.get());
        return 0;
    }

    const capi::Interned name{"_name"};
    const Ref zero = capi::make_int(0);

private:
    void initialise_base(PyObject* self, std::span<const Argument> arguments,
                         PyObject* N_alloc) const {
        const Ref keywords = capi::make_dict();
        for (const auto& [parameter, value] : arguments) {
            capi::set_item(keywords.get(), parameter, value);
        }
        capi::require(PyDict_SetItemString(keywords.get(), "N_alloc", N_alloc));
        const Ref initialiser = super_attr(self, capi::Interned("__init__"));
        capi::require(PyObject_Call(initialiser.get(), capi::make_tuple().get(), keywords.get()));
    }

    Ref function_type_, class_cell_;
    PyObject* module_;  // borrowed: the module owns this state
};

// A message that begins with the rotation's name.
inline capi::Message message_of(const ChildModule& module, PyObject* self) {
    capi::Message message;
    message.value(capi::attr(self, module.name)).text(": ");
    return message;
}

}  // namespace quorvane::rotations
