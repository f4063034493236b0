// Snapshot stress: one writer commits appends, inserts and deletes while
// reader threads hold snapshots.  Every snapshot must show exactly the
// content of the commit it started on (its "tag"), through a full scan whose
// length matches the field's count, and must not change while it is held.
// VELSEQ_STRESS_COMMITS sets the number of commits (default 300).
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

// 4096-byte pages: the ordered char field stays far below the child count at
// which an ordered char inner page's keys would reach its entries.
const std::vector<FieldSpec> kFields = {{family_of(VEL_DD_INT8), VEL_SEQ_ASC_ORDER},
                                        {family_of(VEL_DD_DOUBLE), VEL_SEQ_NO_ORDER},
                                        {char_family(6), VEL_SEQ_ASC_ORDER}};

// Every field of a snapshot read by a full scan; "" or what went wrong.
std::string scan_all(vel_objhandle_h obj, Env &env, std::vector<SeqModel> *out) {
    out->clear();
    auto it = std::make_unique<vel_seq_iterator_t>();
    for (size_t i = 0; i < kFields.size(); ++i) {
        const Field fl{obj, kFields[i], env.loc(i)};
        SeqModel m = SeqModel::of_width(fl.w());
        VEL_RET rc = fl.subseq(it.get(), 0, ~uint64_t{0});
        while (rc == VEL_S_OK && (rc = it->next(it.get())) == VEL_S_OK)
            m.insert(m.size(), it->tile.u.arr_char, it->tile_size, it->tile.null_bitmap, 0);
        vel_seq_no_t cnt = 0;
        if ((rc != VEL_S_CURSOR_END && !(rc == VEL_S_NOTFOUND && m.size() == 0)) ||
            vel_w_seq_count(obj, fl.l.u, fl.l.c, &cnt) != VEL_S_OK || cnt != m.size())
            return "field " + std::to_string(i) + ": scan ended with " + std::to_string(rc) +
                   " after " + std::to_string(m.size()) + " of " + std::to_string(cnt);
        out->push_back(std::move(m));
    }
    return {};
}

TEST(SnapshotStress, ReadersSeeTheirCommitWhileTheWriterGoesOn) {
    const uint64_t commits = env_u64("VELSEQ_STRESS_COMMITS", 300);
    const int n_readers = static_cast<int>(env_u64("VELSEQ_STRESS_READERS", 2));
    EnvConfig cfg;
    cfg.seq_page_size = 4096;
    VEL_RET rc;
    auto env = Env::open(cfg, kFields, &rc);
    ASSERT_TRUE(env) << rc;

    std::vector<SeqModel> model;
    for (const FieldSpec &fs : kFields)
        model.push_back(SeqModel::of_width(fs.fam.width));
    std::mutex mu;
    std::map<uint64_t, std::vector<SeqModel>> committed = {{0, model}}; // by tag
    std::atomic<bool> done{false};
    std::atomic<uint64_t> snapshots{0};
    std::string failure;
    auto fail = [&](const std::string &s) {
        std::lock_guard<std::mutex> g(mu);
        if (failure.empty())
            failure = s;
        done = true;
    };

    auto reader = [&](int r) {
        Reader rd(*env);
        std::mt19937 rng(1000 + r);
        while (!done) {
            uint64_t tag = 0;
            if (VEL_RET b = rd.begin(); b != VEL_S_OK)
                return fail("reader begin: " + std::to_string(b));
            if (velh_get(rd.obj(), env->tag_fld(), &tag, 8) != VEL_S_OK)
                return fail("reader could not read the tag");
            std::vector<SeqModel> want, got; // none for an unknown tag
            {
                std::lock_guard<std::mutex> g(mu);
                if (auto w = committed.find(tag); w != committed.end())
                    want = w->second;
            }
            // Read it, then re-read it while the writer commits.
            for (int k = 0, n = 2 + static_cast<int>(rng() % 3); k < n && (k == 0 || !done); ++k) {
                if (std::string e = scan_all(rd.obj(), *env, &got); !e.empty() || got != want)
                    return fail("snapshot of commit " + std::to_string(tag) +
                                (k ? " changed while held " : " differs from the commit ") + e);
                std::this_thread::yield();
            }
            rd.end();
            ++snapshots;
        }
    };
    std::vector<std::thread> threads;
    for (int r = 0; r < n_readers; ++r)
        threads.emplace_back(reader, r);

    // The writer, on the environment's own connection.  Ordered fields take
    // non-decreasing values from `top`, which no stored value exceeds.
    std::mt19937_64 rng(42);
    int top[3] = {0, 0, 0};
    auto vals = [&](int fi, size_t n) {
        std::vector<uint8_t> v;
        for (size_t i = 0; i < n; ++i) {
            const int k = kFields[fi].order != VEL_SEQ_NO_ORDER ? (top[fi] += rng() % 2)
                                                                : static_cast<int>(rng() % 100);
            auto e = kth(kFields[fi].fam, k);
            v.insert(v.end(), e.begin(), e.end());
        }
        return v;
    };
    uint64_t tag = 0;
    for (uint64_t c = 1; c <= commits && !done; ++c) {
        for (int op = 0, nops = 1 + static_cast<int>(rng() % 3); op < nops; ++op) {
            const int fi = static_cast<int>(rng() % kFields.size());
            const Field fl{env->obj(), kFields[fi], env->loc(fi)};
            const bool ordered = fl.s.order != VEL_SEQ_NO_ORDER;
            SeqModel &m = model[fi];
            const size_t cnt = m.size(), kind = rng() % 4;
            VEL_RET got;
            if (cnt > 2500) { // keep the fields bounded: drop a block from the front
                got = fl.del(0, 1199);
                m.erase(0, 1199);
            } else if (kind <= 1 || cnt == 0) {
                const size_t n = 1 + rng() % 200;
                std::vector<vel_bitmap_word_t> nb((n + 63) / 64, 0);
                const bool nulls = !ordered && (rng() & 1);
                for (size_t i = 0; nulls && i < n; ++i)
                    nb[i / 64] |= uint64_t{rng() % 5 == 0} << (i % 64);
                const auto v = vals(fi, n);
                got = fl.append(v, nulls ? nb.data() : nullptr);
                m.insert(cnt, v.data(), n, nulls ? nb.data() : nullptr, 0);
            } else if (kind == 2 && !ordered) {
                const size_t n = 1 + rng() % 150, pos = rng() % (cnt + 1);
                const auto v = vals(fi, n);
                got = fl.insert(pos, v);
                m.insert(pos, v.data(), n, nullptr, 0);
            } else { // delete from anywhere: ordered fields stay sorted
                const uint64_t from = rng() % cnt, till = from + rng() % 300;
                got = fl.del(from, till);
                m.erase(from, std::min<uint64_t>(till, cnt - 1));
            }
            if (got != VEL_S_OK) {
                fail("writer operation returned " + std::to_string(got));
                break;
            }
        }
        tag = c;
        if (velh_set(env->obj(), env->tag_fld(), &tag, 8) != VEL_S_OK)
            fail("writer could not set the tag");
        {
            std::lock_guard<std::mutex> g(mu);
            committed[tag] = model;
        }
        if (VEL_RET cr = env->commit_and_begin(); cr != VEL_S_OK)
            fail("commit returned " + std::to_string(cr));
    }
    done = true;
    for (auto &t : threads)
        t.join();
    ASSERT_EQ(failure, "");
    // The writer's last state, checked page by page in its own transaction.
    EXPECT_TRUE(read_all(*env, kFields, false) == model);
    EXPECT_GT(snapshots.load(), 0u);
    EXPECT_EQ(env->release_all(), VEL_S_OK);
    EXPECT_EQ(env->live_pages(), 0u);
    std::printf("[snapshot-stress] commits %llu, readers %d, snapshots verified %llu\n",
                (unsigned long long)commits, n_readers, (unsigned long long)snapshots.load());
}

} // namespace
} // namespace velrel
