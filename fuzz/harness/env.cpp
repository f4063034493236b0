#include "harness/env.h"

#include <string>
#include <utility>

namespace velrel {

std::string Field::check(bool keys_exact, TreeInfo *ti, int o) const {
    vel_seq_page_t *r = nullptr;
    if (VEL_RET rc = root(&r); rc != VEL_S_OK)
        return "root fetch failed with " + std::to_string(rc);
    return check_tree(s.fam, ord(o), r, page_size, keys_exact, ti);
}

Reader::Reader(Env &env) : env_(env) {
    if (velh_connect(env.db_, &con_) != VEL_S_OK)
        con_ = nullptr;
}

Reader::~Reader() {
    end();
    if (con_)
        velh_disconnect(con_);
}

VEL_RET Reader::begin() {
    if (!con_)
        return VEL_E_HOST_BAD_ARG;
    end();
    VEL_RET rc = velh_begin(con_, VELH_READ_ONLY);
    if (rc == VEL_S_OK && (rc = env_.open_objects(con_, objs_)) != VEL_S_OK)
        velh_rollback(con_);
    open_ = rc == VEL_S_OK;
    return rc;
}

void Reader::end() {
    if (open_ && con_)
        velh_commit(con_);
    open_ = false;
}

std::unique_ptr<Env> Env::open(const EnvConfig &cfg, const std::vector<FieldSpec> &fields,
                               VEL_RET *rc) {
    std::unique_ptr<Env> e(new Env);
    e->fields_ = fields;
    velh_config_t hc;
    velh_config_init(&hc);
    hc.seq_page_size = static_cast<uint32_t>(cfg.seq_page_size);
    hc.concurrent_write_transactions = cfg.concurrent ? 1 : 0;
    hc.object_page_size = cfg.object_page_size;
    hc.additional_object_field_size = cfg.additional_object_field_size;
    if ((*rc = velh_db_open(&hc, &e->db_)) != VEL_S_OK)
        return nullptr;
    std::vector<velh_field_def_t> defs; // the fields under test go unnamed
    for (const FieldSpec &f : fields)
        defs.push_back(
            {nullptr, f.fam.seq_code, static_cast<uint16_t>(f.fam.is_char ? f.fam.width : 0), 0});
    defs.push_back({"tag", VEL_DD_UINT8, 0, 0});
    *rc = velh_class_define(e->db_, "subject", defs.data(), static_cast<uint16_t>(defs.size()),
                            cfg.compact ? VEL_CLASS_COMPACT : 0,
                            cfg.alt_pm ? VELH_PM_ALT : VELH_PM_INMEM, &e->class_code_);
    if (*rc != VEL_S_OK)
        return nullptr;
    for (size_t i = 0; i < fields.size(); ++i) {
        velh_field_info_t fi;
        if ((*rc = velh_field_info(e->db_, e->class_code_, static_cast<uint16_t>(i), &fi)) !=
            VEL_S_OK)
            return nullptr;
        e->locs_.push_back({fi.u_offset, fi.c_offset, fi.fld_no});
    }
    e->tag_fld_ = static_cast<uint16_t>(fields.size());
    vel_page_manager_t *pm = velh_page_manager(e->db_, cfg.alt_pm ? VELH_PM_ALT : VELH_PM_INMEM);
    if ((*rc = velh_connect(e->db_, &e->con_)) != VEL_S_OK)
        return nullptr;
    e->page_size_ = pm->large_page_size(e->con_);
    if ((*rc = velh_begin(e->con_, VELH_READ_WRITE)) != VEL_S_OK)
        return nullptr;
    e->objs_.resize(cfg.n_objects);
    for (int i = 0; i < cfg.n_objects; ++i) {
        if ((*rc = velh_obj_create(e->con_, e->class_code_, &e->objs_[i])) != VEL_S_OK)
            return nullptr;
        e->oids_.push_back(e->objs_[i].oid);
    }
    if ((*rc = e->commit_and_begin()) != VEL_S_OK)
        return nullptr;
    return e;
}

Env::~Env() {
    for (auto &s : snaps_)
        s.reset();
    if (con_)
        velh_disconnect(con_);
    if (db_)
        velh_db_close(db_);
}

VEL_RET Env::open_objects(vel_db_connection_h con, std::vector<vel_objhandle_t> &objs) {
    objs.resize(oids_.size());
    VEL_RET rc = VEL_S_OK;
    for (size_t i = 0; i < oids_.size() && rc == VEL_S_OK; ++i)
        rc = velh_obj_open(con, class_code_, oids_[i], &objs[i]);
    return rc;
}

// `ended`: the commit's or rollback's code, reported before the begin's.
VEL_RET Env::begin_after(VEL_RET ended) {
    VEL_RET rb = velh_begin(con_, VELH_READ_WRITE);
    VEL_RET rc = ended != VEL_S_OK ? ended : rb;
    return rc == VEL_S_OK ? open_objects(con_, objs_) : rc;
}

VEL_RET Env::commit_and_begin() { return begin_after(velh_commit(con_)); }

VEL_RET Env::rollback_and_begin() { return begin_after(velh_rollback(con_)); }

VEL_RET Env::snapshot_open(int slot) {
    if (!snaps_[slot])
        snaps_[slot] = std::make_unique<Reader>(*this);
    return snaps_[slot]->begin();
}

void Env::snapshot_close(int slot) {
    if (snaps_[slot])
        snaps_[slot]->end();
}

uint64_t Env::live_pages() {
    velh_page_stats_t st{};
    velh_page_stats(db_, VELH_PM_ALL, &st);
    return st.live;
}

VEL_RET Env::release_all() {
    for (auto &s : snaps_)
        s.reset();
    for (auto &o : objs_)
        for (const auto &l : locs_) {
            VEL_RET rc = vel_w_seq_truncate(&o, l.u, l.c, l.fld_no);
            if (rc != VEL_S_OK)
                return rc;
        }
    return commit_and_begin();
}

} // namespace velrel
