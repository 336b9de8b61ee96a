#pragma once

#include <array>
#include <utility>

#include "capi/module.hpp"
#include "capi/threads.hpp"
#include "kernels/history/row_block.hpp"
#include "rotations/arguments.hpp"
#include "rotations/history_child.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations {

// The state of a module whose class is one kernel that remembers nothing from day to day. The class
// is what a `Rotation` says:
//
//   class_name, doc, name, init_doc   as in ChildClass
//   compute_doc                       made by compute_doc_of()
//   init_parameters                   made by init_parameters_with()
//   Workspace                         the scratch memory of its kernel
//   kernel(own...)                    kernel(values, workspace, out) for a value of each parameter
//                                     of its own, or a Python error when there is none for such a
//                                     value
//   compute_wide(kernel, values, threads, workspace, out)
//                                     the same of a long row, by several threads
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
        Rotation::kernel(values[own + 1]...);
        const std::array<Argument, own_count> arguments{
            Argument{module.names_[own], values[own + 1]}...};
        module.initialise(values[0], arguments, values[own_count + 1]);
        return capi::none();
    }

    static Ref compute(RowRotation& module, PyObject* const* values) {
        [[maybe_unused]] std::array<Ref, own_count> current;
        ((current[own] = capi::attr(values[0], module.names_[own])), ...);
        const auto kernel = Rotation::kernel(current[own].get()...);
        return compute_row(module, values, [&](auto row, auto out) {
            const std::size_t threads = capi::threads_for_row(row.size());
            if (threads == 1) {
                kernel(row, module.workspace_, out);
            } else {
                Rotation::compute_wide(kernel, row, threads, module.workspace_, out);
            }
        });
    }

    // Parameters are plain objects, or a history goes day by day.
    static std::unique_ptr<HistoryChild> take_part(void* state, const ChildRequest& request) {
        RowRotation& module = *static_cast<RowRotation*>(state);
        PlainChild child(request.child, module.framework_day_);
        if (!child.has_plain_days(request)) return nullptr;
        [[maybe_unused]] std::array<PyObject*, own_count> current{
            child.seen().look(module.names_[own])...};
        if (!(is_plain_parameter(current[own]) && ...)) return nullptr;
        auto kernel = Rotation::kernel(current[own]...);
        using Block = kernels::RowBlock<decltype(kernel), typename Rotation::Workspace>;
        return std::make_unique<ForgetfulChild>(
            std::move(child),
            std::make_unique<Block>(std::move(kernel), request.slots, request.workers));
    }

    static constexpr ChildOpener opener = take_part;

    static constexpr ChildClass child_class{
        .class_name = Rotation::class_name,
        .doc = Rotation::doc,
        .name = Rotation::name,
        .init = {"__init__", Rotation::init_parameters, capi::body_of<RowRotation, init>,
                 Rotation::init_doc},
        .compute = {"compute",
                    compute_parameters,
                    capi::body_of<RowRotation, compute>,
                    Rotation::compute_doc.data(),
                    {child_offer, static_cast<const void*>(&opener)}},
    };

    const std::array<capi::Interned, own_count> names_{
        capi::Interned(Rotation::init_parameters[own + 1].name)...};
    const FrameworkDay framework_day_;
    // One for all instances: nothing else runs while a day is computed.
    Rotation::Workspace workspace_;
};

template <class Rotation>
using RowModule = capi::ModuleWith<RowRotation<Rotation>>;

}  // namespace quorvane::rotations
