"""Common TxN/TxI adapter for virtualization rotations."""

# The plain-Python twin of the native module: the oracle of the tests. It is written for clarity
# alone, one statement per rule, in the order in which the rules apply. The annotations of the
# record are spelled as strings because they are strings, without a __future__ import, so that the
# module has exactly the native module's names.

# ruff: noqa: I001, SIM108
import copy
from dataclasses import dataclass
import re
import numpy as np
from quorvane.functions._abstract_hooks import abstract_method_required
from quorvane.functions.rotations._boilerplate import RotationBase

MAX_VIRTUAL_STRUCTURES = 1000000
MAX_TRANSFORMATION_EXPRESSION_BYTES = 512
MAX_TRANSFORMATION_CHILDREN = 4
MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS = MAX_VIRTUAL_STRUCTURES

_IDENTITY_EXPRESSIONS = {
    "",
    "identity",
    "identity()",
    "noop",
    "noop()",
    "none",
    "recording_identity",
    "recording_identity()",
}

# A full name shares its short alias's tuple, so it takes its value from the table itself.
_CHILD_ROTATION_ALIASES = {}
_CHILD_ROTATION_ALIASES["ewma"] = ("longitudinal_ewma_67301c", "window")
_CHILD_ROTATION_ALIASES["longitudinal_ewma_67301c"] = _CHILD_ROTATION_ALIASES["ewma"]
_CHILD_ROTATION_ALIASES["zscore"] = ("latitudinal_normalize_092871", None)
_CHILD_ROTATION_ALIASES["latitudinal_normalize_092871"] = _CHILD_ROTATION_ALIASES["zscore"]
_CHILD_ROTATION_ALIASES["rank"] = ("latitudinal_rank_688068", None)
_CHILD_ROTATION_ALIASES["latitudinal_rank_688068"] = _CHILD_ROTATION_ALIASES["rank"]
_CHILD_ROTATION_ALIASES["sigmoid"] = ("numerical_transcendental_2f4f61", None)
_CHILD_ROTATION_ALIASES["numerical_transcendental_2f4f61"] = _CHILD_ROTATION_ALIASES["sigmoid"]

_EXPRESSION_TOKEN_RE = re.compile(r"^([A-Za-z_][A-Za-z0-9_]*)(?:\(([^()]*)\))?$")


@dataclass
class VirtualStructure:
    key: "tuple"
    legs: "tuple"
    value: "float"
    metadata: "dict | None" = None


class _VirtualContext:
    def __init__(self, universe_mask, current_day_index=0):
        self.universe_mask = universe_mask
        self.current_day_index = current_day_index


class _AllOnesVirtualMask:
    """Shape-compatible all-in-universe mask without dense TxI row history."""

    ndim = 2

    def __init__(self, rows, row):
        row_count = int(rows)
        column_count = int(row.shape[0])
        self.shape = (row_count, column_count)
        self._row = row

    def __getitem__(self, item):
        if isinstance(item, tuple):
            row_key, column_key = item
            return self[row_key][column_key]
        if isinstance(item, slice):
            selected = len(range(*item.indices(self.shape[0])))
            return np.broadcast_to(self._row, (selected, self.shape[1]))
        index = int(item)
        if index < 0:
            index = index + self.shape[0]
        if index < 0 or index >= self.shape[0]:
            raise IndexError(index)
        return self._row


class VirtualizationBase(RotationBase):
    """Base class for rotations that map TxN inputs through a TxI child space."""

    _name = "virtualization_base"
    arity = 2

    def __init__(
        self,
        *,
        max_structures=None,
        transformation_expression=None,
        N_alloc=None,
        unmap_policy="proportional",
        child_factories=None,
        child_rotations=None,
        trace_sink=None,
        **kwargs,
    ):
        self._validate_constructor(max_structures, transformation_expression, N_alloc, unmap_policy)
        super().__init__(N_alloc=N_alloc, **kwargs)
        self.max_structures = int(max_structures)
        self.transformation_expression = transformation_expression
        self.unmap_policy = unmap_policy
        self.child_factories = list(child_factories or [])
        self.child_rotations = list(child_rotations or [])
        for factory in self.child_factories:
            self.child_rotations.append(factory(N_alloc=self.max_structures))
        self.child_rotations.extend(
            self._parse_transformation_expression(transformation_expression)
        )
        self.slot_by_key = {}
        self.key_by_slot = {}
        self._legs_by_slot = {}
        self._metadata_by_slot = [{"active": False} for _ in range(self.max_structures)]
        self._txi_input = np.full(self.max_structures, np.nan, dtype=np.float64)
        self._txi_output = np.full(self.max_structures, np.nan, dtype=np.float64)
        self._txi_universe_row = np.ones(self.max_structures, dtype=np.uint8)
        self._current_parent_context = None
        self._structure_N_limit = self._n_alloc
        self.trace_sink = trace_sink

    @staticmethod
    def _validate_constructor(max_structures, transformation_expression, N_alloc, unmap_policy):
        if not isinstance(max_structures, int) or isinstance(max_structures, bool):
            raise TypeError("max_structures must be a positive integer")
        if max_structures <= 0:
            raise ValueError("max_structures must be a positive integer")
        if max_structures > MAX_VIRTUAL_STRUCTURES:
            raise ValueError("max_structures must be <= " + str(MAX_VIRTUAL_STRUCTURES))
        if not isinstance(N_alloc, int) or isinstance(N_alloc, bool):
            raise TypeError("N_alloc must be a positive integer")
        if N_alloc <= 0:
            raise ValueError("N_alloc must be a positive integer")
        if N_alloc > MAX_VIRTUAL_STRUCTURES:
            raise ValueError("N_alloc must be <= " + str(MAX_VIRTUAL_STRUCTURES))
        if not isinstance(transformation_expression, str) or not transformation_expression.strip():
            raise ValueError("transformation_expression must be a non-empty string")
        if unmap_policy != "proportional" and unmap_policy != "equal_split":
            raise ValueError("unmap_policy must be one of: proportional, equal_split")

    def _parse_transformation_expression(self, expression):
        text = expression.strip()
        if len(text.encode("utf-8")) > MAX_TRANSFORMATION_EXPRESSION_BYTES:
            raise ValueError(
                "transformation_expression must be <= "
                + str(MAX_TRANSFORMATION_EXPRESSION_BYTES)
                + " bytes"
            )
        if text.lower() in _IDENTITY_EXPRESSIONS:
            return []
        child_specs = []
        for raw_token in text.split(";"):
            token = raw_token.strip()
            if not token:
                continue
            match = _EXPRESSION_TOKEN_RE.match(token)
            if match is None:
                raise ValueError(
                    f"{self._name}: malformed transformation_expression token {token!r}"
                )
            alias = match.group(1).lower()
            arg_text = (match.group(2) or "").strip()
            if alias in _IDENTITY_EXPRESSIONS and not arg_text:
                continue
            if alias not in _CHILD_ROTATION_ALIASES:
                raise ValueError(
                    f"{self._name}: unsupported transformation_expression token {token!r}"
                )
            registry_name, positional_param = _CHILD_ROTATION_ALIASES[alias]
            kwargs = {}
            if not arg_text and positional_param is not None:
                raise ValueError(f"{self._name}: {token!r} requires an integer argument")
            if arg_text and positional_param is None:
                raise ValueError(f"{self._name}: {token!r} does not accept arguments")
            if arg_text and positional_param is not None:
                if "," in arg_text or "=" in arg_text:
                    raise ValueError(f"{self._name}: {token!r} only accepts one integer argument")
                try:
                    kwargs[positional_param] = int(arg_text)
                except ValueError as error:
                    raise ValueError(
                        f"{self._name}: {token!r} requires an integer argument"
                    ) from error
            child_specs.append((registry_name, kwargs))
        if len(child_specs) > MAX_TRANSFORMATION_CHILDREN:
            raise ValueError(
                "transformation_expression supports at most "
                + str(MAX_TRANSFORMATION_CHILDREN)
                + " child rotations"
            )
        child_cells = len(child_specs) * self.max_structures
        if child_cells > MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS:
            raise ValueError(
                "transformation_expression child allocation must be <= "
                + str(MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS)
                + " cells"
            )
        if not child_specs:
            raise ValueError(
                "transformation_expression must be an explicit identity alias or contain "
                "at least one supported child rotation"
            )
        from quorvane.functions._registry import StaticFunctionRegistry

        registry = StaticFunctionRegistry(N_alloc=self.max_structures)
        return [
            registry.create_instance(registry_name, **kwargs)
            for (registry_name, kwargs) in child_specs
        ]

    @property
    def stateful(self):
        return True

    def _refresh_active_structures(
        self, space_input, structure_inputs, nan_masks, combined_nan_mask, N
    ):
        return abstract_method_required("VirtualizationBase._refresh_active_structures")

    def _normalize_structure(self, item):
        if isinstance(item, dict):
            key = item["key"]
            legs = item["legs"]
            value = item.get("value", np.nan)
            metadata = item.get("metadata")
        else:
            key = item.key
            legs = item.legs
            value = item.value
            metadata = getattr(item, "metadata", None)
        pairs = []
        for leg in legs:
            leg_id, weight = leg
            pairs.append((int(leg_id), float(weight)))
        normalized_legs = tuple(pairs)
        new_metadata = dict(metadata or {})
        new_metadata.setdefault("key", tuple(key))
        new_metadata.setdefault("legs", normalized_legs)
        return VirtualStructure(tuple(key), normalized_legs, float(value), new_metadata)

    def _slot_for_key(self, key):
        key = tuple(key)
        if key in self.slot_by_key:
            return self.slot_by_key[key]
        if len(self.slot_by_key) >= self.max_structures:
            raise ValueError(
                f"{self._name}: active structure count exceeds max_structures={self.max_structures}"
            )
        slot = len(self.slot_by_key)
        self.slot_by_key[key] = slot
        self.key_by_slot[slot] = key
        return slot

    def _structure_is_valid(self, structure, nan_masks, combined_nan_mask, N):
        for leg in structure.legs:
            leg_id, _weight = leg
            if leg_id < 0 or leg_id >= N:
                return False
            if combined_nan_mask[leg_id]:
                return False
            for mask in nan_masks:
                if mask[leg_id]:
                    return False
        return np.isfinite(structure.value)

    def _make_child_context(self, parent_context, day_index):
        rows = max(int(day_index) + 1, 1)
        mask = _AllOnesVirtualMask(rows, self._txi_universe_row)
        return _VirtualContext(mask, current_day_index=day_index)

    def _run_child_chain(self, txi_values, child_context):
        current = np.asarray(txi_values, dtype=np.float64)
        for child in self.child_rotations:
            result = child(current, context=child_context)
            current = np.asarray(result, dtype=np.float64)
            if current.shape != (self.max_structures,):
                raise ValueError(
                    f"{self._name}: child rotation returned shape {current.shape}, "
                    f"expected ({self.max_structures},)"
                )
        return np.array(current, dtype=np.float64, copy=True)

    def _unmap(self, txi_output, output_buf, N):
        output_buf[:N] = np.nan
        sums = np.zeros(N, dtype=np.float64)
        has_contribution = np.zeros(N, dtype=bool)
        for slot in range(self.max_structures):
            value = txi_output[slot]
            if not np.isfinite(value):
                continue
            legs = self._legs_by_slot.get(slot)
            if not legs:
                continue
            if self.unmap_policy == "equal_split":
                scale = value / len(legs)
                for leg, weight in legs:
                    signed = scale if weight >= 0.0 else -scale
                    sums[leg] += signed
                    has_contribution[leg] = True
            else:
                for leg, weight in legs:
                    sums[leg] += value * weight
                    has_contribution[leg] = True
        output_buf[:N][has_contribution] = sums[has_contribution]

    def _record_trace(self, output_buf, N):
        if self.trace_sink is None:
            return
        parent_context = self._current_parent_context
        day_index = 0
        if parent_context is not None:
            day_index = int(getattr(parent_context, "current_day_index", 0))
        record = {
            "day_index": day_index,
            "slot_by_key": dict(self.slot_by_key),
            "key_by_slot": dict(self.key_by_slot),
            "metadata_by_slot": [dict(entry) for entry in self._metadata_by_slot],
            "txi_input": np.array(self._txi_input, dtype=np.float64, copy=True),
            "txi_output": np.array(self._txi_output, dtype=np.float64, copy=True),
            "txn_output": np.array(output_buf[:N], dtype=np.float64, copy=True),
        }
        self.trace_sink.append(record)

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        space_input = args[0]
        structure_inputs = args[1:]
        structures = self._refresh_active_structures(
            space_input, structure_inputs, nan_masks, combined_nan_mask, N
        )
        self._txi_input.fill(np.nan)
        for meta in self._metadata_by_slot:
            meta.clear()
            meta["active"] = False
        for raw in structures:
            structure = self._normalize_structure(raw)
            slot = self._slot_for_key(structure.key)
            valid = self._structure_is_valid(structure, nan_masks, combined_nan_mask, N)
            self._legs_by_slot[slot] = structure.legs
            metadata = dict(structure.metadata or {})
            metadata["slot"] = slot
            metadata["active"] = bool(valid)
            self._metadata_by_slot[slot] = metadata
            if not valid:
                continue
            self._txi_input[slot] = structure.value
        if not structures and not getattr(self, "_call_child_on_empty", True):
            self._txi_output.fill(np.nan)
            self._unmap(self._txi_output, output_buf, N)
            self._record_trace(output_buf, N)
            return 0
        parent_context = self._current_parent_context
        day_index = 0
        if parent_context is not None:
            day_index = int(getattr(parent_context, "current_day_index", 0))
        child_context = self._make_child_context(parent_context, day_index)
        self._txi_output = self._run_child_chain(self._txi_input, child_context)
        self._unmap(self._txi_output, output_buf, N)
        self._record_trace(output_buf, N)
        return 0

    def __call__(self, *args, context=None):
        if self._n_alloc is None and args:
            shape = getattr(args[0], "shape", None)
            if shape is not None and len(shape) > 0:
                input_width = int(shape[-1])
            else:
                input_width = len(args[0])
            if input_width > MAX_VIRTUAL_STRUCTURES:
                raise ValueError(f"{self._name}: input width must be <= {MAX_VIRTUAL_STRUCTURES}")
        self._current_parent_context = context
        try:
            return super().__call__(*args, context=context)
        finally:
            self._current_parent_context = None

    def batch_reference(self, *matrices, context=None):
        arrays = [np.asarray(matrix, dtype=np.float64) for matrix in matrices]
        if not arrays:
            raise ValueError(f"{self._name}: batch_reference requires inputs")
        T = arrays[0].shape[0]
        outputs = []
        base_mask = None
        if context is not None:
            base_mask = getattr(context, "universe_mask", None)
        if base_mask is None:
            base_mask = np.ones((T, arrays[0].shape[1]), dtype=np.uint8)
        for day in range(T):
            day_context = _VirtualContext(base_mask, current_day_index=day)
            outputs.append(self(*[array[day] for array in arrays], context=day_context))
        return np.vstack(outputs)

    def get_state(self):
        return {
            "constructor": {
                "max_structures": self.max_structures,
                "transformation_expression": self.transformation_expression,
                "unmap_policy": self.unmap_policy,
                "N_alloc": self._n_alloc,
            },
            "slot_by_key": dict(self.slot_by_key),
            "key_by_slot": dict(self.key_by_slot),
            "legs_by_slot": dict(self._legs_by_slot),
            "structure_metadata_by_slot": list(self._metadata_by_slot),
            "structure_N_limit": self._structure_N_limit,
            "child_states": [
                child.get_state() if hasattr(child, "get_state") else {}
                for child in self.child_rotations
            ],
        }

    def _validate_state_components(self, state):
        raw_slot_by_key = state.get("slot_by_key", {})
        raw_key_by_slot = state.get("key_by_slot", {})
        raw_legs_by_slot = state.get("legs_by_slot", {})
        raw_metadata = state.get("structure_metadata_by_slot")
        raw_limit = state.get("structure_N_limit", self._n_alloc)

        if not isinstance(raw_slot_by_key, dict):
            raise ValueError(f"{self._name}: slot_by_key must be a dict")
        if not isinstance(raw_key_by_slot, dict):
            raise ValueError(f"{self._name}: key_by_slot must be a dict")
        if not isinstance(raw_legs_by_slot, dict):
            raise ValueError(f"{self._name}: legs_by_slot must be a dict")

        if len(raw_slot_by_key) > self.max_structures:
            raise ValueError(f"{self._name}: slot_by_key exceeds max_structures")
        if len(raw_key_by_slot) > self.max_structures:
            raise ValueError(f"{self._name}: key_by_slot exceeds max_structures")
        if len(raw_legs_by_slot) > self.max_structures:
            raise ValueError(f"{self._name}: legs_by_slot exceeds max_structures")

        if raw_limit is None:
            raw_limit = self._n_alloc
        if not isinstance(raw_limit, int) or isinstance(raw_limit, bool):
            raise ValueError(f"{self._name}: structure_N_limit must be an integer")
        if raw_limit < 0 or raw_limit > self._n_alloc:
            raise ValueError(f"{self._name}: structure_N_limit must be between 0 and N_alloc")
        structure_N_limit = int(raw_limit)

        slot_by_key = {}
        key_by_slot = {}
        for raw_key, raw_slot in raw_slot_by_key.items():
            if not isinstance(raw_key, tuple):
                raise ValueError(f"{self._name}: slot_by_key keys must be tuples")
            if not isinstance(raw_slot, int) or isinstance(raw_slot, bool):
                raise ValueError(f"{self._name}: slot values must be integers")
            slot = int(raw_slot)
            if slot < 0 or slot >= self.max_structures:
                raise ValueError(f"{self._name}: slot out of range")
            key = tuple(raw_key)
            if slot in key_by_slot:
                raise ValueError(f"{self._name}: duplicate slot in slot_by_key")
            slot_by_key[key] = slot
            key_by_slot[slot] = key

        inverse = {}
        for raw_slot, raw_key in raw_key_by_slot.items():
            if not isinstance(raw_slot, int) or isinstance(raw_slot, bool):
                raise ValueError(f"{self._name}: key_by_slot keys must be integers")
            slot = int(raw_slot)
            if slot < 0 or slot >= self.max_structures:
                raise ValueError(f"{self._name}: key_by_slot slot out of range")
            if not isinstance(raw_key, tuple):
                raise ValueError(f"{self._name}: key_by_slot values must be tuples")
            inverse[slot] = tuple(raw_key)
        if inverse != key_by_slot:
            raise ValueError(f"{self._name}: slot/key maps must be a bijection")

        legs_by_slot = {}
        for raw_slot, raw_legs in raw_legs_by_slot.items():
            if not isinstance(raw_slot, int) or isinstance(raw_slot, bool):
                raise ValueError(f"{self._name}: legs_by_slot keys must be integers")
            slot = int(raw_slot)
            if slot not in key_by_slot:
                raise ValueError(f"{self._name}: legs_by_slot references unknown slot")
            if not isinstance(raw_legs, (list, tuple)):
                raise ValueError(f"{self._name}: legs must be a list or tuple")
            pairs = []
            for leg in raw_legs:
                if not isinstance(leg, (list, tuple)) or len(leg) != 2:
                    raise ValueError(f"{self._name}: each leg must be a pair")
                leg_id, weight = leg
                if not isinstance(leg_id, int) or isinstance(leg_id, bool):
                    raise ValueError(f"{self._name}: leg ids must be integers")
                leg_id = int(leg_id)
                if leg_id < 0 or leg_id >= structure_N_limit:
                    raise ValueError(f"{self._name}: leg id out of range")
                weight = float(weight)
                if not np.isfinite(weight):
                    raise ValueError(f"{self._name}: leg weights must be finite")
                pairs.append((leg_id, weight))
            legs_by_slot[slot] = tuple(pairs)

        if raw_metadata is None:
            metadata_by_slot = self._metadata_by_slot
        else:
            if not isinstance(raw_metadata, (list, tuple)):
                raise ValueError(f"{self._name}: structure_metadata_by_slot must be a list")
            if len(raw_metadata) != self.max_structures:
                raise ValueError(
                    f"{self._name}: structure_metadata_by_slot length must equal max_structures"
                )
            metadata_by_slot = []
            for entry in raw_metadata:
                if not isinstance(entry, dict):
                    raise ValueError(f"{self._name}: metadata entries must be dicts")
                metadata_by_slot.append(dict(entry))

        return slot_by_key, key_by_slot, legs_by_slot, metadata_by_slot, structure_N_limit

    def _validate_child_states(self, state):
        child_count = len(self.child_rotations)
        if "child_states" not in state:
            if child_count == 0:
                return []
            raise ValueError(f"{self._name}: child_states length must equal child_rotations")
        raw = state.get("child_states")
        if not isinstance(raw, (list, tuple)):
            raise ValueError(f"{self._name}: child_states must be a list or tuple")
        if len(raw) != child_count:
            raise ValueError(f"{self._name}: child_states length must equal child_rotations")
        return list(raw)

    def _snapshot_child_states(self):
        snapshots = []
        for child in self.child_rotations:
            if hasattr(child, "set_state"):
                if not hasattr(child, "get_state"):
                    raise ValueError(
                        f"{self._name}: child rotations with set_state must also expose get_state"
                    )
                snapshots.append(copy.deepcopy(child.get_state()))
            else:
                snapshots.append(None)
        return snapshots

    def _restore_child_snapshots(self, snapshots):
        restore_errors = []
        for child, snapshot in zip(self.child_rotations, snapshots, strict=False):
            if snapshot is None or not hasattr(child, "set_state"):
                continue
            try:
                child.set_state(copy.deepcopy(snapshot))
            except Exception as error:
                restore_errors.append(error)
        return restore_errors

    def set_state(self, state):
        if not isinstance(state, dict):
            raise ValueError(f"{self._name}: state must be a dict")
        slot_by_key, key_by_slot, legs_by_slot, metadata_by_slot, structure_N_limit = (
            self._validate_state_components(state)
        )
        child_states = self._validate_child_states(state)
        child_snapshots = self._snapshot_child_states()
        try:
            for child, child_state in zip(self.child_rotations, child_states, strict=False):
                if hasattr(child, "set_state"):
                    child.set_state(child_state)
        except Exception as exc:
            restore_errors = self._restore_child_snapshots(child_snapshots)
            if restore_errors and hasattr(exc, "add_note"):
                exc.add_note(
                    f"{self._name}: failed to restore child rotation state: "
                    + repr(restore_errors[0])
                )
            raise
        self.slot_by_key = slot_by_key
        self.key_by_slot = key_by_slot
        self._legs_by_slot = legs_by_slot
        self._metadata_by_slot = metadata_by_slot
        self._structure_N_limit = structure_N_limit

    def checkpoint(self, utility):
        utility.write(self._name, self.get_state())

    def recover(self, utility):
        state = utility.read(self._name)
        if state is None or not isinstance(state, dict):
            return False
        try:
            self.set_state(state)
        except Exception:
            return False
        return True

    def resize(self, new_N_alloc):
        if not isinstance(new_N_alloc, int) or isinstance(new_N_alloc, bool):
            raise TypeError("new_N_alloc must be a positive integer")
        if new_N_alloc <= 0:
            raise ValueError("new_N_alloc must be a positive integer")
        old_N_alloc = self._n_alloc
        self._n_alloc = int(new_N_alloc)
        self._output_buf = np.empty(self._n_alloc, dtype=np.float64)
        self._combined_nan_buf = np.zeros(self._n_alloc, dtype=np.uint8)
        if old_N_alloc is not None:
            if self._structure_N_limit is None:
                self._structure_N_limit = int(old_N_alloc)
            else:
                self._structure_N_limit = min(int(self._structure_N_limit), int(old_N_alloc))
        if self._structure_N_limit is not None and self._n_alloc < self._structure_N_limit:
            self._structure_N_limit = self._n_alloc
