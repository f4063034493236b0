// Threads with a connection each (run under ThreadSanitizer by
// scripts/tsan.sh): writers append to their own object's sequence and move a
// balance between two fields of a shared object, retrying on conflicts;
// readers check that every snapshot is whole: the balance sums up and each
// sequence holds exactly the rounds its object's counter says.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "velembed.h"

namespace {

enum : uint16_t { kRound, kVals, kA, kB };

void run(vel_bool concurrent, int writers, int rounds) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = 256;
    cfg.concurrent_write_transactions = concurrent;
    velh_db_t *db = nullptr;
    ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
    const velh_field_def_t f[] = {{"round", VEL_DD_INT4, 0, 0},
                                  {"vals", VEL_DD_SEQUENCE_INT4, 0, 0},
                                  {"a", VEL_DD_INT4, 0, 0},
                                  {"b", VEL_DD_INT4, 0, 0}};
    uint16_t cls = 0;
    ASSERT_EQ(velh_class_define(db, "t", f, 4, 0, VELH_PM_INMEM, &cls), VEL_S_OK);
    velh_field_info_t vals{};
    ASSERT_EQ(velh_field_info(db, cls, kVals, &vals), VEL_S_OK);
    vel_db_connection_h con = nullptr;
    ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
    std::vector<uint64_t> oids; // the shared object, then one per writer
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    for (int i = 0; i <= writers; ++i) {
        vel_objhandle_t o;
        const int32_t half = i == 0 ? 500 : 0;
        ASSERT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
        ASSERT_EQ(velh_set(&o, kA, &half, 4), VEL_S_OK);
        ASSERT_EQ(velh_set(&o, kB, &half, 4), VEL_S_OK);
        oids.push_back(o.oid);
    }
    ASSERT_EQ(velh_commit(con), VEL_S_OK);

    // One round of writer w: 7 values `round` appended, the counter set, and
    // w + 1 moved from a to b.
    auto round_of = [&](vel_db_connection_h c, int w, int32_t round) {
        vel_objhandle_t own, shared;
        VEL_RET r = velh_obj_open(c, cls, oids[w + 1], &own);
        const std::vector<int32_t> v(7, round);
        if (r == VEL_S_OK)
            r = vel_w_seq_append_int4(&own, vals.u_offset, vals.c_offset, kVals, v.data(), 7,
                                      VEL_SEQ_NO_ORDER, nullptr);
        if (r == VEL_S_OK)
            r = velh_set(&own, kRound, &round, 4);
        int32_t a = 0, b = 0;
        if (r == VEL_S_OK && (r = velh_obj_open(c, cls, oids[0], &shared)) == VEL_S_OK &&
            (r = velh_get(&shared, kA, &a, 4)) == VEL_S_OK &&
            (r = velh_get(&shared, kB, &b, 4)) == VEL_S_OK) {
            a -= w + 1, b += w + 1;
            if ((r = velh_set(&shared, kA, &a, 4)) == VEL_S_OK)
                r = velh_set(&shared, kB, &b, 4);
        }
        return r;
    };
    std::atomic<int> writers_left{writers};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {
            vel_db_connection_h c;
            ASSERT_EQ(velh_connect(db, &c), VEL_S_OK);
            for (int32_t round = 1; round <= rounds; ++round)
                for (;;) {
                    ASSERT_EQ(velh_begin(c, VELH_READ_WRITE), VEL_S_OK);
                    const VEL_RET r = round_of(c, w, round);
                    if (r == VEL_S_OK) {
                        ASSERT_EQ(velh_commit(c), VEL_S_OK);
                        break;
                    }
                    ASSERT_EQ(r, VEL_E_HOST_CONFLICT);
                    ASSERT_EQ(velh_rollback(c), VEL_S_OK);
                    std::this_thread::yield();
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
                int32_t a = 0, b = 0, round = 0;
                ASSERT_EQ(velh_obj_open(c, cls, oids[0], &o), VEL_S_OK);
                ASSERT_EQ(velh_get(&o, kA, &a, 4), VEL_S_OK);
                ASSERT_EQ(velh_get(&o, kB, &b, 4), VEL_S_OK);
                ASSERT_EQ(a + b, 1000) << "a torn snapshot";
                for (size_t i = 1; i < oids.size(); ++i) {
                    ASSERT_EQ(velh_obj_open(c, cls, oids[i], &o), VEL_S_OK);
                    ASSERT_EQ(velh_get(&o, kRound, &round, 4), VEL_S_OK);
                    velh_tree_report_t rep;
                    ASSERT_EQ(velh_check_tree(&o, kVals, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
                    ASSERT_TRUE(rep.ok) << rep.message;
                    ASSERT_EQ(rep.elements, 7u * static_cast<uint64_t>(round));
                    vel_int4 last = 0;
                    if (round > 0) {
                        ASSERT_EQ(vel_w_seq_last_int4(&o, vals.u_offset, vals.c_offset, &last),
                                  VEL_S_OK);
                        ASSERT_EQ(last, round) << "pages of another version";
                    }
                }
                ASSERT_EQ(velh_commit(c), VEL_S_OK);
            } while (writers_left.load() > 0);
            velh_disconnect(c);
        });
    for (auto &t : threads)
        t.join();

    // No update lost; once every object is gone no page is left.
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_objhandle_t o;
    int32_t a = 0;
    ASSERT_EQ(velh_obj_open(con, cls, oids[0], &o), VEL_S_OK);
    ASSERT_EQ(velh_get(&o, kA, &a, 4), VEL_S_OK);
    EXPECT_EQ(a, 500 - rounds * writers * (writers + 1) / 2) << "a lost update";
    for (uint64_t oid : oids) {
        ASSERT_EQ(velh_obj_open(con, cls, oid, &o), VEL_S_OK);
        ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    }
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    velh_page_stats_t st;
    ASSERT_EQ(velh_page_stats(db, VELH_PM_ALL, &st), VEL_S_OK);
    EXPECT_EQ(st.live, 0u);
    EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
    EXPECT_EQ(velh_db_close(db), VEL_S_OK);
}

TEST(Threads, ConcurrentWritersAndReaders) { run(1, 3, 150); }
TEST(Threads, SerialisedWritersAndReaders) { run(0, 2, 150); }

} // namespace
