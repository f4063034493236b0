// Arrow and Parquet rates: a table exported as an Arrow stream and imported
// back, against a memcpy of the same bytes; written to Parquet and read
// back, against DuckDB's own Parquet round trip of the same table; and
// (with --rows) a large table of three columns written partitioned by
// object and month, whose answers DuckDB reads back and velseq checks.
//
//   build/release/bench/velseq_arrow_bench                 # 10^7 doubles
//   build/release/bench/velseq_arrow_bench --rows 100000000 --dir /tmp/pq
//
// DuckDB's library: $VELSEQ_DUCKDB (scripts/fetch-duckdb.sh).
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "duck.h"
#include "velseq.hpp"
#include "velseq/calendar.hpp"
#include "velseq/table.hpp"

namespace {

using namespace velseq;
namespace fs = std::filesystem;
using clk = std::chrono::steady_clock;

double since(clk::time_point t) { return std::chrono::duration<double>(clk::now() - t).count(); }

template <class F> double best_of(int reps, F &&f) {
    double best = 1e300;
    for (int i = 0; i < reps; i++) {
        const auto t = clk::now();
        f();
        best = std::min(best, since(t));
    }
    return best;
}

config warm(uint64_t bytes) {
    config c;
    c.warm_pages = static_cast<uint32_t>(bytes / 4096 + 1024);
    return c;
}

// Drains a stream, reading one value per batch (what a consumer that
// only looks costs at least); returns the rows.
uint64_t drain(ArrowArrayStream &s) {
    uint64_t rows = 0;
    volatile double sink = 0;
    for (;;) {
        ArrowArray a{};
        if (s.get_next(&s, &a) != 0) {
            std::fprintf(stderr, "stream: %s\n", s.get_last_error(&s));
            std::exit(1);
        }
        if (a.release == nullptr)
            break;
        rows += uint64_t(a.length);
        sink = sink + static_cast<const double *>(a.children[0]->buffers[1])[0];
        a.release(&a);
    }
    s.release(&s);
    return rows;
}

velt_export_t opts(const char *table, uint32_t batch_rows) {
    velt_export_t o;
    velt_export_init(&o);
    o.table = table;
    o.oid_column = "";
    o.batch_rows = batch_rows;
    return o;
}

// A query's answer as text: cells joined by '|', a line a row.
std::string answer(velseq::table::duck &d, const std::string &sql) {
    velseq::table::duck_result r{};
    const std::string text = "SELECT COLUMNS(*)::VARCHAR FROM (" + sql + ")";
    if (d.api.query(d.con, text.c_str(), &r) != 0) {
        const std::string m = d.api.result_error(&r) ? d.api.result_error(&r) : "";
        d.api.destroy_result(&r);
        throw std::runtime_error("DuckDB: " + m + "\n" + sql);
    }
    std::string out;
    for (uint64_t row = 0; row < d.api.row_count(&r); row++) {
        for (uint64_t col = 0; col < d.api.column_count(&r); col++) {
            if (col > 0)
                out += '|';
            char *cell = d.api.value_varchar(&r, col, row);
            out += cell != nullptr ? cell : "NULL";
            d.api.free(cell);
        }
        out += '\n';
    }
    d.api.destroy_result(&r);
    return out;
}

void small(bool duck, const std::string &dir) {
    const uint64_t n = 10000000;
    database db(warm(n * 8 * 10)); // every copy the runs make, on warm pages
    const table::table_info t =
        table::define_table(db.get(), "d", {{"v", *table::type_by_name("double")}});
    std::vector<double> src(n);
    std::mt19937_64 rng(1);
    for (double &v : src)
        v = double(rng() % 1000000) / 8;
    {
        connection con(db);
        transaction tx(con, transaction::write);
        vel_objhandle_t h{};
        velh_obj_create(con.get(), t.code, &h);
        table::array a{t.columns[0].type, n, std::vector<unsigned char>(n * 8), {}};
        std::memcpy(a.values.data(), src.data(), n * 8);
        table::append(table::column_of(h, db.get(), t, 0), a);
        tx.commit();
    }
    std::vector<double> dst(n, 1.0); // warm
    const double mc = best_of(5, [&] { std::memcpy(dst.data(), src.data(), n * 8); });
    std::vector<double> fresh_t;
    const double mc_fresh = best_of(3, [&] {
        std::vector<double> f(n);
        std::memcpy(f.data(), src.data(), n * 8);
        fresh_t.swap(f);
    });
    std::printf("10^7 doubles (80 MB)\n\n| step | time | / memcpy (warm) | / memcpy (fresh) "
                "|\n|---|---|---|---|\n");
    auto row = [&](const char *what, double s) {
        std::printf("| %s | %.1f ms | %.2f | %.2f |\n", what, s * 1e3, s / mc, s / mc_fresh);
    };
    row("memcpy into a warm buffer", mc);
    row("memcpy into a fresh buffer", mc_fresh);
    for (uint32_t br : {0u, 65536u, 1u << 20}) {
        const double s = best_of(5, [&] {
            velt_export_t o = opts("d", br);
            ArrowArrayStream st{};
            velt_export_arrow(db.get(), &o, &st);
            if (drain(st) != n)
                std::exit(1);
        });
        const std::string what = br == 0 ? std::string("Arrow export, a batch per leaf (lent)")
                                         : std::string("Arrow export, batches of ")
                                               .append(std::to_string(br))
                                               .append(" rows (copied)");
        row(what.c_str(), s);
    }
    int k = 0;
    const double imp = best_of(3, [&] {
        velt_export_t o = opts("d", 65536);
        ArrowArrayStream st{};
        velt_export_arrow(db.get(), &o, &st);
        velt_import_t in;
        velt_import_init(&in);
        const std::string name = "copy" + std::to_string(k++);
        in.table = name.c_str();
        uint64_t rows = 0;
        if (velt_import_arrow(db.get(), &in, &st, &rows) != VEL_S_OK || rows != n)
            std::exit(1);
    });
    row("Arrow export + import into a new table", imp);
    if (!duck) {
        std::printf("\n(DuckDB's library not there: Parquet rows left out)\n");
        return;
    }
    {
        velseq::table::duck d;
        for (uint32_t br : {0u, 65536u}) {
            const double s = best_of(3, [&] {
                velt_export_t o = opts("d", br);
                ArrowArrayStream st{};
                velt_export_arrow(db.get(), &o, &st);
                d.api.arrow_scan(d.con, "e", &st);
                answer(d, "SELECT sum(v) FROM e");
                st.release(&st);
                d.run("DROP VIEW e");
            });
            const std::string what =
                std::string("DuckDB's sum() over the stream, ")
                    .append(br == 0 ? "a batch per leaf" : "batches of 65536 rows");
            row(what.c_str(), s);
        }
    }
    const fs::path p = fs::path(dir) / "small";
    int m = 0;
    const double wr = best_of(3, [&] {
        fs::remove_all(p);
        velt_export_t o = opts("d", 65536);
        if (velt_to_parquet(db.get(), &o, p.c_str(), 0) != VEL_S_OK)
            std::exit(1);
    });
    const double rd = best_of(3, [&] {
        velt_import_t in;
        velt_import_init(&in);
        const std::string name = "pq" + std::to_string(m++);
        in.table = name.c_str();
        uint64_t rows = 0;
        if (velt_from_parquet(db.get(), &in, p.c_str(), &rows) != VEL_S_OK || rows != n)
            std::exit(1);
    });
    velseq::table::duck d;
    d.run("CREATE TABLE d AS SELECT (random() * 125000)::DOUBLE AS v FROM range(10000000)");
    const std::string f = (fs::path(dir) / "duck.parquet").string();
    const double dwr = best_of(3, [&] { d.run("COPY d TO '" + f + "' (FORMAT parquet)"); });
    const double drd = best_of(3, [&] {
        d.run("CREATE OR REPLACE TABLE back AS SELECT * FROM read_parquet('" + f + "')");
    });
    std::printf("\n| Parquet, 10^7 doubles | velseq | DuckDB (its own table) | velseq / DuckDB |\n"
                "|---|---|---|---|\n| write | %.0f ms | %.0f ms | %.2f |\n"
                "| read into a table | %.0f ms | %.0f ms | %.2f |\n",
                wr * 1e3, dwr * 1e3, wr / dwr, rd * 1e3, drd * 1e3, rd / drd);
    fs::remove_all(p);
    fs::remove(f);
}

// rows of three columns (time, price, size) over 4 objects and a year,
// written partitioned by object and month; DuckDB's answers per object and
// month checked against velseq's own.
void large(bool duck, uint64_t rows, const std::string &dir) {
    if (!duck) {
        std::printf("DuckDB's library is needed for --rows\n");
        std::exit(1);
    }
    database db;
    const auto ty = [](const char *n) { return *table::type_by_name(n); };
    const table::table_info t = table::define_table(db.get(), "trades",
                                                    {{"time", ty("datetime"), VEL_SEQ_ASC_ORDER},
                                                     {"price", ty("double")},
                                                     {"size", ty("int4")}});
    const int objects = 4;
    const uint64_t per = rows / objects, batch = 1 << 20;
    const int64_t start = 1704067200000000000, span = 365LL * 86400 * 1000000000;
    std::mt19937_64 rng(3);
    std::vector<uint64_t> oids;
    auto t0 = clk::now();
    {
        connection con(db);
        transaction tx(con, transaction::write);
        for (int o = 0; o < objects; o++) {
            vel_objhandle_t h{};
            velh_obj_create(con.get(), t.code, &h);
            oids.push_back(h.oid);
            for (uint64_t at = 0; at < per; at += batch) {
                const uint64_t k = std::min(batch, per - at);
                table::array tm{ty("datetime"), k, std::vector<unsigned char>(k * 8), {}};
                table::array px{ty("double"), k, std::vector<unsigned char>(k * 8), {}};
                table::array sz{ty("int4"), k, std::vector<unsigned char>(k * 4), {}};
                for (uint64_t i = 0; i < k; i++) {
                    const vel_datetime v = vel_dt_from_ns(
                        start + int64_t(double(at + i) / double(per) * double(span)));
                    const double p = double(rng() % 100000) / 4;
                    const int32_t s = int32_t(rng() % 1000);
                    std::memcpy(tm.values.data() + i * 8, &v, 8);
                    std::memcpy(px.values.data() + i * 8, &p, 8);
                    std::memcpy(sz.values.data() + i * 4, &s, 4);
                }
                table::append(table::column_of(h, db.get(), t, 0), tm);
                table::append(table::column_of(h, db.get(), t, 1), px);
                table::append(table::column_of(h, db.get(), t, 2), sz);
            }
        }
        tx.commit();
    }
    std::printf("%" PRIu64 " rows of (time, price, size) in %d objects built in %.1f s\n", rows,
                objects, since(t0));
    const fs::path p = fs::path(dir) / "large";
    fs::remove_all(p);
    velt_export_t o;
    velt_export_init(&o);
    o.table = "trades";
    t0 = clk::now();
    if (velt_to_parquet(db.get(), &o, p.c_str(), VELT_PARTITION_OBJECT | VELT_PARTITION_MONTH) !=
        VEL_S_OK) {
        std::printf("%s\n", velt_error_message());
        std::exit(1);
    }
    const double w = since(t0);
    uint64_t bytes = 0, files = 0;
    for (const auto &e : fs::recursive_directory_iterator(p))
        if (e.is_regular_file())
            bytes += e.file_size(), files++;
    std::printf("written to %" PRIu64 " Parquet files (%.2f GB) in %.1f s: %.1f M rows/s\n", files,
                double(bytes) / 1e9, w, double(rows) / w / 1e6);
    // velseq's answers per object and month.
    std::string ours;
    t0 = clk::now();
    {
        connection con(db);
        transaction tx(con, transaction::read);
        for (uint64_t oid : oids) {
            vel_objhandle_t h{};
            velh_obj_open(con.get(), t.code, oid, &h);
            for (uint16_t f : {1, 2}) {
                const table::buckets b = table::resample(
                    table::column_of(h, db.get(), t, 0), table::column_of(h, db.get(), t, f),
                    calendar::months(), std::nullopt, {"count", "sum", "min", "max"});
                for (uint64_t k = 0; k < b.start.length; k++) {
                    char m[40], line[200];
                    vel_datetime s;
                    std::memcpy(&s, b.start.values.data() + k * 8, 8);
                    vel_dt_format(s, m, sizeof m);
                    double v[4];
                    for (int j = 0; j < 4; j++) {
                        const table::array &a = b.answers[size_t(j)];
                        const unsigned char *q = a.values.data() + k * a.type.width;
                        if (a.type.code == VEL_DD_SEQUENCE_DOUBLE)
                            std::memcpy(&v[j], q, 8);
                        else if (a.type.code == VEL_DD_SEQUENCE_INT4) {
                            int32_t x;
                            std::memcpy(&x, q, 4);
                            v[j] = x;
                        } else {
                            int64_t x;
                            std::memcpy(&x, q, 8);
                            v[j] = double(x);
                        }
                    }
                    std::snprintf(line, sizeof line,
                                  "%" PRIu64 "|%.7s|%d|%.17g|%.17g|%.17g|%.17g\n", oid, m, f, v[0],
                                  v[1], v[2], v[3]);
                    ours += line;
                }
            }
        }
    }
    const double mine = since(t0);
    velseq::table::duck d;
    const std::string files_glob =
        "read_parquet('" + p.string() + "/**/*.parquet', hive_partitioning=true)";
    std::string theirs;
    t0 = clk::now();
    for (const char *col : {"price", "size"}) {
        const std::string f = col[0] == 'p' ? "1" : "2";
        theirs += answer(d, std::string("SELECT oid, month, ") + f + ", printf('%.17g', count(" +
                                col + ")::DOUBLE), printf('%.17g', sum(" + col +
                                ")::DOUBLE), printf('%.17g', min(" + col +
                                ")::DOUBLE), printf('%.17g', max(" + col + ")::DOUBLE) FROM " +
                                files_glob + " GROUP BY ALL ORDER BY ALL");
    }
    const double duck_s = since(t0);
    // Both sorted the same way: by oid, month, then field.
    auto lines = [](const std::string &s) {
        std::vector<std::string> v;
        size_t a = 0;
        for (size_t b; (b = s.find('\n', a)) != std::string::npos; a = b + 1)
            v.push_back(s.substr(a, b - a));
        std::sort(v.begin(), v.end());
        return v;
    };
    const bool equal = lines(ours) == lines(theirs);
    std::printf("answers per object and month (count, sum, min, max of price and size): "
                "velseq %.1f s, DuckDB over the files %.1f s: %s (%zu groups)\n",
                mine, duck_s, equal ? "equal" : "DIFFERENT", lines(ours).size());
    fs::remove_all(p);
    if (!equal)
        std::exit(1);
}

} // namespace

int main(int argc, char **argv) {
    uint64_t rows = 0;
    std::string dir = fs::temp_directory_path().string();
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--rows") == 0)
            rows = std::stoull(argv[i + 1]);
        else if (std::strcmp(argv[i], "--dir") == 0)
            dir = argv[i + 1];
    }
    // The library that scripts/fetch-duckdb.sh unpacks, unless named.
    setenv("VELSEQ_DUCKDB", VELSEQ_DUCKDB_DEFAULT, 0);
    bool duck = true; // the library loads
    try {
        velseq::table::duckdb();
    } catch (const std::exception &) {
        duck = false;
    }
    if (rows > 0)
        large(duck, rows, dir);
    else
        small(duck, dir);
}
