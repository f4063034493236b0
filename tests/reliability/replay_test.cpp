// The differential driver in the default test run: random operation strings
// from fixed seeds (the fuzz target's seed corpus is CI's fuzz run's start).
// Set VELSEQ_REPLAY_SEEDS for a longer run.
#include <random>

#include "harness/driver.h"
#include "seq_fixture.h"

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
        auto env = must_open(config_from_byte(in[0]), driver_fields());
        Driver d(*env);
        ASSERT_EQ(d.run(in.data() + 1, in.size() - 1), "") << "seed " << seed;
        total.add(d.stats());
    }
    EXPECT_GT(total.refusals, 0u);
    EXPECT_GT(total.commits + total.rollbacks, 0u);
    std::printf("[replay] seeds %llu, %s\n", (unsigned long long)seeds, total.str().c_str());
}

} // namespace
} // namespace velrel
