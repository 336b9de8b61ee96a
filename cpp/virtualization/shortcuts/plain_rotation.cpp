#include "virtualization/shortcuts/plain_rotation.hpp"

#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

PyObject* instance_dict(PyObject* object) noexcept {
    PyObject** place = _PyObject_GetDictPtr(object);
    return place == nullptr ? nullptr : *place;
}

PyObject* plain_attribute(PyObject* object, PyObject* name) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr || _PyType_Lookup(type, name) != nullptr) {
        return nullptr;
    }
    PyObject* dict = instance_dict(object);
    return dict == nullptr ? nullptr : capi::dict_peek(dict, name);
}

PlainRotation::PlainRotation(const State& state, PyObject* self)
    : state_(state), self_(self), watch_(state.dict_watcher) {}

bool PlainRotation::still_seen() const {
    return Py_TYPE(self_) == type_ && instance_dict(self_) == dict_ && watch_.unchanged();
}

void PlainRotation::look() {
    looked_ = true;
    plain_ = false;
    type_ = Py_TYPE(self_);
    dict_ = instance_dict(self_);
    if (dict_ == nullptr || !PyDict_CheckExact(dict_)) return;
    watch_.clear();
    watch_.add_dict(dict_);
    watch_.add_dict(state_.globals());
    watch_.add_dict(state_.pristine.numpy_dict());
    plain_ = class_is_plain(type_) && instance_is_plain(dict_) && take_bookkeeping(dict_) &&
             state_.pristine.numpy_holds(state_) && state_.pristine.structure_class_holds(state_);
    // Types get their version when something is looked up in them, which has been done now.
    watch_.add_type(type_);
    watch_.add_type(state_.pristine.structure_class());
}

bool PlainRotation::class_is_plain(PyTypeObject* type) const {
    const Names& names = state_.names;
    if (type->tp_getattro != PyObject_GenericGetAttr) return false;
    for (PyObject* attribute :
         {static_cast<PyObject*>(names.slot_by_key), static_cast<PyObject*>(names.key_by_slot),
          static_cast<PyObject*>(names.legs_by_slot),
          static_cast<PyObject*>(names.metadata_by_slot), static_cast<PyObject*>(names.txi_input),
          static_cast<PyObject*>(names.max_structures)}) {
        if (_PyType_Lookup(type, attribute) != nullptr) return false;
    }
    const auto is_own = [&](PyObject* name, const Ref& step) {
        return step && _PyType_Lookup(type, name) == step.get();
    };
    return is_own(names.normalize_structure, state_.normalize_step) &&
           is_own(names.slot_for_key, state_.slot_step) &&
           is_own(names.structure_is_valid, state_.validity_step);
}

bool PlainRotation::instance_is_plain(PyObject* dict) const {
    const Names& names = state_.names;
    return capi::dict_peek(dict, names.normalize_structure) == nullptr &&
           capi::dict_peek(dict, names.slot_for_key) == nullptr &&
           capi::dict_peek(dict, names.structure_is_valid) == nullptr;
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
