// Scans across objects: the object-class scan of a plain field, and one
// sequence field of every object under a list or an index cursor.
#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

TEST_F(BareHostTest, ObjectClassScanOf300Objects) {
    for (int i = 0; i < 300; i++) {
        vel_objhandle_t o = host->create();
        host->set_int4(&o, host->num, i * 7 - 100);
    }
    host->commit();
    host->begin_read();

    vel_seq_iterator_t it{};
    ASSERT_EQ(vel_w_seq_sequence_int4(host->trans(), host->cls, host->num.u, &it), VEL_S_OK);
    EXPECT_EQ(it.elem_type, VEL_DD_INT4);
    EXPECT_EQ(it.elem_size, 4);
    EXPECT_EQ(it.last_seq_no, kAll);
    for (int pass = 0; pass < 2; pass++) {
        SCOPED_TRACE(pass == 0 ? "first pass" : "after reset");
        std::vector<int> tiles;
        int k = 0;
        for (;;) {
            it.tile.null_bitmap[0] = it.tile.null_bitmap[1] = ~vel_bitmap_word_t{0};
            VEL_RET rc = it.next(&it);
            if (rc != VEL_S_OK) {
                EXPECT_EQ(rc, VEL_S_CURSOR_END);
                break;
            }
            tiles.push_back(it.tile_size);
            EXPECT_EQ(it.tile.null_bitmap[0], 0u);
            EXPECT_EQ(it.tile.null_bitmap[1], 0u);
            for (int i = 0; i < it.tile_size; i++, k++)
                ASSERT_EQ(it.tile.u.arr_int4[i], k * 7 - 100) << "object " << k;
        }
        EXPECT_EQ(tiles, (std::vector<int>{128, 128, 44}));
        EXPECT_EQ(it.next_seq_no, 300u);
        EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
        EXPECT_EQ(it.reset(&it), VEL_S_OK);
        EXPECT_EQ(it.next_seq_no, 0u);
    }

    // A class without objects: set-up succeeds, next gives the cursor's end.
    vel_seq_iterator_t none{};
    EXPECT_EQ(vel_w_seq_sequence_int4(host->trans(), host->cls_empty, 0, &none), VEL_S_OK);
    EXPECT_EQ(none.next(&none), VEL_S_CURSOR_END);
}

// Objects in creation order: A (key 3, 100 elements), B (key 2, none),
// C (key 1, 100 elements).  Nulls: A's element 5, C's elements 10 and 50.
class FromCursorTest : public BareHostTest {
  public:
    void SetUp() override {
        BareHostTest::SetUp();
        const Field &f = host->seq[F_INT4];
        auto make = [&](int key, int n, int base, std::vector<size_t> nulls) {
            vel_objhandle_t o = host->create();
            host->set_int4(&o, host->key, key);
            std::vector<vel_int4> v;
            for (int i = 0; i < n; i++)
                v.push_back(base + i);
            if (n > 0)
                put<Fam_int4>(o, f, v, VEL_SEQ_NO_ORDER, nulls);
        };
        make(3, 100, 1000, {5});
        make(2, 0, 0, {});
        make(1, 100, 5000, {10, 50});
        host->commit();
        host->begin_read();
    }

    // Scans field `f` under `cursor` to the end; values, tiles, null slots.
    void scan(vel_seq_iterator_t &it, std::vector<vel_int4> &vals, std::vector<int> &tiles,
              std::vector<int> &null_slots) {
        for (;;) {
            VEL_RET rc = it.next(&it);
            if (rc != VEL_S_OK) {
                ASSERT_EQ(rc, VEL_S_CURSOR_END);
                return;
            }
            tiles.push_back(it.tile_size);
            for (int i = 0; i < it.tile_size; i++) {
                vals.push_back(it.tile.u.arr_int4[i]);
                if ((it.tile.null_bitmap[i / 64] >> (i % 64)) & 1)
                    null_slots.push_back(static_cast<int>(vals.size()) - 1);
            }
        }
    }

    void setup_scan(vel_seq_iterator_t &it, const Field &f, vel_cursor_h cursor) {
        auto *ctx = ctx_of(it);
        auto *sentinel = reinterpret_cast<vel_cursor_h>(&it); // any recognisable pointer
        ctx->cursor = sentinel;
        CursorMem other;
        ASSERT_EQ(vel_w_seq_from_cursor_int4(host->trans(), f.u, f.c, host->cls, &it, other.get()),
                  VEL_S_OK);
        EXPECT_EQ(ctx->cursor, sentinel) << "the cursor argument is not recorded";
        EXPECT_EQ(it.elem_type, VEL_DD_INT4);
        EXPECT_EQ(it.last_seq_no, kAll);
        ctx->cursor = cursor;
    }

    void check_order(vel_cursor_h cursor, int first_base, int second_base,
                     std::vector<int> want_nulls) {
        vel_seq_iterator_t it{};
        setup_scan(it, host->seq[F_INT4], cursor);
        for (int pass = 0; pass < 2; pass++) {
            SCOPED_TRACE(pass == 0 ? "first pass" : "after reset");
            std::vector<vel_int4> vals;
            std::vector<int> tiles, nulls;
            scan(it, vals, tiles, nulls);
            EXPECT_EQ(tiles, (std::vector<int>{128, 72}));
            ASSERT_EQ(vals.size(), 200u);
            for (int i = 0; i < 100; i++) {
                ASSERT_EQ(vals[i], first_base + i);
                ASSERT_EQ(vals[100 + i], second_base + i);
            }
            EXPECT_EQ(nulls, want_nulls);
            EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
            EXPECT_EQ(it.reset(&it), VEL_S_OK);
        }
    }
};

// The first object's null flag shares a tile with the third object's head
// and is lost (each tile append clears the tile's whole null bitmap); the
// third object's own flags survive.
TEST_F(FromCursorTest, ListCursorInCreationOrder) {
    CursorMem mem;
    ASSERT_EQ(host->open_list_cursor(mem), VEL_S_OK);
    // A: 0..99 (null 5, lost), C: 100..199 (nulls 110 and 150).
    check_order(mem.get(), 1000, 5000, {110, 150});

    // The cursor reset unbinds, like every reset: a positions scan across
    // objects can feed a new map after its consumer was reset.
    vel_seq_iterator_t scan{};
    ASSERT_EQ(vel_w_seq_from_cursor_uint8(host->trans(), host->pos.u, host->pos.c, host->cls, &scan,
                                          nullptr),
              VEL_S_OK);
    EXPECT_EQ(scan.elem_type, VEL_DD_UINT8);
    ctx_of(scan)->cursor = mem.get();
    scan.bounded = 1;
    EXPECT_EQ(scan.reset(&scan), VEL_S_OK);
    EXPECT_EQ(scan.bounded, 0);
    EXPECT_EQ(scan.next(&scan), VEL_S_CURSOR_END) << "no object has positions";
}

TEST_F(FromCursorTest, IndexCursorInKeyOrder) {
    CursorMem mem;
    ASSERT_EQ(host->open_key_cursor(mem), VEL_S_OK);
    // C first: nulls 10 (lost: A's run comes after it in the tile) and 50
    // (likewise lost); A: 100..199, null at 105 survives.
    check_order(mem.get(), 5000, 1000, {105});
}

TEST_F(FromCursorTest, EmptyFieldsAndEmptyCursors) {
    // Every object's field empty.
    CursorMem mem;
    ASSERT_EQ(host->open_list_cursor(mem), VEL_S_OK);
    vel_seq_iterator_t it{};
    setup_scan(it, host->out[F_INT4], mem.get());
    EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(it.next_seq_no, 0u);

    // An index cursor over a class without objects.
    CursorMem none;
    ASSERT_EQ(velh_index_cursor(host->con(), host->cls_empty, 0, none.get()), VEL_S_OK);
    vel_seq_iterator_t e{};
    ASSERT_EQ(vel_w_seq_from_cursor_int4(host->trans(), host->seq[F_INT4].u, host->seq[F_INT4].c,
                                         host->cls_empty, &e, nullptr),
              VEL_S_OK);
    ctx_of(e)->cursor = none.get();
    EXPECT_EQ(e.next(&e), VEL_S_CURSOR_END);

    // A list cursor over a class without objects.
    CursorMem lnone;
    EXPECT_EQ(vel_w_list_cursor(host->trans(), host->cls_empty, lnone.get()), VEL_S_CURSOR_EMPTY);
    ctx_of(e)->cursor = lnone.get();
    EXPECT_EQ(e.reset(&e), VEL_S_CURSOR_END) << "reset returns the cursor's own code";
    EXPECT_EQ(e.next(&e), VEL_S_CURSOR_END);
}

TEST_F(BareHostTest, FromCursorFullTileObject) {
    const Field &f = host->seq[F_DOUBLE];
    std::vector<vel_double> v128(128), v5(5);
    for (int i = 0; i < 128; i++)
        v128[i] = i;
    for (int i = 0; i < 5; i++)
        v5[i] = 1000 + i;
    vel_objhandle_t a = host->create();
    put<Fam_double>(a, f, v128, VEL_SEQ_ASC_ORDER);
    vel_objhandle_t b = host->create();
    put<Fam_double>(b, f, v5, VEL_SEQ_ASC_ORDER);
    host->commit();
    host->begin_read();
    CursorMem mem;
    ASSERT_EQ(host->open_list_cursor(mem), VEL_S_OK);
    vel_seq_iterator_t it{};
    ASSERT_EQ(vel_w_seq_from_cursor_double(host->trans(), f.u, f.c, host->cls, &it, mem.get()),
              VEL_S_OK);
    ctx_of(it)->cursor = mem.get();
    auto d = drain<Fam_double>(&it);
    EXPECT_EQ(d.end, VEL_S_CURSOR_END);
    EXPECT_EQ(d.tiles, (std::vector<int>{128, 5}));
    ASSERT_EQ(d.vals.size(), 133u);
    EXPECT_EQ(d.vals[127], 127.0);
    EXPECT_EQ(d.vals[128], 1000.0);
    EXPECT_EQ(it.next_seq_no, 133u);
}

} // namespace
} // namespace itest

namespace itest {
namespace {

// In a compact class the iterators find each field through its compact
// offset; the object-class scan reads at the offset it is given.
TEST(CompactLayout, IteratorsUseTheClassLayout) {
    Host host(/*compact=*/true);
    ASSERT_NE(host.seq[F_INT2].u, host.seq[F_INT2].c);
    host.begin_write();
    std::vector<vel_objhandle_t> objs;
    for (int k = 0; k < 3; k++) {
        vel_objhandle_t o = host.create();
        host.set_int4(&o, host.num, 40 + k);
        std::vector<vel_int2> v;
        for (int i = 0; i < 90; i++)
            v.push_back(static_cast<vel_int2>(k * 1000 + i));
        const Field &f = host.seq[F_INT2];
        ASSERT_EQ(vel_w_seq_append_int2(&o, f.u, f.c, f.no, v.data(), v.size(), VEL_SEQ_ASC_ORDER,
                                        nullptr),
                  VEL_S_OK);
        objs.push_back(o);
    }
    host.commit();
    host.begin_read();
    const Field &f = host.seq[F_INT2];
    vel_objhandle_t o = host.open(objs[1]);
    vel_seq_iterator_t it{};
    ASSERT_EQ(vel_w_seq_search_int2(&o, f.u, f.c, &it, 1010, VEL_SEQ_BOUNDARY_INCLUSIVE, 1020,
                                    VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    auto d = drain<Fam_int2>(&it);
    ASSERT_EQ(d.vals.size(), 10u);
    EXPECT_EQ(d.vals[0], 1010);

    CursorMem mem;
    ASSERT_EQ(host.open_list_cursor(mem), VEL_S_OK);
    vel_seq_iterator_t all{};
    ASSERT_EQ(vel_w_seq_from_cursor_int2(host.trans(), f.u, f.c, host.cls, &all, nullptr),
              VEL_S_OK);
    ctx_of(all)->cursor = mem.get();
    auto every = drain<Fam_int2>(&all);
    ASSERT_EQ(every.vals.size(), 270u);
    EXPECT_EQ(every.vals[90], 1000);
    EXPECT_EQ(every.vals[269], 2089);

    vel_seq_iterator_t nums{};
    ASSERT_EQ(vel_w_seq_sequence_int4(host.trans(), host.cls, host.num.c, &nums), VEL_S_OK);
    auto n = drain<Fam_int4>(&nums);
    EXPECT_EQ(n.vals, (std::vector<vel_int4>{40, 41, 42}));
    host.commit();
}

} // namespace
} // namespace itest

namespace itest {
namespace {

// A plain field and a sequence root that end exactly at the end of an
// object page, behind a 16-byte host header: the layout keeps them there,
// the object-class scan reads the plain field and the root is usable.  The
// compact layout of the same class puts them elsewhere (widest first), and
// the module must follow the class's layout.
TEST(ObjectPageEnd, FieldsEndingAtThePageEndAreRead) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.additional_object_field_size = 16;
    velh_db_t *db = nullptr;
    ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
    const uint16_t d = cfg.object_page_size - 24;
    const velh_field_def_t defs[] = {{"pad", VEL_DD_CHAR, static_cast<uint16_t>(d - 8 - 16)},
                                     {"x", VEL_DD_INT8, 0},
                                     {"pad2", VEL_DD_CHAR, static_cast<uint16_t>(d - 8)},
                                     {"s", VEL_DD_SEQUENCE_INT8, 0}};
    vel_db_connection_h con = nullptr;
    ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
    for (uint32_t flags : {0u, uint32_t{VEL_CLASS_COMPACT}}) {
        SCOPED_TRACE(flags);
        uint16_t cls = 0;
        ASSERT_EQ(
            velh_class_define(db, flags ? "compact" : "edge", defs, 4, flags, VELH_PM_INMEM, &cls),
            VEL_S_OK);
        velh_field_info_t x{}, s{};
        ASSERT_EQ(velh_field_info(db, cls, 1, &x), VEL_S_OK);
        ASSERT_EQ(velh_field_info(db, cls, 3, &s), VEL_S_OK);
        if (flags == 0) {
            EXPECT_EQ((x.offset + 16 + 8) % d, 0u);
            EXPECT_EQ((s.offset + 16 + 8) % d, 0u);
        } else {
            EXPECT_NE(s.c_offset, s.u_offset);
        }
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        for (int64_t i = 0; i < 3; i++) {
            vel_objhandle_t o{};
            ASSERT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
            const int64_t v = 100 + i;
            ASSERT_EQ(velh_set(&o, 1, &v, sizeof v), VEL_S_OK);
            ASSERT_EQ(vel_w_seq_append_int8(&o, s.u_offset, s.c_offset, s.fld_no, &v, 1,
                                            VEL_SEQ_NO_ORDER, nullptr),
                      VEL_S_OK);
            vel_seq_no_t n = 0;
            EXPECT_EQ(vel_w_seq_count(&o, s.u_offset, s.c_offset, &n), VEL_S_OK);
            EXPECT_EQ(n, 1u);
            velh_tree_report_t rep{};
            EXPECT_EQ(velh_check_tree(&o, s.fld_no, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
            EXPECT_EQ(rep.elements, 1u) << "the root the host sees";
        }
        vel_seq_iterator_t it{};
        ASSERT_EQ(vel_w_seq_sequence_int8(&con->trans, cls, x.offset, &it), VEL_S_OK);
        ASSERT_EQ(it.next(&it), VEL_S_OK);
        ASSERT_EQ(it.tile_size, 3);
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(it.tile.u.arr_int8[i], 100 + i);
        EXPECT_EQ(velh_rollback(con), VEL_S_OK);
    }
    EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
    EXPECT_EQ(velh_db_close(db), VEL_S_OK);
}

} // namespace
} // namespace itest
