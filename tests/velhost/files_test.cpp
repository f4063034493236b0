// The durability files under failing calls and several openers.
//
// Injected I/O failures (io_fault.h): each call the host makes on its files
// fails in turn (the 1st, 2nd, ... of its kind) during a workload, and the
// files must reopen as exactly the commits that were acknowledged; a read
// failing at open refuses the open and changes no file.
//
// Openers: a writer excludes every other open, read-only opens share and
// write nothing.
#include <sys/wait.h>

#include "durable_util.h"
#include "io_fault.h"

using namespace durtest;
namespace fs = std::filesystem;

namespace {

// Appends to a database with a log while the n-th call of `op` fails, and the
// same to a model without a log when the first acknowledged; a class defined
// and a checkpoint midway, and after the failure a checkpoint, which must let
// commits go on.  The two agree in memory and after a reopen, whose state is
// left in `state`.  Returns whether the failure was injected (n = 0: none).
bool run(const TempDir &dir, int mode, io_fault::Op op, long n, std::string *state) {
    const velh_config_t cfg = config(256, dir.log.c_str(), mode);
    std::unique_ptr<Db> t = open_db(cfg), m = open_db(config(256));
    Workload(0).setup({t.get(), m.get()}); // classes 1 and 2
    uint64_t oids[2][3] = {};
    for (int i : {0, 1})
        for (uint64_t &oid : oids[i])
            EXPECT_EQ(append_ticks(i ? *m : *t, &oid, 1, 0), VEL_S_OK);
    io_fault::arm(op, n, n % 3 == 0 ? EIO : n % 3 == 1 ? ENOSPC : EACCES);
    bool must_ack = false;
    auto commit = [&](int k) {
        const VEL_RET r = append_ticks(*t, &oids[0][k % 3], size_t(k) + 1, k);
        EXPECT_TRUE(r == VEL_S_OK || (r == VEL_E_HOST_IO && !must_ack))
            << "commit " << k << ": " << r << " " << velh_error_message();
        EXPECT_TRUE(r != VEL_S_OK || append_ticks(*m, &oids[1][k % 3], size_t(k) + 1, k) == 0);
        must_ack = false;
    };
    for (int k = 0; k < 12; ++k) {
        const VEL_RET c = k == 3 ? define(t->db, classes()[2]) : VEL_E_HOST_IO; // refused: none
        EXPECT_TRUE(c == VEL_E_HOST_IO || (c == VEL_S_OK && define(m->db, classes()[2]) == 0)) << c;
        // A checkpoint that failed before its image was renamed in changed nothing.
        if (k == 6)
            must_ack = velh_checkpoint(t->db, dir.img.c_str()) != VEL_S_OK && !fs::exists(dir.img);
        commit(k);
    }
    const bool failed = io_fault::fired;
    const VEL_RET r = velh_checkpoint(t->db, dir.img.c_str());
    EXPECT_TRUE(r == VEL_S_OK || !failed)
        << "checkpoint after the failure: " << velh_error_message();
    for (int k = 12; k < 16; ++k) {
        must_ack = r == VEL_S_OK && failed;
        commit(k);
    }
    EXPECT_EQ(dump(*t), dump(*m));
    t->flush_may_fail = true;
    t.reset();
    const bool fired = io_fault::disarm();
    EXPECT_EQ(load(cfg, fs::exists(dir.img) ? dir.img.c_str() : nullptr, state), VEL_S_OK);
    EXPECT_EQ(*state, dump(*m));
    return fired;
}

} // namespace

TEST(DurableFaults, FailedCallsKeepEveryAcknowledgedCommit) {
    std::string expect, state;
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP})
        for (int op = 0; op < io_fault::kOps; ++op) // until a run ends unharmed or fails
            for (long n = 1; !HasFailure(); ++n) {
                SCOPED_TRACE(testing::Message() << io_fault::kNames[op] << " call " << n
                                                << " fails, log mode " << mode);
                if (!run(TempDir(), mode, io_fault::Op(op), n, &state))
                    break;
            }
    // Opens of an image and its log with a torn tail: a failed read refuses
    // the open and changes no file; after any failure the files open whole.
    TempDir dir;
    ASSERT_FALSE(run(dir, VELH_LOG_SYNC_COMMIT, io_fault::kRead, 0, &expect));
    const std::string image = read_file(dir.img), torn = read_file(dir.log) + "VLRC";
    const velh_config_t cfg = config(256, dir.log.c_str());
    for (int op = 0; op < io_fault::kOps; ++op)
        for (long n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << io_fault::kNames[op] << " call " << n << " fails");
            write_file(dir.img, image);
            write_file(dir.log, torn);
            io_fault::arm(io_fault::Op(op), n, EIO);
            velh_db_t *db = nullptr;
            const VEL_RET r = velh_db_open_file(&cfg, dir.img.c_str(), &db, nullptr);
            const bool at_open = io_fault::fired;
            const bool read = op == io_fault::kRead || op == io_fault::kPread;
            // A failure at close is its flush's, and told.
            const VEL_RET c = db == nullptr ? VEL_S_OK : velh_db_close(db);
            EXPECT_TRUE(c == VEL_S_OK || (c == VEL_E_HOST_IO && op == io_fault::kFdatasync)) << c;
            const bool fired = io_fault::disarm();
            EXPECT_EQ(r, at_open ? VEL_E_HOST_IO : VEL_S_OK) << velh_error_message();
            ASSERT_TRUE(!at_open || !read ||
                        (read_file(dir.img) == image && read_file(dir.log) == torn));
            ASSERT_TRUE(load(cfg, dir.img.c_str(), &state) == VEL_S_OK && state == expect);
            if (!fired)
                break;
        }
}

TEST(DurableLock, OneWriterOrSharedReaders) {
    TempDir dir;
    velh_config_t cfg = config(256, dir.log.c_str()), ro = cfg;
    ro.open_flags = VELH_OPEN_READ_ONLY;
    // The lock is the file's (flock), not the process's: a holder in this
    // process excludes as one in another would, and is named by its pid.
    auto busy = [&](const velh_config_t &c) {
        EXPECT_EQ(load(c, dir.img.c_str()), VEL_E_HOST_BUSY);
        EXPECT_TRUE(says(dir.path) && says("process " + std::to_string(::getpid())))
            << velh_error_message();
    };
    std::string expect;
    ASSERT_FALSE(run(dir, VELH_LOG_SYNC_COMMIT, io_fault::kRead, 0, &expect));
    {
        std::unique_ptr<Db> t = open_db(cfg, dir.img.c_str());
        busy(cfg);
        busy(ro);
    }
    // A torn tail, which read-only opens leave in the file.
    write_file(dir.log, read_file(dir.log) + "VLRC torn");
    const std::string files = read_file(dir.img) + read_file(dir.log);
    {
        std::unique_ptr<Db> other = open_db(ro, dir.img.c_str()), r = open_db(ro, dir.img.c_str());
        ASSERT_TRUE(other && r);
        busy(cfg);
        EXPECT_EQ(dump(*r), expect);
        vel_objhandle_t o;
        VEL_RET code = velh_begin(r->con, VELH_READ_WRITE);
        if (code == VEL_S_OK && (code = velh_obj_create(r->con, 1, &o)) == VEL_S_OK)
            code = velh_commit(r->con);
        EXPECT_EQ(code, VEL_E_HOST_READ_ONLY);
        EXPECT_EQ(define(r->db, classes()[2]), VEL_E_HOST_READ_ONLY);
        EXPECT_EQ(velh_checkpoint(r->db, dir.img.c_str()), VEL_E_HOST_READ_ONLY);
    }
    EXPECT_TRUE(read_file(dir.img) + read_file(dir.log) == files);
    const pid_t gone = ::fork();
    if (gone == 0)
        _exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    // Alone, a writer opens and cuts the tail; its checkpoint removes the
    // temporary image a dead process left.
    const std::string stale = dir.img + ".tmp." + std::to_string(gone);
    write_file(stale, "x");
    velh_open_stats_t st{};
    std::unique_ptr<Db> t = open_db(cfg, dir.img.c_str(), &st);
    ASSERT_TRUE(t);
    EXPECT_EQ(st.log_cut_bytes, 9u);
    EXPECT_EQ(velh_checkpoint(t->db, dir.img.c_str()), VEL_S_OK);
    EXPECT_FALSE(fs::exists(stale));
    // A read-only open replays class records like any other.
    EXPECT_EQ(define(t->db, classes()[2], "later"), VEL_S_OK);
    t.reset();
    EXPECT_TRUE(open_db(ro, dir.img.c_str()));
}
