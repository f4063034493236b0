// The differential driver in the default test run: the seed corpus of the
// fuzz target, then random operation strings from fixed seeds.  Set
// VELSEQ_REPLAY_SEEDS for a longer run.
#include <dirent.h>

#include <fstream>
#include <iterator>
#include <random>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

std::string run_input(const std::vector<uint8_t> &in, DriverStats *total) {
    EnvConfig cfg = config_from_byte(in[0]);
    VEL_RET rc;
    auto env = Env::open(cfg, driver_fields(), &rc);
    if (!env)
        return "database could not be made: " + std::to_string(rc);
    Driver d(*env, driver_fields());
    std::string err = d.run(in.data() + 1, in.size() - 1);
    total->add(d.stats());
    return err;
}

TEST(DifferentialReplay, SeedCorpus) {
    DriverStats total;
    int files = 0;
    DIR *dir = opendir(VELSEQ_CORPUS_DIR);
    ASSERT_NE(dir, nullptr) << VELSEQ_CORPUS_DIR;
    while (dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        std::string path = std::string(VELSEQ_CORPUS_DIR) + "/" + e->d_name;
        std::ifstream f(path, std::ios::binary);
        std::vector<uint8_t> in((std::istreambuf_iterator<char>(f)), {});
        if (in.size() < 2)
            continue;
        ++files;
        EXPECT_EQ(run_input(in, &total), "") << "corpus file " << path;
    }
    closedir(dir);
    EXPECT_GT(files, 0);
    EXPECT_GT(total.elements_compared, 0u);
    std::printf("[replay] corpus files %d, ops %llu, updates %llu, tree checks %llu, elements "
                "compared %llu\n",
                files, (unsigned long long)total.ops, (unsigned long long)total.updates,
                (unsigned long long)total.tree_checks, (unsigned long long)total.elements_compared);
}

TEST(DifferentialReplay, RandomOperationStrings) {
    uint64_t seeds = env_u64("VELSEQ_REPLAY_SEEDS", 60);
    DriverStats total;
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        std::mt19937_64 rng(seed);
        std::vector<uint8_t> in(1500 + rng() % 2500);
        for (auto &b : in)
            b = static_cast<uint8_t>(rng());
        std::string err = run_input(in, &total);
        ASSERT_EQ(err, "") << "seed " << seed;
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
