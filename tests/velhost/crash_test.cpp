// Crash tests with real processes: a child commits random transactions to a
// database with a log (checkpointing and saving a second image now and then)
// and reports on a pipe the state digest of each commit before it commits
// ("P k digest") and that it returned ("C k"); the parent kills it with
// SIGKILL at a random moment, reopens the files and checks:
//   every-commit flush: the state is that of the last reported commit or of
//     the one in flight, whole;
//   grouped flush: the state is that of some reported commit (a prefix);
//   the saved image opens as the state of its last finished save or of the
//     one in flight.
// VELSEQ_CRASH_KILLS sets the kills per mode (default 5).
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>

#include "durable_util.h"

using namespace durtest;

namespace {

uint64_t digest(velh_db_t *db, vel_db_connection_h con) {
    return std::hash<std::string>()(dump(db, con));
}

void say(int fd, const std::string &line) {
    if (::write(fd, line.data(), line.size()) != ssize_t(line.size()))
        _exit(3);
}

[[noreturn]] void child(const TempDir &dir, int mode, uint64_t seed, int out) {
    const std::string log = dir.file("db.log"), img = dir.file("db.img"),
                      snap = dir.file("snap.img");
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = 256;
    cfg.log_path = log.c_str();
    cfg.log_sync = mode;
    cfg.log_group_ms = 3;
    Target t;
    if (velh_db_open(&cfg, &t.db) != VEL_S_OK || velh_connect(t.db, &t.con) != VEL_S_OK)
        _exit(2);
    Workload w(seed);
    w.setup({&t});
    w.define_late({&t});
    say(out, "P 0 " + std::to_string(digest(t.db, t.con)) + "\nC 0\n");
    for (uint64_t k = 1; k < 100000;) {
        const bool committed = w.txn({&t}, [&](Target *tt) {
            say(out,
                "P " + std::to_string(k) + " " + std::to_string(digest(tt->db, tt->con)) + "\n");
        });
        if (!committed)
            continue;
        say(out, "C " + std::to_string(k) + "\n");
        if (k % 9 == 0 && velh_checkpoint(t.db, img.c_str()) != VEL_S_OK)
            _exit(4);
        if (k % 4 == 0) {
            say(out, "T " + std::to_string(k) + " " + std::to_string(digest(t.db, t.con)) + "\n");
            if (velh_db_save(t.db, snap.c_str()) != VEL_S_OK)
                _exit(5);
            say(out, "D " + std::to_string(k) + "\n");
        }
        ++k;
    }
    pause();
    _exit(0);
}

struct Report {
    std::map<uint64_t, uint64_t> prepared; // commit -> digest
    int64_t committed = -1;
    std::map<uint64_t, uint64_t> saving; // save -> digest
    int64_t saved = -1;
};

void parse(const std::string &text, Report *r) {
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos)
            break; // a line the kill cut off
        char kind = 0;
        unsigned long long k = 0, d = 0;
        int n = std::sscanf(text.c_str() + at, "%c %llu %llu", &kind, &k, &d);
        if (kind == 'P' && n == 3)
            r->prepared[k] = d;
        else if (kind == 'C')
            r->committed = int64_t(k);
        else if (kind == 'T' && n == 3)
            r->saving[k] = d;
        else if (kind == 'D')
            r->saved = int64_t(k);
        at = nl + 1;
    }
}

bool exists(const std::string &p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0;
}

// Opens the files the child left; the digest of the state, or 0 on failure.
uint64_t reopen(const TempDir &dir, bool with_log, const std::string &image,
                velh_open_stats_t *st) {
    const std::string log = dir.file("db.log");
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.log_path = with_log ? log.c_str() : nullptr;
    velh_db_t *db = nullptr;
    VEL_RET r = velh_db_open_file(&cfg, exists(image) ? image.c_str() : nullptr, &db, st);
    EXPECT_EQ(r, VEL_S_OK) << velh_error_message();
    if (r != VEL_S_OK)
        return 0;
    vel_db_connection_h con;
    EXPECT_EQ(velh_connect(db, &con), VEL_S_OK);
    uint64_t h = digest(db, con);
    EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
    EXPECT_EQ(velh_db_close(db), VEL_S_OK);
    return h;
}

} // namespace

TEST(DurableCrash, KilledWriterLeavesWholeCommits) {
    const char *env = std::getenv("VELSEQ_CRASH_KILLS");
    const int kills = env != nullptr && *env ? std::atoi(env) : 5;
    std::mt19937_64 rng(20261123);
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP}) {
        int in_flight = 0, behind = 0, cut = 0, saves_checked = 0;
        for (int i = 0; i < kills; ++i) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " kill " + std::to_string(i));
            TempDir dir;
            int fds[2];
            ASSERT_EQ(::pipe(fds), 0);
            const uint64_t seed = rng();
            pid_t pid = ::fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                ::close(fds[0]);
                child(dir, mode, seed, fds[1]);
            }
            ::close(fds[1]);
            // Let it reach a random commit, then kill it a moment later.
            const int64_t target = int64_t(rng() % 40);
            std::string text;
            Report rep;
            char buf[4096];
            while (rep.committed < target) {
                ssize_t k = ::read(fds[0], buf, sizeof buf);
                if (k <= 0)
                    break;
                text.append(buf, size_t(k));
                parse(text, &(rep = Report{}));
            }
            ::usleep(useconds_t(rng() % 4000));
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself: " << status;
            for (ssize_t k; (k = ::read(fds[0], buf, sizeof buf)) > 0;)
                text.append(buf, size_t(k));
            ::close(fds[0]);
            parse(text, &(rep = Report{}));
            ASSERT_GE(rep.committed, 0);

            velh_open_stats_t st{};
            const uint64_t h = reopen(dir, true, dir.file("db.img"), &st);
            cut += st.log_cut_records != 0;
            const uint64_t c = uint64_t(rep.committed);
            if (mode == VELH_LOG_SYNC_COMMIT) {
                const bool last = h == rep.prepared.at(c);
                const bool next = rep.prepared.count(c + 1) != 0 && h == rep.prepared.at(c + 1);
                EXPECT_TRUE(last || next) << "state is neither commit " << c << " nor the next";
                in_flight += next && !last;
            } else {
                // The latest commit with this state: a transaction may leave
                // the state as it found it (an object created and deleted).
                auto it = std::find_if(rep.prepared.rbegin(), rep.prepared.rend(),
                                       [h](const auto &p) { return p.second == h; });
                EXPECT_NE(it, rep.prepared.rend()) << "state is no commit's";
                if (it != rep.prepared.rend())
                    behind += it->first < c;
            }
            if (exists(dir.file("snap.img"))) {
                const uint64_t s = reopen(dir, false, dir.file("snap.img"), &st);
                auto last = rep.saving.find(uint64_t(rep.saved));
                auto next = rep.saving.upper_bound(uint64_t(std::max<int64_t>(rep.saved, 0)));
                EXPECT_TRUE((last != rep.saving.end() && s == last->second) ||
                            (next != rep.saving.end() && s == next->second))
                    << "the saved image is neither the last save nor the one in flight";
                ++saves_checked;
            }
        }
        std::printf("crash: mode %d, %d kills, %d found the commit in flight, %d behind the last "
                    "reported commit, %d cut a torn tail, %d saved images checked\n",
                    mode, kills, in_flight, behind, cut, saves_checked);
    }
}
