// Rank: the module of one class.

#include "kernels/rank.hpp"
#include "kernels/wide_rank.hpp"
#include "rotations/row_rotation.hpp"

namespace quorvane::rotations {

namespace {

struct Rank {
    static constexpr auto class_name = "Rank";
    static constexpr auto name = "latitudinal_rank_688068";
    static constexpr auto doc = R"(Rank of each column among the day's columns, as a fraction.

Ascending ranks, equal values sharing the average of theirs, divided by the number of columns that
are not NaN: in (0, 1]. NaN stays NaN, infinities are ordered, -0.0 equals 0.0. The same numbers as
``pandas.Series.rank(method="average", na_option="keep", pct=True)``.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";

    static constexpr auto init_parameters = init_parameters_with();
    static constexpr auto init_doc =
        "Make a rank for up to N_alloc columns, or for any number with None.";
    static constexpr auto compute_doc =
        compute_doc_of("Rank the one input of the day into output_buf.");

    using Workspace = kernels::RankWorkspace;

    static auto kernel() { return kernels::rank_fraction; }

    static void compute_wide(const auto& /*kernel*/, auto values, std::size_t threads,
                             Workspace& workspace, auto out) {
        kernels::rank_fraction_wide(values, threads, workspace, out);
    }
};

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit_rank() {
    return quorvane::rotations::RowModule<quorvane::rotations::Rank>::initialise(
        "rank", "Rank across the columns of a day.");
}
