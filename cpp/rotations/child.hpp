#pragma once

#include "capi/class_builder.hpp"
#include "capi/message.hpp"
#include "capi/names.hpp"

namespace quorvane::rotations {

using capi::Ref;

// What the modules of the ready-made rotations have in common: one class each, a subclass of
// RotationBase, and the way to the methods that it overrides.
class ChildModule {
public:
    explicit ChildModule(PyObject* module)
        : function_type_(capi::make_native_function_type(module)), module_(module) {}

    // Makes the class: `describe(builder)` gives it its name, its documentation and its methods.
    template <class Describe>
    void bind_class(const char* class_name, void* state, Describe describe) {
        const Ref base =
            capi::import_from("quorvane.functions.rotations._boilerplate", "RotationBase");
        const Ref module_name = capi::require(PyModule_GetNameObject(module_));
        const capi::FunctionHome home{function_type_.get(), module_, state, module_name.get()};
        capi::ClassBuilder builder(home, class_name, base);
        describe(builder);
        class_cell_ = builder.class_cell();
        capi::require(PyModule_AddObjectRef(module_, class_name, builder.build().get()));
    }

    // super().<attribute>
    [[nodiscard]] Ref super_attr(PyObject* self, PyObject* attribute) const {
        return capi::super_attr(class_cell_.get(), self, attribute);
    }

    // super().__init__(N_alloc=N_alloc, **parameters)
    void initialise_base(PyObject* self, PyObject* N_alloc, const Ref& parameters) const {
        const Ref keywords = capi::require(PyDict_Copy(parameters.get()));
        capi::require(PyDict_SetItemString(keywords.get(), "N_alloc", N_alloc));
        const Ref initialiser = super_attr(self, capi::Interned("__init__"));
        capi::require(PyObject_Call(initialiser.get(), capi::make_tuple().get(), keywords.get()));
    }

    int traverse(visitproc visit, void* arg) const {
        Py_VISIT(function_type_.get());
        Py_VISIT(class_cell_.get());
        return 0;
    }

    const capi::Interned name{"_name"};
    const Ref zero = capi::make_int(0);

private:
    Ref function_type_, class_cell_;
    PyObject* module_;  // borrowed: the module owns this state
};

// The initialiser of a class without parameters of its own.
inline constexpr capi::Parameter allocation_only[] = {capi::positional("self"),
                                                      capi::keyword_only("N_alloc", "None")};

template <class State>
Ref init_allocation_only(State& state, PyObject* const* values) {
    state.initialise_base(values[0], values[1], capi::make_dict());
    return capi::none();
}

// A message that begins with the rotation's name.
inline capi::Message message_of(const ChildModule& module, PyObject* self) {
    capi::Message message;
    message.value(capi::attr(self, module.name)).text(": ");
    return message;
}

}  // namespace quorvane::rotations
