#include "virtualization/fast/restoring.hpp"

#include "capi/change_watch.hpp"
#include "capi/gc_pause.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/child_state.hpp"
#include "virtualization/fast/fetch_ahead.hpp"
#include "virtualization/fast/metadata_rewrite.hpp"
#include "virtualization/fast/state_checks.hpp"
#include "virtualization/guards/class_lookups.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"
#include "virtualization/guards/rotation_guard.hpp"
#include "virtualization/state_validation.hpp"

namespace quorvane::virtualization {

namespace {

// The class leaves attribute access and the steps of a restore alone.
bool has_plain_class(const State& state, PyTypeObject* type) {
    const Names& names = state.names;
    return type->tp_getattro == PyObject_GenericGetAttr &&
           type->tp_setattro == PyObject_GenericSetAttr &&
           sets_none_of(type, {names.slot_by_key, names.key_by_slot, names.legs_by_slot,
                               names.metadata_by_slot, names.structure_N_limit,
                               names.max_structures, names.n_alloc, names.child_rotations}) &&
           has_own_steps(state, type,
                         {{names.validate_state_components, validate_state_components_def},
                          {names.validate_child_states, validate_child_states_def},
                          {names.snapshot_child_states, snapshot_child_states_def}});
}

// The same, and NumPy is its own; and looking did not run code that changed the class, as odd keys
// could. A type gets its version when something is looked up in it.
bool has_plain_surroundings(const State& state, PyTypeObject* type) {
    if (!has_plain_class(state, type)) return false;
    const unsigned int version = capi::version_of(type);
    return version != 0 && has_plain_class(state, type) && state.module_guard.numpy_holds(state) &&
           capi::version_of(type) == version;
}

bool is_empty_sequence(PyObject* object) noexcept {
    return (PyList_CheckExact(object) || PyTuple_CheckExact(object)) && Py_SIZE(object) == 0;
}

struct Maps {
    Ref slot_by_key, key_by_slot, legs_by_slot;
};

// Dropping a map runs no code when all it holds is plain.
template <class IsPlain>
bool holds_only_plain(PyObject* map, IsPlain&& is_plain) {
    EntryBatches entries(map);
    while (entries.next()) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (!is_plain(entries.key(i), entries.value(i))) return false;
        }
    }
    return true;
}

class FastRestore {
public:
    FastRestore(State& state, PyObject* self, PyObject* given)
        : state_(state), self_(self), given_(given) {}

    [[nodiscard]] bool is_possible();

    bool run();

private:
    [[nodiscard]] PyObject* own(PyObject* name) const { return capi::dict_peek(own_.get(), name); }
    // What the state says, null where it says nothing.
    [[nodiscard]] PyObject* given(PyObject* name) const { return capi::dict_peek(given_, name); }

    [[nodiscard]] bool has_no_step_of_its_own() const;
    [[nodiscard]] bool has_no_children() const;
    [[nodiscard]] bool see_limits();
    [[nodiscard]] bool see_tables();
    [[nodiscard]] bool own_maps_are_plain() const;
    [[nodiscard]] bool check_given() const;
    [[nodiscard]] Maps copies() const;
    void put(PyObject* name, const Ref& value) const { set_attr(self_, name, value.get()); }

    State& state_;
    PyObject* self_;
    PyObject* given_;
    Ref own_;  // the instance's dictionary
    Py_ssize_t max_structures_ = -1;
    Ref limit_;
    Maps given_maps_;
    // Borrowed from the instance, which nothing changes before the maps are replaced.
    PyObject* slot_by_key_ = nullptr;
    PyObject* key_by_slot_ = nullptr;
    PyObject* legs_by_slot_ = nullptr;
    PyObject* metadata_ = nullptr;
    PyObject* given_metadata_ = nullptr;
};

// Looking at the surroundings may run code, of odd keys, that gives the instance another
// dictionary.
bool FastRestore::is_possible() {
    if (!has_plain_surroundings(state_, Py_TYPE(self_))) return false;
    const capi::GcPause no_finalizers;  // the dictionary may be made only now
    own_ = Ref::borrow(instance_dict(self_));
    return own_ && has_text_keys(own_.get()) && has_text_keys(given_) && has_no_step_of_its_own() &&
           has_no_children() && see_limits() && see_tables();
}

bool FastRestore::has_no_step_of_its_own() const {
    const Names& names = state_.names;
    return own(names.validate_state_components) == nullptr &&
           own(names.validate_child_states) == nullptr &&
           own(names.snapshot_child_states) == nullptr;
}

bool FastRestore::has_no_children() const {
    PyObject* children = own(state_.names.child_rotations);
    PyObject* child_states = given(state_.names.child_states);
    return children != nullptr && PyList_CheckExact(children) && PyList_GET_SIZE(children) == 0 &&
           (child_states == nullptr || is_empty_sequence(child_states));
}

bool FastRestore::see_limits() {
    const Names& names = state_.names;
    max_structures_ = plain_size(own(names.max_structures));
    PyObject* n_alloc = own(names.n_alloc);
    PyObject* limit = given(names.structure_N_limit_key);
    limit_ = Ref::borrow(limit == nullptr || capi::is_none(limit) ? n_alloc : limit);
    const Py_ssize_t width = plain_size(limit_.get());
    return max_structures_ >= 0 && own(names.structure_N_limit) != nullptr && width >= 0 &&
           width <= plain_size(n_alloc);
}

bool FastRestore::see_tables() {
    const Names& names = state_.names;
    slot_by_key_ = own(names.slot_by_key);
    key_by_slot_ = own(names.key_by_slot);
    legs_by_slot_ = own(names.legs_by_slot);
    for (PyObject* map : {slot_by_key_, key_by_slot_, legs_by_slot_}) {
        if (map == nullptr || !PyDict_CheckExact(map)) return false;
    }
    metadata_ = own(names.metadata_by_slot);
    given_metadata_ = given(names.structure_metadata_by_slot);
    if (given_metadata_ == nullptr || capi::is_none(given_metadata_)) {
        given_metadata_ = nullptr;
        return metadata_ != nullptr;
    }
    // Whoever else holds the list must go on seeing the old dicts.
    return metadata_ != nullptr && PyList_CheckExact(metadata_) && Py_REFCNT(metadata_) == 1 &&
           PyList_GET_SIZE(metadata_) == max_structures_ && PyList_CheckExact(given_metadata_) &&
           PyList_GET_SIZE(given_metadata_) == max_structures_;
}

bool FastRestore::own_maps_are_plain() const {
    const auto is_plain_pair = [](PyObject* key, PyObject* value) {
        return (PyLong_CheckExact(key) && is_plain_key(value)) ||
               (PyLong_CheckExact(value) && is_plain_key(key));
    };
    const std::shared_ptr<TableCache> cache = state_.caches->find(self_);
    const bool knows_maps = cache && cache->slots.is_current(slot_by_key_, key_by_slot_) &&
                            !cache->slots.have_odd_keys();
    const bool knows_legs = cache && cache->legs.is_current(legs_by_slot_);
    return (knows_maps || (holds_only_plain(slot_by_key_, is_plain_pair) &&
                           holds_only_plain(key_by_slot_, is_plain_pair))) &&
           (knows_legs || holds_only_plain(legs_by_slot_, [](PyObject* key, PyObject* legs) {
                return PyLong_CheckExact(key) && are_plain_legs(legs);
            }));
}

bool FastRestore::check_given() const {
    SlotSet slots;
    return are_inverse_maps(given_maps_.slot_by_key.get(), given_maps_.key_by_slot.get(),
                            max_structures_, slots) &&
           are_legs_of_slots(given_maps_.legs_by_slot.get(), slots, plain_size(limit_.get()));
}

Maps FastRestore::copies() const {
    return {require(PyDict_Copy(given_maps_.slot_by_key.get())),
            require(PyDict_Copy(given_maps_.key_by_slot.get())),
            require(PyDict_Copy(given_maps_.legs_by_slot.get()))};
}

bool FastRestore::run() {
    const Names& names = state_.names;
    MetadataRewrite rewrite(metadata_);
    {
        const capi::GcPause no_finalizers;
        const auto map = [&](PyObject* name) {
            PyObject* said = given(name);
            return said == nullptr ? capi::make_dict() : Ref::borrow(said);
        };
        given_maps_ = {map(names.slot_by_key), map(names.key_by_slot), map(names.legs_by_slot_key)};
        if (!own_maps_are_plain() || !check_given()) return false;
        const Maps maps = copies();
        const std::shared_ptr<TableCache> cache = state_.caches->of(self_);
        if (given_metadata_ != nullptr && !rewrite.run(given_metadata_)) return false;
        // From here on nothing fails.
        rewrite.keep();
        put(names.slot_by_key, maps.slot_by_key);
        put(names.key_by_slot, maps.key_by_slot);
        put(names.legs_by_slot, maps.legs_by_slot);
        if (cache) {
            cache->adopt({maps.slot_by_key.get(), maps.key_by_slot.get(), maps.legs_by_slot.get(),
                          nullptr, max_structures_});
        }
    }
    // The old maps have gone without running code; what the old metadata held may run code now.
    rewrite.release();
    put(names.structure_N_limit, limit_);
    return true;
}

}  // namespace

bool restore_fast(State& state, PyObject* self, PyObject* given) {
    if (!PyDict_CheckExact(given)) return false;
    FastRestore restore(state, self, given);
    return restore.is_possible() && restore.run();
}

}  // namespace quorvane::virtualization
