#pragma once

#include "capi/objects.hpp"

namespace quorvane::capi {

// A method that was looked up but not bound yet: called with its object in front it does what the
// bound method would do, without the bound method being made.
class Method {
public:
    // object.name; later arguments are evaluated after this lookup, as in the expression.
    static Method of(PyObject* object, PyObject* name);

    // super().name, in a method of the class that the cell holds.
    static Method of_super(PyObject* class_cell, PyObject* self, PyObject* name);

    // What calling the object calls: __call__ of its class, where the class defines it in Python's
    // way, else the object. The name is "__call__".
    static Method called_by(PyObject* object, PyObject* name);

    template <class... Arguments>
    Ref operator()(const Arguments&... arguments) const {
        PyObject* stack[] = {nullptr, arguments...};
        return call(stack, sizeof...(Arguments), nullptr);
    }

    // The same with the last len(names) arguments as the keywords' values.
    template <class... Arguments>
    Ref with_keywords(PyObject* names, const Arguments&... arguments) const {
        PyObject* stack[] = {nullptr, arguments...};
        const auto keywords = static_cast<std::size_t>(PyTuple_GET_SIZE(names));
        return call(stack, sizeof...(Arguments) - keywords, names);
    }

    // `count` positional arguments from stack[1] on, then the keywords' values. stack[0] is the
    // method's to use.
    Ref call(PyObject** stack, std::size_t count, PyObject* keyword_names) const;

private:
    explicit Method(Ref callable) : callable_(std::move(callable)) {}
    Method(Ref function, PyObject* object) : callable_(std::move(function)), object_(object) {}

    Ref callable_;
    PyObject* object_ = nullptr;  // borrowed: goes in front of the arguments; null when bound
};

}  // namespace quorvane::capi
