// velseq/image.hpp -- databases kept in files, for the C++ API: open a
// database from an image (replaying the commit log its config names, maybe
// read-only or recovering, with a report of what the log lost), save or
// checkpoint one, and bind a schema to a class the image defined.  Included by
// velseq.hpp users that need files; the image format and the promises of
// each log mode are in docs/DURABILITY.md.
#ifndef VELSEQ_IMAGE_HPP
#define VELSEQ_IMAGE_HPP

#include <memory>
#include <string>

#include "../velseq.hpp"

namespace velseq {

namespace detail {

struct image_access {
    // Gives `db` the database `h` in place of the empty one it opened.
    static void adopt(database &db, velh_db_t *h) {
        velh_db_close(db.db_);
        db.db_ = h;
    }
    static class_state &state(schema &s) { return *s.st_; }
};

// The durability calls leave a sentence naming the file and the cause.
inline void check_file(VEL_RET rc, const std::string &what) {
    if (rc == VEL_S_OK)
        return;
    const char *m = velh_error_message();
    throw error(rc, m != nullptr && *m != '\0' ? std::string(m) : what);
}

} // namespace detail

// Opens the database of the image at `path` (empty: the empty database, then
// cfg.log_path must be set); with cfg.log_path set, replays the log's
// records that follow the image and appends later commits to it.
// cfg.open_flags takes VELH_OPEN_READ_ONLY (a shared lock; write
// transactions, class definitions and checkpoints are refused and nothing
// is written to the files) and VELH_OPEN_RECOVER (a log damaged before its
// end opens with the records before the damage, the rest moved aside; see
// velembed.h).  `stats` may be null.
inline std::unique_ptr<database> open_image(const std::string &path, const config &cfg = config(),
                                            velh_open_stats_t *stats = nullptr) {
    const bool has_log = cfg.log_path != nullptr && *cfg.log_path != '\0';
    if (path.empty() && !has_log)
        throw error(VEL_E_ILLEGAL_PARAM, "opening: give an image, a log or both");
    velh_db_t *h = nullptr;
    detail::check_file(velh_db_open_file(&cfg, path.empty() ? nullptr : path.c_str(), &h, stats),
                       "opening " + (path.empty() ? std::string(cfg.log_path) : path));
    auto db = std::make_unique<database>(); // default config: no log of its own
    detail::image_access::adopt(*db, h);
    return db;
}

// What an open left out of its log, with what is needed to say so: the
// host's figures and the log's path.
struct open_report {
    velh_open_stats_t stats{};
    std::string log;        // "" : no log
    bool read_only = false; // the files were left as they were

    // Offset of the damage: the set-aside rest ran from there to the end.
    uint64_t damage_offset() const noexcept { return stats.log_damage_offset; }
    // The file the damaged rest was moved to, LOG.damaged-OFFSET ("" when
    // nothing was moved).
    std::string set_aside_path() const {
        if (stats.log_set_aside_bytes == 0 || read_only)
            return "";
        return log + ".damaged-" + std::to_string(damage_offset());
    }
    // One sentence on what was cut or set aside; "" when nothing was.
    std::string losses() const {
        auto records = [](uint64_t n, uint64_t bytes) {
            return std::to_string(n) + (n == 1 ? " record (" : " records (") +
                   std::to_string(bytes) + (bytes == 1 ? " byte)" : " bytes)");
        };
        const velh_open_stats_t &s = stats;
        const std::string unchanged = read_only ? " (read-only: the file is unchanged)" : "";
        std::string out;
        if (s.log_cut_bytes > 0)
            out = log + ": " + (read_only ? "left out" : "cut") + " a torn tail of " +
                  records(s.log_cut_records, s.log_cut_bytes) + unchanged;
        if (s.log_set_aside_bytes > 0)
            out += (out.empty() ? log : "; and") + ": damaged at offset " +
                   std::to_string(damage_offset()) + ": " + (read_only ? "left out" : "set aside") +
                   " the " + records(s.log_set_aside_records, s.log_set_aside_bytes) +
                   " from there" + (read_only ? unchanged : " to " + set_aside_path());
        return out;
    }
};

// As above, and fills `report`.
inline std::unique_ptr<database> open_image(const std::string &path, const config &cfg,
                                            open_report &report) {
    report = open_report();
    if (cfg.log_path != nullptr && *cfg.log_path != '\0')
        report.log = cfg.log_path;
    report.read_only = (cfg.open_flags & VELH_OPEN_READ_ONLY) != 0;
    return open_image(path, cfg, &report.stats);
}

// Writes the state of the last commit to `path`, replacing it whole.
inline void save_image(database &db, const std::string &path) {
    detail::check_file(velh_db_save(db.get(), path.c_str()), "saving to " + path);
}

// Writes an image of the last commit to `path`, then starts the log afresh
// (the database must have one); commits wait while it runs.
inline void checkpoint(database &db, const std::string &path) {
    detail::check_file(velh_checkpoint(db.get(), path.c_str()), "checkpointing to " + path);
}

// Binds `s`, which lists the fields of class `code` of `db` as they were
// defined (same number, types and widths), to that class instead of
// defining a new one: for a database opened from an image.
inline void attach(database &db, schema &s, uint16_t code) {
    detail::class_state &st = detail::image_access::state(s);
    if (st.code != 0)
        throw error(VEL_E_HOST_BAD_ARG, "class " + st.name + " is already defined");
    velh_class_info_t ci{};
    detail::check(velh_class_info(db.get(), code, &ci), "reading the catalogue");
    if (ci.n_fields != st.defs.size())
        throw error(VEL_E_HOST_WRONG_FIELD,
                    "class " + std::to_string(code) + " has " + std::to_string(ci.n_fields) +
                        " fields, the schema " + std::to_string(st.defs.size()));
    std::vector<velh_field_info_t> info(st.defs.size());
    for (size_t i = 0; i < info.size(); i++) {
        detail::check(velh_field_info(db.get(), code, static_cast<uint16_t>(i), &info[i]),
                      "reading a field definition");
        const velh_field_def_t &d = st.defs[i];
        if (info[i].type != d.type || (d.width != 0 && info[i].elem_size != d.width))
            throw error(VEL_E_HOST_WRONG_FIELD, "field " + std::to_string(i) + " of class " +
                                                    std::to_string(code) + " is not " +
                                                    st.names[i] + " as the schema declares it");
    }
    st.info = std::move(info);
    st.db = db.get();
    st.code = code;
}

// Binds `s` to the class of its name, which must have the fields the schema
// lists, with their names, types, widths and declared orders: a database
// written by any front end (the velseq program, Python, C++) opens so.
inline void attach(database &db, schema &s) {
    detail::class_state &st = detail::image_access::state(s);
    velh_class_info_t ci{};
    const VEL_RET rc = velh_class_by_name(db.get(), st.name.c_str(), &ci);
    if (rc == VEL_E_HOST_NO_CLASS)
        throw error(rc, "the database has no class " + detail::shortened(st.name));
    detail::check(rc, "reading the catalogue");
    for (size_t i = 0; i < st.defs.size() && i < ci.n_fields; i++) {
        velh_field_info_t fi{};
        detail::check(velh_field_info(db.get(), ci.code, static_cast<uint16_t>(i), &fi),
                      "reading a field definition");
        const std::string where = "field " + std::to_string(i) + " of class " + st.name;
        if (st.names[i] != fi.name)
            throw error(VEL_E_HOST_WRONG_FIELD,
                        where + " is " + fi.name + ", not " + st.names[i] + " as the schema says");
        if (fi.order != st.defs[i].order)
            throw error(VEL_E_HOST_WRONG_FIELD,
                        where + " (" + fi.name + ") keeps another order than the schema's");
    }
    attach(db, s, ci.code);
}

} // namespace velseq

#endif // VELSEQ_IMAGE_HPP
