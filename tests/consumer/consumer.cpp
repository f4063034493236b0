// consumer.cpp -- a C++ program built against the installed package only.
//
// Appends an int8 sequence in uneven batches, inserts a run in the middle,
// deletes another, and compares the field with a std::vector model after a
// commit, from a new read-only transaction.  Includes the C++ API header
// when the package ships it, so that it is compiled by a consumer too.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <vector>

#include "velembed.h"
#if __has_include(<velseq.hpp>)
#include <velseq.hpp>
#endif

namespace {

void must(VEL_RET rc, int line) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "consumer.cpp:%d: returned %d\n", line, static_cast<int>(rc));
        std::exit(1);
    }
}
void check(bool ok, int line) {
    if (!ok) {
        std::fprintf(stderr, "consumer.cpp:%d: check failed\n", line);
        std::exit(1);
    }
}
#define MUST(call) must((call), __LINE__)
#define CHECK(cond) check((cond), __LINE__)

struct DbClose {
    void operator()(velh_db_t *db) const { velh_db_close(db); }
};
struct Disconnect {
    void operator()(vel_db_connection_t *con) const { velh_disconnect(con); }
};

} // namespace

int main() {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = 512; // small pages: the tree grows several levels
    velh_db_t *raw_db = nullptr;
    MUST(velh_db_open(&cfg, &raw_db));
    std::unique_ptr<velh_db_t, DbClose> db(raw_db);
    const velh_field_def_t defs[] = {{"v", VEL_DD_SEQUENCE_INT8, 0}};
    uint16_t cls = 0;
    MUST(velh_class_define(db.get(), "c", defs, 1, 0, VELH_PM_INMEM, &cls));
    velh_field_info_t f{};
    MUST(velh_field_info(db.get(), cls, 0, &f));

    vel_db_connection_h raw_con = nullptr;
    MUST(velh_connect(db.get(), &raw_con));
    std::unique_ptr<vel_db_connection_t, Disconnect> con(raw_con);

    std::vector<vel_int8> model;
    MUST(velh_begin(con.get(), VELH_READ_WRITE));
    vel_objhandle_t obj{};
    MUST(velh_obj_create(con.get(), cls, &obj));
    const uint64_t oid = obj.oid;
    for (int batch = 1; batch <= 40; ++batch) {
        std::vector<vel_int8> vals(static_cast<size_t>(batch * 13 % 97 + 1));
        std::iota(vals.begin(), vals.end(), static_cast<vel_int8>(model.size()) * 3 - 500);
        MUST(vel_w_seq_append_int8(&obj, f.u_offset, f.c_offset, f.fld_no, vals.data(), vals.size(),
                                   VEL_SEQ_NO_ORDER, nullptr));
        model.insert(model.end(), vals.begin(), vals.end());
    }
    const std::vector<vel_int8> run = {-1, -2, -3, -4, -5};
    const size_t at = model.size() / 3;
    MUST(vel_w_seq_insert_int8(&obj, f.u_offset, f.c_offset, f.fld_no, at, run.data(), run.size(),
                               VEL_SEQ_NO_ORDER, nullptr));
    model.insert(model.begin() + static_cast<std::ptrdiff_t>(at), run.begin(), run.end());
    const size_t from = model.size() / 2, till = from + 99; // inclusive
    MUST(vel_w_seq_delete_int8(&obj, f.u_offset, f.c_offset, f.fld_no, from, till,
                               VEL_SEQ_NO_ORDER));
    model.erase(model.begin() + static_cast<std::ptrdiff_t>(from),
                model.begin() + static_cast<std::ptrdiff_t>(till + 1));
    MUST(velh_commit(con.get()));

    MUST(velh_begin(con.get(), VELH_READ_ONLY));
    MUST(velh_obj_open(con.get(), cls, oid, &obj));
    vel_seq_no_t count = 0;
    MUST(vel_w_seq_count(&obj, f.u_offset, f.c_offset, &count));
    CHECK(count == model.size());
    auto it = std::make_unique<vel_seq_iterator_t>();
    MUST(vel_w_seq_subseq_int8(&obj, f.u_offset, f.c_offset, it.get(), 0, model.size() - 1));
    std::vector<vel_int8> got;
    VEL_RET rc;
    while ((rc = it->next(it.get())) == VEL_S_OK)
        got.insert(got.end(), it->tile.u.arr_int8, it->tile.u.arr_int8 + it->tile_size);
    CHECK(rc == VEL_S_CURSOR_END);
    CHECK(got == model);
    MUST(velh_commit(con.get()));
    std::printf("consumer (C++): %zu values read back\n", got.size());
    return 0;
}
