#pragma once

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "capi/change_watch.hpp"
#include "capi/objects.hpp"

namespace quorvane::capi {

// What instances of a class find in it, asked for as attribute access does, without calling anyone.

// A class that sets one of the attributes could answer instead of the instance.
inline bool sets_none_of(PyTypeObject* type, std::initializer_list<PyObject*> attributes) {
    return std::ranges::none_of(attributes, [type](PyObject* attribute) {
        return _PyType_Lookup(type, attribute) != nullptr;
    });
}

// An exact dict whose keys are all exact strings, so that looking things up compares only strings.
bool has_text_keys(PyObject* dict) noexcept;

// An attribute that reading cannot observe: held by the instance, with a class that leaves
// attribute access alone. Empty when it is anything else.
inline Ref plain_attribute(PyObject* object, PyObject* name) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr || !sets_none_of(type, {name})) return {};
    const Ref dict = Ref::borrow(instance_dict(object));
    return dict ? dict_get(dict.get(), name) : Ref();
}

// The instance leaves the class's methods as they are.
inline bool hides_none_of(PyObject* object, std::initializer_list<PyObject*> methods) {
    const Ref dict = Ref::borrow(instance_dict(object));
    return !dict || std::ranges::none_of(methods, [&](PyObject* method) {
        return dict_peek(dict.get(), method) != nullptr;
    });
}

// What was found in an instance, and whether it would be found again. The instance is held.
class SeenInstance {
public:
    explicit SeenInstance(PyObject* object)
        : object_(Ref::borrow(object)),
          type_(Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(object)))),
          version_(version_of(Py_TYPE(object))) {}

    // plain_attribute(object, name), borrowed; null where that is empty. The name outlives this.
    PyObject* look(PyObject* name) {
        seen_.push_back({name, plain_attribute(object_.get(), name)});
        return seen_.back().value.get();
    }

    [[nodiscard]] bool finds_the_same() const {
        auto* type = reinterpret_cast<PyTypeObject*>(type_.get());
        return Py_IS_TYPE(object_.get(), type) && version_ != 0 && version_of(type) == version_ &&
               has_text_keys(instance_dict(object_.get())) &&
               std::ranges::all_of(seen_, [&](const Seen& seen) {
                   return plain_attribute(object_.get(), seen.name).get() == seen.value.get();
               });
    }

    [[nodiscard]] PyObject* object() const noexcept { return object_.get(); }

private:
    struct Seen {
        PyObject* name;
        Ref value;
    };

    Ref object_, type_;
    unsigned int version_;
    std::vector<Seen> seen_;
};

}  // namespace quorvane::capi
