// The registry of aggregate kernels, and the two drivers that run them:
// aggregate (one group: a position range) and resample (time buckets).
//
// A kernel is one struct: its name, what it answers, whether it takes
// numbers only (not datetimes or characters), the type of its answer, what
// it needs of the pass over the values and how it reads its answer off that
// pass (`fold<P>`, over values of policy P, dispatch.h).  Every kernel asked
// at once shares one pass over the values, which are read in place, leaf by
// leaf.  Adding an aggregate is one struct here plus its line in
// `registry` (and a field of fold if it needs one).
#include <algorithm>
#include <tuple>

#include "dispatch.h"
#include "velseq/calendar.hpp"

namespace velseq::table {

uint64_t array::null_count() const {
    if (validity.empty())
        return 0;
    uint64_t n = 0;
    for (uint64_t i = 0; i < length; i++)
        n += !valid(i);
    return n;
}

namespace detail {
namespace {

// The hot loops are also compiled for AVX2 and the one the processor runs
// is picked when the library loads (GCC's function clones, an ifunc): a
// whole pass over a column then takes a quarter of the instructions.
// Results do not change: the loops keep their order of additions.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__)
#define VELTABLE_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define VELTABLE_CLONES
#endif

bool numeric(column_type t) {
    return t.code != VEL_DD_SEQUENCE_DATETIME && t.code != VEL_DD_SEQUENCE_CHAR;
}
constexpr column_type kUint8{VEL_DD_SEQUENCE_UINT8, 8};
constexpr column_type kDouble{VEL_DD_SEQUENCE_DOUBLE, 8};

// The sum's type: double for floats, int64 or uint64 for integers (which
// wrap around as unsigned arithmetic does).
column_type sum_type(column_type t) {
    switch (t.code) {
    case VEL_DD_SEQUENCE_FLOAT:
    case VEL_DD_SEQUENCE_DOUBLE:
        return kDouble;
    case VEL_DD_SEQUENCE_INT1:
    case VEL_DD_SEQUENCE_INT2:
    case VEL_DD_SEQUENCE_INT4:
    case VEL_DD_SEQUENCE_INT8:
        return {VEL_DD_SEQUENCE_INT8, 8};
    default:
        return kUint8;
    }
}

// What a set of kernels asks of the pass over the values.
enum needs : unsigned {
    kSum = 1,      // sum and count of the values present
    kExtremes = 2, // min and max, passing over NaN
    kArgs = 4,     // and the positions of the first extremes
    kFirst = 8,
    kLast = 16,
};

// The one pass every kernel answers from: counts, the sum, the extremes and
// their positions, the first and last values present, over the runs given
// to add() in position order.  Kernels asked together share the pass.
template <class P> struct fold {
    using T = typename P::value;
    using acc_t = std::conditional_t<std::is_floating_point_v<T>, double, uint64_t>;
    P p;
    unsigned wants = 0;
    uint64_t count = 0, rows = 0;
    acc_t sum = 0;
    bool has = false; // mn and mx hold extremes (values that are not NaN)
    T mn{}, mx{};
    uint64_t at_mn = 0, at_mx = 0;
    std::optional<T> first{}, last{};

    void reset() {
        count = rows = 0;
        sum = 0;
        has = false;
        first.reset();
        last.reset();
    }

    // Values v[0, n) of positions pos.., nulls flagged from bit `off` of
    // `nulls` (none null without a mask).
    void add(const unsigned char *v, const vel_bitmap_word_t *nulls, size_t off, size_t n,
             uint64_t pos) {
        if (n == 0)
            return;
        rows += n;
        if (nulls != nullptr) {
            add_masked(v, nulls, off, n, pos);
            return;
        }
        count += n;
        if ((wants & kFirst) && !first)
            first = p.at(v, 0);
        if (wants & kLast)
            last = p.at(v, n - 1);
        const bool e = (wants & kExtremes) != 0;
        if constexpr (P::numeric) {
            if (wants & kSum) {
                e ? dense<true, true>(v, n, pos) : dense<true, false>(v, n, pos);
                return;
            }
        }
        if (e)
            dense<false, true>(v, n, pos);
    }

    // Sum and extremes of a run without nulls in one loop.  The sum adds in
    // position order (a float sum must round as the row-by-row one does);
    // the run's extremes start at its first value that is not NaN, and a
    // strict comparison keeps the first of equal values and never takes
    // NaN, so that no NaN test is left in the loop.
    template <bool S, bool E>
    VELTABLE_CLONES void dense(const unsigned char *v, size_t n, uint64_t pos) {
        acc_t s = sum; // locals: the loop keeps them in registers
        size_t i = 0;
        if constexpr (E) {
            for (; i < n && p.is_nan(p.at(v, i)); i++)
                if constexpr (S)
                    s += static_cast<acc_t>(p.at(v, i));
        }
        if (!E || i == n) {
            if constexpr (S)
                for (; i < n; i++)
                    s += static_cast<acc_t>(p.at(v, i));
            sum = s;
            return;
        }
        const size_t i0 = i;
        T m = p.at(v, i0), M = m;
        if constexpr (S)
            s += static_cast<acc_t>(m);
        for (i = i0 + 1; i < n; i++) {
            const T x = p.at(v, i);
            if constexpr (S)
                s += static_cast<acc_t>(x);
            m = p.less(x, m) ? x : m;
            M = p.less(M, x) ? x : M;
        }
        sum = s;
        // The run's first extremes against those of the runs before.
        const bool lower = !has || p.less(m, mn), higher = !has || p.less(mx, M);
        if (lower)
            mn = m;
        if (higher)
            mx = M;
        if ((wants & kArgs) && (lower || higher)) {
            // The first value equal to a run's extreme is the one the loop
            // kept: nothing before it is smaller (larger).
            bool lo_at = !lower, hi_at = !higher;
            for (i = i0; !(lo_at && hi_at); i++) {
                const T x = p.at(v, i);
                if (p.is_nan(x))
                    continue;
                if (!lo_at && !p.less(m, x)) {
                    at_mn = pos + i;
                    lo_at = true;
                }
                if (!hi_at && !p.less(x, M)) {
                    at_mx = pos + i;
                    hi_at = true;
                }
            }
        }
        has = true;
    }

    void add_masked(const unsigned char *v, const vel_bitmap_word_t *nulls, size_t off, size_t n,
                    uint64_t pos) {
        acc_t s = sum;
        uint64_t c = count;
        for (size_t i = 0; i < n; i++) {
            if (null_at(nulls, off + i))
                continue;
            const T x = p.at(v, i);
            c++;
            if constexpr (P::numeric)
                s += static_cast<acc_t>(x);
            if ((wants & kFirst) && !first)
                first = x;
            if (wants & kLast)
                last = x;
            if (!(wants & kExtremes) || p.is_nan(x))
                continue;
            if (!has || p.less(x, mn)) {
                mn = x;
                at_mn = pos + i;
            }
            if (!has || p.less(mx, x)) {
                mx = x;
                at_mx = pos + i;
            }
            has = true;
        }
        sum = s;
        count = c;
    }

    // The sum as its answer type: signed integers reinterpret the wrapped
    // unsigned total.
    auto total() const {
        if constexpr (std::is_floating_point_v<T> || std::is_unsigned_v<T>)
            return sum;
        else
            return static_cast<int64_t>(sum);
    }
    void put(array &out, const T &x) const {
        if constexpr (std::is_arithmetic_v<T>) {
            push(out, &x);
        } else {
            std::vector<unsigned char> bytes(p.width());
            p.put(bytes.data(), x);
            push(out, bytes.data());
        }
    }
};

// The number of values present, or (Rows) of rows, nulls included.
template <bool Rows> struct count_k {
    static constexpr const char *name = Rows ? "rows" : "count";
    static constexpr const char *answer =
        Rows ? "the number of rows, nulls included" : "the number of values present";
    static constexpr bool numeric_only = false;
    static constexpr unsigned wants = 0;
    static column_type result(column_type) { return kUint8; }
    template <class P> static void give(const fold<P> &f, array &out) {
        push(out, Rows ? &f.rows : &f.count);
    }
};

struct sum_k {
    static constexpr const char *name = "sum";
    static constexpr const char *answer = "the sum of the values (0 when none)";
    static constexpr bool numeric_only = true;
    static constexpr unsigned wants = kSum;
    static column_type result(column_type t) { return sum_type(t); }
    template <class P> static void give(const fold<P> &f, array &out) {
        const auto s = f.total();
        push(out, &s);
    }
};

struct mean_k {
    static constexpr const char *name = "mean";
    static constexpr const char *answer = "the sum over the count, as a double";
    static constexpr bool numeric_only = true;
    static constexpr unsigned wants = kSum;
    static column_type result(column_type) { return kDouble; }
    template <class P> static void give(const fold<P> &f, array &out) {
        const double m = static_cast<double>(f.total()) / static_cast<double>(f.count);
        push(out, f.count ? &m : nullptr);
    }
};

// min, max and their positions: the first extreme value in position order,
// passing over NaN.
template <bool Max, bool Arg> struct extreme_k {
    static constexpr const char *name = Arg ? (Max ? "argmax" : "argmin") : (Max ? "max" : "min");
    static constexpr const char *answer = Arg ? (Max ? "the position of the first largest value"
                                                     : "the position of the first smallest value")
                                              : (Max ? "the largest value" : "the smallest value");
    static constexpr bool numeric_only = false;
    static constexpr unsigned wants = Arg ? kExtremes | kArgs : kExtremes;
    static column_type result(column_type t) { return Arg ? kUint8 : t; }
    template <class P> static void give(const fold<P> &f, array &out) {
        if (!f.has)
            push(out, nullptr);
        else if constexpr (Arg)
            push(out, Max ? &f.at_mx : &f.at_mn);
        else
            f.put(out, Max ? f.mx : f.mn);
    }
};

// The first or last value present, in position order.
template <bool Last> struct end_k {
    static constexpr const char *name = Last ? "last" : "first";
    static constexpr const char *answer =
        Last ? "the last value present" : "the first value present";
    static constexpr bool numeric_only = false;
    static constexpr unsigned wants = Last ? kLast : kFirst;
    static column_type result(column_type t) { return t; }
    template <class P> static void give(const fold<P> &f, array &out) {
        const auto &v = Last ? f.last : f.first;
        if (v)
            f.put(out, *v);
        else
            push(out, nullptr);
    }
};

using registry = std::tuple<count_k<false>, sum_k, mean_k, extreme_k<false, false>,
                            extreme_k<true, false>, end_k<false>, end_k<true>,
                            extreme_k<false, true>, extreme_k<true, true>, count_k<true>>;

// f(K{}) for the kernel of that name; false when there is none.
template <class F, size_t I = 0> bool find_kernel(std::string_view name, F &&f) {
    if constexpr (I == std::tuple_size_v<registry>) {
        return false;
    } else {
        using K = std::tuple_element_t<I, registry>;
        if (name == K::name) {
            f(K{});
            return true;
        }
        return find_kernel<F, I + 1>(name, std::forward<F>(f));
    }
}

template <class F> void with_kernel(std::string_view name, F &&f) {
    if (!find_kernel(name, f))
        throw error(VEL_E_ILLEGAL_PARAM, "no aggregate named '" + std::string(name) + "'");
}

// The kernels asked for over values of policy P: one fold for all of them,
// each kernel's answer taken from it.
template <class P> struct kernel_set {
    fold<P> f;
    std::vector<void (*)(const fold<P> &, array &)> gives;

    kernel_set(const P &pol, column_type t, const std::vector<std::string> &names,
               std::vector<array> &answers)
        : f{pol} {
        for (const std::string &name : names)
            with_kernel(name, [&](auto k) {
                using K = decltype(k);
                if constexpr (K::numeric_only && !P::numeric) {
                    throw error(VEL_E_ILLEGAL_TYPE,
                                std::string(K::name) + " of a " + type_name(t) + " column");
                } else {
                    f.wants |= K::wants;
                    gives.push_back(&K::template give<P>);
                    answers.emplace_back().type = K::result(t);
                }
            });
    }
    void add(const unsigned char *v, const vel_bitmap_word_t *nulls, size_t off, size_t n,
             uint64_t pos) {
        f.add(v, nulls, off, n, pos);
    }
    void answer(std::vector<array> &answers) {
        for (size_t j = 0; j < gives.size(); j++)
            gives[j](f, answers[j]);
        f.reset();
    }
};

} // namespace
} // namespace detail

const std::vector<kernel_info> &kernels() {
    static const std::vector<kernel_info> all = [] {
        std::vector<kernel_info> v;
        std::apply(
            [&](auto... k) {
                (v.push_back({decltype(k)::name, decltype(k)::answer}), ...);
            },
            detail::registry{});
        return v;
    }();
    return all;
}

bool applies(std::string_view kernel, column_type t) {
    bool yes = false;
    detail::with_kernel(kernel,
                        [&](auto k) { yes = !decltype(k)::numeric_only || detail::numeric(t); });
    return yes;
}

column_type result_type(std::string_view kernel, column_type t) {
    column_type r;
    detail::with_kernel(kernel, [&](auto k) { r = decltype(k)::result(t); });
    return r;
}

std::vector<array> aggregate(const column &c, uint64_t first, uint64_t last,
                             const std::vector<std::string> &names) {
    const uint64_t n = detail::count_of(c);
    if (first > last || last > n)
        throw error(VEL_E_ILLEGAL_PARAM, "aggregate: positions [" + std::to_string(first) + ", " +
                                             std::to_string(last) + ") outside [0, " +
                                             std::to_string(n) + ")");
    std::vector<array> answers;
    detail::visit(c.type, [&](const auto &p) {
        detail::kernel_set set(p, c.type, names, answers);
        visit_leaves(c, first, last, [&](const leaf_run &r) { // the values in place
            set.add(static_cast<const unsigned char *>(r.values), r.nulls, r.null_bit, r.length,
                    r.first);
            return true;
        });
        set.answer(answers);
    });
    return answers;
}

namespace {

// The positions [first, last) of ts whose times lie in [window.first,
// window.second); the whole column without a window.
std::pair<uint64_t, uint64_t>
window_positions(const column &ts, uint64_t n,
                 std::optional<std::pair<vel_datetime, vel_datetime>> window) {
    if (!window)
        return {0, n};
    if (window->second < window->first)
        throw error(VEL_E_ILLEGAL_PARAM, "resample: window given reversed");
    vel_objhandle_t obj = ts.obj;
    detail::iter_ptr it = detail::new_iter();
    const VEL_RET rc = vel_w_seq_search_datetime(
        &obj, ts.field.u_offset, ts.field.c_offset, it.get(), window->first,
        VEL_SEQ_BOUNDARY_INCLUSIVE, window->second, VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER);
    if (rc == VEL_S_NOTFOUND)
        return {0, 0};
    velseq::detail::check(rc, "resample: searching the window");
    return {it->first_seq_no, it->last_seq_no == ~vel_seq_no_t(0) ? n : it->last_seq_no + 1};
}

} // namespace

namespace {

// The driver of both resamples: `span(t)` gives the bucket holding time t
// as {key, start, last}: a key that tells buckets apart, its start and its
// last instant (inclusive, so that a bucket reaching past the last instant
// a datetime holds needs no end).
template <class Span>
buckets resample_by(const column &ts, const column &values,
                    std::optional<std::pair<vel_datetime, vel_datetime>> window,
                    const std::vector<std::string> &names, Span span) {
    if (ts.type.code != VEL_DD_SEQUENCE_DATETIME || ts.field.order != VEL_SEQ_ASC_ORDER)
        throw error(VEL_E_ILLEGAL_TYPE, "resample: the time column must be an ascending datetime");
    const uint64_t n = detail::count_of(ts);
    if (detail::count_of(values) != n)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, "resample: time and value columns differ in length");
    const auto [first, last] = window_positions(ts, n, window);
    buckets out;
    out.start.type = {VEL_DD_SEQUENCE_DATETIME, 8};
    detail::visit(values.type, [&](const auto &p) {
        detail::kernel_set set(p, values.type, names, out.answers);
        if (first == last)
            return;
        // The time column's runs first (pointers only), then the values'
        // runs in step with them: both read in place.
        std::vector<leaf_run> times;
        visit_leaves(ts, first, last, [&](const leaf_run &r) {
            times.push_back(r);
            return true;
        });
        detail::scalar<vel_datetime, VEL_DD_SEQUENCE_DATETIME> dt;
        size_t tr = 0;     // the time run in hand
        uint64_t toff = 0; // its first value not yet used
        bool open = false;
        uint64_t cur = 0;
        vel_datetime cur_start = 0;
        auto close = [&] {
            detail::push(out.start, &cur_start);
            set.answer(out.answers);
        };
        visit_leaves(values, first, last, [&](const leaf_run &r) {
            const auto *vals = static_cast<const unsigned char *>(r.values);
            for (uint64_t voff = 0; voff < r.length;) {
                if (toff == times[tr].length) {
                    tr++;
                    toff = 0;
                }
                const size_t chunk = std::min(times[tr].length - toff, r.length - voff);
                const auto *t = static_cast<const unsigned char *>(times[tr].values) +
                                toff * sizeof(vel_datetime);
                const uint64_t pos = r.first + voff;
                size_t i = 0;
                while (i < chunk) {
                    const auto [key, start, end] = span(dt.at(t, i));
                    if (open && key != cur)
                        close();
                    open = true;
                    cur = key;
                    cur_start = start;
                    size_t j = i + 1;
                    while (j < chunk && dt.at(t, j) <= end)
                        j++;
                    set.add(vals + (voff + i) * p.width(), r.nulls, r.null_bit + voff + i, j - i,
                            pos + i);
                    i = j;
                }
                toff += chunk;
                voff += chunk;
            }
            return true;
        });
        if (open)
            close();
    });
    return out;
}

struct span_t {
    uint64_t key;
    vel_datetime start, last;
};

} // namespace

buckets resample(const column &ts, const column &values, int64_t width_ns, vel_datetime origin,
                 std::optional<std::pair<vel_datetime, vel_datetime>> window,
                 const std::vector<std::string> &names) {
    if (width_ns <= 0)
        throw error(VEL_E_ILLEGAL_PARAM, "resample: bucket width must be positive");
    const int64_t o = vel_dt_to_ns(origin);
    // t - origin as a signed count (exact while they lie < 292 years apart),
    // floored to a bucket; its ends clamped to the instants a datetime holds.
    return resample_by(ts, values, window, names, [&](vel_datetime t) {
        const auto d = static_cast<int64_t>(t - origin);
        const int64_t k = d / width_ns - (d % width_ns < 0 ? 1 : 0);
        const __int128 start = static_cast<__int128>(k) * width_ns + o;
        const __int128 last = std::min<__int128>(start + width_ns - 1, INT64_MAX);
        return span_t{static_cast<uint64_t>(k),
                      origin + static_cast<uint64_t>(k) * static_cast<uint64_t>(width_ns),
                      vel_dt_from_ns(static_cast<int64_t>(last))};
    });
}

buckets resample(const column &ts, const column &values, const calendar &cal,
                 std::optional<std::pair<vel_datetime, vel_datetime>> window,
                 const std::vector<std::string> &names) {
    calendar_bucket(cal, vel_dt_from_ns(0)); // refuses a bad calendar before a row is read
    return resample_by(ts, values, window, names, [&](vel_datetime t) {
        const calendar_span s = calendar_bucket(cal, t);
        return span_t{s.start, s.start, s.last};
    });
}

} // namespace velseq::table
