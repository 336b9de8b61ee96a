// Functions of each column over the days: the module of their classes. What concerns states is in
// Python.

#include "kernels/over_time/exponential.hpp"
#include "kernels/over_time/past_value.hpp"
#include "kernels/over_time/rolling_mean.hpp"
#include "kernels/over_time/rolling_spread.hpp"
#include "rotations/class_group.hpp"
#include "rotations/memory_rotation.hpp"

namespace quorvane::rotations {

namespace {

using kernels::Exponential;
using kernels::PastValue;
using kernels::RollingMean;
using kernels::RollingSpread;

constexpr auto compute_doc_of_day = compute_doc_of("Take in the one input of the day.");

struct OverTime {
    static constexpr auto init_doc = "Make one that has seen nothing, for N_alloc columns.";
    static constexpr auto compute_doc = compute_doc_of_day;
};

// More than a million days, which no history has, could not be remembered.
constexpr std::size_t most_days = 1'000'000;

struct Window {
    std::size_t days, least;
};

// None for the least number is all days of the window.
Window window_of(PyObject* window, PyObject* min_periods, std::size_t shortest) {
    const std::size_t days = whole_number("window", window, shortest, most_days);
    if (capi::is_none(min_periods)) return {days, days};
    const std::size_t least = whole_number("min_periods", min_periods, 1, most_days);
    if (least > days) {
        capi::Message()
            .text("min_periods must be at most the window ")
            .repr(window)
            .text(", got ")
            .repr(min_periods)
            .raise(PyExc_ValueError);
    }
    return {days, least};
}

constexpr auto window_parameters =
    init_parameters_with(capi::positional("window"), capi::positional("min_periods", "None"));

struct Mean : OverTime {
    static constexpr auto class_name = "RollingMean";
    static constexpr auto name = "rolling_mean";
    static constexpr auto doc = "Mean of each column's last days.";
    static constexpr auto init_parameters = window_parameters;
    static RollingMean kernel(PyObject* window, PyObject* min_periods) {
        const auto [days, least] = window_of(window, min_periods, 1);
        return {days, least};
    }
};

RollingSpread spread(PyObject* window, PyObject* min_periods, RollingSpread::Gives gives) {
    const auto [days, least] = window_of(window, min_periods, 2);
    return {days, least, gives};
}

struct Deviation : OverTime {
    static constexpr auto class_name = "RollingStd";
    static constexpr auto name = "rolling_std";
    static constexpr auto doc = "Deviation (ddof 1) of each column's last days.";
    static constexpr auto init_parameters = window_parameters;
    static RollingSpread kernel(PyObject* window, PyObject* min_periods) {
        return spread(window, min_periods, RollingSpread::Gives::deviation);
    }
};

struct ZScore : OverTime {
    static constexpr auto class_name = "RollingZScore";
    static constexpr auto name = "rolling_zscore";
    static constexpr auto doc = "Today's distance from the mean of the last days, in deviations.";
    static constexpr auto init_parameters = window_parameters;
    static RollingSpread kernel(PyObject* window, PyObject* min_periods) {
        return spread(window, min_periods, RollingSpread::Gives::zscore);
    }
};

double decay_of(PyObject* decay) {
    return number_where("decay", decay, "a number from 0 on and below 1",
                        [](double number) { return number >= 0.0 && number < 1.0; });
}

constexpr auto decay_parameters = init_parameters_with(capi::positional("decay"));

struct ExponentialMean : OverTime {
    static constexpr auto class_name = "ExponentialMean";
    static constexpr auto name = "ewma";
    static constexpr auto doc = "Exponentially weighted mean of each column.";
    static constexpr auto init_parameters = decay_parameters;
    static Exponential kernel(PyObject* decay) {
        return {decay_of(decay), Exponential::Gives::mean};
    }
};

struct ExponentialStd : OverTime {
    static constexpr auto class_name = "ExponentialStd";
    static constexpr auto name = "ewm_std";
    static constexpr auto doc = "Exponentially weighted deviation of each column.";
    static constexpr auto init_parameters = decay_parameters;
    static Exponential kernel(PyObject* decay) {
        return {decay_of(decay), Exponential::Gives::deviation};
    }
};

constexpr auto days_parameters = init_parameters_with(capi::positional("days"));

struct Delay : OverTime {
    static constexpr auto class_name = "Delay";
    static constexpr auto name = "delay";
    static constexpr auto doc = "Each column's number of some days ago.";
    static constexpr auto init_parameters = days_parameters;
    static PastValue kernel(PyObject* days) {
        return {whole_number("days", days, 1, most_days), PastValue::Gives::value};
    }
};

struct Difference : OverTime {
    static constexpr auto class_name = "Diff";
    static constexpr auto name = "diff";
    static constexpr auto doc = "How far each column's number is above that of some days ago.";
    static constexpr auto init_parameters = days_parameters;
    static PastValue kernel(PyObject* days) {
        return {whole_number("days", days, 1, most_days), PastValue::Gives::difference};
    }
};

using Module =
    ClassGroupModule<MemoryRotation<Mean>, MemoryRotation<Deviation>, MemoryRotation<ZScore>,
                     MemoryRotation<ExponentialMean>, MemoryRotation<ExponentialStd>,
                     MemoryRotation<Delay>, MemoryRotation<Difference>>;

}  // namespace

}  // namespace quorvane::rotations

PyMODINIT_FUNC PyInit__over_time() {
    return quorvane::rotations::Module::initialise("_over_time",
                                                   "Functions of each column over the days.");
}
