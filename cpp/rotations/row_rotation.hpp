#pragma once

#include <array>
#include <utility>

#include "capi/module.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations {

// The state of a module whose class is one kernel that remembers nothing from day to day. The class
// is what a `Rotation` says:
//
//   class_name, doc, name, init_doc   as in ChildClass
//   compute_doc                       made by compute_doc_of()
//   init_parameters                   made by init_parameters_with()
//   kernel(own...)                    kernel(values, out) for a value of each parameter of its own,
//                                     or a Python error when there is none for such a value
//
// The parameters are attributes too, which may have become any object since the initialiser ran.
template <class Rotation,
          class OwnIndices = std::make_index_sequence<Rotation::init_parameters.size() - 2>>
class RowRotation;

template <class Rotation, std::size_t... own>
class RowRotation<Rotation, std::index_sequence<own...>> : public ChildModule {
public:
    using ChildModule::ChildModule;

    void execute() {
        bind_class(child_class, this, [](capi::ClassBuilder& /*builder*/) {});
    }

private:
    static constexpr std::size_t own_count = sizeof...(own);

    static Ref init(RowRotation& module, PyObject* const* values) {
        module.rotation_.kernel(values[own + 1]...);
        const std::array<Argument, own_count> arguments{
            Argument{module.names_[own], values[own + 1]}...};
        module.initialise(values[0], arguments, values[own_count + 1]);
        return capi::none();
    }

    static Ref compute(RowRotation& module, PyObject* const* values) {
        [[maybe_unused]] std::array<Ref, own_count> current;
        ((current[own] = capi::attr(values[0], module.names_[own])), ...);
        return compute_row(module, values, module.rotation_.kernel(current[own].get()...));
    }

    static constexpr ChildClass child_class{
        .class_name = Rotation::class_name,
        .doc = Rotation::doc,
        .name = Rotation::name,
        .init = {"__init__", Rotation::init_parameters, capi::body_of<RowRotation, init>,
                 Rotation::init_doc},
        .compute = {"compute", compute_parameters, capi::body_of<RowRotation, compute>,
                    Rotation::compute_doc.data()},
    };

    const std::array<capi::Interned, own_count> names_{
        capi::Interned(Rotation::init_parameters[own + 1].name)...};
    Rotation rotation_;
};

template <class Rotation>
using RowModule = capi::ModuleWith<RowRotation<Rotation>>;

}  // namespace quorvane::rotations
