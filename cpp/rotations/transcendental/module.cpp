// Transcendental: the module of one class.

#include "capi/module.hpp"

#include <string>

#include "kernels/transcendental.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations::transcendental {

namespace {

class State : public ChildModule {
public:
    using ChildModule::ChildModule;

    void execute();

    const capi::Interned function{"function"};
};

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

// The kernel of a name: an attribute may have become any object since the initialiser checked it.
const kernels::ElementwiseFunction& function_named(PyObject* name) {
    if (!PyUnicode_Check(name)) {
        capi::Message()
            .text("function must be a str, got ")
            .repr(name)
            .text(" of type ")
            .text(Py_TYPE(name)->tp_name)
            .raise(PyExc_TypeError);
    }
    if (const auto* found = find_function(name)) return *found;

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

constexpr capi::Parameter init_parameters[] = {
    capi::positional("self"),
    capi::keyword_only("function", "\"sigmoid\""),
    capi::keyword_only("N_alloc", "None"),
};

Ref init(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    function_named(values[1]);
    const Ref parameters = capi::make_dict();
    capi::require(PyDict_SetItem(parameters.get(), state.function, values[1]));
    state.initialise_base(self, values[2], parameters);
    capi::set_attr(self, state.function, values[1]);
    return capi::none();
}

Ref compute(State& state, PyObject* const* values) {
    const Ref name = capi::attr(values[0], state.function);
    return compute_row(state, values, function_named(name.get()).kernel);
}

const capi::FunctionDef init_def{"__init__", init_parameters, capi::body_of<State, init>,
                                 R"(Make an elementwise function for up to N_alloc columns.

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
)"};

const capi::FunctionDef compute_def{"compute", compute_parameters, capi::body_of<State, compute>,
                                    R"(Apply the function to the one input of the day.

Raises
------
TypeError
    When there is not exactly one input.
ValueError
    When the input is not one row of at least N numbers.
)"};

constexpr const char* class_doc = R"(A function of each column's value, by default the sigmoid.

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

void State::execute() {
    capi::import_numpy();
    bind_class("Transcendental", this, [](capi::ClassBuilder& builder) {
        builder.doc(class_doc)
            .attribute("_name", capi::make_str("numerical_transcendental_2f4f61").get())
            .attribute("arity", capi::make_int(1).get())
            .method(init_def)
            .method(compute_def);
    });
}

}  // namespace

}  // namespace quorvane::rotations::transcendental

PyMODINIT_FUNC PyInit_transcendental() {
    return quorvane::capi::ModuleWith<quorvane::rotations::transcendental::State>::initialise(
        "transcendental", "Elementwise functions of a day's columns.");
}
