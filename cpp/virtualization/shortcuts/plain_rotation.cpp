#include "virtualization/shortcuts/plain_rotation.hpp"

#include "virtualization/shortcuts/class_lookups.hpp"
#include "virtualization/shortcuts/plain_size.hpp"
#include "virtualization/slots.hpp"
#include "virtualization/structure.hpp"
#include "virtualization/validity.hpp"

namespace quorvane::virtualization {

Ref plain_attribute(PyObject* object, PyObject* name) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr || _PyType_Lookup(type, name) != nullptr) {
        return {};
    }
    const Ref dict = Ref::borrow(instance_dict(object));
    return dict ? capi::dict_get(dict.get(), name) : Ref();
}

PlainRotation::PlainRotation(const State& state, PyObject* self)
    : state_(state), self_(self), watch_(state.dict_watcher) {}

bool PlainRotation::still_seen() const {
    if (!Py_IS_TYPE(self_, type()) || instance_dict(self_) != dict_.get() || !watch_.unchanged() ||
        (plain_ && !state_.pristine.is_unversioned_rest_own())) {
        return false;
    }
    return capi::instance_dicts_tell_changes ||
           (instance_is_plain(dict_.get()) && has_same_bookkeeping());
}

void PlainRotation::look() {
    looked_ = true;
    plain_ = false;
    type_ = Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(self_)));
    dict_ = Ref::borrow(instance_dict(self_));
    watch_.clear();
    if (!dict_ || !PyDict_CheckExact(dict_.get())) return;
    if constexpr (capi::instance_dicts_tell_changes) watch_.add_dict(dict_.get());
    watch_.add_dict(state_.globals());
    // Looking into a dictionary with odd keys may change what was looked at before.
    if (state_.pristine.numpy_dict() == nullptr) return;
    watch_.add_dict(state_.pristine.numpy_dict());
    if (!state_.pristine.numpy_holds(state_)) return;
    if (!state_.pristine.structure_class_holds(state_)) return;
    watch_.add_type(state_.pristine.structure_class());
    if (!state_.plain_class.ask(type(), [&] { return class_is_plain(type()); })) return;
    watch_.add_type(type());
    if (!instance_is_plain(dict_.get()) || !take_bookkeeping(dict_.get())) return;
    // Odd keys in a dictionary may have run code while it was looked into.
    plain_ = still_seen() && state_.pristine.is_unversioned_rest_own();
}

bool PlainRotation::class_is_plain(PyTypeObject* type) const {
    const Names& names = state_.names;
    return type->tp_getattro == PyObject_GenericGetAttr &&
           sets_none_of(type, {names.slot_by_key, names.key_by_slot, names.legs_by_slot,
                               names.metadata_by_slot, names.txi_input, names.max_structures}) &&
           has_own_steps(state_, type,
                         {{names.normalize_structure, normalize_structure_def},
                          {names.slot_for_key, slot_for_key_def},
                          {names.structure_is_valid, structure_is_valid_def}});
}

bool PlainRotation::instance_is_plain(PyObject* dict) const {
    const Names& names = state_.names;
    return capi::dict_peek(dict, names.normalize_structure) == nullptr &&
           capi::dict_peek(dict, names.slot_for_key) == nullptr &&
           capi::dict_peek(dict, names.structure_is_valid) == nullptr;
}

bool PlainRotation::has_same_bookkeeping() const {
    const Names& names = state_.names;
    const auto same = [&](PyObject* name, const Ref& object) {
        return capi::dict_peek(dict_.get(), name) == object.get();
    };
    return same(names.slot_by_key, slot_by_key_) && same(names.key_by_slot, key_by_slot_) &&
           same(names.legs_by_slot, legs_by_slot_) &&
           same(names.metadata_by_slot, metadata_by_slot_) && same(names.txi_input, txi_input_) &&
           plain_size(capi::dict_peek(dict_.get(), names.max_structures)) == max_structures_;
}

bool PlainRotation::take_bookkeeping(PyObject* dict) {
    const Names& names = state_.names;
    slot_by_key_ = Ref::borrow(capi::dict_peek(dict, names.slot_by_key));
    key_by_slot_ = Ref::borrow(capi::dict_peek(dict, names.key_by_slot));
    legs_by_slot_ = Ref::borrow(capi::dict_peek(dict, names.legs_by_slot));
    metadata_by_slot_ = Ref::borrow(capi::dict_peek(dict, names.metadata_by_slot));
    txi_input_ = Ref::borrow(capi::dict_peek(dict, names.txi_input));
    PyObject* capacity = capi::dict_peek(dict, names.max_structures);
    for (const Ref* map : {&slot_by_key_, &key_by_slot_, &legs_by_slot_}) {
        if (!*map || !PyDict_CheckExact(map->get())) return false;
    }
    if (!metadata_by_slot_ || !PyList_CheckExact(metadata_by_slot_.get()) || !txi_input_) {
        return false;
    }
    max_structures_ = plain_size(capacity);
    return max_structures_ >= 0;
}

}  // namespace quorvane::virtualization
