// ZScore: the module of one class.

#include "kernels/zscore.hpp"
#include "rotations/row_rotation.hpp"

namespace quorvane::rotations {

namespace {

struct ZScore {
    static constexpr auto class_name = "ZScore";
    static constexpr auto name = "latitudinal_normalize_092871";
    static constexpr auto doc = R"(Distance of each column from the day's mean, in deviations.

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

    static constexpr auto init_parameters = init_parameters_with();
    static constexpr auto init_doc =
        "Make a z-score for up to N_alloc columns, or for any number with None.";
    static constexpr auto compute_doc =
        compute_doc_of("Standardise the one input of the day into output_buf.");

    using Workspace = kernels::NoWorkspace;

    static auto kernel() {
        return [](auto values, auto& /*workspace*/, auto out) { kernels::zscore(values, out); };
    }

    // Its sums have an order of their own, and it is the fastest anyway.
    static void compute_wide(const auto& kernel, auto values, std::size_t /*threads*/,
                             Workspace& workspace, auto out) {
        kernel(values, workspace, out);
    }
};

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit_normalize() {
    return quorvane::rotations::RowModule<quorvane::rotations::ZScore>::initialise(
        "normalize", "Normalisation across the columns of a day.");
}
