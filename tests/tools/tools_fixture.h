// A velhost database with one object whose only field is a sequence of the
// type under test, in an open read-write transaction.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "harness/families.h"
#include "veltools.h"

namespace vttest {

constexpr velt_type_t kInt8{VEL_DD_INT8, 8};
constexpr velt_type_t kInt4{VEL_DD_INT4, 4};

class FieldDb {
  public:
    FieldDb(velt_type_t type, vel_seq_order_t order, uint32_t page_size = 4096) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.seq_page_size = page_size;
        EXPECT_EQ(velh_db_open(&cfg, &db_), VEL_S_OK);
        const velh_field_def_t def{
            "v", velt_sequence_code(type),
            static_cast<uint16_t>(type.elem_type == VEL_DD_CHAR ? type.elem_size : 0)};
        uint16_t cls = 0;
        EXPECT_EQ(velh_class_define(db_, "c", &def, 1, 0, VELH_PM_INMEM, &cls), VEL_S_OK);
        velh_field_info_t fi{};
        EXPECT_EQ(velh_field_info(db_, cls, 0, &fi), VEL_S_OK);
        EXPECT_EQ(velh_connect(db_, &con_), VEL_S_OK);
        EXPECT_EQ(velh_begin(con_, VELH_READ_WRITE), VEL_S_OK);
        EXPECT_EQ(velh_obj_create(con_, cls, &obj_), VEL_S_OK);
        cls_ = cls;
        field_ = {fi.u_offset, fi.c_offset, fi.fld_no, type, order};
    }
    ~FieldDb() {
        velh_disconnect(con_);
        velh_db_close(db_);
    }
    FieldDb(const FieldDb &) = delete;
    FieldDb &operator=(const FieldDb &) = delete;

    vel_objhandle_t *obj() { return &obj_; }
    const velt_field_t *field() const { return &field_; }
    velh_db_t *db() const { return db_; }

    // Appends n values of the field's type (nulls: a bitmap or nullptr),
    // which must be accepted.
    void append(const void *vals, uint64_t n, const vel_bitmap_word_t *nulls = nullptr) {
        const velt_field_t &f = field_;
        const velrel::Family fam = velrel::family_of(f.type.elem_type, f.type.elem_size);
        const VEL_RET rc =
            fam.append(&obj_, f.u_offset, f.c_offset, f.fld_no, vals, n, f.order, nulls, fam.width);
        ASSERT_EQ(rc, VEL_S_OK);
    }

    // Commits and reopens the object in a new read-write transaction: its
    // pages are shared with the committed version until written.
    void commit_and_reopen() {
        ASSERT_EQ(velh_commit(con_), VEL_S_OK);
        ASSERT_EQ(velh_begin(con_, VELH_READ_WRITE), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(con_, cls_, obj_.oid, &obj_), VEL_S_OK);
    }

    // The host's own verdict on the field's tree.
    velh_tree_report_t host_check() {
        velh_tree_report_t rep{};
        EXPECT_EQ(velh_check_tree(&obj_, field_.fld_no, field_.order, 1, &rep), VEL_S_OK);
        EXPECT_TRUE(rep.ok) << rep.message;
        return rep;
    }

  private:
    velh_db_t *db_ = nullptr;
    vel_db_connection_h con_ = nullptr;
    vel_objhandle_t obj_{};
    velt_field_t field_{};
    uint16_t cls_ = 0;
};

// Appends from, from+1, ... to of an int8 field.
inline void fill_int8(FieldDb &d, int64_t from, int64_t to) {
    std::vector<int64_t> v;
    for (int64_t x = from; x <= to; x++)
        v.push_back(x);
    d.append(v.data(), v.size());
}

// Everything written to a FILE* by `fn`, as a string.
template <class Fn> std::string capture(Fn fn) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *m = open_memstream(&buf, &len);
    fn(m);
    std::fclose(m);
    std::string s(buf, len);
    std::free(buf);
    return s;
}

} // namespace vttest
