#include "iter_env.h"

#include <cstdlib>

namespace itest {

namespace {

const uint8_t kSeqType[F_COUNT] = {
    VEL_DD_SEQUENCE_INT1,  VEL_DD_SEQUENCE_INT2,   VEL_DD_SEQUENCE_INT4,     VEL_DD_SEQUENCE_INT8,
    VEL_DD_SEQUENCE_UINT1, VEL_DD_SEQUENCE_UINT2,  VEL_DD_SEQUENCE_UINT4,    VEL_DD_SEQUENCE_UINT8,
    VEL_DD_SEQUENCE_FLOAT, VEL_DD_SEQUENCE_DOUBLE, VEL_DD_SEQUENCE_DATETIME, VEL_DD_SEQUENCE_CHAR};

void must(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "test host: %s failed with %d\n", what, static_cast<int>(rc));
        std::abort();
    }
}

} // namespace

Host::Host(bool compact) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = kSeqPage;
    must(velh_db_open(&cfg, &db_), "velh_db_open");

    // The scalars come first so that the compact layout (widest first)
    // differs from the uncompact one (declaration order).
    std::vector<velh_field_def_t> defs;
    defs.push_back({"num", VEL_DD_INT4, 0});
    defs.push_back({"key", VEL_DD_INT4, 0});
    for (int f = 0; f < F_COUNT; f++)
        defs.push_back({nullptr, kSeqType[f], static_cast<uint16_t>(f == F_CHAR8 ? 8 : 0)});
    for (int f = 0; f < F_COUNT; f++)
        defs.push_back({nullptr, kSeqType[f], static_cast<uint16_t>(f == F_CHAR8 ? 8 : 0)});
    defs.push_back({"pos", VEL_DD_SEQUENCE_UINT8, 0});
    defs.push_back({"chr4", VEL_DD_SEQUENCE_CHAR, 4});
    defs.push_back({"chr4b", VEL_DD_SEQUENCE_CHAR, 4});
    must(velh_class_define(db_, "rec", defs.data(), static_cast<uint16_t>(defs.size()),
                           compact ? VEL_CLASS_COMPACT : 0, VELH_PM_INMEM, &cls),
         "velh_class_define");
    auto field = [&](uint16_t no) {
        velh_field_info_t fi;
        must(velh_field_info(db_, cls, no, &fi), "velh_field_info");
        return Field{fi.u_offset, fi.c_offset, fi.fld_no};
    };
    num = field(0);
    key = field(1);
    for (int f = 0; f < F_COUNT; f++) {
        seq[f] = field(static_cast<uint16_t>(2 + f));
        out[f] = field(static_cast<uint16_t>(2 + F_COUNT + f));
    }
    pos = field(2 + 2 * F_COUNT);
    chr4 = field(3 + 2 * F_COUNT);
    chr4b = field(4 + 2 * F_COUNT);

    velh_field_def_t lone = {"x", VEL_DD_INT4, 0};
    must(velh_class_define(db_, "none", &lone, 1, 0, VELH_PM_INMEM, &cls_empty), "empty class");
    for (auto &c : cons_)
        must(velh_connect(db_, &c), "velh_connect");
}

Host::~Host() {
    for (auto &c : cons_)
        velh_disconnect(c);
    velh_db_close(db_);
}

void Host::begin_write(int which) { must(velh_begin(cons_[which], VELH_READ_WRITE), "begin"); }
void Host::begin_read(int which) { must(velh_begin(cons_[which], VELH_READ_ONLY), "begin"); }
void Host::commit(int which) {
    if (velh_in_transaction(cons_[which]))
        must(velh_commit(cons_[which]), "commit");
}

vel_objhandle_t Host::create() {
    vel_objhandle_t o{};
    must(velh_obj_create(cons_[0], cls, &o), "velh_obj_create");
    return o;
}

vel_objhandle_t Host::open(const vel_objhandle_t &obj, int which) {
    vel_objhandle_t o{};
    must(velh_obj_open(cons_[which], cls, obj.oid, &o), "velh_obj_open");
    return o;
}

void Host::set_int4(vel_objhandle_h obj, const Field &f, int32_t v) {
    must(velh_set(obj, f.no, &v, sizeof v), "velh_set");
}

VEL_RET Host::open_list_cursor(CursorMem &mem, int which) {
    return vel_w_list_cursor(trans(which), cls, mem.get());
}

VEL_RET Host::open_key_cursor(CursorMem &mem, int which) {
    return velh_index_cursor(cons_[which], cls, key.no, mem.get());
}

int64_t Host::live_pages() const {
    velh_page_stats_t s{};
    must(velh_page_stats(db_, VELH_PM_ALL, &s), "velh_page_stats");
    return static_cast<int64_t>(s.live);
}

} // namespace itest
