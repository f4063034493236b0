// Snapshot stress: reader threads hold snapshots on connections of their own
// while the differential driver writes (appends, inserts, deletes, stores,
// compactions, commits and rollbacks over all its fields, each result checked
// against its model, its own snapshots against their commits).  Every field
// of a reader's snapshot must pass the tree check and read the same until the
// snapshot ends.  (That a snapshot shows one whole commit across fields is
// also the host's thread test's.)  VELSEQ_STRESS_COMMITS sets the number of
// commits (default 300).
#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>

#include "harness/driver.h"
#include "seq_fixture.h"

namespace velrel {
namespace {

TEST(SnapshotStress, HeldSnapshotsStayWholeWhileTheDriverWrites) {
    const uint64_t commits = env_u64("VELSEQ_STRESS_COMMITS", 300);
    const int n_readers = static_cast<int>(env_u64("VELSEQ_STRESS_READERS", 2));
    const std::vector<FieldSpec> fields = driver_fields();
    auto env = must_open({}, fields);

    std::mutex mu;
    std::string failure;
    std::atomic<bool> done{false};
    std::atomic<uint64_t> snapshots{0};
    auto fail = [&](const std::string &s) {
        std::lock_guard<std::mutex> g(mu);
        if (failure.empty())
            failure = s;
        done = true;
    };
    auto reader = [&] {
        Reader rd(*env);
        while (!done) {
            if (VEL_RET b = rd.begin(); b != VEL_S_OK)
                return fail("reader begin: " + std::to_string(b));
            // Read it, then re-read it while the writer goes on.
            const std::vector<SeqModel> first = read_all(*env, false, rd.obj());
            for (int k = 0; k < 3 && !done; ++k) {
                std::this_thread::yield();
                if (read_all(*env, false, rd.obj()) != first)
                    return fail("a snapshot changed while held");
            }
            rd.end();
            ++snapshots;
        }
    };
    std::vector<std::thread> threads;
    for (int r = 0; r < n_readers; ++r)
        threads.emplace_back(reader);

    // The writer: drivers over random operation strings on the environment's
    // own connection, the fields emptied between them.
    std::mt19937_64 rng(42);
    DriverStats total;
    while (total.commits < commits && !done) {
        std::vector<uint8_t> in(1500 + rng() % 2500);
        for (auto &b : in)
            b = static_cast<uint8_t>(rng());
        Driver d(*env);
        if (std::string e = d.run(in.data(), in.size()); !e.empty())
            fail("driver: " + e);
        total.add(d.stats());
        if (VEL_RET r = env->release_all(); r != VEL_S_OK)
            fail("release_all returned " + std::to_string(r));
    }
    done = true;
    for (auto &t : threads)
        t.join();
    ASSERT_EQ(failure, "");
    EXPECT_GT(snapshots.load(), 0u);
    EXPECT_EQ(env->release_all(), VEL_S_OK);
    EXPECT_EQ(env->live_pages(), 0u);
    std::printf("[snapshot-stress] commits %llu, readers %d, snapshots verified %llu\n",
                (unsigned long long)total.commits, n_readers, (unsigned long long)snapshots.load());
}

} // namespace
} // namespace velrel
