// ZScore: the module of one class.

#include "capi/module.hpp"

#include "kernels/zscore.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations::normalize {

namespace {

class State : public ChildModule {
public:
    using ChildModule::ChildModule;

    void execute();
};

Ref compute(State& state, PyObject* const* values) {
    return compute_row(state, values, kernels::zscore);
}

const capi::FunctionDef init_def{
    "__init__", allocation_only, capi::body_of<State, init_allocation_only<State>>,
    "Make a z-score for up to N_alloc columns, or for any number with None."};

const capi::FunctionDef compute_def{"compute", compute_parameters, capi::body_of<State, compute>,
                                    R"(Standardise the one input of the day into output_buf.

Raises
------
TypeError
    When there is not exactly one input.
ValueError
    When the input is not one row of at least N numbers.
)"};

constexpr const char* class_doc = R"(Distance of each column from the day's mean, in deviations.

(x - mean) / std with the mean and the population standard deviation (ddof 0) of the day's finite
columns. Columns that are not finite give NaN. All give NaN where fewer than two are finite, or
where the deviation is at most eps * abs(mean), which is the rounding of the mean. Within a few
units in the last place, scaled by the data,
``scipy.stats.zscore(..., ddof=0, nan_policy="omit")`` of the finite columns.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";

void State::execute() {
    capi::import_numpy();
    bind_class("ZScore", this, [](capi::ClassBuilder& builder) {
        builder.doc(class_doc)
            .attribute("_name", capi::make_str("latitudinal_normalize_092871").get())
            .attribute("arity", capi::make_int(1).get())
            .method(init_def)
            .method(compute_def);
    });
}

}  // namespace

}  // namespace quorvane::rotations::normalize

PyMODINIT_FUNC PyInit_normalize() {
    return quorvane::capi::ModuleWith<quorvane::rotations::normalize::State>::initialise(
        "normalize", "Normalisation across the columns of a day.");
}
