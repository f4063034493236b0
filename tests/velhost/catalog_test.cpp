// The catalogue (class and field names, declared orders) survives images
// and log replay, definitions racing checkpoints included; refused
// definitions change nothing; files written before declared orders open
// with order 0; every code has a name.
#include <atomic>
#include <cstdio>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "durable_util.h"

using namespace durtest;

namespace {

// Named and unnamed classes and fields, both orders, char(N) scalars and
// sequences, both layouts and page managers, names of VELH_MAX_NAME bytes.
const std::string kLong(VELH_MAX_NAME, 'n');
const std::vector<ClassSpec> kClasses = {
    {"quote",
     0,
     VELH_PM_INMEM,
     {{"ts", VEL_DD_SEQUENCE_DATETIME, 0, VEL_SEQ_ASC_ORDER},
      {"px", VEL_DD_SEQUENCE_DOUBLE, 0, VEL_SEQ_NO_ORDER},
      {"sym", VEL_DD_CHAR, 8, 0}}},
    {"", VEL_CLASS_COMPACT, VELH_PM_ALT, {{nullptr, VEL_DD_INT4, 0, 0}, {"", VEL_DD_INT8, 0, 0}}},
    {"quotes",
     VEL_CLASS_COMPACT,
     VELH_PM_ALT,
     {{"down", VEL_DD_SEQUENCE_INT4, 0, VEL_SEQ_DESC_ORDER},
      {"tag", VEL_DD_SEQUENCE_CHAR, 5, VEL_SEQ_ASC_ORDER},
      {nullptr, VEL_DD_SEQUENCE_UINT1, 0, 0},
      {nullptr, VEL_DD_SEQUENCE_UINT2, 0, 0}}},
    {"", 0, VELH_PM_INMEM, {}},
    {kLong.c_str(), 0, VELH_PM_INMEM, {{kLong.c_str(), VEL_DD_SEQUENCE_INT4, 0, 0}}},
};

// The catalogue of kClasses defined in order and then unnamed classes up to
// n in all, each named class found by its name.
void expect_table(velh_db_t *db, size_t n) {
    ASSERT_EQ(velh_class_count(db), n);
    std::string want;
    for (uint16_t code = 1; code <= kClasses.size(); ++code) {
        const ClassSpec &c = kClasses[code - 1];
        want += std::to_string(code) + " " + c.name + " " + std::to_string(c.flags) + " " +
                std::to_string(c.pm) + ":";
        for (const velh_field_def_t &f : c.fields)
            want += std::string(" ") + (f.name ? f.name : "") + "/" + std::to_string(f.type) + "/" +
                    std::to_string(velrel::family_of(f.type, f.width).width) + "/" +
                    std::to_string(f.order);
        want += "\n";
        velh_class_info_t by{};
        EXPECT_TRUE(!*c.name ||
                    (velh_class_by_name(db, c.name, &by) == VEL_S_OK && by.code == code))
            << c.name;
    }
    EXPECT_EQ(catalogue(db).substr(0, want.size()), want);
}

} // namespace

// Each class is defined as the next of a loop of checkpoints begins, so that
// it lands in the image or in the log that follows it, never in both or
// neither, and one after the last: the reopened database has the same
// catalogue.  Refused
// definitions and lookups leave the catalogue and the log as they were.
TEST(DurableImage, CatalogueRoundTripsThroughRacingCheckpoints) {
    TempDir dir;
    const std::string &log = dir.log, &img = dir.img, over(VELH_MAX_NAME + 1, 'o');
    const velh_config_t cfg = config(4096, log.c_str(), VELH_LOG_SYNC_NONE);
    const size_t n = 40;
    std::string expect;
    {
        std::unique_ptr<Db> a = open_db(cfg);
        ASSERT_TRUE(a);
        std::atomic<int> checkpoints{0};
        std::atomic<bool> done{false};
        std::thread cp([&] {
            for (; !done; ++checkpoints)
                EXPECT_EQ(velh_checkpoint(a->db, img.c_str()), VEL_S_OK);
        });
        for (size_t i = 0; i < n; ++i) {
            for (const int seen = checkpoints; seen == checkpoints;)
                std::this_thread::yield();
            ASSERT_EQ(define(a->db, i < kClasses.size() ? kClasses[i]
                                                        : ClassSpec{"", 0, VELH_PM_INMEM, {}}),
                      VEL_S_OK)
                << i;
        }
        done = true;
        cp.join();
        // And one with both orders in the log after the last checkpoint.
        ASSERT_EQ(define(a->db, kClasses[2], ""), VEL_S_OK);
        expect_table(a->db, n + 1);
        expect = catalogue(a->db);

        const std::string before = read_file(log);
        // Each refused, the message naming the culprit where given; names
        // longer than VELH_MAX_NAME bytes are illegal parameters.
        const std::pair<ClassSpec, std::string> refusals[] = {
            {{"quotes", 0, VELH_PM_INMEM, {}}, "quotes"},
            {{"q", 0, VELH_PM_INMEM, {{"a", VEL_DD_INT4, 0, 0}, {"a", VEL_DD_INT8, 0, 0}}},
             "named a"},
            {{"q", 0, VELH_PM_INMEM, {{"a", VEL_DD_INT4, 0, VEL_SEQ_ASC_ORDER}}}, ""},
            {{"q", 0, VELH_PM_INMEM, {{"a", VEL_DD_SEQUENCE_INT4, 0, 3}}}, ""},
            {{over.c_str(), 0, VELH_PM_INMEM, {}}, "long"},
            {{"q", 0, VELH_PM_INMEM, {{over.c_str(), VEL_DD_INT4, 0, 0}}}, "long"}};
        for (const auto &[cls, what] : refusals) {
            const bool long_name = what == "long";
            EXPECT_EQ(define(a->db, cls), long_name ? VEL_E_ILLEGAL_PARAM : VEL_E_HOST_BAD_ARG)
                << what;
            EXPECT_TRUE(what.empty() || long_name || says(what)) << velh_error_message();
        }
        velh_class_info_t ci;
        for (const char *name : {"quo", "quotesx", "Quote", "", "nope"})
            EXPECT_EQ(velh_class_by_name(a->db, name, &ci), VEL_E_HOST_NO_CLASS) << name;
        for (uint16_t code : {0, 42, 1023})
            EXPECT_EQ(velh_class_info(a->db, code, &ci), VEL_E_HOST_NO_CLASS) << code;
        EXPECT_EQ(velh_class_info(a->db, 1, nullptr), VEL_E_HOST_BAD_ARG);
        EXPECT_EQ(velh_class_by_name(a->db, nullptr, &ci), VEL_E_HOST_BAD_ARG);
        EXPECT_EQ(velh_class_count(nullptr), 0);
        EXPECT_EQ(catalogue(a->db), expect);
        EXPECT_EQ(read_file(log), before);
    }
    velh_open_stats_t st{};
    std::unique_ptr<Db> b = open_db(cfg, img.c_str(), &st);
    ASSERT_TRUE(b);
    EXPECT_EQ(st.classes, n + 1);
    expect_table(b->db, n + 1);
    EXPECT_EQ(catalogue(b->db), expect);
}

// An image of format 2 and a log of format 1 that follows it, written by
// the code before declared orders (class "tick": id, ts of 20 int8 in
// 128-byte pages; the log defines "quote": px of 3 doubles, sym char(4),
// compact, ALT, and commits one object of it).  They open with order 0;
// classes with an order are refused on the old log until a checkpoint.
TEST(Catalogue, OldFormatsOpenWithOrderZero) {
    TempDir dir;
    const std::string &img = dir.img;
    write_file(img, read_file(VELHOST_TEST_DATA "/old.img"));
    write_file(dir.log, read_file(VELHOST_TEST_DATA "/old.log"));
    const velh_config_t cfg = config(128, dir.log.c_str());
    velh_open_stats_t st{};
    std::unique_ptr<Db> d = open_db(cfg, img.c_str(), &st);
    ASSERT_TRUE(d);
    EXPECT_EQ(st.log_replayed, 2u);
    EXPECT_EQ(catalogue(d->db), "1 tick 0 0: id/" + std::to_string(VEL_DD_INT4) + "/4/0 ts/" +
                                    std::to_string(VEL_DD_SEQUENCE_INT8) + "/8/0\n2 quote " +
                                    std::to_string(VEL_CLASS_COMPACT) + " 1: px/" +
                                    std::to_string(VEL_DD_SEQUENCE_DOUBLE) + "/8/0 sym/" +
                                    std::to_string(VEL_DD_CHAR) + "/4/0\n");
    ASSERT_EQ(velh_begin(d->con, VELH_READ_ONLY), VEL_S_OK);
    for (auto [cls, fld, n] : {std::tuple{1, 1, 20u}, std::tuple{2, 0, 3u}}) {
        vel_objhandle_t o;
        velh_field_shape_t sh;
        ASSERT_EQ(velh_obj_open(d->con, uint16_t(cls), uint64_t(cls), &o), VEL_S_OK);
        ASSERT_EQ(velh_field_shape(&o, uint16_t(fld), VEL_SEQ_NO_ORDER, &sh), VEL_S_OK);
        EXPECT_EQ(sh.elements, n);
    }
    ASSERT_EQ(velh_rollback(d->con), VEL_S_OK);

    const ClassSpec plain = {"plain", 0, VELH_PM_INMEM, {{"v", VEL_DD_SEQUENCE_INT4, 0, 0}}};
    const ClassSpec ordered = {
        "ordered", 0, VELH_PM_INMEM, {{"v", VEL_DD_SEQUENCE_INT4, 0, VEL_SEQ_DESC_ORDER}}};
    EXPECT_EQ(define(d->db, ordered), VEL_E_HOST_BAD_ARG);
    EXPECT_TRUE(says("format version 1")) << velh_error_message();
    EXPECT_EQ(define(d->db, plain), VEL_S_OK);
    ASSERT_EQ(velh_checkpoint(d->db, img.c_str()), VEL_S_OK) << velh_error_message();
    EXPECT_EQ(define(d->db, ordered), VEL_S_OK);
    const std::string expect = catalogue(d->db);
    d.reset();
    EXPECT_EQ(read_file(img).substr(8, 1), "\3"); // rewritten in the current format
    d = open_db(cfg, img.c_str());
    ASSERT_TRUE(d);
    EXPECT_EQ(catalogue(d->db), expect);
    EXPECT_NE(expect.find("4 ordered 0 0: v/" + std::to_string(VEL_DD_SEQUENCE_INT4) + "/4/2"),
              std::string::npos);
}

// Every code of velseq.h, as the header declares it, has its own name,
// spelt as there, and a sentence; other numbers have neither.
TEST(Codes, EveryCodeHasANameAndASentence) {
    // The enum's "NAME = n" lines and the trap code's #define (no std::regex:
    // GCC 12 warns inside it when sanitized).
    std::istringstream header(read_file(VELSEQ_HEADER));
    std::set<std::string> texts;
    for (std::string line; std::getline(header, line);) {
        char id[64];
        int code = 0;
        if (std::sscanf(line.c_str(), " %63[A-Z0-9_] = %d", id, &code) != 2 &&
            std::sscanf(line.c_str(), "#define %63[A-Z0-9_] %d", id, &code) != 2)
            continue;
        const std::string name = id;
        if (name.rfind("VEL_S_", 0) && name.rfind("VEL_E_", 0) && name != "VEL_ERR_SEQ")
            continue;
        ASSERT_NE(vel_code_name(code), nullptr) << name;
        EXPECT_EQ(vel_code_name(code), name);
        ASSERT_NE(vel_code_text(code), nullptr) << name;
        EXPECT_TRUE(texts.insert(vel_code_text(code)).second) << name;
    }
    EXPECT_GE(texts.size(), 30u) << "the header's codes were not found";
    for (int other : {-1, 1, 53, 899, 913, 923, 1060001}) {
        EXPECT_EQ(vel_code_name(other), nullptr) << other;
        EXPECT_EQ(vel_code_text(other), nullptr) << other;
    }
}
