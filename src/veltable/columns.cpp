// Reading, writing and searching columns: one generic definition per
// operation over the value policies of dispatch.h (as-of and gather: asof.cpp).
#include "dispatch.h"
#include "seq_layout.h"

namespace velseq::table {

namespace detail {
namespace {

std::string field_name(const column &c) {
    return c.field.name != nullptr && *c.field.name ? "'" + std::string(c.field.name) + "'"
                                                    : "field " + std::to_string(c.field.fld_no);
}

// The module's null bitmap (bit set: null) of an array; empty when no value
// is null.
std::vector<vel_bitmap_word_t> nulls_of(const array &a) {
    std::vector<vel_bitmap_word_t> nb;
    if (a.null_count() == 0)
        return nb;
    nb.assign((a.length + 63) / 64, 0);
    for (uint64_t i = 0; i < a.length; i++)
        if (!a.valid(i))
            nb[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
    return nb;
}

// An ordered char(N) column keeps its keys inside inner pages sized for the
// entries alone, where enough keys overwrite entries: refuse the values
// that could bring a tree there (the worst case of a tree built by appends
// and splits), before writing any.
void check_char_key_room(const column &c, uint64_t n_new) {
    if (c.type.code != VEL_DD_SEQUENCE_CHAR || c.field.order == VEL_SEQ_NO_ORDER)
        return;
    const auto ps = static_cast<int32_t>(c.obj.pm->large_page_size(c.obj.con));
    const uint64_t w = c.type.width, leaf = layout::leaf_capacity(ps, w);
    const uint64_t room =
        static_cast<uint64_t>(ps - layout::kHeaderBytes) / (layout::kEntryBytes + w);
    const uint64_t n = count_of(c) + n_new;
    const uint64_t worst = 2 * ((n + leaf - 1) / leaf + 1) + 9 * (2 + n_new / leaf);
    if (worst > room)
        throw error(VEL_E_ILLEGAL_PARAM, "an ordered " + type_name(c.type) +
                                             " column holds at most " +
                                             std::to_string((room - 20) / 2 * leaf) +
                                             " values on these pages; use an unordered column or "
                                             "wider pages");
}

// The value at `pos` as the policy holds it.
template <class P> typename P::value value_at(const P &p, const column &c, uint64_t pos) {
    const array a = read(c, pos, pos + 1);
    return p.at(a.values.data(), 0);
}

void keep_compact(const column &c, uint64_t n_changed, velh_compact_state_t &state) {
    velseq::detail::check(velh_keep_compact(&c.obj, c.field.fld_no,
                                            static_cast<vel_seq_order_t>(c.field.order), n_changed,
                                            &state),
                          "compacting");
}

// The ordered column's rules for values about to be appended, all checked
// before anything is written.
template <class P> void check_ordered(const P &p, const column &c, const array &a, uint64_t pos) {
    const bool desc = c.field.order == VEL_SEQ_DESC_ORDER;
    const std::string where = " in the ordered column " + field_name(c);
    const unsigned char *v = a.values.data();
    for (uint64_t i = 0; i < a.length; i++) {
        if (!a.valid(i))
            throw error(VEL_E_SEQ_NULL_VALUE, "a null at row " + std::to_string(i) + where);
        if (p.is_nan(p.at(v, i)))
            throw error(VEL_E_ILLEGAL_PARAM, "NaN at row " + std::to_string(i) + where);
        if (i > 0 &&
            (desc ? p.less(p.at(v, i - 1), p.at(v, i)) : p.less(p.at(v, i), p.at(v, i - 1))))
            throw error(VEL_E_SEQ_OUT_OF_ORDER,
                        "row " + std::to_string(i) + " breaks the order" + where);
    }
    auto after = [&](const auto &x, const auto &y) { return desc ? p.less(x, y) : p.less(y, x); };
    if (a.length > 0 && pos > 0 && after(value_at(p, c, pos - 1), p.at(v, 0)))
        throw error(VEL_E_SEQ_OUT_OF_ORDER, "row 0 goes before the value stored before it" + where);
    if (a.length > 0 && pos < count_of(c) && after(p.at(v, a.length - 1), value_at(p, c, pos)))
        throw error(VEL_E_SEQ_OUT_OF_ORDER, "row " + std::to_string(a.length - 1) +
                                                " goes after the value stored after it" + where);
}

} // namespace
} // namespace detail

array read(const column &c, uint64_t first, uint64_t last) {
    const uint64_t n = detail::count_of(c);
    if (first > last || last > n)
        throw error(VEL_E_ILLEGAL_PARAM, "read: positions [" + std::to_string(first) + ", " +
                                             std::to_string(last) + ") outside [0, " +
                                             std::to_string(n) + ")");
    array out;
    out.type = c.type;
    out.length = last - first;
    out.values.resize(out.length * c.type.width);
    const size_t w = c.type.width;
    visit_leaves(c, first, last, [&](const leaf_run &r) { // straight from the pages
        const uint64_t at = r.first - first;
        std::memcpy(out.values.data() + at * w, r.values, r.length * w);
        for (uint64_t i = 0, bit = r.null_bit; r.nulls && i < r.length; i++, bit++)
            if (r.nulls[bit / 64] >> (bit % 64) & 1)
                detail::set_null(out, at + i);
        return true;
    });
    return out;
}

uint64_t count(const column &c) { return detail::count_of(c); }

void append(const column &c, const array &values) {
    detail::require(values, c.type, "append to " + detail::field_name(c));
    if (values.length == 0)
        return;
    detail::check_char_key_room(c, values.length);
    detail::visit(c.type, [&](const auto &p) {
        const auto order = static_cast<vel_seq_order_t>(c.field.order);
        if (order != VEL_SEQ_NO_ORDER)
            detail::check_ordered(p, c, values, detail::count_of(c));
        const std::vector<vel_bitmap_word_t> nb = detail::nulls_of(values);
        vel_objhandle_t obj = c.obj;
        velseq::detail::check(p.append(&obj, c.field, values.values.data(), values.length, order,
                                       nb.empty() ? nullptr : nb.data()),
                              "append");
    });
}

void insert(const column &c, uint64_t pos, const array &values, velh_compact_state_t &state) {
    detail::require(values, c.type, "insert into " + detail::field_name(c));
    const uint64_t n = detail::count_of(c);
    if (pos > n)
        throw error(VEL_E_ILLEGAL_PARAM, "insert: position " + std::to_string(pos) +
                                             " past the end (" + std::to_string(n) + ")");
    if (values.length == 0)
        return;
    detail::check_char_key_room(c, values.length);
    detail::visit(c.type, [&](const auto &p) {
        const auto order = static_cast<vel_seq_order_t>(c.field.order);
        if (order != VEL_SEQ_NO_ORDER)
            detail::check_ordered(p, c, values, pos);
        // A state never used: the field may be as deep as C callers left it
        // (at the iterators' limit, where one more level traps).
        const velh_compact_state_t zero{};
        if (std::memcmp(&state, &zero, sizeof zero) == 0)
            detail::keep_compact(c, 0, state);
        const std::vector<vel_bitmap_word_t> nb = detail::nulls_of(values);
        vel_objhandle_t obj = c.obj;
        velseq::detail::check(p.insert(&obj, c.field, pos, values.values.data(), values.length,
                                       order, nb.empty() ? nullptr : nb.data()),
                              "insert");
        detail::keep_compact(c, values.length, state);
    });
}

void erase(const column &c, uint64_t first, uint64_t last, velh_compact_state_t &state) {
    const uint64_t n = detail::count_of(c);
    if (first > last || last > n)
        throw error(VEL_E_ILLEGAL_PARAM, "erase: positions [" + std::to_string(first) + ", " +
                                             std::to_string(last) + ") outside [0, " +
                                             std::to_string(n) + ")");
    if (first == last)
        return;
    detail::visit(c.type, [&](const auto &p) {
        vel_objhandle_t obj = c.obj;
        velseq::detail::check(
            p.erase(&obj, c.field, first, last - 1, static_cast<vel_seq_order_t>(c.field.order)),
            "erase");
    });
    detail::keep_compact(c, last - first, state);
}

void truncate(const column &c) {
    vel_objhandle_t obj = c.obj;
    velseq::detail::check(
        vel_w_seq_truncate(&obj, c.field.u_offset, c.field.c_offset, c.field.fld_no), "truncate");
}

std::pair<uint64_t, uint64_t> search(const column &c, const array &bounds, bound lo_kind,
                                     bound hi_kind) {
    detail::require(bounds, c.type, "search");
    const auto order = static_cast<vel_seq_order_t>(c.field.order);
    if (order == VEL_SEQ_NO_ORDER)
        throw error(VEL_E_ILLEGAL_PARAM, "search needs an ordered column");
    if (bounds.length != 2 || bounds.null_count() != 0)
        throw error(VEL_E_ILLEGAL_PARAM, "search: give two bounds, neither null");
    std::pair<uint64_t, uint64_t> out{0, 0};
    detail::visit(c.type, [&](const auto &p) {
        const unsigned char *lo = bounds.values.data(), *hi = lo + p.width();
        if (p.is_nan(p.at(lo, 0)) || p.is_nan(p.at(hi, 0)))
            throw error(VEL_E_ILLEGAL_PARAM, "search: NaN bound");
        if (lo_kind != bound::open && hi_kind != bound::open && p.less(p.at(hi, 0), p.at(lo, 0)))
            throw error(VEL_E_ILLEGAL_PARAM, "search: bounds given reversed (hi < lo)");
        // The module takes its bounds in position order: the high value
        // comes first in a descending column.
        const bool desc = order == VEL_SEQ_DESC_ORDER;
        const auto lk = static_cast<vel_seq_boundary_kind_t>(desc ? hi_kind : lo_kind);
        const auto hk = static_cast<vel_seq_boundary_kind_t>(desc ? lo_kind : hi_kind);
        detail::iter_ptr it = detail::new_iter();
        vel_objhandle_t obj = c.obj;
        const VEL_RET rc =
            p.search(&obj, c.field, it.get(), desc ? hi : lo, lk, desc ? lo : hi, hk, order);
        if (rc == VEL_S_NOTFOUND)
            return;
        velseq::detail::check(rc, "search");
        out.first = it->first_seq_no;
        out.second =
            it->last_seq_no == ~vel_seq_no_t(0) ? detail::count_of(c) : it->last_seq_no + 1;
    });
    return out;
}

} // namespace velseq::table
