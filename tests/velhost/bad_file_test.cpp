// Damaged files: an image cut short anywhere or with any byte changed is
// refused whole, with a code and a sentence and no database; a log cut or
// damaged after record k opens as the state of record k, reporting the cut.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "durable_util.h"

using namespace durtest;

namespace {

struct Writer {
    TempDir dir;
    std::string img = dir.file("db.img"), log = dir.file("db.log");
    velh_config_t cfg;
    Target t;
    Workload w{42};
    // (log size, dump) after setup and after each commit.
    std::vector<std::pair<size_t, std::string>> states;

    explicit Writer(bool with_log) {
        velh_config_init(&cfg);
        cfg.seq_page_size = 256;
        cfg.log_path = with_log ? log.c_str() : nullptr;
        EXPECT_EQ(velh_db_open(&cfg, &t.db), VEL_S_OK);
        EXPECT_EQ(velh_connect(t.db, &t.con), VEL_S_OK);
        w.setup({&t});
        w.define_late({&t});
        record();
        for (int i = 0; i < 24; ++i)
            if (w.txn({&t}))
                record();
    }
    ~Writer() {
        EXPECT_EQ(velh_disconnect(t.con), VEL_S_OK);
        EXPECT_EQ(velh_db_close(t.db), VEL_S_OK);
    }
    void record() { states.emplace_back(read_file(log).size(), dump(t.db, t.con)); }
};

// Opens `bytes` as an image (and `log` as its log when given); returns the
// code, checks that a refusal leaves no database and says why.
VEL_RET try_open(const std::string &path, const std::string &bytes, const char *log,
                 std::string *state = nullptr, velh_open_stats_t *st = nullptr) {
    write_file(path, bytes);
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.log_path = log;
    velh_db_t *db = nullptr;
    velh_open_stats_t s{};
    VEL_RET r = velh_db_open_file(&cfg, log ? nullptr : path.c_str(), &db, &s);
    if (r != VEL_S_OK) {
        EXPECT_EQ(db, nullptr);
        EXPECT_NE(std::string(velh_error_message()), "");
        return r;
    }
    Target t{db, nullptr};
    EXPECT_EQ(velh_connect(db, &t.con), VEL_S_OK);
    if (state != nullptr)
        *state = dump(db, t.con);
    if (st != nullptr)
        *st = s;
    EXPECT_EQ(velh_disconnect(t.con), VEL_S_OK);
    EXPECT_EQ(velh_db_close(db), VEL_S_OK);
    return r;
}

// Offsets where the blocks of an image begin, and its end.
std::vector<size_t> block_starts(const std::string &img) {
    std::vector<size_t> at;
    for (size_t p = 128; p + 24 <= img.size();) {
        at.push_back(p);
        uint64_t len;
        std::memcpy(&len, img.data() + p + 8, 8);
        p += 24 + len;
    }
    at.push_back(img.size());
    return at;
}

} // namespace

TEST(DurableBadFile, ImagesRefusedWhole) {
    Writer wr(false);
    ASSERT_EQ(velh_db_save(wr.t.db, wr.img.c_str()), VEL_S_OK);
    const std::string good = read_file(wr.img);
    const std::string path = wr.dir.file("bad.img");
    std::string state;
    ASSERT_EQ(try_open(path, good, nullptr, &state), VEL_S_OK);
    ASSERT_EQ(state, wr.states.back().second);
    const std::vector<size_t> blocks = block_starts(good);
    ASSERT_GE(blocks.size(), 5u); // classes, pages, objects, end

    auto with_header = [&](size_t off, uint32_t value) {
        std::string b = good;
        std::memcpy(b.data() + off, &value, 4);
        uint64_t sum = XXH3_64bits(b.data(), 120);
        std::memcpy(b.data() + 120, &sum, 8);
        return b;
    };
    struct Case {
        const char *what;
        std::string bytes;
        const char *says;
    };
    const Case cases[] = {
        {"empty", "", "not a velhost database image"},
        {"text", std::string(5000, 'x'), "not a velhost database image"},
        {"newer format", with_header(8, 2), "format version 2"},
        {"other layout", with_header(26, 0x0002), "byte order"},
        {"trailing bytes", good + std::string(24, '\0'), "bytes follow the end block"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(try_open(path, c.bytes, nullptr), VEL_E_HOST_BAD_IMAGE) << c.what;
        EXPECT_NE(std::string(velh_error_message()).find(c.says), std::string::npos)
            << c.what << ": " << velh_error_message();
    }
    EXPECT_EQ(velh_db_open_file(&wr.cfg, wr.dir.file("none").c_str(), nullptr, nullptr),
              VEL_E_HOST_BAD_ARG);
    velh_db_t *db = nullptr;
    EXPECT_EQ(velh_db_open_file(&wr.cfg, wr.dir.file("none").c_str(), &db, nullptr), VEL_E_HOST_IO);

    // Cut at every block boundary, one byte either side, and every 127th byte.
    std::vector<size_t> cuts;
    for (size_t b : blocks)
        for (size_t d : {b - 1, b, b + 1})
            if (d < good.size())
                cuts.push_back(d);
    for (size_t p = 0; p < good.size(); p += 127)
        cuts.push_back(p);
    for (size_t cut : cuts)
        EXPECT_EQ(try_open(path, good.substr(0, cut), nullptr), VEL_E_HOST_BAD_IMAGE)
            << "cut at " << cut;
    // One byte changed: every byte of the header and of each block header,
    // every 29th byte elsewhere.
    for (size_t p = 0; p < good.size(); ++p) {
        const bool framing = p < 128 || std::any_of(blocks.begin(), blocks.end(),
                                                    [p](size_t b) { return p >= b && p < b + 24; });
        if (!framing && p % 29 != 0)
            continue;
        std::string b = good;
        b[p] = char(b[p] ^ (1 << (p % 8)));
        EXPECT_EQ(try_open(path, b, nullptr), VEL_E_HOST_BAD_IMAGE) << "flip at " << p;
    }
}

TEST(DurableBadFile, LogTailsAreCut) {
    Writer wr(true);
    const std::string good = read_file(wr.log);
    const std::string path = wr.dir.file("bad.log");
    ASSERT_GE(wr.states.size(), 10u);
    for (size_t j = 0; j < wr.states.size(); ++j) {
        const auto &[end, expect] = wr.states[j];
        const size_t next = j + 1 < wr.states.size() ? wr.states[j + 1].first : good.size();
        std::string state;
        velh_open_stats_t st{};
        // Cut at the record boundary: nothing to cut.
        ASSERT_EQ(try_open(path, good.substr(0, end), path.c_str(), &state, &st), VEL_S_OK)
            << velh_error_message();
        EXPECT_EQ(state, expect) << "boundary " << j;
        EXPECT_EQ(st.log_cut_records, 0u);
        if (end == next)
            continue;
        // Torn inside the next record, or one of its bytes changed (its
        // header's, and samples of its body).
        const size_t mid = end + 1 + (next - end) * 5 / 7;
        for (size_t p : {end + 1, end + 23, mid}) {
            std::string torn = good.substr(0, p);
            ASSERT_EQ(try_open(path, torn, path.c_str(), &state, &st), VEL_S_OK);
            EXPECT_EQ(state, expect) << "torn at " << p;
            EXPECT_EQ(st.log_cut_records, 1u);
            EXPECT_EQ(st.log_cut_bytes, p - end);
            EXPECT_EQ(read_file(path).size(), end) << "the tail is gone from the file";
            std::string flipped = good;
            flipped[p] = char(flipped[p] ^ 0x10);
            ASSERT_EQ(try_open(path, flipped, path.c_str(), &state, &st), VEL_S_OK);
            EXPECT_EQ(state, expect) << "flip at " << p;
            EXPECT_GE(st.log_cut_records, 1u);
            EXPECT_EQ(st.log_cut_bytes, good.size() - end);
        }
    }
    // A whole record repeated after the last one is out of sequence: cut.
    {
        const size_t a = wr.states[wr.states.size() - 2].first, b = wr.states.back().first;
        std::string state;
        velh_open_stats_t st{};
        ASSERT_EQ(
            try_open(path, good.substr(0, b) + good.substr(a, b - a), path.c_str(), &state, &st),
            VEL_S_OK)
            << velh_error_message();
        EXPECT_EQ(state, wr.states.back().second);
        EXPECT_EQ(st.log_cut_records, 1u);
    }
    // A damaged header, or a log of another image, is refused.
    for (size_t p : {0, 9, 24, 40, 60}) {
        std::string b = good;
        b[p] = char(b[p] ^ 1);
        EXPECT_EQ(try_open(path, b, path.c_str()), VEL_E_HOST_BAD_LOG) << "header flip at " << p;
    }
    ASSERT_EQ(velh_db_save(wr.t.db, wr.img.c_str()), VEL_S_OK);
    write_file(path, good);
    velh_config_t cfg = wr.cfg;
    cfg.log_path = path.c_str();
    velh_db_t *db = nullptr;
    EXPECT_EQ(velh_db_open_file(&cfg, wr.img.c_str(), &db, nullptr), VEL_E_HOST_BAD_LOG);
    EXPECT_NE(std::string(velh_error_message()).find("another image"), std::string::npos);
}
