// Tables out through the Arrow C stream and Parquet, read by a consumer
// written elsewhere (DuckDB's C library), and back in: a random table of
// every element type with nulls is kept as a model, the Parquet files that
// DuckDB writes from the exported stream must hold the model row for row,
// and every round trip must give the same values in the same positions.
// Skipped, saying why, without DuckDB's library.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "duck.h"
#include "velseq.hpp"
#include "velseq/datetime.h"
#include "velseq/table.hpp"

namespace {

using namespace velseq;
namespace fs = std::filesystem;
using table::array;
using table::column_type;

const char *const kNames[] = {"int1",  "int2",  "int4",  "int8",   "uint1",  "uint2",
                              "uint4", "uint8", "float", "double", "char(6)"};

// One column of the model: each object's values as an array.
struct model_col {
    table::column_def def;
    std::vector<array> per_object;
};

config small_pages() {
    config c;
    c.seq_page_size = 512; // leaves of different widths end at different rows
    return c;
}

// The SQL literal of value i of `a`.
std::string literal(const array &a, uint64_t i) {
    if (!a.valid(i))
        return "NULL";
    const unsigned char *p = a.values.data() + i * a.type.width;
    auto get = [&](auto v, const char *sql) {
        std::memcpy(&v, p, sizeof v);
        return "(" + std::to_string(v) + ")::" + sql;
    };
    const unsigned c = a.type.code;
    if (c == VEL_DD_SEQUENCE_DATETIME) {
        uint64_t v;
        std::memcpy(&v, p, 8);
        return "make_timestamp_ns(" + std::to_string(vel_dt_to_ns(v)) + ")";
    }
    if (c == VEL_DD_SEQUENCE_CHAR) {
        std::string s(reinterpret_cast<const char *>(p), a.type.width);
        return "'" + s.erase(s.find_last_not_of('\0') + 1) + "'";
    }
    return c == VEL_DD_SEQUENCE_INT1    ? get(int8_t(), "TINYINT")
           : c == VEL_DD_SEQUENCE_INT2  ? get(int16_t(), "SMALLINT")
           : c == VEL_DD_SEQUENCE_INT4  ? get(int32_t(), "INTEGER")
           : c == VEL_DD_SEQUENCE_INT8  ? get(int64_t(), "BIGINT")
           : c == VEL_DD_SEQUENCE_UINT1 ? get(uint8_t(), "UTINYINT")
           : c == VEL_DD_SEQUENCE_UINT2 ? get(uint16_t(), "USMALLINT")
           : c == VEL_DD_SEQUENCE_UINT4 ? get(uint32_t(), "UINTEGER")
           : c == VEL_DD_SEQUENCE_UINT8 ? get(uint64_t(), "UBIGINT")
           : c == VEL_DD_SEQUENCE_FLOAT ? get(float(), "REAL")
                                        : get(double(), "DOUBLE");
}

// DuckDB's library as velseq loads it (from $VELSEQ_DUCKDB, by default where
// scripts/fetch-duckdb.sh puts it), or nullptr when it does not load.
const table::duck_api *duckdb_or_null() {
    setenv("VELSEQ_DUCKDB", VELSEQ_DUCKDB_DEFAULT, 0);
    try {
        return &table::duckdb();
    } catch (const error &) {
        return nullptr;
    }
}

// An in-memory database; rows() answers a query as text cells, "NULL" for
// null, one row per line and cells split by '|'.
struct client : table::duck {
    std::string rows(const std::string &sql) {
        table::duck_result r{};
        const std::string text = "SELECT COLUMNS(*)::VARCHAR FROM (" + sql + ")";
        if (api.query(con, text.c_str(), &r) != 0) {
            const std::string m = api.result_error(&r);
            api.destroy_result(&r);
            throw std::runtime_error("duckdb: " + m + "\n" + sql);
        }
        std::string out;
        for (uint64_t row = 0, n = api.row_count(&r); row < n; row++)
            for (uint64_t col = 0, m = api.column_count(&r); col < m; col++) {
                char *cell = api.value_varchar(&r, col, row); // nullptr: null
                out.append(cell != nullptr ? cell : "NULL").append(col + 1 < m ? "|" : "\n");
                api.free(cell);
            }
        api.destroy_result(&r);
        return out;
    }
};

struct Arrow : ::testing::Test {
    const table::duck_api *duck = duckdb_or_null();
    database db{small_pages()};
    table::table_info t;
    std::vector<model_col> cols;
    std::vector<uint64_t> oids;
    std::vector<array> venue; // the scalar field, per object
    std::mt19937_64 rng{7};

    void SetUp() override {
        if (duck == nullptr)
            GTEST_SKIP() << "DuckDB's library is not there (VELSEQ_DUCKDB="
                         << (std::getenv("VELSEQ_DUCKDB") ? std::getenv("VELSEQ_DUCKDB") : "")
                         << "): run scripts/fetch-duckdb.sh";
        cols.push_back({{"time", *table::type_by_name("datetime"), VEL_SEQ_ASC_ORDER}, {}});
        for (const char *n : kNames)
            cols.push_back({{std::string("c_") + n, *table::type_by_name(n)}, {}});
        cols.back().def.name = "sym";
        std::vector<table::column_def> defs;
        for (const model_col &c : cols)
            defs.push_back(c.def);
        defs.push_back({"venue", *table::type_by_name("char(8)"), VEL_SEQ_NO_ORDER, true});
        t = table::define_table(db.get(), "ticks", defs);
        connection con(db);
        ASSERT_EQ(velh_begin(con.get(), VELH_READ_WRITE), VEL_S_OK);
        // Three months of times; an object with no row in the middle.
        for (uint64_t rows : {700u, 0u, 1900u}) {
            vel_objhandle_t h{};
            ASSERT_EQ(velh_obj_create(con.get(), t.code, &h), VEL_S_OK);
            oids.push_back(h.oid);
            array v{{VEL_DD_SEQUENCE_CHAR, 8}, 1, std::vector<unsigned char>(8, 0), {}};
            v.values[0] = static_cast<unsigned char>('A' + oids.size());
            table::set_scalar(h, t, uint16_t(cols.size()), v);
            venue.push_back(v);
            int64_t ns = 1704067200000000000 + int64_t(rng() % 1000); // 2024-01-01
            for (size_t c = 0; c < cols.size(); c++) {
                array a{cols[c].def.type,
                        rows,
                        std::vector<unsigned char>(rows * cols[c].def.type.width),
                        {}};
                for (uint64_t i = 0; i < rows; i++) {
                    unsigned char *p = a.values.data() + i * a.type.width;
                    const uint64_t r = rng();
                    if (c == 0) {
                        ns += r % 8 == 0 ? 0 : int64_t(rng() % 8000000000000); // ties too
                        const vel_datetime d = vel_dt_from_ns(ns);
                        std::memcpy(p, &d, 8);
                        continue;
                    }
                    if (r % 9 == 0) {
                        if (a.validity.empty())
                            a.validity.assign((rows + 7) / 8, 0xFF);
                        a.validity[i / 8] = uint8_t(a.validity[i / 8] & ~(1u << (i % 8)));
                        continue;
                    }
                    if (a.type.code == VEL_DD_SEQUENCE_FLOAT) {
                        const float f = float(int(r % 4001) - 2000) / 4;
                        std::memcpy(p, &f, 4);
                    } else if (a.type.code == VEL_DD_SEQUENCE_DOUBLE) {
                        const double f = double(int64_t(r % 400001) - 200000) / 4;
                        std::memcpy(p, &f, 8);
                    } else if (a.type.code == VEL_DD_SEQUENCE_CHAR) {
                        static const char *const kText[] = {"", "a", "zz", "é", "abcdef", "x y"};
                        const char *s = kText[r % 6];
                        std::memcpy(p, s, std::strlen(s));
                    } else {
                        std::memcpy(p, &r, a.type.width); // the whole range of the type
                    }
                }
                table::append(table::column_of(h, db.get(), t, uint16_t(c)), a);
                cols[c].per_object.push_back(a);
            }
        }
        ASSERT_EQ(velh_commit(con.get()), VEL_S_OK);
    }

    // The model as a DuckDB table.
    void load_model(client &d) {
        std::string sql = "CREATE TABLE model AS SELECT * FROM (VALUES ";
        bool first = true;
        for (size_t o = 0; o < oids.size(); o++)
            for (uint64_t i = 0; i < cols[0].per_object[o].length; i++) {
                sql += first ? "(" : ", (";
                first = false;
                sql += std::to_string(oids[o]) + "::UBIGINT";
                for (const model_col &c : cols)
                    sql += ", " + literal(c.per_object[o], i);
                sql += ", " + literal(venue[o], 0) + ")";
            }
        sql += ") v(oid";
        for (const model_col &c : cols)
            sql += ", " + c.def.name;
        d.run(sql + ", venue)");
    }

    // Every field of every object of table `name` equals the model's, the
    // objects taken in the export's order.
    void expect_equal_to_model(const std::string &name) {
        const table::table_info u = *table::find_table(db.get(), name);
        connection con(db);
        ASSERT_EQ(velh_begin(con.get(), VELH_READ_ONLY), VEL_S_OK);
        vel_trans_h tr = &con.get()->trans;
        vel_cursor_t cur;
        ASSERT_EQ(vel_w_list_cursor(tr, u.code, &cur), VEL_S_OK);
        size_t o = 0;
        for (VEL_RET rc = vel_cursor_first(tr, &cur); rc == VEL_S_OK;
             rc = vel_cursor_next(tr, &cur)) {
            while (o < oids.size() && cols[0].per_object[o].length == 0)
                o++; // objects without rows have no rows to export
            ASSERT_LT(o, oids.size());
            vel_objhandle_t h{};
            ASSERT_EQ(vel_w_obj_from_cursor(tr, &cur, u.code, &h), VEL_S_OK);
            for (size_t c = 0; c < cols.size(); c++) {
                const array &want = cols[c].per_object[o];
                const array got = table::read(
                    table::column_of(h, db.get(), u, u.field(cols[c].def.name)), 0,
                    table::count(table::column_of(h, db.get(), u, u.field(cols[c].def.name))));
                ASSERT_EQ(got.length, want.length) << name << " " << cols[c].def.name;
                for (uint64_t i = 0; i < want.length; i++)
                    ASSERT_EQ(literal(got, i), literal(want, i))
                        << name << " " << cols[c].def.name << " row " << i;
            }
            EXPECT_EQ(literal(table::get_scalar(h, u, u.field("venue")), 0), literal(venue[o], 0));
            o++;
        }
        while (o < oids.size() && cols[0].per_object[o].length == 0)
            o++;
        EXPECT_EQ(o, oids.size()) << name << ": objects missing";
    }

    velt_export_t options(uint32_t batch_rows = 0) const {
        velt_export_t o;
        velt_export_init(&o);
        o.table = "ticks";
        o.batch_rows = batch_rows;
        o.naive_time = 1; // DuckDB keeps nanoseconds only without a zone
        return o;
    }
};

TEST_F(Arrow, RoundTripsKeepEveryValueInItsPosition) {
    // Arrow: the default export (utf8 text, times with their zone) into a
    // table defined from the stream's schema.
    velt_export_t o = options(50);
    o.naive_time = 0;
    ArrowArrayStream s{};
    ASSERT_EQ(velt_export_arrow(db.get(), &o, &s), VEL_S_OK) << velt_error_message();
    velt_import_t in;
    velt_import_init(&in);
    in.table = "copy";
    uint64_t rows = 0;
    ASSERT_EQ(velt_import_arrow(db.get(), &in, &s, &rows), VEL_S_OK) << velt_error_message();
    EXPECT_EQ(s.release, nullptr);
    EXPECT_EQ(rows, 2600u);
    expect_equal_to_model("copy");
    const table::table_info c = *table::find_table(db.get(), "copy");
    EXPECT_EQ(c.columns[c.field("time")].order, VEL_SEQ_ASC_ORDER);
    EXPECT_TRUE(c.columns[c.field("venue")].scalar);

    // Text as fixed-size binary: bytes as they are.
    o.char_as_binary = 1;
    in.table = "copyb";
    ASSERT_EQ(velt_export_arrow(db.get(), &o, &s), VEL_S_OK);
    ASSERT_EQ(velt_import_arrow(db.get(), &in, &s, &rows), VEL_S_OK) << velt_error_message();
    expect_equal_to_model("copyb");

    // Parquet, by object and month: DuckDB reads the folder as one table,
    // and it comes back whole.
    const fs::path dir = fs::temp_directory_path() / ("velseq-arrow-" + std::to_string(getpid()));
    fs::remove_all(dir);
    velt_export_t po = options();
    ASSERT_EQ(
        velt_to_parquet(db.get(), &po, dir.c_str(), VELT_PARTITION_OBJECT | VELT_PARTITION_MONTH),
        VEL_S_OK)
        << velt_error_message();
    EXPECT_TRUE(
        fs::exists(dir / ("oid=" + std::to_string(oids[2])) / "month=2024-02" / "data.parquet"));
    client d;
    load_model(d);
    const std::string files =
        "read_parquet('" + dir.string() + "/**/*.parquet', hive_partitioning=true)";
    EXPECT_EQ(d.rows("SELECT * EXCLUDE (month) REPLACE (oid::UBIGINT AS oid) FROM " + files +
                     " EXCEPT ALL SELECT * FROM model"),
              "");
    EXPECT_EQ(d.rows("SELECT count(*) FROM " + files), d.rows("SELECT count(*) FROM model"));
    EXPECT_EQ(velt_to_parquet(db.get(), &po, dir.c_str(), 0), VEL_E_HOST_IO); // not empty
    in.table = "back";
    ASSERT_EQ(velt_from_parquet(db.get(), &in, dir.c_str(), &rows), VEL_S_OK)
        << velt_error_message();
    EXPECT_EQ(rows, 2600u);
    expect_equal_to_model("back");
    fs::remove_all(dir);
}

// What an import or export cannot take is refused whole, and says why.
TEST_F(Arrow, RefusalsChangeNothing) {
    auto import = [&](const char *table, velt_export_t o,
                      const std::function<void(ArrowArrayStream &)> &spoil) {
        ArrowArrayStream s{};
        EXPECT_EQ(velt_export_arrow(db.get(), &o, &s), VEL_S_OK);
        spoil(s);
        velt_import_t in;
        velt_import_init(&in);
        in.table = table;
        return velt_import_arrow(db.get(), &in, &s, nullptr);
    };
    // The stream's objects in reverse order, into one object: times go back.
    velt_export_t o = options(64);
    o.oid_column = "";
    const uint64_t rev[] = {oids[2], oids[0]};
    o.oids = rev;
    o.n_oids = 2;
    EXPECT_EQ(import("ticks2", o, [](ArrowArrayStream &) {}), VEL_E_SEQ_OUT_OF_ORDER);
    connection con(db);
    ASSERT_EQ(velh_begin(con.get(), VELH_READ_ONLY), VEL_S_OK);
    uint64_t n = 1;
    EXPECT_EQ(velh_obj_count(con.get(), table::find_table(db.get(), "ticks2")->code, &n), VEL_S_OK);
    EXPECT_EQ(n, 0u); // the batches before the refused one are gone too
    velh_rollback(con.get());
    // Into the source table itself: fine; then text wider than the field.
    o = options();
    EXPECT_EQ(import("ticks", o, [](ArrowArrayStream &) {}), VEL_S_OK);
    table::define_table(db.get(), "narrow",
                        {{"time", *table::type_by_name("datetime"), VEL_SEQ_ASC_ORDER},
                         {"sym", *table::type_by_name("char(2)")}});
    velt_export_t some = options();
    const char *const names[] = {"time", "sym"};
    some.columns = names;
    some.n_columns = 2;
    some.oid_column = "";
    EXPECT_EQ(import("narrow", some, [](ArrowArrayStream &) {}), VEL_E_ILLEGAL_PARAM);
    EXPECT_NE(std::string(velt_error_message()).find("does not fit char(2)"), std::string::npos);
    // Pages that cannot be had, each in turn: the import fails whole.
    for (uint64_t nth : {1u, 7u, 40u}) {
        velh_fail_page_alloc(db.get(), nth, 0);
        const VEL_RET rc = import("ticks4", options(), [](ArrowArrayStream &) {});
        velh_fail_page_alloc(db.get(), 0, 0);
        EXPECT_TRUE(rc == VEL_E_NOMEM || rc == VEL_E_HOST_TRANS_FAILED) << rc;
        ASSERT_EQ(velh_begin(con.get(), VELH_READ_ONLY), VEL_S_OK);
        EXPECT_EQ(velh_obj_count(con.get(), table::find_table(db.get(), "ticks4")->code, &n),
                  VEL_S_OK);
        EXPECT_EQ(n, 0u) << nth;
        velh_rollback(con.get());
    }
    // A stream that fails half-way.
    EXPECT_EQ(import("ticks3", options(10),
                     [](ArrowArrayStream &s) {
                         static int (*next)(ArrowArrayStream *, ArrowArray *);
                         static int calls;
                         next = s.get_next;
                         calls = 0;
                         s.get_next = [](ArrowArrayStream *st, ArrowArray *out) {
                             return ++calls == 5 ? EIO : next(st, out);
                         };
                     }),
              VEL_E_ILLEGAL_PARAM);
    // Exports: unknown fields and objects, a time window backwards.
    velt_export_t bad = options();
    const char *const unknown[] = {"nope"};
    bad.columns = unknown;
    bad.n_columns = 1;
    ArrowArrayStream s{};
    EXPECT_EQ(velt_export_arrow(db.get(), &bad, &s), VEL_E_HOST_NO_FIELD);
    EXPECT_EQ(s.release, nullptr);
    bad = options();
    const uint64_t none[] = {999999};
    bad.oids = none;
    bad.n_oids = 1;
    EXPECT_EQ(velt_export_arrow(db.get(), &bad, &s), VEL_E_HOST_NO_OBJECT);
    bad = options();
    bad.by_time = 1;
    bad.from = 2, bad.to = 1;
    EXPECT_EQ(velt_export_arrow(db.get(), &bad, &s), VEL_E_ILLEGAL_PARAM);
}

} // namespace
