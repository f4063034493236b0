// Object layouts: in both layouts every field is aligned at its absolute
// position, lies inside one object page and overlaps no other field.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "velembed.h"

namespace {

// Random classes on random page sizes and object headers; the page test
// takes the object's position (mo) as the module does.
TEST(LayoutProperty, RandomClassesKeepEveryInvariant) {
    std::mt19937 rng(20261122);
    const uint8_t scalars[] = {VEL_DD_UINT1, VEL_DD_UINT2,  VEL_DD_UINT4,   VEL_DD_UINT8,
                               VEL_DD_INT1,  VEL_DD_INT2,   VEL_DD_INT4,    VEL_DD_INT8,
                               VEL_DD_FLOAT, VEL_DD_DOUBLE, VEL_DD_DATETIME};
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.object_page_size = static_cast<uint16_t>(128 + 8 * (rng() % 64));
        cfg.additional_object_field_size = static_cast<uint16_t>(rng() % 40);
        const uint32_t d = cfg.object_page_size - 24u, afs = cfg.additional_object_field_size;
        velh_db_t *db;
        ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
        std::vector<velh_field_def_t> defs(1 + rng() % 30);
        for (auto &f : defs) {
            const uint32_t k = rng() % 14;
            if (k < 11)
                f = {nullptr, scalars[k], 0, 0};
            else if (k == 11)
                f = {nullptr, VEL_DD_CHAR, static_cast<uint16_t>(1 + rng() % 60), 0};
            else
                f = {nullptr, static_cast<uint8_t>(VEL_DD_SEQUENCE_UINT1 + rng() % 12), 0, 0};
            if (f.type == VEL_DD_SEQUENCE_CHAR)
                f.width = 5;
        }
        const uint16_t n = static_cast<uint16_t>(defs.size());
        uint16_t code;
        ASSERT_EQ(velh_class_define(db, "r", defs.data(), n, (rng() & 1) ? VEL_CLASS_COMPACT : 0,
                                    VELH_PM_INMEM, &code),
                  VEL_S_OK);
        vel_db_connection_h con;
        ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t obj;
        ASSERT_EQ(velh_obj_create(con, code, &obj), VEL_S_OK);
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
            for (size_t i = 1; i < spans.size(); ++i)
                EXPECT_LE(spans[i - 1].second, spans[i].first) << "overlap in layout " << layout;
        }
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
        ASSERT_EQ(velh_disconnect(con), VEL_S_OK);
        ASSERT_EQ(velh_db_close(db), VEL_S_OK);
    }
}

} // namespace
