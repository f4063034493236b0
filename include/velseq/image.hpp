// velseq/image.hpp -- databases kept in files, for the C++ API: open a
// database from an image (replaying the commit log its config names), save
// one, and bind a schema to a class the image defined.  Included by
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

// Opens the database of the image at `path`; with cfg.log_path set, replays
// the log's records that follow the image.  `stats` may be null.
inline std::unique_ptr<database> open_image(const std::string &path, const config &cfg = config(),
                                            velh_open_stats_t *stats = nullptr) {
    velh_db_t *h = nullptr;
    detail::check_file(velh_db_open_file(&cfg, path.c_str(), &h, stats), "opening " + path);
    auto db = std::make_unique<database>(); // default config: no log of its own
    detail::image_access::adopt(*db, h);
    return db;
}

// Writes the state of the last commit to `path`, replacing it whole.
inline void save_image(database &db, const std::string &path) {
    detail::check_file(velh_db_save(db.get(), path.c_str()), "saving to " + path);
}

// Binds `s`, which lists the fields of class `code` of `db` as they were
// defined (same number, types and widths), to that class instead of
// defining a new one: for a database opened from an image.
inline void attach(database &db, schema &s, uint16_t code) {
    detail::class_state &st = detail::image_access::state(s);
    if (st.code != 0)
        throw error(VEL_E_HOST_BAD_ARG, "class " + st.name + " is already defined");
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
    velh_field_info_t more;
    if (velh_field_info(db.get(), code, static_cast<uint16_t>(info.size()), &more) == VEL_S_OK)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    "class " + std::to_string(code) + " has more fields than the schema");
    st.info = std::move(info);
    st.db = db.get();
    st.code = code;
}

} // namespace velseq

#endif // VELSEQ_IMAGE_HPP
