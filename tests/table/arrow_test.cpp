// Tables out through the Arrow C stream and Parquet, read by a consumer
// written elsewhere (DuckDB's C library), and back in: a random table of
// every element type with nulls is kept as a model, the Parquet files that
// DuckDB writes from the exported stream must hold the model row for row,
// and so must the tables every round trip makes.
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

const char *const kNames[] = {"int1",  "int2",  "int4",  "int8",   "uint1",  "uint2",
                              "uint4", "uint8", "float", "double", "char(6)"};

struct Arrow : ::testing::Test {
    // DuckDB's library as velseq loads it (from $VELSEQ_DUCKDB, by default
    // where scripts/fetch-duckdb.sh puts it), or nullptr when it does not.
    const table::duck_api *duck = []() -> const table::duck_api * {
        setenv("VELSEQ_DUCKDB", VELSEQ_DUCKDB_DEFAULT, 0);
        try {
            return &table::duckdb();
        } catch (const error &) {
            return nullptr;
        }
    }();
    database db{[] {
        config c;
        c.seq_page_size = 512; // leaves of different widths end at different rows
        return c;
    }()};
    std::vector<uint64_t> oids;
    std::string model = "CREATE TABLE model AS SELECT * FROM (VALUES "; // DuckDB's copy
    std::mt19937_64 rng{7};

    // Draws value i of `a` and gives its SQL literal: null one time in nine,
    // integers over their type's whole range, floats SQL prints exactly,
    // text up to the field's width, times ascending with ties (never null).
    std::string draw(array &a, uint64_t i, int64_t &ns) {
        unsigned char *p = a.values.data() + i * a.type.width;
        const uint64_t r = rng();
        auto put = [&](auto v, const char *sql) {
            std::memcpy(p, &v, sizeof v);
            return "(" + std::to_string(v) + ")::" + sql;
        };
        const unsigned c = a.type.code;
        if (c == VEL_DD_SEQUENCE_DATETIME) {
            ns += r % 8 == 0 ? 0 : int64_t(rng() % 8000000000000);
            put(vel_dt_from_ns(ns), "");
            return "make_timestamp_ns(" + std::to_string(ns) + ")";
        }
        if (r % 9 == 0) {
            if (a.validity.empty())
                a.validity.assign((a.length + 7) / 8, 0xFF);
            a.validity[i / 8] = uint8_t(a.validity[i / 8] & ~(1u << (i % 8)));
            return "NULL";
        }
        if (c == VEL_DD_SEQUENCE_CHAR) {
            static const char *const kText[] = {"", "a", "zz", "é", "abcdef", "x y"};
            std::memcpy(p, kText[r % 6], std::strlen(kText[r % 6]));
            return std::string("'") + kText[r % 6] + "'";
        }
        return c == VEL_DD_SEQUENCE_INT1    ? put(int8_t(r), "TINYINT")
               : c == VEL_DD_SEQUENCE_INT2  ? put(int16_t(r), "SMALLINT")
               : c == VEL_DD_SEQUENCE_INT4  ? put(int32_t(r), "INTEGER")
               : c == VEL_DD_SEQUENCE_INT8  ? put(int64_t(r), "BIGINT")
               : c == VEL_DD_SEQUENCE_UINT1 ? put(uint8_t(r), "UTINYINT")
               : c == VEL_DD_SEQUENCE_UINT2 ? put(uint16_t(r), "USMALLINT")
               : c == VEL_DD_SEQUENCE_UINT4 ? put(uint32_t(r), "UINTEGER")
               : c == VEL_DD_SEQUENCE_UINT8 ? put(uint64_t(r), "UBIGINT")
               : c == VEL_DD_SEQUENCE_FLOAT
                   ? put(float(int(r % 4001) - 2000) / 4, "REAL")
                   : put(double(int64_t(r % 400001) - 200000) / 4, "DOUBLE");
    }

    void SetUp() override {
        if (duck == nullptr)
            GTEST_SKIP() << "DuckDB's library is not there (VELSEQ_DUCKDB="
                         << (std::getenv("VELSEQ_DUCKDB") ? std::getenv("VELSEQ_DUCKDB") : "")
                         << "): run scripts/fetch-duckdb.sh";
        std::vector<table::column_def> defs{
            {"time", *table::type_by_name("datetime"), VEL_SEQ_ASC_ORDER}};
        for (const char *n : kNames)
            defs.push_back({std::string("c_") + n, *table::type_by_name(n)});
        defs.back().name = "sym";
        const size_t n_seq = defs.size();
        defs.push_back({"venue", *table::type_by_name("char(8)"), VEL_SEQ_NO_ORDER, true});
        const table::table_info t = table::define_table(db.get(), "ticks", defs);
        connection con(db);
        ASSERT_EQ(velh_begin(con.get(), VELH_READ_WRITE), VEL_S_OK);
        // Three months of times; an object with no row in the middle.
        for (uint64_t rows : {700u, 0u, 1900u}) {
            vel_objhandle_t h{};
            ASSERT_EQ(velh_obj_create(con.get(), t.code, &h), VEL_S_OK);
            oids.push_back(h.oid);
            array venue{{VEL_DD_SEQUENCE_CHAR, 8}, 1, std::vector<unsigned char>(8, 0), {}};
            venue.values[0] = static_cast<unsigned char>('A' + oids.size());
            table::set_scalar(h, t, uint16_t(n_seq), venue);
            std::vector<array> cols(n_seq);
            for (size_t c = 0; c < n_seq; c++)
                cols[c] = {
                    defs[c].type, rows, std::vector<unsigned char>(rows * defs[c].type.width), {}};
            int64_t ns = 1704067200000000000 + int64_t(rng() % 1000); // 2024-01-01
            for (uint64_t i = 0; i < rows; i++) {
                model += (model.back() == ' ' ? "(" : ", (") + std::to_string(h.oid) + "::UBIGINT";
                for (array &a : cols)
                    model += ", " + draw(a, i, ns);
                model += std::string(", '") + char(venue.values[0]) + "')";
            }
            for (size_t c = 0; c < n_seq; c++)
                table::append(table::column_of(h, db.get(), t, uint16_t(c)), cols[c]);
        }
        ASSERT_EQ(velh_commit(con.get()), VEL_S_OK);
        model += ") v(oid";
        for (const table::column_def &d : defs)
            model += ", " + d.name;
        model += ")";
    }

    // DuckDB reads the model's rows (`theirs` of each) from the Parquet files
    // under `dir` (`mine` of each); else its query fails, naming the first
    // rows that are not the model's, or their count.
    void expect_rows(table::duck &d, const fs::path &dir, const std::string &mine,
                     const std::string &theirs) {
        const std::string files =
            "read_parquet('" + dir.string() + "/**/*.parquet', hive_partitioning=true)";
        EXPECT_NO_THROW(d.run("SELECT error('not the model: ' || string_agg(x::VARCHAR, '; ')) "
                              "FROM (SELECT " +
                              mine + " FROM " + files + " EXCEPT ALL SELECT " + theirs +
                              " FROM model LIMIT 3) x "
                              "HAVING count(*) > 0"))
            << dir;
        EXPECT_NO_THROW(d.run("SELECT error(count(*)::VARCHAR || ' rows') FROM " + files +
                              " HAVING count(*) <> 2600"))
            << dir;
    }

    // Table `name`, written to Parquet, holds the model's rows, oids aside:
    // an import makes objects of its own.
    void expect_model_rows(table::duck &d, const fs::path &dir, const char *name) {
        velt_export_t o = options();
        o.table = name;
        ASSERT_EQ(velt_to_parquet(db.get(), &o, (dir / name).c_str(), 0), VEL_S_OK)
            << velt_error_message();
        expect_rows(d, dir / name, "* EXCLUDE (oid)", "* EXCLUDE (oid)");
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

TEST_F(Arrow, RoundTripsKeepEveryRow) {
    table::duck d;
    d.run(model);
    const fs::path dir = fs::temp_directory_path() / ("velseq-arrow-" + std::to_string(getpid()));
    fs::remove_all(dir);
    // Parquet, by object and month: DuckDB reads the folder as one table.
    velt_export_t po = options();
    const fs::path parts = dir / "ticks";
    ASSERT_EQ(
        velt_to_parquet(db.get(), &po, parts.c_str(), VELT_PARTITION_OBJECT | VELT_PARTITION_MONTH),
        VEL_S_OK)
        << velt_error_message();
    EXPECT_TRUE(
        fs::exists(parts / ("oid=" + std::to_string(oids[2])) / "month=2024-02" / "data.parquet"));
    expect_rows(d, parts, "* EXCLUDE (month) REPLACE (oid::UBIGINT AS oid)", "*");
    EXPECT_EQ(velt_to_parquet(db.get(), &po, parts.c_str(), 0), VEL_E_HOST_IO); // not empty

    // And back: from those files; from the default Arrow export (utf8 text,
    // times with their zone) into a table defined from the stream's schema;
    // with text as fixed-size binary (bytes as they are).
    velt_import_t in;
    velt_import_init(&in);
    in.table = "back";
    uint64_t rows = 0;
    ASSERT_EQ(velt_from_parquet(db.get(), &in, parts.c_str(), &rows), VEL_S_OK)
        << velt_error_message();
    EXPECT_EQ(rows, 2600u);
    expect_model_rows(d, dir, "back");
    velt_export_t o = options(50);
    o.naive_time = 0;
    for (const char *copy : {"copy", "copyb"}) {
        ArrowArrayStream s{};
        ASSERT_EQ(velt_export_arrow(db.get(), &o, &s), VEL_S_OK) << velt_error_message();
        in.table = copy;
        ASSERT_EQ(velt_import_arrow(db.get(), &in, &s, &rows), VEL_S_OK) << velt_error_message();
        EXPECT_EQ(s.release, nullptr);
        EXPECT_EQ(rows, 2600u);
        expect_model_rows(d, dir, copy);
        o.char_as_binary = 1;
    }
    const table::table_info c = *table::find_table(db.get(), "copy");
    EXPECT_EQ(c.columns[c.field("time")].order, VEL_SEQ_ASC_ORDER);
    EXPECT_TRUE(c.columns[c.field("venue")].scalar);
    fs::remove_all(dir);
}

// What an import or export cannot take is refused whole, and says why.
TEST_F(Arrow, RefusalsChangeNothing) {
    auto import = [&](const char *table, velt_export_t o) {
        ArrowArrayStream s{};
        EXPECT_EQ(velt_export_arrow(db.get(), &o, &s), VEL_S_OK);
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
    connection con(db);
    auto objects = [&](const char *table) {
        uint64_t n = 1;
        EXPECT_EQ(velh_begin(con.get(), VELH_READ_ONLY), VEL_S_OK);
        EXPECT_EQ(velh_obj_count(con.get(), table::find_table(db.get(), table)->code, &n),
                  VEL_S_OK);
        velh_rollback(con.get());
        return n;
    };
    EXPECT_EQ(import("ticks2", o), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(objects("ticks2"), 0u); // the batches before the refused one are gone too
    // Into the source table itself: fine; then text wider than the field.
    o = options();
    EXPECT_EQ(import("ticks", o), VEL_S_OK);
    table::define_table(db.get(), "narrow",
                        {{"time", *table::type_by_name("datetime"), VEL_SEQ_ASC_ORDER},
                         {"sym", *table::type_by_name("char(2)")}});
    velt_export_t some = options();
    const char *const names[] = {"time", "sym"};
    some.columns = names;
    some.n_columns = 2;
    some.oid_column = "";
    EXPECT_EQ(import("narrow", some), VEL_E_ILLEGAL_PARAM);
    EXPECT_NE(std::string(velt_error_message()).find("does not fit char(2)"), std::string::npos);
    // Pages that cannot be had, each in turn: the import fails whole.
    for (uint64_t nth : {1u, 7u, 40u}) {
        velh_fail_page_alloc(db.get(), nth, 0);
        const VEL_RET rc = import("ticks4", options());
        velh_fail_page_alloc(db.get(), 0, 0);
        EXPECT_TRUE(rc == VEL_E_NOMEM || rc == VEL_E_HOST_TRANS_FAILED) << rc;
        EXPECT_EQ(objects("ticks4"), 0u) << nth;
    }
    // Exports: unknown fields and objects, a time window backwards.
    const char *const unknown[] = {"nope"};
    const uint64_t none[] = {999999};
    const std::pair<VEL_RET, std::function<void(velt_export_t &)>> exports[] = {
        {VEL_E_HOST_NO_FIELD, [&](velt_export_t &e) { e.columns = unknown, e.n_columns = 1; }},
        {VEL_E_HOST_NO_OBJECT, [&](velt_export_t &e) { e.oids = none, e.n_oids = 1; }},
        {VEL_E_ILLEGAL_PARAM, [](velt_export_t &e) { e.by_time = 1, e.from = 2, e.to = 1; }}};
    for (const auto &[code, spoil] : exports) {
        velt_export_t bad = options();
        spoil(bad);
        ArrowArrayStream s{};
        EXPECT_EQ(velt_export_arrow(db.get(), &bad, &s), code);
        EXPECT_EQ(s.release, nullptr);
    }
}

} // namespace
