// Random sequences of append, insert, delete, truncate, count, first and
// last on every family, checked after every step against a vector model and
// the tree checker.  Transactions are committed now and then so that later
// steps copy shared pages on write.
#include "test_util.h"

namespace vstest {
namespace {

struct DiffParam {
    std::string family;
    uint32_t page_size;
};

void PrintTo(const DiffParam &p, std::ostream *os) { *os << p.family << "/" << p.page_size; }

class Differential : public ::testing::TestWithParam<DiffParam> {};

constexpr int kSteps = 70;
constexpr vel_seq_no_t kMaxSeqNo = ~vel_seq_no_t{0};

TEST_P(Differential, RandomOperationsMatchModel) {
    const FamilyOps &fam = family(GetParam().family);
    const uint32_t page_size = GetParam().page_size;
    SeqDb sdb(DbOptions{.seq_page_size = page_size});
    FieldRef f = sdb.field(fam);
    const size_t leaf = leaf_capacity(static_cast<int32_t>(page_size), fam.elem_size);
    const size_t w = fam.elem_size;

    for (uint64_t seed : {11u, 12u}) {
        std::mt19937_64 rng(seed * 1000003 + page_size + w);
        SCOPED_TRACE("seed " + std::to_string(seed) + " family " + fam.name + " page size " +
                     std::to_string(page_size));
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        vel_objhandle_t obj = sdb.new_object();
        const uint64_t oid = obj.oid;
        SeqModel m(w);

        for (int step = 0; step < kSteps; step++) {
            std::string what;
            const unsigned op = static_cast<unsigned>(rng() % 100);
            const bool with_nulls = rng() % 2 == 0;
            if (op < 35) {
                size_t n = rng() % 4 == 0 ? rng() % 5 : rng() % (3 * leaf + 1);
                auto vals = random_values(fam, rng, n);
                auto nulls = random_nulls(rng, n);
                const vel_bitmap_word_t *nb = with_nulls ? nulls.data() : nullptr;
                what = "append " + std::to_string(n);
                ASSERT_EQ(fam.append(&obj, f, vals.data(), n, VEL_SEQ_NO_ORDER, nb), VEL_S_OK)
                    << what << " at step " << step;
                m.append(vals.data(), n, nb);
            } else if (op < 62) {
                size_t n = rng() % 3 == 0 ? 1 + rng() % 4 : rng() % (2 * leaf + 1);
                bool bad = rng() % 12 == 0;
                uint64_t pos = bad ? m.size() + 1 : rng() % (m.size() + 1);
                auto vals = random_values(fam, rng, n);
                auto nulls = random_nulls(rng, n);
                const vel_bitmap_word_t *nb = with_nulls ? nulls.data() : nullptr;
                what = "insert " + std::to_string(n) + " at " + std::to_string(pos);
                VEL_RET rc = fam.insert(&obj, f, pos, vals.data(), n, VEL_SEQ_NO_ORDER, nb);
                if (bad && n > 0) {
                    ASSERT_EQ(rc, VEL_E_ILLEGAL_PARAM) << what << " at step " << step;
                } else {
                    ASSERT_EQ(rc, VEL_S_OK) << what << " at step " << step;
                    m.insert(pos, vals.data(), n, nb);
                }
            } else if (op < 92) {
                uint64_t size = m.size();
                uint64_t from = size == 0 ? 0 : rng() % (size + 1);
                uint64_t till;
                switch (rng() % 6) {
                case 0:
                    till = kMaxSeqNo;
                    break; // runs past the end
                case 1:
                    till = from == 0 ? 0 : from - 1 - rng() % from;
                    break; // till < from
                case 2:
                    till = from;
                    break;
                case 3:
                    till = from + rng() % (2 * leaf);
                    break;
                default:
                    till = from + rng() % 8;
                }
                if (from == 0 && till == 0 && rng() % 2)
                    from = 1, till = 0; // inverted at the start
                what = "delete " + std::to_string(from) + ".." + std::to_string(till);
                ASSERT_EQ(fam.remove(&obj, f, from, till, VEL_SEQ_NO_ORDER), VEL_S_OK)
                    << what << " at step " << step;
                m.erase(from, till);
            } else if (op < 95) {
                what = "truncate";
                ASSERT_EQ(vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no), VEL_S_OK);
                m.clear();
            } else {
                what = "commit";
                ASSERT_EQ(sdb.commit(), VEL_S_OK);
                ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
                ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
            }
            SCOPED_TRACE("after " + what + " at step " + std::to_string(step));
            expect_matches(fam, &obj, f, m, VEL_SEQ_NO_ORDER);
            if (HasFatalFailure())
                return;
        }
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
        // Deleting everything leaves a null root, like truncate.
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
        ASSERT_EQ(fam.remove(&obj, f, 0, kMaxSeqNo, VEL_SEQ_NO_ORDER), VEL_S_OK);
        m.clear();
        expect_matches(fam, &obj, f, m, VEL_SEQ_NO_ORDER);
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
        EXPECT_EQ(sdb.stats().live, 0u) << "pages left after the field was emptied";
    }
}

std::vector<DiffParam> params() {
    std::vector<DiffParam> out;
    for (uint32_t ps : {1024u, 4096u})
        for (const std::string &name : family_names())
            out.push_back({name, ps});
    return out;
}

INSTANTIATE_TEST_SUITE_P(All, Differential, ::testing::ValuesIn(params()), [](const auto &info) {
    return info.param.family + "_" + std::to_string(info.param.page_size);
});

} // namespace
} // namespace vstest
