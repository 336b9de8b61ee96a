"""What the module binds and what its classes have, by name."""

MODULE_NAMES = [
    "copy",
    "dataclass",
    "re",
    "np",
    "abstract_method_required",
    "RotationBase",
    "MAX_VIRTUAL_STRUCTURES",
    "MAX_TRANSFORMATION_EXPRESSION_BYTES",
    "MAX_TRANSFORMATION_CHILDREN",
    "MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS",
    "_IDENTITY_EXPRESSIONS",
    "_CHILD_ROTATION_ALIASES",
    "_EXPRESSION_TOKEN_RE",
    "VirtualStructure",
    "_VirtualContext",
    "_AllOnesVirtualMask",
    "VirtualizationBase",
]
METHOD_SIGNATURES = {
    "__init__": (
        "(self, *, max_structures=None, transformation_expression=None, N_alloc=None, "
        "unmap_policy='proportional', child_factories=None, child_rotations=None, "
        "trace_sink=None, **kwargs)"
    ),
    "_validate_constructor": "(max_structures, transformation_expression, N_alloc, unmap_policy)",
    "_parse_transformation_expression": "(self, expression)",
    "stateful": "(self)",
    "_refresh_active_structures": (
        "(self, space_input, structure_inputs, nan_masks, combined_nan_mask, N)"
    ),
    "_normalize_structure": "(self, item)",
    "_slot_for_key": "(self, key)",
    "_structure_is_valid": "(self, structure, nan_masks, combined_nan_mask, N)",
    "_make_child_context": "(self, parent_context, day_index)",
    "_run_child_chain": "(self, txi_values, child_context)",
    "_unmap": "(self, txi_output, output_buf, N)",
    "_record_trace": "(self, output_buf, N)",
    "compute": "(self, args, nan_masks, combined_nan_mask, output_buf, N)",
    "__call__": "(self, *args, context=None)",
    "batch_reference": "(self, *matrices, context=None)",
    "get_state": "(self)",
    "_validate_state_components": "(self, state)",
    "_validate_child_states": "(self, state)",
    "_snapshot_child_states": "(self)",
    "_restore_child_snapshots": "(self, snapshots)",
    "set_state": "(self, state)",
    "checkpoint": "(self, utility)",
    "recover": "(self, utility)",
    "resize": "(self, new_N_alloc)",
}
BODY_NAMES = ["_name", "arity", *METHOD_SIGNATURES]


# What the interpreter itself adds to a class body or a class, by version.
INTERPRETER_NAMES = {
    "__module__",
    "__qualname__",
    "__doc__",
    "__classcell__",
    "__classdictcell__",
    "__firstlineno__",
    "__static_attributes__",
    "__dict__",
    "__weakref__",
    "__abstractmethods__",
    "_abc_impl",
    "__annotate__",
    "__annotate_func__",
    "__annotations_cache__",
}


def own_names(mapping):
    return [name for name in mapping if name not in INTERPRETER_NAMES]
