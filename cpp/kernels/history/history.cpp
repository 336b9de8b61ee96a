#include "kernels/history/history.hpp"

#include <algorithm>
#include <atomic>
#include <new>

#include "kernels/team.hpp"

namespace quorvane::kernels {

namespace {

using Clock = std::chrono::steady_clock;

// What a worker's days of a block take: more than the second-level cache has costs little, since
// each is gone through in order; but waiting for each other after less would cost more.
constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::size_t kMostGroups = 64;

constexpr std::size_t round_up(std::size_t number, std::size_t unit) {
    return (number + unit - 1) / unit * unit;
}

// In groups of eight days: enough of them for every worker.
std::size_t groups_in_block(std::size_t slots, std::size_t workers) {
    const std::size_t bytes = round_up(slots, kDays) * kDays * sizeof(double);
    return workers * std::clamp<std::size_t>(kBlockBytes / bytes, 1, kMostGroups);
}

// What one thread has to itself.
struct Lanes {
    Lanes(std::size_t instruments, std::size_t slots)
        : inputs(instruments * kDays), way_back(slots) {}

    std::vector<double> inputs;
    WayBackLanes way_back;
};

class Run {
public:
    Run(const History& history, std::size_t first, std::size_t last, std::size_t workers,
        Clock::time_point end)
        : history_(history),
          day_(first),
          last_(last),
          end_(end),
          stride_(round_up(history.slots, kDays)),
          groups_in_block_(
              std::min(groups_in_block(history.slots, workers), (last - first) / kDays)),
          rows_(groups_in_block_ * kDays * stride_),
          lanes_(workers, Lanes(history.input.instruments, history.slots)) {}

    void begin(std::size_t workers) noexcept {
        workers_ = workers;
        next_block();
    }

    void work(std::size_t worker, MeetingPoint& all) {
        while (!is_over_) {
            compute_block(worker, all);
            all.meet();
            if (worker == 0) end_block();
            all.meet();
        }
    }

    [[nodiscard]] HistoryProgress progress() const noexcept { return {day_, refused_}; }

private:
    void next_block() noexcept {
        groups_ = std::min(groups_in_block_, (last_ - day_) / kDays);
        is_over_ = groups_ == 0;
        if (is_over_) return;
        for (BlockKernel* child : history_.children) child->keep();
        failed_ = false;
    }

    void end_block() {
        if (failed_) {
            for (BlockKernel* child : history_.children) child->take_back();
            refused_ = groups_ * kDays;
            is_over_ = true;
            return;
        }
        day_ += groups_ * kDays;
        is_over_ = Clock::now() >= end_;
        if (!is_over_) next_block();
    }

    // A thread does the same days from input to output; where a child goes from day to day, all
    // wait for each other and each does its slots.
    void compute_block(std::size_t worker, MeetingPoint& all) {
        const Part groups = part_of(groups_, worker, workers_);
        attempt([&] { read_values(groups, worker); });
        for (BlockKernel* child : history_.children) {
            const DayBlock block{rows_.data(), stride_, groups_ * kDays, history_.slots};
            if (child->share() == BlockKernel::Share::days) {
                attempt(
                    [&] { child->run(block, groups.first * kDays, groups.last * kDays, worker); });
                continue;
            }
            const Part lines = part_of(stride_ / kDays, worker, workers_);
            all.meet();
            attempt([&] {
                child->run(block, lines.first * kDays, std::min(lines.last * kDays, block.slots),
                           worker);
            });
            all.meet();
        }
        attempt([&] {
            history_.ends_with_children ? copy_rows(groups) : write_output(groups, worker);
        });
    }

    // Whoever fails still meets the others.
    template <class Step>
    void attempt(const Step& step) {
        try {
            step();
        } catch (const std::bad_alloc&) {
            failed_ = true;
        }
    }

    void read_values(Part groups, std::size_t worker) {
        double* inputs = lanes_[worker].inputs.data();
        for (std::size_t group = groups.first; group < groups.last; ++group) {
            read_lanes(history_.input, day_ + group * kDays, inputs);
            double* rows[kDays];
            for (std::size_t day = 0; day < kDays; ++day) rows[day] = row(group, day);
            structure_values(history_.structures, inputs, rows);
        }
    }

    void write_output(Part groups, std::size_t worker) {
        const std::size_t instruments = history_.input.instruments;
        for (std::size_t group = groups.first; group < groups.last; ++group) {
            const double* rows[kDays];
            double* out[kDays];
            for (std::size_t day = 0; day < kDays; ++day) {
                rows[day] = row(group, day);
                out[day] = history_.output + (day_ + group * kDays + day) * instruments;
            }
            if (!bring_back(history_.legs, rows, history_.slots, lanes_[worker].way_back, out)) {
                failed_ = true;
            }
        }
    }

    void copy_rows(Part groups) {
        const std::size_t slots = history_.slots;
        double* out = history_.output + (day_ + groups.first * kDays) * slots;
        for (std::size_t i = groups.first * kDays; i < groups.last * kDays; ++i, out += slots) {
            std::copy_n(rows_.data() + i * stride_, slots, out);
        }
    }

    [[nodiscard]] double* row(std::size_t group, std::size_t day) noexcept {
        return rows_.data() + (group * kDays + day) * stride_;
    }

    const History& history_;
    std::size_t day_;
    const std::size_t last_;
    const Clock::time_point end_;
    const std::size_t stride_, groups_in_block_;
    std::vector<double> rows_;
    std::vector<Lanes> lanes_;
    std::size_t workers_ = 1, groups_ = 0, refused_ = 0;
    bool is_over_ = false;
    std::atomic<bool> failed_ = false;
};

}  // namespace

HistoryProgress run_history(const History& history, std::size_t first, std::size_t last,
                            std::size_t workers, Clock::time_point end) {
    Run run(history, first, last, workers, end);
    run_team(
        workers, [&](std::size_t members) { run.begin(members); },
        [&](std::size_t worker, MeetingPoint& all) { run.work(worker, all); });
    return run.progress();
}

BlockSize largest_block(std::size_t slots, std::size_t workers) {
    return {groups_in_block(slots, workers) * kDays, round_up(slots, kDays)};
}

std::size_t history_memory(std::size_t instruments, std::size_t slots, std::size_t workers) {
    const std::size_t row = round_up(slots, kDays);
    const std::size_t rows = groups_in_block(slots, workers) * kDays * row;
    return (rows + workers * kDays * (instruments + row)) * sizeof(double);
}

}  // namespace quorvane::kernels
