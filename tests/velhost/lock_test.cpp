// One database, several openers: a writer excludes every other open (in this
// process or another), read-only opens share and write nothing; and class
// definitions (names up to VELH_MAX_NAME bytes) racing checkpoints never
// leave files that refuse to open.
#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>

#include "durable_util.h"

using namespace durtest;

namespace {

// A child process holding the files open with `cfg` until killed.
pid_t hold(const velh_config_t &cfg, const std::string &img) {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        velh_db_t *db = nullptr;
        const char c = velh_db_open_file(&cfg, img.c_str(), &db, nullptr) == VEL_S_OK ? 'y' : 'n';
        if (::write(ready[1], &c, 1) == 1)
            ::pause();
        _exit(1);
    }
    char c = 'n';
    EXPECT_TRUE(::read(ready[0], &c, 1) == 1 && c == 'y');
    ::close(ready[0]);
    ::close(ready[1]);
    return pid;
}

void release(pid_t pid) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

} // namespace

TEST(DurableLock, OneWriterOrSharedReaders) {
    TempDir dir;
    const std::string log = dir.file("db.log"), img = dir.file("db.img");
    velh_config_t cfg = config(256, log.c_str()), ro = cfg;
    ro.open_flags = VELH_OPEN_READ_ONLY;
    auto busy = [&](const velh_config_t &c, pid_t holder) {
        EXPECT_EQ(load(c, img.c_str()), VEL_E_HOST_BUSY);
        EXPECT_TRUE(says(dir.path) && says("process " + std::to_string(holder)))
            << (holder == ::getpid() ? "this process: " : "child: ") << velh_error_message();
    };
    std::string expect;
    {
        std::unique_ptr<Db> t = open_db(cfg);
        Workload w(3);
        w.setup({t.get()}, false);
        w.txns({t.get()}, 4);
        ASSERT_EQ(velh_checkpoint(t->db, img.c_str()), VEL_S_OK);
        w.txns({t.get()}, 4);
        expect = dump(*t);
        busy(cfg, ::getpid());
    }
    pid_t child = hold(cfg, img);
    busy(cfg, child);
    busy(ro, child);
    release(child);
    // A torn tail, which read-only opens leave in the file.
    write_file(log, read_file(log) + "VLRC torn");
    const std::string files = read_file(img) + read_file(log);
    child = hold(ro, img);
    busy(cfg, child);
    {
        std::unique_ptr<Db> r = open_db(ro, img.c_str());
        ASSERT_TRUE(r);
        EXPECT_EQ(dump(*r), expect);
        vel_objhandle_t o;
        VEL_RET code = velh_begin(r->con, VELH_READ_WRITE);
        if (code == VEL_S_OK && (code = velh_obj_create(r->con, 1, &o)) == VEL_S_OK)
            code = velh_commit(r->con);
        EXPECT_EQ(code, VEL_E_HOST_READ_ONLY);
        EXPECT_EQ(define_class(r->db, 2), VEL_E_HOST_READ_ONLY);
        EXPECT_EQ(velh_checkpoint(r->db, img.c_str()), VEL_E_HOST_READ_ONLY);
    }
    release(child);
    EXPECT_TRUE(read_file(img) + read_file(log) == files);
    // Alone, a writer opens and cuts the tail; its checkpoint removes the
    // temporary image a dead process left.
    const std::string stale = img + ".tmp." + std::to_string(child);
    write_file(stale, "x");
    velh_open_stats_t st{};
    std::unique_ptr<Db> t = open_db(cfg, img.c_str(), &st);
    ASSERT_TRUE(t);
    EXPECT_EQ(st.log_cut_bytes, 9u);
    EXPECT_EQ(velh_checkpoint(t->db, img.c_str()), VEL_S_OK);
    EXPECT_FALSE(std::filesystem::exists(stale));
}

// Each class defined as the next of a loop of checkpoints begins lands in the
// image or in the log that follows it, never in both or neither; one with
// names of VELH_MAX_NAME bytes too, while a byte more is refused.
TEST(DurableLock, ClassesDefinedDuringCheckpoints) {
    TempDir dir;
    const std::string log = dir.file("db.log"), img = dir.file("db.img");
    const std::string name(VELH_MAX_NAME, 'n'), over(VELH_MAX_NAME + 1, 'o');
    const velh_config_t cfg = config(4096, log.c_str(), VELH_LOG_SYNC_NONE);
    const int n = 40;
    auto define = [&](velh_db_t *db, const std::string &cls, const std::string &fld) {
        const velh_field_def_t f{fld.c_str(), VEL_DD_SEQUENCE_INT4, 0};
        uint16_t code;
        return velh_class_define(db, cls.c_str(), &f, 1, 0, VELH_PM_INMEM, &code);
    };
    {
        std::unique_ptr<Db> t = open_db(cfg);
        EXPECT_EQ(define(t->db, "c", over), VEL_E_ILLEGAL_PARAM);
        EXPECT_EQ(define(t->db, over, "f"), VEL_E_ILLEGAL_PARAM);
        std::atomic<int> checkpoints{0};
        std::atomic<bool> done{false};
        std::thread cp([&] {
            for (; !done; ++checkpoints)
                EXPECT_EQ(velh_checkpoint(t->db, img.c_str()), VEL_S_OK);
        });
        for (int i = 1; i <= n; ++i) {
            for (const int seen = checkpoints; seen == checkpoints;)
                std::this_thread::yield();
            EXPECT_EQ(i == n / 2 ? define(t->db, name, name)
                                 : define(t->db, std::to_string(i), "v"),
                      VEL_S_OK);
        }
        done = true;
        cp.join();
    }
    velh_open_stats_t st{};
    velh_db_t *db = nullptr;
    ASSERT_EQ(velh_db_open_file(&cfg, img.c_str(), &db, &st), VEL_S_OK) << velh_error_message();
    Db t(db);
    velh_field_info_t fi;
    EXPECT_EQ(st.classes, uint64_t(n));
    EXPECT_EQ(velh_field_by_name(db, n / 2, name.c_str(), &fi), VEL_S_OK);
}
