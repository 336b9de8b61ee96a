#include "virtualization/guards/rotation_guard.hpp"

#include "virtualization/guards/plain_size.hpp"
#include "virtualization/slots.hpp"
#include "virtualization/structure.hpp"
#include "virtualization/validity.hpp"

namespace quorvane::virtualization {

RotationGuard::RotationGuard(const State& state, PyObject* self)
    : state_(state), self_(self), watch_(state.dict_watcher) {}

bool RotationGuard::still_seen() const {
    if (!Py_IS_TYPE(self_, type()) || instance_dict(self_) != dict_.get() || !watch_.unchanged() ||
        (plain_ && !state_.module_guard.is_unversioned_rest_own())) {
        return false;
    }
    return state_.dict_watcher.is_told_of_instances() ||
           (steps_left_by_instance(dict_.get(), steps_of_class_) == own_steps_ &&
            has_same_bookkeeping());
}

void RotationGuard::look() {
    looked_ = true;
    plain_ = false;
    type_ = Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(self_)));
    dict_ = Ref::borrow(instance_dict(self_));
    watch_.clear();
    if (!dict_ || !PyDict_CheckExact(dict_.get())) return;
    if (state_.dict_watcher.is_told_of_instances()) watch_.add_dict(dict_.get());
    watch_.add_dict(state_.globals());
    // Looking into a dictionary with odd keys may change what was looked at before.
    if (state_.module_guard.numpy_dict() == nullptr) return;
    watch_.add_dict(state_.module_guard.numpy_dict());
    if (!state_.module_guard.numpy_holds(state_)) return;
    if (!state_.module_guard.structure_class_holds(state_)) return;
    watch_.add_type(state_.module_guard.structure_class());
    if (!class_is_plain(type())) return;
    watch_.add_type(type());
    own_steps_ = steps_left_by_instance(dict_.get(), steps_of_class_);
    if (!take_bookkeeping(dict_.get())) return;
    // Odd keys in a dictionary may have run code while it was looked into.
    plain_ = still_seen() && state_.module_guard.is_unversioned_rest_own();
}

// What is found counts for the version of the class; a class without one is never plain.
bool RotationGuard::class_is_plain(PyTypeObject* type) {
    constexpr OwnSteps all{true, true, true};
    const auto leaves_all_alone = [&] {
        return has_plain_attributes(type) && steps_of_class(type) == all;
    };
    if (state_.plain_class.ask(type, leaves_all_alone)) {
        steps_of_class_ = all;
        return true;
    }
    if (!has_plain_attributes(type)) return false;
    const unsigned int version = capi::version_of(type);
    steps_of_class_ = steps_of_class(type);
    return has_plain_attributes(type) && version != 0 && capi::version_of(type) == version;
}

bool RotationGuard::has_plain_attributes(PyTypeObject* type) const {
    const Names& names = state_.names;
    return type->tp_getattro == PyObject_GenericGetAttr &&
           sets_none_of(type, {names.slot_by_key, names.key_by_slot, names.legs_by_slot,
                               names.metadata_by_slot, names.txi_input, names.max_structures});
}

OwnSteps RotationGuard::steps_of_class(PyTypeObject* type) const {
    const Names& names = state_.names;
    return {has_own_steps(state_, type, {{names.normalize_structure, normalize_structure_def}}),
            has_own_steps(state_, type, {{names.slot_for_key, slot_for_key_def}}),
            has_own_steps(state_, type, {{names.structure_is_valid, structure_is_valid_def}})};
}

// An attribute of the instance hides the class's method.
OwnSteps RotationGuard::steps_left_by_instance(PyObject* dict, OwnSteps steps) const {
    const Names& names = state_.names;
    const auto is_left = [&](PyObject* name) { return capi::dict_peek(dict, name) == nullptr; };
    return {is_left(names.normalize_structure) && steps.normalize,
            is_left(names.slot_for_key) && steps.slot,
            is_left(names.structure_is_valid) && steps.validity};
}

bool RotationGuard::has_same_bookkeeping() const {
    const Names& names = state_.names;
    const auto same = [&](PyObject* name, const Ref& object) {
        return capi::dict_peek(dict_.get(), name) == object.get();
    };
    return same(names.slot_by_key, slot_by_key_) && same(names.key_by_slot, key_by_slot_) &&
           same(names.legs_by_slot, legs_by_slot_) &&
           same(names.metadata_by_slot, metadata_by_slot_) && same(names.txi_input, txi_input_) &&
           plain_size(capi::dict_peek(dict_.get(), names.max_structures)) == max_structures_;
}

bool RotationGuard::take_bookkeeping(PyObject* dict) {
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
