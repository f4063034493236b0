// Crash tests with real processes: a child commits random transactions to a
// database with a log (checkpointing and saving a second image now and then)
// and reports on a pipe the state digest of each commit before it commits
// ("P k digest") and that it returned ("C k"), and likewise of each save
// ("T k digest", "D k"); the parent kills it with SIGKILL at a random moment,
// reopens the files and checks:
//   every-commit flush: the state is that of the last reported commit or of
//     the one in flight, whole;
//   grouped flush: the state is that of some reported commit (a prefix);
//   the saved image opens as the state of its last finished save or of the
//     one in flight.
// VELSEQ_CRASH_KILLS sets the kills per mode (default 5).
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <map>
#include <sys/wait.h>

#include "durable_util.h"

using namespace durtest;

namespace {

[[noreturn]] void child(const TempDir &dir, int mode, uint64_t seed, int out) {
    const std::string log = dir.file("db.log"), img = dir.file("db.img"),
                      snap = dir.file("snap.img");
    std::unique_ptr<Db> t = open_db(config(256, log.c_str(), mode));
    if (!t)
        _exit(2);
    auto say = [&](char what, uint64_t k, bool digest) {
        const size_t h = digest ? std::hash<std::string>()(dump(*t)) : 0;
        if (::dprintf(out, "%c %llu %zu\n", what, static_cast<unsigned long long>(k), h) < 0)
            _exit(3);
    };
    Workload w(seed);
    w.setup({t.get()}, false);
    say('P', 0, true);
    say('C', 0, false);
    for (uint64_t k = 1;;) {
        if (!w.txn({t.get()}, [&](Db *) { say('P', k, true); }))
            continue;
        say('C', k, false);
        if (k % 9 == 0 && velh_checkpoint(t->db, img.c_str()) != VEL_S_OK)
            _exit(4);
        if (k % 4 == 0) {
            say('T', k, true);
            if (velh_db_save(t->db, snap.c_str()) != VEL_S_OK)
                _exit(5);
            say('D', k, false);
        }
        ++k;
    }
}

// What the child reported, of commits [0] and of saves [1]: the digest of
// each one begun, and the last one finished (-1: none).
struct Report {
    std::map<uint64_t, uint64_t> begun[2];
    int64_t done[2] = {-1, -1};

    // Reads a line of the child; one the kill cut off has no newline.
    bool read(FILE *in) {
        char line[80], what;
        unsigned long long k, d;
        if (!std::fgets(line, sizeof line, in))
            return false;
        if (std::strchr(line, '\n') && std::sscanf(line, "%c %llu %llu", &what, &k, &d) == 3) {
            const int i = what == 'T' || what == 'D';
            if (what == 'P' || what == 'T')
                begun[i][k] = d;
            else
                done[i] = int64_t(k);
        }
        return true;
    }
    // 1 when `h` is the digest of the last one finished, 2 when of the one
    // begun after it, else 0.
    int which(int i, uint64_t h) const {
        auto last = begun[i].find(uint64_t(done[i]));
        if (last != begun[i].end() && last->second == h)
            return 1;
        auto next = begun[i].upper_bound(uint64_t(std::max<int64_t>(done[i], 0)));
        return next != begun[i].end() && next->second == h ? 2 : 0;
    }
};

// The digest of the state the files open as.
uint64_t state_of(const char *log, const char *image) {
    std::string s;
    EXPECT_EQ(load(config(4096, log), image, &s), VEL_S_OK) << velh_error_message();
    return std::hash<std::string>()(s);
}

} // namespace

TEST(DurableCrash, KilledWriterLeavesWholeCommits) {
    const char *env = std::getenv("VELSEQ_CRASH_KILLS");
    const int kills = env != nullptr && *env ? std::atoi(env) : 5;
    std::mt19937_64 rng(20261123);
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP, VELH_LOG_SYNC_NONE}) {
        int in_flight = 0, saves_checked = 0;
        for (int i = 0; i < kills; ++i) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " kill " + std::to_string(i));
            TempDir dir;
            int fds[2];
            ASSERT_EQ(::pipe(fds), 0);
            const uint64_t seed = rng();
            const pid_t pid = ::fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                ::close(fds[0]);
                child(dir, mode, seed, fds[1]);
            }
            ::close(fds[1]);
            // Let it reach a random commit, then kill it a moment later.
            const int64_t target = int64_t(rng() % 40);
            FILE *in = ::fdopen(fds[0], "r");
            Report rep;
            while (rep.done[0] < target && rep.read(in)) {
            }
            ::usleep(useconds_t(rng() % 4000));
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself: " << status;
            while (rep.read(in)) {
            }
            std::fclose(in);
            ASSERT_GE(rep.done[0], 0);

            const std::string img = dir.file("db.img"), snap = dir.file("snap.img");
            const uint64_t h = state_of(dir.file("db.log").c_str(),
                                        std::filesystem::exists(img) ? img.c_str() : nullptr);
            if (mode == VELH_LOG_SYNC_COMMIT) {
                const int w = rep.which(0, h);
                EXPECT_NE(w, 0) << "state is neither commit " << rep.done[0] << " nor the next";
                in_flight += w == 2;
            } else {
                EXPECT_TRUE(std::any_of(rep.begun[0].begin(), rep.begun[0].end(),
                                        [h](const auto &p) { return p.second == h; }))
                    << "state is no commit's";
            }
            if (std::filesystem::exists(snap)) {
                EXPECT_NE(rep.which(1, state_of(nullptr, snap.c_str())), 0)
                    << "the saved image is neither the last save nor the one in flight";
                ++saves_checked;
            }
        }
        std::printf("crash: mode %d, %d kills, %d found the commit in flight, %d saved images\n",
                    mode, kills, in_flight, saves_checked);
    }
}
