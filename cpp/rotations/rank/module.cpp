// Rank: the module of one class.

#include "capi/module.hpp"

#include "kernels/rank.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations::rank {

namespace {

class State : public ChildModule {
public:
    using ChildModule::ChildModule;

    void execute();

    // One for all instances: nothing else runs while a kernel does.
    kernels::RankWorkspace workspace;
};

Ref compute(State& state, PyObject* const* values) {
    return compute_row(state, values, [&](auto row, auto out) {
        kernels::rank_fraction(row, state.workspace, out);
    });
}

const capi::FunctionDef init_def{
    "__init__", allocation_only, capi::body_of<State, init_allocation_only<State>>,
    "Make a rank for up to N_alloc columns, or for any number with None."};

const capi::FunctionDef compute_def{"compute", compute_parameters, capi::body_of<State, compute>,
                                    R"(Rank the one input of the day into output_buf.

Raises
------
TypeError
    When there is not exactly one input.
ValueError
    When the input is not one row of at least N numbers.
)"};

constexpr const char* class_doc = R"(Rank of each column among the day's columns, as a fraction.

Ascending ranks, equal values sharing the average of theirs, divided by the number of columns that
are not NaN: in (0, 1]. NaN stays NaN, infinities are ordered, -0.0 equals 0.0. The same numbers as
``pandas.Series.rank(method="average", na_option="keep", pct=True)``.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";

void State::execute() {
    capi::import_numpy();
    bind_class("Rank", this, [](capi::ClassBuilder& builder) {
        builder.doc(class_doc)
            .attribute("_name", capi::make_str("latitudinal_rank_688068").get())
            .attribute("arity", capi::make_int(1).get())
            .method(init_def)
            .method(compute_def);
    });
}

}  // namespace

}  // namespace quorvane::rotations::rank

PyMODINIT_FUNC PyInit_rank() {
    return quorvane::capi::ModuleWith<quorvane::rotations::rank::State>::initialise(
        "rank", "Rank across the columns of a day.");
}
