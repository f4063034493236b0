// velseq/timeseries.hpp -- as-of lookups, aggregates and resampling over
// sequence fields.  Included by velseq.hpp; not meant to be included alone.
//
// All of it reads fields tile by tile through the module's iterators: a
// positional scan, a value search (one descent) to jump, and map to gather
// values at positions.
#ifndef VELSEQ_TIMESERIES_HPP
#define VELSEQ_TIMESERIES_HPP

#include <limits>
#include <tuple>

namespace velseq {

// ---- distances between keys ----------------------------------------------------

// Tolerance of an as-of match: nanoseconds for datetime keys, a difference of
// values otherwise.
template <class K> struct key_distance {
    using type = std::conditional_t<std::is_floating_point_v<K>, double, uint64_t>;
    // b - a for a <= b, exact for every integer pair (unsigned wrap-around).
    static type between(const K &a, const K &b) noexcept {
        if constexpr (std::is_floating_point_v<K>)
            return static_cast<double>(b) - static_cast<double>(a);
        else
            return static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
    }
    static type of(type t) noexcept { return t; }
};
template <> struct key_distance<datetime> {
    using type = std::chrono::nanoseconds;
    static uint64_t between(const datetime &a, const datetime &b) noexcept {
        return b.raw() - a.raw();
    }
    static uint64_t of(type t) noexcept {
        return t.count() < 0 ? 0 : static_cast<uint64_t>(t.count());
    }
};

// ---- as-of lookups ---------------------------------------------------------------

enum class direction {
    backward, // last element at or before the probe
    forward,  // first element at or after the probe
    nearest   // the closer of the two; on a tie the backward one
};

template <class K> struct asof_options {
    direction dir = direction::backward;
    bool strict = false; // true: an element equal to the probe does not match
    std::optional<typename key_distance<K>::type> tolerance; // farther matches are null
};

namespace detail {

// Answers "first position whose key is >= p (or > p)" over an ascending field,
// for a stream of probes.  It keeps the tile of the previous answer; a probe
// whose answer lies in that tile or the next two is found by galloping from
// the previous index, any other by one value search from the root, which
// restarts the scan one element before the answer.
template <class K> class key_cursor {
  public:
    explicit key_cursor(const sequence<K> &keys) : keys_(keys), n_(keys.size()) {}

    uint64_t size() const noexcept { return n_; }

    uint64_t bound(const K &p, bool upper) {
        if (n_ == 0)
            return 0;
        if (!loaded_)
            return seek(p, upper);
        for (int hops = 0;; hops++) {
            const K *v = tile_.values.data();
            const size_t len = tile_.values.size();
            if (len > 0 && !qualifies(v[len - 1], p, upper)) {
                // The answer lies beyond this tile.
                if (hops == 2 || base_ + len >= n_)
                    return base_ + len >= n_ ? n_ : seek(p, upper);
                prev_ = v[len - 1];
                prev_known_ = true;
                if (!next_tile())
                    return n_;
                hint_ = 0;
                continue;
            }
            const size_t i = search_tile(v, len, p, upper);
            if (i == 0 && base_ > 0) {
                if (!prev_known_) {
                    prev_ = keys_.at(base_ - 1).value_or(K{});
                    prev_known_ = true;
                }
                if (qualifies(prev_, p, upper))
                    return seek(p, upper); // the answer lies before this tile
            }
            hint_ = i;
            return base_ + i;
        }
    }

    // Key at `pos`, cheap for the tile in hand and the element before it.
    K key(uint64_t pos) {
        if (loaded_ && pos >= base_ && pos < base_ + tile_.values.size())
            return tile_.values[pos - base_];
        if (loaded_ && prev_known_ && pos + 1 == base_)
            return prev_;
        return keys_.at(pos).value_or(K{});
    }

  private:
    static bool qualifies(const K &v, const K &p, bool upper) { return upper ? p < v : !(v < p); }

    // Gallops from the previous index, then halves.
    size_t search_tile(const K *v, size_t len, const K &p, bool upper) const {
        size_t lo = 0, hi = len;
        size_t h = std::min(hint_, len);
        if (h > 0 && qualifies(v[h - 1], p, upper)) {
            hi = h - 1;
        } else {
            lo = h;
            size_t step = 1;
            while (lo + step < len && !qualifies(v[lo + step], p, upper)) {
                lo += step + 1;
                step *= 2;
            }
            hi = std::min(len, lo + step);
        }
        while (lo < hi) {
            const size_t m = lo + (hi - lo) / 2;
            if (qualifies(v[m], p, upper))
                hi = m;
            else
                lo = m + 1;
        }
        return lo;
    }

    bool next_tile() {
        ++cur_;
        if (cur_ == range_.end()) {
            loaded_ = false;
            return false;
        }
        tile_ = *cur_;
        base_ = tile_.first;
        return true;
    }

    // One descent for the answer, then a scan from the element before it.
    uint64_t seek(const K &p, bool upper) {
        const position_range r =
            keys_.search(p, p, upper ? bound::exclusive : bound::inclusive, bound::open);
        const uint64_t ans = r.empty() ? n_ : r.first;
        const uint64_t start = ans > 0 ? ans - 1 : 0;
        range_ = keys_.tiles(start, n_);
        cur_ = range_.begin();
        loaded_ = cur_ != range_.end();
        if (loaded_) {
            tile_ = *cur_;
            base_ = tile_.first;
            hint_ = static_cast<size_t>(ans - base_);
        }
        prev_known_ = false;
        return ans;
    }

    const sequence<K> &keys_;
    uint64_t n_;
    tile_range<K> range_;
    typename tile_range<K>::iterator cur_;
    tile<K> tile_;
    uint64_t base_ = 0;
    size_t hint_ = 0;
    K prev_{};
    bool prev_known_ = false;
    bool loaded_ = false;
};

template <class K> void require_ascending(const sequence<K> &keys, const char *what) {
    if (keys.declared_order() != order::ascending)
        throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + " needs an ascending key field");
}

} // namespace detail

// For each probe, the position of its match in the ascending field `keys`, or
// nullopt when there is none (also for a NaN probe).  Never fails the batch.
// Ascending probes are answered by one merge over the field's tiles.
template <class K>
std::vector<std::optional<uint64_t>> asof(const sequence<K> &keys, span<const K> probes,
                                          const asof_options<K> &opt = {}) {
    detail::require_ascending(keys, "asof");
    using D = key_distance<K>;
    std::vector<std::optional<uint64_t>> out(probes.size());
    detail::key_cursor<K> cur(keys);
    const uint64_t n = cur.size();
    for (size_t i = 0; i < probes.size(); i++) {
        const K &p = probes[i];
        if (detail::is_nan(p) || n == 0)
            continue;
        // back: last candidate before or at p; fwd: first at or after p.
        std::optional<uint64_t> back, fwd;
        if (opt.dir != direction::forward) {
            const uint64_t b = cur.bound(p, !opt.strict);
            if (b > 0)
                back = b - 1;
        }
        if (opt.dir != direction::backward) {
            const uint64_t f = cur.bound(p, opt.strict);
            if (f < n)
                fwd = f;
        }
        std::optional<uint64_t> pick;
        if (back && fwd) {
            pick = D::between(cur.key(*back), p) <= D::between(p, cur.key(*fwd)) ? back : fwd;
        } else {
            pick = back ? back : fwd;
        }
        if (pick && opt.tolerance) {
            const K k = cur.key(*pick);
            const auto d = k < p ? D::between(k, p) : D::between(p, k);
            if (d > D::of(*opt.tolerance))
                pick.reset();
        }
        out[i] = pick;
    }
    return out;
}

// Probes stored in another field (null probes get null answers).
template <class K>
std::vector<std::optional<uint64_t>> asof(const sequence<K> &keys, const sequence<K> &probes,
                                          const asof_options<K> &opt = {}) {
    std::vector<K> vals;
    std::vector<size_t> where;
    size_t i = 0;
    for (std::optional<K> p : probes.elements()) {
        if (p) {
            vals.push_back(*p);
            where.push_back(i);
        }
        i++;
    }
    std::vector<std::optional<uint64_t>> found = asof(keys, span<const K>(vals), opt);
    std::vector<std::optional<uint64_t>> out(i);
    for (size_t k = 0; k < where.size(); k++)
        out[where[k]] = found[k];
    return out;
}

// The values of `col` at the given positions (null position or null element:
// nullopt), read by the module's map.
template <class V>
std::vector<std::optional<V>> gather(const sequence<V> &col,
                                     span<const std::optional<uint64_t>> positions) {
    std::vector<uint64_t> pos;
    for (const auto &p : positions)
        if (p)
            pos.push_back(*p);
    std::vector<std::optional<V>> out(positions.size());
    if (pos.empty())
        return out;
    size_t k = 0;
    auto next_slot = [&]() {
        while (!positions[k])
            k++;
        return k++;
    };
    for (const tile<V> &t : col.map(span<const uint64_t>(pos)))
        for (size_t j = 0; j < t.size(); j++)
            out[next_slot()] = t[j];
    return out;
}

// As-of join: for each probe, the prevailing values of several columns of the
// key field's object (column i of the result holds the values of cols[i]).
template <class K, class... V>
std::tuple<std::vector<std::optional<V>>...>
asof_join(const sequence<K> &keys, span<const K> probes, const asof_options<K> &opt,
          const sequence<V> &...cols) {
    const auto pos = asof(keys, probes, opt);
    const span<const std::optional<uint64_t>> p(pos);
    return std::tuple<std::vector<std::optional<V>>...>(gather(cols, p)...);
}

// Last observation carried forward: each null takes the closest earlier
// non-null value; leading nulls stay null.
template <class T> void fill_forward(std::vector<std::optional<T>> &v) {
    std::optional<T> last;
    for (auto &x : v) {
        if (x)
            last = x;
        else
            x = last;
    }
}

// The elements of positions [first, last) with nulls filled forward.
template <class T>
std::vector<std::optional<T>> read_filled(const sequence<T> &s, position_range r) {
    std::vector<std::optional<T>> v;
    v.reserve(r.size());
    for (std::optional<T> x : s.elements(r.first, r.last))
        v.push_back(x);
    fill_forward(v);
    return v;
}

// ---- aggregates ------------------------------------------------------------------

template <class T>
using sum_t = std::conditional_t<
    std::is_floating_point_v<T>, double,
    std::conditional_t<std::is_signed_v<T>, int64_t,
                       std::conditional_t<std::is_unsigned_v<T>, uint64_t, std::monostate>>>;

// Nulls are skipped by everything but `rows`.  The sum wraps around for
// integers as the C types do; NaN values propagate into sum and mean.
template <class T> struct summary {
    uint64_t rows = 0;  // elements, nulls included
    uint64_t count = 0; // non-null elements
    sum_t<T> sum{};     // arithmetic types only
    std::optional<T> min, max, first, last;
    std::optional<double> mean() const {
        if constexpr (std::is_arithmetic_v<T>) {
            if (count > 0)
                return static_cast<double>(sum) / static_cast<double>(count);
        }
        return std::nullopt;
    }
};

namespace detail {

// Folds `n` values (nulls flagged in `nulls` from bit `off`) into `s`.
template <class T>
void fold(summary<T> &s, const T *v, size_t n, const vel_bitmap_word_t *nulls, size_t off) {
    s.rows += n;
    bool any_null = false;
    for (size_t i = 0; i < n && !any_null; i++)
        any_null = ((nulls[(off + i) / 64] >> ((off + i) % 64)) & 1u) != 0;
    auto take = [&s](const T &x, bool first) {
        if (first || x < *s.min)
            s.min = x;
        if (first || *s.max < x)
            s.max = x;
    };
    if (!any_null) {
        if (n == 0)
            return;
        // Dense tile: the loop the compiler vectorises.
        if constexpr (std::is_arithmetic_v<T>) {
            sum_t<T> sum{};
            T lo = v[0], hi = v[0];
            for (size_t i = 0; i < n; i++) {
                sum += static_cast<sum_t<T>>(v[i]);
                lo = v[i] < lo ? v[i] : lo;
                hi = hi < v[i] ? v[i] : hi;
            }
            s.sum += sum;
            take(lo, s.count == 0);
            take(hi, false);
        } else {
            for (size_t i = 0; i < n; i++)
                take(v[i], s.count == 0 && i == 0);
        }
        if (s.count == 0)
            s.first = v[0];
        s.last = v[n - 1];
        s.count += n;
        return;
    }
    for (size_t i = 0; i < n; i++) {
        if (((nulls[(off + i) / 64] >> ((off + i) % 64)) & 1u) != 0)
            continue;
        if constexpr (std::is_arithmetic_v<T>)
            s.sum += static_cast<sum_t<T>>(v[i]);
        take(v[i], s.count == 0);
        if (s.count == 0)
            s.first = v[i];
        s.last = v[i];
        s.count++;
    }
}

} // namespace detail

// Count, sum, min, max, mean, first and last of positions [first, last).
template <class T> summary<T> aggregate(const sequence<T> &s, position_range r) {
    summary<T> out;
    for (const tile<T> &t : s.tiles(r.first, r.last))
        detail::fold(out, t.values.data(), t.size(), t.nulls.words(), 0);
    return out;
}

// The same over the time window from <= ts < to of an ascending datetime
// field of the same object.
template <class T>
summary<T> aggregate(const sequence<T> &s, const sequence<datetime> &ts, datetime from,
                     datetime to) {
    detail::require_ascending(ts, "a time window");
    if (to < from)
        throw error(VEL_E_ILLEGAL_PARAM, "time window given reversed (to < from)");
    return aggregate(s, ts.search(from, to, bound::inclusive, bound::exclusive));
}

// ---- resampling ----------------------------------------------------------------------

// One time bucket [start, start + width): first, max, min, last, count and sum
// of the non-null values of the rows whose time falls in it.
template <class V> struct bar {
    datetime start;
    uint64_t rows = 0;
    uint64_t count = 0;
    sum_t<V> sum{};
    std::optional<V> first, max, min, last;
};

// Buckets of `width` aligned on `origin`, over the rows from <= ts < to (all
// rows without a window), in time order; only buckets holding a row appear.
// `ts` is an ascending datetime field and `vals` a field of the same length.
template <class V>
std::vector<bar<V>> resample(const sequence<datetime> &ts, const sequence<V> &vals,
                             std::chrono::nanoseconds width,
                             std::optional<std::pair<datetime, datetime>> window = std::nullopt,
                             datetime origin = datetime::from_ns(0)) {
    detail::require_ascending(ts, "resample");
    if (width.count() <= 0)
        throw error(VEL_E_ILLEGAL_PARAM, "resample: bucket width must be positive");
    const uint64_t n = ts.size();
    if (vals.size() != n)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, "resample: time and value fields differ in length");
    position_range r{0, n};
    if (window) {
        if (window->second < window->first)
            throw error(VEL_E_ILLEGAL_PARAM, "resample: window given reversed");
        r = ts.search(window->first, window->second, bound::inclusive, bound::exclusive);
    }
    std::vector<bar<V>> out;
    if (r.empty())
        return out;
    const int64_t w = width.count();
    auto bucket_of = [&](datetime t) {
        // t - origin as a signed count (exact while they are < 292 years apart)
        const int64_t d = static_cast<int64_t>(t.raw() - origin.raw());
        const int64_t k = d / w - (d % w < 0 ? 1 : 0);
        return k;
    };
    tile_range<datetime> tr = ts.tiles(r.first, r.last);
    tile_range<V> vr = vals.tiles(r.first, r.last);
    auto ti = tr.begin();
    auto vi = vr.begin();
    size_t toff = 0, voff = 0;
    int64_t cur_k = 0;
    summary<V> acc;
    auto flush = [&]() {
        bar<V> b;
        b.start = origin + std::chrono::nanoseconds(cur_k * w);
        b.rows = acc.rows;
        b.count = acc.count;
        b.sum = acc.sum;
        b.first = acc.first;
        b.max = acc.max;
        b.min = acc.min;
        b.last = acc.last;
        out.push_back(b);
        acc = summary<V>();
    };
    // The two fields' tiles need not line up: walk both, a chunk at a time.
    while (ti != tr.end() && vi != vr.end()) {
        const size_t chunk = std::min(ti->size() - toff, vi->size() - voff);
        const datetime *t = ti->values.data() + toff;
        const V *v = vi->values.data() + voff;
        size_t i = 0;
        while (i < chunk) {
            const int64_t k = bucket_of(t[i]);
            if (acc.rows > 0 && k != cur_k)
                flush();
            cur_k = k;
            // the run of rows in bucket k inside this chunk
            const datetime end = origin + std::chrono::nanoseconds((k + 1) * w);
            size_t j = i + 1;
            while (j < chunk && t[j] < end)
                j++;
            detail::fold(acc, v + i, j - i, vi->nulls.words(), voff + i);
            i = j;
        }
        toff += chunk;
        voff += chunk;
        if (toff == ti->size()) {
            ++ti;
            toff = 0;
        }
        if (voff == vi->size()) {
            ++vi;
            voff = 0;
        }
    }
    if (acc.rows > 0)
        flush();
    return out;
}

} // namespace velseq

#endif // VELSEQ_TIMESERIES_HPP
