#include "rotations/ewma/history.hpp"

#include <algorithm>

#include "kernels/history/ewma_block.hpp"
#include "rotations/arguments.hpp"
#include "rotations/buffers.hpp"
#include "rotations/ewma/state.hpp"
#include "rotations/history_child.hpp"

namespace quorvane::rotations::ewma {

namespace {

class AverageInHistory final : public HistoryChild {
public:
    AverageInHistory(PlainChild plain, double decay, PyObject* mean, PyObject* weight,
                     std::size_t slots)
        : plain_(std::move(plain)),
          mean_(mean),
          weight_(weight),
          kernel_(decay, column(mean, slots), column(weight, slots)) {}

    [[nodiscard]] kernels::BlockKernel& kernel() noexcept override { return kernel_; }

    // In place, as the days would do it: others may hold the arrays by now.
    [[nodiscard]] bool holds() const override {
        const std::size_t slots = kernel_.mean().size();
        return plain_.holds() && has_column(mean_, slots) && has_column(weight_, slots);
    }

    void deliver() noexcept override {
        const std::size_t slots = kernel_.mean().size();
        if (!has_column(mean_, slots) || !has_column(weight_, slots)) return;
        std::ranges::copy(kernel_.mean(), column(mean_, slots).begin());
        std::ranges::copy(kernel_.weight(), column(weight_, slots).begin());
    }

    static bool has_column(PyObject* array, std::size_t slots) noexcept {
        const auto numbers = writable_doubles(array);
        return numbers && std::cmp_greater_equal(numbers.size(), slots);
    }

private:
    static std::span<double> column(PyObject* array, std::size_t slots) {
        return writable_doubles(array).span().first(slots);
    }

    PlainChild plain_;
    PyObject* mean_;  // borrowed: the child as it was seen owns them
    PyObject* weight_;
    kernels::EwmaBlock kernel_;
};

std::unique_ptr<HistoryChild> take_part(void* module, const ChildRequest& request) {
    const State& state = *static_cast<State*>(module);
    PlainChild child(request.child, state.framework_day);
    if (!child.has_plain_days(request)) return nullptr;
    PyObject* window = child.seen().look(state.window);
    PyObject* mean = child.seen().look(state.mean_buf);
    PyObject* weight = child.seen().look(state.weight_buf);
    if (window == nullptr || mean == nullptr || weight == nullptr) return nullptr;
    const auto days = plain_int(window);
    if (!days || *days <= 0 || !AverageInHistory::has_column(mean, request.slots) ||
        !AverageInHistory::has_column(weight, request.slots) || !is_alone(mean) ||
        !is_alone(weight)) {
        return nullptr;
    }
    return std::make_unique<AverageInHistory>(std::move(child), decay_of(window), mean, weight,
                                              request.slots);
}

}  // namespace

const ChildOpener opener = take_part;

}  // namespace quorvane::rotations::ewma
