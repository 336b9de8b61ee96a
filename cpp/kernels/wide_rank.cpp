#include "kernels/wide_rank.hpp"

#include <algorithm>
#include <atomic>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kernels/rank_steps.hpp"
#include "kernels/team.hpp"

// Each thread packs some slots. In each pass of the sort each moves some entries: those of a bucket
// that earlier threads have come before its own, so that the order of equal digits stays. In the
// end each ranks some of the sorted groups.

namespace quorvane::kernels {
namespace {

using namespace rank_steps;

class WideRank {
public:
    WideRank(std::span<const double> values, std::size_t workers, RankWorkspace& workspace,
             std::span<double> out)
        : values_(values), out_(out), workspace_(workspace), own_(workers) {
        for (auto* entries : {&workspace.packed, &workspace.sorted}) {
            entries->resize(std::max(entries->size(), values.size()));
        }
        workspace.fractions.resize(std::max(workspace.fractions.size(), values.size() + 1));
        workspace.fractions_of = 0;
        for (Own& own : own_) {
            own.histogram.reserve(most_passes * most_buckets);
            own.places.reserve(most_buckets);
        }
    }

    void begin(std::size_t workers) noexcept { workers_ = workers; }

    // Whether there was memory for all.
    [[nodiscard]] bool is_done() const noexcept { return !failed_; }

    void work(std::size_t worker, MeetingPoint& all) {
        const Part slots = part_of(values_.size(), worker, workers_);
        Own& own = own_[worker];
        std::ranges::fill(out_.subspan(slots.first, slots.size()),
                          std::numeric_limits<double>::quiet_NaN());
        find_extremes(values_.data() + slots.first, slots.size(), own.extremes);
        all.meet();
        Extremes extremes;
        for (std::size_t other = 0; other < workers_; ++other) extremes.add(own_[other].extremes);
        if (extremes.nothing_seen()) return;

        const Keys keys(extremes, values_.size());
        own.histogram.assign(static_cast<std::size_t>(keys.passes) * keys.buckets(), 0);
        own.count = pack(values_.subspan(slots.first, slots.size()), slots.first, keys,
                         workspace_.packed.data() + slots.first, own.histogram.data());
        all.meet();
        const auto sorted = sort(keys, worker, slots.first, all);
        try {
            rank(sorted, keys, worker);
        } catch (const std::bad_alloc&) {
            failed_ = true;
        }
    }

private:
    static constexpr std::size_t most_passes = 3, most_buckets = std::size_t{1} << 11;

    // What one thread counts.
    struct Own {
        Extremes extremes;
        std::size_t count = 0;
        std::vector<std::uint32_t> histogram, places;
        std::vector<RankWorkspace::Entry> tied;
    };

    // Where the worker's entries of each bucket go, after all of the buckets before and those that
    // earlier workers have of the same.
    std::span<std::uint32_t> places_of(std::size_t worker, std::size_t buckets) {
        std::vector<std::uint32_t>& places = own_[worker].places;
        places.resize(buckets);
        std::uint32_t next = 0;
        for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
            for (std::size_t other = 0; other < workers_; ++other) {
                if (other == worker) places[bucket] = next;
                next += own_[other].histogram[bucket];
            }
        }
        return places;
    }

    std::span<const std::uint64_t> sort(const Keys& keys, std::size_t worker,
                                        std::size_t first_slot, MeetingPoint& all) {
        Own& own = own_[worker];
        std::size_t total = 0;
        for (std::size_t other = 0; other < workers_; ++other) total += own_[other].count;
        std::uint64_t* from = workspace_.packed.data();
        std::uint64_t* to = workspace_.sorted.data();
        std::span<const std::uint64_t> mine{from + first_slot, own.count};
        for (int pass = 0; pass < keys.passes; ++pass) {
            const int shift = kSlotBits + pass * keys.digit_bits;
            if (pass > 0) {
                const Part part = part_of(total, worker, workers_);
                mine = {from + part.first, part.size()};
                count_digits(mine, shift, keys.buckets(), own.histogram);
                all.meet();
            }
            move_by_digit(mine, to, shift, places_of(worker, keys.buckets()));
            all.meet();
            std::swap(from, to);
        }
        return {from, total};
    }

    static void count_digits(std::span<const std::uint64_t> entries, int shift, std::size_t buckets,
                             std::vector<std::uint32_t>& histogram) {
        std::fill_n(histogram.begin(), buckets, 0U);
        for (const std::uint64_t entry : entries) ++histogram[entry >> shift & (buckets - 1)];
    }

    // A group that begins in a worker's part is ranked by it as a whole.
    void rank(std::span<const std::uint64_t> sorted, const Keys& keys, std::size_t worker) {
        const auto next_group = [&](std::size_t i) {
            while (i > 0 && i < sorted.size() &&
                   sorted[i] >> kSlotBits == sorted[i - 1] >> kSlotBits) {
                ++i;
            }
            return i;
        };
        const Part part = part_of(sorted.size(), worker, workers_);
        const std::size_t first = next_group(part.first), last = next_group(part.last);
        double* fractions = workspace_.fractions.data();
        fill_fractions(sorted.size(), first + 1, last + 1, fractions);
        rank_range(sorted, first, last, fractions, values_, keys, own_[worker].tied, out_);
    }

    std::span<const double> values_;
    std::span<double> out_;
    RankWorkspace& workspace_;
    std::vector<Own> own_;
    std::size_t workers_ = 1;
    std::atomic<bool> failed_ = false;
};

}  // namespace

void rank_fraction_wide(std::span<const double> values, std::size_t workers,
                        RankWorkspace& workspace, std::span<double> out) {
    if (values.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("rank: at most 2^32 - 1 slots can be ranked");
    }
    WideRank rank(values, workers, workspace, out);
    run_team(
        workers, [&](std::size_t members) { rank.begin(members); },
        [&](std::size_t worker, MeetingPoint& all) { rank.work(worker, all); });
    if (!rank.is_done()) throw std::bad_alloc();
}

}  // namespace quorvane::kernels
