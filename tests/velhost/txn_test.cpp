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

// A change, a new object and a deletion stay out of an older snapshot, even
// after they are committed; the next snapshot sees all three.
TEST_F(TxnTest, ReaderSnapshotSurvivesLaterCommits) {
    uint64_t a = make(1), gone = make(5);
    ASSERT_EQ(velh_begin(other, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(get_id(other, a), 1);

    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    set_id(con, a, 2);
    vel_objhandle_t fresh, o;
    ASSERT_EQ(velh_obj_create(con, cls, &fresh), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(con, cls, gone, &o), VEL_S_OK);
    ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    EXPECT_EQ(velh_obj_delete(&o), VEL_E_HOST_NO_OBJECT);
    int32_t v = 1;
    EXPECT_EQ(velh_set(&o, 0, &v, 4), VEL_E_HOST_NO_OBJECT);
    EXPECT_EQ(get_id(con, a), 2) << "a writer reads its own change";
    EXPECT_EQ(get_id(other, a), 1) << "uncommitted change leaked";
    EXPECT_EQ(get_id(other, fresh.oid), -1) << "uncommitted object leaked";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);

    EXPECT_EQ(get_id(other, a), 1) << "snapshot changed by a later commit";
    EXPECT_EQ(get_id(other, fresh.oid), -1);
    EXPECT_EQ(get_id(other, gone), 5);
    uint64_t n = 0;
    ASSERT_EQ(velh_obj_count(other, cls, &n), VEL_S_OK);
    EXPECT_EQ(n, 2u);
    ASSERT_EQ(velh_commit(other), VEL_S_OK);

    ASSERT_EQ(velh_begin(other, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(get_id(other, a), 2);
    EXPECT_EQ(get_id(other, fresh.oid), 0);
    EXPECT_EQ(get_id(other, gone), -1);
    ASSERT_EQ(velh_obj_count(other, cls, &n), VEL_S_OK);
    EXPECT_EQ(n, 2u);
    ASSERT_EQ(velh_rollback(other), VEL_S_OK);
}

TEST_F(TxnTest, RollbackRestoresEverything) {
    uint64_t a = make(10), b = make(20);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    set_id(con, a, 11);
    vel_objhandle_t ob, created;
    ASSERT_EQ(velh_obj_open(con, cls, b, &ob), VEL_S_OK);
    ASSERT_EQ(velh_obj_delete(&ob), VEL_S_OK);
    ASSERT_EQ(velh_obj_create(con, cls, &created), VEL_S_OK);
    EXPECT_EQ(get_id(con, b), -1);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);

    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(get_id(con, a), 10);
    EXPECT_EQ(get_id(con, b), 20);
    EXPECT_EQ(get_id(con, created.oid), -1);
    uint64_t n = 0;
    ASSERT_EQ(velh_obj_count(con, cls, &n), VEL_S_OK);
    EXPECT_EQ(n, 2u);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

TEST_F(TxnTest, OneWriterAtATimeWithoutConcurrentWrites) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    EXPECT_EQ(velh_begin(other, VELH_READ_WRITE | VELH_NOWAIT), VEL_E_HOST_BUSY);
    EXPECT_FALSE(velh_in_transaction(other));
    EXPECT_EQ(velh_begin(other, VELH_READ_ONLY), VEL_S_OK) << "readers never wait";
    ASSERT_EQ(velh_commit(other), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(velh_begin(other, VELH_READ_WRITE | VELH_NOWAIT), VEL_S_OK);
    ASSERT_EQ(velh_commit(other), VEL_S_OK);
}

TEST_F(TxnTest, FailedTransactionCannotCommit) {
    uint64_t a = make(1);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    set_id(con, a, 99);
    con->trans.error_code = VEL_E_NOMEM;
    EXPECT_EQ(velh_commit(con), VEL_E_HOST_TRANS_FAILED);
    EXPECT_FALSE(velh_in_transaction(con));
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(con->trans.error_code, VEL_S_OK) << "begin clears the error";
    EXPECT_EQ(get_id(con, a), 1);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

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
