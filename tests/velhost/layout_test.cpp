// Object layouts: both offsets of every field, alignment, no field across an
// object page, additional_object_field_size, and scalar fields read back
// through the module's access path (vel_reading + vel_obj_pos at mo + offset).
#include <random>

#include "host_fixture.h"

namespace hosttest {
namespace {

struct Expect {
    uint32_t u, c;
};

class LayoutTest : public HostTest {
  protected:
    uint16_t define(const std::vector<velh_field_def_t> &f, uint32_t flags) {
        uint16_t code = 0;
        EXPECT_EQ(velh_class_define(db, "c", f.data(), static_cast<uint16_t>(f.size()), flags,
                                    VELH_PM_INMEM, &code),
                  VEL_S_OK);
        return code;
    }
    void expect_offsets(uint16_t code, const std::vector<Expect> &want) {
        for (uint16_t i = 0; i < want.size(); ++i) {
            velh_field_info_t fi;
            ASSERT_EQ(velh_field_info(db, code, i, &fi), VEL_S_OK);
            EXPECT_EQ(fi.u_offset, want[i].u) << "field " << i;
            EXPECT_EQ(fi.c_offset, want[i].c) << "field " << i;
        }
    }
};

const std::vector<velh_field_def_t> kMixed = {{"a", VEL_DD_INT1, 0},
                                              {"s", VEL_DD_SEQUENCE_INT8, 0},
                                              {"b", VEL_DD_INT4, 0},
                                              {"c", VEL_DD_CHAR, 3},
                                              {"d", VEL_DD_DOUBLE, 0}};

TEST_F(LayoutTest, FieldsMoveToTheNextObjectPage) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.object_page_size = 128; // 104 data bytes a page
    open(cfg);
    // x fills 100 bytes; y (8) would cross 104 and starts the second page.
    expect_offsets(define({{"x", VEL_DD_CHAR, 100}, {"y", VEL_DD_INT8, 0}}, 0),
                   {{0, 104}, {104, 0}});
    // A sequence root that ends exactly at the page end stays there.
    expect_offsets(define({{"x", VEL_DD_CHAR, 96}, {"s", VEL_DD_SEQUENCE_INT1, 0}}, 0),
                   {{0, 8}, {96, 0}});
    uint16_t code;
    velh_field_def_t wide = {"w", VEL_DD_CHAR, 105};
    EXPECT_EQ(velh_class_define(db, "w", &wide, 1, 0, VELH_PM_INMEM, &code), VEL_E_HOST_LAYOUT);
}

// The class table the module reads: header -> dictionary -> class entry.
uint32_t module_view_flags(vel_db_connection_h con, uint16_t code) {
    auto *hdr = con->db;
    auto *dict =
        reinterpret_cast<vel_dictionary_t *>(reinterpret_cast<char *>(hdr) + hdr->dict_offs);
    auto *table =
        reinterpret_cast<vel_class_info_t *>(reinterpret_cast<char *>(dict) + dict->v_class_info);
    return table[code].flags;
}

// Random classes on random page sizes and object headers: every field is
// aligned at its absolute position, lies inside one object page by the
// module's own test with the object's mo, overlaps no other field, and
// reads back through vel_obj_pos what velh_set wrote.
TEST(LayoutProperty, RandomClassesKeepEveryInvariant) {
    const uint32_t seed = 20261122;
    std::mt19937 rng(seed);
    const std::pair<uint8_t, uint16_t> scalars[] = {
        {VEL_DD_UINT1, 1}, {VEL_DD_UINT2, 2},  {VEL_DD_UINT4, 4},   {VEL_DD_UINT8, 8},
        {VEL_DD_INT1, 1},  {VEL_DD_INT2, 2},   {VEL_DD_INT4, 4},    {VEL_DD_INT8, 8},
        {VEL_DD_FLOAT, 4}, {VEL_DD_DOUBLE, 8}, {VEL_DD_DATETIME, 8}};
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " round " << round);
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.object_page_size = static_cast<uint16_t>(128 + 8 * (rng() % 64));
        cfg.additional_object_field_size = static_cast<uint16_t>(rng() % 40);
        velh_db_t *db;
        ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
        const uint32_t d = cfg.object_page_size - 24u;
        std::vector<velh_field_def_t> defs;
        const int n = 1 + static_cast<int>(rng() % 30);
        for (int i = 0; i < n; ++i) {
            int k = static_cast<int>(rng() % 14);
            if (k < 11)
                defs.push_back({nullptr, scalars[k].first, 0});
            else if (k == 11)
                defs.push_back({nullptr, VEL_DD_CHAR, static_cast<uint16_t>(1 + rng() % 60)});
            else
                defs.push_back({nullptr, static_cast<uint8_t>(VEL_DD_SEQUENCE_UINT1 + rng() % 12),
                                static_cast<uint16_t>(0)});
            if (defs.back().type == VEL_DD_SEQUENCE_CHAR)
                defs.back().width = 5;
        }
        const uint32_t flags = (rng() & 1) ? VEL_CLASS_COMPACT : 0;
        uint16_t code;
        ASSERT_EQ(velh_class_define(db, "r", defs.data(), static_cast<uint16_t>(n), flags,
                                    VELH_PM_INMEM, &code),
                  VEL_S_OK);
        vel_db_connection_h con;
        ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
        EXPECT_EQ(module_view_flags(con, code), flags);
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t obj;
        ASSERT_EQ(velh_obj_create(con, code, &obj), VEL_S_OK);
        const uint32_t afs = cfg.additional_object_field_size;
        for (int layout = 0; layout < 2; ++layout) {
            std::vector<std::pair<uint32_t, uint32_t>> spans;
            for (uint16_t i = 0; i < n; ++i) {
                velh_field_info_t fi;
                ASSERT_EQ(velh_field_info(db, code, i, &fi), VEL_S_OK);
                const uint32_t off = layout ? fi.c_offset : fi.u_offset;
                const bool seq = fi.type >= VEL_DD_SEQUENCE_UINT1;
                const uint32_t align = seq ? 8 : (fi.type == VEL_DD_CHAR ? 1 : fi.size);
                EXPECT_EQ((afs + off) % align, 0u) << "field " << i;
                EXPECT_LE((obj.mo + off + afs) % d + fi.size, d) << "field " << i;
                spans.emplace_back(off, off + fi.size);
            }
            std::sort(spans.begin(), spans.end());
            for (size_t i = 1; i < spans.size(); ++i) {
                EXPECT_LE(spans[i - 1].second, spans[i].first) << "overlap in layout " << layout;
            }
        }
        // Write every scalar, then read each back both ways.
        std::vector<std::vector<uint8_t>> vals(n);
        for (uint16_t i = 0; i < n; ++i) {
            velh_field_info_t fi;
            ASSERT_EQ(velh_field_info(db, code, i, &fi), VEL_S_OK);
            EXPECT_EQ(fi.offset, flags ? fi.c_offset : fi.u_offset);
            if (fi.type >= VEL_DD_SEQUENCE_UINT1)
                continue;
            uint16_t want = defs[i].width;
            for (auto [type, size] : scalars)
                want = type == fi.type ? size : want;
            EXPECT_EQ(fi.size, want) << "field " << i;
            vals[i].resize(fi.size);
            for (auto &b : vals[i])
                b = static_cast<uint8_t>(rng());
            ASSERT_EQ(velh_set(&obj, i, vals[i].data(), fi.size), VEL_S_OK);
        }
        VEL_WRK w;
        ASSERT_EQ(vel_reading(&obj, &w), 0);
        EXPECT_EQ(w.pagesize, cfg.object_page_size);
        EXPECT_EQ(w.class_code, code);
        for (uint16_t i = 0; i < n; ++i) {
            velh_field_info_t fi;
            ASSERT_EQ(velh_field_info(db, code, i, &fi), VEL_S_OK);
            auto *p = static_cast<uint8_t *>(vel_obj_pos(w.pobj, con, w.pm, obj.mo + fi.offset, 0));
            if (fi.type >= VEL_DD_SEQUENCE_UINT1) {
                uint64_t root;
                std::memcpy(&root, p, 8);
                EXPECT_EQ(root, 0u) << "a new object's sequences are empty";
                continue;
            }
            std::vector<uint8_t> got(fi.size);
            ASSERT_EQ(velh_get(&obj, i, got.data(), fi.size), VEL_S_OK);
            EXPECT_EQ(got, vals[i]) << "field " << i;
            EXPECT_EQ(std::memcmp(p, vals[i].data(), fi.size), 0) << "field " << i;
        }
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
        ASSERT_EQ(velh_disconnect(con), VEL_S_OK);
        ASSERT_EQ(velh_db_close(db), VEL_S_OK);
    }
}

} // namespace
} // namespace hosttest
