// Map by positions in no order (the batched descents) over trees whose
// inner pages hold one count on every entry but one: a delete inside one
// leaf makes each child of a level-one page odd in turn, and deletes in two
// of the root's children leave its last child the largest.  Every value and
// null bit must be the element the model holds at that position.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "seq_fixture.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

namespace velrel {
namespace {

const std::vector<FieldSpec> kFields = {{family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER},
                                        {family_of(VEL_DD_UINT8), VEL_SEQ_NO_ORDER}};

TEST(Map, PagesOfOneCountButOne) {
    // Pages of 256 bytes, a root of three full level-one pages.
    const Family fam = family_of(VEL_DD_INT4);
    const size_t leaf = fam.leaf_capacity(256),
                 fan = static_cast<size_t>(fam.inner_capacity(256, VEL_SEQ_NO_ORDER)),
                 n = leaf * fan * 3;
    std::vector<std::vector<size_t>> cases;
    for (size_t j = 0; j < fan * 3; j++)
        cases.push_back({j * leaf + 7});
    cases.push_back({7, leaf * fan + 7});
    std::mt19937 rng(7);
    for (const std::vector<size_t> &gone : cases) {
        SCOPED_TRACE(testing::Message() << "deleted at " << gone[0]);
        auto env = must_open({.seq_page_size = 256}, kFields);
        const Field f = env->field(0), p = env->field(1);
        std::vector<int32_t> v(n);
        std::iota(v.begin(), v.end(), 0);
        std::vector<vel_bitmap_word_t> nb((n + 63) / 64, 0);
        for (size_t i = 0; i < n; i += 97)
            nb[i / 64] |= vel_bitmap_word_t{1} << (i % 64);
        ASSERT_EQ(f.append(v.data(), n, nb.data()), VEL_S_OK);
        std::vector<int32_t> model = v; // values; a value v is null when v % 97 == 0
        for (size_t k = gone.size(); k-- > 0;) {
            ASSERT_EQ(f.del(gone[k], gone[k]), VEL_S_OK);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(gone[k]));
        }
        std::vector<vel_uint8> pos(model.size());
        std::iota(pos.begin(), pos.end(), 0);
        std::shuffle(pos.begin(), pos.end(), rng);
        // The last position opens a tile: its descent is batched for sure.
        std::swap(*std::find(pos.begin(), pos.end(), pos.size() - 1), pos[0]);
        ASSERT_EQ(p.append(pos.data(), pos.size()), VEL_S_OK);

        vel_seq_iterator_t src{}, map{};
        ASSERT_EQ(p.subseq(&src, 0, ~0ull), VEL_S_OK);
        ASSERT_EQ(f.map(&map, &src), VEL_S_OK);
        size_t k = 0;
        VEL_RET rc;
        while ((rc = map.next(&map)) == VEL_S_OK)
            for (int t = 0; t < map.tile_size; t++, k++) {
                const int32_t want = model[pos[k]];
                const bool null = (map.tile.null_bitmap[t / 64] >> (t % 64)) & 1;
                ASSERT_EQ(null, want % 97 == 0) << "position " << pos[k];
                if (!null) {
                    ASSERT_EQ(map.tile.u.arr_int4[t], want) << "position " << pos[k];
                }
            }
        EXPECT_EQ(rc, VEL_S_CURSOR_END);
        EXPECT_EQ(k, pos.size());
    }
}

// A root whose last count says one element fewer than its child holds: the
// last element lies past the counts, and map must refuse it as it refuses
// any position past the end, not read it from the child.
TEST(Map, LastCountUnderstated) {
    auto env = must_open({.seq_page_size = 256}, kFields);
    const Field f = env->field(0), p = env->field(1);
    const size_t n = f.s.fam.leaf_capacity(256) * 40;
    std::vector<int32_t> v(n, 1);
    ASSERT_EQ(f.append(v.data(), n), VEL_S_OK);
    // Positions 0 and `at`: two far positions, so that they are batched.
    auto map_one = [&](vel_uint8 at) {
        EXPECT_EQ(p.del(0, ~0ull), VEL_S_OK);
        const vel_uint8 two[] = {0, at};
        EXPECT_EQ(p.append(two, 2), VEL_S_OK);
        vel_seq_iterator_t src{}, map{};
        EXPECT_EQ(p.subseq(&src, 0, ~0ull), VEL_S_OK);
        EXPECT_EQ(f.map(&map, &src), VEL_S_OK);
        return map.next(&map);
    };
    const VEL_RET past = map_one(n);
    EXPECT_NE(past, VEL_S_OK);
    vel_seq_page_t *root = nullptr;
    ASSERT_EQ(f.root(&root), VEL_S_OK);
    ASSERT_EQ(velseq::page_kind(root), velseq::kInnerPage);
    velseq::inner_entry(root, 256, root->hdr.user - 1)->count -= 1;
    EXPECT_EQ(map_one(n - 2), VEL_S_OK);
    EXPECT_EQ(map_one(n - 1), past);
}

} // namespace
} // namespace velrel
