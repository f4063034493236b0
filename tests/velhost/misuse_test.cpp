// Host API misuse: every refused call returns its clear code and leaves the
// database as it was.  Also the trap handler.
#include <stdexcept>
#include <string>

#include "host_fixture.h"

namespace hosttest {
namespace {

class MisuseTest : public HostTest {
  protected:
    uint16_t cls = 0;
    vel_objhandle_t obj{};
    velh_field_info_t seq{};

    void SetUp() override {
        open_default();
        cls = seq_class();
        ASSERT_EQ(velh_field_info(db, cls, 1, &seq), VEL_S_OK);
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
        int32_t id = 7;
        ASSERT_EQ(velh_set(&obj, 0, &id, 4), VEL_S_OK);
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
    }
    // The committed state is one object with id 7 and an empty sequence.
    void expect_unchanged() {
        ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
        uint64_t n = 0;
        ASSERT_EQ(velh_obj_count(con, cls, &n), VEL_S_OK);
        EXPECT_EQ(n, 1u);
        int32_t id = 0;
        EXPECT_EQ(velh_get(&obj, 0, &id, 4), VEL_S_OK);
        EXPECT_EQ(id, 7);
        EXPECT_EQ(root_for_read(obj, seq), nullptr);
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
        EXPECT_EQ(live_pages(), 0u);
    }
};

TEST_F(MisuseTest, ClosedTransaction) {
    int32_t v = 1;
    vel_objhandle_t o;
    uint64_t n;
    vel_cursor_t cur;
    VEL_WRK w;
    EXPECT_EQ(velh_get(&obj, 0, &v, 4), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_set(&obj, 0, &v, 4), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_obj_create(con, cls, &o), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_obj_open(con, cls, obj.oid, &o), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_obj_delete(&obj), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_obj_count(con, cls, &n), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(vel_w_list_cursor(&con->trans, cls, &cur), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_index_cursor(con, cls, 0, &cur), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_commit(con), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(velh_rollback(con), VEL_E_HOST_TRANS_CLOSED);
    w.ret = VEL_S_OK;
    EXPECT_NE(vel_reading(&obj, &w), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_TRANS_CLOSED);
    w.ret = VEL_S_OK;
    EXPECT_NE(vel_writing(&obj, &w, 0, 1), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_TRANS_CLOSED);
    vel_seq_page_t *pg = nullptr, *slot = nullptr;
    EXPECT_EQ(vel_seq_create_page(con, con->pm_inmem, &pg, &slot, 3), VEL_E_HOST_TRANS_CLOSED);
    EXPECT_EQ(slot, nullptr);
    expect_unchanged();
}

TEST_F(MisuseTest, ReadOnlyTransactionRefusesWrites) {
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    int32_t v = 1;
    vel_objhandle_t o;
    VEL_WRK w;
    EXPECT_EQ(velh_set(&obj, 0, &v, 4), VEL_E_HOST_READ_ONLY);
    EXPECT_EQ(velh_obj_create(con, cls, &o), VEL_E_HOST_READ_ONLY);
    EXPECT_EQ(velh_obj_delete(&obj), VEL_E_HOST_READ_ONLY);
    EXPECT_NE(vel_writing(&obj, &w, 0, 1), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_READ_ONLY);
    vel_seq_page_t *pg = nullptr, *slot = nullptr;
    EXPECT_EQ(vel_seq_create_page(con, con->pm_inmem, &pg, &slot, 3), VEL_E_HOST_READ_ONLY);
    EXPECT_EQ(vel_reading(&obj, &w), 0) << "reading is allowed";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    expect_unchanged();
}

TEST_F(MisuseTest, WrongClassUnknownObjectWrongField) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    int32_t v = 1;
    int64_t wide = 1;
    vel_objhandle_t o;
    VEL_WRK w;
    vel_cursor_t cur;
    EXPECT_EQ(velh_obj_create(con, 0, &o), VEL_E_HOST_NO_CLASS);
    EXPECT_EQ(velh_obj_create(con, cls + 1, &o), VEL_E_HOST_NO_CLASS);
    EXPECT_EQ(velh_obj_open(con, cls + 1, obj.oid, &o), VEL_E_HOST_NO_CLASS);
    EXPECT_EQ(velh_obj_open(con, cls, obj.oid + 100, &o), VEL_E_HOST_NO_OBJECT);
    EXPECT_EQ(vel_w_list_cursor(&con->trans, 999, &cur), VEL_E_HOST_NO_CLASS);

    vel_objhandle_t bad = obj;
    bad.class_code = 999;
    EXPECT_EQ(velh_get(&bad, 0, &v, 4), VEL_E_HOST_NO_CLASS);
    EXPECT_NE(vel_reading(&bad, &w), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_NO_CLASS);
    bad = obj;
    bad.oid += 100;
    EXPECT_EQ(velh_set(&bad, 0, &v, 4), VEL_E_HOST_NO_OBJECT);
    EXPECT_NE(vel_writing(&bad, &w, 0, 1), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_NO_OBJECT);
    EXPECT_EQ(velh_obj_delete(&bad), VEL_E_HOST_NO_OBJECT);

    EXPECT_EQ(velh_set(&obj, 2, &v, 4), VEL_E_HOST_NO_FIELD);
    EXPECT_EQ(velh_set(&obj, 0, &wide, 8), VEL_E_HOST_WRONG_FIELD);
    EXPECT_EQ(velh_get(&obj, 1, &wide, 8), VEL_E_HOST_WRONG_FIELD)
        << "sequence root is not a scalar";
    EXPECT_EQ(velh_index_cursor(con, cls, 1, &cur), VEL_E_HOST_WRONG_FIELD);
    EXPECT_EQ(velh_index_cursor(con, cls, 9, &cur), VEL_E_HOST_NO_FIELD);
    EXPECT_NE(vel_writing(&obj, &w, 0, 2), 0);
    EXPECT_EQ(w.ret, VEL_E_HOST_NO_FIELD);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    expect_unchanged();
}

TEST_F(MisuseTest, NullsAndLifecycleErrors) {
    EXPECT_EQ(velh_db_open(nullptr, &db), VEL_E_HOST_BAD_ARG);
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = 100; // not a multiple of 8
    velh_db_t *other = nullptr;
    EXPECT_EQ(velh_db_open(&cfg, &other), VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(velh_begin(nullptr, VELH_READ_ONLY), VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(velh_begin(con, 8), VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(velh_get(nullptr, 0, nullptr, 0), VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(velh_db_close(db), VEL_E_HOST_BUSY) << "a connection is still open";
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_E_HOST_TRANS_ACTIVE);
    vel_cursor_t cur;
    std::memset(&cur, 0x5a, sizeof cur);
    EXPECT_EQ(vel_cursor_first(&con->trans, &cur), VEL_E_HOST_BAD_ARG);
    ASSERT_EQ(vel_w_list_cursor(&con->trans, cls, &cur), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(vel_cursor_first(&con->trans, &cur), VEL_E_HOST_TRANS_CLOSED)
        << "a cursor dies with its transaction";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    expect_unchanged();
}

struct Trapped : std::runtime_error {
    int code;
    Trapped(int c) : std::runtime_error("trap"), code(c) {}
};

void throwing_handler(int code, const char *, int, void *ctx) {
    ++*static_cast<int *>(ctx);
    throw Trapped(code);
}

TEST_F(MisuseTest, TrapHandlerMayUnwind) {
    int calls = 0;
    velh_set_trap_handler(throwing_handler, &calls);
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    VEL_WRK w;
    ASSERT_EQ(vel_reading(&obj, &w), 0);
    // Writing through a committed version, and a position outside the object.
    try {
        vel_obj_pos(w.pobj, con, w.pm, obj.mo + seq.offset, 1);
        ADD_FAILURE() << "no trap";
    } catch (const Trapped &t) {
        EXPECT_EQ(t.code, VEL_E_HOST_READ_ONLY);
    }
    EXPECT_THROW(vel_obj_pos(w.pobj, con, w.pm, obj.mo + 1000000, 0), Trapped);
    EXPECT_THROW(vel_stop__(VEL_ERR_SEQ, "f.cpp", 3), Trapped);
    EXPECT_EQ(calls, 3);
    velh_set_trap_handler(nullptr, nullptr);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

void returning_handler(int, const char *, int, void *) {}

TEST(TrapDeathTest, DefaultAndReturningHandlersAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(vel_stop__(VEL_ERR_SEQ, "somefile.cpp", 42),
                 "fatal trap 1060000 at somefile.cpp:42");
    EXPECT_DEATH(
        {
            velh_set_trap_handler(returning_handler, nullptr);
            vel_stop__(VEL_ERR_SEQ, "x.cpp", 1);
        },
        "fatal trap");
}

} // namespace
} // namespace hosttest
