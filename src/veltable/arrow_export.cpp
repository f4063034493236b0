// A table out as an Arrow C stream: one record batch per slice of leaves of
// the first sequence field, the other fields read over the same positions.
// A field whose slice lies within one of its leaves lends the page's values
// (datetimes and text are always converted: datetimes are stored with
// their sign bit flipped, and text loses its padding); null masks become
// validity bitmaps.  Batches hold the stream's snapshot until released.
#include <algorithm>
#include <bit>

#include "arrow_export.h"
#include "dispatch.h"
#include "velseq/arrow.h"
#include "velseq/datetime.h"

namespace velseq::table::arrow {

namespace {

std::string format_of(const out_col &c, bool naive_time) {
    switch (c.type.code) {
    case VEL_DD_SEQUENCE_INT1:
        return "c";
    case VEL_DD_SEQUENCE_INT2:
        return "s";
    case VEL_DD_SEQUENCE_INT4:
        return "i";
    case VEL_DD_SEQUENCE_INT8:
        return "l";
    case VEL_DD_SEQUENCE_UINT1:
        return "C";
    case VEL_DD_SEQUENCE_UINT2:
        return "S";
    case VEL_DD_SEQUENCE_UINT4:
        return "I";
    case VEL_DD_SEQUENCE_UINT8:
        return "L";
    case VEL_DD_SEQUENCE_FLOAT:
        return "f";
    case VEL_DD_SEQUENCE_DOUBLE:
        return "g";
    case VEL_DD_SEQUENCE_DATETIME:
        return naive_time ? "tsn:" : "tsn:UTC";
    default:
        return c.text ? "u" : "w:" + std::to_string(c.type.width);
    }
}

// UTF-8 as Unicode defines it: no overlong forms, no surrogates, at most
// U+10FFFF.
bool valid_utf8(const unsigned char *s, size_t n) {
    for (size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            i++;
            continue;
        }
        size_t len;
        uint32_t cp;
        if ((c & 0xE0) == 0xC0)
            len = 2, cp = c & 0x1Fu;
        else if ((c & 0xF0) == 0xE0)
            len = 3, cp = c & 0x0Fu;
        else if ((c & 0xF8) == 0xF0)
            len = 4, cp = c & 0x07u;
        else
            return false;
        if (i + len > n)
            return false;
        for (size_t k = 1; k < len; k++) {
            if ((s[i + k] & 0xC0) != 0x80)
                return false;
            cp = cp << 6 | (s[i + k] & 0x3Fu);
        }
        static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

// 64 null bits from bit `at` of a leaf's null mask, reading no word past
// bit `end`.
uint64_t nulls64(const uint64_t *mask, uint64_t at, uint64_t end) {
    const uint64_t w = at / 64, sh = at % 64;
    uint64_t v = mask[w] >> sh;
    if (sh != 0 && (w + 1) * 64 < end)
        v |= mask[w + 1] << (64 - sh);
    return v;
}

} // namespace

snapshot::snapshot(velh_db_t *db) {
    velseq::detail::check(velh_connect(db, &con), "connecting for an export");
    const VEL_RET rc = velh_begin(con, VELH_READ_ONLY);
    if (rc != VEL_S_OK) {
        velh_disconnect(con);
        throw error(rc, "starting the export's read transaction");
    }
}

snapshot::~snapshot() {
    if (borrowed)
        return;
    velh_rollback(con);
    velh_disconnect(con);
}

namespace {

unsigned char *alloc(exporter::owner_t &o, size_t bytes) {
    o.memory.emplace_back(new unsigned char[std::max<size_t>(bytes, 1)]);
    return o.memory.back().get();
}

// Validity of rows [0, n) from the runs' null masks; nullptr when none is
// null.
const uint8_t *validity(exporter::owner_t &o, const std::vector<leaf_run> &runs, uint64_t n,
                        int64_t &null_count) {
    null_count = 0;
    if (std::none_of(runs.begin(), runs.end(), [](const leaf_run &r) { return r.nulls; }))
        return nullptr;
    const size_t words = (n + 63) / 64;
    auto *bits = reinterpret_cast<uint64_t *>(alloc(o, words * 8));
    std::fill(bits, bits + words, ~uint64_t(0));
    uint64_t row = 0;
    for (const leaf_run &r : runs) {
        for (uint64_t i = 0; r.nulls != nullptr && i < r.length; i += 64) {
            uint64_t nb = nulls64(r.nulls, r.null_bit + i, r.null_bit + r.length);
            if (r.length - i < 64)
                nb &= (uint64_t(1) << (r.length - i)) - 1;
            null_count += std::popcount(nb);
            for (; nb != 0; nb &= nb - 1) {
                const uint64_t at = row + i + static_cast<uint64_t>(std::countr_zero(nb));
                bits[at / 64] &= ~(uint64_t(1) << (at % 64));
            }
        }
        row += r.length;
    }
    return reinterpret_cast<const uint8_t *>(bits);
}

// Text of `n` char(w) values at `v` (nulls' bytes skipped) as utf8 buffers
// (offsets, data) after the validity bitmap.
void put_text(exporter::owner_t &o, std::vector<const void *> &bufs, const unsigned char *v,
              uint64_t n, size_t w, const uint8_t *valid, const std::string &name) {
    auto *offsets = reinterpret_cast<int32_t *>(alloc(o, (n + 1) * 4));
    unsigned char *data = alloc(o, n * w);
    int32_t at = 0;
    for (uint64_t i = 0; i < n; i++) {
        offsets[i] = at;
        if (valid != nullptr && !((valid[i / 8] >> (i % 8)) & 1))
            continue;
        const unsigned char *s = v + i * w;
        size_t len = w;
        while (len > 0 && s[len - 1] == 0)
            len--;
        if (!valid_utf8(s, len))
            throw error(VEL_E_ILLEGAL_PARAM,
                        std::string("field '").append(name).append(
                            "' holds a value that is not UTF-8 text: export it as "
                            "binary (char_as_binary)"));
        std::memcpy(data + at, s, len);
        at += static_cast<int32_t>(len);
    }
    offsets[n] = at;
    bufs = {bufs[0], offsets, data};
}

} // namespace

uint64_t exporter::slice_end(const part &p, uint64_t a) const {
    uint64_t b = p.last;
    if (batch_rows == 0)
        visit_leaves(col(p, cols[lead].fld), a, p.last, [&](const leaf_run &r) {
            b = r.first + r.length;
            return false;
        });
    else
        b = std::min<uint64_t>(b, a + batch_rows);
    // utf8 offsets are int32: a batch holds less than 2 GiB of text.
    if (max_text > 0)
        b = std::min<uint64_t>(b, a + std::max<uint64_t>(1, INT32_MAX / max_text));
    return b;
}

void exporter::fill(owner_t &o, size_t ci, const part &p, uint64_t a, uint64_t b, ArrowArray &out) {
    const out_col &c = cols[ci];
    const uint64_t n = b - a;
    std::vector<const void *> &bufs = o.child_buffers[ci];
    bufs.assign(2, nullptr);
    out.length = static_cast<int64_t>(n);
    const size_t w = c.type.width;
    if (c.k != kind::sequence) {
        // The oid or a scalar field: one value repeated.
        const unsigned char *one = c.k == kind::oid
                                       ? reinterpret_cast<const unsigned char *>(&p.oid)
                                       : p.scalars[ci].values.data();
        unsigned char *v = alloc(o, n * w);
        for (uint64_t i = 0; i < n; i++)
            std::memcpy(v + i * w, one, w);
        if (c.type.code == VEL_DD_SEQUENCE_DATETIME)
            for (uint64_t i = 0; i < n; i++)
                reinterpret_cast<uint64_t *>(v)[i] ^= VEL_DT_SIGN;
        bufs[1] = v;
        if (c.text)
            put_text(o, bufs, v, n, w, nullptr, c.name);
        return;
    }
    std::vector<leaf_run> runs;
    visit_leaves(col(p, c.fld), a, b, [&](const leaf_run &r) {
        runs.push_back(r);
        return true;
    });
    const uint8_t *valid = validity(o, runs, n, out.null_count);
    bufs[0] = valid;
    const bool convert = c.text || c.type.code == VEL_DD_SEQUENCE_DATETIME;
    const unsigned char *v;
    if (runs.size() == 1 && !convert) {
        v = static_cast<const unsigned char *>(runs[0].values); // the page's own
    } else {
        unsigned char *copy = alloc(o, n * w);
        uint64_t row = 0;
        for (const leaf_run &r : runs) {
            std::memcpy(copy + row * w, r.values, r.length * w);
            row += r.length;
        }
        if (c.type.code == VEL_DD_SEQUENCE_DATETIME)
            for (uint64_t i = 0; i < n; i++)
                reinterpret_cast<uint64_t *>(copy)[i] ^= VEL_DT_SIGN;
        v = copy;
    }
    bufs[1] = v;
    if (c.text)
        put_text(o, bufs, v, n, w, valid, c.name);
}

bool exporter::next(ArrowArray &out) {
    while (at_part < parts.size() && at_pos >= parts[at_part].last) {
        at_part++;
        if (at_part < parts.size())
            at_pos = parts[at_part].first;
    }
    if (at_part == parts.size())
        return false;
    const part &p = parts[at_part];
    const uint64_t a = at_pos, b = slice_end(p, a);
    auto o = std::make_shared<owner_t>();
    o->extra = snap;
    o->children.assign(cols.size(), ArrowArray{});
    o->child_buffers.resize(cols.size());
    for (size_t ci = 0; ci < cols.size(); ci++) {
        ArrowArray &ch = o->children[ci];
        fill(*o, ci, p, a, b, ch);
        ch.n_buffers = static_cast<int64_t>(o->child_buffers[ci].size());
        ch.buffers = o->child_buffers[ci].data();
        o->child_ptrs.push_back(&ch);
    }
    for (ArrowArray &ch : o->children)
        hold(ch, o);
    out = ArrowArray{};
    out.length = static_cast<int64_t>(b - a);
    out.n_buffers = 1;
    out.buffers = o->root_buffers;
    out.n_children = static_cast<int64_t>(cols.size());
    out.children = o->child_ptrs.data();
    hold(out, o);
    at_pos = b;
    done += b - a;
    if (progress != nullptr)
        progress(done, total, progress_ctx);
    return true;
}

void exporter::schema(ArrowSchema &out) const {
    auto o = std::make_shared<schema_owner>();
    o->children.assign(cols.size(), ArrowSchema{});
    for (const out_col &c : cols) {
        std::vector<std::pair<std::string, std::string>> kv;
        if (c.text)
            kv.emplace_back("velseq.width", std::to_string(c.type.width));
        if (c.order == VEL_SEQ_ASC_ORDER)
            kv.emplace_back("velseq.order", "ascending");
        if (c.order == VEL_SEQ_DESC_ORDER)
            kv.emplace_back("velseq.order", "descending");
        if (c.k == kind::scalar)
            kv.emplace_back("velseq.scalar", "1");
        o->strings.push_back(format_of(c, naive_time));
        o->strings.push_back(c.name);
        o->strings.push_back(kv.empty() ? std::string() : encode_metadata(kv));
    }
    for (size_t i = 0; i < cols.size(); i++) {
        ArrowSchema &ch = o->children[i];
        ch.format = o->strings[3 * i].c_str();
        ch.name = o->strings[3 * i + 1].c_str();
        ch.metadata = o->strings[3 * i + 2].empty() ? nullptr : o->strings[3 * i + 2].data();
        ch.flags = cols[i].k == kind::sequence ? ARROW_FLAG_NULLABLE : 0;
        o->child_ptrs.push_back(&ch);
    }
    for (ArrowSchema &ch : o->children)
        hold(ch, o);
    out = ArrowSchema{};
    out.format = o->format.c_str();
    out.name = "";
    out.n_children = static_cast<int64_t>(cols.size());
    out.children = o->child_ptrs.data();
    hold(out, o);
}

std::unique_ptr<exporter> exporter::over(std::vector<part> rows) const {
    auto e = std::make_unique<exporter>();
    e->snap = snap;
    e->db = db;
    e->table = table;
    e->cols = cols;
    e->lead = lead;
    e->time_fld = time_fld;
    e->batch_rows = batch_rows;
    e->naive_time = naive_time;
    e->max_text = max_text;
    e->parts = std::move(rows);
    for (const part &p : e->parts)
        e->total += p.last - p.first;
    if (!e->parts.empty())
        e->at_pos = e->parts[0].first;
    return e;
}

namespace {

// ---- the stream's callbacks: C on the outside, no exception escapes ----------

exporter *of(ArrowArrayStream *s) { return static_cast<exporter *>(s->private_data); }

int stream_schema(ArrowArrayStream *s, ArrowSchema *out) {
    try {
        of(s)->schema(*out);
        return 0;
    } catch (const std::bad_alloc &) {
        of(s)->last_error = "out of memory";
        return ENOMEM;
    }
}

int stream_next(ArrowArrayStream *s, ArrowArray *out) {
    exporter &e = *of(s);
    try {
        if (!e.next(*out))
            *out = ArrowArray{}; // release == NULL: the end
        return 0;
    } catch (const error &x) {
        e.last_error = x.what();
        return x.code() == VEL_E_NOMEM ? ENOMEM : EINVAL;
    } catch (const std::bad_alloc &) {
        e.last_error = "out of memory";
        return ENOMEM;
    }
}

const char *stream_error(ArrowArrayStream *s) {
    const exporter &e = *of(s);
    return e.last_error.empty() ? nullptr : e.last_error.c_str();
}

void stream_release(ArrowArrayStream *s) {
    if (s == nullptr || s->release == nullptr)
        return;
    delete of(s);
    s->release = nullptr;
}

// The output columns: the oid column, then the fields asked for.
std::vector<out_col> columns_of(const table_info &t, const velt_export_t &opts) {
    std::vector<out_col> cols;
    const std::string oid_name = opts.oid_column != nullptr ? opts.oid_column : "oid";
    if (!oid_name.empty()) {
        if (std::any_of(t.columns.begin(), t.columns.end(),
                        [&](const column_def &d) { return d.name == oid_name; }))
            throw error(VEL_E_ILLEGAL_PARAM,
                        std::string("table '")
                            .append(t.name)
                            .append("' has a field named '")
                            .append(oid_name)
                            .append("': name the object column otherwise, or leave it out"));
        out_col c;
        c.name = oid_name;
        c.k = kind::oid;
        cols.push_back(c);
    }
    std::vector<uint16_t> fields;
    if (opts.columns == nullptr)
        for (uint16_t f = 0; f < t.columns.size(); f++)
            fields.push_back(f);
    else
        for (size_t i = 0; i < opts.n_columns; i++)
            fields.push_back(t.field(opts.columns[i] != nullptr ? opts.columns[i] : ""));
    for (uint16_t f : fields) {
        const column_def &d = t.columns[f];
        out_col c;
        c.name = d.name;
        c.k = d.scalar ? kind::scalar : kind::sequence;
        c.fld = f;
        c.type = d.type;
        c.order = d.scalar ? VEL_SEQ_NO_ORDER : d.order;
        c.text = d.type.code == VEL_DD_SEQUENCE_CHAR && !opts.char_as_binary;
        if (std::any_of(cols.begin(), cols.end(),
                        [&](const out_col &o) { return o.name == c.name; }))
            throw error(VEL_E_ILLEGAL_PARAM, "field '" + c.name + "' asked for twice");
        cols.push_back(c);
    }
    return cols;
}

} // namespace

std::unique_ptr<exporter> plan_export(velh_db_t *db, const velt_export_t &opts) {
    if (db == nullptr || opts.table == nullptr)
        throw error(VEL_E_ILLEGAL_PARAM, "export: no database, table or stream");
    const std::optional<table_info> t = find_table(db, opts.table);
    if (!t)
        throw error(VEL_E_HOST_NO_CLASS, std::string("no table '").append(opts.table).append("'"));
    auto e = std::make_unique<exporter>();
    e->db = db;
    e->table = *t;
    e->cols = columns_of(*t, opts);
    e->batch_rows = opts.batch_rows;
    e->naive_time = opts.naive_time != 0;
    e->progress = opts.progress;
    e->progress_ctx = opts.progress_ctx;
    auto lead = std::find_if(e->cols.begin(), e->cols.end(),
                             [](const out_col &c) { return c.k == kind::sequence; });
    if (lead == e->cols.end())
        throw error(VEL_E_ILLEGAL_PARAM, "export: no sequence field asked for");
    e->lead = static_cast<size_t>(lead - e->cols.begin());
    for (const out_col &c : e->cols)
        if (c.text)
            e->max_text = std::max<size_t>(e->max_text, c.type.width);
    // The time field of a time window: the first ascending datetime field.
    std::optional<uint16_t> &time_fld = e->time_fld;
    for (uint16_t f = 0; f < t->columns.size() && !time_fld; f++)
        if (!t->columns[f].scalar && t->columns[f].order == VEL_SEQ_ASC_ORDER &&
            t->columns[f].type.code == VEL_DD_SEQUENCE_DATETIME)
            time_fld = f;
    if (opts.by_time) {
        if (opts.from > opts.to)
            throw error(VEL_E_ILLEGAL_PARAM, "export: the time window ends before it starts");
        if (!time_fld)
            throw error(VEL_E_ILLEGAL_PARAM, "export: a time window, but table '" + t->name +
                                                 "' has no ascending datetime field");
    }
    if (opts.con != nullptr && !velh_in_transaction(opts.con))
        throw error(VEL_E_HOST_TRANS_CLOSED, "export: the connection given has no transaction");
    if (opts.con != nullptr && velh_db_of(opts.con) != db)
        throw error(VEL_E_ILLEGAL_PARAM, "export: the connection given is of another database");
    e->snap =
        opts.con != nullptr ? std::make_shared<snapshot>(opts.con) : std::make_shared<snapshot>(db);
    vel_db_connection_h con = e->snap->con;
    // The objects, checked whole before the stream opens.
    std::vector<uint64_t> oids(opts.oids, opts.oids + (opts.oids ? opts.n_oids : 0));
    if (opts.oids == nullptr) {
        vel_trans_h trans = &con->trans;
        vel_cursor_t cur;
        VEL_RET rc = vel_w_list_cursor(trans, t->code, &cur);
        if (rc != VEL_S_CURSOR_EMPTY) {
            velseq::detail::check(rc, "listing objects");
            for (rc = vel_cursor_first(trans, &cur); rc == VEL_S_OK;
                 rc = vel_cursor_next(trans, &cur)) {
                vel_objhandle_t h{};
                velseq::detail::check(vel_w_obj_from_cursor(trans, &cur, t->code, &h),
                                      "listing objects");
                oids.push_back(h.oid);
            }
            if (rc != VEL_S_CURSOR_END)
                velseq::detail::check(rc, "listing objects");
        }
    }
    for (uint64_t oid : oids) {
        part p;
        p.oid = oid;
        const VEL_RET rc = velh_obj_open(con, t->code, oid, &p.obj);
        if (rc != VEL_S_OK)
            throw error(rc,
                        "export: object " + std::to_string(oid) + " of table '" + t->name + "'");
        std::optional<uint64_t> n;
        for (const out_col &c : e->cols) {
            p.scalars.emplace_back();
            if (c.k == kind::scalar)
                p.scalars.back() = get_scalar(p.obj, *t, c.fld);
            if (c.k != kind::sequence)
                continue;
            const uint64_t cn = count(column_of(p.obj, db, *t, c.fld));
            if (n && *n != cn)
                throw error(VEL_E_ILLEGAL_PARAM,
                            "export: object " + std::to_string(oid) + " holds " +
                                std::to_string(*n) + " values in '" + e->cols[e->lead].name +
                                "' but " + std::to_string(cn) + " in '" + c.name + "'");
            n = cn;
        }
        p.last = opts.last == 0 ? *n : std::min(opts.last, *n);
        p.first = std::min(opts.first, p.last);
        if (opts.by_time) {
            array bounds{{VEL_DD_SEQUENCE_DATETIME, 8}, 2, std::vector<unsigned char>(16), {}};
            const vel_datetime lo = vel_dt_from_ns(opts.from), hi = vel_dt_from_ns(opts.to);
            std::memcpy(bounds.values.data(), &lo, 8);
            std::memcpy(bounds.values.data() + 8, &hi, 8);
            const auto [a, b] = search(column_of(p.obj, db, *t, *time_fld), bounds,
                                       bound::inclusive, bound::exclusive);
            p.first = std::max(p.first, a);
            p.last = std::max(p.first, std::min(p.last, b));
        }
        e->total += p.last - p.first;
        e->parts.push_back(std::move(p));
    }
    if (!e->parts.empty())
        e->at_pos = e->parts[0].first;
    return e;
}

void open_stream(std::unique_ptr<exporter> e, ArrowArrayStream *out) {
    *out = ArrowArrayStream{};
    out->get_schema = &stream_schema;
    out->get_next = &stream_next;
    out->get_last_error = &stream_error;
    out->release = &stream_release;
    out->private_data = e.release();
}

} // namespace velseq::table::arrow

namespace velseq::table {

void export_arrow(velh_db_t *db, const velt_export_t &opts, ArrowArrayStream *out) {
    if (out == nullptr)
        throw error(VEL_E_ILLEGAL_PARAM, "export: no stream");
    arrow::open_stream(arrow::plan_export(db, opts), out);
}

} // namespace velseq::table
