#pragma once

#include <memory>

#include "capi/class_builder.hpp"
#include "capi/message.hpp"
#include "capi/method.hpp"
#include "capi/objects.hpp"
#include "kernels/unmap.hpp"
#include "rotations/framework_day.hpp"
#include "virtualization/guards/module_guard.hpp"
#include "virtualization/guards/own_class.hpp"
#include "virtualization/names.hpp"

namespace quorvane::virtualization {

using capi::attr;
using capi::call;
using capi::call_method;
using capi::call_with_keywords;
using capi::item;
using capi::Message;
using capi::Method;
using capi::require;
using capi::set_attr;
using capi::set_default;
using capi::set_item;

class TableCaches;

// What one import of the module holds besides its dictionary. Nothing here is a second home for a
// global: limits, tables and classes are looked up in the dictionary whenever they are used.
class State {
public:
    explicit State(PyObject* module);
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();

    // Runs the module's body: binds every name, in order.
    void execute();

    int traverse(visitproc visit, void* arg) const;

    // The value of a module global now; NameError when it was deleted.
    [[nodiscard]] Ref global(PyObject* name) const;

    // np.<name>, through the module's own global.
    [[nodiscard]] Ref numpy(PyObject* name) const { return attr(global(names.np).get(), name); }

    // np.<function>(argument, dtype=np.<dtype>)
    [[nodiscard]] Ref numpy_with_dtype(PyObject* function, PyObject* argument,
                                       PyObject* dtype) const;

    // super().<name>, as a method of the rotation class would write it.
    [[nodiscard]] Ref super_attr(PyObject* self, PyObject* name) const;
    [[nodiscard]] Method super_method(PyObject* self, PyObject* name) const;

    // VirtualizationBase itself, borrowed; null while its body runs.
    [[nodiscard]] PyObject* rotation_class() const noexcept {
        return PyCell_GET(rotation_class_cell_.get());
    }

    [[nodiscard]] PyObject* globals() const noexcept { return globals_.get(); }

    // True of the very function that the definition makes in this module.
    [[nodiscard]] bool is_own(PyObject* function, const capi::FunctionDef& definition) const {
        return capi::is_native_function(function, function_type_.get(), definition);
    }

    const Names names;

    // Tuples of keyword names, for calls.
    const Ref context_keyword, dtype_keyword, N_alloc_keyword, current_day_index_keyword,
        dtype_and_copy_keywords;
    const Ref zero, one;

    // What the guards of a day compare with.
    const capi::DictWatcher dict_watcher;
    ModuleGuard module_guard;
    OwnClass context_class, mask_class;
    const rotations::FrameworkDay framework_day;
    mutable capi::TypeAnswer plain_class;  // of the rotations' classes

    // The caches of the rotations, and the working memory of unmapping. Neither changes
    // any answer; no Python code runs while either is in use.
    std::unique_ptr<TableCaches> caches;
    mutable kernels::Totals totals;

private:
    void bind(const char* name, PyObject* value);
    void bind_imports();

    PyObject* module_;  // borrowed: the module owns this state
    Ref globals_;       // the module's dictionary
    Ref function_type_;
    Ref rotation_class_cell_;
};

// A message that begins with the rotation's own name, as every one of an instance method does.
inline Message message_of(const State& state, PyObject* self) {
    Message message;
    message.value(attr(self, state.names.name));
    return message;
}

}  // namespace quorvane::virtualization
