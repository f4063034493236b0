// DuckDB's C library as an independent consumer of what velseq writes,
// loaded at run time from $VELSEQ_DUCKDB, else from where
// scripts/fetch-duckdb.sh puts it (VELSEQ_DUCKDB_DEFAULT, which is then
// set as $VELSEQ_DUCKDB for velseq's own loader and child processes); the
// few functions used are declared with their published signatures.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace duckdb_client {

struct result {
    uint64_t column_count, row_count, rows_changed;
    void *columns;
    char *error_message;
    void *internal_data;
};

struct api {
    int (*open)(const char *, void **);
    void (*close)(void **);
    int (*connect)(void *, void **);
    void (*disconnect)(void **);
    int (*query)(void *, const char *, result *);
    const char *(*error)(result *);
    void (*destroy)(result *);
    char *(*varchar)(result *, uint64_t, uint64_t);
    bool (*is_null)(result *, uint64_t, uint64_t);
    void (*free)(void *);
    int (*arrow_scan)(void *, const char *, void *);
    uint64_t (*row_count)(result *);
    uint64_t (*column_count)(result *);

    // The library, or nullptr when $VELSEQ_DUCKDB does not load.
    static const api *get() {
        static const api *a = []() -> const api * {
            static api x;
#ifdef VELSEQ_DUCKDB_DEFAULT
            setenv("VELSEQ_DUCKDB", VELSEQ_DUCKDB_DEFAULT, 0);
#endif
            const char *path = std::getenv("VELSEQ_DUCKDB");
            void *lib = path != nullptr ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
            if (lib == nullptr)
                return nullptr;
            auto sym = [&](auto &fn, const char *name) {
                void *p = dlsym(lib, name);
                std::memcpy(&fn, &p, sizeof p);
                return p != nullptr;
            };
            const bool ok =
                sym(x.open, "duckdb_open") && sym(x.close, "duckdb_close") &&
                sym(x.connect, "duckdb_connect") && sym(x.disconnect, "duckdb_disconnect") &&
                sym(x.query, "duckdb_query") && sym(x.error, "duckdb_result_error") &&
                sym(x.destroy, "duckdb_destroy_result") && sym(x.varchar, "duckdb_value_varchar") &&
                sym(x.is_null, "duckdb_value_is_null") && sym(x.free, "duckdb_free") &&
                sym(x.arrow_scan, "duckdb_arrow_scan") && sym(x.row_count, "duckdb_row_count") &&
                sym(x.column_count, "duckdb_column_count");
            return ok ? &x : nullptr;
        }();
        return a;
    }
};

// An in-memory database; rows() answers a query as text cells, "NULL" for
// null, one row per line and cells split by '|'.
struct db {
    const api &a;
    void *d = nullptr, *c = nullptr;
    explicit db(const api &x) : a(x) {
        if (a.open(nullptr, &d) != 0 || a.connect(d, &c) != 0)
            throw std::runtime_error("duckdb: cannot open");
    }
    void run(const std::string &sql) {
        result r{};
        const int rc = a.query(c, sql.c_str(), &r);
        const std::string m = rc != 0 ? a.error(&r) : "";
        a.destroy(&r);
        if (rc != 0)
            throw std::runtime_error("duckdb: " + m + "\n" + sql);
    }
    ~db() {
        a.disconnect(&c);
        a.close(&d);
    }
    std::string rows(const std::string &sql) {
        result r{};
        const std::string text = "SELECT COLUMNS(*)::VARCHAR FROM (" + sql + ")";
        if (a.query(c, text.c_str(), &r) != 0) {
            const std::string m = a.error(&r);
            a.destroy(&r);
            throw std::runtime_error("duckdb: " + m + "\n" + sql);
        }
        std::string out;
        const uint64_t nrows = a.row_count(&r), ncols = a.column_count(&r);
        for (uint64_t row = 0; row < nrows; row++) {
            for (uint64_t col = 0; col < ncols; col++) {
                if (col > 0)
                    out += '|';
                if (a.is_null(&r, col, row)) {
                    out += "NULL";
                    continue;
                }
                char *s = a.varchar(&r, col, row);
                out += s;
                a.free(s);
            }
            out += '\n';
        }
        a.destroy(&r);
        return out;
    }
};

} // namespace duckdb_client
