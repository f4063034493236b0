// Crash tests with real processes: a child commits random transactions to a
// database with a log (checkpointing and saving a second image now and then)
// and reports on a pipe the state digest of each commit before it commits
// ('P', k, digest) and that it returned ('C', k), and likewise of each save
// ('T', k, digest; 'D', k); the parent kills it with SIGKILL at a random moment,
// reopens the files and checks:
//   every-commit flush: the state is that of the last reported commit or of
//     the one in flight, whole;
//   grouped flush: the state is that of some reported commit (a prefix);
//   the saved image opens as the state of its last finished save or of the
//     one in flight.
// VELSEQ_CRASH_KILLS sets the kills per mode (default 5).
//
// Power loss: a workload (commits, checkpoints, saves of a second image)
// runs with every write, sync, creation, rename and unlink in its folder
// journaled (io_fault.h).  At crash points (next to every sync and rename,
// and at random ones) the files a machine crash may leave are rebuilt: each
// file as of its last completed sync plus its later writes dropped, kept as
// a prefix, or kept as random 4 KiB pages; creations, renames and unlinks
// after the folder's last sync undone (all of them, or all but a prefix).
// The host's own open must find the state of one commit i, whole, with
//   i >= the last acknowledged commit (every-commit flush), or the last one
//        whose record a finished sync or checkpoint covered (the others);
//   i <= the last commit begun;
// the saved image must open as the last acknowledged save or the one in
// flight.  In the grouped mode, with a slow device under the flusher, each
// commit's covering flush must start by the documented deadline: the
// period after the commit returned, or the end of the flush running then.
// VELSEQ_POWERLOSS_RUNS sets the runs (seeds) per mode (default 1).
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <map>
#include <set>
#include <sys/wait.h>

#include "durable_util.h"
#include "io_fault.h"

using namespace durtest;
using Event = io_fault::journal::Event;

namespace {

uint64_t digest(const std::string &s) { return std::hash<std::string>()(s); }

// An environment variable's count, else `dflt`.
int count_from(const char *name, int dflt) {
    const char *env = std::getenv(name);
    return env != nullptr && *env ? std::atoi(env) : dflt;
}

struct Line {
    char what;
    uint64_t k, digest;
};

[[noreturn]] void child(const TempDir &dir, int mode, uint64_t seed, int out) {
    const std::string log = dir.file("db.log"), img = dir.file("db.img"),
                      snap = dir.file("snap.img");
    std::unique_ptr<Db> t = open_db(config(256, log.c_str(), mode));
    if (!t)
        _exit(2);
    auto say = [&](char what, uint64_t k, bool state) {
        const Line l{what, k, state ? digest(dump(*t)) : 0};
        if (::write(out, &l, sizeof l) != sizeof l) // below PIPE_BUF: a kill cuts none
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

    bool read(int fd) {
        Line l;
        if (::read(fd, &l, sizeof l) != sizeof l)
            return false;
        const int i = l.what == 'T' || l.what == 'D';
        if (l.what == 'P' || l.what == 'T')
            begun[i][l.k] = l.digest;
        else
            done[i] = int64_t(l.k);
        return true;
    }
    // Whether `h` is the digest of the last one finished or of the one begun
    // after it.
    bool last_or_next(int i, uint64_t h) const {
        auto last = begun[i].find(uint64_t(done[i]));
        auto next = begun[i].upper_bound(uint64_t(std::max<int64_t>(done[i], 0)));
        return (last != begun[i].end() && last->second == h) ||
               (next != begun[i].end() && next->second == h);
    }
};

// The digest of the state the files open as.
uint64_t state_of(const char *log, const char *image) {
    std::string s;
    EXPECT_EQ(load(config(4096, log), image, &s), VEL_S_OK) << velh_error_message();
    return digest(s);
}

enum Tag : uint64_t { kBegin, kAck, kSaveBegin, kSaveAck, kCheckpointAck };
enum Model { kDrop, kPrefix, kPages };
constexpr size_t kNone = SIZE_MAX;

struct Mode {
    int sync;
    int commits, checkpoint_every, save_every, gap_us;
    uint32_t period_ms;
    long flush_delay_us; // < 0: on the disk, at its own pace
};

// What a run did.  States: 0 the empty database, 1..3 its classes, then one
// per commit; begin/ack: journal index of their marks (kNone: none).
struct Journaled {
    Mode mode;
    std::vector<Event> ev;
    std::vector<uint64_t> state, saved;
    std::vector<size_t> begin, ack, checkpoint, covered, save_begin, save_ack;
    std::set<uint64_t> logs; // the files commits were written to
};

Journaled record(const Mode &m, uint64_t seed, const TempDir &dir) {
    Journaled r{m, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    {
        std::unique_ptr<Db> s = open_db(config(256));
        r.state.push_back(digest(dump(*s)));
        for (size_t c = 0; c < 3; ++c) {
            EXPECT_EQ(define_class(s->db, c), VEL_S_OK);
            r.state.push_back(digest(dump(*s)));
        }
    }
    const std::string log = dir.file("db.log"), img = dir.file("db.img"),
                      snap = dir.file("snap.img");
    velh_config_t cfg = config(256, log.c_str(), m.sync);
    cfg.log_group_ms = m.period_ms;
    using io_fault::journal::mark;
    io_fault::journal::start(dir.path, std::max(m.flush_delay_us, 0L));
    {
        std::unique_ptr<Db> t = open_db(cfg);
        mark(kAck, 0);
        Workload w(seed);
        mark(kBegin, 3);
        w.setup({t.get()}, false);
        mark(kAck, 3);
        for (int k = 1; k <= m.commits;) {
            const uint64_t i = r.state.size();
            if (!w.txn({t.get()}, [&](Db *) {
                    r.state.push_back(digest(dump(*t)));
                    mark(kBegin, i);
                }))
                continue;
            mark(kAck, i);
            if (k % m.checkpoint_every == 0) {
                EXPECT_EQ(velh_checkpoint(t->db, img.c_str()), VEL_S_OK) << velh_error_message();
                mark(kCheckpointAck, i);
            }
            if (k % m.save_every == 0) {
                mark(kSaveBegin, r.saved.size());
                r.saved.push_back(digest(dump(*t)));
                EXPECT_EQ(velh_db_save(t->db, snap.c_str()), VEL_S_OK) << velh_error_message();
                mark(kSaveAck, r.saved.size() - 1);
            }
            ++k;
            ::usleep(useconds_t(m.gap_us));
        }
    } // the close flushes the rest
    r.ev = io_fault::journal::stop();

    const size_t n = r.ev.size();
    r.begin.assign(r.state.size(), kNone);
    r.ack = r.checkpoint = r.covered = r.begin;
    r.save_begin.assign(r.saved.size(), kNone);
    r.save_ack = r.save_begin;
    for (size_t e = 0; e < n; ++e) {
        const Event &x = r.ev[e];
        if (x.kind == Event::kMark)
            (x.file == kBegin       ? r.begin
             : x.file == kAck       ? r.ack
             : x.file == kSaveBegin ? r.save_begin
             : x.file == kSaveAck   ? r.save_ack
                                    : r.checkpoint)[x.at] = e;
    }
    r.begin[0] = 0;
    r.begin[1] = r.begin[2] = r.begin[3];
    // Covered: a sync of its record's file that began after the record was
    // written has ended, or a checkpoint after it returned.
    for (size_t i = r.state.size(); i-- > 1;) {
        r.covered[i] = std::min(r.checkpoint[i], i + 1 < r.state.size() ? r.covered[i + 1] : kNone);
        if (r.ack[i] == kNone)
            continue;
        size_t w = r.ack[i];
        while (w > r.begin[i] && r.ev[w].kind != Event::kWrite)
            --w;
        EXPECT_EQ(r.ev[w].kind, Event::kWrite) << "commit " << i << " wrote nothing";
        r.logs.insert(r.ev[w].file);
        for (size_t e = w; e < n && e < r.covered[i]; ++e)
            if (r.ev[e].kind == Event::kSyncEnd && r.ev[e].file == r.ev[w].file && r.ev[e].at > w)
                r.covered[i] = e;
    }
    r.covered[0] = 0;
    return r;
}

// The last i with idx[i] < k, or -1.
int64_t last_before(const std::vector<size_t> &idx, size_t k) {
    int64_t last = -1;
    for (size_t i = 0; i < idx.size(); ++i)
        if (idx[i] != kNone && idx[i] < k)
            last = int64_t(i);
    return last;
}

// The files (name -> bytes) a crash after events [0, k) may leave.
std::map<std::string, std::string> crash_files(const std::vector<Event> &ev, size_t k, Model m,
                                               std::mt19937_64 &rng) {
    std::map<uint64_t, size_t> synced; // file -> first event its last finished sync left out
    for (size_t e = 0; e < k; ++e)
        if (ev[e].kind == Event::kSyncEnd)
            synced[ev[e].file] = std::max(synced[ev[e].file], size_t(ev[e].at));
    auto apply = [](std::string &f, const Event &x, size_t len) {
        if (x.kind == Event::kTruncate) {
            f.resize(x.at);
        } else {
            f.resize(std::max<size_t>(f.size(), x.at + len));
            f.replace(x.at, len, x.data, 0, len);
        }
    };
    std::map<uint64_t, std::string> done, now;
    std::map<uint64_t, std::vector<size_t>> later;
    std::vector<size_t> dir_later;
    std::map<std::string, uint64_t> dir;
    auto dir_apply = [&](const Event &x) {
        if (x.kind == Event::kCreate)
            dir[x.data] = x.file;
        if (x.kind == Event::kRename && dir.count(x.data))
            dir[x.to] = dir[x.data];
        if (x.kind != Event::kCreate && x.kind != Event::kMark)
            dir.erase(x.data);
    };
    for (size_t e = 0; e < k; ++e) {
        const Event &x = ev[e];
        if (x.kind == Event::kWrite || x.kind == Event::kTruncate) {
            apply(now[x.file], x, x.data.size());
            if (e < synced[x.file])
                apply(done[x.file], x, x.data.size());
            else
                later[x.file].push_back(e);
        } else if (x.kind == Event::kCreate || x.kind == Event::kRename ||
                   x.kind == Event::kUnlink) {
            if (e < synced[0])
                dir_apply(x);
            else
                dir_later.push_back(e);
        }
    }
    for (size_t j = m == kDrop ? 0 : rng() % (dir_later.size() + 1), i = 0; i < j; ++i)
        dir_apply(ev[dir_later[i]]);
    std::map<std::string, std::string> out;
    for (auto &[name, f] : dir) {
        std::string b = done[f];
        const std::vector<size_t> &w = later[f];
        if (m == kPrefix) {
            const size_t j = rng() % (w.size() + 1);
            for (size_t i = 0; i < j; ++i)
                apply(b, ev[w[i]], ev[w[i]].data.size());
            if (j < w.size() && ev[w[j]].kind == Event::kWrite)
                apply(b, ev[w[j]], rng() % ev[w[j]].data.size());
        } else if (m == kPages && !w.empty()) {
            const std::string &cur = now[f];
            std::string p(rng() % 2 ? cur.size() : b.size(), '\0');
            for (size_t at = 0; at < p.size(); at += 4096) {
                const std::string &from = rng() % 2 ? cur : b;
                if (at < from.size())
                    p.replace(at, std::min({size_t(4096), p.size() - at, from.size() - at}), from,
                              at, std::min({size_t(4096), p.size() - at, from.size() - at}));
            }
            b = std::move(p);
        }
        out[name] = std::move(b);
    }
    return out;
}

// What a crash state opens as: the state's and the saved image's digests
// (0: no such file), whether the log needed VELH_OPEN_RECOVER.
struct Opened {
    uint64_t db = 0, snap = 0;
    bool recovered = false, ok = true;
};

Opened open_crash(const std::map<std::string, std::string> &files) {
    TempDir dir(true);
    for (auto &[name, bytes] : files)
        write_file(dir.file(name), bytes);
    Opened o;
    const std::string log = dir.file("db.log"), img = dir.file("db.img"),
                      snap = dir.file("snap.img");
    velh_config_t c = config(256, log.c_str());
    const char *image = files.count("db.img") ? img.c_str() : nullptr;
    std::string s;
    VEL_RET r = load(c, image, &s);
    if (r == VEL_E_HOST_BAD_LOG && says("whole records follow")) {
        c.open_flags = VELH_OPEN_RECOVER;
        o.recovered = true;
        r = load(c, image, &s);
    }
    EXPECT_EQ(r, VEL_S_OK) << velh_error_message();
    o.ok = r == VEL_S_OK;
    o.db = digest(s);
    if (files.count("snap.img")) {
        EXPECT_EQ(load(config(256), snap.c_str(), &s), VEL_S_OK) << velh_error_message();
        o.snap = digest(s);
    }
    return o;
}

// Grouped mode: each commit's covering flush starts by max(returned +
// period, end of the flush running then) + slack.
void check_window(const Journaled &r) {
    constexpr double kSlackMs = 100;
    const std::vector<Event> &ev = r.ev;
    for (size_t i = 4; i < r.state.size(); ++i) {
        const size_t a = r.ack[i], c = r.covered[i];
        if (a == kNone || c == kNone || ev[c].kind != Event::kSyncEnd)
            continue; // covered by a checkpoint first
        double due = double(ev[a].ns) / 1e6 + r.mode.period_ms;
        for (size_t e = a; e < ev.size(); ++e)
            if (ev[e].kind == Event::kSyncEnd && ev[e].at < a && r.logs.count(ev[e].file))
                due = std::max(due, double(ev[e].ns) / 1e6);
        const double late = double(ev[ev[c].at].ns) / 1e6 - due;
        EXPECT_LE(late, kSlackMs) << "commit " << i << " flushed " << late
                                  << " ms after its deadline";
    }
}

void check_crashes(const Journaled &r, bool all_models, uint64_t seed) {
    std::mt19937_64 rng(seed);
    const std::vector<Event> &ev = r.ev;
    std::set<size_t> points;
    for (size_t e = 0; e < ev.size(); ++e)
        if (ev[e].kind == Event::kSyncBegin || ev[e].kind == Event::kSyncEnd ||
            ev[e].kind == Event::kRename)
            points.insert({e, e + 1});
    for (int i = 0; i < 40; ++i)
        points.insert(1 + rng() % ev.size());
    std::map<std::map<std::string, std::string>, Opened> seen;
    std::multimap<uint64_t, int64_t> index; // a commit that only compacts repeats a state
    for (size_t i = 0; i < r.state.size(); ++i)
        index.emplace(r.state[i], int64_t(i));
    size_t turn = 0; // the short form: one model per point, in turn
    for (size_t k : points)
        for (int m = kDrop, point = int(turn++ % 3); m <= kPages; ++m) {
            if (!all_models && m != point)
                continue;
            auto files = crash_files(ev, k, Model(m), rng);
            auto it = seen.find(files);
            if (it == seen.end()) {
                it = seen.emplace(files, open_crash(files)).first;
                EXPECT_TRUE(!it->second.recovered ||
                            (m == kPages && r.mode.sync != VELH_LOG_SYNC_COMMIT))
                    << "a crash left damage that whole records follow";
            }
            const Opened &o = it->second;
            if (!o.ok)
                continue;
            const int64_t acked = last_before(r.ack, k), begun = last_before(r.begin, k),
                          need = r.mode.sync == VELH_LOG_SYNC_COMMIT ? acked
                                                                     : last_before(r.covered, k);
            int64_t got = -1;
            for (auto [at, end] = index.equal_range(o.db); at != end; ++at)
                if (at->second <= begun)
                    got = std::max(got, at->second);
            SCOPED_TRACE(testing::Message() << "crash after event " << k << " of " << ev.size()
                                            << ", model " << m << ", acknowledged " << acked);
            ASSERT_NE(index.count(o.db), 0u) << "the state is no commit's";
            ASSERT_GE(got, 0) << "a commit not yet begun is there";
            EXPECT_GE(got, need) << "a covered commit is lost";
            const int64_t saved = last_before(r.save_ack, k), saving = last_before(r.save_begin, k);
            EXPECT_TRUE(o.snap == 0 ? saved < 0
                                    : (saved >= 0 && o.snap == r.saved[size_t(saved)]) ||
                                          (saving > saved && o.snap == r.saved[size_t(saving)]))
                << "the saved image is neither the last save (" << saved << ") nor the one begun";
        }
}

} // namespace

TEST(DurableCrash, KilledWriterLeavesWholeCommits) {
    const int kills = count_from("VELSEQ_CRASH_KILLS", 5);
    std::mt19937_64 rng(20261123);
    for (int mode : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP, VELH_LOG_SYNC_NONE}) {
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
            Report rep;
            while (rep.done[0] < target && rep.read(fds[0])) {
            }
            ::usleep(useconds_t(rng() % 4000));
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "the child stopped by itself: " << status;
            while (rep.read(fds[0])) {
            }
            ::close(fds[0]);
            ASSERT_GE(rep.done[0], 0);

            const std::string img = dir.file("db.img"), snap = dir.file("snap.img");
            const uint64_t h = state_of(dir.file("db.log").c_str(),
                                        std::filesystem::exists(img) ? img.c_str() : nullptr);
            if (mode == VELH_LOG_SYNC_COMMIT) {
                EXPECT_TRUE(rep.last_or_next(0, h))
                    << "state is neither commit " << rep.done[0] << " nor the next";
            } else {
                EXPECT_TRUE(std::any_of(rep.begun[0].begin(), rep.begun[0].end(),
                                        [h](const auto &p) { return p.second == h; }))
                    << "state is no commit's";
            }
            if (std::filesystem::exists(snap)) {
                EXPECT_TRUE(rep.last_or_next(1, state_of(nullptr, snap.c_str())))
                    << "the saved image is neither the last save nor the one in flight";
            }
        }
    }
}

TEST(DurablePowerLoss, CrashStatesOpenAtACoveredCommit) {
    const int runs = count_from("VELSEQ_POWERLOSS_RUNS", 1);
    // Grouped: a flush slower than the period (a slow device under the
    // flusher), so that a late flush start shows beyond the slack.
    // The long form adds the grouped mode at its default period on the disk.
    const Mode modes[] = {{VELH_LOG_SYNC_COMMIT, 40, 9, 4, 0, 10, 0},
                          {VELH_LOG_SYNC_GROUP, 160, 150, 25, 6000, 150, 200000},
                          {VELH_LOG_SYNC_NONE, 40, 9, 4, 0, 10, 0},
                          {VELH_LOG_SYNC_GROUP, 160, 70, 25, 1000, 10, -1}};
    std::mt19937_64 rng(20261201);
    for (const Mode &m : modes) {
        if (m.flush_delay_us < 0 && runs == 1)
            continue;
        for (int i = 0; i < runs; ++i) {
            SCOPED_TRACE(testing::Message() << "mode " << m.sync << " run " << i);
            TempDir dir(m.flush_delay_us >= 0);
            const Journaled r = record(m, rng(), dir);
            if (m.sync == VELH_LOG_SYNC_GROUP)
                check_window(r);
            check_crashes(r, runs > 1, rng());
        }
    }
}
