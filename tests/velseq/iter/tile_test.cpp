// The tile filler on hand-built page trees: runs across leaves, the null
// bitmap cleared on every append, a missing page, a failed transaction and
// the traps for corrupt trees.
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "iter/iter_internal.h"
#include "iter_env.h"
#include "storage/page_format.h"

namespace itest {
namespace {

constexpr int32_t kPage = 512;
constexpr uint64_t kCap = ((kPage - 8) * 8 - 63) / 33; // int4 leaf capacity: 120

struct Trapped : std::runtime_error {
    using std::runtime_error::runtime_error;
};
void throwing_trap(int, const char *, int, void *) { throw Trapped("trap"); }

int32_t page_size_fn(vel_db_connection_h) { return kPage; }

struct Pages {
    std::vector<std::unique_ptr<vel_seq_page_t, decltype(&std::free)>> owned;
    vel_seq_page_t *make(int kind, int user) {
        auto *p = static_cast<vel_seq_page_t *>(std::aligned_alloc(16, kPage));
        std::memset(p, 0, kPage);
        p->hdr.kind = static_cast<uint8_t>(kind | 0x50); // high bits are the host's
        p->hdr.user = static_cast<uint16_t>(user);
        owned.emplace_back(p, &std::free);
        return p;
    }
    // A leaf of int4 values base, base+1, ...; nulls at the given indexes.
    vel_seq_page_t *leaf(int n, int base, std::vector<int> nulls = {}) {
        vel_seq_page_t *p = make(velseq::kLeafPage, n);
        for (int i = 0; i < n; i++)
            reinterpret_cast<vel_int4 *>(velseq::page_values(p))[i] = base + i;
        vel_bitmap_word_t *m = velseq::leaf_nulls(p, kPage, kCap);
        for (int i : nulls)
            m[i / 64] |= vel_bitmap_word_t{1} << (i % 64);
        return p;
    }
    vel_seq_page_t *inner(std::vector<std::pair<vel_seq_page_t *, uint64_t>> kids) {
        vel_seq_page_t *p = make(velseq::kInnerPage, static_cast<int>(kids.size()));
        for (size_t i = 0; i < kids.size(); i++)
            *velseq::inner_entry(p, kPage, static_cast<int64_t>(i)) = {kids[i].first,
                                                                       kids[i].second};
        return p;
    }
};

class TileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::memset(&con, 0, sizeof con);
        pm.large_page_size = page_size_fn;
        velh_set_trap_handler(throwing_trap, nullptr);
    }
    void TearDown() override { velh_set_trap_handler(nullptr, nullptr); }

    // A scan of the tree under `root` from element `from` to `last`.
    void start(vel_seq_page_t *root, uint64_t from, uint64_t last) {
        it = vel_seq_iterator_t{};
        it.elem_size = 4;
        it.elem_type = VEL_DD_INT4;
        auto *ctx = ctx_of(it);
        ctx->con = &con;
        ctx->pm = &pm;
        ctx->page_size = kPage;
        ASSERT_EQ(vel_seq_subseq_page(&con, &pm, &it, root, from, 0), VEL_S_OK);
        it.first_seq_no = it.next_seq_no = from;
        it.last_seq_no = last;
    }

    vel_db_connection_t con;
    vel_page_manager_t pm{};
    vel_seq_iterator_t it{};
    Pages pages;
};

TEST_F(TileTest, RunsAcrossLeavesAndLevels) {
    auto *a = pages.leaf(50, 0, {49});
    auto *b = pages.leaf(30, 50, {0, 29});
    auto *c = pages.leaf(120, 80, {1});
    auto *left = pages.inner({{a, 50}, {b, 30}});
    auto *right = pages.inner({{c, 120}});
    auto *root = pages.inner({{left, 80}, {right, 120}});
    start(root, 10, ~vel_seq_no_t{0});
    ASSERT_EQ(vel_seq_next_tile(&it), VEL_S_OK);
    ASSERT_EQ(it.tile_size, 128);
    for (int i = 0; i < 128; i++)
        ASSERT_EQ(it.tile.u.arr_int4[i], 10 + i);
    // nulls at 49, 50, 79, 81 -> slots 39, 40, 69, 71
    EXPECT_EQ(it.tile.null_bitmap[0], (1ull << 39) | (1ull << 40));
    EXPECT_EQ(it.tile.null_bitmap[1], (1ull << (69 - 64)) | (1ull << (71 - 64)));
    ASSERT_EQ(vel_seq_next_tile(&it), VEL_S_OK);
    EXPECT_EQ(it.tile_size, 200 - 138);
    EXPECT_EQ(it.tile.u.arr_int4[0], 138);
    EXPECT_EQ(it.tile.null_bitmap[0] | it.tile.null_bitmap[1], 0u);
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(ctx_of(it)->stack_size, 0);
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_S_CURSOR_END);
}

TEST_F(TileTest, AppendBehindATileClearsItsNullFlags) {
    auto *a = pages.leaf(20, 0, {2, 15});
    start(a, 0, ~vel_seq_no_t{0});
    it.tile_size = 5;
    it.tile.null_bitmap[0] = 0x1f; // flags of the 5 elements already there
    ASSERT_EQ(vel_seq_append_tile(&it), VEL_S_OK);
    EXPECT_EQ(it.tile_size, 25);
    EXPECT_EQ(it.tile.u.arr_int4[5], 0);
    EXPECT_EQ(it.tile.null_bitmap[0], (1ull << 7) | (1ull << 20)) << "old flags are gone";
}

TEST_F(TileTest, MissingPageAndFailedTransaction) {
    auto *a = pages.leaf(100, 0);
    auto *root = pages.inner({{a, 100}, {nullptr, 100}});
    start(root, 90, ~vel_seq_no_t{0});
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_E_NOMEM);
    EXPECT_EQ(it.tile_size, 0) << "tile_size is not updated for the copied run";
    EXPECT_EQ(it.next_seq_no, 100u) << "but the run is counted";

    start(root, 0, 50);
    con.trans.error_code = VEL_E_HOST_TRANS_FAILED;
    it.tile.null_bitmap[0] = 7;
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_E_HOST_TRANS_FAILED);
    EXPECT_EQ(it.tile.null_bitmap[0], 7u) << "nothing changed";
    EXPECT_EQ(it.next_seq_no, 0u);
    con.trans.error_code = VEL_S_OK;
    ASSERT_EQ(vel_seq_next_tile(&it), VEL_S_OK);
    EXPECT_EQ(it.tile_size, 51);
}

TEST_F(TileTest, CorruptTreesTrap) {
    // A page that is neither inner nor leaf on the path.
    auto *odd = pages.make(5, 10);
    auto *root = pages.inner({{pages.leaf(1, 0), 1}, {odd, 10}});
    start(root, 0, ~vel_seq_no_t{0});
    EXPECT_THROW(vel_seq_next_tile(&it), Trapped);

    // A path deeper than 14 levels.
    vel_seq_page_t *p = pages.leaf(3, 0);
    vel_seq_page_t *deep_root = nullptr;
    for (int level = 0; level < 15; level++)
        p = pages.inner({{p, 3}});
    deep_root = p;
    it = vel_seq_iterator_t{};
    ctx_of(it)->con = &con;
    ctx_of(it)->pm = &pm;
    EXPECT_THROW(vel_seq_subseq_page(&con, &pm, &it, deep_root, 0, 0), Trapped);

    // An empty page on the path.
    auto *empty_leaf = pages.make(velseq::kLeafPage, 0);
    auto *r2 = pages.inner({{empty_leaf, 1}}); // the count leads into it
    EXPECT_THROW(vel_seq_subseq_page(&con, &pm, &it, r2, 0, 0), Trapped);
}

} // namespace
} // namespace itest
