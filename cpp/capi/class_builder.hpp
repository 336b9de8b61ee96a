#pragma once

#include "capi/native_function.hpp"

namespace quorvane::capi {

// What a function needs to know of the module that it belongs to.
struct FunctionHome {
    PyObject* function_type;
    PyObject* module;
    void* state;
    PyObject* module_name;
};

// super().<name> in a method of the class that the cell holds.
Ref super_attr(PyObject* class_cell, PyObject* self, PyObject* name);

// Makes a class the way a class statement does: the metaclass of the bases prepares the namespace,
// is called with the complete body in order, and so sees what it would see of a Python class.
class ClassBuilder {
public:
    ClassBuilder(const FunctionHome& home, const char* name, const Ref& base);
    ClassBuilder(const FunctionHome& home, const char* name);

    ClassBuilder& doc(const char* text);
    ClassBuilder& attribute(const char* name, PyObject* value);
    ClassBuilder& method(const FunctionDef& definition);
    ClassBuilder& static_method(const FunctionDef& definition);
    // A read-only property whose getter is the definition.
    ClassBuilder& property(const FunctionDef& definition);

    // The cell that type.__new__ fills with the class: what super() without arguments reads.
    Ref class_cell();

    Ref build();

private:
    void prepare();
    void check_cell(PyObject* name, PyObject* made) const;
    Ref function(const FunctionDef& definition);
    void set(const char* name, PyObject* value);

    const FunctionHome& home_;
    const char* name_;
    Ref given_bases_, bases_, metaclass_, namespace_, keywords_, class_cell_;
};

}  // namespace quorvane::capi
