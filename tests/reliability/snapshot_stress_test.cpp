// Snapshot stress: one writer commits appends, inserts and deletes while
// reader threads hold snapshots.  Every snapshot must show exactly the
// content of the commit it started on (its "tag"), the same through a
// positional scan, a value search and a map, and must not change while it is
// held.  VELSEQ_STRESS_COMMITS sets the number of commits (default 300).
#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

enum { S_ASC = 0, S_NONE = 1, S_CHAR = 2 };

std::vector<FieldSpec> stress_fields() {
    const auto &sc = scalar_families();
    return {{sc[3], VEL_SEQ_ASC_ORDER}, // int8
            {sc[9], VEL_SEQ_NO_ORDER},  // double
            {char_family(6), VEL_SEQ_ASC_ORDER}};
}

struct Digest {
    uint64_t count = 0, hash = 1469598103934665603ull;
    void add(const uint8_t *v, size_t w, bool null) {
        for (size_t i = 0; i < w; ++i)
            hash = (hash ^ v[i]) * 1099511628211ull;
        hash = (hash ^ (null ? 0x9e : 0x37)) * 1099511628211ull;
        ++count;
    }
    bool operator==(const Digest &o) const { return count == o.count && hash == o.hash; }
};

Digest digest_of(const SeqModel &m) {
    Digest d;
    for (size_t i = 0; i < m.size(); ++i)
        d.add(m.at(i), m.w, m.nulls[i]);
    return d;
}

// Digest of everything an iterator delivers; "" or the error.
std::string digest_iter(vel_seq_iterator_t &it, size_t w, Digest *d) {
    for (;;) {
        VEL_RET rc = it.next(&it);
        if (rc == VEL_S_CURSOR_END)
            return {};
        if (rc != VEL_S_OK)
            return "next returned " + std::to_string(rc);
        for (unsigned t = 0; t < it.tile_size; ++t)
            d->add(reinterpret_cast<const uint8_t *>(it.tile.u.arr_char) + t * w, w,
                   (it.tile.null_bitmap[t / 64] >> (t % 64)) & 1);
    }
}

// Reads one field of a snapshot three ways; all must agree.
std::string read_field(vel_objhandle_h obj, const FieldLoc &l, const FieldSpec &fs, Digest *out) {
    const Family &f = fs.fam;
    vel_seq_no_t cnt = 0;
    VEL_RET rc = vel_w_seq_count(obj, l.u, l.c, &cnt);
    if (rc != VEL_S_OK)
        return "count returned " + std::to_string(rc);
    auto it = std::make_unique<vel_seq_iterator_t>();
    rc = f.subseq(obj, l.u, l.c, it.get(), 0, ~uint64_t{0}, f.width);
    if (rc != (cnt ? VEL_S_OK : VEL_S_NOTFOUND))
        return "subseq returned " + std::to_string(rc);
    Digest scan;
    std::string e = digest_iter(*it, f.width, &scan);
    if (!e.empty())
        return "scan: " + e;
    if (scan.count != cnt)
        return "scan delivered " + std::to_string(scan.count) + " of " + std::to_string(cnt);
    if (fs.order != VEL_SEQ_NO_ORDER) {
        uint8_t any[16] = {};
        rc = f.search(obj, l.u, l.c, it.get(), any, VEL_SEQ_BOUNDARY_OPEN, any,
                      VEL_SEQ_BOUNDARY_OPEN, fs.order, f.width);
        if (rc != (cnt ? VEL_S_OK : VEL_S_NOTFOUND))
            return "search returned " + std::to_string(rc);
        Digest srch;
        if (!(e = digest_iter(*it, f.width, &srch)).empty())
            return "search: " + e;
        if (!(srch == scan))
            return "search and scan disagree";
    }
    if (cnt) {
        VecIter pos;
        pos.setup(VEL_DD_UINT8, 8);
        pos.data.resize(cnt * 8);
        for (uint64_t i = 0; i < cnt; ++i)
            std::memcpy(&pos.data[i * 8], &i, 8);
        pos.chunks = {128, 37, 1};
        rc = f.map(obj, l.u, l.c, it.get(), &pos.it, f.width);
        if (rc != VEL_S_OK)
            return "map returned " + std::to_string(rc);
        Digest mp;
        if (!(e = digest_iter(*it, f.width, &mp)).empty())
            return "map: " + e;
        if (!(mp == scan))
            return "map and scan disagree";
    }
    *out = scan;
    return {};
}

TEST(SnapshotStress, ReadersSeeTheirCommitWhileTheWriterGoesOn) {
    const uint64_t commits = env_u64("VELSEQ_STRESS_COMMITS", 300);
    const int n_readers = static_cast<int>(env_u64("VELSEQ_STRESS_READERS", 2));
    const auto fields = stress_fields();
    EnvConfig cfg;
    // 4096-byte pages: the ordered char field stays far below the child count
    // at which an ordered char inner page's keys would reach its entries.
    cfg.seq_page_size = 4096;
    VEL_RET rc;
    auto env = Env::open(cfg, fields, &rc);
    ASSERT_TRUE(env) << rc;

    std::mutex mu;
    std::map<uint64_t, std::vector<Digest>> expected; // tag -> digest per field
    std::vector<SeqModel> model(fields.size());
    for (size_t i = 0; i < fields.size(); ++i)
        model[i].w = fields[i].fam.width;
    auto record = [&](uint64_t tag) {
        std::vector<Digest> d;
        for (auto &m : model)
            d.push_back(digest_of(m));
        std::lock_guard<std::mutex> g(mu);
        expected[tag] = d;
    };
    record(0);

    std::atomic<bool> done{false};
    std::atomic<uint64_t> snapshots{0}, rereads{0};
    std::string failure;
    auto set_failure = [&](const std::string &s) {
        std::lock_guard<std::mutex> g(mu);
        if (failure.empty())
            failure = s;
        done = true;
    };

    std::vector<std::unique_ptr<Reader>> readers;
    for (int r = 0; r < n_readers; ++r)
        readers.push_back(std::make_unique<Reader>(*env));

    auto reader_fn = [&](int r) {
        Reader &rd = *readers[r];
        std::mt19937 rng(1000 + r);
        while (!done) {
            if (VEL_RET b = rd.begin(); b != VEL_S_OK)
                return set_failure("reader begin: " + std::to_string(b));
            uint64_t tag = 0;
            if (velh_get(rd.obj(), env->tag_fld(), &tag, 8) != VEL_S_OK)
                return set_failure("reader could not read the tag");
            std::vector<Digest> first(fields.size());
            for (size_t i = 0; i < fields.size(); ++i) {
                std::string e = read_field(rd.obj(), env->loc(i), fields[i], &first[i]);
                if (!e.empty())
                    return set_failure("tag " + std::to_string(tag) + " field " +
                                       std::to_string(i) + ": " + e);
            }
            std::vector<Digest> want;
            {
                std::lock_guard<std::mutex> g(mu);
                auto it = expected.find(tag);
                if (it == expected.end())
                    return set_failure("snapshot shows unknown tag " + std::to_string(tag));
                want = it->second;
            }
            for (size_t i = 0; i < fields.size(); ++i)
                if (!(first[i] == want[i]))
                    return set_failure("snapshot of commit " + std::to_string(tag) + ": field " +
                                       std::to_string(i) + " has " +
                                       std::to_string(first[i].count) +
                                       " elements or content other than committed (" +
                                       std::to_string(want[i].count) + ")");
            // Hold the snapshot while the writer commits, re-reading it.
            for (int k = 0, n = 1 + static_cast<int>(rng() % 3); k < n && !done; ++k) {
                std::this_thread::yield();
                for (size_t i = 0; i < fields.size(); ++i) {
                    Digest again;
                    std::string e = read_field(rd.obj(), env->loc(i), fields[i], &again);
                    if (!e.empty() || !(again == first[i]))
                        return set_failure("snapshot of commit " + std::to_string(tag) +
                                           " changed while held: field " + std::to_string(i) + " " +
                                           e);
                }
                ++rereads;
            }
            rd.end();
            ++snapshots;
        }
    };

    std::vector<std::thread> threads;
    for (int r = 0; r < n_readers; ++r)
        threads.emplace_back(reader_fn, r);

    // The writer: this thread, on the environment's own connection.
    std::mt19937_64 rng(42);
    auto vals = [&](int fi, size_t n, const uint8_t *floor) {
        const Family &f = fields[fi].fam;
        std::vector<uint8_t> v(n * f.width);
        for (size_t i = 0; i < n; ++i) {
            auto e = kth(f, static_cast<int>(rng() % 100));
            std::memcpy(&v[i * f.width], e.data(), f.width);
        }
        if (fields[fi].order != VEL_SEQ_NO_ORDER) {
            std::vector<std::vector<uint8_t>> el;
            for (size_t i = 0; i < n; ++i)
                el.emplace_back(v.begin() + i * f.width, v.begin() + (i + 1) * f.width);
            std::sort(el.begin(), el.end(),
                      [&](auto &a, auto &b) { return f.lt(a.data(), b.data(), f.width); });
            v.clear();
            for (auto &e : el) {
                if (floor && f.lt(e.data(), floor, f.width))
                    e.assign(floor, floor + f.width);
                v.insert(v.end(), e.begin(), e.end());
            }
        }
        return v;
    };
    uint64_t tag = 0;
    for (uint64_t c = 1; c <= commits && !done; ++c) {
        for (int op = 0, nops = 1 + static_cast<int>(rng() % 3); op < nops; ++op) {
            int fi = static_cast<int>(rng() % fields.size());
            const FieldSpec &fs = fields[fi];
            SeqModel &m = model[fi];
            const FieldLoc &l = env->loc(fi);
            size_t cnt = m.size();
            uint32_t kind = rng() % 4;
            VEL_RET got;
            if (cnt > 2500) {
                // Keep the fields bounded: drop a block from the front.
                got = fs.fam.del(env->obj(), l.u, l.c, l.fld_no, 0, 1199, fs.order, fs.fam.width);
                m.erase(0, 1199);
            } else if (kind <= 1 || cnt == 0) {
                size_t n = 1 + rng() % 200;
                auto v = vals(fi, n, cnt ? m.at(cnt - 1) : nullptr);
                std::vector<vel_bitmap_word_t> nb((n + 63) / 64, 0);
                bool nulls = fs.order == VEL_SEQ_NO_ORDER && (rng() & 1);
                for (size_t i = 0; nulls && i < n; ++i)
                    if (rng() % 5 == 0)
                        nb[i / 64] |= uint64_t{1} << (i % 64);
                got = fs.fam.append(env->obj(), l.u, l.c, l.fld_no, v.data(), n, fs.order,
                                    nulls ? nb.data() : nullptr, fs.fam.width);
                m.insert(cnt, v.data(), n, nulls ? nb.data() : nullptr, 0);
            } else if (kind == 2 && fs.order == VEL_SEQ_NO_ORDER) {
                size_t n = 1 + rng() % 150, pos = rng() % (cnt + 1);
                auto v = vals(fi, n, nullptr);
                got = fs.fam.insert(env->obj(), l.u, l.c, l.fld_no, pos, v.data(), n, fs.order,
                                    nullptr, fs.fam.width);
                m.insert(pos, v.data(), n, nullptr, 0);
            } else {
                // Ordered fields: delete from anywhere (appends keep them sorted).
                uint64_t from = rng() % cnt, till = from + rng() % 300;
                got =
                    fs.fam.del(env->obj(), l.u, l.c, l.fld_no, from, till, fs.order, fs.fam.width);
                m.erase(from, std::min<uint64_t>(till, cnt - 1));
            }
            if (got != VEL_S_OK) {
                set_failure("writer operation returned " + std::to_string(got));
                break;
            }
        }
        tag = c;
        if (velh_set(env->obj(), env->tag_fld(), &tag, 8) != VEL_S_OK)
            set_failure("writer could not set the tag");
        record(tag);
        if (VEL_RET cr = env->commit_and_begin(); cr != VEL_S_OK)
            set_failure("commit returned " + std::to_string(cr));
    }
    done = true;
    for (auto &t : threads)
        t.join();
    readers.clear();
    ASSERT_EQ(failure, "");
    // The writer's last state, read back in its own transaction.
    for (size_t i = 0; i < fields.size(); ++i) {
        Digest d;
        ASSERT_EQ(read_field(env->obj(), env->loc(i), fields[i], &d), "");
        EXPECT_TRUE(d == digest_of(model[i])) << "field " << i;
    }
    EXPECT_GT(snapshots.load(), 0u);
    EXPECT_EQ(env->release_all(), VEL_S_OK);
    EXPECT_EQ(env->live_pages(), 0u);
    std::printf("[snapshot-stress] commits %llu, snapshots verified %llu, re-reads while held "
                "%llu, readers %d\n",
                (unsigned long long)tag, (unsigned long long)snapshots.load(),
                (unsigned long long)rereads.load(), n_readers);
    RecordProperty("commits", static_cast<int>(tag));
    RecordProperty("snapshots", static_cast<int>(snapshots.load()));
}

} // namespace
} // namespace velrel
