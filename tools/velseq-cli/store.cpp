// Tables in database images: any named class of one object whose sequence
// fields are the columns, as the catalogue describes them -- the program's
// own images and those written by the C++ API or the Python package alike.
#include "table.h"

#include <cstdio>

#include "velhost.h"
#include "velseq/image.hpp"

namespace vcli {

void take_columns(Table &t, const tbl::table_info &info) {
    t.info = info;
    t.cols.clear();
    t.time = -1;
    for (size_t f = 0; f < info.columns.size(); f++) {
        if (!info.columns[f].scalar)
            t.cols.push_back({info.columns[f], static_cast<uint16_t>(f)});
    }
    for (int pass = 0; pass < 2 && t.time < 0; pass++)
        for (size_t c = 0; c < t.cols.size() && t.time < 0; c++)
            if (t.cols[c].order == VEL_SEQ_ASC_ORDER && (pass == 1 || t.cols[c].type == kDatetime))
                t.time = static_cast<int>(c);
}

namespace {

std::unique_ptr<velseq::database> open_image(const std::string &path, const std::string &log,
                                             bool recover) {
    velseq::config cfg;
    cfg.log_path = log.empty() ? nullptr : log.c_str();
    // Answers only read; a recovering open writes (it moves the damage aside).
    cfg.open_flags = recover ? VELH_OPEN_RECOVER : VELH_OPEN_READ_ONLY;
    velseq::open_report report;
    std::unique_ptr<velseq::database> db;
    try {
        db = velseq::open_image(path, cfg, report);
    } catch (const velseq::error &e) {
        const bool damaged = e.code() == VEL_E_HOST_BAD_LOG && !recover && !log.empty();
        throw Fail(kExitInput,
                   "cannot open " + path + ": " + e.what() +
                       (damaged ? " (a log damaged before its end opens with --recover)" : ""));
    }
    const std::string lost = report.losses();
    if (!lost.empty())
        std::fprintf(stderr, "velseq: %s\n", lost.c_str());
    return db;
}

// The table `name`, or the only one.
tbl::table_info choose(velseq::database &db, const std::string &path, const std::string &name) {
    std::vector<tbl::table_info> all;
    try {
        all = tbl::tables(db.get());
    } catch (const velseq::error &e) {
        throw Fail(kExitInput, "cannot read the tables of " + path + ": " + e.what());
    }
    std::string names;
    for (const tbl::table_info &t : all) {
        if (t.name == name || (name.empty() && all.size() == 1))
            return t;
        names += (names.empty() ? "" : ", ") + t.name;
    }
    if (all.empty())
        throw Fail(kExitInput, path + " holds no named table");
    if (!name.empty())
        throw Fail(kExitUsage, "no table '" + name + "' in " + path + " (tables: " + names + ")");
    throw Fail(kExitUsage, path + " holds " + std::to_string(all.size()) +
                               " tables: name one with --table (tables: " + names + ")");
}

uint64_t length_of(const tbl::column &c) {
    vel_objhandle_t obj = c.obj;
    vel_seq_no_t n = 0;
    velseq::detail::check(vel_w_seq_count(&obj, c.field.u_offset, c.field.c_offset, &n),
                          "counting rows");
    return n;
}

// The table's one object, and its rows: every column must hold as many.
void find_rows(velseq::database &db, Table &t) {
    const std::string what = "table '" + t.info.name + "' of " + t.source;
    velseq::connection con(db);
    velseq::transaction tx(con, velseq::transaction::read);
    uint64_t objects = 0;
    velseq::detail::check(velh_obj_count(con.get(), t.info.code, &objects), "counting objects");
    if (objects != 1)
        throw Fail(kExitInput, what + " has " + std::to_string(objects) +
                                   " objects; the program reads a table of one object");
    vel_cursor_t cur;
    vel_objhandle_t h{};
    vel_trans_h trans = &con.get()->trans;
    if (vel_w_list_cursor(trans, t.info.code, &cur) != VEL_S_OK ||
        vel_cursor_first(trans, &cur) != VEL_S_OK ||
        vel_w_obj_from_cursor(trans, &cur, t.info.code, &h) != VEL_S_OK)
        throw Fail(kExitInput, what + ": its object cannot be read");
    t.oid = h.oid;
    for (size_t c = 0; c < t.cols.size(); c++) {
        const uint64_t n = length_of(t.column(h, db.get(), static_cast<int>(c)));
        if (c > 0 && n != t.rows)
            throw Fail(kExitInput, what + ": column " + t.cols[c].name + " holds " +
                                       std::to_string(n) + " rows, " + t.cols[0].name + " holds " +
                                       std::to_string(t.rows));
        t.rows = n;
    }
}

} // namespace

std::unique_ptr<velseq::database> open_table(const std::string &path, Table &t,
                                             const std::string &name, const std::string &log,
                                             bool recover) {
    t.source = path;
    std::unique_ptr<velseq::database> db = open_image(path, log, recover);
    const tbl::table_info info = choose(*db, path, name);
    for (const tbl::column_def &c : info.columns)
        if (c.name == "velseq.table") // the description field of earlier images
            throw Fail(kExitInput, path + " was written by an older velseq; load the CSV again");
    take_columns(t, info);
    if (t.cols.empty())
        throw Fail(kExitInput, "table '" + info.name + "' of " + path + " has no sequence column");
    find_rows(*db, t);
    return db;
}

} // namespace vcli
