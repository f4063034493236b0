// Scans across objects against the real host: one sequence field of every
// object under a list or an index cursor, the object-class scan of a plain
// field, and fields ending exactly at an object page's end in both layouts.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "iter/iter_internal.h"
#include "seq_fixture.h"

namespace velrel {
namespace {

// Everything an iterator delivers until `next` stops: values (widened),
// tile sizes, null flags as positions in the whole scan.
struct Drained {
    std::vector<int64_t> vals;
    std::vector<int> tiles, nulls;
    VEL_RET end = VEL_S_OK;
};

Drained drain(vel_seq_iterator_t &it) {
    Drained d;
    while ((d.end = it.next(&it)) == VEL_S_OK) {
        d.tiles.push_back(it.tile_size);
        for (int i = 0; i < it.tile_size; i++) {
            if ((it.tile.null_bitmap[i / 64] >> (i % 64)) & 1)
                d.nulls.push_back(static_cast<int>(d.vals.size()));
            int64_t v = 0; // values are non-negative: the low bytes suffice
            std::memcpy(&v, it.tile.u.arr_char + static_cast<size_t>(i) * it.elem_size,
                        it.elem_size);
            d.vals.push_back(v);
        }
    }
    return d;
}

// Drains `it` twice, flags of garbage in its tile before each pass: each
// pass delivers `want`, and a reset between rewinds and unbinds it.
void expect_drains(vel_seq_iterator_t &it, const Drained &want) {
    for (int pass = 0; pass < 2; pass++) {
        it.tile.null_bitmap[0] = it.tile.null_bitmap[1] = ~vel_bitmap_word_t{0};
        Drained d = drain(it);
        EXPECT_EQ(d.end, VEL_S_CURSOR_END);
        EXPECT_EQ(d.vals, want.vals) << "pass " << pass;
        EXPECT_EQ(d.tiles, want.tiles) << "pass " << pass;
        EXPECT_EQ(d.nulls, want.nulls) << "pass " << pass;
        it.bounded = 1;
        EXPECT_EQ(it.reset(&it), VEL_S_OK);
        EXPECT_EQ(it.bounded + it.next_seq_no, 0u);
    }
}

std::vector<int64_t> run(std::vector<std::pair<int64_t, int>> pieces) {
    std::vector<int64_t> v;
    for (auto [base, n] : pieces)
        for (int i = 0; i < n; i++)
            v.push_back(base + i);
    return v;
}

// Objects in creation order, their tag the key: A (3, 128 values from 1000,
// null at 5), B (2, empty), C (1, 100 values from 5000, nulls at 10 and 50);
// read in a snapshot of their commit.
class CursorScan : public ::testing::Test {
  protected:
    void SetUp() override {
        add(0, 3, 128, 1000, {5});
        add(1, 2, 0, 0, {});
        add(2, 1, 100, 5000, {10, 50});
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
        ASSERT_EQ(rd.begin(), VEL_S_OK);
    }

    void add(int i, uint64_t id, int n, int base, std::vector<int> nulls) {
        ASSERT_EQ(velh_set(env->obj(i), env->tag_fld(), &id, sizeof id), VEL_S_OK);
        const std::vector<int64_t> v = run({{base, n}});
        vel_bitmap_word_t bm[2] = {0, 0};
        for (int k : nulls)
            bm[k / 64] |= vel_bitmap_word_t{1} << (k % 64);
        if (n > 0) {
            ASSERT_EQ(env->field(0, env->obj(i)).append(v.data(), n, bm), VEL_S_OK);
        }
    }

    // Scans the int8 field under `cur` twice (a reset rewinds the cursor);
    // the set-up ignores its cursor argument, the caller puts the cursor
    // into the context.
    void expect_scan(vel_cursor_h cur, const Drained &want) {
        vel_seq_iterator_t it{};
        velseq::iter_ctx(&it)->cursor = nullptr;
        const FieldLoc &l = env->loc(0);
        ASSERT_EQ(vel_w_seq_from_cursor_int8(tr, l.u, l.c, env->class_code(), &it, cur), VEL_S_OK);
        EXPECT_EQ(velseq::iter_ctx(&it)->cursor, nullptr);
        velseq::iter_ctx(&it)->cursor = cur;
        expect_drains(it, want);
    }

    std::unique_ptr<Env> env =
        must_open({.n_objects = 3}, {{family_of(VEL_DD_INT8), VEL_SEQ_NO_ORDER},
                                     {family_of(VEL_DD_UINT8), VEL_SEQ_NO_ORDER}});
    Reader rd{*env};
    vel_trans_h tr = &rd.con()->trans;
};

// A tile takes values of several objects; appending an object's run clears
// the null flags of the tile (so C's flags are lost behind A's head in key
// order), while A alone fills the first tile of the list scan.
TEST_F(CursorScan, ListCursorInCreationOrder) {
    vel_cursor_t cur;
    ASSERT_EQ(vel_w_list_cursor(tr, env->class_code(), &cur), VEL_S_OK);
    expect_scan(&cur, {run({{1000, 128}, {5000, 100}}), {128, 100}, {5, 138, 178}});
}

TEST_F(CursorScan, IndexCursorInKeyOrder) {
    vel_cursor_t cur;
    ASSERT_EQ(velh_index_cursor(rd.con(), env->class_code(), env->tag_fld(), &cur), VEL_S_OK);
    expect_scan(&cur, {run({{5000, 100}, {1000, 128}}), {128, 100}, {105}});
}

// A field empty in every object ends at once; over a class without objects
// the list cursor opens empty and a reset returns the cursor's own code.
TEST_F(CursorScan, EmptyFieldsAndEmptyClasses) {
    const velh_field_def_t x = {"x", VEL_DD_INT8, 0, 0};
    uint16_t none = 0;
    ASSERT_EQ(velh_class_define(env->db(), "none", &x, 1, 0, VELH_PM_INMEM, &none), VEL_S_OK);
    vel_cursor_t cur, empty;
    vel_seq_iterator_t it{}, scan{};
    ASSERT_EQ(vel_w_list_cursor(tr, env->class_code(), &cur), VEL_S_OK);
    const FieldLoc &e = env->loc(1); // empty in every object
    ASSERT_EQ(vel_w_seq_from_cursor_uint8(tr, e.u, e.c, env->class_code(), &it, &cur), VEL_S_OK);
    velseq::iter_ctx(&it)->cursor = &cur;
    EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(vel_w_list_cursor(tr, none, &empty), VEL_S_CURSOR_EMPTY);
    velseq::iter_ctx(&it)->cursor = &empty;
    EXPECT_EQ(it.reset(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(vel_w_seq_sequence_int8(tr, none, 0, &scan), VEL_S_OK);
    EXPECT_EQ(scan.next(&scan), VEL_S_CURSOR_END);
}

// A plain field and a sequence root that end exactly at the end of an
// object page, behind a 16-byte host header: the layout keeps them there,
// the object-class scan reads the plain field, and the root is usable by
// the module and the host.  The compact layout of the same class puts them
// elsewhere (widest first); every iterator must follow the class's layout.
// 300 objects: both scans span tiles, whose null flags they clear.
TEST(ObjectPageEnd, FieldsEndingAtThePageEndAreRead) {
    auto env = must_open({.additional_object_field_size = 16}, {});
    vel_trans_h tr = &env->con()->trans;
    const uint16_t d = 4096 - 24;
    const velh_field_def_t defs[] = {{"pad", VEL_DD_CHAR, static_cast<uint16_t>(d - 8 - 16), 0},
                                     {"x", VEL_DD_INT8, 0, 0},
                                     {"pad2", VEL_DD_CHAR, static_cast<uint16_t>(d - 8), 0},
                                     {"s", VEL_DD_SEQUENCE_INT8, 0, 0}};
    for (uint32_t flags : {0u, uint32_t{VEL_CLASS_COMPACT}}) {
        SCOPED_TRACE(flags);
        uint16_t cls = 0;
        ASSERT_EQ(velh_class_define(env->db(), flags ? "compact" : "edge", defs, 4, flags,
                                    VELH_PM_INMEM, &cls),
                  VEL_S_OK);
        velh_field_info_t x{}, s{};
        ASSERT_EQ(velh_field_info(env->db(), cls, 1, &x), VEL_S_OK);
        ASSERT_EQ(velh_field_info(env->db(), cls, 3, &s), VEL_S_OK);
        if (flags == 0) {
            EXPECT_EQ((x.offset + 16 + 8) % d, 0u);
            EXPECT_EQ((s.offset + 16 + 8) % d, 0u);
        } else {
            EXPECT_NE(s.c_offset, s.u_offset);
        }
        for (int64_t v = 100; v < 400; v++) {
            vel_objhandle_t o{};
            ASSERT_EQ(velh_obj_create(env->con(), cls, &o), VEL_S_OK);
            ASSERT_EQ(velh_set(&o, 1, &v, sizeof v), VEL_S_OK);
            ASSERT_EQ(vel_w_seq_append_int8(&o, s.u_offset, s.c_offset, s.fld_no, &v, 1,
                                            VEL_SEQ_NO_ORDER, nullptr),
                      VEL_S_OK);
            velh_tree_report_t rep{};
            EXPECT_EQ(velh_check_tree(&o, s.fld_no, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
            ASSERT_EQ(rep.elements, 1u) << "the root the host sees";
        }
        vel_seq_iterator_t plain{}, seq{};
        vel_cursor_t cur;
        ASSERT_EQ(vel_w_seq_sequence_int8(tr, cls, x.offset, &plain), VEL_S_OK);
        ASSERT_EQ(vel_w_list_cursor(tr, cls, &cur), VEL_S_OK);
        ASSERT_EQ(vel_w_seq_from_cursor_int8(tr, s.u_offset, s.c_offset, cls, &seq, nullptr),
                  VEL_S_OK);
        velseq::iter_ctx(&seq)->cursor = &cur;
        for (vel_seq_iterator_t *it : {&plain, &seq})
            expect_drains(*it, {run({{100, 300}}), {128, 128, 44}, {}});
        EXPECT_EQ(env->rollback_and_begin(), VEL_S_OK);
    }
}

} // namespace
} // namespace velrel
