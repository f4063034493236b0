// Transactions: snapshot isolation, commit, rollback, deletion, write
// conflicts, and failed transactions.
#include "host_fixture.h"

namespace hosttest {
namespace {

class TxnTest : public HostTest {
  protected:
    vel_db_connection_h other = nullptr;
    uint16_t cls = 0;

    void SetUp() override { setup(0); }
    void setup(vel_bool concurrent) {
        open_default(concurrent);
        ASSERT_EQ(velh_connect(db, &other), VEL_S_OK);
        cls = seq_class();
    }
    void TearDown() override {
        if (other != nullptr) {
            EXPECT_EQ(velh_disconnect(other), VEL_S_OK);
        }
        HostTest::TearDown();
    }
    int32_t get_id(vel_db_connection_h c, uint64_t oid) {
        vel_objhandle_t o;
        if (velh_obj_open(c, cls, oid, &o) != VEL_S_OK)
            return -1;
        int32_t v = -2;
        EXPECT_EQ(velh_get(&o, 0, &v, 4), VEL_S_OK);
        return v;
    }
    uint64_t make(int32_t id) {
        EXPECT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, 0, &id, 4), VEL_S_OK);
        EXPECT_EQ(velh_commit(con), VEL_S_OK);
        return o.oid;
    }
    void set_id(vel_db_connection_h c, uint64_t oid, int32_t id) {
        vel_objhandle_t o;
        ASSERT_EQ(velh_obj_open(c, cls, oid, &o), VEL_S_OK);
        ASSERT_EQ(velh_set(&o, 0, &id, 4), VEL_S_OK);
    }
};

class ConcurrentTxnTest : public TxnTest {
  protected:
    void SetUp() override { setup(1); }
};

TEST_F(ConcurrentTxnTest, FirstUpdaterWins) {
    uint64_t a = make(1), b = make(2);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_begin(other, VELH_READ_WRITE), VEL_S_OK);
    set_id(con, a, 10);
    vel_objhandle_t o;
    ASSERT_EQ(velh_obj_open(other, cls, a, &o), VEL_S_OK);
    int32_t v = 20;
    EXPECT_EQ(velh_set(&o, 0, &v, 4), VEL_E_HOST_CONFLICT);
    set_id(other, b, 21); // a different object is fine
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    // The winner has committed; a snapshot older than that commit still
    // may not overwrite it.
    EXPECT_EQ(velh_set(&o, 0, &v, 4), VEL_E_HOST_CONFLICT);
    EXPECT_EQ(velh_obj_delete(&o), VEL_E_HOST_CONFLICT);
    ASSERT_EQ(velh_commit(other), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(get_id(con, a), 10);
    EXPECT_EQ(get_id(con, b), 21);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

} // namespace
} // namespace hosttest
