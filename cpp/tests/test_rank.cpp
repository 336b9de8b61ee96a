#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <span>
#include <stdexcept>
#include <vector>

#if __has_include(<sys/mman.h>)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include "check.hpp"
#include "kernels/rank.hpp"
#include "kernels/wide_rank.hpp"

using quorvane::kernels::rank_fraction;
using quorvane::kernels::rank_fraction_wide;
using quorvane::kernels::RankWorkspace;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using Row = std::vector<double>;

RankWorkspace workspace;  // one for all checks, as a caller would keep it

Row ranked(const Row& values) {
    Row out(values.size(), 3.0);
    rank_fraction(values, workspace, out);
    return out;
}

// By several threads, whatever the length.
void check_wide(const Row& values) {
    const Row expected = ranked(values);
    for (const std::size_t workers : {1UL, 2UL, 3UL, 8UL}) {
        Row out(values.size(), 3.0);
        rank_fraction_wide(values, workers, workspace, out);
        CHECK(std::memcmp(out.data(), expected.data(), out.size() * sizeof(double)) == 0);
    }
}

// By counting, quadratic.
Row reference(const Row& values) {
    double count = 0;
    for (const double x : values) count += !std::isnan(x);
    Row out;
    for (const double x : values) {
        double below = 0, equal = 0;
        for (const double y : values) below += y < x, equal += y == x;
        out.push_back(std::isnan(x) ? kNan : (below + (equal + 1.0) / 2.0) / count);
    }
    return out;
}

bool same(const Row& left, const Row& right) {
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (left[i] != right[i] && !(std::isnan(left[i]) && std::isnan(right[i]))) return false;
    }
    return left.size() == right.size();
}

using Source = std::function<double(std::mt19937_64&)>;

void check_source(const Source& source, std::size_t size, std::mt19937_64& random) {
    Row values(size);
    for (double& value : values) value = random() % 10 == 0 ? kNan : source(random);
    CHECK(same(ranked(values), reference(values)));
    if (size > 64) check_wide(values);
}

// Too long for counting: distinct values in a shuffled order, whose ranks are known.
void check_long(std::size_t size, std::mt19937_64& random) {
    Row values(size), expected(size);
    for (std::size_t i = 0; i < size; ++i) values[i] = static_cast<double>(i) - 1000.25;
    std::shuffle(values.begin(), values.end(), random);
    for (std::size_t i = 0; i < size; ++i) {
        expected[i] = (values[i] + 1001.25) / static_cast<double>(size);
    }
    CHECK(same(ranked(values), expected));
    check_wide(values);
}

void knows_the_special_values() {
    CHECK(ranked({}).empty());
    CHECK(same(ranked({kNan}), {kNan}));
    CHECK(same(ranked(Row(100, kNan)), Row(100, kNan)));
    CHECK(same(ranked({kInf}), {1.0}));
    CHECK(same(ranked({-kInf, -kInf}), {0.75, 0.75}));
    CHECK(same(ranked({0.0, -0.0, kNan, 5e-324}), {0.5, 0.5, kNan, 1.0}));
    CHECK(same(ranked({kInf, -kInf, 0.0, 1e308, -5e-324}), {1.0, 0.2, 0.6, 0.8, 0.4}));
    CHECK(same(ranked({-kNan, 3.0, 1.0, 3.0, 2.0}), {kNan, 0.875, 0.25, 0.875, 0.5}));
}

// Places are kept in 32 bits. The row is refused by its length, before anything of it is read.
void refuses_what_it_cannot_count() {
    const double one = 1.0;
    double out = 0.0;
    const std::size_t most = std::numeric_limits<std::uint32_t>::max();
    bool refused = false;
    try {
        rank_fraction({&one, most + 1}, workspace, {&out, most + 1});
    } catch (const std::length_error&) {
        refused = true;
    }
    CHECK(refused);
}

#if __has_include(<sys/mman.h>)
// Rows that end where the memory ends: whatever read on would crash.
void reads_nothing_behind_a_row() {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
    CHECK(memory != MAP_FAILED);
    if (memory == MAP_FAILED) return;
    double* end = static_cast<double*>(memory) + page / sizeof(double);
    CHECK(mprotect(end, page, PROT_NONE) == 0);
    for (std::size_t size = 1; size <= page / sizeof(double); ++size) {
        const std::span<double> values(end - size, size);
        for (std::size_t i = 0; i < size; ++i) values[i] = static_cast<double>(i * 7 % 11);
        Row out(size);
        rank_fraction(values, workspace, out);
        CHECK(same(out, reference(Row(values.begin(), values.end()))));
    }
    munmap(memory, 2 * page);
}
#else
void reads_nothing_behind_a_row() {}
#endif

}  // namespace

int main() {
    knows_the_special_values();
    reads_nothing_behind_a_row();
    refuses_what_it_cannot_count();

    const Source sources[] = {
        [](auto& random) { return std::normal_distribution<double>()(random); },
        [](auto& random) { return static_cast<double>(random() % 5); },
        [](auto& random) { return static_cast<double>(random() % 3) - 1.0; },
        [](auto& random) { return std::bit_cast<double>(random()); },
        [](auto&) { return -0.1; },
        // So near each other beside one far away that their leading bits agree.
        [](auto& random) {
            return random() % 50 == 0 ? 1e300 : 1.0 + 0x1p-50 * static_cast<double>(random() % 8);
        },
        [](auto& random) { return random() % 2 != 0 ? kInf : -kInf; },
        [](auto& random) { return std::bit_cast<double>(random() % 100); },
    };
    std::mt19937_64 random(5);
    for (const Source& source : sources) {
        for (const std::size_t size : {2u, 9u, 63u, 64u, 65u, 255u, 256u, 257u, 1000u, 4100u}) {
            check_source(source, size, random);
        }
    }
    check_long(70'000, random);
    check_long(300, random);
    return check::result();
}
