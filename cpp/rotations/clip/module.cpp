// Clip: the module of one class.

#include "kernels/bounds.hpp"
#include "rotations/row_rotation.hpp"

namespace quorvane::rotations {

namespace {

double bound_of(const char* argument, PyObject* value) {
    return number_where(argument, value, "a number",
                        [](double number) { return number == number; });
}

struct Clip {
    static constexpr auto class_name = "Clip";
    static constexpr auto name = "clip";
    static constexpr auto doc = R"(Each column's number, within two bounds.

To the bit ``np.clip(x, low, high)``. NaN stays NaN.

Parameters
----------
low, high : float
    The bounds, which may be infinite.
N_alloc : int, optional
    The most columns that a day may have.

Attributes
----------
low : float
    The lower bound.
high : float
    The upper bound.
)";
    static constexpr auto init_parameters =
        init_parameters_with(capi::positional("low"), capi::positional("high"));
    static constexpr auto init_doc =
        "Make one for up to N_alloc columns, or for any number with None.";
    static constexpr auto compute_doc = compute_doc_of("Clip the one input of the day.");

    using Workspace = kernels::NoWorkspace;

    static auto kernel(PyObject* low, PyObject* high) {
        const double least = bound_of("low", low), most = bound_of("high", high);
        if (least > most) {
            capi::Message()
                .text("low must not be above high, got ")
                .repr(low)
                .text(" and ")
                .repr(high)
                .raise(PyExc_ValueError);
        }
        return [least, most](auto values, auto& /*workspace*/, auto out) {
            kernels::clip(values, least, most, out);
        };
    }

    static void compute_wide(const auto& kernel, auto values, std::size_t /*threads*/,
                             Workspace& workspace, auto out) {
        kernel(values, workspace, out);
    }
};

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit_clip() {
    return quorvane::rotations::RowModule<quorvane::rotations::Clip>::initialise(
        "clip", "Bounds for the columns of a day.");
}
