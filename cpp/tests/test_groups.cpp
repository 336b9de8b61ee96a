#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "check.hpp"
#include "kernels/groups.hpp"

using quorvane::kernels::GroupOrder;

namespace {

using Row = std::vector<double>;
using Groups = std::vector<std::int64_t>;

// Each number's place in its group from the end on: tells the members and their order.
Row places(GroupOrder& order, const Groups& groups, const Row& values) {
    Row out(values.size(), 3.0);
    order.refresh(groups, values.size());
    order.apply(values, out, [](std::span<const double> part, std::span<double> part_out) {
        CHECK(!part.empty() && part.size() == part_out.size());
        for (std::size_t i = 0; i < part.size(); ++i) {
            part_out[i] = static_cast<double>(part.size() - i) + part[i] / 1024.0;
        }
    });
    return out;
}

Row reference(const Groups& groups, const Row& values) {
    std::map<std::int64_t, double> left;
    Row out(values.size(), std::numeric_limits<double>::quiet_NaN());
    for (std::size_t i = std::min(groups.size(), values.size()); i-- > 0;) {
        if (groups[i] >= 0) out[i] = (left[groups[i]] += 1.0) + values[i] / 1024.0;
    }
    return out;
}

bool same(const Row& left, const Row& right) {
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (left[i] != right[i] && !(std::isnan(left[i]) && std::isnan(right[i]))) return false;
    }
    return left.size() == right.size();
}

void every_group_is_by_itself() {
    std::mt19937_64 random(2);
    GroupOrder order;
    for (int day = 0; day < 300; ++day) {
        Groups groups(random() % 60);
        Row values(random() % 60);
        const std::uint64_t kinds = 1 + random() % 9;
        for (std::int64_t& group : groups) {
            group = static_cast<std::int64_t>(random() % kinds) - 1;
            if (random() % 20 == 0) group = static_cast<std::int64_t>(random());
        }
        for (double& value : values) value = static_cast<double>(random() % 1024);
        CHECK(same(places(order, groups, values), reference(groups, values)));
        // The same groups again, of fewer columns and of all.
        const Row fewer(values.begin(),
                        values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
        CHECK(same(places(order, groups, fewer), reference(groups, fewer)));
        CHECK(same(places(order, groups, values), reference(groups, values)));
    }
}

void columns_without_a_group_are_missing() {
    GroupOrder order;
    CHECK(std::isnan(places(order, {}, {1.0})[0]));
    CHECK(std::isnan(places(order, {-1}, {1.0})[0]));
    CHECK(std::isnan(places(order, {0}, {1.0, 2.0})[1]));
    CHECK(std::isnan(places(order, {}, {1.0})[0]));
    CHECK(places(order, {0, 1}, {}).empty());
}

}  // namespace

int main() {
    every_group_is_by_itself();
    columns_without_a_group_are_missing();
    return check::result();
}
