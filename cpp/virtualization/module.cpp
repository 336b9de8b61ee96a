// The module's table of contents: its names, in the order in which an import binds them.

#include "capi/module.hpp"

#include "capi/numpy.hpp"
#include "virtualization/batch.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/call.hpp"
#include "virtualization/child_chain.hpp"
#include "virtualization/child_state.hpp"
#include "virtualization/compute.hpp"
#include "virtualization/constants.hpp"
#include "virtualization/construction.hpp"
#include "virtualization/context.hpp"
#include "virtualization/expression.hpp"
#include "virtualization/persistence.hpp"
#include "virtualization/slots.hpp"
#include "virtualization/state.hpp"
#include "virtualization/state_restore.hpp"
#include "virtualization/state_snapshot.hpp"
#include "virtualization/state_validation.hpp"
#include "virtualization/structure.hpp"
#include "virtualization/trace.hpp"
#include "virtualization/unmapping.hpp"
#include "virtualization/validity.hpp"

namespace quorvane::virtualization {

namespace {

using capi::ClassBuilder;
using capi::FunctionHome;
using capi::import_from;
using capi::import_module;
using capi::make_int;
using capi::make_str;

Ref keyword_names(std::initializer_list<const char*> texts) {
    Ref names = require(PyTuple_New(static_cast<Py_ssize_t>(texts.size())));
    Py_ssize_t index = 0;
    for (const char* text : texts) {
        PyTuple_SET_ITEM(names.get(), index++, require(PyUnicode_InternFromString(text)).release());
    }
    return names;
}

Ref make_rotation_class(const FunctionHome& home, const Ref& base, Ref& class_cell) {
    ClassBuilder builder(home, "VirtualizationBase", base);
    builder.doc("Base class for rotations that map TxN inputs through a TxI child space.")
        .attribute("_name", make_str("virtualization_base").get())
        .attribute("arity", make_int(2).get())
        .method(init_def)
        .static_method(validate_constructor_def)
        .method(parse_transformation_expression_def)
        .property(stateful_def)
        .method(refresh_active_structures_def)
        .method(normalize_structure_def)
        .method(slot_for_key_def)
        .method(structure_is_valid_def)
        .method(make_child_context_def)
        .method(run_child_chain_def)
        .method(unmap_def)
        .method(record_trace_def)
        .method(compute_def)
        .method(call_def)
        .method(batch_reference_def)
        .method(get_state_def)
        .method(validate_state_components_def)
        .method(validate_child_states_def)
        .method(snapshot_child_states_def)
        .method(restore_child_snapshots_def)
        .method(set_state_def)
        .method(checkpoint_def)
        .method(recover_def)
        .method(resize_def);
    class_cell = builder.class_cell();
    return builder.build();
}

}  // namespace

State::State(PyObject* module)
    : context_keyword(keyword_names({"context"})),
      dtype_keyword(keyword_names({"dtype"})),
      N_alloc_keyword(keyword_names({"N_alloc"})),
      current_day_index_keyword(keyword_names({"current_day_index"})),
      dtype_and_copy_keywords(keyword_names({"dtype", "copy"})),
      zero(make_int(0)),
      one(make_int(1)),
      caches(std::make_unique<TableCaches>(dict_watcher)),
      module_(module),
      globals_(Ref::borrow(PyModule_GetDict(module))),
      function_type_(capi::make_native_function_type(module)) {}

void State::execute() {
    bind_imports();

    bind("MAX_VIRTUAL_STRUCTURES", make_int(1'000'000).get());
    bind("MAX_TRANSFORMATION_EXPRESSION_BYTES", make_int(512).get());
    bind("MAX_TRANSFORMATION_CHILDREN", make_int(4).get());
    bind("MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS", global(names.MAX_VIRTUAL_STRUCTURES).get());
    bind("_IDENTITY_EXPRESSIONS", make_identity_expressions().get());
    bind("_CHILD_ROTATION_ALIASES", make_child_rotation_aliases().get());
    bind("_EXPRESSION_TOKEN_RE", make_expression_token_pattern(*this).get());

    const Ref module_name = require(PyModule_GetNameObject(module_));
    const FunctionHome home{function_type_.get(), module_, this, module_name.get()};
    bind("VirtualStructure", make_structure_class(*this, home).get());
    module_guard.remember(*this);
    bind("_VirtualContext", make_context_class(*this, home).get());
    bind("_AllOnesVirtualMask", make_mask_class(*this, home).get());
    const Ref rotation_base = global(capi::Interned("RotationBase"));
    const Ref rotation_class = make_rotation_class(home, rotation_base, rotation_class_cell_);
    bind("VirtualizationBase", rotation_class.get());
}

State::~State() = default;

void State::bind_imports() {
    bind("copy", import_module("copy").get());
    bind("dataclass", import_from("dataclasses", "dataclass").get());
    bind("re", import_module("re").get());
    bind("np", import_module("numpy").get());
    capi::import_numpy();
    bind("abstract_method_required",
         import_from("quorvane.functions._abstract_hooks", "abstract_method_required").get());
    bind("RotationBase",
         import_from("quorvane.functions.rotations._boilerplate", "RotationBase").get());
}

void State::bind(const char* name, PyObject* value) {
    require(PyDict_SetItemString(globals(), name, value));
}

int State::traverse(visitproc visit, void* arg) const {
    Py_VISIT(globals());
    Py_VISIT(function_type_.get());
    Py_VISIT(rotation_class_cell_.get());
    for (const OwnClass* own : {&context_class, &mask_class}) {
        if (const int status = own->traverse(visit, arg)) return status;
    }
    return module_guard.traverse(visit, arg);
}

Ref State::global(PyObject* name) const {
    if (Ref value = capi::dict_get(globals(), name)) return value;
    if (Ref value = capi::dict_get(PyEval_GetBuiltins(), name)) return value;
    const Ref text = require(PyUnicode_FromFormat("name '%U' is not defined", name));
    const Ref error = call(PyExc_NameError, text.get());
    set_attr(error.get(), capi::Interned("name"), name);
    PyErr_SetObject(PyExc_NameError, error.get());
    throw capi::PythonError();
}

Ref State::numpy_with_dtype(PyObject* function, PyObject* argument, PyObject* dtype) const {
    const Ref callable = numpy(function);
    return call_with_keywords(callable.get(), dtype_keyword.get(), argument, numpy(dtype).get());
}

Ref State::super_attr(PyObject* self, PyObject* name) const {
    return capi::super_attr(rotation_class_cell_.get(), self, name);
}

Method State::super_method(PyObject* self, PyObject* name) const {
    return Method::of_super(rotation_class_cell_.get(), self, name);
}

}  // namespace quorvane::virtualization

PyMODINIT_FUNC PyInit_base() {
    return quorvane::capi::ModuleWith<quorvane::virtualization::State>::initialise(
        "base", "Common TxN/TxI adapter for virtualization rotations.");
}
