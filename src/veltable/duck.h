// DuckDB's C library, loaded at the first call (dlopen) so that nothing of
// it is needed to build or to run without Parquet.  Only the C functions
// called are declared, with their published signatures (handles are opaque
// pointers).  The Parquet writer and reader use it, and so do the tests
// that read what the exports write.
#pragma once

#include <cstdint>
#include <string>

#include "velseq/arrow.h"
#include "velseq/error.hpp"
#include "velseq/table.hpp"

namespace velseq::table {

// duckdb_result as the C API lays it out (all but internal_data deprecated).
struct duck_result {
    uint64_t column_count, row_count, rows_changed;
    void *columns;
    char *error_message;
    void *internal_data;
};

struct duck_api {
    int (*open)(const char *, void **);
    void (*close)(void **);
    int (*connect)(void *, void **);
    void (*disconnect)(void **);
    int (*query)(void *, const char *, duck_result *);
    const char *(*result_error)(duck_result *);
    void (*destroy_result)(duck_result *);
    int (*arrow_scan)(void *, const char *, void *);
    int (*prepare)(void *, const char *, void **);
    const char *(*prepare_error)(void *);
    void (*destroy_prepare)(void **);
    int (*execute_streaming)(void *, duck_result *);
    void *(*fetch_chunk)(duck_result);
    void (*destroy_chunk)(void **);
    void *(*arrow_options)(duck_result *);
    void (*destroy_arrow_options)(void **);
    uint64_t (*column_count)(duck_result *);
    const char *(*column_name)(duck_result *, uint64_t);
    void *(*column_type)(duck_result *, uint64_t);
    void (*destroy_type)(void **);
    void *(*to_arrow_schema)(void *, void **, const char **, uint64_t, ArrowSchema *);
    void *(*chunk_to_arrow)(void *, void *, ArrowArray *);
    bool (*has_error)(void *);
    const char *(*error_message)(void *);
    void (*destroy_error)(void **);
    int64_t (*value_int64)(duck_result *, uint64_t, uint64_t);
    char *(*value_varchar)(duck_result *, uint64_t, uint64_t);
    uint64_t (*row_count)(duck_result *);
    void (*free)(void *);
};

// The library as $VELSEQ_DUCKDB names it (else libduckdb.so), loaded once;
// throws VELT_E_UNAVAILABLE, saying how to get it, when it does not load or
// lacks a function.
const duck_api &duckdb();

// An in-memory DuckDB with one connection.
struct duck {
    const duck_api &api = duckdb();
    void *db = nullptr, *con = nullptr;
    duck() {
        if (api.open(nullptr, &db) != 0)
            throw error(VEL_E_NOMEM, "DuckDB: cannot open an in-memory database");
        if (api.connect(db, &con) != 0) {
            api.close(&db);
            throw error(VEL_E_NOMEM, "DuckDB: cannot connect");
        }
    }
    duck(const duck &) = delete;
    duck &operator=(const duck &) = delete;
    ~duck() {
        api.disconnect(&con);
        api.close(&db);
    }
    void run(const std::string &sql) {
        duck_result r{};
        const int rc = api.query(con, sql.c_str(), &r);
        const std::string msg = rc != 0 && api.result_error(&r) ? api.result_error(&r) : "";
        api.destroy_result(&r);
        if (rc != 0)
            throw error(VEL_E_HOST_IO, std::string("DuckDB: ").append(msg));
    }
};

} // namespace velseq::table
