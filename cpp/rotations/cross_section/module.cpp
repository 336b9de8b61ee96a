// Functions across the columns of a day: the module of their classes.

#include <vector>

#include "kernels/bounds.hpp"
#include "kernels/center.hpp"
#include "kernels/centered_rank.hpp"
#include "kernels/groups.hpp"
#include "kernels/zscore.hpp"
#include "rotations/class_group.hpp"
#include "rotations/row_rotation.hpp"

namespace quorvane::rotations {

namespace {

constexpr auto row_init_doc = "Make one for up to N_alloc columns, or for any number with None.";
constexpr auto row_compute_doc = compute_doc_of("Compute the one input of the day.");

// What is not worth several threads.
struct OneThread {
    static void compute_wide(const auto& kernel, auto values, std::size_t /*threads*/,
                             auto& workspace, auto out) {
        kernel(values, workspace, out);
    }
};

struct CenteredRank {
    static constexpr auto class_name = "CenteredRank";
    static constexpr auto name = "centered_rank";
    static constexpr auto doc = R"(Rank of each column among the day's columns, around zero.

(2 r - n - 1) / n with the ascending rank r, equal values sharing the average of theirs, among the n
columns that are not NaN: in (-1, 1), and opposite for opposite values. NaN stays NaN, infinities are
ordered, -0.0 equals 0.0. To the bit the same as that formula of ``scipy.stats.rankdata``.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";
    static constexpr auto init_parameters = init_parameters_with();
    static constexpr auto init_doc = row_init_doc;
    static constexpr auto compute_doc = row_compute_doc;

    using Workspace = kernels::RankWorkspace;
    static auto kernel() { return kernels::centered_rank; }
    static void compute_wide(const auto& /*kernel*/, auto values, std::size_t threads,
                             Workspace& workspace, auto out) {
        kernels::centered_rank_wide(values, threads, workspace, out);
    }
};

struct Demean : OneThread {
    static constexpr auto class_name = "Demean";
    static constexpr auto name = "demean";
    static constexpr auto doc = R"(Each column's distance from the day's mean.

x - mean(x) over the finite columns; the others give NaN, and equal numbers zeros. As
``x - np.nanmean(x)``; the mean's error is at most 2 eps of it, 50 eps squared times the mean of the
magnitudes, and half the smallest denormal.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";
    static constexpr auto init_parameters = init_parameters_with();
    static constexpr auto init_doc = row_init_doc;
    static constexpr auto compute_doc = row_compute_doc;

    using Workspace = kernels::NoWorkspace;
    static auto kernel() {
        return [](auto values, auto& /*workspace*/, auto out) { kernels::demean(values, out); };
    }
};

struct Scale : OneThread {
    static constexpr auto class_name = "Scale";
    static constexpr auto name = "scale";
    static constexpr auto doc = R"(Each column's share of the day's gross sum.

x / sum(abs(x)) over the finite columns; the others give NaN, and all do where the sum is zero. As
``x / np.nansum(np.abs(x))``; the relative error is at most 50 eps, where that is no denormal.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have.
)";
    static constexpr auto init_parameters = init_parameters_with();
    static constexpr auto init_doc = row_init_doc;
    static constexpr auto compute_doc = row_compute_doc;

    using Workspace = kernels::NoWorkspace;
    static auto kernel() {
        return
            [](auto values, auto& /*workspace*/, auto out) { kernels::scale_to_one(values, out); };
    }
};

struct Winsorize : OneThread {
    static constexpr auto class_name = "Winsorize";
    static constexpr auto name = "winsorize";
    static constexpr auto doc =
        R"(Each column, clipped at the day's quantiles of fraction and 1 - fraction.

To the bit ``np.clip(x, *np.nanquantile(x, [fraction, 1 - fraction]))``, whose quantiles lie linearly
between two values; one that is zero is 0.0. NaN stays NaN, and infinities are ordered; all is NaN
where a quantile lies between two equal infinities.

Parameters
----------
fraction : float
    From 0 on and below 0.5.
N_alloc : int, optional
    The most columns that a day may have.
)";
    static constexpr auto init_parameters = init_parameters_with(capi::positional("fraction"));
    static constexpr auto init_doc = row_init_doc;
    static constexpr auto compute_doc = row_compute_doc;

    using Workspace = kernels::QuantileWorkspace;
    static auto kernel(PyObject* given) {
        const double fraction =
            number_where("fraction", given, "a number from 0 on and below 0.5",
                         [](double number) { return number >= 0.0 && number < 0.5; });
        return [fraction](auto values, auto& workspace, auto out) {
            kernels::winsorize(values, fraction, workspace, out);
        };
    }
};

// ---- within groups ------------------------------------------------------------------------------

struct GroupWorkspace {
    kernels::GroupOrder order;
    kernels::RankWorkspace ranks;
};

using GroupKernel = void (*)(std::span<const double>, kernels::RankWorkspace&, std::span<double>);

struct GroupFunction {
    const char* name;
    GroupKernel kernel;
};

constexpr GroupFunction group_functions[] = {
    {"rank", kernels::rank_fraction},
    {"centered_rank", kernels::centered_rank},
    {"zscore", [](auto values, auto& /*workspace*/, auto out) { kernels::zscore(values, out); }},
    {"demean", [](auto values, auto& /*workspace*/, auto out) { kernels::demean(values, out); }},
};

GroupKernel group_kernel_of(PyObject* name) {
    for (const auto& [known, kernel] : group_functions) {
        if (PyUnicode_Check(name) && PyUnicode_CompareWithASCIIString(name, known) == 0) {
            return kernel;
        }
    }
    capi::Message()
        .text("function must be one of rank, centered_rank, zscore, demean, got ")
        .repr(name)
        .raise(PyUnicode_Check(name) ? PyExc_ValueError : PyExc_TypeError);
}

// Read for each day, since the array may be changed between them, and copied, since code that runs
// meanwhile may make it shorter.
std::vector<std::int64_t> groups_in(PyObject* array) {
    PyArrayObject* groups = capi::as_array(array);
    // NumPy has more than one type of this name.
    if (!PyArray_CheckExact(array) || PyArray_NDIM(groups) != 1 ||
        PyArray_EquivTypenums(PyArray_TYPE(groups), NPY_INT64) == 0 ||
        !PyArray_ISCARRAY_RO(groups)) {
        capi::Message()
            .text("groups must be a contiguous array of int64, got ")
            .repr(array)
            .raise(PyExc_TypeError);
    }
    const auto* first = static_cast<const std::int64_t*>(PyArray_DATA(groups));
    return {first, first + PyArray_DIM(groups, 0)};
}

struct WithinGroups : OneThread {
    static constexpr auto class_name = "WithinGroups";
    static constexpr auto name = "within_groups";
    static constexpr auto doc = R"(A function across the columns of each group by itself.

Parameters
----------
function : {"rank", "centered_rank", "zscore", "demean"}
    As `Rank`, `CenteredRank`, `ZScore` and `Demean`.
groups : ndarray of int64
    The group of each column; a negative one is none, and gives NaN. It is read on each day.
N_alloc : int, optional
    The most columns that a day may have.
)";
    static constexpr auto init_parameters =
        init_parameters_with(capi::positional("function"), capi::positional("groups"));
    static constexpr auto init_doc = row_init_doc;
    static constexpr auto compute_doc = row_compute_doc;

    using Workspace = GroupWorkspace;
    static auto kernel(PyObject* function, PyObject* array) {
        return [compute = group_kernel_of(function), groups = groups_in(array)](
                   auto values, auto& workspace, auto out) {
            kernels::GroupOrder& order = workspace.order;
            order.refresh(groups, values.size());
            order.apply(values, out, [&](auto part, auto part_out) {
                compute(part, workspace.ranks, part_out);
            });
        };
    }
};

using Module = ClassGroupModule<RowRotation<CenteredRank>, RowRotation<Demean>, RowRotation<Scale>,
                                RowRotation<Winsorize>, RowRotation<WithinGroups>>;

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit_cross_section() {
    return quorvane::rotations::Module::initialise("cross_section",
                                                   "Functions across the columns of a day.");
}
