// The differential driver in the default test run: random operation strings
// from fixed seeds (the fuzz target's seed corpus is CI's fuzz run's start).
// Set VELSEQ_REPLAY_SEEDS for a longer run.
#include <random>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

TEST(DifferentialReplay, RandomOperationStrings) {
    uint64_t seeds = env_u64("VELSEQ_REPLAY_SEEDS", 60);
    DriverStats total;
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        std::mt19937_64 rng(seed);
        std::vector<uint8_t> in(1500 + rng() % 2500);
        for (auto &b : in)
            b = static_cast<uint8_t>(rng());
        VEL_RET rc;
        auto env = Env::open(config_from_byte(in[0]), driver_fields(), &rc);
        ASSERT_TRUE(env) << "database could not be made: " << rc;
        Driver d(*env, driver_fields());
        ASSERT_EQ(d.run(in.data() + 1, in.size() - 1), "") << "seed " << seed;
        total.add(d.stats());
    }
    EXPECT_GT(total.refusals, 0u);
    EXPECT_GT(total.commits + total.rollbacks, 0u);
    std::printf("[replay] seeds %llu, ops %llu, updates %llu, refusals %llu, codes %llu, tree "
                "checks %llu, elements compared %llu, commits %llu, rollbacks %llu, snapshot "
                "checks %llu\n",
                (unsigned long long)seeds, (unsigned long long)total.ops,
                (unsigned long long)total.updates, (unsigned long long)total.refusals,
                (unsigned long long)total.codes_checked, (unsigned long long)total.tree_checks,
                (unsigned long long)total.elements_compared, (unsigned long long)total.commits,
                (unsigned long long)total.rollbacks, (unsigned long long)total.snapshot_checks);
}

} // namespace
} // namespace velrel
