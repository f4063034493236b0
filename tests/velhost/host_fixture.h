// Shared set-up of the velhost tests: a database, a connection, and helpers
// that build small sequence page trees by hand through the page services,
// the way the sequence module does.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "velembed.h"

namespace hosttest {

class HostTest : public ::testing::Test {
  protected:
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;

    void open(const velh_config_t &cfg) {
        ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
        ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
    }
    // 256-byte sequence pages: 61 int4 values a leaf.
    void open_default(vel_bool concurrent = 0) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.seq_page_size = 256;
        cfg.concurrent_write_transactions = concurrent;
        open(cfg);
    }
    void TearDown() override {
        if (con != nullptr) {
            EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
        }
        if (db != nullptr) {
            EXPECT_EQ(velh_db_close(db), VEL_S_OK);
        }
    }

    uint64_t live_pages(int pm = VELH_PM_ALL) {
        velh_page_stats_t s;
        EXPECT_EQ(velh_page_stats(db, pm, &s), VEL_S_OK);
        return s.live;
    }

    // A class {int4 id; sequence of int4 values} in the given page manager.
    uint16_t seq_class(int pm = VELH_PM_INMEM, uint32_t flags = 0) {
        velh_field_def_t f[] = {{"id", VEL_DD_INT4, 0}, {"vals", VEL_DD_SEQUENCE_INT4, 0}};
        uint16_t code = 0;
        EXPECT_EQ(velh_class_define(db, "series", f, 2, flags, pm, &code), VEL_S_OK);
        return code;
    }
};

inline int32_t page_size_of(vel_db_connection_h con, vel_page_manager_t *pm) {
    return pm->large_page_size(con);
}

inline vel_seq_node_t *entry(vel_seq_page_t *pg, int32_t ps, int i) {
    return reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<char *>(pg) + ps - 16 * (i + 1));
}

// The int4 values (or keys) of a page; the page's own array is nominal.
inline int32_t *vals4(vel_seq_page_t *pg) {
    return reinterpret_cast<int32_t *>(reinterpret_cast<char *>(pg) + 8);
}

// Leaf capacity of 4-byte elements: value bytes plus one null bit each.
inline int leaf_cap4(int32_t ps) { return (8 * ps - 127) / 33; }

inline uint64_t *leaf_nulls4(vel_seq_page_t *pg, int32_t ps) {
    int words = (leaf_cap4(ps) + 63) / 64;
    return reinterpret_cast<uint64_t *>(reinterpret_cast<char *>(pg) + ps - 8 * words);
}

// Address of the root slot of a sequence field for writing (write access
// stays open; the host has no nesting to close).
inline vel_seq_page_t **root_for_write(vel_objhandle_t &obj, const velh_field_info_t &fi) {
    VEL_WRK w;
    if (vel_writing(&obj, &w, 0, fi.fld_no) != 0)
        return nullptr;
    auto **slot =
        static_cast<vel_seq_page_t **>(vel_obj_pos(w.pobj, obj.con, w.pm, obj.mo + fi.offset, 1));
    vel_end_writing(&obj, &w);
    return slot;
}

inline vel_seq_page_t *root_for_read(vel_objhandle_t &obj, const velh_field_info_t &fi) {
    VEL_WRK w;
    if (vel_reading(&obj, &w) != 0)
        return nullptr;
    vel_seq_page_t *root;
    std::memcpy(&root, vel_obj_pos(w.pobj, obj.con, w.pm, obj.mo + fi.offset, 0), sizeof root);
    return root;
}

// Builds an int4 tree in the field: one leaf per entry of `leaves` (its value
// count), under one inner root when there are several; values count up from
// `first`.  Returns VEL_S_OK or the first failing code.
inline VEL_RET build_tree(vel_objhandle_t &obj, const velh_field_info_t &fi,
                          const std::vector<int> &leaves, int32_t first) {
    vel_seq_page_t **slot = root_for_write(obj, fi);
    if (slot == nullptr)
        return VEL_E_HOST_BAD_ARG;
    const int32_t ps = page_size_of(obj.con, obj.pm);
    vel_seq_page_t *root = nullptr, *scratch = nullptr;
    if (leaves.size() > 1) {
        VEL_RET r = vel_seq_create_page(obj.con, obj.pm, &root, &scratch, 2);
        if (r != VEL_S_OK)
            return r;
        root->hdr.user = static_cast<uint16_t>(leaves.size());
    }
    int32_t v = first;
    for (size_t i = 0; i < leaves.size(); ++i) {
        vel_seq_page_t *leaf;
        VEL_RET r = vel_seq_create_page(obj.con, obj.pm, &leaf, &scratch, 3);
        if (r != VEL_S_OK)
            return r;
        leaf->hdr.user = static_cast<uint16_t>(leaves[i]);
        for (int k = 0; k < leaves[i]; ++k)
            vals4(leaf)[k] = v++;
        std::memset(leaf_nulls4(leaf, ps), 0, 8 * ((leaf_cap4(ps) + 63) / 64));
        if (root != nullptr) {
            entry(root, ps, static_cast<int>(i))->page = leaf;
            entry(root, ps, static_cast<int>(i))->count = static_cast<uint64_t>(leaves[i]);
        } else {
            root = leaf;
        }
    }
    *slot = root;
    return VEL_S_OK;
}

// Values of an int4 tree in order (any depth).
inline void collect(vel_seq_page_t *pg, int32_t ps, std::vector<int32_t> &out) {
    if (pg == nullptr)
        return;
    if ((pg->hdr.kind & 15) == 3) {
        for (int k = 0; k < pg->hdr.user; ++k)
            out.push_back(vals4(pg)[k]);
        return;
    }
    for (int i = 0; i < pg->hdr.user; ++i)
        collect(entry(pg, ps, i)->page, ps, out);
}

inline std::vector<int32_t> read_values(vel_objhandle_t &obj, const velh_field_info_t &fi) {
    std::vector<int32_t> out;
    collect(root_for_read(obj, fi), page_size_of(obj.con, obj.pm), out);
    return out;
}

// Copy-on-write of one page reference, following the module's protocol:
// create, copy all bytes, then under the lock release the source, reset the
// copy's count and add a reference to each child of an inner copy.
inline VEL_RET cow(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **pp) {
    vel_seq_page_t *src = *pp;
    if (src == nullptr || !vel_seq_is_copy(con, pm, src, src))
        return VEL_S_OK;
    const int32_t ps = page_size_of(con, pm);
    vel_seq_page_t *copy;
    VEL_RET r = vel_seq_create_page(con, pm, &copy, pp, src->hdr.kind & 15);
    if (r != VEL_S_OK)
        return r;
    std::memcpy(copy, src, static_cast<size_t>(ps));
    vel_seq_lock_cow_bitmap(con, pm);
    int32_t count = 0;
    EXPECT_EQ(vel_seq_decrement_ref_count(con, pm, src, &count), VEL_S_OK);
    EXPECT_GT(count, 0);
    vel_seq_init_ref_count(con, pm, copy, copy);
    if ((copy->hdr.kind & 15) == 2) {
        for (int i = 0; i < copy->hdr.user; ++i)
            EXPECT_EQ(vel_seq_increment_ref_count(con, pm, entry(copy, ps, i)->page), VEL_S_OK);
    }
    vel_seq_unlock_cow_bitmap(con, pm);
    return VEL_S_OK;
}

} // namespace hosttest
