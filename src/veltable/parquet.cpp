// Parquet through DuckDB: the export's Arrow streams handed to DuckDB's
// arrow scan and written by its COPY, one file per partition; imports read
// file by file through DuckDB's streaming results converted to Arrow
// batches.  DuckDB's library is loaded at the first call (duck.h).
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <map>
#include <mutex>

#include "arrow_export.h"
#include "dispatch.h"
#include "duck.h"
#include "velseq/calendar.hpp"

namespace velseq::table {

const duck_api &duckdb() {
    static std::once_flag once;
    static duck_api api;
    static std::string why;
    std::call_once(once, [] {
        const char *env = std::getenv("VELSEQ_DUCKDB");
        void *lib =
            dlopen(env != nullptr && *env != '\0' ? env : "libduckdb.so", RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) {
            why = dlerror();
            return;
        }
        bool ok = true;
        auto sym = [&](auto &fn, const char *name) {
            void *p = dlsym(lib, name);
            ok = ok && p != nullptr;
            std::memcpy(&fn, &p, sizeof p);
        };
        sym(api.open, "duckdb_open");
        sym(api.close, "duckdb_close");
        sym(api.connect, "duckdb_connect");
        sym(api.disconnect, "duckdb_disconnect");
        sym(api.query, "duckdb_query");
        sym(api.result_error, "duckdb_result_error");
        sym(api.destroy_result, "duckdb_destroy_result");
        sym(api.arrow_scan, "duckdb_arrow_scan");
        sym(api.prepare, "duckdb_prepare");
        sym(api.prepare_error, "duckdb_prepare_error");
        sym(api.destroy_prepare, "duckdb_destroy_prepare");
        sym(api.execute_streaming, "duckdb_execute_prepared_streaming");
        sym(api.fetch_chunk, "duckdb_fetch_chunk");
        sym(api.destroy_chunk, "duckdb_destroy_data_chunk");
        sym(api.arrow_options, "duckdb_result_get_arrow_options");
        sym(api.destroy_arrow_options, "duckdb_destroy_arrow_options");
        sym(api.column_count, "duckdb_column_count");
        sym(api.column_name, "duckdb_column_name");
        sym(api.column_type, "duckdb_column_logical_type");
        sym(api.destroy_type, "duckdb_destroy_logical_type");
        sym(api.to_arrow_schema, "duckdb_to_arrow_schema");
        sym(api.chunk_to_arrow, "duckdb_data_chunk_to_arrow");
        sym(api.has_error, "duckdb_error_data_has_error");
        sym(api.error_message, "duckdb_error_data_message");
        sym(api.destroy_error, "duckdb_destroy_error_data");
        sym(api.value_int64, "duckdb_value_int64");
        sym(api.value_varchar, "duckdb_value_varchar");
        sym(api.row_count, "duckdb_row_count");
        sym(api.free, "duckdb_free");
        if (!ok) {
            why = "the library lacks a function of DuckDB's C API";
            api = duck_api{};
        }
    });
    if (api.open == nullptr)
        throw error(VELT_E_UNAVAILABLE,
                    std::string("Parquet needs DuckDB's shared library (")
                        .append(why)
                        .append("): run scripts/fetch-duckdb.sh and set "
                                "VELSEQ_DUCKDB=build/duckdb/package/libduckdb.so"));
    return api;
}

namespace {

namespace fs = std::filesystem;

std::string sql_text(const std::string &s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("''") : std::string(1, c);
    return q + "'";
}

// The hive folder of a time bucket: "day=2024-03-05", "month=2024-03".
std::string bucket_folder(unsigned partition, vel_datetime start) {
    char buf[40];
    vel_dt_format(start, buf, sizeof buf); // YYYY-MM-DDT...
    return partition & VELT_PARTITION_DAY ? "day=" + std::string(buf, 10)
                                          : "month=" + std::string(buf, 7);
}

} // namespace

namespace {

void write_parquet(velh_db_t *db, const velt_export_t &opts, const std::string &dir,
                   unsigned partition) {
    if ((partition & VELT_PARTITION_DAY) && (partition & VELT_PARTITION_MONTH))
        throw error(VEL_E_ILLEGAL_PARAM, "Parquet: partition by day or by month, not both");
    if (partition & ~unsigned(VELT_PARTITION_OBJECT | VELT_PARTITION_DAY | VELT_PARTITION_MONTH))
        throw error(VEL_E_ILLEGAL_PARAM, "Parquet: unknown partition flags");
    std::error_code ec;
    if (fs::exists(dir, ec) && !(fs::is_directory(dir, ec) && fs::is_empty(dir, ec)))
        throw error(VEL_E_HOST_IO, "Parquet: '" + dir + "' exists and is not an empty folder");
    velt_export_t o = opts;
    o.naive_time = 1; // DuckDB keeps nanoseconds only in a timestamp without zone
    std::unique_ptr<arrow::exporter> e = arrow::plan_export(db, o);
    const bool by_time = partition & (VELT_PARTITION_DAY | VELT_PARTITION_MONTH);
    if (by_time && !e->time_fld)
        throw error(VEL_E_ILLEGAL_PARAM, "Parquet: partitions by time, but table '" +
                                             e->table.name + "' has no ascending datetime field");
    // The files: each a list of (part, first, last), in path order of the
    // partition folders, objects in the export's order within a file.
    std::map<std::string, std::vector<std::tuple<size_t, uint64_t, uint64_t>>> files;
    const calendar cal = partition & VELT_PARTITION_DAY ? calendar::days() : calendar::months();
    for (size_t i = 0; i < e->parts.size(); i++) {
        const arrow::part &p = e->parts[i];
        const std::string obj = partition & VELT_PARTITION_OBJECT
                                    ? "oid=" + std::to_string(p.oid) + "/"
                                    : std::string();
        if (!by_time) {
            if (p.last > p.first)
                files[obj].emplace_back(i, p.first, p.last);
            continue;
        }
        const column ts = e->col(p, *e->time_fld);
        for (uint64_t a = p.first; a < p.last;) {
            array v = read(ts, a, a + 1);
            vel_datetime t;
            std::memcpy(&t, v.values.data(), 8);
            const calendar_span span = calendar_bucket(cal, t);
            array bounds{{VEL_DD_SEQUENCE_DATETIME, 8}, 2, std::vector<unsigned char>(16), {}};
            std::memcpy(bounds.values.data(), &span.start, 8);
            std::memcpy(bounds.values.data() + 8, &span.last, 8);
            const uint64_t b =
                std::min(p.last, search(ts, bounds, bound::inclusive, bound::inclusive).second);
            files[obj + bucket_folder(partition, span.start) + "/"].emplace_back(i, a, b);
            a = b;
        }
    }
    // Objects' folders in oid order, as the import reads them back.
    duck d;
    uint64_t done = 0;
    std::string kv = "KV_METADATA {'velseq.table': " + sql_text(e->table.name);
    if (e->time_fld)
        kv += ", 'velseq.order': " + sql_text(e->table.columns[*e->time_fld].name);
    for (const arrow::out_col &c : e->cols) {
        if (c.k == arrow::kind::scalar)
            kv += ", " + sql_text("velseq.scalar." + c.name) + ": '1'";
        if (c.type.code == VEL_DD_SEQUENCE_CHAR && c.k != arrow::kind::oid)
            kv += ", " + sql_text("velseq.width." + c.name) + ": '" + std::to_string(c.type.width) +
                  "'";
    }
    kv += "}";
    // Written into a folder beside DIR and renamed to DIR at the end: DIR
    // appears whole or not at all.
    fs::path final = fs::absolute(dir).lexically_normal();
    if (final.filename().empty())
        final = final.parent_path();
    const fs::path tmp = final.parent_path() / std::string(".")
                                                   .append(final.filename().string())
                                                   .append(".partial-")
                                                   .append(std::to_string(getpid()));
    struct cleanup {
        fs::path p;
        bool keep = false;
        ~cleanup() {
            std::error_code ec;
            if (!keep)
                fs::remove_all(p, ec);
        }
    } partial{tmp};
    fs::remove_all(tmp);
    fs::create_directories(tmp);
    for (const auto &[folder, slices] : files) {
        const fs::path path = tmp / folder / "data.parquet";
        fs::create_directories(path.parent_path());
        std::vector<arrow::part> ps;
        for (const auto &[i, a, b] : slices) {
            ps.push_back(e->parts[i]);
            ps.back().first = a;
            ps.back().last = b;
        }
        std::unique_ptr<arrow::exporter> sub = e->over(std::move(ps));
        struct progress_t {
            const velt_export_t &opts;
            uint64_t base, total;
        } pr{opts, done, e->total};
        if (opts.progress != nullptr) {
            sub->progress = [](uint64_t rows, uint64_t, void *ctx) {
                auto *p = static_cast<progress_t *>(ctx);
                p->opts.progress(p->base + rows, p->total, p->opts.progress_ctx);
            };
            sub->progress_ctx = &pr;
        }
        done += sub->total;
        ArrowArrayStream st{};
        arrow::open_stream(std::move(sub), &st);
        struct stream_guard {
            ArrowArrayStream &s;
            ~stream_guard() {
                if (s.release != nullptr)
                    s.release(&s);
            }
        } guard{st};
        if (d.api.arrow_scan(d.con, "velseq_export", &st) != 0)
            throw error(VEL_E_HOST_IO, "DuckDB: cannot scan the export's Arrow stream");
        d.run("COPY (SELECT * FROM velseq_export) TO " + sql_text(path.string()) +
              " (FORMAT parquet, " + kv + ")");
        d.run("DROP VIEW velseq_export");
    }
    if (fs::exists(final, ec))
        fs::remove(final); // an empty folder
    fs::rename(tmp, final);
    partial.keep = true;
}

} // namespace

namespace {

// Numbers within names compared as numbers: oid=9 before oid=10.
bool natural_less(const std::string &a, const std::string &b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (std::isdigit(static_cast<unsigned char>(a[i])) &&
            std::isdigit(static_cast<unsigned char>(b[j]))) {
            size_t i2 = i, j2 = j;
            while (i2 < a.size() && std::isdigit(static_cast<unsigned char>(a[i2])))
                i2++;
            while (j2 < b.size() && std::isdigit(static_cast<unsigned char>(b[j2])))
                j2++;
            const std::string x = a.substr(i, i2 - i), y = b.substr(j, j2 - j);
            const std::string xs = x.substr(std::min(x.find_first_not_of('0'), x.size()));
            const std::string ys = y.substr(std::min(y.find_first_not_of('0'), y.size()));
            if (xs.size() != ys.size())
                return xs.size() < ys.size();
            if (xs != ys)
                return xs < ys;
            i = i2, j = j2;
            continue;
        }
        if (a[i] != b[j])
            return a[i] < b[j];
        i++, j++;
    }
    return a.size() - i < b.size() - j;
}

// The value of a folder "oid=N" in the path, if any.
std::optional<uint64_t> hive_oid(const fs::path &p) {
    std::optional<uint64_t> oid;
    for (const fs::path &part : p.parent_path()) {
        const std::string s = part.string();
        if (s.rfind("oid=", 0) == 0) {
            uint64_t v = 0;
            const auto [end, ec] = std::from_chars(s.data() + 4, s.data() + s.size(), v);
            if (ec != std::errc() || end != s.data() + s.size())
                throw error(VEL_E_ILLEGAL_PARAM, "Parquet: folder '" + s + "' names no object");
            oid = v;
        }
    }
    return oid;
}

// The files as one Arrow stream: each file's rows through DuckDB's
// streaming result, with the oid of its folder added as a column.
struct file_stream {
    duck d;
    std::vector<fs::path> files;
    size_t at = 0; // the file whose result is open, or the next one
    void *prepared = nullptr, *options = nullptr;
    duck_result result{};
    bool open = false;
    std::string first_shape, last_error;

    file_stream() = default;
    file_stream(const file_stream &) = delete;
    file_stream &operator=(const file_stream &) = delete;
    ~file_stream() { close_file(); }
    void close_file() {
        if (options != nullptr)
            d.api.destroy_arrow_options(&options);
        if (open)
            d.api.destroy_result(&result);
        if (prepared != nullptr)
            d.api.destroy_prepare(&prepared);
        open = false;
    }
    // Throws the message of DuckDB's error data, if any.
    void check(void *err, const std::string &what) {
        if (err == nullptr)
            return;
        const bool bad = d.api.has_error(err);
        const std::string m = bad ? d.api.error_message(err) : "";
        d.api.destroy_error(&err);
        if (bad)
            throw error(VEL_E_HOST_IO, "DuckDB: " + what + ": " + m);
    }
    void open_file(size_t i) {
        close_file();
        const std::optional<uint64_t> oid = hive_oid(files[i]);
        const std::string sql =
            "SELECT *" + (oid ? ", " + std::to_string(*oid) + "::UBIGINT AS oid" : "") +
            " FROM read_parquet(" + sql_text(files[i].string()) + ", hive_partitioning=false)";
        if (d.api.prepare(d.con, sql.c_str(), &prepared) != 0)
            throw error(VEL_E_HOST_IO, std::string("DuckDB: ")
                                           .append(files[i].string())
                                           .append(": ")
                                           .append(d.api.prepare_error(prepared)));
        if (d.api.execute_streaming(prepared, &result) != 0) {
            const std::string m = d.api.result_error(&result);
            d.api.destroy_result(&result);
            throw error(VEL_E_HOST_IO, "DuckDB: " + files[i].string() + ": " + m);
        }
        open = true;
        options = d.api.arrow_options(&result);
    }
    // The open file's schema; its names and formats in `shape`.
    void schema_of(ArrowSchema &out, std::string &shape) {
        const uint64_t n = d.api.column_count(&result);
        std::vector<void *> types(n);
        std::vector<const char *> names(n);
        for (uint64_t k = 0; k < n; k++) {
            types[k] = d.api.column_type(&result, k);
            names[k] = d.api.column_name(&result, k);
        }
        void *err = d.api.to_arrow_schema(options, types.data(), names.data(), n, &out);
        for (void *&t : types)
            d.api.destroy_type(&t);
        check(err, "the schema of " + files[at].string());
        shape.clear();
        for (int64_t k = 0; k < out.n_children; k++)
            shape.append(out.children[k]->name)
                .append(":")
                .append(out.children[k]->format)
                .append(";");
    }
    void schema(ArrowSchema &out) {
        at = 0;
        open_file(0);
        schema_of(out, first_shape);
    }
    bool next(ArrowArray &out) {
        for (;;) {
            if (!open) {
                if (at == files.size())
                    return false;
                open_file(at);
                ArrowSchema s{};
                std::string shape;
                schema_of(s, shape);
                s.release(&s);
                if (shape != first_shape)
                    throw error(VEL_E_ILLEGAL_TYPE, "Parquet: " + files[at].string() +
                                                        " has other columns than " +
                                                        files[0].string());
            }
            void *chunk = d.api.fetch_chunk(result);
            if (chunk == nullptr) {
                close_file();
                at++;
                continue;
            }
            out = ArrowArray{};
            void *err = d.api.chunk_to_arrow(options, chunk, &out);
            d.api.destroy_chunk(&chunk);
            check(err, files[at].string());
            return true;
        }
    }
};

file_stream *fs_of(ArrowArrayStream *s) { return static_cast<file_stream *>(s->private_data); }

template <class F> int caught(ArrowArrayStream *s, F &&f) {
    try {
        f();
        return 0;
    } catch (const std::exception &e) {
        fs_of(s)->last_error = e.what();
        return EIO;
    }
}

} // namespace

namespace {

uint64_t read_parquet(velh_db_t *db, const velt_import_t &opts, const std::string &dir) {
    auto src = std::make_unique<file_stream>();
    std::error_code ec;
    if (fs::is_regular_file(dir, ec)) {
        src->files.push_back(dir);
    } else if (fs::is_directory(dir, ec)) {
        for (const auto &entry : fs::recursive_directory_iterator(dir))
            if (entry.is_regular_file() && entry.path().extension() == ".parquet")
                src->files.push_back(entry.path());
    } else {
        throw error(VEL_E_HOST_IO, "Parquet: no file or folder '" + dir + "'");
    }
    if (src->files.empty())
        throw error(VEL_E_HOST_IO, "Parquet: no .parquet file under '" + dir + "'");
    std::sort(src->files.begin(), src->files.end(), [](const fs::path &a, const fs::path &b) {
        return natural_less(a.string(), b.string());
    });
    // For a table defined here: what the first file's metadata says of the
    // table it came from, else the longest value of each text column.
    import_hints hints;
    std::map<std::string, uint16_t> &widths = hints.widths;
    const bool new_table = !find_table(db, opts.table != nullptr ? opts.table : "");
    if (new_table) {
        duck_result r{};
        const std::string q = "SELECT decode(key), decode(value) FROM parquet_kv_metadata(" +
                              sql_text(src->files[0].string()) + ")";
        if (src->d.api.query(src->d.con, q.c_str(), &r) != 0) {
            const std::string m = src->d.api.result_error(&r);
            src->d.api.destroy_result(&r);
            throw error(VEL_E_HOST_IO, "DuckDB: " + m);
        }
        for (uint64_t k = 0; k < src->d.api.row_count(&r); k++) {
            char *key = src->d.api.value_varchar(&r, 0, k),
                 *val = src->d.api.value_varchar(&r, 1, k);
            const std::string ks = key != nullptr ? key : "", vs = val != nullptr ? val : "";
            src->d.api.free(key);
            src->d.api.free(val);
            if (ks == "velseq.order")
                hints.ascending = vs;
            else if (ks.rfind("velseq.scalar.", 0) == 0)
                hints.scalars.insert(ks.substr(14));
            else if (ks.rfind("velseq.width.", 0) == 0)
                widths[ks.substr(13)] = static_cast<uint16_t>(std::stoi(vs));
        }
        src->d.api.destroy_result(&r);
    }
    if (new_table && opts.char_width == 0) {
        ArrowSchema s{};
        src->schema(s);
        src->close_file();
        std::string list = "[", cols;
        for (const fs::path &f : src->files)
            list += (list.size() > 1 ? ", " : "") + sql_text(f.string());
        list += "]";
        std::vector<std::string> names;
        for (int64_t k = 0; k < s.n_children; k++)
            if (std::string_view("uUzZ").find(s.children[k]->format[0]) != std::string::npos &&
                s.children[k]->format[1] == '\0' && widths.count(s.children[k]->name) == 0) {
                names.emplace_back(s.children[k]->name);
                std::string id = "\"";
                for (char c : names.back())
                    id += c == '"' ? std::string("\"\"") : std::string(1, c);
                const bool text = std::tolower(s.children[k]->format[0]) == 'u';
                cols += (cols.empty() ? "" : ", ") +
                        ((text ? "max(strlen(" : "max(octet_length(") + id + "\"))");
            }
        s.release(&s);
        if (!names.empty()) {
            duck_result r{};
            const std::string q =
                "SELECT " + cols + " FROM read_parquet(" + list + ", hive_partitioning=false)";
            const int rc = src->d.api.query(src->d.con, q.c_str(), &r);
            for (size_t k = 0; rc == 0 && k < names.size(); k++) {
                const int64_t w = src->d.api.value_int64(&r, k, 0);
                if (w > VELH_MAX_SEQ_CHAR_WIDTH) {
                    src->d.api.destroy_result(&r);
                    throw error(VEL_E_ILLEGAL_PARAM, "Parquet: column '" + names[k] +
                                                         "' holds a text of " + std::to_string(w) +
                                                         " bytes; a char field holds at most " +
                                                         std::to_string(VELH_MAX_SEQ_CHAR_WIDTH));
                }
                widths[names[k]] = static_cast<uint16_t>(std::max<int64_t>(w, 1));
            }
            const std::string m = rc != 0 ? src->d.api.result_error(&r) : "";
            src->d.api.destroy_result(&r);
            if (rc != 0)
                throw error(VEL_E_HOST_IO, "DuckDB: " + m);
        }
    }
    ArrowArrayStream st{};
    st.private_data = src.release();
    st.get_schema = [](ArrowArrayStream *s, ArrowSchema *out) {
        return caught(s, [&] { fs_of(s)->schema(*out); });
    };
    st.get_next = [](ArrowArrayStream *s, ArrowArray *out) {
        return caught(s, [&] {
            if (!fs_of(s)->next(*out))
                *out = ArrowArray{};
        });
    };
    st.get_last_error = [](ArrowArrayStream *s) { return fs_of(s)->last_error.c_str(); };
    st.release = [](ArrowArrayStream *s) {
        delete fs_of(s);
        s->release = nullptr;
    };
    return import_arrow(db, opts, &st, hints);
}

} // namespace

namespace {

// Folders and files that cannot be made or read are the host's I/O errors.
template <class F> auto io(F &&f) {
    try {
        return f();
    } catch (const fs::filesystem_error &e) {
        throw error(VEL_E_HOST_IO, std::string("Parquet: ").append(e.what()));
    }
}
} // namespace

void to_parquet(velh_db_t *db, const velt_export_t &opts, const std::string &dir,
                unsigned partition) {
    io([&] { write_parquet(db, opts, dir, partition); });
}

uint64_t from_parquet(velh_db_t *db, const velt_import_t &opts, const std::string &dir) {
    return io([&] { return read_parquet(db, opts, dir); });
}

} // namespace velseq::table
