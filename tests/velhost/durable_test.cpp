// Images and the commit log round-trip random databases: the dump of what is
// opened equals the dump of the database that wrote it, and both go on
// alike under the same later transactions (so the trees, reference counts
// and copy-on-write state came back too).
#include <thread>

#include "durable_util.h"

using namespace durtest;

namespace {

struct Config {
    const char *name;
    uint32_t seq_page_size;
    uint16_t afs;
    vel_bool concurrent;
};

const Config kConfigs[] = {
    {"small pages", 256, 0, 0},
    {"default pages, object header", 4096, 16, 0},
    {"concurrent writers", 512, 8, 1},
};

velh_config_t config_of(const Config &c) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = c.seq_page_size;
    cfg.additional_object_field_size = c.afs;
    cfg.concurrent_write_transactions = c.concurrent;
    return cfg;
}

struct Opened : Target {
    explicit Opened(velh_db_t *d) {
        db = d;
        EXPECT_EQ(velh_connect(db, &con), VEL_S_OK);
    }
    ~Opened() {
        EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
        EXPECT_EQ(velh_db_close(db), VEL_S_OK);
    }
};

Opened *open_file(const velh_config_t &cfg, const char *image, velh_open_stats_t *st = nullptr) {
    velh_db_t *db = nullptr;
    VEL_RET r = velh_db_open_file(&cfg, image, &db, st);
    EXPECT_EQ(r, VEL_S_OK) << velh_error_message();
    return r == VEL_S_OK ? new Opened(db) : nullptr;
}

uint64_t live_pages(velh_db_t *db) {
    velh_page_stats_t s;
    EXPECT_EQ(velh_page_stats(db, VELH_PM_ALL, &s), VEL_S_OK);
    return s.live;
}

} // namespace

// Save, load, compare; then the same transactions on the original and the
// loaded copy keep them equal, and a second image of the copy loads equal.
TEST(DurableImage, RoundTripsRandomDatabases) {
    for (const Config &c : kConfigs)
        for (uint64_t seed = 1; seed <= 4; ++seed) {
            SCOPED_TRACE(std::string(c.name) + " seed " + std::to_string(seed));
            TempDir dir;
            const velh_config_t cfg = config_of(c);
            velh_db_t *db0;
            ASSERT_EQ(velh_db_open(&cfg, &db0), VEL_S_OK);
            Opened a(db0);
            Workload w(seed);
            w.setup({&a});
            for (int i = 0; i < 100; ++i)
                w.txn({&a});
            const std::string img = dir.file("db.img");
            ASSERT_EQ(velh_db_save(a.db, img.c_str()), VEL_S_OK) << velh_error_message();
            velh_config_t other; // sizes come from the image, not from here
            velh_config_init(&other);
            velh_open_stats_t st{};
            std::unique_ptr<Opened> b(open_file(other, img.c_str(), &st));
            ASSERT_TRUE(b);
            EXPECT_EQ(dump(b->db, b->con), dump(a.db, a.con));
            EXPECT_EQ(st.classes, 3u);
            EXPECT_GT(st.objects, 5u); // the workload made a database worth saving
            EXPECT_GT(st.image_pages, 12u);
            // A saved page is one loaded page: versions collapse to one.
            EXPECT_EQ(live_pages(b->db), st.image_pages);
            for (int i = 0; i < 30; ++i)
                w.txn({&a, b.get()});
            EXPECT_EQ(dump(b->db, b->con), dump(a.db, a.con));
            ASSERT_EQ(velh_db_save(b->db, img.c_str()), VEL_S_OK);
            std::unique_ptr<Opened> c2(open_file(other, img.c_str()));
            ASSERT_TRUE(c2);
            EXPECT_EQ(dump(c2->db, c2->con), dump(a.db, a.con));
        }
}

// A save runs while a writer commits: what it wrote is the state of one of
// the writer's commits, whole.
TEST(DurableImage, SaveDuringCommitsIsOneCommitsState) {
    TempDir dir;
    const velh_config_t cfg = config_of(kConfigs[0]);
    velh_db_t *db0;
    ASSERT_EQ(velh_db_open(&cfg, &db0), VEL_S_OK);
    Opened a(db0);
    Workload w(7);
    w.setup({&a});
    for (int i = 0; i < 20; ++i)
        w.txn({&a});
    std::vector<std::string> states{dump(a.db, a.con)};
    const std::string img = dir.file("db.img");
    std::atomic<bool> saved{false};
    std::thread saver([&] {
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(velh_db_save(a.db, img.c_str()), VEL_S_OK);
        saved = true;
    });
    while (!saved || states.size() < 3) {
        w.txn({&a});
        states.push_back(dump(a.db, a.con));
    }
    saver.join();
    velh_config_t other;
    velh_config_init(&other);
    std::unique_ptr<Opened> b(open_file(other, img.c_str()));
    ASSERT_TRUE(b);
    EXPECT_NE(std::find(states.begin(), states.end(), dump(b->db, b->con)), states.end());
}

// Every log mode and config: a database replayed from its log (from the
// empty database, or from a checkpoint image) equals the one that wrote it;
// the open reports the records it replayed.
TEST(DurableLog, ReplayEqualsTheWriter) {
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP, VELH_LOG_SYNC_NONE})
        for (const Config &c : kConfigs) {
            SCOPED_TRACE(std::string(c.name) + " mode " + std::to_string(mode));
            TempDir dir;
            const std::string log = dir.file("db.log"), img = dir.file("db.img");
            velh_config_t cfg = config_of(c);
            cfg.log_path = log.c_str();
            cfg.log_sync = mode;
            cfg.log_group_ms = 2;
            velh_db_t *db0;
            ASSERT_EQ(velh_db_open(&cfg, &db0), VEL_S_OK);
            std::unique_ptr<Opened> a(new Opened(db0));
            Workload w(100 + mode);
            w.setup({a.get()});
            for (int i = 0; i < 30; ++i)
                w.txn({a.get()});
            velh_open_stats_t st{};
            // Replay from the empty database through a copy of the log.
            const std::string copy = dir.file("copy.log");
            write_file(copy, read_file(log));
            velh_config_t rc = cfg;
            rc.log_path = copy.c_str();
            {
                std::unique_ptr<Opened> b(open_file(rc, nullptr, &st));
                ASSERT_TRUE(b);
                EXPECT_EQ(dump(b->db, b->con), dump(a->db, a->con));
                EXPECT_EQ(st.log_replayed, w.commits() + 3); // 3 class records
                EXPECT_EQ(st.log_cut_records, 0u);
            }
            // Checkpoint, more commits, then reopen from image + new log.
            ASSERT_EQ(velh_checkpoint(a->db, img.c_str()), VEL_S_OK) << velh_error_message();
            const uint64_t before = w.commits();
            for (int i = 0; i < 20; ++i)
                w.txn({a.get()});
            const std::string expect = dump(a->db, a->con);
            a.reset();
            std::unique_ptr<Opened> b(open_file(cfg, img.c_str(), &st));
            ASSERT_TRUE(b);
            EXPECT_EQ(dump(b->db, b->con), expect);
            EXPECT_EQ(st.log_replayed, w.commits() - before);
            // The reopened database goes on logging where the log ended.
            for (int i = 0; i < 10; ++i)
                w.txn({b.get()});
            const std::string expect2 = dump(b->db, b->con);
            b.reset();
            std::unique_ptr<Opened> d(open_file(cfg, img.c_str()));
            ASSERT_TRUE(d);
            EXPECT_EQ(dump(d->db, d->con), expect2);
        }
}
