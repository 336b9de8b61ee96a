#pragma once

#include "capi/names.hpp"
#include "columns/columns.hpp"

namespace quorvane::virtualization {

// Every attribute, dict key and global that the module reads or writes by name.
struct Names {
    using Interned = capi::Interned;

    // Module globals.
    Interned np{"np"};
    Interned copy{"copy"};
    Interned abstract_method_required{"abstract_method_required"};
    Interned MAX_VIRTUAL_STRUCTURES{"MAX_VIRTUAL_STRUCTURES"};
    Interned MAX_TRANSFORMATION_EXPRESSION_BYTES{"MAX_TRANSFORMATION_EXPRESSION_BYTES"};
    Interned MAX_TRANSFORMATION_CHILDREN{"MAX_TRANSFORMATION_CHILDREN"};
    Interned MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS{"MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS"};
    Interned IDENTITY_EXPRESSIONS{"_IDENTITY_EXPRESSIONS"};
    Interned CHILD_ROTATION_ALIASES{"_CHILD_ROTATION_ALIASES"};
    Interned EXPRESSION_TOKEN_RE{"_EXPRESSION_TOKEN_RE"};
    Interned VirtualStructure{"VirtualStructure"};
    Interned VirtualContext{"_VirtualContext"};
    Interned AllOnesVirtualMask{"_AllOnesVirtualMask"};

    // Attributes of the rotation.
    Interned init{"__init__"};
    Interned call{"__call__"};
    Interned name{"_name"};
    Interned n_alloc{"_n_alloc"};
    Interned max_structures{"max_structures"};
    Interned transformation_expression{"transformation_expression"};
    Interned unmap_policy{"unmap_policy"};
    Interned child_factories{"child_factories"};
    Interned child_rotations{"child_rotations"};
    Interned slot_by_key{"slot_by_key"};
    Interned key_by_slot{"key_by_slot"};
    Interned legs_by_slot{"_legs_by_slot"};
    Interned metadata_by_slot{"_metadata_by_slot"};
    Interned txi_input{"_txi_input"};
    Interned txi_output{"_txi_output"};
    Interned txi_universe_row{"_txi_universe_row"};
    Interned current_parent_context{"_current_parent_context"};
    Interned structure_N_limit{"_structure_N_limit"};
    Interned trace_sink{"trace_sink"};
    Interned call_child_on_empty{"_call_child_on_empty"};
    Interned output_buf{"_output_buf"};
    Interned combined_nan_buf{"_combined_nan_buf"};

    // Attributes of rotations whose structures are planned.
    Interned columns{"_columns"};
    Interned instruments{"_instruments"};
    Interned basket_values{"basket_values"};

    // Methods that are called through the instance.
    Interned compute{"compute"};
    Interned validate_constructor{"_validate_constructor"};
    Interned parse_transformation_expression{"_parse_transformation_expression"};
    Interned refresh_active_structures{"_refresh_active_structures"};
    Interned normalize_structure{"_normalize_structure"};
    Interned slot_for_key{"_slot_for_key"};
    Interned structure_is_valid{"_structure_is_valid"};
    Interned make_child_context{"_make_child_context"};
    Interned run_child_chain{"_run_child_chain"};
    Interned unmap{"_unmap"};
    Interned record_trace{"_record_trace"};
    Interned get_state{"get_state"};
    Interned set_state{"set_state"};
    Interned validate_state_components{"_validate_state_components"};
    Interned validate_child_states{"_validate_child_states"};
    Interned snapshot_child_states{"_snapshot_child_states"};
    Interned restore_child_snapshots{"_restore_child_snapshots"};

    // Fields of items, records, contexts and masks.
    Interned key{"key"};
    Interned legs{"legs"};
    Interned value{"value"};
    Interned metadata{"metadata"};
    Interned slot{"slot"};
    Interned active{"active"};
    Interned context{"context"};
    Interned universe_mask{"universe_mask"};
    Interned current_day_index{"current_day_index"};
    Interned shape{"shape"};
    Interned row{"_row"};
    Interned indices{"indices"};

    // What the context of a whole history has besides.
    Interned has_history_options{"_has_history_options"};
    Interned threads{"threads"};
    Interned progress{"progress"};
    Interned ends_with_children{"ends_with_children"};

    // Keys of trace records and state dictionaries.
    Interned day_index{"day_index"};
    Interned metadata_by_slot_key{"metadata_by_slot"};
    Interned txi_input_key{"txi_input"};
    Interned txi_output_key{"txi_output"};
    Interned txn_output{"txn_output"};
    Interned constructor{"constructor"};
    Interned N_alloc{"N_alloc"};
    Interned legs_by_slot_key{"legs_by_slot"};
    Interned structure_metadata_by_slot{"structure_metadata_by_slot"};
    Interned structure_N_limit_key{"structure_N_limit"};
    Interned child_states{"child_states"};

    // Methods of the objects that the module meets.
    Interned append{"append"};
    Interned extend{"extend"};
    Interned get{"get"};
    Interned items{"items"};
    Interned clear{"clear"};
    Interned fill{"fill"};
    Interned strip{"strip"};
    Interned lower{"lower"};
    Interned split{"split"};
    Interned encode{"encode"};
    Interned match{"match"};
    Interned group{"group"};
    Interned create_instance{"create_instance"};
    Interned read{"read"};
    Interned write{"write"};
    Interned add_note{"add_note"};
    Interned deepcopy{"deepcopy"};

    // Names in NumPy.
    Interned nan{"nan"};
    Interned float64{"float64"};
    Interned uint8{"uint8"};
    Interned full{"full"};
    Interned ones{"ones"};
    Interned zeros{"zeros"};
    Interned empty{"empty"};
    Interned array{"array"};
    Interned asarray{"asarray"};
    Interned isfinite{"isfinite"};
    Interned vstack{"vstack"};
    Interned broadcast_to{"broadcast_to"};

    // What structure columns are recognised by.
    Interned passport{columns::passport_attribute};
};

}  // namespace quorvane::virtualization
