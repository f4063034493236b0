// Damaged files: an image cut short anywhere or with any byte changed is
// refused whole, with a code and a sentence and no database; a log cut or
// damaged after record k opens as the state of record k, reporting the cut.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>

#include "durable_util.h"

using namespace durtest;

namespace {

// A database of random commits at small pages, with (log size, dump) after
// its setup and after each commit.
struct Writer {
    TempDir dir;
    std::string img = dir.file("db.img"), log = dir.file("db.log"), bad = dir.file("bad");
    std::unique_ptr<Db> t;
    std::vector<std::pair<size_t, std::string>> states;

    explicit Writer(bool with_log) : t(open_db(config(256, with_log ? log.c_str() : nullptr))) {
        Workload w(42);
        w.setup({t.get()}, false);
        record();
        for (int i = 0; i < 24; ++i)
            if (w.txn({t.get()}))
                record();
    }
    void record() { states.emplace_back(read_file(log).size(), dump(*t)); }

    // Opens `bytes` written as an image, or as the log of the empty database.
    VEL_RET try_open(const std::string &bytes, bool as_log, std::string *state = nullptr,
                     velh_open_stats_t *st = nullptr) {
        write_file(bad, bytes);
        return load(config(4096, as_log ? bad.c_str() : nullptr), as_log ? nullptr : bad.c_str(),
                    state, st);
    }
};

} // namespace

TEST(DurableBadFile, ImagesRefusedWhole) {
    Writer wr(false);
    ASSERT_EQ(velh_db_save(wr.t->db, wr.img.c_str()), VEL_S_OK);
    const std::string good = read_file(wr.img);
    std::string state;
    ASSERT_EQ(wr.try_open(good, false, &state), VEL_S_OK);
    ASSERT_EQ(state, wr.states.back().second);
    std::vector<size_t> blocks{good.size()}; // the end, and where each block begins
    for (uint64_t p = 128, len; p + 24 <= good.size(); p += 24 + len) {
        blocks.push_back(p);
        std::memcpy(&len, good.data() + p + 8, 8);
    }
    ASSERT_GE(blocks.size(), 5u); // classes, pages, objects, end

    auto with_header = [&](size_t off, uint32_t value) { // a header with a valid checksum
        std::string b = good;
        std::memcpy(b.data() + off, &value, 4);
        const uint64_t sum = XXH3_64bits(b.data(), 120);
        std::memcpy(b.data() + 120, &sum, 8);
        return b;
    };
    const std::pair<std::string, const char *> cases[] = {
        {"", "not a velhost database image"},
        {std::string(5000, 'x'), "not a velhost database image"},
        {with_header(8, 4), "format version 4"},
        {with_header(26, 0x0002), "byte order"},
        {good + std::string(24, '\0'), "bytes follow the end block"},
    };
    for (const auto &[bytes, what] : cases) {
        EXPECT_EQ(wr.try_open(bytes, false), VEL_E_HOST_BAD_IMAGE) << what;
        EXPECT_TRUE(says(what)) << what << ": " << velh_error_message();
    }
    const velh_config_t cfg = config();
    EXPECT_EQ(velh_db_open_file(&cfg, wr.dir.file("none").c_str(), nullptr, nullptr),
              VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(load(cfg, wr.dir.file("none").c_str()), VEL_E_HOST_IO);

    // Cut short or with one byte changed: at every byte of the header and of
    // each block header, the byte before each block, and every 29th byte.
    for (size_t p = 0; p < good.size(); ++p) {
        const bool framing = p < 128 || std::any_of(blocks.begin(), blocks.end(), [p](size_t b) {
                                 return p + 1 >= b && p < b + 24;
                             });
        if (!framing && p % 29 != 0)
            continue;
        EXPECT_EQ(wr.try_open(good.substr(0, p), false), VEL_E_HOST_BAD_IMAGE) << "cut at " << p;
        std::string b = good;
        b[p] = char(b[p] ^ (1 << (p % 8)));
        EXPECT_EQ(wr.try_open(b, false), VEL_E_HOST_BAD_IMAGE) << "flip at " << p;
    }
}

// Damage in the last record, or a cut anywhere, is a torn tail: the open cuts
// it.  Damage that whole records follow refuses the open and changes no file;
// VELH_OPEN_RECOVER opens the records before it and moves the rest aside.
TEST(DurableBadFile, LogTailsAreCutDamageIsNot) {
    Writer wr(true);
    const std::string good = read_file(wr.log);
    ASSERT_GE(wr.states.size(), 10u);
    std::string state;
    velh_open_stats_t st{};
    velh_config_t recover = config(4096, wr.bad.c_str());
    recover.open_flags = VELH_OPEN_RECOVER;
    for (size_t j = 0; j < wr.states.size(); ++j) {
        const auto &[end, expect] = wr.states[j];
        const size_t next = j + 1 < wr.states.size() ? wr.states[j + 1].first : good.size();
        // Cut at the record boundary (nothing to cut), or inside the next
        // record, or one of its bytes changed (in its header, and samples of
        // its body).
        for (size_t p : {end, end + 1, end + 23, end + 1 + (next - end) * 5 / 7}) {
            if (p > end && end == next)
                break;
            ASSERT_EQ(wr.try_open(good.substr(0, p), true, &state, &st), VEL_S_OK);
            EXPECT_EQ(state, expect) << "cut at " << p;
            EXPECT_EQ(st.log_cut_records, p > end ? 1u : 0u);
            EXPECT_EQ(st.log_cut_bytes, p - end);
            EXPECT_EQ(read_file(wr.bad).size(), end);
            if (p == end)
                continue;
            std::string flipped = good;
            flipped[p] = char(flipped[p] ^ 0x10);
            const bool last = next == good.size();
            const VEL_RET r = wr.try_open(flipped, true, &state, &st);
            EXPECT_EQ(r, last ? VEL_S_OK : VEL_E_HOST_BAD_LOG) << "flip at " << p;
            if (r != VEL_S_OK) {
                EXPECT_TRUE(says("offset " + std::to_string(end))) << velh_error_message();
                EXPECT_TRUE(read_file(wr.bad) == flipped);
                ASSERT_EQ(load(recover, nullptr, &state, &st), VEL_S_OK) << velh_error_message();
                const std::string aside = wr.bad + ".damaged-" + std::to_string(end);
                EXPECT_TRUE(read_file(aside) == flipped.substr(end));
                EXPECT_EQ(st.log_set_aside_records, wr.states.size() - 1 - j);
                std::filesystem::remove(aside);
            }
            EXPECT_EQ(state, expect) << "flip at " << p;
            EXPECT_TRUE(read_file(wr.bad) == good.substr(0, end)) << "flip at " << p;
        }
    }
    // A whole record repeated after the last one is out of sequence: cut.
    const size_t a = wr.states[wr.states.size() - 2].first, b = wr.states.back().first;
    ASSERT_EQ(wr.try_open(good.substr(0, b) + good.substr(a, b - a), true, &state, &st), VEL_S_OK);
    EXPECT_EQ(state, wr.states.back().second);
    EXPECT_EQ(st.log_cut_records, 1u);
    // A damaged header, or a log of another image, is refused.
    for (size_t p : {0, 9, 24, 40, 60}) {
        std::string h = good;
        h[p] = char(h[p] ^ 1);
        EXPECT_EQ(wr.try_open(h, true), VEL_E_HOST_BAD_LOG) << "header flip at " << p;
    }
    ASSERT_EQ(velh_db_save(wr.t->db, wr.img.c_str()), VEL_S_OK);
    write_file(wr.bad, good);
    EXPECT_EQ(load(config(4096, wr.bad.c_str()), wr.img.c_str()), VEL_E_HOST_BAD_LOG);
    EXPECT_TRUE(says("another image")) << velh_error_message();
}
