// As-of matching and gathering by position: one generic definition each over
// the value policies of dispatch.h, which every front end (the C++ API, the
// velseq program, Python) calls.  Keys are compared in place, never copied
// out of their tiles, and the fields are read tile by tile: ascending probes
// or positions cost a merge over the tiles they touch, a far jump one
// descent (a value search or a positional set-up of the iterator).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "dispatch.h"

namespace velseq::table {

namespace detail {
namespace {

constexpr column_type kPositions{VEL_DD_SEQUENCE_UINT8, 8};
constexpr uint64_t kNone = ~uint64_t(0);

// Room for one key of any type, held across tiles.
using held_key = std::array<unsigned char, VELH_MAX_SEQ_CHAR_WIDTH>;
static_assert(VELH_MAX_SEQ_CHAR_WIDTH >= sizeof(uint64_t), "a held key fits every scalar");

// Reads a column by positions that mostly ascend.  It keeps the tile in
// hand; a position in it costs nothing, one in the next two tiles costs their
// fetch, any other one descent from the root (a positional set-up of the
// iterator it owns, which is reused: nothing is allocated per jump).
template <class P> class tile_cursor {
  public:
    tile_cursor(const P &p, const column &c, uint64_t n)
        : p_(p), obj_(c.obj), field_(c.field), n_(n) {}
    tile_cursor(const tile_cursor &) = delete;
    tile_cursor &operator=(const tile_cursor &) = delete;

    uint64_t size() const { return n_; }
    uint64_t base() const { return base_; }
    size_t len() const { return len_; }
    const unsigned char *value(size_t i) const { return vals_ + i * p_.width(); }
    bool null(size_t i) const { return null_at(it_->tile.null_bitmap, i); }
    bool holds(uint64_t pos) const { return len_ > 0 && pos >= base_ && pos < base_ + len_; }

    // Makes `pos` (< size()) part of the tile in hand.
    void reach(uint64_t pos) {
        if (holds(pos))
            return;
        if (len_ > 0 && pos >= base_ + len_ && pos < base_ + len_ + 2 * VEL_SEQ_TILE_SIZE) {
            while (next() && pos >= base_ + len_) {
            }
            if (holds(pos))
                return;
        }
        check(p_.subseq(&obj_, field_, it_.get(), pos, n_ - 1), "positioning a scan");
        adopt();
    }
    // The tile after the one in hand; false (and no tile in hand) at the end.
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
    // A value search from the root for (lo, lk): the position of the first
    // match, with the tile in hand starting there; size() when none.
    uint64_t search(const unsigned char *lo, vel_seq_boundary_kind_t lk) {
        len_ = 0;
        const VEL_RET rc = p_.search(&obj_, field_, it_.get(), lo, lk, lo, VEL_SEQ_BOUNDARY_OPEN,
                                     VEL_SEQ_ASC_ORDER);
        if (rc == VEL_S_NOTFOUND)
            return n_;
        check(rc, "searching the keys");
        adopt();
        return it_->first_seq_no;
    }
    vel_objhandle_t *obj() { return &obj_; }

  private:
    void adopt() {
        len_ = 0;
        const VEL_RET rc = it_->next(it_.get());
        if (rc == VEL_S_CURSOR_END)
            return;
        check(rc, "reading a tile");
        load();
    }
    void load() {
        len_ = it_->tile_size;
        base_ = it_->next_seq_no - len_;
        vals_ = reinterpret_cast<const unsigned char *>(it_->tile.u.arr_char);
    }
    static void check(VEL_RET rc, const char *what) { velseq::detail::check(rc, what); }

    P p_;
    vel_objhandle_t obj_; // the iterator's calls take it by address
    velh_field_info_t field_;
    uint64_t n_;
    iter_ptr it_ = new_iter();
    uint64_t base_ = 0;
    size_t len_ = 0;
    const unsigned char *vals_ = nullptr;
};

// Answers "first position whose key is >= p (upper: > p)" over an ascending
// column, for a stream of probes: galloping from the previous answer in the
// tile in hand, on over the next two tiles, otherwise one value search from
// the root.
template <class P> class key_cursor {
  public:
    key_cursor(const P &p, const column &keys, uint64_t n) : p_(p), keys_(keys), cur_(p, keys, n) {
        if (n > 0)
            velseq::detail::check(p.last(cur_.obj(), keys.field, last_.data()),
                                  "asof: reading the last key");
    }

    uint64_t size() const { return cur_.size(); }
    const unsigned char *last_key() const { return last_.data(); }

    uint64_t bound(const unsigned char *p, bool upper) {
        // Ascending probes mostly land a few keys past the previous answer,
        // in the tile in hand: the key before the hint fails and the tile's
        // last qualifies.
        const size_t h = hint_, len = cur_.len();
        if (h > 0 && h < len && !qualifies(cur_.value(h - 1), p, upper) &&
            qualifies(cur_.value(len - 1), p, upper)) {
            hint_ = search_tile(p, upper);
            far_ = false;
            return cur_.base() + hint_;
        }
        return bound_beyond(p, upper);
    }

    // The key at `pos`: from the tile in hand, the key before it, or a read.
    // Valid until the next call.
    const unsigned char *key(uint64_t pos) {
        if (cur_.holds(pos))
            return cur_.value(pos - cur_.base());
        if (prev_known_ && pos + 1 == cur_.base())
            return prev_.data();
        read_key(pos, scratch_.data());
        return scratch_.data();
    }

  private:
    // bound() for an answer elsewhere than past the hint in the tile in hand.
    uint64_t bound_beyond(const unsigned char *p, bool upper) {
        const uint64_t n = cur_.size();
        if (n == 0 || !qualifies(last_.data(), p, upper))
            return n;
        // After a probe that needed a search the next one likely does too:
        // hopping over tiles first would only add their fetches.
        for (int hops = far_ ? 2 : 0; cur_.len() > 0; hops++) {
            const size_t len = cur_.len();
            if (!qualifies(cur_.value(len - 1), p, upper)) {
                // The answer lies beyond this tile (and so before the end).
                if (hops >= 2)
                    break;
                std::memcpy(prev_.data(), cur_.value(len - 1), p_.width());
                prev_known_ = true;
                seek_valid_ = false; // the search said nothing about the next tile's start
                if (!cur_.next())
                    break;
                hint_ = 0;
                continue;
            }
            const size_t i = search_tile(p, upper);
            if (i == 0 && cur_.base() > 0 && !prev_fails(p, upper)) {
                if (!prev_known_) {
                    read_key(cur_.base() - 1, prev_.data());
                    prev_known_ = true;
                }
                if (qualifies(prev_.data(), p, upper))
                    break; // the answer lies before this tile
            }
            hint_ = i;
            far_ = false;
            return cur_.base() + i;
        }
        far_ = true;
        return seek(p, upper);
    }

    bool qualifies(const unsigned char *v, const unsigned char *p, bool upper) const {
        return upper ? p_.before(p, v) : !p_.before(v, p);
    }

    // Whether the key before the tile is known not to qualify for (p, upper),
    // from the search that placed the tile: it did not qualify for (p0,
    // upper0), so it is below p0 (or at most p0 when upper0).
    bool prev_fails(const unsigned char *p, bool upper) const {
        return seek_valid_ &&
               (p_.before(p0_.data(), p) || (!p_.before(p, p0_.data()) && (upper || !upper0_)));
    }

    // The first key of the tile in hand that qualifies (one is known to):
    // a look at the few keys from the previous answer, galloping on from
    // there, then halving.
    size_t search_tile(const unsigned char *p, bool upper) const {
        const size_t len = cur_.len();
        size_t lo = 0, hi = len;
        const size_t h = std::min(hint_, len);
        if (h > 0 && qualifies(cur_.value(h - 1), p, upper)) {
            hi = h - 1;
        } else {
            // Dense probes move a step or two.
            for (size_t k = h; k < len && k < h + 4; k++)
                if (qualifies(cur_.value(k), p, upper))
                    return k;
            lo = std::min(len, h + 4);
            size_t step = 1;
            while (lo + step < len && !qualifies(cur_.value(lo + step), p, upper)) {
                lo += step + 1;
                step *= 2;
            }
            hi = std::min(len, lo + step);
        }
        while (lo < hi) {
            const size_t m = lo + (hi - lo) / 2;
            if (qualifies(cur_.value(m), p, upper))
                hi = m;
            else
                lo = m + 1;
        }
        return lo;
    }

    // One descent: the search leaves the tile in hand starting at the answer.
    uint64_t seek(const unsigned char *p, bool upper) {
        hint_ = 0;
        prev_known_ = false;
        const uint64_t at =
            cur_.search(p, upper ? VEL_SEQ_BOUNDARY_EXCLUSIVE : VEL_SEQ_BOUNDARY_INCLUSIVE);
        seek_valid_ = cur_.len() > 0;
        std::memcpy(p0_.data(), p, p_.width());
        upper0_ = upper;
        return at;
    }

    // One key by a descent of an iterator of its own, kept for the next.
    void read_key(uint64_t pos, unsigned char *dst) {
        if (!one_)
            one_ = new_iter();
        velseq::detail::check(p_.subseq(cur_.obj(), keys_.field, one_.get(), pos, pos),
                              "asof: reading a key");
        velseq::detail::check(one_->next(one_.get()), "asof: reading a key");
        std::memcpy(dst, one_->tile.u.arr_char, p_.width());
    }

    P p_;
    const column &keys_;
    tile_cursor<P> cur_;
    held_key last_{}; // the last key: probes beyond it need no search
    held_key prev_{}; // the key before the tile in hand, when prev_known_
    held_key p0_{};   // the probe of the last search, for prev_fails
    held_key scratch_{};
    iter_ptr one_;
    size_t hint_ = 0;
    bool prev_known_ = false;
    bool upper0_ = false;
    bool seek_valid_ = false;
    bool far_ = false; // the last probe was answered by a search
};

// b - a for keys of a number or datetime type, a <= b by the key order:
// exact as an unsigned difference for integers and datetimes (wrapping
// around), as a long double for floats.
template <class P> auto distance(const P &p, const unsigned char *a, const unsigned char *b) {
    using T = typename P::value;
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<long double>(p.at(b, 0)) - static_cast<long double>(p.at(a, 0));
    else if constexpr (std::is_integral_v<T>)
        return static_cast<uint64_t>(p.at(b, 0)) - static_cast<uint64_t>(p.at(a, 0));
    else
        return (void)p, (void)a, (void)b, uint64_t(0); // char(N): no distance
}

inline bool valid_at(const uint8_t *validity, uint64_t i) {
    return validity == nullptr || ((validity[i / 8] >> (i % 8)) & 1);
}

// An unsigned key whose order is T's order (NaN excluded): integers with
// the sign bit flipped, floats by their bits, negatives inverted.
template <class T> uint64_t ordered_bits(T v) {
    if constexpr (std::is_floating_point_v<T>) {
        uint64_t b;
        if constexpr (sizeof(T) == 4) {
            uint32_t u;
            std::memcpy(&u, &v, 4);
            b = uint64_t(u) << 32;
        } else {
            std::memcpy(&b, &v, 8);
        }
        return b >> 63 ? ~b : b | uint64_t(1) << 63;
    } else if constexpr (std::is_signed_v<T>) {
        return static_cast<uint64_t>(static_cast<int64_t>(v)) ^ uint64_t(1) << 63;
    } else {
        return static_cast<uint64_t>(v);
    }
}

// The T of ordered_bits(v).
template <class T> T from_ordered_bits(uint64_t b) {
    if constexpr (std::is_floating_point_v<T>) {
        b = b >> 63 ? b & ~(uint64_t(1) << 63) : ~b;
        T v;
        if constexpr (sizeof(T) == 4) {
            const auto u = static_cast<uint32_t>(b >> 32);
            std::memcpy(&v, &u, 4);
        } else {
            std::memcpy(&v, &b, 8);
        }
        return v;
    } else if constexpr (std::is_signed_v<T>) {
        return static_cast<T>(static_cast<int64_t>(b ^ uint64_t(1) << 63));
    } else {
        return static_cast<T>(b);
    }
}

// Sorts (key, row) pairs by key, stably: least significant digit first,
// 11 bits a pass, skipping the digits every key shares (times of one span
// differ in their low 40-odd bits only).  Small inputs go to std::sort.
inline void sort_by_key(std::vector<std::pair<uint64_t, uint64_t>> &v) {
    if (v.size() < (1u << 14)) {
        std::stable_sort(v.begin(), v.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        return;
    }
    constexpr int kBits = 11, kPasses = (64 + kBits - 1) / kBits;
    constexpr size_t kDigits = size_t(1) << kBits;
    std::vector<std::array<uint64_t, kDigits>> count(kPasses);
    for (const auto &e : v)
        for (int d = 0; d < kPasses; d++)
            count[d][(e.first >> (d * kBits)) & (kDigits - 1)]++;
    std::vector<std::pair<uint64_t, uint64_t>> tmp(v.size());
    for (int d = 0; d < kPasses; d++) {
        auto &c = count[d];
        if (*std::max_element(c.begin(), c.end()) == v.size())
            continue; // one digit for all
        uint64_t at = 0;
        for (uint64_t &x : c)
            at += std::exchange(x, at);
        for (const auto &e : v)
            tmp[c[(e.first >> (d * kBits)) & (kDigits - 1)]++] = e;
        v.swap(tmp);
    }
}

// Probes farther apart than this many keys on average are looked up by the
// module's join (a descent each, which the module overlaps with the next)
// rather than by the merge, which fetches tiles the probes skip over.
// Measured (bench/asof_bench.cpp, 10^7 keys): the join costs about 100 ns a
// probe at any distance; the merge 30 ns at 10 keys apart, 55 at 30, 140 at
// 100 and 630 at 1000.
constexpr uint64_t kJoinGap = 64;
// Ascending probes fewer than this many keys apart, over the keys they span,
// walk the key leaves instead (merge_leaves): measured at 10^6 keys, 30 ns a
// probe at 30 keys apart, 41 at 100, and 90 at 1000 (where the join takes
// 70).
constexpr uint64_t kLeafGap = 512;

// The least T above v; nullopt for the greatest T.
template <class T> std::optional<T> successor(T v) {
    if constexpr (std::is_floating_point_v<T>) {
        if (v == std::numeric_limits<T>::infinity())
            return std::nullopt;
        return std::nextafter(v, std::numeric_limits<T>::infinity());
    } else {
        if (v == std::numeric_limits<T>::max())
            return std::nullopt;
        return static_cast<T>(v + 1);
    }
}

// Calls f(j, value, null) for the values of `c` at wanted[0..], in that
// order, read by the module's map: single values copied out of the leaf in
// hand, one descent per leaf.
template <class P, class F>
void map_values(const P &p, const column &c, const std::vector<uint64_t> &wanted, const char *what,
                F &&f) {
    velseq::detail::array_source src{reinterpret_cast<const unsigned char *>(wanted.data()),
                                     wanted.size(), 0, 8};
    vel_seq_iterator_t pos{};
    velseq::detail::make_array_source(pos, src, VEL_DD_UINT8);
    iter_ptr it = new_iter();
    vel_objhandle_t obj = c.obj;
    velseq::detail::check(p.map(&obj, c.field, it.get(), &pos), what);
    size_t j = 0;
    for (VEL_RET rc; (rc = it->next(it.get())) != VEL_S_CURSOR_END;) {
        velseq::detail::check(rc, what);
        const auto *v = reinterpret_cast<const unsigned char *>(it->tile.u.arr_char);
        for (size_t k = 0; k < it->tile_size; k++)
            f(j++, v + k * p.width(), null_at(it->tile.null_bitmap, k));
    }
}

// Backward and forward matches of scalar probes by the module's join: the
// first key >= the probe (> it: >= its successor), probes past the last key
// answered without a lookup (the join refuses them); with a tolerance, the
// matched keys read back by the module's map.
template <class P>
void match_by_join(const P &p, const column &keys, uint64_t n, const unsigned char *pv,
                   const std::vector<uint64_t> &rows, const unsigned char *last,
                   const asof_options &opt, uint64_t *positions, uint8_t *validity) {
    using T = typename P::value;
    const bool upper = (opt.dir == direction::backward) != opt.strict;
    const T top = p.at(last, 0);
    std::vector<T> looked;
    std::vector<uint64_t> looked_rows, found(rows.size(), n);
    looked.reserve(rows.size());
    looked_rows.reserve(rows.size());
    for (size_t j = 0; j < rows.size(); j++) {
        const std::optional<T> v = upper ? successor(p.at(pv, rows[j])) : p.at(pv, rows[j]);
        if (v && !(top < *v)) {
            looked.push_back(*v);
            looked_rows.push_back(j);
        }
    }
    vel_objhandle_t obj = keys.obj;
    if (!looked.empty()) {
        velseq::detail::array_source src{reinterpret_cast<const unsigned char *>(looked.data()),
                                         looked.size(), 0, sizeof(T)};
        vel_seq_iterator_t with{};
        velseq::detail::make_array_source(with, src, 0);
        iter_ptr it = new_iter();
        velseq::detail::check(p.join(&obj, keys.field, it.get(), &with), "asof: joining");
        size_t k = 0;
        for (VEL_RET rc; (rc = it->next(it.get())) != VEL_S_CURSOR_END;) {
            velseq::detail::check(rc, "asof: joining");
            for (size_t i = 0; i < it->tile_size; i++)
                found[looked_rows[k++]] = it->tile.u.arr_uint8[i];
        }
    }
    // The matches, then (with a tolerance) their keys.
    std::vector<uint64_t> picks, pick_rows;
    for (size_t j = 0; j < rows.size(); j++) {
        const uint64_t f = found[j];
        if (opt.dir == direction::backward ? f == 0 : f == n)
            continue;
        picks.push_back(opt.dir == direction::backward ? f - 1 : f);
        pick_rows.push_back(rows[j]);
    }
    std::vector<T> at(picks.size());
    if (opt.tolerance && !picks.empty())
        map_values(p, keys, picks, "asof: reading keys",
                   [&](size_t j, const unsigned char *v, bool) { at[j] = p.at(v, 0); });
    for (size_t j = 0; j < picks.size(); j++) {
        const uint64_t row = pick_rows[j];
        if (opt.tolerance) {
            const unsigned char *k = reinterpret_cast<const unsigned char *>(&at[j]);
            const unsigned char *v = pv + row * sizeof(T);
            const auto d = p.before(k, v) ? distance(p, k, v) : distance(p, v, k);
            if (static_cast<long double>(d) > *opt.tolerance)
                continue;
        }
        positions[row] = picks[j];
        validity[row / 8] = static_cast<uint8_t>(validity[row / 8] | 1u << (row % 8));
    }
}

// Sets validity bits 0..count-1 (the bits after them stay).
inline void mark_rows_valid(uint8_t *validity, uint64_t count) {
    std::memset(validity, 0xFF, count / 8);
    if (count % 8 != 0)
        validity[count / 8] = static_cast<uint8_t>(validity[count / 8] | ((1u << (count % 8)) - 1));
}

// Probes closer together than this many keys on average are answered by
// merge_dense, which reads every key between the first and the last probe.
constexpr uint64_t kDenseGap = 8;

// Backward and forward matches of `count` probes in value order by one
// two-pointer merge with the key tiles: each key from the first probe's
// bound on is compared in place, and one search places the first probe.
// probe(q, row, v) gives the q-th probe's row and value; false skips it.
// With Fill, every row gets its position written (kNone when nothing
// matches), so that the caller need not clear them first.
template <bool Fill, class P, class Probe>
void merge_dense(const P &p, const column &keys, uint64_t n, uint64_t count, Probe probe,
                 const asof_options &opt, uint64_t *positions, uint8_t *validity) {
    using T = typename P::value;
    const bool back = opt.dir == direction::backward;
    const bool upper = back != opt.strict; // the bound: first key > v (upper) or >= v
    auto beyond = [&](T k, T v) { return upper ? v < k : !(k < v); }; // k is at or past the bound
    uint64_t q = 0, row = 0;
    T v{};
    // With Fill the rows are 0..count-1 and start out valid; a miss clears
    // its bit (one store per miss, not one read-modify-write per row).
    if constexpr (Fill)
        mark_rows_valid(validity, count);
    while (q < count && !probe(q, row, v))
        q++;
    if (q == count)
        return;
    // The walk starts a key before the first bound: the key before any
    // bound is then in the tile in hand or held in `prev`.
    tile_cursor<P> cur(p, keys, n);
    const uint64_t first =
        cur.search(reinterpret_cast<const unsigned char *>(&v),
                   upper ? VEL_SEQ_BOUNDARY_EXCLUSIVE : VEL_SEQ_BOUNDARY_INCLUSIVE);
    if (first > 0)
        cur.reach(first - 1);
    T prev{};
    auto miss = [&] {
        if constexpr (Fill) {
            positions[row] = kNone;
            validity[row / 8] = static_cast<uint8_t>(validity[row / 8] & ~(1u << (row % 8)));
        }
    };
    auto answer = [&](uint64_t pick, T k) {
        if (opt.tolerance) {
            const auto *a = reinterpret_cast<const unsigned char *>(k < v ? &k : &v);
            const auto *b = reinterpret_cast<const unsigned char *>(k < v ? &v : &k);
            if (static_cast<long double>(distance(p, a, b)) > *opt.tolerance)
                return miss();
        }
        positions[row] = pick;
        if constexpr (!Fill) // with Fill the row's bit is set already
            validity[row / 8] = static_cast<uint8_t>(validity[row / 8] | 1u << (row % 8));
    };
    // Invariant: probe q (row, v) is live and not yet answered.
    while (cur.len() > 0) {
        const unsigned char *k = cur.value(0);
        const size_t len = cur.len();
        const uint64_t base = cur.base();
        const T last = p.at(k, len - 1);
        size_t j = 0;
        while (beyond(last, v)) {
            while (!beyond(p.at(k, j), v))
                j++;
            if (!back)
                answer(base + j, p.at(k, j));
            else if (base + j > 0)
                answer(base + j - 1, j > 0 ? p.at(k, j - 1) : prev);
            else
                miss();
            do
                if (++q == count)
                    return;
            while (!probe(q, row, v));
        }
        prev = last; // the bound lies past this tile
        cur.next();
    }
    // The rest lie past the last key (`prev`); probe q is live.
    for (bool live = true; q < count; live = ++q < count && probe(q, row, v))
        if (live && back)
            answer(n - 1, prev);
        else if (live)
            miss();
}

// merge_dense<true> for the common case, ascending probes without nulls or
// NaN and no tolerance, with the bound's kind fixed at compile time: a
// probe costs two compares and a store.  The rows are 0..count-1; every row
// starts valid and a miss clears its bit.
template <bool Back, bool Upper, class P>
void merge_ascending(const P &p, const column &keys, uint64_t n, const unsigned char *pv,
                     uint64_t count, uint64_t *positions, uint8_t *validity) {
    using T = typename P::value;
    auto beyond = [](T k, T v) { return Upper ? v < k : !(k < v); }; // k is at or past the bound
    mark_rows_valid(validity, count);
    auto miss = [&](uint64_t q) {
        positions[q] = kNone;
        validity[q / 8] = static_cast<uint8_t>(validity[q / 8] & ~(1u << (q % 8)));
    };
    tile_cursor<P> cur(p, keys, n);
    const uint64_t first =
        cur.search(pv, Upper ? VEL_SEQ_BOUNDARY_EXCLUSIVE : VEL_SEQ_BOUNDARY_INCLUSIVE);
    if (first > 0)
        cur.reach(first - 1);
    uint64_t q = 0;
    while (cur.len() > 0 && q < count) {
        const auto *k = reinterpret_cast<const T *>(cur.value(0));
        const size_t len = cur.len();
        const uint64_t base = cur.base();
        const T last = k[len - 1];
        size_t j = 0;
        for (; q < count && beyond(last, p.at(pv, q)); q++) {
            const T v = p.at(pv, q);
            while (!beyond(k[j], v))
                j++;
            if (!Back)
                positions[q] = base + j;
            else if (base + j > 0)
                positions[q] = base + j - 1;
            else
                miss(q);
        }
        cur.next();
    }
    for (; q < count; q++) // past the last key
        if (Back)
            positions[q] = n - 1;
        else
            miss(q);
}

// Ascending probes some keys apart, without tolerance (backward or
// forward): the key leaves from the first probe's bound on are read in
// place, and each probe's bound is galloped to from the one before it in
// the same leaf.  Where the merge copies every key into tiles and the join
// descends from the root for each probe, a probe here costs a few compares
// in a leaf already in cache.  Rows not answered keep what they hold.
template <bool Back, bool Upper, class P>
void merge_leaves(const P &p, const column &keys, uint64_t n, const const_buffer &probes,
                  uint64_t *positions, uint8_t *validity) {
    using T = typename P::value;
    auto beyond = [](T k, T v) { return Upper ? v < k : !(k < v); }; // k is at or past the bound
    const auto *pv = static_cast<const unsigned char *>(probes.values);
    auto live = [&](uint64_t i) { return valid_at(probes.validity, i) && !p.is_nan(p.at(pv, i)); };
    auto set = [&](uint64_t q, uint64_t pos) {
        positions[q] = pos;
        validity[q / 8] = static_cast<uint8_t>(validity[q / 8] | 1u << (q % 8));
    };
    uint64_t q = 0;
    while (q < probes.length && !live(q))
        q++;
    if (q == probes.length)
        return;
    T v = p.at(pv, q);
    uint64_t first = 0;
    {
        tile_cursor<P> cur(p, keys, n);
        first = cur.search(pv + q * p.width(),
                           Upper ? VEL_SEQ_BOUNDARY_EXCLUSIVE : VEL_SEQ_BOUNDARY_INCLUSIVE);
    }
    auto advance = [&] {
        do
            q++;
        while (q < probes.length && !live(q));
        if (q < probes.length)
            v = p.at(pv, q);
        return q < probes.length;
    };
    if (first < n)
        visit_leaves(keys, first, n, [&](const leaf_run &r) {
            const T *k = static_cast<const T *>(r.values);
            const size_t len = r.length;
            if (!beyond(k[len - 1], v))
                return true; // every bound lies past this leaf
            size_t j = 0;
            do {
                // Gallop from j to a key at or past the bound, then halve.
                size_t lo = j, hi = j, step = 1;
                while (!beyond(k[hi], v)) {
                    lo = hi + 1;
                    hi = std::min(len - 1, hi + step);
                    step *= 2;
                }
                while (lo < hi) {
                    const size_t mid = lo + (hi - lo) / 2;
                    if (beyond(k[mid], v))
                        hi = mid;
                    else
                        lo = mid + 1;
                }
                j = lo;
                const uint64_t bound = r.first + j;
                if (!Back)
                    set(q, bound);
                else if (bound > 0)
                    set(q, bound - 1);
                if (!advance())
                    return false;
            } while (beyond(k[len - 1], v));
            return true;
        });
    if (Back) // the rest lie past the last key
        for (; q < probes.length; q++)
            if (live(q))
                set(q, n - 1);
}

// Answers every probe into positions/validity.  Probes that do not ascend
// are answered in value order, which is left in `order` (their answers
// ascend along it); `order` stays empty when the probes ascend.
template <class P>
void match(const P &p, const column &keys, uint64_t n, const const_buffer &probes,
           const asof_options &opt, uint64_t *positions, uint8_t *validity,
           std::vector<uint64_t> &order) {
    const size_t w = p.width();
    const auto *pv = static_cast<const unsigned char *>(probes.values);
    key_cursor<P> cur(p, keys, n);
    // The answer to the probe of `row`, for the direction D.
    auto answer = [&](uint64_t row, auto dir) {
        constexpr direction D = decltype(dir)::value;
        const unsigned char *v = pv + row * w;
        // back: the last candidate before (or at) v; fwd: the first after (or at) it.
        uint64_t b = 0, f = n;
        if constexpr (D == direction::nearest) {
            // lb: the first key >= v, ub: the first > v; they differ only
            // when v is a key, and only then is the second bound sought.
            const uint64_t lb = cur.bound(v, false);
            const uint64_t ub = lb < n && !p.before(v, cur.key(lb)) ? cur.bound(v, true) : lb;
            b = opt.strict ? lb : ub;
            f = opt.strict ? ub : lb;
        } else if constexpr (D == direction::backward) {
            b = cur.bound(v, !opt.strict);
        } else {
            f = cur.bound(v, opt.strict);
        }
        const uint64_t back = b > 0 ? b - 1 : kNone, fwd = f < n ? f : kNone;
        uint64_t pick = back != kNone ? back : fwd;
        if (back != kNone && fwd != kNone) {
            const auto ahead = distance(p, v, cur.key(fwd));
            if (ahead < distance(p, cur.key(back), v))
                pick = fwd;
        }
        if (pick != kNone && opt.tolerance) {
            const unsigned char *k = cur.key(pick);
            const auto d = p.before(k, v) ? distance(p, k, v) : distance(p, v, k);
            if (static_cast<long double>(d) > *opt.tolerance)
                pick = kNone;
        }
        if (pick == kNone)
            return;
        positions[row] = pick;
        validity[row / 8] = static_cast<uint8_t>(validity[row / 8] | 1u << (row % 8));
    };
    // The probes that can match (neither null nor NaN): answered in row order
    // when they ascend, otherwise in value order.
    auto live = [&](uint64_t i) { return valid_at(probes.validity, i) && !p.is_nan(p.at(pv, i)); };
    bool ascending = true;
    uint64_t live_n = 0;                       // of the rows that ascend
    uint64_t first_live = kNone, last = kNone; // the rows of the least and greatest
    for (uint64_t i = 0; i < probes.length && ascending; i++)
        if (live(i)) {
            ascending = last == kNone || !p.before(pv + i * w, pv + last * w);
            first_live = first_live == kNone ? i : first_live;
            last = i;
            live_n++;
        }
    std::vector<uint64_t> &rows = order;
    std::vector<std::pair<uint64_t, uint64_t>> by_value; // (ordered_bits, row), when !ascending
    if (!ascending) {
        using T = typename P::value;
        if constexpr (std::is_arithmetic_v<T>) {
            by_value.reserve(probes.length);
            for (uint64_t i = 0; i < probes.length; i++)
                if (live(i))
                    by_value.emplace_back(ordered_bits(p.at(pv, i)), i);
            sort_by_key(by_value);
            rows.reserve(by_value.size());
            for (const auto &[v, row] : by_value)
                rows.push_back(row);
        } else {
            for (uint64_t i = 0; i < probes.length; i++)
                if (live(i))
                    rows.push_back(i);
            std::stable_sort(rows.begin(), rows.end(), [&](uint64_t a, uint64_t b) {
                return p.before(pv + a * w, pv + b * w);
            });
        }
    }
    if (!ascending)
        live_n = rows.size();
    // Dense: few keys on average between neighbouring probes, over the keys
    // the probes span, which two searches count when the keys are many (a
    // batch of a long ascending run of probes spans few of them).
    bool dense = live_n > 0 && n / live_n < kDenseGap;
    uint64_t spanned = n; // keys between the least and the greatest probe
    if constexpr (std::is_arithmetic_v<typename P::value>) {
        using T = typename P::value;
        if (!dense && live_n >= 64 && opt.dir != direction::nearest) {
            T lo, hi;
            if (ascending) {
                lo = p.at(pv, first_live);
                hi = p.at(pv, last);
            } else {
                lo = from_ordered_bits<T>(by_value.front().first);
                hi = from_ordered_bits<T>(by_value.back().first);
            }
            tile_cursor<P> c(p, keys, n);
            const uint64_t a =
                c.search(reinterpret_cast<const unsigned char *>(&lo), VEL_SEQ_BOUNDARY_INCLUSIVE);
            const uint64_t b =
                c.search(reinterpret_cast<const unsigned char *>(&hi), VEL_SEQ_BOUNDARY_EXCLUSIVE);
            spanned = b - a;
            dense = spanned / live_n < kDenseGap;
        }
    }
    // The merge of dense ascending probes writes every position itself.
    if (!(std::is_arithmetic_v<typename P::value> && opt.dir != direction::nearest && ascending &&
          dense))
        std::fill(positions, positions + probes.length, kNone);
    if constexpr (std::is_arithmetic_v<typename P::value>) {
        if (opt.dir != direction::nearest) {
            using T = typename P::value;
            if (dense) {
                const bool plain =
                    probes.validity == nullptr && !opt.tolerance && !std::is_floating_point_v<T>;
                const bool upper = (opt.dir == direction::backward) != opt.strict;
                if (ascending && plain) {
                    if (opt.dir == direction::backward)
                        upper ? merge_ascending<true, true>(p, keys, n, pv, probes.length,
                                                            positions, validity)
                              : merge_ascending<true, false>(p, keys, n, pv, probes.length,
                                                             positions, validity);
                    else
                        upper ? merge_ascending<false, true>(p, keys, n, pv, probes.length,
                                                             positions, validity)
                              : merge_ascending<false, false>(p, keys, n, pv, probes.length,
                                                              positions, validity);
                } else if (ascending)
                    merge_dense<true>(
                        p, keys, n, probes.length,
                        [&](uint64_t q, uint64_t &row, T &v) {
                            row = q;
                            v = p.at(pv, q);
                            if (valid_at(probes.validity, q) && !p.is_nan(v))
                                return true;
                            positions[q] = kNone;
                            validity[q / 8] =
                                static_cast<uint8_t>(validity[q / 8] & ~(1u << (q % 8)));
                            return false;
                        },
                        opt, positions, validity);
                else // the sorted values: no probe is read at random
                    merge_dense<false>(
                        p, keys, n, by_value.size(),
                        [&](uint64_t q, uint64_t &row, T &v) {
                            row = by_value[q].second;
                            v = from_ordered_bits<T>(by_value[q].first);
                            return true;
                        },
                        opt, positions, validity);
                return;
            }
            if (ascending && !opt.tolerance && live_n > 0 && spanned / live_n < kLeafGap) {
                const bool upper = (opt.dir == direction::backward) != opt.strict;
                if (opt.dir == direction::backward)
                    upper ? merge_leaves<true, true>(p, keys, n, probes, positions, validity)
                          : merge_leaves<true, false>(p, keys, n, probes, positions, validity);
                else
                    upper ? merge_leaves<false, true>(p, keys, n, probes, positions, validity)
                          : merge_leaves<false, false>(p, keys, n, probes, positions, validity);
                return;
            }
            if (live_n > 0 && n / live_n >= kJoinGap) {
                if (ascending)
                    for (uint64_t i = 0; i < probes.length; i++)
                        if (live(i))
                            rows.push_back(i);
                match_by_join(p, keys, n, pv, rows, cur.last_key(), opt, positions, validity);
                if (ascending)
                    rows.clear(); // answers in row order: no order to hand on
                return;
            }
        }
    }
    auto all = [&](auto dir) {
        if (!ascending)
            for (uint64_t row : rows)
                answer(row, dir);
        else
            for (uint64_t i = 0; i < probes.length; i++)
                if (live(i))
                    answer(i, dir);
    };
    using dir = direction;
    switch (opt.dir) {
    case dir::backward:
        return all(std::integral_constant<dir, dir::backward>{});
    case dir::forward:
        return all(std::integral_constant<dir, dir::forward>{});
    case dir::nearest:
        return all(std::integral_constant<dir, dir::nearest>{});
    }
}

} // namespace
} // namespace detail

namespace detail {
namespace {

// asof() leaving the order of its answers in `order` (see match).
void asof_ordered(const column &keys, const const_buffer &probes, const asof_options &opt,
                  uint64_t *positions, uint8_t *validity, std::vector<uint64_t> &order) {
    if (!(probes.type == keys.type))
        throw error(VEL_E_ILLEGAL_TYPE, "asof: " + type_name(probes.type) + " probes where " +
                                            type_name(keys.type) + " are due");
    if (keys.field.order != VEL_SEQ_ASC_ORDER)
        throw error(VEL_E_ILLEGAL_PARAM, "asof needs an ascending key column");
    const bool by_distance = opt.dir == direction::nearest || opt.tolerance;
    if (by_distance && keys.type.code == VEL_DD_SEQUENCE_CHAR)
        throw error(VEL_E_ILLEGAL_TYPE, "asof: char keys have no distance (nearest, tolerance)");
    if (opt.tolerance && !(*opt.tolerance >= 0))
        throw error(VEL_E_ILLEGAL_PARAM, "asof: the tolerance must be a number >= 0");
    std::fill(validity, validity + (probes.length + 7) / 8, uint8_t(0));
    const uint64_t n = count_of(keys);
    if (n == 0 || probes.length == 0)
        return std::fill(positions, positions + probes.length, kNone);
    visit(keys.type,
          [&](const auto &p) { match(p, keys, n, probes, opt, positions, validity, order); });
}

} // namespace
} // namespace detail

void asof(const column &keys, const const_buffer &probes, const asof_options &opt,
          uint64_t *positions, uint8_t *validity) {
    std::vector<uint64_t> order;
    detail::asof_ordered(keys, probes, opt, positions, validity, order);
}

void asof_join_by(const std::vector<asof_group> &groups, const uint32_t *group_of,
                  const const_buffer &probes, const asof_options &opt, uint64_t *positions,
                  uint8_t *validity, const buffer *out, size_t ncols) {
    for (const asof_group &g : groups) {
        if (g.cols.size() != ncols)
            throw error(VEL_E_ILLEGAL_PARAM, "asof by groups: a group gathers " +
                                                 std::to_string(g.cols.size()) + " columns, not " +
                                                 std::to_string(ncols));
        for (size_t c = 0; c < ncols; c++)
            if (!(g.cols[c].type == out[c].type))
                throw error(VEL_E_ILLEGAL_TYPE, "asof by groups: a group's column is " +
                                                    type_name(g.cols[c].type) + ", not " +
                                                    type_name(out[c].type));
    }
    const uint64_t n = probes.length;
    for (uint64_t i = 0; i < n; i++)
        if (group_of[i] != kNoGroup && group_of[i] >= groups.size())
            throw error(VEL_E_ILLEGAL_PARAM, "asof by groups: probe " + std::to_string(i) +
                                                 " names group " + std::to_string(group_of[i]) +
                                                 " of " + std::to_string(groups.size()));
    std::fill(positions, positions + n, detail::kNone);
    std::fill(validity, validity + (n + 7) / 8, uint8_t(0));
    for (size_t c = 0; c < ncols; c++) {
        std::memset(out[c].values, 0, n * out[c].type.width);
        std::memset(out[c].validity, 0, (n + 7) / 8);
    }
    // The rows of each group, in row order (a counting sort).
    std::vector<uint64_t> start(groups.size() + 1, 0), rows;
    for (uint64_t i = 0; i < n; i++)
        if (group_of[i] != kNoGroup)
            start[group_of[i] + 1]++;
    for (size_t g = 0; g < groups.size(); g++)
        start[g + 1] += start[g];
    rows.resize(start.back());
    {
        std::vector<uint64_t> at(start.begin(), start.end() - 1);
        for (uint64_t i = 0; i < n; i++)
            if (group_of[i] != kNoGroup)
                rows[at[group_of[i]]++] = i;
    }
    // Each group's probes joined on their own, the answers put back in
    // their rows.
    const size_t w = probes.type.width;
    const auto *pv = static_cast<const unsigned char *>(probes.values);
    for (size_t g = 0; g < groups.size(); g++) {
        const uint64_t m = start[g + 1] - start[g];
        if (m == 0)
            continue;
        const uint64_t *r = rows.data() + start[g];
        std::vector<unsigned char> pvals(m * w);
        std::vector<uint8_t> pvalid;
        if (probes.validity)
            pvalid.assign((m + 7) / 8, 0);
        for (uint64_t j = 0; j < m; j++) {
            std::memcpy(pvals.data() + j * w, pv + r[j] * w, w);
            if (probes.validity && detail::valid_at(probes.validity, r[j]))
                pvalid[j / 8] = static_cast<uint8_t>(pvalid[j / 8] | 1u << (j % 8));
        }
        std::vector<uint64_t> gpos(m);
        std::vector<uint8_t> gvalid((m + 7) / 8);
        std::vector<std::vector<unsigned char>> gvals(ncols);
        std::vector<std::vector<uint8_t>> gvalids(ncols, std::vector<uint8_t>((m + 7) / 8));
        std::vector<buffer> gout(ncols);
        for (size_t c = 0; c < ncols; c++) {
            gvals[c].resize(m * out[c].type.width);
            gout[c] = {out[c].type, m, gvals[c].data(), gvalids[c].data()};
        }
        asof_join(groups[g].keys,
                  {probes.type, m, pvals.data(), probes.validity ? pvalid.data() : nullptr}, opt,
                  gpos.data(), gvalid.data(), groups[g].cols.data(), gout.data(), ncols);
        for (uint64_t j = 0; j < m; j++) {
            if (!detail::valid_at(gvalid.data(), j))
                continue;
            const uint64_t row = r[j];
            positions[row] = gpos[j];
            validity[row / 8] = static_cast<uint8_t>(validity[row / 8] | 1u << (row % 8));
            for (size_t c = 0; c < ncols; c++) {
                const size_t cw = out[c].type.width;
                std::memcpy(static_cast<unsigned char *>(out[c].values) + row * cw,
                            gvals[c].data() + j * cw, cw);
                if (detail::valid_at(gvalids[c].data(), j))
                    out[c].validity[row / 8] =
                        static_cast<uint8_t>(out[c].validity[row / 8] | 1u << (row % 8));
            }
        }
    }
}

array asof(const column &keys, const array &probes, const asof_options &opt) {
    detail::require(probes, keys.type, "asof");
    array out;
    out.type = detail::kPositions;
    out.length = probes.length;
    out.values.resize(out.length * 8);
    out.validity.resize((out.length + 7) / 8);
    asof(keys, view(probes), opt, reinterpret_cast<uint64_t *>(out.values.data()),
         out.validity.data());
    return out;
}

namespace detail {
namespace {

// out's validity bit i.
inline void set_valid(const buffer &out, uint64_t i, bool v) {
    uint8_t &b = out.validity[i / 8];
    b = static_cast<uint8_t>(v ? b | 1u << (i % 8) : b & ~(1u << (i % 8)));
}

// Calls f(row) for the rows with a position, in ascending order of their
// positions: `order` when the positions do not ascend, else row order.
template <class F>
void in_position_order(const const_buffer &positions, const std::vector<uint64_t> &order, F &&f) {
    if (!order.empty())
        for (uint64_t row : order)
            f(row);
    else
        for (uint64_t i = 0; i < positions.length; i++)
            if (valid_at(positions.validity, i))
                f(i);
}

// Dense positions (closer than half a tile apart on average): a column read
// through whole tiles, in position order.
template <class P>
void gather_dense(const P &p, const column &c, uint64_t n, const buffer &out,
                  const const_buffer &positions, const std::vector<uint64_t> &order) {
    const size_t w = p.width();
    const auto *pos = static_cast<const uint64_t *>(positions.values);
    auto *dst = static_cast<unsigned char *>(out.values);
    tile_cursor<P> cur(p, c, n);
    in_position_order(positions, order, [&](uint64_t row) {
        cur.reach(pos[row]);
        const size_t k = static_cast<size_t>(pos[row] - cur.base());
        std::memcpy(dst + row * w, cur.value(k), w);
        set_valid(out, row, !cur.null(k));
    });
}

// Positions that crowd their range [lo, hi] (fewer than two values of it
// per position), in any order: the range read once into a buffer, then the
// rows filled in row order, so that writes stream and reads stay within a
// buffer at most twice the output.
template <class P>
void gather_range(const P &p, const column &c, uint64_t n, const buffer &out,
                  const const_buffer &positions, uint64_t lo, uint64_t hi) {
    const size_t w = p.width();
    std::vector<unsigned char> vals((hi - lo + 1) * w);
    std::vector<uint8_t> nulls((hi - lo + 1 + 7) / 8);
    bool any_null = false;
    tile_cursor<P> cur(p, c, n);
    cur.reach(lo);
    for (;;) {
        const uint64_t base = cur.base();
        const size_t from = lo > base ? static_cast<size_t>(lo - base) : 0;
        const size_t to = static_cast<size_t>(std::min<uint64_t>(cur.len(), hi + 1 - base));
        std::memcpy(vals.data() + (base + from - lo) * w, cur.value(from), (to - from) * w);
        for (size_t k = from; k < to; k++)
            if (cur.null(k)) {
                nulls[(base + k - lo) / 8] |= static_cast<uint8_t>(1u << ((base + k - lo) % 8));
                any_null = true;
            }
        if (base + cur.len() > hi || !cur.next())
            break;
    }
    const auto *pos = static_cast<const uint64_t *>(positions.values);
    auto *dst = static_cast<unsigned char *>(out.values);
    for (uint64_t i0 = 0; i0 < positions.length; i0 += 8) {
        const uint64_t end = std::min<uint64_t>(positions.length, i0 + 8);
        if (!any_null && end == i0 + 8 &&
            (!positions.validity || positions.validity[i0 / 8] == 0xFF)) {
            for (uint64_t i = i0; i < end; i++) // eight present positions, no null value
                std::memcpy(dst + i * w, vals.data() + (pos[i] - lo) * w, w);
            out.validity[i0 / 8] = 0xFF;
            continue;
        }
        unsigned bits = 0;
        for (uint64_t i = i0; i < end; i++) {
            if (!valid_at(positions.validity, i))
                continue;
            const uint64_t k = pos[i] - lo;
            std::memcpy(dst + i * w, vals.data() + k * w, w);
            bits |= unsigned(!((nulls[k / 8] >> (k % 8)) & 1)) << (i - i0);
        }
        out.validity[i0 / 8] = static_cast<uint8_t>(bits);
    }
}

// Sparse positions: the module's map copies single values out of the leaf
// in hand and descends once per leaf.  rows[j] is the row of the j-th
// position asked.
template <class P>
void gather_sparse(const P &p, const column &c, const buffer &out,
                   const std::vector<uint64_t> &wanted, const std::vector<uint64_t> &rows) {
    auto *dst = static_cast<unsigned char *>(out.values);
    map_values(p, c, wanted, "gather", [&](size_t j, const unsigned char *v, bool null) {
        std::memcpy(dst + rows[j] * p.width(), v, p.width());
        set_valid(out, rows[j], !null);
    });
}

} // namespace
} // namespace detail

namespace detail {
namespace {

// gather() given, when the positions do not ascend, the rows with a
// position in ascending position order (`known`), or nothing to sort them
// itself.
void gather_rows(const column *cols, const buffer *out, size_t ncols, const const_buffer &positions,
                 std::vector<uint64_t> known) {
    if (!(positions.type == detail::kPositions))
        throw error(VEL_E_ILLEGAL_TYPE,
                    "gather: " + type_name(positions.type) + " values where positions are due");
    std::vector<uint64_t> n(ncols);
    for (size_t c = 0; c < ncols; c++) {
        if (!(out[c].type == cols[c].type) || out[c].length != positions.length)
            throw error(VEL_E_ILLEGAL_PARAM, "gather: an output buffer does not hold " +
                                                 std::to_string(positions.length) + " " +
                                                 type_name(cols[c].type) + " values");
        n[c] = detail::count_of(cols[c]);
    }
    const auto *pos = static_cast<const uint64_t *>(positions.values);
    const uint64_t shortest = ncols ? *std::min_element(n.begin(), n.end()) : 0;
    uint64_t lo = detail::kNone, hi = 0, found = 0, prev = 0;
    bool ascending = true;
    for (uint64_t i = 0; i < positions.length; i++) {
        if (!detail::valid_at(positions.validity, i))
            continue;
        if (pos[i] >= shortest)
            throw error(VEL_E_ILLEGAL_PARAM, "gather: position " + std::to_string(pos[i]) +
                                                 " past the end (" + std::to_string(shortest) +
                                                 ")");
        ascending = ascending && pos[i] >= prev;
        prev = pos[i];
        lo = std::min(lo, pos[i]);
        hi = std::max(hi, pos[i]);
        found++;
    }
    for (size_t c = 0; c < ncols; c++) {
        std::memset(out[c].values, 0, positions.length * cols[c].type.width);
        std::memset(out[c].validity, 0, (positions.length + 7) / 8);
    }
    if (found == 0 || ncols == 0)
        return;
    // Positions that do not ascend are read in ascending order (sorted once
    // for every column) and written to their rows.
    if (hi - lo < 2 * found) {
        for (size_t c = 0; c < ncols; c++)
            detail::visit(cols[c].type, [&](const auto &p) {
                detail::gather_range(p, cols[c], n[c], out[c], positions, lo, hi);
            });
        return;
    }
    std::vector<uint64_t> order;
    if (!ascending && known.size() == found) {
        order = std::move(known);
    } else if (!ascending) {
        std::vector<std::pair<uint64_t, uint64_t>> by_pos;
        by_pos.reserve(found);
        for (uint64_t i = 0; i < positions.length; i++)
            if (detail::valid_at(positions.validity, i))
                by_pos.emplace_back(pos[i], i);
        detail::sort_by_key(by_pos);
        order.reserve(found);
        for (const auto &[at, row] : by_pos)
            order.push_back(row);
    }
    const bool dense = (hi - lo) / found < VEL_SEQ_TILE_SIZE / 2;
    std::vector<uint64_t> wanted, rows;
    if (!dense) {
        wanted.reserve(found);
        rows.reserve(found);
        detail::in_position_order(positions, order, [&](uint64_t row) {
            wanted.push_back(pos[row]);
            rows.push_back(row);
        });
    }
    for (size_t c = 0; c < ncols; c++)
        detail::visit(cols[c].type, [&](const auto &p) {
            if (dense)
                detail::gather_dense(p, cols[c], n[c], out[c], positions, order);
            else
                detail::gather_sparse(p, cols[c], out[c], wanted, rows);
        });
}

} // namespace
} // namespace detail

void gather(const column *cols, const buffer *out, size_t ncols, const const_buffer &positions) {
    detail::gather_rows(cols, out, ncols, positions, {});
}

void asof_join(const column &keys, const const_buffer &probes, const asof_options &opt,
               uint64_t *positions, uint8_t *validity, const column *cols, const buffer *out,
               size_t ncols) {
    std::vector<uint64_t> order;
    detail::asof_ordered(keys, probes, opt, positions, validity, order);
    // Probes answered in value order leave their matches ascending along it.
    order.erase(std::remove_if(order.begin(), order.end(),
                               [&](uint64_t row) { return !detail::valid_at(validity, row); }),
                order.end());
    detail::gather_rows(cols, out, ncols, {detail::kPositions, probes.length, positions, validity},
                        std::move(order));
}

array gather(const column &c, const array &positions) {
    detail::require(positions, detail::kPositions, "gather");
    array out;
    out.type = c.type;
    out.length = positions.length;
    out.values.resize(out.length * c.type.width);
    out.validity.resize((out.length + 7) / 8);
    const buffer b{c.type, out.length, out.values.data(), out.validity.data()};
    gather(&c, &b, 1, view(positions));
    if (out.null_count() == 0)
        out.validity.clear();
    return out;
}

} // namespace velseq::table
