// velseq/asof.hpp -- as-of lookups and joins over an ascending key field,
// gathering values at positions, and filling nulls forward.  They read
// fields tile by tile: a positional scan, a value search (one descent) to
// jump, and map to gather values at positions.
#ifndef VELSEQ_ASOF_HPP
#define VELSEQ_ASOF_HPP

#include <limits>
#include <tuple>

#include "velseq/sequence.hpp"

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

// Reads a field by positions that mostly ascend.  It keeps the tile in hand;
// a position in it costs nothing, one in the next two tiles costs their
// fetch, any other one descent from the root (a positional set-up of the
// iterator it owns, which is reused: nothing is allocated per jump).
template <class T> class tile_cursor {
  public:
    explicit tile_cursor(const sequence<T> &s)
        : obj_(s.obj()), fi_(s.info()), n_(s.size()), it_(new_iter()) {}

    uint64_t size() const noexcept { return n_; }
    uint64_t base() const noexcept { return base_; }
    size_t len() const noexcept { return len_; }
    const T *values() const noexcept { return vals_; }
    bool null_at(size_t i) const noexcept {
        return ((it_->tile.null_bitmap[i / 64] >> (i % 64)) & 1u) != 0;
    }

    // Makes `pos` (< size()) part of the tile in hand.
    void reach(uint64_t pos) {
        if (len_ > 0 && pos >= base_ && pos < base_ + len_)
            return;
        if (len_ > 0 && pos >= base_ + len_ && pos < base_ + len_ + 2 * VEL_SEQ_TILE_SIZE) {
            while (next() && pos >= base_ + len_) {
            }
            if (len_ > 0 && pos >= base_ && pos < base_ + len_)
                return;
        }
        jump(pos);
    }
    // The tile after the one in hand; false at the end of the field.
    bool next() {
        if (len_ == 0)
            return false;
        const VEL_RET rc = it_->next(it_.get());
        if (rc == VEL_S_CURSOR_END) {
            len_ = 0;
            return false;
        }
        check(rc, "reading a tile");
        load();
        return true;
    }
    // The iterator, for a caller that sets it up by a value search; then
    // adopt() takes its first tile.
    vel_seq_iterator_t &iter() noexcept { return *it_; }
    void adopt() {
        len_ = 0;
        if (it_->next(it_.get()) == VEL_S_OK)
            load();
    }

  private:
    void jump(uint64_t pos) {
        check(elem<T>::subseq(obj_, fi_, it_.get(), pos, n_ - 1), "positioning a scan");
        adopt();
    }
    void load() {
        len_ = it_->tile_size;
        base_ = it_->next_seq_no - len_;
        vals_ = reinterpret_cast<const T *>(it_->tile.u.arr_char);
    }
    vel_objhandle_h obj_;
    velh_field_info_t fi_;
    uint64_t n_;
    iter_ptr it_;
    uint64_t base_ = 0;
    size_t len_ = 0;
    const T *vals_ = nullptr;
};

// Answers "first position whose key is >= p (or > p)" over an ascending field,
// for a stream of probes: galloping from the previous answer in the tile in
// hand, on over the next two tiles, otherwise one value search from the root.
template <class K> class key_cursor {
  public:
    explicit key_cursor(const sequence<K> &keys)
        : keys_(keys), cur_(keys), last_(keys.back().value_or(K{})) {}

    uint64_t size() const noexcept { return cur_.size(); }

    uint64_t bound(const K &p, bool upper) {
        const uint64_t n = cur_.size();
        if (n == 0 || !qualifies(last_, p, upper))
            return n;
        // After a probe that needed a search, the next one likely does too:
        // hopping over tiles first would only add their fetches.
        for (int hops = far_ ? 2 : 0; cur_.len() > 0; hops++) {
            const K *v = cur_.values();
            const size_t len = cur_.len();
            if (!qualifies(v[len - 1], p, upper)) {
                // The answer lies beyond this tile.
                if (cur_.base() + len >= n)
                    return n;
                if (hops >= 2)
                    break;
                prev_ = v[len - 1];
                prev_known_ = true;
                seek_valid_ = false; // the search said nothing about this tile's start
                if (!cur_.next())
                    break;
                hint_ = 0;
                continue;
            }
            const size_t i = search_tile(v, len, p, upper);
            if (i == 0 && cur_.base() > 0 && !prev_fails(p, upper)) {
                if (!prev_known_) {
                    prev_ = keys_.at(cur_.base() - 1).value_or(K{});
                    prev_known_ = true;
                }
                if (qualifies(prev_, p, upper))
                    break; // the answer lies before this tile
            }
            hint_ = i;
            far_ = false;
            return cur_.base() + i;
        }
        far_ = true;
        return seek(p, upper);
    }

    // Key at `pos`: the tile in hand, the element before it, or a descent.
    K key(uint64_t pos) {
        if (cur_.len() > 0 && pos >= cur_.base() && pos < cur_.base() + cur_.len())
            return cur_.values()[pos - cur_.base()];
        if (prev_known_ && pos + 1 == cur_.base())
            return prev_;
        return keys_.at(pos).value_or(K{});
    }

  private:
    static bool qualifies(const K &v, const K &p, bool upper) { return upper ? p < v : !(v < p); }

    // Whether the element before the tile is known not to qualify for (p,
    // upper), from the search that placed the tile: it did not qualify for
    // (p0, upper0), so it is below p0 (or at most p0 when upper0).
    bool prev_fails(const K &p, bool upper) const {
        return seek_valid_ && (p0_ < p || (!(p < p0_) && (upper || !upper0_)));
    }

    // Gallops from the previous index, then halves.
    size_t search_tile(const K *v, size_t len, const K &p, bool upper) const {
        size_t lo = 0, hi = len;
        const size_t h = std::min(hint_, len);
        if (h > 0 && qualifies(v[h - 1], p, upper)) {
            hi = h - 1;
        } else {
            // Dense probes move a step or two: look there before galloping.
            for (size_t k = h; k < len && k < h + 4; k++)
                if (qualifies(v[k], p, upper))
                    return k;
            lo = std::min(len, h + 4);
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

    // One descent: the search iterator starts its scan at the answer.
    uint64_t seek(const K &p, bool upper) {
        vel_seq_iterator_t &it = cur_.iter();
        const VEL_RET rc = elem<K>::search(keys_.obj(), keys_.info(), &it, p,
                                           upper ? bound::exclusive : bound::inclusive, p,
                                           bound::open, VEL_SEQ_ASC_ORDER);
        if (rc != VEL_S_NOTFOUND)
            check(rc, "asof: searching the keys");
        cur_.adopt();
        hint_ = 0;
        prev_known_ = false;
        seek_valid_ = cur_.len() > 0;
        p0_ = p;
        upper0_ = upper;
        return rc == VEL_S_NOTFOUND ? cur_.size() : it.first_seq_no;
    }

    const sequence<K> &keys_;
    tile_cursor<K> cur_;
    K last_; // the last key: probes beyond it need no search
    size_t hint_ = 0;
    K prev_{};
    bool prev_known_ = false;
    K p0_{};
    bool upper0_ = false;
    bool seek_valid_ = false;
    bool far_ = false; // the last probe was answered by a search
};

template <class K> void require_ascending(const sequence<K> &keys, const char *what) {
    if (keys.declared_order() != order::ascending)
        throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + " needs an ascending key field");
}

} // namespace detail

namespace detail {

constexpr uint64_t no_match = ~uint64_t(0);

// The as-of merge; no_match where a probe has no match.
template <class K>
std::vector<uint64_t> asof_positions(const sequence<K> &keys, span<const K> probes,
                                     const asof_options<K> &opt) {
    require_ascending(keys, "asof");
    using D = key_distance<K>;
    std::vector<uint64_t> out(probes.size(), no_match);
    key_cursor<K> cur(keys);
    const uint64_t n = cur.size();
    for (size_t i = 0; i < probes.size(); i++) {
        const K &p = probes[i];
        if (is_nan(p) || n == 0)
            continue;
        // back: the last candidate before (or at) p; fwd: the first after (or at) it.
        uint64_t back = no_match, fwd = no_match;
        if (opt.dir != direction::forward) {
            const uint64_t b = cur.bound(p, !opt.strict);
            back = b > 0 ? b - 1 : no_match;
        }
        if (opt.dir != direction::backward) {
            const uint64_t f = cur.bound(p, opt.strict);
            fwd = f < n ? f : no_match;
        }
        uint64_t pick = back != no_match ? back : fwd;
        if (back != no_match && fwd != no_match &&
            D::between(p, cur.key(fwd)) < D::between(cur.key(back), p))
            pick = fwd;
        if (pick != no_match && opt.tolerance) {
            const K k = cur.key(pick);
            if ((k < p ? D::between(k, p) : D::between(p, k)) > D::of(*opt.tolerance))
                pick = no_match;
        }
        out[i] = pick;
    }
    return out;
}

// The values of `col` at positions pos(0) .. pos(count - 1) (no_match: null).
// Positions closer than a tile apart on average are read through whole tiles;
// sparser ones through the module's map, which copies single elements out of
// the leaf in hand and descends once per leaf.
template <class V, class Pos>
std::vector<std::optional<V>> gather_at(const sequence<V> &col, size_t count, Pos pos) {
    std::vector<std::optional<V>> out(count);
    tile_cursor<V> cur(col);
    const uint64_t n = cur.size();
    uint64_t lo = no_match, hi = 0, found = 0;
    for (size_t i = 0; i < count; i++) {
        const uint64_t p = pos(i);
        if (p == no_match)
            continue;
        if (p >= n)
            throw error(VEL_E_ILLEGAL_PARAM, "gather: position " + std::to_string(p) +
                                                 " past the end (" + std::to_string(n) + ")");
        lo = std::min(lo, p);
        hi = std::max(hi, p);
        found++;
    }
    if (found == 0)
        return out;
    if ((hi - lo) / found >= VEL_SEQ_TILE_SIZE / 2) {
        std::vector<uint64_t> wanted;
        wanted.reserve(found);
        for (size_t i = 0; i < count; i++)
            if (pos(i) != no_match)
                wanted.push_back(pos(i));
        size_t i = 0;
        for (const tile<V> &t : col.map(span<const uint64_t>(wanted)))
            for (size_t j = 0; j < t.size(); j++) {
                while (pos(i) == no_match)
                    i++;
                out[i++] = t[j];
            }
        return out;
    }
    for (size_t i = 0; i < count; i++) {
        const uint64_t p = pos(i);
        if (p == no_match)
            continue;
        cur.reach(p);
        const size_t k = static_cast<size_t>(p - cur.base());
        if (!cur.null_at(k))
            out[i] = cur.values()[k];
    }
    return out;
}

} // namespace detail

// For each probe, the position of its match in the ascending field `keys`, or
// nullopt when there is none (also for a NaN probe).  Never fails the batch.
// Ascending probes are answered by one merge over the field's tiles.
template <class K>
std::vector<std::optional<uint64_t>> asof(const sequence<K> &keys, span<const K> probes,
                                          const asof_options<K> &opt = {}) {
    const std::vector<uint64_t> pos = detail::asof_positions(keys, probes, opt);
    std::vector<std::optional<uint64_t>> out(pos.size());
    for (size_t i = 0; i < pos.size(); i++)
        if (pos[i] != detail::no_match)
            out[i] = pos[i];
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
// nullopt).  Ascending positions are read by one pass over the tiles they
// touch; a far jump costs one descent.
template <class V>
std::vector<std::optional<V>> gather(const sequence<V> &col,
                                     span<const std::optional<uint64_t>> positions) {
    return detail::gather_at(col, positions.size(), [&positions](size_t i) {
        return positions[i] ? *positions[i] : detail::no_match;
    });
}

// As-of join: for each probe, the prevailing values of several columns of the
// key field's object (column i of the result holds the values of cols[i]).
template <class K, class... V>
std::tuple<std::vector<std::optional<V>>...>
asof_join(const sequence<K> &keys, span<const K> probes, const asof_options<K> &opt,
          const sequence<V> &...cols) {
    const std::vector<uint64_t> pos = detail::asof_positions(keys, probes, opt);
    auto at = [&pos](size_t i) { return pos[i]; };
    return std::tuple<std::vector<std::optional<V>>...>(detail::gather_at(cols, pos.size(), at)...);
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

} // namespace velseq

#endif // VELSEQ_ASOF_HPP
