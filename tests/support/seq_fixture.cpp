#include "seq_fixture.h"

#include <cstring>
#include <stdexcept>
#include <vector>

#include "seq_root.h"

namespace vstest {

namespace {

void throwing_trap(int code, const char *file, int line, void *) {
    throw TrapHit{code, file != nullptr ? file : "", line};
}

void must(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK)
        throw std::runtime_error(std::string(what) + " failed with code " + std::to_string(rc));
}

} // namespace

SeqDb::SeqDb(const DbOptions &opt) : opt_(opt) {
    velh_set_trap_handler(throwing_trap, nullptr);
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = opt.seq_page_size;
    cfg.object_page_size = opt.object_page_size;
    cfg.additional_object_field_size = opt.additional_object_field_size;
    must(velh_db_open(&cfg, &db_), "velh_db_open");

    std::vector<velh_field_def_t> defs;
    defs.push_back({"id", VEL_DD_UINT4, 0, 0});
    for (const velrel::Family &fam : velrel::scalar_families())
        defs.push_back({nullptr, fam.seq_code, 0, 0});
    must(velh_class_define(db_, "seqs", defs.data(), static_cast<uint16_t>(defs.size()), 0,
                           VELH_PM_INMEM, &class_code_),
         "velh_class_define");
    must(velh_connect(db_, &con_), "velh_connect");
}

SeqDb::~SeqDb() {
    if (con_ != nullptr)
        velh_disconnect(con_);
    if (db_ != nullptr)
        velh_db_close(db_);
}

FieldRef SeqDb::field(const std::string &family_name) const {
    const auto &fams = velrel::scalar_families();
    for (size_t i = 0; i < fams.size(); i++) {
        if (family_name != fams[i].name)
            continue;
        velh_field_info_t info;
        must(velh_field_info(db_, class_code_, static_cast<uint16_t>(i + 1), &info),
             "velh_field_info");
        return FieldRef{info.fld_no, info.u_offset, info.c_offset, &fams[i]};
    }
    throw std::invalid_argument("no element family " + family_name);
}

vel_objhandle_t SeqDb::new_object() {
    vel_objhandle_t obj;
    must(velh_obj_create(con_, class_code_, &obj), "velh_obj_create");
    return obj;
}

velh_page_stats_t SeqDb::stats() const {
    velh_page_stats_t st{};
    must(velh_page_stats(db_, VELH_PM_ALL, &st), "velh_page_stats");
    return st;
}

TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys) {
    TreeReport rep;
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, f.u_offset, f.c_offset, &root);
    if (rc != VEL_S_OK) {
        rep.error = "root fetch failed with " + std::to_string(static_cast<int>(rc));
        return rep;
    }
    velrel::TreeInfo ti;
    rep.error = velrel::check_tree(*f.fam, order, root, obj->pm->large_page_size(obj->con),
                                   check_keys, &ti);
    rep.depth = ti.depth;
    rep.pages = std::move(ti.page_list);
    rep.contents = std::move(ti.content);
    return rep;
}

std::string diff(const SeqModel &model, const SeqModel &got) {
    if (got.size() != model.size())
        return "field holds " + std::to_string(got.size()) + " elements, model " +
               std::to_string(model.size());
    for (size_t i = 0; i < model.size(); i++) {
        if (got.nulls[i] != model.nulls[i])
            return "null flag of element " + std::to_string(i) + " differs";
        if (std::memcmp(got.at(i), model.at(i), model.w) != 0)
            return "value of element " + std::to_string(i) + " differs";
    }
    return {};
}

} // namespace vstest
