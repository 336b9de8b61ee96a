// The module's table of contents: RotationBase and its members in order.

#include "capi/module.hpp"

#include "capi/numpy.hpp"
#include "rotations/boilerplate/construction.hpp"
#include "rotations/boilerplate/day.hpp"
#include "rotations/boilerplate/persistence.hpp"
#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

constexpr const char* class_doc =
    R"(The frame of a rotation: it prepares a day, has it computed, returns it.

A rotation is called once per day with that day's inputs. A subclass needs a name, the number of
its inputs, and the computation itself::

    class Spread(RotationBase):
        _name = "spread"
        arity = 2

        def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
            output_buf[:N] = args[0] - args[1]
            return 0

    Spread(N_alloc=500)(bid, ask)

Attributes
----------
_name : str
    Begins the messages of errors; the key under which a state is stored.
arity : int
    How many inputs the rotation takes. It is a statement for readers and tools, not enforced.
parameters : dict
    The keywords that the instance was made with, besides N_alloc.
)";

}  // namespace

State::State(PyObject* module)
    : zero(capi::make_int(0)),
      one(capi::make_int(1)),
      module_(module),
      function_type_(capi::make_native_function_type(module)) {}

void State::execute() {
    capi::import_numpy();
    abstract_method_required =
        capi::import_from("quorvane.functions._abstract_hooks", "abstract_method_required");
    const Ref module_name = require(PyModule_GetNameObject(module_));
    const capi::FunctionHome home{function_type_.get(), module_, this, module_name.get()};
    capi::ClassBuilder builder(home, "RotationBase");
    builder.doc(class_doc)
        .attribute("_name", capi::make_str("rotation_base").get())
        .attribute("arity", capi::make_int(1).get())
        .method(init_def)
        .method(repr_def)
        .method(call_def)
        .method(compute_def)
        .property(stateful_def)
        .method(get_state_def)
        .method(set_state_def)
        .method(checkpoint_def)
        .method(recover_def)
        .method(resize_def);
    require(PyModule_AddObjectRef(module_, "RotationBase", builder.build().get()));
}

int State::traverse(visitproc visit, void* arg) const {
    Py_VISIT(function_type_.get());
    Py_VISIT(abstract_method_required.get());
    return 0;
}

}  // namespace quorvane::rotations::boilerplate

PyMODINIT_FUNC PyInit__boilerplate() {
    return quorvane::capi::ModuleWith<quorvane::rotations::boilerplate::State>::initialise(
        "_boilerplate", "The frame that all rotations share.");
}
