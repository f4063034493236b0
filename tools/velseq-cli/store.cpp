// Tables in database images: the image holds one class (the table's) and
// one object; the object's last field describes the columns.
#include "store.h"

#include <cstdio>

#include "velhost.h"
#include "velseq/image.hpp"

namespace vcli {

void save_table(velseq::database &db, const Table &t, const std::string &path) {
    // The description keeps a column name per line.
    for (size_t c = 0; c < t.cols.size(); c++)
        if (t.cols[c].name.find('\n') != std::string::npos)
            throw Fail(kExitRefused, "column " + std::to_string(c + 1) +
                                         " has a line break in its name, which an image cannot "
                                         "keep (give other names with --columns)");
    try {
        velseq::save_image(db, path);
    } catch (const velseq::error &e) {
        throw Fail(kExitInput, "cannot save the table to " + path + ": " + e.what());
    }
}

namespace {

constexpr uint16_t kTableClass = 1; // the first class a fresh database defines

std::optional<Kind> kind_of(const velh_field_info_t &fi) {
    switch (fi.type) {
    case VEL_DD_SEQUENCE_INT8:
        return Kind::Int;
    case VEL_DD_SEQUENCE_DOUBLE:
        return Kind::Double;
    case VEL_DD_SEQUENCE_DATETIME:
        return Kind::Time;
    case VEL_DD_SEQUENCE_CHAR:
        if (fi.elem_size == sizeof(Text))
            return Kind::Text;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

// Declares the columns (and the description field) in `t.schema`.
void declare(Table &t, const std::vector<Kind> &kinds, const std::vector<std::string> &names) {
    t.fields.clear();
    for (size_t c = 0; c < kinds.size(); c++) {
        const velseq::order ord =
            static_cast<int>(c) == t.time ? velseq::order::ascending : velseq::order::none;
        switch (kinds[c]) {
        case Kind::Int:
            t.fields.emplace_back(t.schema.seq<int64_t>(names[c], ord));
            break;
        case Kind::Double:
            t.fields.emplace_back(t.schema.seq<double>(names[c], ord));
            break;
        case Kind::Time:
            t.fields.emplace_back(t.schema.seq<velseq::datetime>(names[c], ord));
            break;
        case Kind::Text:
            t.fields.emplace_back(t.schema.seq<Text>(names[c], ord));
            break;
        }
    }
    t.meta = t.schema.seq<Text>("velseq.table");
}

} // namespace

std::unique_ptr<velseq::database> open_table(const std::string &path, Table &t,
                                             const std::string &log, bool recover) {
    t.source = path;
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
    const velh_open_stats_t &st = report.stats;
    auto not_a_table = [&](const std::string &why) {
        return Fail(kExitInput, path + " is a database image but not a velseq table (" + why + ")");
    };
    if (st.classes != 1 || st.objects != 1)
        throw not_a_table(std::to_string(st.classes) + " classes, " + std::to_string(st.objects) +
                          " objects");
    // The host knows the fields' types; their names and the time column
    // come from the description in the last field.
    std::vector<Kind> kinds;
    velh_field_info_t fi;
    for (uint16_t i = 0; velh_field_info(db->get(), kTableClass, i, &fi) == VEL_S_OK; i++) {
        const std::optional<Kind> k = kind_of(fi);
        if (!k)
            throw not_a_table("field " + std::to_string(i) + " holds no column");
        kinds.push_back(*k);
    }
    if (kinds.size() < 2 || kinds.back() != Kind::Text)
        throw not_a_table("no description");
    kinds.pop_back();
    std::vector<std::string> names(kinds.size());
    for (size_t c = 0; c < names.size(); c++)
        names[c] = std::string("c").append(
            std::to_string(c)); // placeholders until the description is read
    Table probe;
    probe.source = path;
    declare(probe, kinds, names);
    velseq::attach(*db, probe.schema, kTableClass);

    velseq::connection con(*db);
    velseq::transaction tx(con, velseq::transaction::read);
    vel_cursor_t cur;
    vel_objhandle_t h{};
    vel_trans_h trans = &tx.connection_handle()->trans;
    if (vel_w_list_cursor(trans, kTableClass, &cur) != VEL_S_OK ||
        vel_cursor_first(trans, &cur) != VEL_S_OK ||
        vel_w_obj_from_cursor(trans, &cur, kTableClass, &h) != VEL_S_OK)
        throw not_a_table("its object cannot be read");
    t.oid = h.oid;
    const velseq::object obj = tx.open(probe.schema, t.oid);
    std::string text;
    for (const auto &piece : obj[probe.meta].elements())
        if (piece)
            text += piece->view();
    parse_description(text, t);
    if (t.cols.size() != kinds.size())
        throw not_a_table("its description names " + std::to_string(t.cols.size()) +
                          " columns of " + std::to_string(kinds.size()));
    for (size_t c = 0; c < kinds.size(); c++) {
        if (t.cols[c].kind != kinds[c])
            throw not_a_table("column " + t.cols[c].name + " is not of its described type");
        names[c] = t.cols[c].name;
    }
    declare(t, kinds, names);
    velseq::attach(*db, t.schema, kTableClass);
    std::visit([&](auto &fld) { t.rows = obj[fld].size(); }, probe.fields[0]);
    return db;
}

} // namespace vcli
