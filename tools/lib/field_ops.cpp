// Appends, scans, searches and exports through the module's typed wrappers.
// Scans read the iterator's tile: `tile_size` elements packed from the start
// of the payload, `elem_size` bytes each, null flags in tile.null_bitmap.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "family.h"

namespace veltools {
int column_push_line(velt_column_t *col, const void *value, uint64_t line);
void csv_cell(const Family &fam, velt_type_t type, const void *value, std::string &out);
int write_header(FILE *out, const char *header);
} // namespace veltools

using namespace veltools;

extern "C" const char *velt_code_name(int code) {
    switch (code) {
#define NAME(c)                                                                                    \
    case c:                                                                                        \
        return #c;
        NAME(VEL_S_OK)
        NAME(VEL_S_NOTFOUND)
        NAME(VEL_S_CURSOR_END)
        NAME(VEL_S_CURSOR_EMPTY)
        NAME(VEL_E_NOMEM)
        NAME(VEL_E_ILLEGAL_TYPE)
        NAME(VEL_E_ILLEGAL_PARAM)
        NAME(VEL_E_SEQ_OUT_OF_ORDER)
        NAME(VEL_E_SEQ_BOUNDED)
        NAME(VEL_E_SEQ_LENGTH_MISMATCH)
        NAME(VEL_E_SEQ_NULL_VALUE)
        NAME(VEL_E_HOST_BAD_ARG)
        NAME(VEL_E_HOST_TRANS_CLOSED)
        NAME(VEL_E_HOST_READ_ONLY)
        NAME(VEL_E_HOST_NO_CLASS)
        NAME(VEL_E_HOST_NO_OBJECT)
        NAME(VEL_E_HOST_NO_FIELD)
        NAME(VEL_E_HOST_WRONG_FIELD)
        NAME(VEL_E_HOST_CONFLICT)
        NAME(VEL_E_HOST_TRANS_ACTIVE)
        NAME(VEL_E_HOST_BUSY)
        NAME(VEL_E_HOST_LAYOUT)
        NAME(VEL_E_HOST_TRANS_FAILED)
        NAME(VELT_E_BAD_TREE)
        NAME(VELT_E_PARSE)
        NAME(VELT_E_IO)
        NAME(VELT_E_ARG)
        NAME(VELT_E_UNSUPPORTED)
        NAME(VELT_E_NOMEM)
#undef NAME
    default:
        return "?";
    }
}

namespace {

// Chunks are whole bitmap words, so a chunk's null bits start at a word.
constexpr uint64_t kChunk = 4096;

bool same_type(velt_type_t a, velt_type_t b) {
    return a.elem_type == b.elem_type && a.elem_size == b.elem_size;
}

const char *order_name(vel_seq_order_t order) {
    return order == VEL_SEQ_ASC_ORDER ? "ascending" : "descending";
}

// The first element of a..b-1 that breaks the field's order, judged as the
// module judges it: within the buffer a value fails only when it is strictly
// below (ascending) its predecessor, so a NaN passes; against the stored last
// value `prev` the new value must compare <= (ascending), so a NaN fails.
// b when no element breaks the order.
uint64_t order_break(const Family &fam, const velt_field_t &f, const velt_column_t &col, uint64_t a,
                     uint64_t b, const void *prev) {
    const size_t w = f.type.elem_size;
    const bool asc = f.order == VEL_SEQ_ASC_ORDER;
    for (uint64_t i = a; i < b; i++) {
        const uint8_t *cur = col.values + i * w;
        if (i == a) {
            if (prev == nullptr)
                continue;
            int c = fam.compare(prev, cur, w);
            if (!(c == 0 || c == (asc ? -1 : 1)))
                return i;
        } else if (fam.compare(cur, cur - w, w) == (asc ? -1 : 1)) {
            return i;
        }
    }
    return b;
}

std::string value_text(const Family &fam, velt_type_t type, const void *v) {
    std::string s;
    fam.format(v, type.elem_size, s);
    return s.size() <= 40 ? s : s.substr(0, 37) + "...";
}

uint64_t line_of(const velt_column_t &col, uint64_t i) {
    return col.lines != nullptr ? col.lines[i] : 0;
}

// Sets up an iterator with `setup` and hands each tile element to `fn`
// (value pointer or nullptr for a null).  Stops at the first error of `fn`.
template <class Setup, class Fn>
int scan_tiles(const velt_field_t &f, vel_seq_iterator_t *it, Setup setup, Fn fn) {
    if (f.type.elem_type == VEL_DD_CHAR && f.type.elem_size > VELT_MAX_SCAN_WIDTH)
        return VELT_E_UNSUPPORTED;
    VEL_RET rc = setup(it);
    if (rc != VEL_S_OK)
        return rc;
    const size_t w = f.type.elem_size;
    while ((rc = it->next(it)) == VEL_S_OK) {
        for (uint16_t k = 0; k < it->tile_size; k++) {
            const bool null = ((it->tile.null_bitmap[k / 64] >> (k % 64)) & 1) != 0;
            int r = fn(null ? nullptr : it->tile.u.arr_char + k * w);
            if (r != VELT_OK)
                return r;
        }
    }
    return rc == VEL_S_CURSOR_END ? VELT_OK : rc;
}

std::unique_ptr<vel_seq_iterator_t> new_iterator() {
    return std::make_unique<vel_seq_iterator_t>();
}

} // namespace

extern "C" int velt_append_column(vel_objhandle_h obj, const velt_field_t *f,
                                  const velt_column_t *col, velt_error_t *err) {
    const Family *fam = family_of(f->type);
    if (fam == nullptr || !same_type(f->type, col->type)) {
        set_error(err, VELT_E_ARG, 0, 0, "column type does not match the field");
        return VELT_E_ARG;
    }
    const size_t w = f->type.elem_size;
    const bool ordered = f->order != VEL_SEQ_NO_ORDER;
    if (ordered) {
        for (uint64_t i = 0; i < col->n; i++) {
            if (velt_column_is_null(col, i)) {
                set_error(err, VEL_E_SEQ_NULL_VALUE, line_of(*col, i), i,
                          "line %llu: null cell in an ordered field (refused before appending)",
                          static_cast<unsigned long long>(line_of(*col, i)));
                return VEL_E_SEQ_NULL_VALUE;
            }
        }
    }
    // The stored last value, against which the first chunk is checked.
    std::vector<uint8_t> prev(w);
    bool have_prev = false;
    vel_seq_no_t count = 0;
    VEL_RET rc = vel_w_seq_count(obj, f->u_offset, f->c_offset, &count);
    if (rc != VEL_S_OK) {
        set_error(err, rc, 0, 0, "count of the field failed with %d %s", rc, velt_code_name(rc));
        return rc;
    }
    if (count > 0 && ordered) {
        rc = fam->last(obj, *f, prev.data());
        have_prev = rc == VEL_S_OK || rc == VEL_E_SEQ_NULL_VALUE; // the slot is copied either way
    }
    for (uint64_t a = 0; a < col->n; a += kChunk) {
        const uint64_t b = std::min(col->n, a + kChunk);
        // Ordered columns hold no nulls here; passing no bitmap keeps the
        // module's null test out of the way.
        rc = fam->append(obj, *f, col->values + a * w, b - a,
                         ordered ? nullptr : col->nulls + a / 64);
        if (rc == VEL_S_OK) {
            std::memcpy(prev.data(), col->values + (b - 1) * w, w);
            have_prev = true;
            continue;
        }
        uint64_t i = rc == VEL_E_SEQ_OUT_OF_ORDER && ordered
                         ? order_break(*fam, *f, *col, a, b, have_prev ? prev.data() : nullptr)
                         : b;
        if (i < b) {
            const void *before = i == a ? prev.data() : col->values + (i - 1) * w;
            set_error(err, rc, line_of(*col, i), i,
                      "line %llu: %s after %s breaks the %s order (module: %d %s)",
                      static_cast<unsigned long long>(line_of(*col, i)),
                      value_text(*fam, f->type, col->values + i * w).c_str(),
                      value_text(*fam, f->type, before).c_str(), order_name(f->order), rc,
                      velt_code_name(rc));
        } else {
            set_error(err, rc, line_of(*col, a), a,
                      "append of values %llu..%llu (lines %llu..%llu) failed (module: %d %s)",
                      static_cast<unsigned long long>(a), static_cast<unsigned long long>(b - 1),
                      static_cast<unsigned long long>(line_of(*col, a)),
                      static_cast<unsigned long long>(line_of(*col, b - 1)), rc,
                      velt_code_name(rc));
        }
        return rc;
    }
    return VELT_OK;
}

extern "C" int velt_read_range(vel_objhandle_h obj, const velt_field_t *f, uint64_t from,
                               uint64_t till, velt_column_t *out) {
    const Family *fam = family_of(f->type);
    if (fam == nullptr || !same_type(f->type, out->type))
        return VELT_E_ARG;
    auto it = new_iterator();
    int rc = scan_tiles(
        *f, it.get(), [&](vel_seq_iterator_t *i) { return fam->subseq(obj, *f, i, from, till); },
        [&](const void *v) { return column_push_line(out, v, 0); });
    // A range past the end holds no elements.
    return rc == VEL_S_NOTFOUND ? VELT_OK : rc;
}

extern "C" int velt_search(vel_objhandle_h obj, const velt_field_t *f, const void *low,
                           const void *high, uint64_t *first, velt_column_t *out) {
    const Family *fam = family_of(f->type);
    if (fam == nullptr || !same_type(f->type, out->type) || f->order == VEL_SEQ_NO_ORDER)
        return VELT_E_ARG;
    auto it = new_iterator();
    const uint64_t before = out->n;
    int rc = scan_tiles(
        *f, it.get(),
        [&](vel_seq_iterator_t *i) {
            // The module's bounds follow position order: on a descending
            // field the first position holds the highest value.
            const bool desc = f->order == VEL_SEQ_DESC_ORDER;
            VEL_RET r = fam->search(obj, *f, i, desc ? high : low, desc ? low : high);
            *first = i->first_seq_no;
            return r;
        },
        [&](const void *v) { return column_push_line(out, v, 0); });
    if (rc == VELT_OK && out->n == before)
        return VEL_S_NOTFOUND;
    return rc;
}

extern "C" int velt_export_csv(vel_objhandle_h obj, const velt_field_t *f, FILE *out,
                               const char *header) {
    const Family *fam = family_of(f->type);
    if (fam == nullptr)
        return VELT_E_ARG;
    int rc = write_header(out, header);
    if (rc != VELT_OK)
        return rc;
    vel_seq_no_t count = 0;
    rc = vel_w_seq_count(obj, f->u_offset, f->c_offset, &count);
    if (rc != VEL_S_OK || count == 0)
        return rc;
    auto it = new_iterator();
    std::string buf;
    rc = scan_tiles(
        *f, it.get(), [&](vel_seq_iterator_t *i) { return fam->subseq(obj, *f, i, 0, count - 1); },
        [&](const void *v) {
            csv_cell(*fam, f->type, v, buf);
            buf += '\n';
            if (buf.size() < 65536)
                return VELT_OK;
            size_t n = std::fwrite(buf.data(), 1, buf.size(), out);
            bool ok = n == buf.size();
            buf.clear();
            return ok ? VELT_OK : VELT_E_IO;
        });
    if (rc != VELT_OK)
        return rc;
    if (std::fwrite(buf.data(), 1, buf.size(), out) != buf.size() || std::fflush(out) != 0)
        return VELT_E_IO;
    return VELT_OK;
}
