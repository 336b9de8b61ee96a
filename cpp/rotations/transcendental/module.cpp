// Transcendental: the module of one class.

#include <string>

#include "kernels/team.hpp"
#include "kernels/transcendental.hpp"
#include "rotations/row_rotation.hpp"

namespace quorvane::rotations {

namespace {

// Null when there is none of that name.
const kernels::ElementwiseFunction* find_function(PyObject* name) {
    Py_ssize_t size = 0;
    if (const char* text = PyUnicode_AsUTF8AndSize(name, &size)) {
        return kernels::find_elementwise({text, static_cast<std::size_t>(size)});
    }
    // A lone surrogate has no UTF-8 form, and is in nobody's name.
    if (PyErr_ExceptionMatches(PyExc_UnicodeEncodeError) == 0) throw capi::PythonError();
    PyErr_Clear();
    return nullptr;
}

kernels::ElementwiseKernel kernel_named(PyObject* name) {
    if (!PyUnicode_Check(name)) {
        capi::Message()
            .text("function must be a str, got ")
            .repr(name)
            .text(" of type ")
            .text(Py_TYPE(name)->tp_name)
            .raise(PyExc_TypeError);
    }
    if (const auto* found = find_function(name)) return found->kernel;

    std::string allowed;
    for (const auto& each : kernels::elementwise_functions()) {
        allowed.append(allowed.empty() ? "" : ", ").append(each.name);
    }
    capi::Message()
        .text("function must be one of ")
        .text(allowed.c_str())
        .text(", got ")
        .repr(name)
        .raise(PyExc_ValueError);
}

struct Transcendental {
    static constexpr auto class_name = "Transcendental";
    static constexpr auto name = "numerical_transcendental_2f4f61";
    static constexpr auto doc = R"(A function of each column's value, by default the sigmoid.

The sigmoid is 1 / (1 + exp(-x)) for x >= 0 and exp(x) / (1 + exp(x)) below, which neither
overflows nor loses small results; within 4 units in the last place of ``scipy.special.expit``
where that does not underflow early (it gives 0 below about -709.8).

The other functions have the meaning of NumPy's functions of the same names: abs, arctan, cbrt,
cos, exp, expm1, log, log10, log1p, log2, reciprocal, sign, sin, sqrt, square, tanh; erf is
``math.erf`` and cube is x * x * x. NaN stays NaN, a value outside a function's domain gives NaN,
a pole gives the signed infinity, and nothing warns.

Parameters
----------
function : str
    The function's name.
N_alloc : int, optional
    The most columns that a day may have.

Attributes
----------
function : str
    The function's name.
)";

    static constexpr auto init_parameters =
        init_parameters_with(capi::keyword_only("function", "\"sigmoid\""));
    static constexpr auto init_doc = R"(Make an elementwise function for up to N_alloc columns.

Parameters
----------
function : str
    The function's name.
N_alloc : int, optional
    The most columns that a day may have; any number with None.

Raises
------
TypeError
    When function is not a str.
ValueError
    When there is no function of that name; the text lists all.
)";
    static constexpr auto compute_doc =
        compute_doc_of("Apply the function to the one input of the day.");

    using Workspace = kernels::NoWorkspace;

    static auto kernel(PyObject* function) {
        return [apply = kernel_named(function)](auto values, auto& /*workspace*/, auto out) {
            apply(values, out);
        };
    }

    static void compute_wide(const auto& kernel, auto values, std::size_t threads,
                             Workspace& workspace, auto out) {
        kernels::in_parts(values.size(), threads, [&](std::size_t first, std::size_t last) {
            kernel(values.subspan(first, last - first), workspace,
                   out.subspan(first, last - first));
        });
    }
};

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit_transcendental() {
    return quorvane::rotations::RowModule<quorvane::rotations::Transcendental>::initialise(
        "transcendental", "Elementwise functions of a day's columns.");
}
