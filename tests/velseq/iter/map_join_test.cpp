// Map (gather at positions), project, join (positions of values) and the
// join-then-map pipeline, against models; bindings of operand iterators.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

// A positions iterator: a scan of a uint8 field of a fresh object.
struct Positions {
    vel_objhandle_t holder{};
    vel_seq_iterator_t it{};
};

void make_positions(HostTest &t, Positions &p, const std::vector<vel_uint8> &pos) {
    p.holder = t.host->create();
    const Field &f = t.host->pos;
    t.put<Fam_uint8>(p.holder, f, pos, VEL_SEQ_NO_ORDER);
    ASSERT_EQ(vel_w_seq_subseq_uint8(&p.holder, f.u, f.c, &p.it, 0, kAll), VEL_S_OK);
    ASSERT_EQ(p.it.elem_type, VEL_DD_UINT8);
}

TYPED_TEST_SUITE(FamilyTest, AllFamilies, FamilyNames);

TYPED_TEST(FamilyTest, MapPositionPatternsAgainstModel) {
    using F = TypeParam;
    const uint64_t n = 3 * leaf_cap(F::size) + 10;
    auto model = random_vals<F>(n, 21);
    std::mt19937_64 rng(22);
    std::vector<size_t> null_at;
    std::vector<bool> nulls(n);
    for (size_t i = 0; i < n; i++)
        if (rng() % 4 == 0)
            null_at.push_back(i), nulls[i] = true;
    const Field &f = this->host->seq[F::index];
    this->template put<F>(this->obj, f, model, VEL_SEQ_NO_ORDER, null_at);

    std::vector<std::pair<std::string, std::vector<vel_uint8>>> patterns;
    std::vector<vel_uint8> p;
    for (uint64_t i = 0; i < n; i += 3)
        p.push_back(i);
    patterns.push_back({"ascending", p});
    std::reverse(p.begin(), p.end());
    patterns.push_back({"descending", p});
    p.clear();
    for (int i = 0; i < 700; i++)
        p.push_back(rng() % n);
    patterns.push_back({"random", p});
    p.clear();
    for (int i = 0; i < 300; i++)
        p.push_back(i % 7 == 0 ? n - 1 : (i / 50) * 2);
    patterns.push_back({"repeated", p});
    patterns.push_back({"first last first", {n - 1, 0, n - 1, 0, n / 2}});

    for (auto &[name, pos] : patterns) {
        SCOPED_TRACE(name);
        Positions ps;
        make_positions(*this, ps, pos);
        vel_seq_iterator_t m{};
        ASSERT_EQ(F::map(&this->obj, f.u, f.c, &m, &ps.it), VEL_S_OK);
        EXPECT_EQ(ps.it.bounded, 1);
        EXPECT_EQ(m.elem_type, F::code);
        EXPECT_EQ(m.elem_size, F::size);
        EXPECT_EQ(m.opd[0], &ps.it);
        EXPECT_EQ(m.last_seq_no, kAll);
        for (int pass = 0; pass < 2; pass++) {
            auto d = drain<F>(&m);
            ASSERT_EQ(d.end, VEL_S_CURSOR_END);
            ASSERT_EQ(d.vals.size(), pos.size());
            for (size_t i = 0; i < pos.size(); i++) {
                ASSERT_TRUE(F::eq(d.vals[i], model[pos[i]])) << "slot " << i;
                ASSERT_EQ(d.nulls[i], nulls[pos[i]]) << "null of slot " << i;
            }
            EXPECT_EQ(m.next_seq_no, pos.size());
            EXPECT_EQ(m.next(&m), VEL_S_CURSOR_END);
            // reset restarts both iterators and unbinds the positions
            ASSERT_EQ(m.reset(&m), VEL_S_OK);
            EXPECT_EQ(ps.it.bounded, 0);
            EXPECT_EQ(m.next_seq_no, 0u);
        }
    }

    // A position at the length: NOTFOUND, the tile is abandoned.
    Positions past;
    make_positions(*this, past, {0, 1, n, 2});
    vel_seq_iterator_t m{};
    ASSERT_EQ(F::map(&this->obj, f.u, f.c, &m, &past.it), VEL_S_OK);
    EXPECT_EQ(m.next(&m), VEL_S_NOTFOUND);
    EXPECT_EQ(m.tile_size, 0);
    EXPECT_EQ(m.next_seq_no, 0u);

    // An empty field: set-up succeeds, the first position finds no page.
    Positions few;
    make_positions(*this, few, {0});
    const Field &empty = this->host->out[F::index];
    ASSERT_EQ(F::map(&this->obj, empty.u, empty.c, &m, &few.it), VEL_S_OK);
    EXPECT_EQ(m.next(&m), VEL_E_NOMEM);
}

// A positions iterator that delivers one empty tile, then ends.
VEL_RET empty_tile_next(vel_seq_iterator_h it) {
    if (it->next_seq_no++ > 0)
        return VEL_S_CURSOR_END;
    it->tile_size = 0;
    return VEL_S_OK;
}

TEST_F(HostTest, MapEdgesAndBindings) {
    const Field &f = host->seq[F_INT4];
    std::vector<vel_int4> v;
    for (int i = 0; i < 50; i++)
        v.push_back(i * 10);
    put<Fam_int4>(obj, f, v, VEL_SEQ_NO_ORDER);

    Positions p;
    make_positions(*this, p, {5, 3, 4});
    vel_seq_iterator_t m{}, m2{};
    ASSERT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m, &p.it), VEL_S_OK);

    // Bound operand: refused while bindings are checked, taken when not.
    EXPECT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m2, &p.it), VEL_E_SEQ_BOUNDED);
    vel_seq_check_bindings = 0;
    EXPECT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m2, &p.it), VEL_S_OK);
    EXPECT_EQ(p.it.bounded, 1);
    vel_seq_check_bindings = 1;
    ASSERT_EQ(m.reset(&m), VEL_S_OK); // unbinds
    EXPECT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m2, &p.it), VEL_S_OK);

    // Positions of another type: refused after the root was read.
    vel_seq_iterator_t ints{}, m3{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&obj, f.u, f.c, &ints, 0, 10), VEL_S_OK);
    vel_seq_page_t *root = ctx_of(ints)->stack[0].page;
    EXPECT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m3, &ints), VEL_E_ILLEGAL_TYPE);
    EXPECT_EQ(ctx_of(m3)->stack[0].page, root);
    EXPECT_EQ(m3.next, nullptr);
    EXPECT_EQ(ints.bounded, 0);

    // An empty positions tile gives an empty tile.
    vel_seq_iterator_t fake{}, m4{};
    fake.elem_type = VEL_DD_UINT8;
    fake.next = empty_tile_next;
    ASSERT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &m4, &fake), VEL_S_OK);
    m4.tile_size = 9;
    EXPECT_EQ(m4.next(&m4), VEL_S_OK);
    EXPECT_EQ(m4.tile_size, 0);
    EXPECT_EQ(m4.next(&m4), VEL_S_CURSOR_END);

    // The typed map adds its first_seq_no to each position; the char map
    // does not.
    const Field &cf = host->seq[F_CHAR8];
    std::vector<Char8> cv;
    for (int i = 0; i < 50; i++)
        cv.push_back(char8_of(i));
    put<Fam_char8>(obj, cf, cv, VEL_SEQ_NO_ORDER);
    Positions q1, q2;
    make_positions(*this, q1, {1, 2});
    make_positions(*this, q2, {1, 2});
    vel_seq_iterator_t ti{}, ci{};
    ASSERT_EQ(vel_w_seq_map_int4(&obj, f.u, f.c, &ti, &q1.it), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_map_char(&obj, cf.u, cf.c, &ci, &q2.it, 8), VEL_S_OK);
    EXPECT_EQ(ci.elem_type, VEL_DD_CHAR);
    EXPECT_EQ(ci.elem_size, 8);
    ti.first_seq_no = 10;
    ci.first_seq_no = 10;
    ASSERT_EQ(ti.next(&ti), VEL_S_OK);
    ASSERT_EQ(ci.next(&ci), VEL_S_OK);
    EXPECT_EQ(ti.tile.u.arr_int4[0], 110);
    EXPECT_EQ(ti.tile.u.arr_int4[1], 120);
    EXPECT_TRUE(std::memcmp(ci.tile.u.arr_char, char8_of(1).b, 8) == 0);
    EXPECT_TRUE(std::memcmp(ci.tile.u.arr_char + 8, char8_of(2).b, 8) == 0);
}

TEST_F(HostTest, ProjectTakesTheRemainingRange) {
    const Field &a = host->seq[F_INT4];
    const Field &b = host->seq[F_DOUBLE];
    std::vector<vel_int4> keys;
    std::vector<vel_double> prices;
    for (int i = 0; i < 400; i++) {
        keys.push_back(i / 2);
        prices.push_back(i * 0.5 + 1);
    }
    put<Fam_int4>(obj, a, keys, VEL_SEQ_ASC_ORDER);
    put<Fam_double>(obj, b, prices, VEL_SEQ_NO_ORDER, {20, 21});
    vel_seq_iterator_t s{}, d{};
    ASSERT_EQ(vel_w_seq_search_int4(&obj, a.u, a.c, &s, 10, VEL_SEQ_BOUNDARY_INCLUSIVE, 99,
                                    VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    const vel_seq_iterator_t before = s;
    ASSERT_EQ(vel_w_seq_project_double(&obj, b.u, b.c, &d, &s), VEL_S_OK);
    EXPECT_EQ(std::memcmp(&before, &s, sizeof s), 0) << "src is only read";
    EXPECT_EQ(d.first_seq_no, 20u);
    EXPECT_EQ(d.last_seq_no, 197u);
    EXPECT_EQ(d.elem_type, VEL_DD_DOUBLE);
    auto got = drain<Fam_double>(&d);
    ASSERT_EQ(got.vals.size(), 178u);
    EXPECT_EQ(got.vals[0], prices[20]);
    EXPECT_TRUE(got.nulls[0] && got.nulls[1] && !got.nulls[2]);

    // After part of src was read, only the rest is projected.
    ASSERT_EQ(s.next(&s), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_project_double(&obj, b.u, b.c, &d, &s), VEL_S_OK);
    EXPECT_EQ(d.first_seq_no, 148u);
    // src with an unbounded range runs to the end of the projected field.
    ASSERT_EQ(vel_w_seq_subseq_int4(&obj, a.u, a.c, &s, 390, kAll), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_project_double(&obj, b.u, b.c, &d, &s), VEL_S_OK);
    EXPECT_EQ(drain<Fam_double>(&d).vals.size(), 10u);
    // src beyond its end, or beyond the projected field: NOTFOUND.
    drain<Fam_int4>(&s);
    EXPECT_EQ(vel_w_seq_project_double(&obj, b.u, b.c, &d, &s), VEL_S_NOTFOUND);
    EXPECT_EQ(d.next(&d), VEL_S_CURSOR_END);
    s.next_seq_no = 10, s.last_seq_no = 5;
    EXPECT_EQ(vel_w_seq_project_double(&obj, b.u, b.c, &d, &s), VEL_S_NOTFOUND);
}

TYPED_TEST(FamilyTest, JoinThenMapAgainstLowerBound) {
    using F = TypeParam;
    using T = typename F::T;
    for (bool asc : {true, false}) {
        const uint64_t seed = asc ? 31 : 32;
        SCOPED_TRACE(seed_msg(seed) + (asc ? " ascending" : " descending"));
        std::mt19937_64 rng(seed);
        // Ordered char inner pages hold at most 21 keyed children at 512 bytes.
        const size_t n = F::is_char ? 1200 : 1500;
        std::vector<int64_t> raw(n);
        for (auto &x : raw)
            x = static_cast<int64_t>(rng() % 61) - 30;
        std::sort(raw.begin(), raw.end());
        if (!asc)
            std::reverse(raw.begin(), raw.end());
        std::vector<T> keys;
        for (auto x : raw)
            keys.push_back(F::make(x));
        std::vector<vel_double> side;
        for (size_t i = 0; i < n; i++)
            side.push_back(static_cast<double>(i) + 0.5);
        const vel_seq_order_t order = asc ? VEL_SEQ_ASC_ORDER : VEL_SEQ_DESC_ORDER;
        vel_objhandle_t o = this->host->create();
        const Field &kf = this->host->seq[F::index];
        const Field &sf = this->host->out[F_DOUBLE];
        this->template put<F>(o, kf, keys, order);
        this->template put<Fam_double>(o, sf, side, VEL_SEQ_NO_ORDER);

        // Values to look up, every one found (not after the field's end).
        std::vector<T> probes;
        for (int i = 0; i < 500; i++)
            probes.push_back(F::make(static_cast<int64_t>(rng() % 61) - 30));
        auto before = [asc](const T &a, const T &b) { return asc ? F::lt(a, b) : F::lt(b, a); };
        std::vector<uint64_t> want;
        for (const T &x : probes)
            want.push_back(static_cast<uint64_t>(
                std::lower_bound(keys.begin(), keys.end(), x, before) - keys.begin()));

        vel_objhandle_t q = this->host->create();
        const Field &pf = this->host->out[F::index];
        this->template put<F>(q, pf, probes, VEL_SEQ_NO_ORDER);

        // join alone
        vel_seq_iterator_t with{}, join{};
        ASSERT_EQ(F::subseq(&q, pf.u, pf.c, &with, 0, kAll), VEL_S_OK);
        ASSERT_EQ(F::join(&o, kf.u, kf.c, &join, &with, order), VEL_S_OK);
        EXPECT_EQ(join.elem_type, VEL_DD_UINT8);
        EXPECT_EQ(join.elem_size, 8);
        EXPECT_EQ(with.bounded, 1);
        auto got = drain<Fam_uint8>(&join);
        ASSERT_EQ(got.end, VEL_S_CURSOR_END);
        ASSERT_EQ(got.vals, std::vector<vel_uint8>(want.begin(), want.end()));
        for (bool b : got.nulls)
            ASSERT_FALSE(b);
        EXPECT_EQ(join.next_seq_no, probes.size());

        // join then map, twice (after a reset of the whole pipeline)
        ASSERT_EQ(join.reset(&join), VEL_S_OK);
        EXPECT_EQ(with.bounded, 0);
        ASSERT_EQ(F::join(&o, kf.u, kf.c, &join, &with, order), VEL_S_OK);
        vel_seq_iterator_t m{}, mk{};
        ASSERT_EQ(vel_w_seq_map_double(&o, sf.u, sf.c, &m, &join), VEL_S_OK);
        for (int pass = 0; pass < 2; pass++) {
            auto vals = drain<Fam_double>(&m);
            ASSERT_EQ(vals.end, VEL_S_CURSOR_END);
            ASSERT_EQ(vals.vals.size(), want.size());
            for (size_t i = 0; i < want.size(); i++)
                ASSERT_EQ(vals.vals[i], side[want[i]]) << "probe " << i;
            ASSERT_EQ(m.reset(&m), VEL_S_OK);
            EXPECT_EQ(join.bounded, 0);
            EXPECT_EQ(with.bounded, 0);
        }
        // mapping the joined field itself gives the first element not
        // before each probe
        ASSERT_EQ(F::map(&o, kf.u, kf.c, &mk, &join), VEL_S_OK);
        auto same = drain<F>(&mk);
        ASSERT_EQ(same.vals.size(), want.size());
        for (size_t i = 0; i < want.size(); i++)
            ASSERT_TRUE(F::eq(same.vals[i], keys[want[i]])) << i;

        // A value after every element: NOTFOUND from next.
        vel_objhandle_t r = this->host->create();
        this->template put<F>(r, pf, {F::make(0), F::make(asc ? 31 : -31)}, VEL_SEQ_NO_ORDER);
        vel_seq_iterator_t w2{}, j2{};
        ASSERT_EQ(F::subseq(&r, pf.u, pf.c, &w2, 0, kAll), VEL_S_OK);
        ASSERT_EQ(F::join(&o, kf.u, kf.c, &j2, &w2, order), VEL_S_OK);
        EXPECT_EQ(j2.next(&j2), VEL_S_NOTFOUND);
        EXPECT_EQ(j2.tile_size, 0);
    }
}

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

TEST_F(HostTest, JoinSetUpRules) {
    const Field &f = host->seq[F_INT4];
    put<Fam_int4>(obj, f, {10, 20, 20, 30}, VEL_SEQ_ASC_ORDER);
    vel_objhandle_t q = host->create();
    const Field &pf = host->out[F_INT4];
    put<Fam_int4>(q, pf, {5, 20, 25, 30}, VEL_SEQ_NO_ORDER);

    vel_seq_iterator_t with{}, join{}, join2{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&q, pf.u, pf.c, &with, 0, kAll), VEL_S_OK);
    // NO_ORDER is refused before the operand is bound.
    EXPECT_EQ(vel_w_seq_join_int4(&obj, f.u, f.c, &join, &with, VEL_SEQ_NO_ORDER),
              VEL_E_ILLEGAL_PARAM);
    EXPECT_EQ(with.bounded, 0);
    ASSERT_EQ(vel_w_seq_join_int4(&obj, f.u, f.c, &join, &with, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(vel_w_seq_join_int4(&obj, f.u, f.c, &join2, &with, VEL_SEQ_ASC_ORDER),
              VEL_E_SEQ_BOUNDED);
    vel_seq_check_bindings = 0;
    EXPECT_EQ(vel_w_seq_join_int4(&obj, f.u, f.c, &join2, &with, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    vel_seq_check_bindings = 1;

    // An empty field: NOTFOUND, the operand stays bound, a second join over
    // it is refused; the result has its slots but no range.
    vel_seq_iterator_t w3{}, j3{}, j4{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&q, pf.u, pf.c, &w3, 0, kAll), VEL_S_OK);
    j3.next_seq_no = 77;
    j3.last_seq_no = 78;
    const Field &empty = host->out[F_INT4];
    EXPECT_EQ(vel_w_seq_join_int4(&obj, empty.u, empty.c, &j3, &w3, VEL_SEQ_ASC_ORDER),
              VEL_S_NOTFOUND);
    EXPECT_EQ(w3.bounded, 1);
    EXPECT_EQ(j3.opd[0], &w3);
    EXPECT_NE(j3.next, nullptr);
    EXPECT_EQ(j3.elem_type, VEL_DD_UINT8);
    EXPECT_EQ(j3.next_seq_no, 77u);
    EXPECT_EQ(j3.last_seq_no, 78u);
    EXPECT_EQ(vel_w_seq_join_int4(&obj, empty.u, empty.c, &j4, &w3, VEL_SEQ_ASC_ORDER),
              VEL_E_SEQ_BOUNDED);

    // Every join result is a positions iterator, whatever the family.
    vel_seq_iterator_t wf{}, jf{};
    const Field &ff = host->seq[F_FLOAT];
    put<Fam_float>(obj, ff, {1.0f, 2.0f}, VEL_SEQ_ASC_ORDER);
    ASSERT_EQ(vel_w_seq_subseq_float(&obj, ff.u, ff.c, &wf, 0, 1), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_join_float(&obj, ff.u, ff.c, &jf, &wf, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(jf.elem_type, VEL_DD_UINT8);
}

// The char join reads the element width from join_with.
TEST_F(HostTest, JoinCharUsesOperandWidth) {
    const Field &f = host->seq[F_CHAR8];
    std::vector<Char8> v;
    for (int i = 0; i < 300; i++)
        v.push_back(char8_of(i / 3));
    put<Fam_char8>(obj, f, v, VEL_SEQ_ASC_ORDER);
    vel_objhandle_t q = host->create();
    const Field &pf = host->out[F_CHAR8];
    put<Fam_char8>(q, pf, {char8_of(7), char8_of(0), char8_of(99)}, VEL_SEQ_NO_ORDER);
    vel_seq_iterator_t with{}, join{};
    ASSERT_EQ(vel_w_seq_subseq_char(&q, pf.u, pf.c, &with, 0, kAll, 8), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_join_char(&obj, f.u, f.c, &join, &with, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(drain<Fam_uint8>(&join).vals, (std::vector<vel_uint8>{21, 0, 297}));

    // A char(4) field: the width comes from the operand (4), not from the
    // join's own 8-byte positions.
    const char four[] = "aaaabbbbbbbbccccdddd"; // aaaa bbbb bbbb cccc dddd
    ASSERT_EQ(vel_w_seq_append_char(&obj, host->chr4.u, host->chr4.c, host->chr4.no, four, 5,
                                    VEL_SEQ_ASC_ORDER, 4, nullptr),
              VEL_S_OK);
    const char probes4[] = "ccccbbbbaaaa";
    ASSERT_EQ(vel_w_seq_append_char(&q, host->chr4b.u, host->chr4b.c, host->chr4b.no, probes4, 3,
                                    VEL_SEQ_NO_ORDER, 4, nullptr),
              VEL_S_OK);
    vel_seq_iterator_t w4{}, j4{};
    ASSERT_EQ(vel_w_seq_subseq_char(&q, host->chr4b.u, host->chr4b.c, &w4, 0, kAll, 4), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_join_char(&obj, host->chr4.u, host->chr4.c, &j4, &w4, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    EXPECT_EQ(drain<Fam_uint8>(&j4).vals, (std::vector<vel_uint8>{3, 1, 0}));
}

} // namespace
} // namespace itest
