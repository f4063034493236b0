// Value range search: every bound kind on ascending and descending data with
// long runs of equal values across leaves, against lower/upper bounds on a
// model; NaN handling; the empty-range encodings of both families.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

// Ordered char inner pages are sized for their entries alone, so keys and
// entries of an inner page meet beyond (page - 8) / (16 + width) children:
// keep char trees below that (21 leaves of 61 at 512-byte pages).
template <class F> size_t kOrderedLength(size_t n) { return F::is_char ? 1200 : n; }
const vel_seq_boundary_kind_t kKinds[] = {VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_BOUNDARY_INCLUSIVE,
                                          VEL_SEQ_BOUNDARY_EXCLUSIVE};

struct Outcome {
    VEL_RET rc;
    vel_seq_no_t first, next, last;
};

// What a search must leave behind, computed on a sorted model.
template <class F>
Outcome model_search(const std::vector<typename F::T> &v, bool asc, const typename F::T &low,
                     vel_seq_boundary_kind_t lk, const typename F::T &high,
                     vel_seq_boundary_kind_t hk) {
    using T = typename F::T;
    auto before = [asc](const T &a, const T &b) { return asc ? F::lt(a, b) : F::lt(b, a); };
    const uint64_t n = v.size();
    auto lower = [&](const T &x) {
        return static_cast<uint64_t>(std::lower_bound(v.begin(), v.end(), x, before) - v.begin());
    };
    auto upper = [&](const T &x) {
        return static_cast<uint64_t>(std::upper_bound(v.begin(), v.end(), x, before) - v.begin());
    };
    const uint64_t lo = lk == VEL_SEQ_BOUNDARY_OPEN        ? 0
                        : lk == VEL_SEQ_BOUNDARY_INCLUSIVE ? lower(low)
                                                           : upper(low);
    const uint64_t hi = hk == VEL_SEQ_BOUNDARY_OPEN        ? n
                        : hk == VEL_SEQ_BOUNDARY_INCLUSIVE ? upper(high)
                                                           : lower(high);
    const Outcome empty{VEL_S_NOTFOUND, 1, 1, 0};
    if (hk != VEL_SEQ_BOUNDARY_OPEN && hi == 0)
        return empty;
    vel_seq_no_t last;
    if (hk == VEL_SEQ_BOUNDARY_OPEN || (F::is_char && hi == n))
        last = kAll; // the char family does not count
    else
        last = hi - 1;
    if (lo < n && lo <= last)
        return {VEL_S_OK, lo, lo, last};
    if (F::is_char)
        return empty;
    if (lo < n) // found, but behind the end of the range
        return {VEL_S_NOTFOUND, lo + 1, lo + 1, lo};
    if (last == kAll)
        last = 0;
    return {VEL_S_NOTFOUND, last + 1, last + 1, last};
}

template <class F> std::vector<typename F::T> sorted_data(size_t n, int domain, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<int64_t> raw(n);
    for (auto &x : raw)
        x = static_cast<int64_t>(rng() % static_cast<uint64_t>(domain)) - domain / 2;
    std::sort(raw.begin(), raw.end());
    std::vector<typename F::T> v;
    for (auto x : raw)
        v.push_back(F::make(x));
    return v;
}

TYPED_TEST_SUITE(FamilyTest, AllFamilies, FamilyNames);

TYPED_TEST(FamilyTest, SearchEveryBoundKindAgainstModel) {
    using F = TypeParam;
    using T = typename F::T;
    // Domain 101: runs of ~40; domain 7: runs spanning many leaves.
    for (int domain : {101, 7}) {
        for (bool asc : {true, false}) {
            const uint64_t seed = 1000 + static_cast<uint64_t>(domain) * 2 + asc;
            SCOPED_TRACE(seed_msg(seed) + (asc ? " ascending" : " descending") + " domain " +
                         std::to_string(domain));
            auto v = sorted_data<F>(kOrderedLength<F>(2500), domain, seed);
            if (!asc)
                std::reverse(v.begin(), v.end());
            const vel_seq_order_t order = asc ? VEL_SEQ_ASC_ORDER : VEL_SEQ_DESC_ORDER;
            vel_objhandle_t o = this->host->create();
            const Field &f = this->host->seq[F::index];
            this->template put<F>(o, f, v, order);

            std::mt19937_64 rng(seed);
            vel_seq_iterator_t it{};
            for (int round = 0; round < 150; round++) {
                const int64_t span = domain / 2 + 2;
                T low = F::make(static_cast<int64_t>(rng() % (2 * span + 1)) - span);
                T high = F::make(static_cast<int64_t>(rng() % (2 * span + 1)) - span);
                for (auto lk : kKinds) {
                    for (auto hk : kKinds) {
                        SCOPED_TRACE("round " + std::to_string(round) + " kinds " +
                                     std::to_string(lk) + "/" + std::to_string(hk));
                        const Outcome want = model_search<F>(v, asc, low, lk, high, hk);
                        VEL_RET rc = F::search(&o, f.u, f.c, &it, low, lk, high, hk, order);
                        ASSERT_EQ(rc, want.rc);
                        ASSERT_EQ(it.first_seq_no, want.first);
                        ASSERT_EQ(it.next_seq_no, want.next);
                        ASSERT_EQ(it.last_seq_no, want.last);
                        ASSERT_EQ(it.elem_type, F::code);
                        ASSERT_EQ(it.elem_size, F::size);
                        if (round % 10 != 0 && rc == VEL_S_OK)
                            continue; // drain a sample only
                        auto d = drain<F>(&it);
                        ASSERT_EQ(d.end, VEL_S_CURSOR_END);
                        const uint64_t end = want.last == kAll ? v.size() : want.last + 1;
                        const uint64_t expect_n = rc == VEL_S_OK ? end - want.first : 0;
                        ASSERT_EQ(d.vals.size(), expect_n);
                        for (uint64_t i = 0; i < expect_n; i++)
                            ASSERT_TRUE(F::eq(d.vals[i], v[want.first + i])) << i;
                        if (rc == VEL_S_OK) { // reset goes back by position
                            ASSERT_EQ(it.reset(&it), VEL_S_OK);
                            auto again = drain<F>(&it);
                            ASSERT_EQ(again.vals.size(), expect_n);
                        } else {
                            ASSERT_EQ(it.reset(&it), VEL_S_NOTFOUND);
                        }
                    }
                }
            }
        }
    }
}

TYPED_TEST(FamilyTest, SearchEmptyFieldAndRangeEncodings) {
    using F = TypeParam;
    const Field &f = this->host->seq[F::index];
    vel_seq_iterator_t it{};
    // An empty field: NOTFOUND and the range 1..0, whatever the bounds.
    for (auto hk : kKinds) {
        EXPECT_EQ(F::search(&this->obj, f.u, f.c, &it, F::make(0), VEL_SEQ_BOUNDARY_INCLUSIVE,
                            F::make(5), hk, VEL_SEQ_ASC_ORDER),
                  VEL_S_NOTFOUND);
        EXPECT_EQ(it.first_seq_no, 1u);
        EXPECT_EQ(it.next_seq_no, 1u);
        EXPECT_EQ(it.last_seq_no, 0u);
        EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    }

    std::vector<typename F::T> v;
    for (int64_t x = 0; x < 300; x++)
        v.push_back(F::make(x / 3 - 40)); // -40 .. 59, three of each
    this->template put<F>(this->obj, f, v, VEL_SEQ_ASC_ORDER);
    const auto inc = VEL_SEQ_BOUNDARY_INCLUSIVE;
    const auto exc = VEL_SEQ_BOUNDARY_EXCLUSIVE;

    // High bound above everything: typed count-1, char unbounded.
    ASSERT_EQ(F::search(&this->obj, f.u, f.c, &it, F::make(-40), inc, F::make(60), inc,
                        VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    EXPECT_EQ(it.first_seq_no, 0u);
    EXPECT_EQ(it.last_seq_no, F::is_char ? kAll : 299u);

    // Low bound above everything with an open high bound: 1..0 in both.
    EXPECT_EQ(F::search(&this->obj, f.u, f.c, &it, F::make(59), exc, F::make(0),
                        VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER),
              VEL_S_NOTFOUND);
    EXPECT_EQ(it.first_seq_no, 1u);
    EXPECT_EQ(it.last_seq_no, 0u);

    // Low above everything, high inclusive above everything: the typed
    // family puts the empty range right behind count-1.
    EXPECT_EQ(
        F::search(&this->obj, f.u, f.c, &it, F::make(59), exc, F::make(70), inc, VEL_SEQ_ASC_ORDER),
        VEL_S_NOTFOUND);
    EXPECT_EQ(it.first_seq_no, F::is_char ? 1u : 300u);
    EXPECT_EQ(it.next_seq_no, F::is_char ? 1u : 300u);
    EXPECT_EQ(it.last_seq_no, F::is_char ? 0u : 299u);

    // An empty range in the middle: low 10 exclusive (first 10 at 150, so
    // the range would start at 153), high 10 inclusive (ends at 152).
    EXPECT_EQ(
        F::search(&this->obj, f.u, f.c, &it, F::make(10), exc, F::make(10), inc, VEL_SEQ_ASC_ORDER),
        VEL_S_NOTFOUND);
    EXPECT_EQ(it.first_seq_no, F::is_char ? 1u : 154u);
    EXPECT_EQ(it.last_seq_no, F::is_char ? 0u : 153u);
    EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(it.reset(&it), VEL_S_NOTFOUND);

    // High bound below the first element: 1..0, found at the end step.
    EXPECT_EQ(F::search(&this->obj, f.u, f.c, &it, F::make(-50), VEL_SEQ_BOUNDARY_OPEN,
                        F::make(-40), exc, VEL_SEQ_ASC_ORDER),
              VEL_S_NOTFOUND);
    EXPECT_EQ(it.first_seq_no, 1u);
    EXPECT_EQ(it.last_seq_no, 0u);

    // Both open: the whole sequence, unbounded.
    ASSERT_EQ(F::search(&this->obj, f.u, f.c, &it, F::make(0), VEL_SEQ_BOUNDARY_OPEN, F::make(0),
                        VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    EXPECT_EQ(it.first_seq_no, 0u);
    EXPECT_EQ(it.last_seq_no, kAll);
    EXPECT_EQ(drain<F>(&it).vals.size(), 300u);
}

// A NaN probed by the halving search counts as qualifying; a NaN bound
// makes every element qualify.
template <class F> void nan_cases(HostTest &t, Host &host, vel_objhandle_t &obj) {
    using T = typename F::T;
    const T nan = std::numeric_limits<T>::quiet_NaN();
    const Field &f = host.seq[F::index];
    t.template put<F>(obj, f, {T(1), nan, T(5)}, VEL_SEQ_ASC_ORDER);
    vel_seq_iterator_t it{};
    const auto inc = VEL_SEQ_BOUNDARY_INCLUSIVE, open = VEL_SEQ_BOUNDARY_OPEN;
    ASSERT_EQ(F::search(&obj, f.u, f.c, &it, T(4), inc, T(0), open, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(it.first_seq_no, 1u);
    auto d = drain<F>(&it);
    ASSERT_EQ(d.vals.size(), 2u);
    EXPECT_TRUE(std::isnan(d.vals[0]));
    EXPECT_EQ(d.vals[1], T(5));

    ASSERT_EQ(F::search(&obj, f.u, f.c, &it, nan, inc, T(0), open, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(it.first_seq_no, 0u);
    EXPECT_EQ(drain<F>(&it).vals.size(), 3u);

    // A NaN high bound: the very first element is "beyond" it.
    EXPECT_EQ(F::search(&obj, f.u, f.c, &it, T(0), open, nan, inc, VEL_SEQ_ASC_ORDER),
              VEL_S_NOTFOUND);
    EXPECT_EQ(it.first_seq_no, 1u);
    EXPECT_EQ(it.last_seq_no, 0u);
}

TEST_F(HostTest, SearchNaNFloat) { nan_cases<Fam_float>(*this, *host, obj); }
TEST_F(HostTest, SearchNaNDouble) { nan_cases<Fam_double>(*this, *host, obj); }

} // namespace
} // namespace itest
