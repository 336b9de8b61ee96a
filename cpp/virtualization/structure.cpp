#include "virtualization/structure.hpp"

#include "virtualization/fast/structure_record.hpp"

namespace quorvane::virtualization {

namespace {

constexpr capi::Parameter parameters[] = {capi::positional("self"), capi::positional("item")};

// What an item says, before any conversion.
struct RawStructure {
    Ref key, legs, value, metadata;
};

// A dict is read by subscription and by its own get, so that subclasses keep theirs.
RawStructure read_dict(const State& state, PyObject* item_dict) {
    const Names& names = state.names;
    RawStructure raw;
    raw.key = item(item_dict, names.key);
    raw.legs = item(item_dict, names.legs);
    const Ref get_value = attr(item_dict, names.get);
    raw.value = call(get_value.get(), names.value, state.numpy(names.nan).get());
    raw.metadata = call_method(item_dict, names.get, names.metadata);
    return raw;
}

RawStructure read_object(const State& state, PyObject* object) {
    const Names& names = state.names;
    RawStructure raw;
    raw.key = attr(object, names.key);
    raw.legs = attr(object, names.legs);
    raw.value = attr(object, names.value);
    raw.metadata = capi::optional_attr(object, names.metadata);
    if (!raw.metadata) raw.metadata = capi::none();
    return raw;
}

Ref normalize_leg(PyObject* leg) {
    const capi::Pair parts = capi::unpack_pair(leg);
    const Ref leg_id = capi::to_int(parts.first.get());
    const Ref weight = capi::to_float(parts.second.get());
    return capi::make_tuple(leg_id.get(), weight.get());
}

// The last leg stays in the variable.
Ref normalize_legs(PyObject* legs, Ref& leg) {
    const Ref normalized = capi::make_list();
    capi::Iteration iteration(legs);
    while (iteration.next(leg)) {
        capi::append(normalized.get(), normalize_leg(leg.get()).get());
    }
    return require(PyList_AsTuple(normalized.get()));
}

Ref normalize(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* raw_item = values[1];
    if (Ref made = normalize_plainly(state, raw_item)) return made;
    const RawStructure raw = capi::is_instance(raw_item, PyDict_Type)
                                 ? read_dict(state, raw_item)
                                 : read_object(state, raw_item);
    Ref last_leg;
    const Ref legs = normalize_legs(raw.legs.get(), last_leg);
    const Ref metadata =
        capi::truth(raw.metadata.get()) ? capi::to_dict(raw.metadata.get()) : capi::make_dict();
    const Ref metadata_key = capi::to_tuple(raw.key.get());
    set_default(metadata.get(), names.key, metadata_key.get());
    set_default(metadata.get(), names.legs, legs.get());
    const Ref record = state.global(names.VirtualStructure);
    const Ref key = capi::to_tuple(raw.key.get());
    const Ref value = capi::to_float(raw.value.get());
    return call(record.get(), key.get(), legs.get(), value.get(), metadata.get());
}

}  // namespace

Ref make_structure_class(const State& state, const capi::FunctionHome& home) {
    struct Field {
        const char* name;
        const char* annotation;
    };
    const Ref annotations = capi::make_dict();
    for (const auto& [name, annotation] :
         {Field{"key", "tuple"}, Field{"legs", "tuple"}, Field{"value", "float"},
          Field{"metadata", "dict | None"}}) {
        require(PyDict_SetItemString(annotations.get(), name, capi::make_str(annotation).get()));
    }
    capi::ClassBuilder builder(home, "VirtualStructure");
    builder.attribute("__annotations__", annotations.get()).attribute("metadata", Py_None);
    const Ref dataclass = state.global(capi::Interned("dataclass"));
    return call(dataclass.get(), builder.build().get());
}

const capi::FunctionDef normalize_structure_def{"_normalize_structure", parameters,
                                                capi::body_of<State, normalize>};

}  // namespace quorvane::virtualization
