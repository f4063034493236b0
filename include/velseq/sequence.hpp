// velseq/sequence.hpp -- a sequence field of an object, sequence<T>: append,
// insert, erase, positional and value-range reads tile by tile, map, join;
// and appender<T>, which buffers single values.
#ifndef VELSEQ_SEQUENCE_HPP
#define VELSEQ_SEQUENCE_HPP

#include <array>
#include <variant>

#include "velseq/transaction.hpp"

namespace velseq {

// ---- ranges ------------------------------------------------------------------

// One tile: up to 128 values with their null flags; `first` is the position
// of values[0] in the field (for positional ranges; 0-based count otherwise).
template <class T> struct tile {
    span<const T> values;
    null_view nulls;
    uint64_t first = 0;
    size_t size() const noexcept { return values.size(); }
    std::optional<T> operator[](size_t i) const {
        return nulls[i] ? std::nullopt : std::optional<T>(values[i]);
    }
};

// The tiles an iterator delivers, for range-for.  Owns the iterator and the
// operands it reads from.
template <class T> class tile_range {
  public:
    class iterator {
      public:
        using value_type = tile<T>;
        iterator() = default; // the end
        const tile<T> &operator*() const noexcept { return cur_; }
        const tile<T> *operator->() const noexcept { return &cur_; }
        iterator &operator++() {
            fetch();
            return *this;
        }
        bool operator==(const iterator &o) const noexcept { return done_ == o.done_; }
        bool operator!=(const iterator &o) const noexcept { return done_ != o.done_; }

      private:
        friend class tile_range;
        explicit iterator(vel_seq_iterator_t *it) : it_(it), done_(false) { fetch(); }
        void fetch() {
            const VEL_RET rc = it_->next(it_);
            if (rc == VEL_S_CURSOR_END) {
                done_ = true;
                return;
            }
            detail::check(rc, "reading a tile");
            const size_t n = it_->tile_size;
            cur_.values = span<const T>(reinterpret_cast<const T *>(it_->tile.u.arr_char), n);
            cur_.nulls = null_view(it_->tile.null_bitmap, n);
            cur_.first = it_->next_seq_no - n;
        }
        vel_seq_iterator_t *it_ = nullptr;
        tile<T> cur_;
        bool done_ = true;
    };

    tile_range() = default;
    // Each call of begin() restarts the range.
    iterator begin() {
        if (!it_)
            return iterator();
        if (started_)
            detail::check(it_->reset(it_.get()), "restarting a range");
        started_ = true;
        return iterator(it_.get());
    }
    iterator end() { return iterator(); }

  private:
    template <class> friend class sequence;
    template <class> friend class element_range;
    detail::iter_ptr it_;                    // null: empty range
    std::vector<detail::iter_ptr> operands_; // kept alive while it_ reads them
    std::unique_ptr<detail::array_source> source_;
    std::vector<unsigned char> source_data_;
    bool started_ = false;
};

// The elements of a tile range as std::optional<T> (nullopt: null element).
template <class T> class element_range {
  public:
    class iterator {
      public:
        std::optional<T> operator*() const { return (*t_)[i_]; }
        iterator &operator++() {
            if (++i_ >= t_->size()) {
                ++t_;
                i_ = 0;
                skip_empty();
            }
            return *this;
        }
        bool operator!=(const iterator &o) const { return t_ != o.t_ || i_ != o.i_; }
        bool operator==(const iterator &o) const { return !(*this != o); }

      private:
        friend class element_range;
        iterator(typename tile_range<T>::iterator t, typename tile_range<T>::iterator e)
            : t_(t), e_(e) {
            skip_empty();
        }
        void skip_empty() {
            while (t_ != e_ && t_->size() == 0)
                ++t_;
        }
        typename tile_range<T>::iterator t_, e_;
        size_t i_ = 0;
    };
    explicit element_range(tile_range<T> r) : r_(std::move(r)) {}
    iterator begin() { return iterator(r_.begin(), r_.end()); }
    iterator end() { return iterator(r_.end(), r_.end()); }

  private:
    tile_range<T> r_;
};

// Positions [first, last) of a field.
struct position_range {
    uint64_t first = 0, last = 0;
    uint64_t size() const noexcept { return last - first; }
    bool empty() const noexcept { return first >= last; }
};

// ---- sequence ------------------------------------------------------------------

// One sequence field of one object in one transaction.
template <class T> class sequence {
    using E = detail::elem<T>;

  public:
    sequence(const object &o, const field<T> &f)
        : tx_(o.tx_), h_(o.h_), fi_(o.owned(f.info(), f.class_code())), order_(f.declared_order()) {
    }

    order declared_order() const noexcept { return order_; }
    uint64_t size() const {
        vel_seq_no_t n = 0;
        detail::check(vel_w_seq_count(obj(), fi_.u_offset, fi_.c_offset, &n), "counting");
        return n;
    }
    bool empty() const { return size() == 0; }
    // First / last element; nullopt when the field is empty or the element null.
    std::optional<T> front() const { return end_value(true); }
    std::optional<T> back() const { return end_value(false); }

    // Appends values; nulls given as flags, as a bitmap or as std::optional.
    void append(span<const T> vals) { write(size(), vals, nullptr, false); }
    void append(span<const T> vals, span<const bool> nulls) {
        const auto bm = bitmap_of(vals.size(), nulls);
        write(size(), vals, bm.empty() ? nullptr : bm.data(), false);
    }
    void append(span<const T> vals, null_view nulls) {
        const auto bm = bitmap_of(vals.size(), nulls);
        write(size(), vals, bm.empty() ? nullptr : bm.data(), false);
    }
    void append(span<const std::optional<T>> vals) {
        std::vector<T> v;
        std::vector<vel_bitmap_word_t> bm;
        split(vals, v, bm);
        write(size(), span<const T>(v), bm.empty() ? nullptr : bm.data(), false);
    }
    void push_back(const T &v) { append(span<const T>(&v, 1)); }

    // Inserts before position `pos` (pos == size() appends).  The host keeps
    // the tree within its limits afterwards (at most VELH_COMPACT_MAX_DEPTH
    // levels and twice the pages of a dense tree), so single inserts do not
    // degrade the field.
    void insert(uint64_t pos, span<const T> vals) { write(pos, vals, nullptr, true); }
    void insert(uint64_t pos, span<const std::optional<T>> vals) {
        std::vector<T> v;
        std::vector<vel_bitmap_word_t> bm;
        split(vals, v, bm);
        write(pos, span<const T>(v), bm.empty() ? nullptr : bm.data(), true);
    }

    // Removes positions [first, last).
    void erase(uint64_t first, uint64_t last) {
        check_range(first, last, "erase");
        if (first == last)
            return;
        detail::check(E::erase(obj(), fi_, first, last - 1, c_order()), "erasing");
        keep_compact(last - first);
    }
    void truncate() {
        detail::check(vel_w_seq_truncate(obj(), fi_.u_offset, fi_.c_offset, fi_.fld_no),
                      "truncating");
    }

    // Tiles / elements of positions [first, last).
    tile_range<T> tiles(uint64_t first, uint64_t last) const {
        check_range(first, last, "scan");
        tile_range<T> r;
        if (first == last)
            return r;
        r.it_ = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, r.it_.get(), first, last - 1), "scanning");
        return r;
    }
    tile_range<T> tiles() const { return tiles(0, size()); }
    element_range<T> elements(uint64_t first, uint64_t last) const {
        return element_range<T>(tiles(first, last));
    }
    element_range<T> elements() const { return element_range<T>(tiles()); }

    // Positions of the elements v with lo (<= or <) v (<= or <) hi, in an
    // ordered field; lo <= hi in value order whatever the field's order.
    position_range search(const T &lo, const T &hi, bound lo_kind = bound::inclusive,
                          bound hi_kind = bound::inclusive) const {
        auto it = detail::new_iter();
        return search_into(*it, lo, hi, lo_kind, hi_kind);
    }
    // The tiles of a value window (search, then scan of the positions found).
    tile_range<T> window(const T &lo, const T &hi, bound lo_kind = bound::inclusive,
                         bound hi_kind = bound::inclusive) const {
        tile_range<T> r;
        auto it = detail::new_iter();
        const position_range p = search_into(*it, lo, hi, lo_kind, hi_kind);
        if (!p.empty())
            r.it_ = std::move(it);
        return r;
    }
    // Elements at the given positions, in the given order (module map).
    tile_range<T> map(span<const uint64_t> positions) const {
        const uint64_t n = size();
        for (uint64_t p : positions)
            if (p >= n)
                throw error(VEL_E_ILLEGAL_PARAM, "map: position " + std::to_string(p) +
                                                     " past the end (" + std::to_string(n) + ")");
        tile_range<T> r;
        if (positions.empty())
            return r;
        auto src = source_of(r, positions.data(), positions.size(), sizeof(uint64_t), VEL_DD_UINT8);
        r.it_ = detail::new_iter();
        detail::check(E::map(obj(), fi_, r.it_.get(), src), "map");
        return r;
    }
    // For each probe, the position of the first element not before it in the
    // field's order (module join).  Every probe must have such an element:
    // for probes past the last element use asof(), which answers them as null.
    tile_range<uint64_t> join(span<const T> probes) const {
        require_ordered("join");
        tile_range<uint64_t> r;
        if (probes.empty())
            return r;
        const std::optional<T> last = back_slot();
        for (const T &p : probes) {
            if (detail::is_nan(p))
                throw error(VEL_E_ILLEGAL_PARAM, "join: NaN probe");
            if (!last || (order_ == order::ascending ? p > *last : p < *last))
                throw error(VEL_S_NOTFOUND, "join: a probe lies past the last element");
        }
        auto src = source_of(r, probes.data(), probes.size(), sizeof(T), E::scalar_type);
        r.it_ = detail::new_iter();
        detail::check(E::join(obj(), fi_, r.it_.get(), src, c_order()), "join");
        return r;
    }

    // Element at `pos` (nullopt when null).
    std::optional<T> at(uint64_t pos) const {
        check_range(pos, pos + 1, "at");
        auto it = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, it.get(), pos, pos), "reading");
        detail::check(it->next(it.get()), "reading");
        const T v = *reinterpret_cast<const T *>(it->tile.u.arr_char);
        return (it->tile.null_bitmap[0] & 1u) ? std::nullopt : std::optional<T>(v);
    }

    vel_objhandle_h obj() const noexcept { return const_cast<vel_objhandle_t *>(&h_); }
    const velh_field_info_t &info() const noexcept { return fi_; }
    transaction &trans() const noexcept { return *tx_; }

  private:
    vel_seq_order_t c_order() const noexcept { return static_cast<vel_seq_order_t>(order_); }
    // The stored slot of the last element, null or not.
    std::optional<T> back_slot() const {
        T v{};
        const VEL_RET rc = E::last(obj(), fi_, &v);
        if (rc == VEL_S_NOTFOUND)
            return std::nullopt;
        if (rc != VEL_E_SEQ_NULL_VALUE)
            detail::check(rc, "reading the last element");
        return v;
    }
    std::optional<T> end_value(bool first) const {
        T v{};
        const VEL_RET rc = first ? E::first(obj(), fi_, &v) : E::last(obj(), fi_, &v);
        if (rc == VEL_S_NOTFOUND || rc == VEL_E_SEQ_NULL_VALUE)
            return std::nullopt;
        detail::check(rc, first ? "reading the first element" : "reading the last element");
        return v;
    }
    void check_range(uint64_t first, uint64_t last, const char *what) const {
        if (first > last)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + ": positions given reversed (" +
                                                 std::to_string(first) + " > " +
                                                 std::to_string(last) + ")");
        const uint64_t n = size();
        if (last > n)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + ": position " +
                                                 std::to_string(last) + " past the end (" +
                                                 std::to_string(n) + ")");
    }
    void require_ordered(const char *what) const {
        if (order_ == order::none)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + " needs an ordered field");
    }
    // True when a may not come before b in the field's order.
    bool out_of_order(const T &a, const T &b) const {
        return order_ == order::ascending ? b < a : order_ == order::descending ? a < b : false;
    }
    // The module's null bitmap of n null flags (a span of bools or a
    // null_view); empty when no flag is set.
    template <class Flags>
    static std::vector<vel_bitmap_word_t> bitmap_of(size_t n, const Flags &nulls) {
        if (nulls.size() != n)
            throw error(VEL_E_SEQ_LENGTH_MISMATCH, "null flags and values differ in number");
        std::vector<vel_bitmap_word_t> bm;
        for (size_t i = 0; i < n; i++)
            if (nulls[i]) {
                bm.resize((n + 63) / 64);
                bm[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        return bm;
    }
    static void split(span<const std::optional<T>> in, std::vector<T> &v,
                      std::vector<vel_bitmap_word_t> &bm) {
        v.resize(in.size());
        for (size_t i = 0; i < in.size(); i++) {
            if (in[i]) {
                v[i] = *in[i];
            } else {
                bm.resize((in.size() + 63) / 64);
                bm[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        }
    }
    // Validates everything the module would half-apply or accept wrongly, then
    // appends (pos == size, !ins) or inserts.
    void write(uint64_t pos, span<const T> vals, const vel_bitmap_word_t *nulls, bool ins) {
        if (ins)
            check_range(pos, pos, "insert");
        if (vals.empty())
            return;
        if (order_ != order::none) {
            if (nulls != nullptr)
                throw error(VEL_E_SEQ_NULL_VALUE, "an ordered field holds no nulls");
            for (size_t i = 0; i < vals.size(); i++) {
                if (detail::is_nan(vals[i]))
                    throw error(VEL_E_ILLEGAL_PARAM,
                                "NaN in an ordered field (value " + std::to_string(i) + ")");
                if (i > 0 && out_of_order(vals[i - 1], vals[i]))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "value " + std::to_string(i) + " breaks the order of the input");
            }
            const uint64_t n = ins ? size() : pos;
            if (pos > 0) {
                const std::optional<T> before = ins ? slot_at(pos - 1) : back_slot();
                if (before && out_of_order(*before, vals[0]))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "the first value breaks the order of the stored elements");
            }
            if (ins && pos < n) {
                const std::optional<T> after = slot_at(pos);
                if (after && out_of_order(vals[vals.size() - 1], *after))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "the last value breaks the order of the stored elements");
            }
        }
        if (order_ != order::none && E::seq_type == VEL_DD_SEQUENCE_CHAR)
            check_char_key_room(vals.size());
        if (!ins) {
            detail::check(E::append(obj(), fi_, vals.data(), vals.size(), c_order(), nulls),
                          "appending");
            return;
        }
        // A field this transaction has not kept yet may be as deep as C
        // callers left it (up to the iterators' limit, where one more level
        // traps): keep it first.
        if (!tx_->compact_kept(h_.oid, fi_.fld_no))
            keep_compact(0);
        detail::check(E::insert(obj(), fi_, pos, vals.data(), vals.size(), c_order(), nulls),
                      "inserting");
        keep_compact(vals.size());
    }
    std::optional<T> slot_at(uint64_t pos) const {
        auto it = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, it.get(), pos, pos), "reading");
        detail::check(it->next(it.get()), "reading");
        return *reinterpret_cast<const T *>(it->tile.u.arr_char);
    }
    // An ordered char(N) inner page keeps one key per child but sizes
    // itself for its entries alone, so past (page_size - 8) / (16 + N)
    // children the keys overwrite entries and the tree is lost.  No inner
    // page has more children than the tree has pages, and keep-compact
    // holds a field to twice its dense pages plus what one call adds (a
    // page a level, at most 8 levels, per leaf's worth of values): the
    // field is refused growth before that sum reaches the limit.
    void check_char_key_room(uint64_t n_new) const {
        const auto ps = static_cast<uint64_t>(h_.pm->large_page_size(h_.con));
        const uint64_t leaf = (8 * ps - 127) / (8 * E::width + 1);
        const uint64_t room = (ps - 8) / (16 + E::width);
        const uint64_t n = size() + n_new;
        const uint64_t worst = 2 * ((n + leaf - 1) / leaf + 1) + 9 * (2 + n_new / leaf);
        if (worst > room)
            throw error(VEL_E_ILLEGAL_PARAM,
                        "an ordered char(" + std::to_string(E::width) + ") field holds at most " +
                            std::to_string((room - 20) / 2 * leaf) +
                            " values on these pages; use an unordered field or wider pages");
    }
    // Single inserts split full leaves into nearly empty ones; the host
    // repairs the subtrees that degraded (about a leaf's worth of
    // copying per insert, amortised).
    void keep_compact(uint64_t n_changed) {
        detail::check(velh_keep_compact(&h_, fi_.fld_no, c_order(), n_changed,
                                        &tx_->compact_state(h_.oid, fi_.fld_no)),
                      "compacting");
    }
    position_range search_into(vel_seq_iterator_t &it, const T &lo, const T &hi, bound lo_kind,
                               bound hi_kind) const {
        require_ordered("search");
        if (detail::is_nan(lo) || detail::is_nan(hi))
            throw error(VEL_E_ILLEGAL_PARAM, "search: NaN bound");
        if (lo_kind != bound::open && hi_kind != bound::open && hi < lo)
            throw error(VEL_E_ILLEGAL_PARAM, "search: bounds given reversed (hi < lo)");
        // The module's bounds follow position order: the high value comes
        // first in a descending field.
        const bool desc = order_ == order::descending;
        const VEL_RET rc = desc ? E::search(obj(), fi_, &it, hi, hi_kind, lo, lo_kind, c_order())
                                : E::search(obj(), fi_, &it, lo, lo_kind, hi, hi_kind, c_order());
        if (rc == VEL_S_NOTFOUND)
            return {};
        detail::check(rc, "search");
        const uint64_t last = it.last_seq_no == ~vel_seq_no_t(0) ? size() : it.last_seq_no + 1;
        return {it.first_seq_no, last};
    }
    template <class R>
    vel_seq_iterator_h source_of(tile_range<R> &r, const void *data, size_t n, size_t elem_size,
                                 uint8_t elem_type) const {
        r.source_data_.assign(static_cast<const unsigned char *>(data),
                              static_cast<const unsigned char *>(data) + n * elem_size);
        r.source_ = std::make_unique<detail::array_source>(
            detail::array_source{r.source_data_.data(), n, 0, elem_size});
        r.operands_.push_back(detail::new_iter());
        detail::make_array_source(*r.operands_.back(), *r.source_, elem_type);
        return r.operands_.back().get();
    }

    template <class> friend class appender;
    transaction *tx_;
    vel_objhandle_t h_;
    velh_field_info_t fi_;
    order order_;
};

// ---- appender ------------------------------------------------------------------

// Takes values one at a time and appends them a batch at a time: each
// append of the module is a whole update of the field (write access, root,
// copy-on-write and order checks along the right edge), so a feed that
// receives one tick per call should collect them here.  Buffered values
// reach the field when the batch is full, at flush(), at destruction and
// before the transaction commits; reads see them only from then on.  A batch
// is checked and appended as one append of the sequence (all or nothing):
// push or flush throws when it is refused, and the batch is dropped.  A
// failure at destruction cannot throw; the transaction keeps it instead and
// its commit throws, so no value is lost silently.  An appender belongs to
// one transaction and is neither copied nor moved.
template <class T> class appender final : transaction::buffered {
  public:
    explicit appender(const sequence<T> &seq, size_t batch = 2048)
        : seq_(seq), batch_(batch == 0 ? 1 : batch) {
        vals_.reserve(batch_);
        seq_.tx_->buffered_.push_back(this);
    }
    ~appender() {
        if (seq_.tx_ == nullptr)
            return;
        auto &reg = seq_.tx_->buffered_;
        transaction::buffered *const me = this;
        reg.erase(std::find(reg.begin(), reg.end(), me));
        try {
            flush();
        } catch (const error &e) {
            if (!seq_.tx_->lost_)
                seq_.tx_->lost_ = e;
        } catch (...) {
            if (!seq_.tx_->lost_)
                seq_.tx_->lost_ = error(VEL_E_NOMEM, "an appender lost its batch");
        }
    }
    appender(const appender &) = delete;
    appender &operator=(const appender &) = delete;

    void push(const T &v) {
        vals_.push_back(v);
        if (vals_.size() >= batch_)
            flush();
    }
    void push(const std::optional<T> &v) {
        if (v) {
            push(*v);
            return;
        }
        const size_t i = vals_.size();
        nulls_.resize(i / 64 + 1);
        nulls_[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
        push(T{});
    }
    void flush() override {
        if (vals_.empty())
            return;
        if (seq_.tx_ == nullptr)
            throw error(VEL_E_HOST_TRANS_CLOSED, "the appender's transaction has ended");
        struct clear {
            appender &a;
            ~clear() {
                a.vals_.clear();
                a.nulls_.clear();
            }
        } done{*this};
        if (nulls_.empty()) {
            seq_.append(span<const T>(vals_));
            return;
        }
        nulls_.resize((vals_.size() + 63) / 64); // words up to the last null only, so far
        seq_.append(span<const T>(vals_), null_view(nulls_.data(), vals_.size()));
    }
    // Values pushed and not yet in the field.
    size_t pending() const noexcept { return vals_.size(); }

  private:
    void detach() noexcept override { seq_.tx_ = nullptr; }
    sequence<T> seq_;
    size_t batch_;
    std::vector<T> vals_;
    std::vector<vel_bitmap_word_t> nulls_;
};

} // namespace velseq

#endif // VELSEQ_SEQUENCE_HPP
