// Several threads, one connection each: writers copy-on-write their trees
// and move a balance between two fields of a shared object while readers
// check that every snapshot is consistent.
#include <atomic>
#include <thread>

#include "host_fixture.h"

namespace hosttest {
namespace {

constexpr uint16_t kRound = 0, kVals = 1, kA = 2, kB = 3;

class ThreadTest : public HostTest {
  protected:
    uint16_t cls = 0;
    velh_field_info_t vals{};
    int32_t ps = 0;

    void setup(vel_bool concurrent) {
        open_default(concurrent);
        ps = 256;
        velh_field_def_t f[] = {{"round", VEL_DD_INT4, 0},
                                {"vals", VEL_DD_SEQUENCE_INT4, 0},
                                {"a", VEL_DD_INT4, 0},
                                {"b", VEL_DD_INT4, 0}};
        ASSERT_EQ(velh_class_define(db, "t", f, 4, 0, VELH_PM_INMEM, &cls), VEL_S_OK);
        ASSERT_EQ(velh_field_info(db, cls, kVals, &vals), VEL_S_OK);
    }
    uint64_t make_object(int32_t a, int32_t b, bool tree) {
        EXPECT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, kA, &a, 4), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, kB, &b, 4), VEL_S_OK);
        if (tree) { // every value 0, as round 0 says
            EXPECT_EQ(build_tree(o, vals, {5, 5, 5}, 0), VEL_S_OK);
            EXPECT_EQ(rewrite(con, o.oid, 0), VEL_S_OK);
        }
        EXPECT_EQ(velh_commit(con), VEL_S_OK);
        return o.oid;
    }

    // Sets every value of the object's tree to `round`, copying each page on
    // write, and records the round.
    VEL_RET rewrite(vel_db_connection_h c, uint64_t oid, int32_t round) {
        vel_objhandle_t o;
        VEL_RET r = velh_obj_open(c, cls, oid, &o);
        if (r != VEL_S_OK)
            return r;
        vel_seq_page_t **slot = root_for_write(o, vals);
        if (slot == nullptr)
            return VEL_E_HOST_CONFLICT;
        if ((r = cow(c, o.pm, slot)) != VEL_S_OK)
            return r;
        for (int i = 0; i < 3; ++i) {
            if ((r = cow(c, o.pm, &entry(*slot, ps, i)->page)) != VEL_S_OK)
                return r;
            for (int k = 0; k < 5; ++k)
                vals4(entry(*slot, ps, i)->page)[k] = round;
        }
        return velh_set(&o, kRound, &round, 4);
    }

    // A transfer between a and b of the shared object.
    VEL_RET transfer(vel_db_connection_h c, uint64_t oid, int32_t amount) {
        vel_objhandle_t o;
        VEL_RET r = velh_obj_open(c, cls, oid, &o);
        int32_t a = 0, b = 0;
        if (r == VEL_S_OK)
            r = velh_get(&o, kA, &a, 4);
        if (r == VEL_S_OK)
            r = velh_get(&o, kB, &b, 4);
        a -= amount;
        b += amount;
        if (r == VEL_S_OK)
            r = velh_set(&o, kA, &a, 4);
        if (r == VEL_S_OK)
            r = velh_set(&o, kB, &b, 4);
        return r;
    }

    void run(int n_writers, int rounds) {
        const uint64_t shared = make_object(500, 500, false);
        std::vector<uint64_t> own;
        for (int w = 0; w < n_writers; ++w)
            own.push_back(make_object(0, 0, true));
        std::atomic<int> writers_left{n_writers};
        std::atomic<int> conflicts{0};
        std::vector<std::thread> threads;
        for (int w = 0; w < n_writers; ++w)
            threads.emplace_back([&, w] {
                vel_db_connection_h c;
                ASSERT_EQ(velh_connect(db, &c), VEL_S_OK);
                for (int round = 1; round <= rounds; ++round) {
                    for (;;) {
                        ASSERT_EQ(velh_begin(c, VELH_READ_WRITE), VEL_S_OK);
                        VEL_RET r = rewrite(c, own[static_cast<size_t>(w)], round);
                        if (r == VEL_S_OK)
                            r = transfer(c, shared, w + 1);
                        if (r == VEL_S_OK) {
                            ASSERT_EQ(velh_commit(c), VEL_S_OK);
                            break;
                        }
                        ASSERT_EQ(r, VEL_E_HOST_CONFLICT);
                        conflicts++;
                        ASSERT_EQ(velh_rollback(c), VEL_S_OK);
                        std::this_thread::yield();
                    }
                }
                velh_disconnect(c);
                writers_left--;
            });
        for (int rdr = 0; rdr < 2; ++rdr)
            threads.emplace_back([&] {
                vel_db_connection_h c;
                ASSERT_EQ(velh_connect(db, &c), VEL_S_OK);
                do {
                    ASSERT_EQ(velh_begin(c, VELH_READ_ONLY), VEL_S_OK);
                    vel_objhandle_t o;
                    int32_t a = 0, b = 0;
                    ASSERT_EQ(velh_obj_open(c, cls, shared, &o), VEL_S_OK);
                    ASSERT_EQ(velh_get(&o, kA, &a, 4), VEL_S_OK);
                    ASSERT_EQ(velh_get(&o, kB, &b, 4), VEL_S_OK);
                    ASSERT_EQ(a + b, 1000) << "a torn snapshot";
                    for (uint64_t oid : own) {
                        ASSERT_EQ(velh_obj_open(c, cls, oid, &o), VEL_S_OK);
                        int32_t round = -1;
                        ASSERT_EQ(velh_get(&o, kRound, &round, 4), VEL_S_OK);
                        std::vector<int32_t> v = read_values(o, vals);
                        ASSERT_EQ(v, std::vector<int32_t>(15, round)) << "pages of another version";
                        velh_tree_report_t rep;
                        ASSERT_EQ(velh_check_tree(&o, kVals, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
                        ASSERT_TRUE(rep.ok) << rep.message;
                    }
                    ASSERT_EQ(velh_commit(c), VEL_S_OK);
                } while (writers_left.load() > 0);
                velh_disconnect(c);
            });
        for (auto &t : threads)
            t.join();

        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t o;
        int32_t a = 0;
        ASSERT_EQ(velh_obj_open(con, cls, shared, &o), VEL_S_OK);
        ASSERT_EQ(velh_get(&o, kA, &a, 4), VEL_S_OK);
        EXPECT_EQ(a, 500 - rounds * n_writers * (n_writers + 1) / 2) << "a lost update";
        EXPECT_EQ(live_pages(), 4u * static_cast<uint64_t>(n_writers))
            << "old versions must be released once no reader needs them";
        ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
        for (uint64_t oid : own) {
            ASSERT_EQ(velh_obj_open(con, cls, oid, &o), VEL_S_OK);
            ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
        }
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
        EXPECT_EQ(live_pages(), 0u);
    }
};

TEST_F(ThreadTest, ConcurrentWritersAndReaders) {
    setup(1);
    run(3, 150);
}

TEST_F(ThreadTest, SerialisedWritersAndReaders) {
    setup(0);
    run(2, 150);
}

} // namespace
} // namespace hosttest
