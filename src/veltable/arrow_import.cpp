// An Arrow C stream into a table: columns matched to fields by name, each
// batch cut into runs of rows of one object, each run appended field by
// field (the appends check the order, against the object's last value
// too), all of it in one write transaction.
#include <algorithm>
#include <charconv>
#include <map>
#include <unordered_map>

#include "arrow_export.h"
#include "dispatch.h"
#include "velseq/arrow.h"
#include "velseq/datetime.h"

namespace velseq::table {

namespace {

// What an Arrow format holds: an element type (width 0 for utf8, whose
// width comes from the field), and for timestamps the nanoseconds of one
// unit.
struct source_type {
    column_type type;
    int64_t ns_per_unit = 0; // timestamps
    int offset_bytes = 0;    // utf8 or binary: 4 ("u", "z") or 8 ("U", "Z")
};

std::optional<source_type> source_of(std::string_view f) {
    static constexpr struct {
        const char *format;
        uint8_t code;
        uint16_t width;
    } kFixed[] = {{"c", VEL_DD_SEQUENCE_INT1, 1},  {"s", VEL_DD_SEQUENCE_INT2, 2},
                  {"i", VEL_DD_SEQUENCE_INT4, 4},  {"l", VEL_DD_SEQUENCE_INT8, 8},
                  {"C", VEL_DD_SEQUENCE_UINT1, 1}, {"S", VEL_DD_SEQUENCE_UINT2, 2},
                  {"I", VEL_DD_SEQUENCE_UINT4, 4}, {"L", VEL_DD_SEQUENCE_UINT8, 8},
                  {"f", VEL_DD_SEQUENCE_FLOAT, 4}, {"g", VEL_DD_SEQUENCE_DOUBLE, 8}};
    for (const auto &k : kFixed)
        if (f == k.format)
            return source_type{{k.code, k.width}};
    if (f.size() >= 4 && f.substr(0, 2) == "ts" && f[3] == ':') {
        const int64_t unit = f[2] == 'n'   ? 1
                             : f[2] == 'u' ? 1000
                             : f[2] == 'm' ? 1000000
                             : f[2] == 's' ? 1000000000
                                           : 0;
        if (unit != 0)
            return source_type{{VEL_DD_SEQUENCE_DATETIME, 8}, unit};
    }
    if (f == "u" || f == "U" || f == "z" || f == "Z") // text or binary: bytes of any length
        return source_type{{VEL_DD_SEQUENCE_CHAR, 0}, 0, f == "u" || f == "z" ? 4 : 8};
    if (f.substr(0, 2) == "w:") {
        unsigned w = 0;
        const auto [end, ec] = std::from_chars(f.data() + 2, f.data() + f.size(), w);
        if (ec == std::errc() && end == f.data() + f.size() && w >= 1 &&
            w <= VELH_MAX_SEQ_CHAR_WIDTH)
            return source_type{{VEL_DD_SEQUENCE_CHAR, static_cast<uint16_t>(w)}};
    }
    return std::nullopt;
}

bool is_integer(uint8_t code) {
    return code >= VEL_DD_SEQUENCE_UINT1 && code <= VEL_DD_SEQUENCE_INT8;
}

// Releases what it holds, however the import ends.
struct schema_guard {
    ArrowSchema s{};
    ~schema_guard() {
        if (s.release != nullptr)
            s.release(&s);
    }
};
struct array_guard {
    ArrowArray a{};
    ~array_guard() {
        if (a.release != nullptr)
            a.release(&a);
    }
};
struct stream_guard {
    ArrowArrayStream *s;
    ~stream_guard() {
        if (s->release != nullptr)
            s->release(s);
    }
};

// One column of the stream and the field it fills.
struct in_col {
    std::string name;
    source_type src;
    bool is_oid = false;
    int field = -1;
    column_def def;
};

std::string stream_error(ArrowArrayStream *s, int rc) {
    const char *m = s->get_last_error != nullptr ? s->get_last_error(s) : nullptr;
    return m != nullptr ? std::string(m) : "error " + std::to_string(rc);
}

bool valid_at(const ArrowArray &a, uint64_t i) {
    const auto *bits = static_cast<const uint8_t *>(a.null_count != 0 ? a.buffers[0] : nullptr);
    const uint64_t at = static_cast<uint64_t>(a.offset) + i;
    return bits == nullptr || ((bits[at / 8] >> (at % 8)) & 1);
}

// Rows [r0, r1) of child `a` (of batch-relative offset `base`) as an array
// of the field's type.
array convert(const in_col &c, const ArrowArray &a, uint64_t r0, uint64_t r1) {
    const column_type t = c.def.type;
    array out;
    out.type = t;
    out.length = r1 - r0;
    out.values.assign(out.length * t.width, 0);
    const uint64_t off = static_cast<uint64_t>(a.offset);
    for (uint64_t i = r0; i < r1; i++)
        if (!valid_at(a, i))
            detail::set_null(out, i - r0);
    const auto *v = static_cast<const unsigned char *>(a.buffers[1]);
    if (c.src.offset_bytes != 0) {
        const auto *data = static_cast<const unsigned char *>(a.buffers[2]);
        for (uint64_t i = r0; i < r1; i++) {
            if (!out.valid(i - r0))
                continue;
            int64_t b, e;
            if (c.src.offset_bytes == 4) {
                int32_t o[2];
                std::memcpy(o, v + (off + i) * 4, 8);
                b = o[0], e = o[1];
            } else {
                std::memcpy(&b, v + (off + i) * 8, 8);
                std::memcpy(&e, v + (off + i + 1) * 8, 8);
            }
            if (e - b > t.width)
                throw error(VEL_E_ILLEGAL_PARAM, std::string("column '")
                                                     .append(c.name)
                                                     .append("': a text of ")
                                                     .append(std::to_string(e - b))
                                                     .append(" bytes does not fit char(")
                                                     .append(std::to_string(t.width))
                                                     .append(")"));
            std::memcpy(out.values.data() + (i - r0) * t.width, data + b,
                        static_cast<size_t>(e - b));
        }
        return out;
    }
    std::memcpy(out.values.data(), v + (off + r0) * t.width, out.length * t.width);
    if (t.code == VEL_DD_SEQUENCE_DATETIME) {
        auto *p = reinterpret_cast<uint64_t *>(out.values.data());
        for (uint64_t i = 0; i < out.length; i++) {
            int64_t units;
            std::memcpy(&units, &p[i], 8);
            int64_t ns = 0;
            if (out.valid(i) && __builtin_mul_overflow(units, c.src.ns_per_unit, &ns))
                throw error(VEL_E_ILLEGAL_PARAM,
                            std::string("column '")
                                .append(c.name)
                                .append("': a time beyond the nanosecond range (1677..2262)"));
            p[i] = vel_dt_from_ns(ns);
        }
    }
    return out;
}

// The oid of row i of the oid column.
uint64_t oid_at(const in_col &c, const ArrowArray &a, uint64_t i) {
    if (!valid_at(a, i))
        throw error(VEL_E_ILLEGAL_PARAM, "column '" + c.name + "' holds a null");
    const auto *v = static_cast<const unsigned char *>(a.buffers[1]) +
                    (static_cast<uint64_t>(a.offset) + i) * c.src.type.width;
    const bool sign = c.src.type.code >= VEL_DD_SEQUENCE_INT1;
    switch (c.src.type.width) {
    case 1:
        return sign ? uint64_t(int64_t(int8_t(*v))) : *v;
    case 2: {
        uint16_t x;
        std::memcpy(&x, v, 2);
        return sign ? uint64_t(int64_t(int16_t(x))) : x;
    }
    case 4: {
        uint32_t x;
        std::memcpy(&x, v, 4);
        return sign ? uint64_t(int64_t(int32_t(x))) : x;
    }
    default: {
        uint64_t x;
        std::memcpy(&x, v, 8);
        return x;
    }
    }
}

// The columns of the stream's schema, and the table they fill (defined
// here when absent).
std::vector<in_col> match(velh_db_t *db, const velt_import_t &opts, const ArrowSchema &s,
                          const import_hints &hints, table_info &t) {
    if (s.format == nullptr || std::string_view(s.format) != "+s")
        throw error(VEL_E_ILLEGAL_TYPE, "import: the stream's batches are not struct arrays");
    const std::string oid_name = opts.oid_column != nullptr ? opts.oid_column : "oid";
    std::vector<in_col> cols;
    for (int64_t i = 0; i < s.n_children; i++) {
        const ArrowSchema &ch = *s.children[i];
        in_col c;
        c.name = ch.name != nullptr ? ch.name : "";
        const std::optional<source_type> src = source_of(ch.format ? ch.format : "");
        if (!src)
            throw error(VEL_E_ILLEGAL_TYPE, std::string("import: column '")
                                                .append(c.name)
                                                .append("' has Arrow type '")
                                                .append(ch.format ? ch.format : "")
                                                .append("', which no field type holds"));
        c.src = *src;
        if (c.name == oid_name && !oid_name.empty()) {
            if (!is_integer(c.src.type.code))
                throw error(VEL_E_ILLEGAL_TYPE,
                            "import: the object column '" + c.name + "' is not of an integer type");
            c.is_oid = true;
            cols.push_back(c);
            continue;
        }
        c.def.name = c.name;
        c.def.type = c.src.type;
        if (c.def.type.width == 0) {
            const std::string w = arrow::metadata_value(ch.metadata, "velseq.width");
            const auto known = hints.widths.find(c.name);
            c.def.type.width = !w.empty()                    ? static_cast<uint16_t>(std::stoi(w))
                               : known != hints.widths.end() ? known->second
                                                             : opts.char_width;
        }
        const std::string order = arrow::metadata_value(ch.metadata, "velseq.order");
        c.def.order = order == "ascending" || c.name == hints.ascending ? VEL_SEQ_ASC_ORDER
                      : order == "descending"                           ? VEL_SEQ_DESC_ORDER
                                                                        : VEL_SEQ_NO_ORDER;
        c.def.scalar = arrow::metadata_value(ch.metadata, "velseq.scalar") == "1" ||
                       hints.scalars.count(c.name) != 0;
        cols.push_back(c);
    }
    if (std::optional<table_info> found = find_table(db, opts.table)) {
        t = *found;
        for (in_col &c : cols) {
            if (c.is_oid)
                continue;
            c.field = t.field(c.name); // VEL_E_HOST_NO_FIELD for an unknown column
            const column_def &d = t.columns[static_cast<size_t>(c.field)];
            const bool text_in = c.src.offset_bytes != 0 && d.type.code == VEL_DD_SEQUENCE_CHAR;
            if (!(d.type == c.src.type) && !text_in)
                throw error(VEL_E_ILLEGAL_TYPE,
                            "import: column '" + c.name + "' holds " +
                                (c.src.offset_bytes ? std::string("text") : type_name(c.src.type)) +
                                ", field '" + d.name + "' is " + type_name(d.type));
            c.def = d;
        }
        for (const column_def &d : t.columns)
            if (std::none_of(cols.begin(), cols.end(),
                             [&](const in_col &c) { return c.field >= 0 && c.name == d.name; }))
                throw error(VEL_E_ILLEGAL_PARAM,
                            "import: the stream has no column for field '" + d.name + "'");
        return cols;
    }
    // A new table: the time field is the one named, else the first
    // timestamp column, unless the schema's metadata gave orders.
    std::vector<column_def> defs;
    const bool ordered = std::any_of(
        cols.begin(), cols.end(), [](const in_col &c) { return c.def.order != VEL_SEQ_NO_ORDER; });
    bool time_set = ordered;
    for (in_col &c : cols) {
        if (c.is_oid)
            continue;
        if (c.def.type.code == VEL_DD_SEQUENCE_CHAR && c.def.type.width == 0)
            throw error(VEL_E_ILLEGAL_PARAM, "import: give the width of text column '" + c.name +
                                                 "' (char_width) to define its field");
        const bool named = opts.time != nullptr && c.name == opts.time;
        if (named || (!time_set && opts.time == nullptr &&
                      c.def.type.code == VEL_DD_SEQUENCE_DATETIME && !c.def.scalar)) {
            c.def.order = VEL_SEQ_ASC_ORDER;
            time_set = true;
        }
        c.field = static_cast<int>(defs.size());
        defs.push_back(c.def);
    }
    if (opts.time != nullptr && std::none_of(cols.begin(), cols.end(),
                                             [&](const in_col &c) { return c.name == opts.time; }))
        throw error(VEL_E_ILLEGAL_PARAM,
                    std::string("import: no column '").append(opts.time).append("'"));
    t = define_table(db, opts.table, defs);
    return cols;
}

// An object the import writes.
struct target {
    vel_objhandle_t obj{};
    bool scalars_set = false;
};

struct connection {
    vel_db_connection_h con = nullptr;
    ~connection() {
        if (con != nullptr)
            velh_disconnect(con); // rolls back what was not committed
    }
};

} // namespace

uint64_t import_arrow(velh_db_t *db, const velt_import_t &opts, ArrowArrayStream *in,
                      const import_hints &hints) {
    if (in == nullptr || in->release == nullptr)
        throw error(VEL_E_ILLEGAL_PARAM, "import: no stream");
    stream_guard sg{in};
    if (db == nullptr || opts.table == nullptr || *opts.table == '\0')
        throw error(VEL_E_ILLEGAL_PARAM, "import: no database or table");
    schema_guard schema;
    if (const int rc = in->get_schema(in, &schema.s); rc != 0)
        throw error(VEL_E_ILLEGAL_PARAM, "import: the stream's schema: " + stream_error(in, rc));
    table_info t;
    std::vector<in_col> cols = match(db, opts, schema.s, hints, t);
    const auto oid_col =
        std::find_if(cols.begin(), cols.end(), [](const in_col &c) { return c.is_oid; });
    connection con;
    velseq::detail::check(velh_connect(db, &con.con), "connecting for an import");
    velseq::detail::check(velh_begin(con.con, VELH_READ_WRITE), "starting the import");
    std::unordered_map<uint64_t, target> objects;
    uint64_t rows = 0;
    for (;;) {
        array_guard batch;
        if (const int rc = in->get_next(in, &batch.a); rc != 0)
            throw error(rc == ENOMEM ? VEL_E_NOMEM : VEL_E_ILLEGAL_PARAM,
                        "import: the stream's next batch: " + stream_error(in, rc));
        if (batch.a.release == nullptr)
            break;
        const ArrowArray &b = batch.a;
        if (b.n_children != static_cast<int64_t>(cols.size()) || b.length < 0)
            throw error(VEL_E_ILLEGAL_PARAM, "import: a batch of " + std::to_string(b.n_children) +
                                                 " columns, where the schema has " +
                                                 std::to_string(cols.size()));
        const uint64_t n = static_cast<uint64_t>(b.length);
        // Children count from the batch's offset.
        std::vector<ArrowArray> ch(cols.size());
        for (size_t i = 0; i < cols.size(); i++) {
            ch[i] = *b.children[i];
            ch[i].offset += b.offset;
            if (ch[i].length < b.offset + b.length)
                throw error(VEL_E_ILLEGAL_PARAM,
                            "import: column '" + cols[i].name + "' is shorter than its batch");
        }
        const size_t oi = static_cast<size_t>(oid_col - cols.begin());
        for (uint64_t r0 = 0; r0 < n;) {
            // A run of rows of one object.
            const uint64_t oid = oid_col != cols.end() ? oid_at(*oid_col, ch[oi], r0) : 0;
            uint64_t r1 = r0 + 1;
            if (oid_col == cols.end())
                r1 = n;
            else
                while (r1 < n && oid_at(*oid_col, ch[oi], r1) == oid)
                    r1++;
            target &tg = objects[oid];
            if (tg.obj.con == nullptr)
                velseq::detail::check(velh_obj_create(con.con, t.code, &tg.obj),
                                      "creating an object");
            for (size_t i = 0; i < cols.size(); i++) {
                const in_col &c = cols[i];
                if (c.is_oid)
                    continue;
                const uint16_t f = static_cast<uint16_t>(c.field);
                array values = convert(c, ch[i], r0, r1);
                if (!c.def.scalar) {
                    append(column_of(tg.obj, db, t, f), values);
                    continue;
                }
                // A scalar: one value for all the object's rows.
                const size_t w = c.def.type.width;
                if (!tg.scalars_set)
                    set_scalar(tg.obj, t, f,
                               array{c.def.type,
                                     1,
                                     std::vector<unsigned char>(values.values.begin(),
                                                                values.values.begin() + w),
                                     {}});
                const array have = get_scalar(tg.obj, t, f);
                for (uint64_t k = 0; k < values.length; k++)
                    if (!values.valid(k) ||
                        std::memcmp(values.values.data() + k * w, have.values.data(), w) != 0)
                        throw error(VEL_E_ILLEGAL_PARAM, "import: scalar field '" + c.name +
                                                             "' differs between rows of object " +
                                                             std::to_string(oid));
            }
            tg.scalars_set = true;
            rows += r1 - r0;
            r0 = r1;
        }
    }
    velseq::detail::check_logged(velh_commit(con.con), "committing the import");
    return rows;
}

uint64_t import_arrow(velh_db_t *db, const velt_import_t &opts, ArrowArrayStream *in) {
    return import_arrow(db, opts, in, {});
}

} // namespace velseq::table
