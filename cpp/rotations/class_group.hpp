#pragma once

#include <tuple>
#include <utility>

#include "capi/module.hpp"

namespace quorvane::rotations {

// The state of a module of several classes, each of which has a ChildModule of its own.
template <class... Classes>
class ClassGroup {
public:
    explicit ClassGroup(PyObject* module)
        : classes_((static_cast<void>(sizeof(Classes)), module)...) {}

    // Runs the module's body: binds each class.
    void execute() {
        std::apply([](auto&... each) { (each.execute(), ...); }, classes_);
    }

    int traverse(visitproc visit, void* arg) const {
        int result = 0;
        const auto visit_all = [&](const auto&... each) {
            static_cast<void>((((result = each.traverse(visit, arg)) == 0) && ...));
        };
        std::apply(visit_all, classes_);
        return result;
    }

private:
    std::tuple<Classes...> classes_;
};

template <class... Classes>
using ClassGroupModule = capi::ModuleWith<ClassGroup<Classes...>>;

}  // namespace quorvane::rotations
