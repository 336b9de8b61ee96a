#pragma once

#include <span>

#include "capi/signature.hpp"

namespace quorvane::capi {

// What a function says of itself to our other extension modules: that what it does can also be had
// in another way, which `content` leads to. Neither can be said in Python.
struct Offer {
    const char* name = nullptr;
    const void* content = nullptr;
};

// A function written in C++ that Python cannot tell from one of its own where it matters: it binds
// as a method, has a signature, a name, a qualified name, a module and a dictionary.
struct FunctionDef {
    // Gets the state of its module and one borrowed value per parameter, in order. The values live
    // as long as the call.
    using Body = Ref (*)(void* state, PyObject* const* values);

    const char* name;
    std::span<const Parameter> parameters;
    Body body;
    const char* doc = nullptr;
    Offer offer = {};
};

// Adapts a body that names its module's state type.
template <class State, Ref (*function)(State&, PyObject* const*)>
Ref body_of(void* state, PyObject* const* values) {
    return function(*static_cast<State*>(state), values);
}

// The type of native functions, made once per module.
Ref make_native_function_type(PyObject* module);

// True of a function that `definition` makes in the module that the type was made for.
bool is_native_function(PyObject* object, PyObject* type, const FunctionDef& definition) noexcept;

// What a function of any of our modules offers under a name, and the state of its module, which the
// function keeps alive.
struct Offered {
    const void* content = nullptr;
    void* state = nullptr;
    bool is_offered = false;

    explicit operator bool() const noexcept { return is_offered; }
};
Offered offered(PyObject* function, const char* name) noexcept;

// A new function; it keeps `module`, and so the state that its body works on, alive.
// `definition` must outlive it (the tables are static).
Ref make_native_function(PyObject* type, const FunctionDef& definition, PyObject* module,
                         void* state, PyObject* module_name, const char* owner);

}  // namespace quorvane::capi
