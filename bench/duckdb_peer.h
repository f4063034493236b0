// DuckDB as a peer in the ratio benchmark, loaded at run time from the
// shared library that scripts/fetch-duckdb.sh unpacks (or $VELSEQ_DUCKDB),
// so that nothing of it is needed to build.  Only the few C API functions
// the benchmark calls are declared here, with their documented signatures;
// the handles are opaque pointers.  When the library is absent the DuckDB
// cases are not registered at all.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

namespace duck {

using handle = void *;
using idx_t = uint64_t;
enum state_t : int { ok = 0, error = 1 };

// duckdb_result as the C API lays it out (all but internal_data deprecated).
struct result {
    idx_t column_count, row_count, rows_changed;
    void *columns;
    char *error_message;
    void *internal_data;
};

struct api {
    void *lib = nullptr;
    state_t (*open)(const char *, handle *);
    void (*close)(handle *);
    state_t (*connect)(handle, handle *);
    void (*disconnect)(handle *);
    state_t (*query)(handle, const char *, result *);
    void (*destroy_result)(result *);
    const char *(*result_error)(result *);
    int64_t (*value_int64)(result *, idx_t, idx_t);
    handle (*fetch_chunk)(result);
    idx_t (*chunk_size)(handle);
    handle (*chunk_vector)(handle, idx_t);
    void *(*vector_data)(handle);
    void (*destroy_chunk)(handle *);
    state_t (*appender_create)(handle, const char *, const char *, handle *);
    state_t (*append_int32)(handle, int32_t);
    state_t (*append_int64)(handle, int64_t);
    state_t (*end_row)(handle);
    state_t (*appender_flush)(handle);
    state_t (*appender_destroy)(handle *);
    state_t (*prepare)(handle, const char *, handle *);
    state_t (*bind_int64)(handle, idx_t, int64_t);
    state_t (*execute_prepared)(handle, result *);
    state_t (*execute_streaming)(handle, result *);
    void (*destroy_prepare)(handle *);

    // The library, or nullptr when it cannot be loaded.
    static const api *get() {
        static api a;
        static const bool loaded = a.load();
        return loaded ? &a : nullptr;
    }

  private:
    template <class F> bool sym(F &f, const char *name) {
        f = reinterpret_cast<F>(dlsym(lib, name));
        return f != nullptr;
    }
    bool load() {
        const char *env = std::getenv("VELSEQ_DUCKDB");
        const std::string path = env ? env : "build/duckdb/package/libduckdb.so";
        lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            return false;
        return sym(open, "duckdb_open") && sym(close, "duckdb_close") &&
               sym(connect, "duckdb_connect") && sym(disconnect, "duckdb_disconnect") &&
               sym(query, "duckdb_query") && sym(destroy_result, "duckdb_destroy_result") &&
               sym(result_error, "duckdb_result_error") && sym(value_int64, "duckdb_value_int64") &&
               sym(fetch_chunk, "duckdb_fetch_chunk") &&
               sym(chunk_size, "duckdb_data_chunk_get_size") &&
               sym(chunk_vector, "duckdb_data_chunk_get_vector") &&
               sym(vector_data, "duckdb_vector_get_data") &&
               sym(destroy_chunk, "duckdb_destroy_data_chunk") &&
               sym(appender_create, "duckdb_appender_create") &&
               sym(append_int32, "duckdb_append_int32") &&
               sym(append_int64, "duckdb_append_int64") &&
               sym(end_row, "duckdb_appender_end_row") &&
               sym(appender_flush, "duckdb_appender_flush") &&
               sym(appender_destroy, "duckdb_appender_destroy") && sym(prepare, "duckdb_prepare") &&
               sym(bind_int64, "duckdb_bind_int64") &&
               sym(execute_prepared, "duckdb_execute_prepared") &&
               sym(execute_streaming, "duckdb_execute_prepared_streaming") &&
               sym(destroy_prepare, "duckdb_destroy_prepare");
    }
};

[[noreturn]] inline void fail(const char *what, const char *why) {
    std::fprintf(stderr, "duckdb: %s: %s\n", what, why ? why : "failed");
    std::abort();
}

// One in-memory database and a connection, with a fixed thread count.
class db {
  public:
    explicit db(int threads) : a_(*api::get()) {
        if (a_.open(nullptr, &db_) != ok || a_.connect(db_, &con_) != ok)
            fail("open", nullptr);
        exec("SET threads = " + std::to_string(threads));
    }
    ~db() {
        a_.disconnect(&con_);
        a_.close(&db_);
    }
    db(const db &) = delete;
    db &operator=(const db &) = delete;

    void exec(const std::string &sql) {
        result r{};
        if (a_.query(con_, sql.c_str(), &r) != ok)
            fail(sql.c_str(), a_.result_error(&r));
        a_.destroy_result(&r);
    }
    // The first column of the first row of a query's result.
    int64_t scalar(const std::string &sql) {
        result r{};
        if (a_.query(con_, sql.c_str(), &r) != ok)
            fail(sql.c_str(), a_.result_error(&r));
        const int64_t v = a_.value_int64(&r, 0, 0);
        a_.destroy_result(&r);
        return v;
    }
    // Sums an int32 or int64 first column chunk by chunk, as a caller that
    // reads the values themselves would.
    template <class T> int64_t sum_column(result &r) {
        int64_t sum = 0;
        for (handle c; (c = a_.fetch_chunk(r)) != nullptr; a_.destroy_chunk(&c)) {
            const auto *v = static_cast<const T *>(a_.vector_data(a_.chunk_vector(c, 0)));
            const idx_t n = a_.chunk_size(c);
            for (idx_t i = 0; i < n; i++)
                sum += v[i];
        }
        return sum;
    }
    // A streaming query (chunks produced as they are fetched, nothing
    // materialised first), summed.
    template <class T> int64_t sum_query(const std::string &sql) {
        handle st = nullptr;
        if (a_.prepare(con_, sql.c_str(), &st) != ok)
            fail(sql.c_str(), nullptr);
        result r{};
        if (a_.execute_streaming(st, &r) != ok)
            fail(sql.c_str(), a_.result_error(&r));
        const int64_t s = sum_column<T>(r);
        a_.destroy_result(&r);
        a_.destroy_prepare(&st);
        return s;
    }

    handle con() const { return con_; }
    const api &fns() const { return a_; }

  private:
    const api &a_;
    handle db_ = nullptr, con_ = nullptr;
};

// A prepared statement with int64 parameters.
class prepared {
  public:
    prepared(db &d, const char *sql) : a_(d.fns()) {
        if (a_.prepare(d.con(), sql, &st_) != ok)
            fail(sql, nullptr);
    }
    ~prepared() { a_.destroy_prepare(&st_); }
    prepared(const prepared &) = delete;
    prepared &operator=(const prepared &) = delete;

    int64_t scalar(int64_t p1, int64_t p2) {
        a_.bind_int64(st_, 1, p1);
        a_.bind_int64(st_, 2, p2);
        result r{};
        if (a_.execute_prepared(st_, &r) != ok)
            fail("execute", a_.result_error(&r));
        const int64_t v = a_.value_int64(&r, 0, 0);
        a_.destroy_result(&r);
        return v;
    }

  private:
    const api &a_;
    handle st_ = nullptr;
};

// A row appender on one table.
class appender {
  public:
    appender(db &d, const char *table) : a_(d.fns()) {
        if (a_.appender_create(d.con(), nullptr, table, &ap_) != ok)
            fail("appender", table);
    }
    ~appender() { a_.appender_destroy(&ap_); }
    appender(const appender &) = delete;
    appender &operator=(const appender &) = delete;

    void row(int32_t v) {
        a_.append_int32(ap_, v);
        a_.end_row(ap_);
    }
    void row(int64_t v, int64_t w) {
        a_.append_int64(ap_, v);
        a_.append_int64(ap_, w);
        a_.end_row(ap_);
    }
    void row(std::initializer_list<int64_t> vs) {
        for (int64_t v : vs)
            a_.append_int64(ap_, v);
        a_.end_row(ap_);
    }
    void flush() {
        if (a_.appender_flush(ap_) != ok)
            fail("appender flush", nullptr);
    }

  private:
    const api &a_;
    handle ap_ = nullptr;
};

} // namespace duck
