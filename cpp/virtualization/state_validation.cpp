#include "virtualization/state_validation.hpp"

#include "capi/gc_pause.hpp"
#include "virtualization/fast/state_checks.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/rotation_guard.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter parameters[] = {positional("self"), positional("state")};

// The rotation that a state is checked for, and the error of a failed check.
struct Rotation {
    const State& state;
    PyObject* self;

    [[noreturn]] void reject(const char* text) const {
        message_of(state, self).text(text).raise(PyExc_ValueError);
    }
    void demand(bool condition, const char* text) const {
        if (!condition) reject(text);
    }
    [[nodiscard]] Ref max_structures() const { return attr(self, state.names.max_structures); }
    [[nodiscard]] Ref n_alloc() const { return attr(self, state.names.n_alloc); }
};

bool is_dict(PyObject* object) { return capi::is_instance(object, PyDict_Type); }
bool is_tuple(PyObject* object) { return capi::is_instance(object, PyTuple_Type); }
bool is_list_or_tuple(PyObject* object) {
    return capi::is_instance(object, PyList_Type) || is_tuple(object);
}

// What the state dictionary says, before any check; a missing map is an empty one.
struct RawState {
    Ref slot_by_key, key_by_slot, legs_by_slot, metadata, limit;
};

Ref get_or(const Rotation& rotation, PyObject* state_dict, PyObject* key, const Ref& fallback) {
    return call_method(state_dict, rotation.state.names.get, key, fallback.get());
}

RawState read_state(const Rotation& rotation, PyObject* state_dict) {
    const Names& names = rotation.state.names;
    RawState raw;
    raw.slot_by_key = get_or(rotation, state_dict, names.slot_by_key, capi::make_dict());
    raw.key_by_slot = get_or(rotation, state_dict, names.key_by_slot, capi::make_dict());
    raw.legs_by_slot = get_or(rotation, state_dict, names.legs_by_slot_key, capi::make_dict());
    raw.metadata = call_method(state_dict, names.get, names.structure_metadata_by_slot);
    const Ref get = attr(state_dict, names.get);
    raw.limit = call(get.get(), names.structure_N_limit_key, rotation.n_alloc().get());
    return raw;
}

void check_maps(const Rotation& rotation, const RawState& raw) {
    rotation.demand(is_dict(raw.slot_by_key.get()), ": slot_by_key must be a dict");
    rotation.demand(is_dict(raw.key_by_slot.get()), ": key_by_slot must be a dict");
    rotation.demand(is_dict(raw.legs_by_slot.get()), ": legs_by_slot must be a dict");
    const auto fits = [&](const Ref& map) {
        const Ref size = capi::make_int(capi::length(map.get()));
        return !capi::compare(size.get(), rotation.max_structures().get(), Py_GT);
    };
    rotation.demand(fits(raw.slot_by_key), ": slot_by_key exceeds max_structures");
    rotation.demand(fits(raw.key_by_slot), ": key_by_slot exceeds max_structures");
    rotation.demand(fits(raw.legs_by_slot), ": legs_by_slot exceeds max_structures");
}

bool is_negative(const Rotation& rotation, PyObject* number) {
    return capi::compare(number, rotation.state.zero.get(), Py_LT);
}

Ref checked_limit(const Rotation& rotation, const Ref& raw_limit) {
    const Ref limit = capi::is_none(raw_limit.get()) ? rotation.n_alloc() : raw_limit.share();
    rotation.demand(capi::is_integer(limit.get()), ": structure_N_limit must be an integer");
    const bool inside = !is_negative(rotation, limit.get()) &&
                        !capi::compare(limit.get(), rotation.n_alloc().get(), Py_GT);
    rotation.demand(inside, ": structure_N_limit must be between 0 and N_alloc");
    return capi::to_int(limit.get());
}

bool is_slot(const Rotation& rotation, PyObject* slot) {
    return !is_negative(rotation, slot) &&
           !capi::compare(slot, rotation.max_structures().get(), Py_GE);
}

// for first, second in mapping.items(): body(first, second)
template <class Body>
void for_each_entry(const Rotation& rotation, const Ref& mapping, Body&& body) {
    capi::Iteration entries(call_method(mapping.get(), rotation.state.names.items).get());
    while (const Ref entry = entries.next()) {
        const capi::Pair pair = capi::unpack_pair(entry.get());
        body(pair.first.get(), pair.second.get());
    }
}

struct SlotMaps {
    Ref slot_by_key = capi::make_dict();
    Ref key_by_slot = capi::make_dict();
};

SlotMaps checked_slot_maps(const Rotation& rotation, const Ref& raw_slot_by_key) {
    SlotMaps maps;
    for_each_entry(rotation, raw_slot_by_key, [&](PyObject* raw_key, PyObject* raw_slot) {
        rotation.demand(is_tuple(raw_key), ": slot_by_key keys must be tuples");
        rotation.demand(capi::is_integer(raw_slot), ": slot values must be integers");
        const Ref slot = capi::to_int(raw_slot);
        rotation.demand(is_slot(rotation, slot.get()), ": slot out of range");
        const Ref key = capi::to_tuple(raw_key);
        rotation.demand(!capi::contains(maps.key_by_slot.get(), slot.get()),
                        ": duplicate slot in slot_by_key");
        require(PyDict_SetItem(maps.slot_by_key.get(), key.get(), slot.get()));
        require(PyDict_SetItem(maps.key_by_slot.get(), slot.get(), key.get()));
    });
    return maps;
}

// The state's own inverse map is only compared; the derived one is what counts.
void check_inverse(const Rotation& rotation, const Ref& raw_key_by_slot, const SlotMaps& maps) {
    const Ref inverse = capi::make_dict();
    for_each_entry(rotation, raw_key_by_slot, [&](PyObject* raw_slot, PyObject* raw_key) {
        rotation.demand(capi::is_integer(raw_slot), ": key_by_slot keys must be integers");
        const Ref slot = capi::to_int(raw_slot);
        rotation.demand(is_slot(rotation, slot.get()), ": key_by_slot slot out of range");
        rotation.demand(is_tuple(raw_key), ": key_by_slot values must be tuples");
        require(PyDict_SetItem(inverse.get(), slot.get(), capi::to_tuple(raw_key).get()));
    });
    rotation.demand(!capi::compare(inverse.get(), maps.key_by_slot.get(), Py_NE),
                    ": slot/key maps must be a bijection");
}

Ref checked_leg(const Rotation& rotation, PyObject* leg, const Ref& limit) {
    rotation.demand(is_list_or_tuple(leg) && capi::length(leg) == 2, ": each leg must be a pair");
    const capi::Pair parts = capi::unpack_pair(leg);
    rotation.demand(capi::is_integer(parts.first.get()), ": leg ids must be integers");
    const Ref leg_id = capi::to_int(parts.first.get());
    const bool inside =
        !is_negative(rotation, leg_id.get()) && !capi::compare(leg_id.get(), limit.get(), Py_GE);
    rotation.demand(inside, ": leg id out of range");
    const Ref weight = capi::to_float(parts.second.get());
    const Ref isfinite = rotation.state.numpy(rotation.state.names.isfinite);
    rotation.demand(capi::truth(call(isfinite.get(), weight.get()).get()),
                    ": leg weights must be finite");
    return capi::make_tuple(leg_id.get(), weight.get());
}

Ref checked_legs(const Rotation& rotation, const Ref& raw_legs_by_slot, const SlotMaps& maps,
                 const Ref& limit) {
    Ref legs_by_slot = capi::make_dict();
    for_each_entry(rotation, raw_legs_by_slot, [&](PyObject* raw_slot, PyObject* raw_legs) {
        rotation.demand(capi::is_integer(raw_slot), ": legs_by_slot keys must be integers");
        const Ref slot = capi::to_int(raw_slot);
        rotation.demand(capi::contains(maps.key_by_slot.get(), slot.get()),
                        ": legs_by_slot references unknown slot");
        rotation.demand(is_list_or_tuple(raw_legs), ": legs must be a list or tuple");
        const Ref legs = capi::make_list();
        capi::Iteration iteration(raw_legs);
        Ref leg;
        while (iteration.next(leg)) {
            capi::append(legs.get(), checked_leg(rotation, leg.get(), limit).get());
        }
        require(PyDict_SetItem(legs_by_slot.get(), slot.get(), capi::to_tuple(legs.get()).get()));
    });
    return legs_by_slot;
}

// Without metadata in the state the rotation's own list stays, the very object.
Ref checked_metadata(const Rotation& rotation, const Ref& raw) {
    if (capi::is_none(raw.get())) return attr(rotation.self, rotation.state.names.metadata_by_slot);
    rotation.demand(is_list_or_tuple(raw.get()), ": structure_metadata_by_slot must be a list");
    const Ref size = capi::make_int(capi::length(raw.get()));
    rotation.demand(!capi::compare(size.get(), rotation.max_structures().get(), Py_NE),
                    ": structure_metadata_by_slot length must equal max_structures");
    Ref copies = capi::make_list();
    capi::Iteration entries(raw.get());
    Ref entry;
    while (entries.next(entry)) {
        rotation.demand(is_dict(entry.get()), ": metadata entries must be dicts");
        capi::append(copies.get(), capi::to_dict(entry.get()).get());
    }
    return copies;
}

// The width of the child space, when looking it up cannot be observed; else -1.
Py_ssize_t plain_width(const Rotation& rotation) {
    const Ref width = plain_attribute(rotation.self, rotation.state.names.max_structures);
    return plain_size(width.get());
}

// A copy, during which no finalizers may change what has just been checked.
Ref copy_of(PyObject* map) {
    const capi::GcPause no_finalizers;
    return require(PyDict_Copy(map));
}

SlotMaps slot_maps(const Rotation& rotation, const RawState& raw) {
    PyObject* slots = raw.slot_by_key.get();
    PyObject* keys = raw.key_by_slot.get();
    if (SlotSet seen; are_inverse_maps(slots, keys, plain_width(rotation), seen)) {
        const capi::GcPause no_finalizers;  // which could change the second map
        return {copy_of(slots), copy_of(keys)};
    }
    SlotMaps maps = checked_slot_maps(rotation, raw.slot_by_key);
    check_inverse(rotation, raw.key_by_slot, maps);
    return maps;
}

Ref legs_by_slot(const Rotation& rotation, const RawState& raw, const SlotMaps& maps,
                 const Ref& limit) {
    PyObject* legs = raw.legs_by_slot.get();
    const Py_ssize_t width = plain_width(rotation);
    if (rotation.state.module_guard.numpy_holds(rotation.state)) {
        const SlotSet slots = slots_of(maps.key_by_slot.get(), width);
        if (are_legs_of_slots(legs, slots, plain_size(limit.get()))) return copy_of(legs);
    }
    return checked_legs(rotation, raw.legs_by_slot, maps, limit);
}

Ref metadata_list(const Rotation& rotation, const RawState& raw) {
    Ref quick = copy_metadata_list(raw.metadata.get(), plain_width(rotation));
    return quick ? std::move(quick) : checked_metadata(rotation, raw.metadata);
}

Ref validate(State& state, PyObject* const* values) {
    const Rotation rotation{state, values[0]};
    const RawState raw = read_state(rotation, values[1]);
    check_maps(rotation, raw);
    const Ref limit = checked_limit(rotation, raw.limit);
    const SlotMaps maps = slot_maps(rotation, raw);
    const Ref legs = legs_by_slot(rotation, raw, maps, limit);
    const Ref metadata = metadata_list(rotation, raw);
    return capi::make_tuple(maps.slot_by_key.get(), maps.key_by_slot.get(), legs.get(),
                            metadata.get(), limit.get());
}

}  // namespace

const capi::FunctionDef validate_state_components_def{"_validate_state_components", parameters,
                                                      capi::body_of<State, validate>};

}  // namespace quorvane::virtualization
