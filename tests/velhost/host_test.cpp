// Object layouts and sequence pages.  Layouts: in both every field is
// aligned at its absolute position, lies inside one object page and overlaps
// no other field.  Pages and versions: reference counts and prune, the
// commit's sweep of unlinked pages, a walk that skips subtrees seen before,
// and write conflicts.  (The checker's refusals and the depth limit of every
// walk, the commit's included: the tools' tree tests.)
//
// Threads with a connection each (run under ThreadSanitizer by
// scripts/tsan.sh): writers append to their own object's sequence and move a
// balance between two fields of a shared object, retrying on conflicts;
// readers check that every snapshot is whole: the balance sums up and each
// sequence holds exactly the rounds its object's counter says.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "seq_walk.h"
#include "velembed.h"

namespace {

constexpr int32_t kPage = 256; // 58 int4 values a leaf

vel_seq_node_t *entry(vel_seq_page_t *pg, int i) { return velseq::layout::entry_at(pg, kPage, i); }

// The class's fields: a counter, a sequence and a balance's two halves.
enum : uint16_t { kRound, kVals, kA, kB };

int32_t get(vel_objhandle_t *o, uint16_t k) {
    int32_t v = 0;
    EXPECT_EQ(velh_get(o, k, &v, 4), VEL_S_OK);
    return v;
}

class PagesTest : public ::testing::Test {
  protected:
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;
    uint16_t cls = 0;
    velh_field_info_t fi{}; // kVals
    vel_objhandle_t obj{};

    // Concurrent write transactions, so that two may write at once.
    void SetUp() override { open(1); }
    void open(vel_bool concurrent) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.seq_page_size = kPage;
        cfg.concurrent_write_transactions = concurrent;
        ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
        ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
        const velh_field_def_t f[] = {{"round", VEL_DD_INT4, 0, 0},
                                      {"vals", VEL_DD_SEQUENCE_INT4, 0, 0},
                                      {"a", VEL_DD_INT4, 0, 0},
                                      {"b", VEL_DD_INT4, 0, 0}};
        ASSERT_EQ(velh_class_define(db, "series", f, 4, 0, VELH_PM_INMEM, &cls), VEL_S_OK);
        ASSERT_EQ(velh_field_info(db, cls, kVals, &fi), VEL_S_OK);
    }
    void TearDown() override {
        EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
        EXPECT_EQ(velh_db_close(db), VEL_S_OK);
    }
    uint64_t live_pages() {
        velh_page_stats_t s;
        EXPECT_EQ(velh_page_stats(db, VELH_PM_ALL, &s), VEL_S_OK);
        return s.live;
    }
    // The root slot of obj's sequence field, in its private version.
    vel_seq_page_t **root_slot() {
        VEL_WRK w;
        EXPECT_EQ(vel_writing(&obj, &w, 0, fi.fld_no), 0);
        void *slot = vel_obj_pos(w.pobj, con, w.pm, obj.mo + fi.offset, 1);
        vel_end_writing(&obj, &w);
        return static_cast<vel_seq_page_t **>(slot);
    }
    vel_seq_page_t *new_page(int kind, uint16_t user) {
        vel_seq_page_t *pg = nullptr, *slot = nullptr;
        EXPECT_EQ(vel_seq_create_page(con, obj.pm, &pg, &slot, kind), VEL_S_OK);
        EXPECT_EQ(slot, pg);
        EXPECT_EQ(pg->ref_count, 1u);
        pg->hdr.user = user;
        return pg;
    }
};

// A page shared with the committed version cannot be freed, and prune only
// drops this version's reference; a decrement reports the count left and
// refuses to go below zero.  An inner page that a transaction made and no
// tree links (a split's sibling detached by a failed update) is freed at
// commit and releases the references it holds.
TEST_F(PagesTest, ReferenceCountsRegardSharing) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
    vel_seq_page_t *root = new_page(2, 3); // over leaves of 3, 4 and 5 values
    for (int i = 0; i < 3; ++i)
        *entry(root, i) = {new_page(3, static_cast<uint16_t>(3 + i)), uint64_t(3 + i)};
    *root_slot() = root;
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_seq_page_t *leaf = entry(root, 0)->page;
    *entry(new_page(2, 1), 0) = {leaf, 3};
    ASSERT_EQ(vel_seq_increment_ref_count(con, obj.pm, leaf), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(leaf->ref_count, 1u);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_seq_page_t **slot = root_slot();
    EXPECT_EQ(root->ref_count, 2u);
    EXPECT_EQ(vel_seq_free_page(con, obj.pm, root), VEL_E_HOST_BAD_ARG);
    ASSERT_EQ(vel_seq_prune(con, obj.pm, root), VEL_S_OK);
    *slot = nullptr;
    EXPECT_EQ(root->ref_count, 1u);
    EXPECT_EQ(live_pages(), 4u);
    vel_seq_page_t *pg = new_page(3, 1);
    int32_t count = 7;
    ASSERT_EQ(vel_seq_decrement_ref_count(con, obj.pm, pg, &count), VEL_S_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(vel_seq_decrement_ref_count(con, obj.pm, pg, &count), VEL_E_HOST_BAD_ARG);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 0u) << "no version references the tree any more";
}

// Under AddressSanitizer every page is followed by a poisoned red zone, so
// a write one byte past a page's end is reported (elsewhere pages sit
// flush, one to a 4 KiB frame, and nothing is there to report it).
#if defined(__SANITIZE_ADDRESS__)
#define HOST_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOST_TEST_ASAN 1
#endif
#endif
TEST_F(PagesTest, AWritePastAPageEndIsReportedUnderAddressSanitizer) {
#ifndef HOST_TEST_ASAN
    GTEST_SKIP() << "needs AddressSanitizer";
#else
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
    // The next page is live too: only a red zone lies between them.
    auto *end = reinterpret_cast<volatile char *>(new_page(3, 1)) + kPage;
    new_page(3, 1);
    EXPECT_DEATH(*end = 1, "use-after-poison");
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
#endif
}

// A walk that remembers the subtrees it walked, as an image's load does,
// skips them when met again and still counts their elements, and still
// refuses leaves at two levels when one of them is a skipped subtree's.
TEST(PagesWalk, SkippedSubtreesCountAndKeepTheLeafLevel) {
    using Seen = std::map<vel_seq_page_t *, std::pair<uint64_t, int>>; // count, height
    struct Remembering : velseq::layout::TreeWalk<Remembering, vel_seq_page_t> {
        explicit Remembering(Seen *seen)
            : TreeWalk(kPage, velseq::layout::leaf_capacity(kPage, 4),
                       velseq::layout::inner_capacity(kPage, 4, false, false)),
              seen(seen) {}
        Seen *seen;
        bool known(vel_seq_page_t *pg, int, uint64_t, uint64_t *count, int *height) {
            auto it = seen->find(pg);
            if (it != seen->end())
                std::tie(*count, *height) = it->second;
            return it != seen->end();
        }
        bool leaf(vel_seq_page_t *pg, int, uint64_t) {
            (*seen)[pg] = {pg->hdr.user, 1};
            return true;
        }
        bool child(vel_seq_page_t *pg, int level, uint64_t, uint64_t i, uint64_t,
                   vel_seq_page_t *) {
            if (i + 1 == pg->hdr.user)
                (*seen)[pg] = {3 * pg->hdr.user, leaf_level - level + 1};
            return true;
        }
    };
    struct alignas(8) Page {
        std::byte b[kPage];
    } leaf{}, q{}, s{}, r{};
    // Every subtree below holds 3 elements.
    auto make = [](Page &p, std::initializer_list<Page *> kids) {
        auto *pg = reinterpret_cast<vel_seq_page_t *>(p.b);
        pg->hdr.kind = kids.size() == 0 ? 3 : 2;
        pg->hdr.user = static_cast<uint16_t>(kids.size() == 0 ? 3 : kids.size());
        int i = 0;
        for (Page *k : kids)
            *entry(pg, i++) = {reinterpret_cast<vel_seq_page_t *>(k->b), 3};
        return pg;
    };
    make(leaf, {});
    Seen seen;
    Remembering first(&seen), again(&seen), twice(&seen);
    ASSERT_TRUE(first.walk(make(q, {&leaf}))) << first.message; // q: 2 levels
    ASSERT_TRUE(again.walk(make(s, {&q, &q}))) << again.message;
    EXPECT_EQ(again.elements, 6u);
    EXPECT_EQ(again.pages, 3u) << "q's leaf is not entered again";
    EXPECT_EQ(again.depth(), 3);
    EXPECT_FALSE(twice.walk(make(r, {&leaf, &q}))) << "leaves at levels 1 and 2";
    EXPECT_NE(std::string(twice.message).find("first leaf"), std::string::npos) << twice.message;
}

// First updater wins: an object being written, or written since a
// transaction's snapshot, is not the transaction's to overwrite or delete.
TEST_F(PagesTest, FirstUpdaterWins) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    vel_db_connection_h other;
    ASSERT_EQ(velh_connect(db, &other), VEL_S_OK);
    ASSERT_EQ(velh_begin(other, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    int32_t v = 1;
    ASSERT_EQ(velh_obj_open(con, cls, obj.oid, &obj), VEL_S_OK);
    ASSERT_EQ(velh_set(&obj, 0, &v, 4), VEL_S_OK);
    vel_objhandle_t o;
    ASSERT_EQ(velh_obj_open(other, cls, obj.oid, &o), VEL_S_OK);
    EXPECT_EQ(velh_set(&o, 0, &v, 4), VEL_E_HOST_CONFLICT);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(velh_set(&o, 0, &v, 4), VEL_E_HOST_CONFLICT);
    EXPECT_EQ(velh_obj_delete(&o), VEL_E_HOST_CONFLICT);
    ASSERT_EQ(velh_rollback(other), VEL_S_OK);
    ASSERT_EQ(velh_disconnect(other), VEL_S_OK);
}

// Random classes on random page sizes and object headers; the page test
// takes the object's position (mo) as the module does.
TEST(LayoutProperty, RandomClassesKeepEveryInvariant) {
    std::mt19937 rng(20261122);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.object_page_size = static_cast<uint16_t>(128 + 8 * (rng() % 64));
        cfg.additional_object_field_size = static_cast<uint16_t>(rng() % 40);
        const uint32_t d = cfg.object_page_size - 24u, afs = cfg.additional_object_field_size;
        velh_db_t *db;
        ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
        std::vector<velh_field_def_t> defs(1 + rng() % 30);
        for (auto &f : defs) {
            // The scalars: VEL_DD_UINT1 (0) to VEL_DD_DOUBLE (9), VEL_DD_DATETIME.
            const uint32_t k = rng() % 14;
            if (k < 11)
                f = {nullptr, uint8_t(k < 10 ? k : uint32_t(VEL_DD_DATETIME)), 0, 0};
            else if (k == 11)
                f = {nullptr, VEL_DD_CHAR, static_cast<uint16_t>(1 + rng() % 60), 0};
            else
                f = {nullptr, static_cast<uint8_t>(VEL_DD_SEQUENCE_UINT1 + rng() % 12), 0, 0};
            if (f.type == VEL_DD_SEQUENCE_CHAR)
                f.width = 5;
        }
        const uint16_t n = static_cast<uint16_t>(defs.size());
        uint16_t code;
        ASSERT_EQ(velh_class_define(db, "r", defs.data(), n, (rng() & 1) ? VEL_CLASS_COMPACT : 0,
                                    VELH_PM_INMEM, &code),
                  VEL_S_OK);
        vel_db_connection_h con;
        ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t obj;
        ASSERT_EQ(velh_obj_create(con, code, &obj), VEL_S_OK);
        for (int layout = 0; layout < 2; ++layout) {
            std::vector<std::pair<uint32_t, uint32_t>> spans;
            for (uint16_t i = 0; i < n; ++i) {
                velh_field_info_t fi;
                ASSERT_EQ(velh_field_info(db, code, i, &fi), VEL_S_OK);
                const uint32_t off = layout ? fi.c_offset : fi.u_offset;
                const bool seq = fi.type >= VEL_DD_SEQUENCE_UINT1;
                const uint32_t align = seq ? 8 : (fi.type == VEL_DD_CHAR ? 1 : fi.size);
                EXPECT_EQ((afs + off) % align, 0u) << "field " << i;
                EXPECT_LE((obj.mo + off + afs) % d + fi.size, d) << "field " << i;
                spans.emplace_back(off, off + fi.size);
            }
            std::sort(spans.begin(), spans.end());
            for (size_t i = 1; i < spans.size(); ++i)
                EXPECT_LE(spans[i - 1].second, spans[i].first) << "overlap in layout " << layout;
        }
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
        ASSERT_EQ(velh_disconnect(con), VEL_S_OK);
        ASSERT_EQ(velh_db_close(db), VEL_S_OK);
    }
}

// The database is opened by the test, with or without concurrent writers.
class Threads : public PagesTest {
  protected:
    void SetUp() override {}
    void run(vel_bool concurrent, int writers, int rounds);
};

void Threads::run(vel_bool concurrent, int writers, int rounds) {
    ASSERT_NO_FATAL_FAILURE(open(concurrent));
    // Runs body in transactions of `mode` on connection c until one commits:
    // a conflict rolls back and tries again.
    auto txns = [](vel_db_connection_h c, int mode,
                   const std::function<VEL_RET(vel_db_connection_h)> &body) {
        for (VEL_RET r = VEL_E_HOST_CONFLICT; r == VEL_E_HOST_CONFLICT; std::this_thread::yield()) {
            ASSERT_EQ(velh_begin(c, mode), VEL_S_OK);
            if ((r = body(c)) == VEL_S_OK)
                ASSERT_EQ(velh_commit(c), VEL_S_OK);
            else
                ASSERT_TRUE(r == VEL_E_HOST_CONFLICT && velh_rollback(c) == VEL_S_OK) << r;
        }
    };
    // A connection for each thread; this one's is the fixture's.
    std::vector<vel_db_connection_h> cons(size_t(writers) + 2);
    for (auto &c : cons)
        ASSERT_EQ(velh_connect(db, &c), VEL_S_OK);
    std::vector<uint64_t> oids; // the shared object (a + b = 1000), then one per writer
    txns(con, VELH_READ_WRITE, [&](vel_db_connection_h c) {
        for (int i = 0; i <= writers; ++i) {
            vel_objhandle_t o;
            const int32_t half = i == 0 ? 500 : 0;
            EXPECT_EQ(velh_obj_create(c, cls, &o), VEL_S_OK);
            EXPECT_TRUE(velh_set(&o, kA, &half, 4) == 0 && velh_set(&o, kB, &half, 4) == 0);
            oids.push_back(o.oid);
        }
        return VEL_S_OK;
    });

    // Writer w's rounds: 7 values `round` appended, the counter set, and w + 1
    // moved from a to b.
    std::atomic<int> writers_left{writers};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {
            for (int32_t round = 1; round <= rounds; ++round)
                txns(cons[size_t(w)], VELH_READ_WRITE, [&](vel_db_connection_h c) {
                    vel_objhandle_t own, shared;
                    const std::vector<int32_t> v(7, round);
                    VEL_RET r = velh_obj_open(c, cls, oids[w + 1], &own);
                    if (r == VEL_S_OK)
                        r = vel_w_seq_append_int4(&own, fi.u_offset, fi.c_offset, kVals, v.data(),
                                                  7, VEL_SEQ_NO_ORDER, nullptr);
                    if (r == VEL_S_OK)
                        r = velh_set(&own, kRound, &round, 4);
                    if (r == VEL_S_OK && (r = velh_obj_open(c, cls, oids[0], &shared)) == 0) {
                        const int32_t a = get(&shared, kA) - w - 1, b = get(&shared, kB) + w + 1;
                        if ((r = velh_set(&shared, kA, &a, 4)) == VEL_S_OK)
                            r = velh_set(&shared, kB, &b, 4);
                    }
                    return r;
                });
            writers_left--;
        });
    // Readers: every snapshot whole (the balance sums up, each sequence holds
    // exactly the rounds its counter says, its last value that round's).
    for (int rdr = 0; rdr < 2; ++rdr)
        threads.emplace_back([&, rdr] {
            bool whole = true;
            do
                txns(cons[size_t(writers + rdr)], VELH_READ_ONLY, [&](vel_db_connection_h c) {
                    vel_objhandle_t o;
                    EXPECT_EQ(velh_obj_open(c, cls, oids[0], &o), VEL_S_OK);
                    EXPECT_EQ(get(&o, kA) + get(&o, kB), 1000) << "a torn snapshot";
                    for (size_t i = 1; i < oids.size(); ++i) {
                        EXPECT_EQ(velh_obj_open(c, cls, oids[i], &o), VEL_S_OK);
                        const int32_t round = get(&o, kRound);
                        velh_tree_report_t rep;
                        EXPECT_EQ(velh_check_tree(&o, kVals, VEL_SEQ_NO_ORDER, 0, &rep), 0);
                        EXPECT_TRUE(rep.ok) << rep.message;
                        EXPECT_EQ(rep.elements, 7u * static_cast<uint64_t>(round));
                        vel_int4 last = 0;
                        EXPECT_TRUE(round == 0 || (vel_w_seq_last_int4(&o, fi.u_offset, fi.c_offset,
                                                                       &last) == 0 &&
                                                   last == round))
                            << "pages of another version";
                    }
                    whole = !::testing::Test::HasFailure();
                    return VEL_S_OK;
                });
            while (whole && writers_left.load() > 0);
        });
    for (auto &t : threads)
        t.join();

    // No update lost; once every object is gone no page is left.
    txns(con, VELH_READ_WRITE, [&](vel_db_connection_h c) {
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_open(c, cls, oids[0], &o), VEL_S_OK);
        EXPECT_EQ(get(&o, kA), 500 - rounds * writers * (writers + 1) / 2) << "a lost update";
        for (uint64_t oid : oids)
            EXPECT_TRUE(velh_obj_open(c, cls, oid, &o) == 0 && velh_obj_delete(&o) == 0);
        return VEL_S_OK;
    });
    EXPECT_EQ(live_pages(), 0u);
    for (auto c : cons)
        EXPECT_EQ(velh_disconnect(c), VEL_S_OK);
}

TEST_F(Threads, ConcurrentWritersAndReaders) { run(1, 3, 150); }
TEST_F(Threads, SerialisedWritersAndReaders) { run(0, 2, 150); }

} // namespace
