// Killed writers: a child commits a seed's workload to a database with a log
// (a checkpoint every 9 commits, a save of a second image every 4) and tells
// on a pipe each commit and save that returned; the parent, which ran the
// same workload on files of its own for the state of every commit, kills it with
// SIGKILL at a random moment and reopens the files: with the every-commit
// flush the state is that of the last commit told or of the next, with the
// others that of a commit up to the next; the saved image opens as the last
// save told or the next.  VELSEQ_CRASH_KILLS sets the kills per mode
// (default 5).
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

// Journal marks, and the events that covered each commit (see record()).
enum Tag : uint64_t { kBegin, kAck, kSaveBegin, kSaveAck, kCheckpointAck, kCovered, kTags };
enum Model { kDrop, kPrefix, kPages };
constexpr size_t kNone = SIZE_MAX;

struct Mode {
    int sync;
    int commits, checkpoint_every, save_every, gap_us;
    uint32_t period_ms;
    long flush_delay_us; // < 0: on the disk, at its own pace
};

// What a run did.  States: 0 the empty database, 1..3 its classes, then one
// per commit; at[tag][i]: journal index of state (or save) i's mark (kNone:
// none).
struct Journaled {
    Mode mode;
    std::vector<Event> ev;
    std::vector<uint64_t> state, saved;
    std::vector<size_t> at[kTags];
    std::set<uint64_t> logs; // the files commits were written to
};

// Runs mode m's workload on the files of `dir` and marks each state begun
// and acknowledged, each checkpoint and save: in the journal, or with `mark`
// given, through it instead.
Journaled record(const Mode &m, uint64_t seed, const TempDir &dir,
                 std::function<void(uint64_t, uint64_t)> mark = {}) {
    Journaled r{m, {}, {}, {}, {}, {}};
    velh_config_t cfg = config(256, dir.log.c_str(), m.sync);
    cfg.log_group_ms = m.period_ms;
    const bool journal = !mark;
    if (journal) {
        mark = io_fault::journal::mark;
        io_fault::journal::start(dir.path, std::max(m.flush_delay_us, 0L));
    }
    {
        std::unique_ptr<Db> t = open_db(cfg);
        r.state.push_back(digest(dump(*t)));
        mark(kAck, 0);
        mark(kBegin, 3);
        for (size_t c = 0; c < 3; ++c) {
            EXPECT_EQ(define(t->db, classes()[c]), VEL_S_OK);
            r.state.push_back(digest(dump(*t)));
        }
        mark(kAck, 3);
        Workload w(seed);
        w.setup({}, false); // the classes are there
        for (int k = 1; k <= m.commits;) {
            const uint64_t i = r.state.size();
            if (!w.txn({t.get()}, [&](Db *) {
                    r.state.push_back(digest(dump(*t)));
                    mark(kBegin, i);
                }))
                continue;
            mark(kAck, i);
            if (k % m.checkpoint_every == 0) {
                EXPECT_EQ(velh_checkpoint(t->db, dir.img.c_str()), VEL_S_OK)
                    << velh_error_message();
                mark(kCheckpointAck, i);
            }
            if (k % m.save_every == 0) {
                mark(kSaveBegin, r.saved.size());
                r.saved.push_back(digest(dump(*t)));
                EXPECT_EQ(velh_db_save(t->db, dir.snap.c_str()), VEL_S_OK) << velh_error_message();
                mark(kSaveAck, r.saved.size() - 1);
            }
            ++k;
            ::usleep(useconds_t(m.gap_us));
        }
    } // the close flushes the rest
    if (journal)
        r.ev = io_fault::journal::stop();

    const size_t n = r.ev.size();
    for (std::vector<size_t> &v : r.at)
        v.assign(r.state.size(), kNone);
    for (size_t e = 0; e < n; ++e)
        if (r.ev[e].kind == Event::kMark)
            r.at[r.ev[e].file][r.ev[e].at] = e;
    r.at[kBegin][0] = 0;
    r.at[kBegin][1] = r.at[kBegin][2] = r.at[kBegin][3];
    // Covered: a sync of its record's file that began after the record was
    // written has ended, or a checkpoint after it returned.
    for (size_t i = r.state.size(); i-- > 1;) {
        r.at[kCovered][i] = std::min(r.at[kCheckpointAck][i],
                                     i + 1 < r.state.size() ? r.at[kCovered][i + 1] : kNone);
        if (r.at[kAck][i] == kNone)
            continue;
        size_t w = r.at[kAck][i];
        while (w > r.at[kBegin][i] && r.ev[w].kind != Event::kWrite)
            --w;
        EXPECT_EQ(r.ev[w].kind, Event::kWrite) << "commit " << i << " wrote nothing";
        r.logs.insert(r.ev[w].file);
        for (size_t e = w; e < n && e < r.at[kCovered][i]; ++e)
            if (r.ev[e].kind == Event::kSyncEnd && r.ev[e].file == r.ev[w].file && r.ev[e].at > w)
                r.at[kCovered][i] = e;
    }
    r.at[kCovered][0] = 0;
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

// What the files of `dir` open as: the state's and the saved image's
// digests (0: no such file), whether the log needed VELH_OPEN_RECOVER.
struct Opened {
    uint64_t db = 0, snap = 0;
    bool recovered = false, ok = true;
};

Opened reopen(const TempDir &dir) {
    Opened o;
    velh_config_t c = config(256, dir.log.c_str());
    const char *image = std::filesystem::exists(dir.img) ? dir.img.c_str() : nullptr;
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
    if (std::filesystem::exists(dir.snap)) {
        EXPECT_EQ(load(config(256), dir.snap.c_str(), &s), VEL_S_OK) << velh_error_message();
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
        const size_t a = r.at[kAck][i], c = r.at[kCovered][i];
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
                TempDir d(true);
                for (auto &[name, bytes] : files)
                    write_file(d.file(name), bytes);
                it = seen.emplace(files, reopen(d)).first;
                EXPECT_TRUE(!it->second.recovered ||
                            (m == kPages && r.mode.sync != VELH_LOG_SYNC_COMMIT))
                    << "a crash left damage that whole records follow";
            }
            const Opened &o = it->second;
            if (!o.ok)
                continue;
            const int64_t acked = last_before(r.at[kAck], k), begun = last_before(r.at[kBegin], k),
                          need = r.mode.sync == VELH_LOG_SYNC_COMMIT
                                     ? acked
                                     : last_before(r.at[kCovered], k);
            int64_t got = -1;
            for (auto [at, end] = index.equal_range(o.db); at != end; ++at)
                if (at->second <= begun)
                    got = std::max(got, at->second);
            SCOPED_TRACE(testing::Message() << "crash after event " << k << " of " << ev.size()
                                            << ", model " << m << ", acknowledged " << acked);
            ASSERT_NE(index.count(o.db), 0u) << "the state is no commit's";
            ASSERT_GE(got, 0) << "a commit not yet begun is there";
            EXPECT_GE(got, need) << "a covered commit is lost";
            const int64_t saved = last_before(r.at[kSaveAck], k),
                          saving = last_before(r.at[kSaveBegin], k);
            EXPECT_TRUE(o.snap == 0 ? saved < 0
                                    : (saved >= 0 && o.snap == r.saved[size_t(saved)]) ||
                                          (saving > saved && o.snap == r.saved[size_t(saving)]))
                << "the saved image is neither the last save (" << saved << ") nor the one begun";
        }
}

} // namespace

TEST(DurablePowerLoss, CrashStatesOpenAtACoveredCommit) {
    const char *env = std::getenv("VELSEQ_POWERLOSS_RUNS");
    const int runs = env != nullptr && *env ? std::atoi(env) : 1;
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

TEST(DurableCrash, KilledWriterLeavesWholeCommits) {
    const char *env = std::getenv("VELSEQ_CRASH_KILLS");
    const int kills = env != nullptr && *env ? std::atoi(env) : 5;
    std::mt19937_64 rng(20261123);
    for (int sync : {VELH_LOG_SYNC_COMMIT, VELH_LOG_SYNC_GROUP, VELH_LOG_SYNC_NONE}) {
        const Mode mode{sync, 80, 9, 4, 0, 2, 0}; // the child waits after its last commit
        const uint64_t seed = rng();
        // The states and saves of that run, on files of its own.
        const Journaled model = record(mode, seed, TempDir(true), [](uint64_t, uint64_t) {});
        const std::vector<uint64_t> &state = model.state, &saves = model.saved;
        for (int i = 0; i < kills; ++i) {
            SCOPED_TRACE("mode " + std::to_string(sync) + " kill " + std::to_string(i));
            TempDir dir;
            int fds[2];
            ASSERT_EQ(::pipe(fds), 0);
            const pid_t pid = ::fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) { // tells each mark as state * kTags + tag, below PIPE_BUF: whole
                record(mode, seed, dir, [&](uint64_t tag, uint64_t i) {
                    const uint64_t m = i * kTags + tag;
                    if (testing::Test::HasFailure() || ::write(fds[1], &m, 8) != 8)
                        _exit(2);
                });
                ::pause();
            }
            ::close(fds[1]);
            // Let it reach a random commit, then kill it a moment later.
            int64_t done = -1, saved = -1; // the last state and save acknowledged
            auto told = [&, m = uint64_t()]() mutable {
                const bool got = ::read(fds[0], &m, 8) == 8;
                if (got && m % kTags == kAck)
                    done = int64_t(m / kTags);
                if (got && m % kTags == kSaveAck)
                    saved = int64_t(m / kTags);
                return got;
            };
            for (const int64_t target = 3 + int64_t(rng() % 40); done < target && told();) {
            }
            ::usleep(useconds_t(rng() % 4000));
            ::kill(pid, SIGKILL);
            int status = 0;
            ::waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
                << "the child stopped: " << status;
            while (told()) {
            }
            ::close(fds[0]);
            ASSERT_GE(done, 3);

            const Opened o = reopen(dir);
            ASSERT_TRUE(o.ok && !o.recovered);
            const auto last = state.begin() + done, next = last + (last + 1 != state.end());
            EXPECT_TRUE(sync == VELH_LOG_SYNC_COMMIT
                            ? *last == o.db || *next == o.db
                            : std::find(state.begin(), next + 1, o.db) != next + 1)
                << "the state is no commit's up to the one after " << done;
            const size_t in_flight = size_t(saved + 1);
            EXPECT_TRUE(o.snap == 0 || (saved >= 0 && saves[size_t(saved)] == o.snap) ||
                        (in_flight < saves.size() && saves[in_flight] == o.snap))
                << "the saved image is neither the last save told nor the next";
        }
    }
}
