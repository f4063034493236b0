// libFuzzer target: the input is a list of operations over the driver's
// fields (several families, all three orders), each checked against the
// plain model; a mismatch aborts with the operation and what differed.
#include <cstdio>
#include <cstdlib>

#include "harness/driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace velrel;
    if (size < 2)
        return 0;
    // The first byte picks the set-up: small pages give deep trees fast.
    EnvConfig cfg = config_from_byte(data[0]);
    VEL_RET rc;
    auto env = Env::open(cfg, driver_fields(), &rc);
    if (!env) {
        std::fprintf(stderr, "database could not be made: %d\n", (int)rc);
        std::abort();
    }
    Driver d(*env);
    std::string err = d.run(data + 1, size - 1);
    if (!err.empty()) {
        std::fprintf(stderr, "MISMATCH (page size %d): %s\n", (int)cfg.seq_page_size, err.c_str());
        std::abort();
    }
    static DriverStats total;
    total.add(d.stats());
    static uint64_t runs = 0;
    if (++runs % 20000 == 0)
        std::fprintf(stderr, "[velseq-fuzz] runs %llu, %s\n", (unsigned long long)runs,
                     total.str().c_str());
    return 0;
}
