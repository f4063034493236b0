// Images and the commit log round-trip random databases: the dump of what is
// opened equals the dump of the database that wrote it, and both go on
// alike under the same later transactions (so the trees, reference counts,
// copy-on-write state and object ids came back too).
#include <algorithm>
#include <atomic>
#include <thread>

#include "durable_util.h"

using namespace durtest;

// Small pages; default pages and an object header; concurrent writers.
const velh_config_t kConfigs[] = {config(256), config(4096, nullptr, VELH_LOG_SYNC_COMMIT, 16),
                                  config(512, nullptr, VELH_LOG_SYNC_COMMIT, 8, 1)};

// Every log mode and config: the log replayed from the empty database, and a
// saved image (sizes come from the image, not from the config), open as the
// writer; the same transactions then keep the writer and the image's copy
// equal while a thread saves the copy, and that image opens as the state of
// one commit, whole.  After a checkpoint the writer reopens as image and log,
// reporting the records it replayed, and goes on logging where the log ended.
TEST(DurableImage, RoundTripsRandomDatabasesAndTheirLogs) {
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP, VELH_LOG_SYNC_NONE})
        for (const auto &c : kConfigs) {
            SCOPED_TRACE(testing::Message() << "page " << c.seq_page_size << " mode " << mode);
            TempDir dir;
            const std::string &log = dir.log, &img = dir.img, copy = dir.file("copy.log");
            velh_config_t cfg = c, copy_cfg = c;
            cfg.log_path = log.c_str();
            copy_cfg.log_path = copy.c_str();
            cfg.log_sync = copy_cfg.log_sync = mode;
            std::unique_ptr<Db> a = open_db(cfg);
            ASSERT_TRUE(a);
            Workload w(100 + uint64_t(mode) * 7 + c.seq_page_size);
            w.setup({a.get()});
            // Appends to compacted trees of 1, 17, 33, ... values: at some
            // length the inner pages on the right edge are full (in 256-byte
            // pages); the image holds them.
            velh_field_info_t fi;
            ASSERT_EQ(velh_field_info(a->db, 1, 2, &fi), VEL_S_OK); // "ticks", int8
            ASSERT_EQ(velh_begin(a->con, VELH_READ_WRITE), VEL_S_OK);
            const std::vector<int64_t> v(600, 7);
            for (uint32_t n = 1; n < v.size(); n += 16) {
                vel_objhandle_t o;
                ASSERT_EQ(velh_obj_create(a->con, 1, &o), VEL_S_OK);
                for (uint32_t k : {n, 0u, 40u})
                    EXPECT_EQ(k ? vel_w_seq_append_int8(&o, fi.u_offset, fi.c_offset, 2, v.data(),
                                                        k, VEL_SEQ_NO_ORDER, nullptr)
                                : velh_compact(&o, 2, VEL_SEQ_NO_ORDER),
                              VEL_S_OK);
            }
            ASSERT_EQ(velh_commit(a->con), VEL_S_OK);
            w.txns({a.get()}, 80);
            write_file(copy, read_file(log));
            std::string state;
            velh_open_stats_t st{};
            ASSERT_EQ(load(copy_cfg, nullptr, &state, &st), VEL_S_OK);
            EXPECT_EQ(state, dump(*a));
            EXPECT_EQ(st.log_replayed, w.commits() + 4); // and 3 class records, the trees
            EXPECT_EQ(st.log_cut_records, 0u);

            ASSERT_EQ(velh_db_save(a->db, img.c_str()), VEL_S_OK) << velh_error_message();
            std::unique_ptr<Db> b = open_db(config(), img.c_str(), &st);
            ASSERT_TRUE(b);
            EXPECT_EQ(dump(*b), dump(*a));
            EXPECT_EQ(st.classes, 3u);
            // A saved page is one loaded page: versions collapse to one.
            velh_page_stats_t ps;
            ASSERT_EQ(velh_page_stats(b->db, VELH_PM_ALL, &ps), VEL_S_OK);
            EXPECT_EQ(ps.live, st.image_pages);
            std::vector<std::string> states{dump(*a)};
            std::atomic<bool> saved{false};
            std::thread saver([&] {
                for (int i = 0; i < 3; ++i)
                    EXPECT_EQ(velh_db_save(b->db, dir.snap.c_str()), VEL_S_OK);
                saved = true;
            });
            for (int i = 0; i < 20 || !saved; ++i) {
                const bool saving = !saved; // then this commit's state may be the saved one
                w.txn({a.get(), b.get()});
                if (saving)
                    states.push_back(dump(*a));
            }
            saver.join();
            EXPECT_EQ(dump(*b), dump(*a));
            ASSERT_EQ(load(config(), dir.snap.c_str(), &state), VEL_S_OK);
            EXPECT_NE(std::find(states.begin(), states.end(), state), states.end());
            b.reset(); // the checkpoint replaces its image

            ASSERT_EQ(velh_checkpoint(a->db, img.c_str()), VEL_S_OK) << velh_error_message();
            const uint64_t before = w.commits();
            w.txns({a.get()}, 20);
            const std::string expect = dump(*a);
            a.reset();
            b = open_db(cfg, img.c_str(), &st);
            ASSERT_TRUE(b);
            EXPECT_EQ(dump(*b), expect);
            EXPECT_EQ(st.log_replayed, w.commits() - before);
            w.txns({b.get()}, 10);
            const std::string expect2 = dump(*b);
            b.reset();
            ASSERT_EQ(load(cfg, img.c_str(), &state), VEL_S_OK);
            EXPECT_EQ(state, expect2);
        }
}
