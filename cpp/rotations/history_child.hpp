#pragma once

#include <memory>
#include <utility>

#include "rotations/framework_day.hpp"
#include "rotations/history_offers.hpp"

namespace quorvane::rotations {

// A child as it was when a history began: its days are the framework's own, its compute is the one
// that made the offer, and nothing of that is hidden by the instance.
class PlainChild {
public:
    PlainChild(PyObject* child, const FrameworkDay& framework)
        : framework_(framework), seen_(child) {}

    [[nodiscard]] bool has_plain_days(const ChildRequest& request) {
        PyTypeObject* type = Py_TYPE(request.child);
        return capi::has_text_keys(capi::instance_dict(request.child)) &&
               type->tp_getattro == PyObject_GenericGetAttr &&
               type->tp_setattro == PyObject_GenericSetAttr &&
               capi::offered(_PyType_Lookup(type, framework_.call), day_offer) &&
               capi::hides_none_of(request.child, {framework_.compute}) &&
               framework_.has_plain_buffers(seen_, static_cast<Py_ssize_t>(request.slots),
                                            request.inputs);
    }

    [[nodiscard]] bool holds() const {
        return seen_.finds_the_same() && capi::hides_none_of(seen_.object(), {framework_.compute});
    }

    [[nodiscard]] capi::SeenInstance& seen() noexcept { return seen_; }

private:
    const FrameworkDay& framework_;
    capi::SeenInstance seen_;
};

// Of a child that remembers nothing: only the kernel is its own.
class ForgetfulChild final : public HistoryChild {
public:
    ForgetfulChild(PlainChild plain, std::unique_ptr<kernels::BlockKernel> kernel)
        : plain_(std::move(plain)), kernel_(std::move(kernel)) {}

    [[nodiscard]] kernels::BlockKernel& kernel() noexcept override { return *kernel_; }
    [[nodiscard]] bool holds() const override { return plain_.holds(); }

private:
    PlainChild plain_;
    std::unique_ptr<kernels::BlockKernel> kernel_;
};

}  // namespace quorvane::rotations
