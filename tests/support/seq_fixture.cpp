#include "seq_fixture.h"

#include <stdexcept>
#include <vector>

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
    cfg.concurrent_write_transactions = opt.concurrent ? 1 : 0;
    must(velh_db_open(&cfg, &db_), "velh_db_open");

    std::vector<velh_field_def_t> defs;
    defs.push_back({"id", VEL_DD_UINT4, 0});
    for (const FamilyOps &fam : all_families())
        defs.push_back(
            {nullptr, fam.seq_type, static_cast<uint16_t>(fam.is_char ? fam.elem_size : 0)});
    must(velh_class_define(db_, "seqs", defs.data(), static_cast<uint16_t>(defs.size()),
                           opt.compact ? VEL_CLASS_COMPACT : 0, opt.pm, &class_code_),
         "velh_class_define");
    must(velh_connect(db_, &con_), "velh_connect");
}

SeqDb::~SeqDb() {
    if (con_ != nullptr)
        velh_disconnect(con_);
    if (db_ != nullptr)
        velh_db_close(db_);
}

FieldRef SeqDb::field(const FamilyOps &fam) const { return field(fam.name); }

FieldRef SeqDb::field(const std::string &family_name) const {
    const auto &fams = all_families();
    for (size_t i = 0; i < fams.size(); i++) {
        if (fams[i].name != family_name)
            continue;
        velh_field_info_t info;
        must(velh_field_info(db_, class_code_, static_cast<uint16_t>(i + 1), &info),
             "velh_field_info");
        return FieldRef{info.fld_no,       info.u_offset,   info.c_offset,
                        fams[i].elem_size, fams[i].is_char, &fams[i].ops};
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

} // namespace vstest
