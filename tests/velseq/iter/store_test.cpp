// Store: draining an iterator into a field, one append per tile.
#include <algorithm>
#include <random>

#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

// Forwards to another iterator and records the size of every tile it hands
// on; after `fail_after` tiles its next fails with VEL_E_NOMEM.
struct Proxy {
    vel_seq_iterator_t it{};
    vel_seq_iterator_h inner = nullptr;
    std::vector<int> tiles;
    int fail_after = -1;
};

VEL_RET proxy_next(vel_seq_iterator_h it) {
    Proxy *p = reinterpret_cast<Proxy *>(it); // `it` is the first member
    if (p->fail_after >= 0 && static_cast<int>(p->tiles.size()) == p->fail_after)
        return VEL_E_NOMEM;
    VEL_RET rc = p->inner->next(p->inner);
    if (rc != VEL_S_OK)
        return rc;
    it->tile = p->inner->tile;
    it->tile_size = p->inner->tile_size;
    p->tiles.push_back(it->tile_size);
    return VEL_S_OK;
}

void wire(Proxy &p, vel_seq_iterator_h inner) {
    p.inner = inner;
    p.it.next = proxy_next;
    p.it.elem_type = inner->elem_type;
    p.it.elem_size = inner->elem_size;
}

TYPED_TEST_SUITE(FamilyTest, AllFamilies, FamilyNames);

TYPED_TEST(FamilyTest, StoreTilesIntoEmptyField) {
    using F = TypeParam;
    std::mt19937_64 rng(41);
    std::vector<typename F::T> v;
    for (int i = 0; i < 300; i++)
        v.push_back(F::make(static_cast<int64_t>(rng() % 101) - 50));
    const std::vector<size_t> null_at = {0, 127, 128, 200, 299};
    const Field &src = this->host->seq[F::index];
    const Field &dst = this->host->out[F::index];
    this->template put<F>(this->obj, src, v, VEL_SEQ_NO_ORDER, null_at);

    vel_seq_iterator_t scan{};
    ASSERT_EQ(F::subseq(&this->obj, src.u, src.c, &scan, 0, kAll), VEL_S_OK);
    Proxy p;
    wire(p, &scan);
    ASSERT_EQ(F::store(&this->obj, dst.u, dst.c, dst.no, &p.it, VEL_SEQ_NO_ORDER), VEL_S_OK);
    EXPECT_EQ(p.tiles, (std::vector<int>{128, 128, 44}));

    vel_seq_no_t count = 0;
    ASSERT_EQ(vel_w_seq_count(&this->obj, dst.u, dst.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 300u);
    vel_seq_iterator_t back{};
    ASSERT_EQ(F::subseq(&this->obj, dst.u, dst.c, &back, 0, kAll), VEL_S_OK);
    auto d = drain<F>(&back);
    ASSERT_EQ(d.vals.size(), 300u);
    for (size_t i = 0; i < 300; i++) {
        ASSERT_TRUE(F::eq(d.vals[i], v[i])) << i;
        bool is_null = std::find(null_at.begin(), null_at.end(), i) != null_at.end();
        ASSERT_EQ(d.nulls[i], is_null) << i;
    }

    // Storing the exhausted scan, or an empty search, changes nothing.
    ASSERT_EQ(F::store(&this->obj, dst.u, dst.c, dst.no, &scan, VEL_SEQ_NO_ORDER), VEL_S_OK);
    vel_seq_iterator_t none{};
    EXPECT_EQ(F::search(&this->obj, dst.u, dst.c, &none, F::make(0), VEL_SEQ_BOUNDARY_OPEN,
                        F::make(0), VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER),
              VEL_S_OK); // (whole field; drained below to make it empty)
    drain<F>(&none);
    ASSERT_EQ(F::store(&this->obj, dst.u, dst.c, dst.no, &none, VEL_SEQ_NO_ORDER), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_count(&this->obj, dst.u, dst.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 300u);
}

TEST_F(HostTest, StoreIntoOrderedFieldAndFailures) {
    const Field &src = host->seq[F_INT4];
    const Field &dst = host->out[F_INT4];
    std::vector<vel_int4> v;
    for (int i = 0; i < 400; i++)
        v.push_back(i);
    put<Fam_int4>(obj, src, v, VEL_SEQ_ASC_ORDER);
    put<Fam_int4>(obj, dst, {100, 150, 200}, VEL_SEQ_ASC_ORDER);
    vel_seq_no_t count = 0;

    // A first stored value below the field's last: refused, nothing kept.
    vel_seq_iterator_t s{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&obj, src.u, src.c, &s, 0, 9), VEL_S_OK);
    EXPECT_EQ(vel_w_seq_store_int4(&obj, dst.u, dst.c, dst.no, &s, VEL_SEQ_ASC_ORDER),
              VEL_E_SEQ_OUT_OF_ORDER);
    ASSERT_EQ(vel_w_seq_count(&obj, dst.u, dst.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 3u);

    // Values at or above the last are appended after what is there; the
    // source is not reset, so only what it still has is stored.
    ASSERT_EQ(vel_w_seq_search_int4(&obj, src.u, src.c, &s, 200, VEL_SEQ_BOUNDARY_INCLUSIVE, 0,
                                    VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    ASSERT_EQ(s.next(&s), VEL_S_OK); // 200..327 consumed
    ASSERT_EQ(vel_w_seq_store_int4(&obj, dst.u, dst.c, dst.no, &s, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    vel_seq_iterator_t back{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&obj, dst.u, dst.c, &back, 0, kAll), VEL_S_OK);
    auto d = drain<Fam_int4>(&back);
    ASSERT_EQ(d.vals.size(), 3u + 72u);
    EXPECT_EQ(d.vals[2], 200);
    EXPECT_EQ(d.vals[3], 328);
    EXPECT_EQ(d.vals.back(), 399);

    // A tile out of order in the middle: earlier tiles stay.
    const Field &mixed = host->seq[F_INT8];
    std::vector<vel_int8> m;
    for (int i = 0; i < 200; i++)
        m.push_back(i < 128 ? i : i - 100);
    put<Fam_int8>(obj, mixed, m, VEL_SEQ_NO_ORDER);
    const Field &target = host->out[F_INT8];
    vel_seq_iterator_t ms{};
    ASSERT_EQ(vel_w_seq_subseq_int8(&obj, mixed.u, mixed.c, &ms, 0, kAll), VEL_S_OK);
    EXPECT_EQ(vel_w_seq_store_int8(&obj, target.u, target.c, target.no, &ms, VEL_SEQ_ASC_ORDER),
              VEL_E_SEQ_OUT_OF_ORDER);
    ASSERT_EQ(vel_w_seq_count(&obj, target.u, target.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 128u);

    // A failing next ends the store with its code; what came before stays.
    const Field &t2 = host->out[F_INT2];
    std::vector<vel_int2> w(300, 7);
    put<Fam_int2>(obj, host->seq[F_INT2], w, VEL_SEQ_NO_ORDER);
    vel_seq_iterator_t ws{};
    ASSERT_EQ(vel_w_seq_subseq_int2(&obj, host->seq[F_INT2].u, host->seq[F_INT2].c, &ws, 0, kAll),
              VEL_S_OK);
    Proxy p;
    wire(p, &ws);
    p.fail_after = 2;
    EXPECT_EQ(vel_w_seq_store_int2(&obj, t2.u, t2.c, t2.no, &p.it, VEL_SEQ_NO_ORDER), VEL_E_NOMEM);
    ASSERT_EQ(vel_w_seq_count(&obj, t2.u, t2.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 256u);

    // A search that found nothing stores nothing.
    vel_seq_iterator_t none{};
    EXPECT_EQ(vel_w_seq_search_int4(&obj, src.u, src.c, &none, 1000, VEL_SEQ_BOUNDARY_INCLUSIVE, 0,
                                    VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER),
              VEL_S_NOTFOUND);
    const Field &t3 = host->out[F_UINT4];
    EXPECT_EQ(vel_w_seq_store_uint4(&obj, t3.u, t3.c, t3.no, &none, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_count(&obj, t3.u, t3.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 0u);
}

} // namespace
} // namespace itest
