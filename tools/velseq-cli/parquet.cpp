// export --parquet DIR and import DIR: tables out to hive-partitioned
// Parquet folders and back in, through the table layer's Parquet writer
// and reader (DuckDB's library, loaded when the command runs).
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

#include "commands.h"
#include "velseq/arrow.h"
#include "velseq/image.hpp"

namespace vcli {

namespace {

// "object,month" -> VELT_PARTITION_* flags; Fail (usage) for other words.
unsigned partition_of(const std::vector<std::string> &words) {
    unsigned p = 0;
    for (const std::string &w : words) {
        if (w == "object")
            p |= VELT_PARTITION_OBJECT;
        else if (w == "day")
            p |= VELT_PARTITION_DAY;
        else if (w == "month")
            p |= VELT_PARTITION_MONTH;
        else if (w != "none")
            throw Fail(kExitUsage, "--partition: '" + w + "' is none of object, day, month, none");
    }
    if ((p & VELT_PARTITION_DAY) && (p & VELT_PARTITION_MONTH))
        throw Fail(kExitUsage, "--partition: day or month, not both");
    return p;
}

// A failed call of the table layer as the program reports it: DuckDB's
// library missing has its own exit code.
[[noreturn]] void fail(VEL_RET rc, const std::string &what) {
    throw Fail(rc == VELT_E_UNAVAILABLE ? kExitMissing : kExitInput,
               what + ": " + velt_error_message());
}

struct progress_bar {
    bool on = isatty(STDERR_FILENO) != 0;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double last = -1;
    static void update(uint64_t done, uint64_t total, void *ctx) {
        auto &p = *static_cast<progress_bar *>(ctx);
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - p.start).count();
        if (!p.on || (s - p.last < 0.1 && done < total))
            return;
        p.last = s;
        std::fprintf(stderr, "\rexporting: %llu of %llu rows (%3.0f%%), %.2fM rows/s   ",
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(total),
                     total > 0 ? 100.0 * double(done) / double(total) : 100.0,
                     double(done) / std::max(s, 1e-9) / 1e6);
        std::fflush(stderr);
    }
};

} // namespace

int cmd_export(velseq::database &db, const Table &t, const Source &, const Query &q) {
    if (q.other.empty())
        throw Fail(kExitUsage, "export needs --parquet DIR");
    velt_export_t o;
    velt_export_init(&o);
    o.table = t.info.name.c_str();
    std::vector<const char *> names;
    for (const std::string &c : q.cols) {
        t.need(c);
        names.push_back(c.c_str());
    }
    if (!names.empty()) {
        o.columns = names.data();
        o.n_columns = names.size();
    }
    if (!q.window.empty()) {
        if (t.time < 0 || !(t.cols[static_cast<size_t>(t.time)].type == kDatetime))
            throw Fail(kExitUsage,
                       "--window needs a datetime time column, and " + t.source + " has none");
        vel_datetime from, to;
        for (size_t i = 0; i < 2; i++)
            if (!parse_datetime(q.window[i], i == 0 ? from : to))
                throw Fail(kExitUsage, "--window: '" + q.window[i] + "' is not a time");
        if (to < from)
            throw Fail(kExitUsage, "the window " + q.window[0] + " .. " + q.window[1] +
                                       " is reversed: its end comes before its start");
        o.by_time = 1;
        o.from = vel_dt_to_ns(from);
        o.to = vel_dt_to_ns(to);
    }
    progress_bar bar;
    o.progress = &progress_bar::update;
    o.progress_ctx = &bar;
    const unsigned partition = partition_of(q.partition);
    const VEL_RET rc = velt_to_parquet(db.get(), &o, q.other.c_str(), partition);
    if (bar.last >= 0)
        std::fputc('\n', stderr);
    if (rc != VEL_S_OK)
        fail(rc, "export to " + q.other);
    std::fprintf(stderr, "velseq: table '%s' written to %s\n", t.info.name.c_str(),
                 q.other.c_str());
    return 0;
}

int cmd_import(const Source &src, const Query &q) {
    if (src.db.empty())
        throw Fail(kExitUsage, "import needs --db IMAGE: the image that keeps the table");
    namespace fs = std::filesystem;
    std::error_code ec;
    std::unique_ptr<velseq::database> db;
    try {
        db = fs::exists(src.db, ec) ? velseq::open_image(src.db)
                                    : std::make_unique<velseq::database>();
    } catch (const velseq::error &e) {
        throw Fail(kExitInput, "cannot open " + src.db + ": " + e.what());
    }
    const std::string name = !src.table.empty() ? src.table : fs::path(q.other).stem().string();
    velt_import_t o;
    velt_import_init(&o);
    o.table = name.c_str();
    o.time = src.load.time.empty() ? nullptr : src.load.time.c_str();
    uint64_t rows = 0;
    if (const VEL_RET rc = velt_from_parquet(db->get(), &o, q.other.c_str(), &rows); rc != VEL_S_OK)
        fail(rc, "import of " + q.other);
    try { // the image replaced whole
        velseq::save_image(*db, src.db);
    } catch (const velseq::error &e) {
        throw Fail(kExitInput, "cannot save the table to " + src.db + ": " + e.what());
    }
    std::fprintf(stderr, "velseq: %llu rows of %s imported to %s as table '%s'\n",
                 static_cast<unsigned long long>(rows), q.other.c_str(), src.db.c_str(),
                 name.c_str());
    return 0;
}

} // namespace vcli
