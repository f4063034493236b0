// Join and map deliver the same answers whether their operand gives them a
// tile of values at a time or one value at a time.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

using AllFamilies = ::testing::Types<Fam_int1, Fam_int2, Fam_int4, Fam_int8, Fam_uint1, Fam_uint2,
                                     Fam_uint4, Fam_uint8, Fam_float, Fam_double, Fam_datetime>;
struct FamilyNames {
    template <class F> static std::string GetName(int) { return F::name; }
};
template <class F> class FamilyTest : public HostTest {};
TYPED_TEST_SUITE(FamilyTest, AllFamilies, FamilyNames);

// An operand iterator that feeds values from memory in tiles of `tile`
// elements, so that one sequence of values reaches join and map either a
// tile at a time or one value at a time.
struct Feed {
    vel_seq_iterator_t it{}; // first: the callbacks cast the record back
    const unsigned char *vals = nullptr;
    size_t n = 0, size = 0, i = 0, tile = 0;

    Feed(const void *v, size_t count, size_t elem_size, size_t per_tile, uint8_t type)
        : vals(static_cast<const unsigned char *>(v)), n(count), size(elem_size), tile(per_tile) {
        it.elem_type = type;
        it.elem_size = static_cast<uint16_t>(elem_size);
        it.last_seq_no = kAll;
        it.next = [](vel_seq_iterator_h h) -> VEL_RET {
            auto *f = reinterpret_cast<Feed *>(h);
            if (f->i >= f->n)
                return VEL_S_CURSOR_END;
            const size_t k = std::min(f->tile, f->n - f->i);
            std::memcpy(f->it.tile.u.arr_char, f->vals + f->i * f->size, k * f->size);
            f->it.tile_size = static_cast<uint16_t>(k);
            f->i += k;
            return VEL_S_OK;
        };
    }
};

// Join and map handle the values of a tile together (batched descents); a
// tile of one value takes the plain search and descent.  Both must give the
// same positions, values, null bits and codes, and leave the same context
// (the scan stack included) after every tile, over ordered fields, over an
// unordered field searched as if ordered (keyless inner pages: the halving
// steps meet arbitrary bytes) and with values past the end.
TYPED_TEST(FamilyTest, TilesMatchOneValueAtATime) {
    using F = TypeParam;
    using T = typename F::T;
    const size_t n = F::is_char ? 1200 : 3000;
    std::mt19937_64 rng(41);
    struct Case {
        const char *name;
        vel_seq_order_t stored, searched;
    };
    for (const Case &c : {Case{"ascending", VEL_SEQ_ASC_ORDER, VEL_SEQ_ASC_ORDER},
                          Case{"descending", VEL_SEQ_DESC_ORDER, VEL_SEQ_DESC_ORDER},
                          Case{"unordered", VEL_SEQ_NO_ORDER, VEL_SEQ_ASC_ORDER}}) {
        SCOPED_TRACE(c.name);
        std::vector<T> vals;
        std::vector<size_t> null_at;
        for (size_t i = 0; i < n; i++) {
            vals.push_back(F::make(static_cast<int64_t>(rng() % 201) - 100));
            if (c.stored == VEL_SEQ_NO_ORDER && rng() % 5 == 0)
                null_at.push_back(i);
        }
        if (c.stored != VEL_SEQ_NO_ORDER)
            std::sort(vals.begin(), vals.end(), F::lt);
        if (c.stored == VEL_SEQ_DESC_ORDER)
            std::reverse(vals.begin(), vals.end());
        vel_objhandle_t o = this->host->create();
        const Field &f = this->host->seq[F::index];
        this->template put<F>(o, f, vals, c.stored, null_at);

        // Probes: mostly inside the range, a few past either end (a search
        // that finds nothing ends the join with NOTFOUND mid-tile).
        std::vector<T> probes;
        for (int i = 0; i < 900; i++)
            probes.push_back(F::make(static_cast<int64_t>(rng() % 211) - 105));
        std::vector<vel_uint8> positions;
        for (int i = 0; i < 900; i++)
            positions.push_back(i % 3 == 0 ? rng() % n : (i % 3 == 1 ? i : rng() % (n + 2)));

        for (int op = 0; op < 2; op++) {
            SCOPED_TRACE(op == 0 ? "join" : "map");
            const void *in = op == 0 ? static_cast<const void *>(probes.data()) : positions.data();
            const size_t size = op == 0 ? F::size : 8;
            const uint8_t type = op == 0 ? F::code : static_cast<uint8_t>(VEL_DD_UINT8);
            Feed tiles(in, 900, size, 128, type), ones(in, 900, size, 1, type);
            vel_seq_iterator_t a{}, b{};
            if (op == 0) {
                ASSERT_EQ(F::join(&o, f.u, f.c, &a, &tiles.it, c.searched), VEL_S_OK);
                ASSERT_EQ(F::join(&o, f.u, f.c, &b, &ones.it, c.searched), VEL_S_OK);
            } else {
                ASSERT_EQ(F::map(&o, f.u, f.c, &a, &tiles.it), VEL_S_OK);
                ASSERT_EQ(F::map(&o, f.u, f.c, &b, &ones.it), VEL_S_OK);
            }
            const size_t out_size = op == 0 ? 8 : F::size;
            for (int t = 0;; t++) {
                SCOPED_TRACE("tile " + std::to_string(t));
                const VEL_RET ra = a.next(&a);
                VEL_RET rb = VEL_S_OK;
                size_t k = 0;
                for (; k < (ra == VEL_S_CURSOR_END ? 1 : std::min<size_t>(128, 900 - 128 * t));
                     k++) {
                    rb = b.next(&b);
                    if (rb != VEL_S_OK)
                        break;
                    ASSERT_EQ(b.tile_size, 1);
                    ASSERT_EQ(
                        std::memcmp(a.tile.u.arr_char + k * out_size, b.tile.u.arr_char, out_size),
                        0)
                        << "slot " << k;
                    ASSERT_EQ((a.tile.null_bitmap[k / 64] >> (k % 64)) & 1,
                              b.tile.null_bitmap[0] & 1)
                        << "null of slot " << k;
                }
                ASSERT_EQ(ra, rb);
                // A failed map tile leaves next_seq_no where the tile began.
                if (op == 0 || ra == VEL_S_OK) {
                    ASSERT_EQ(a.next_seq_no, b.next_seq_no);
                }
                // A map serves positions from the leaf in hand, so its last
                // descent may have been for an earlier position of the same
                // leaf: the same path, but another index in the leaf.
                vel_seq_iterator_t ca = a, cb = b;
                if (op == 1)
                    for (vel_seq_iterator_t *x : {&ca, &cb}) {
                        auto *ctx = reinterpret_cast<vel_seq_iterator_context_t *>(x->context);
                        if (ctx->stack_size > 0)
                            ctx->stack[ctx->stack_size - 1].pos = 0;
                    }
                ASSERT_EQ(std::memcmp(ca.context, cb.context, sizeof ca.context), 0);
                if (ra != VEL_S_OK)
                    break;
                ASSERT_EQ(a.tile_size, k);
            }
        }
    }
}

} // namespace
} // namespace itest
