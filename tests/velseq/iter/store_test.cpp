// Store against its definition: the same source drained by hand, one
// append per tile, into a twin target must leave the same code, the same
// field (values, null flags, tree) and the source at the same place.  The
// cases reach the batched path (sources of many tiles) with nulls, order
// breaks at a tile's start and inside one, a null in an ordered target, a
// target that is its own source, a range that ends inside a leaf or on a
// tile begun in the leaf before, and a source of narrower elements, on
// small pages and on pages whose leaves hold many tiles (the runs copied
// straight from the source's leaves).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "seq_fixture.h"

namespace velrel {
namespace {

struct Case {
    const char *name;
    vel_seq_order_t order;
    size_t n;                 // source values 0, 3, 6, ...
    size_t dip;               // this one made smaller than its predecessor (0: none)
    std::vector<size_t> null; // null positions of the source
    bool self;                // the target's own scan is the source
    uint64_t till = ~0ull;    // the source scan's last position
    bool narrow = false;      // an int4 source (its tiles read as int8)
};

TEST(Store, SameAsOneAppendPerTile) {
    const Case cases[] = {
        {"nulls, no order", VEL_SEQ_NO_ORDER, 9000, 0, {3, 64, 128, 700, 2047, 2048, 4000}, false},
        {"ascending", VEL_SEQ_ASC_ORDER, 5000, 0, {}, false},
        {"break at a tile start", VEL_SEQ_ASC_ORDER, 5000, 1 + 128 * 20, {}, false},
        {"break inside a tile", VEL_SEQ_ASC_ORDER, 5000, 128 * 9 + 50, {}, false},
        {"null in an ordered target", VEL_SEQ_ASC_ORDER, 5000, 0, {3000}, false},
        {"own scan", VEL_SEQ_NO_ORDER, 1000, 0, {5, 900}, true},
        {"range ending inside a leaf", VEL_SEQ_NO_ORDER, 9000, 0, {5000, 5990}, false, 128 * 47},
        // On 8 KiB pages (1006 values a leaf) its last tile begins in the leaf before.
        {"range ending past a leaf", VEL_SEQ_NO_ORDER, 9000, 0, {5000, 5100}, false, 128 * 40},
        {"narrower source", VEL_SEQ_NO_ORDER, 3000, 0, {70, 2500}, false, ~0ull, true},
    };
    for (uint32_t page : {512u, 8192u})
        for (const Case &c : cases) {
            SCOPED_TRACE(testing::Message() << c.name << ", pages of " << page);
            auto env = must_open(
                {.seq_page_size = static_cast<int32_t>(page), .n_objects = 3},
                {{family_of(VEL_DD_INT8), c.order}, {family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER}});
            vel_objhandle_t *src = env->obj(0), *dst = env->obj(1), *ref = env->obj(2);
            const int sf = c.narrow ? 1 : 0;
            std::vector<vel_int8> v(c.n);
            std::vector<vel_bitmap_word_t> nb((c.n + 63) / 64, 0);
            for (size_t i = 0; i < c.n; i++)
                v[i] = static_cast<vel_int8>(3 * i);
            if (c.dip)
                v[c.dip] = v[c.dip - 1] - 1;
            for (size_t p : c.null)
                nb[p / 64] |= vel_bitmap_word_t{1} << (p % 64);
            // Targets start with a few values at or below the source's first.
            const vel_int8 head[] = {-9, -5, 0};
            for (vel_objhandle_t *o : {dst, ref}) {
                ASSERT_EQ(env->field(0, o).append(head, 3), VEL_S_OK);
            }
            std::vector<int32_t> v4(v.begin(), v.end());
            for (vel_objhandle_t *o : c.self ? std::vector{dst, ref} : std::vector{src}) {
                ASSERT_EQ(env->field(sf, o).append(c.narrow ? static_cast<const void *>(v4.data())
                                                            : v.data(),
                                                   c.n, nb.data(), VEL_SEQ_NO_ORDER),
                          VEL_S_OK);
            }
            vel_seq_iterator_t a{}, b{};
            ASSERT_EQ(env->field(sf, c.self ? dst : src).subseq(&a, 1, c.till), VEL_S_OK);
            ASSERT_EQ(env->field(sf, c.self ? ref : src).subseq(&b, 1, c.till), VEL_S_OK);
            const VEL_RET got = env->field(0, dst).store(&a);
            VEL_RET want;
            while ((want = b.next(&b)) == VEL_S_OK &&
                   (want = env->field(0, ref).append(b.tile.u.arr_char, b.tile_size,
                                                     b.tile.null_bitmap)) == VEL_S_OK) {
            }
            EXPECT_EQ(got, want == VEL_S_CURSOR_END ? VEL_S_OK : want);
            EXPECT_EQ(a.next_seq_no, b.next_seq_no);
            EXPECT_EQ(
                std::memcmp(a.tile.null_bitmap, b.tile.null_bitmap, sizeof a.tile.null_bitmap), 0);
            const auto *ca = reinterpret_cast<const vel_seq_iterator_context_t *>(a.context);
            const auto *cb = reinterpret_cast<const vel_seq_iterator_context_t *>(b.context);
            ASSERT_EQ(ca->stack_size, cb->stack_size);
            for (int l = 0; !c.self && l < ca->stack_size; l++) // the same pages: the same path
                EXPECT_TRUE(ca->stack[l].page == cb->stack[l].page &&
                            ca->stack[l].pos == cb->stack[l].pos);
            const TreeInfo rd = checked(env->field(0, dst), true),
                           rr = checked(env->field(0, ref), true);
            EXPECT_TRUE(rr.content == rd.content);
            EXPECT_EQ(rd.depth, rr.depth);
        }
}

} // namespace
} // namespace velrel
