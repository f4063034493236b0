// A velhost database for the iterator tests: one class with two sequence
// fields per family (`seq` and `out`), a uint8 positions field and two
// scalar int4 fields (`num`, read by the object-class scan, and `key`,
// which orders the index cursor).  Small sequence pages (512 bytes) make
// trees of several levels and leaves of a few dozen to a few hundred
// elements.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "families.h"
#include "velembed.h"
#include "velhost.h"

namespace itest {

struct Field {
    vel_offs32_t u = 0;
    vel_offs32_t c = 0;
    uint16_t no = 0;
};

// A cursor lives in caller memory; this one is big enough for velhost's
// list and index cursors.
struct alignas(16) CursorMem {
    unsigned char bytes[512];
    vel_cursor_h get() { return reinterpret_cast<vel_cursor_h>(bytes); }
};

class Host {
  public:
    static constexpr int32_t kSeqPage = 512;

    explicit Host(bool compact = false);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    vel_db_connection_h con(int which = 0) const { return cons_[which]; }
    vel_trans_h trans(int which = 0) const { return &cons_[which]->trans; }
    void begin_write(int which = 0);
    void begin_read(int which = 0);
    void commit(int which = 0);
    velh_db_t *db() const { return db_; }

    // A new object of the class (inside a write transaction), opened.
    vel_objhandle_t create();
    // Reopens an object created earlier, in the connection's current transaction.
    vel_objhandle_t open(const vel_objhandle_t &obj, int which = 0);
    void set_int4(vel_objhandle_h obj, const Field &f, int32_t v);

    // Cursors over the class in `mem`: all objects, or by ascending `key`.
    VEL_RET open_list_cursor(CursorMem &mem, int which = 0);
    VEL_RET open_key_cursor(CursorMem &mem, int which = 0);

    // Sequence pages allocated and not freed.
    int64_t live_pages() const;

    uint16_t cls = 0;
    uint16_t cls_empty = 0; // a class that never gets objects
    Field seq[F_COUNT];
    Field out[F_COUNT];
    Field pos;
    Field chr4, chr4b; // char(4) sequences
    Field num;
    Field key;

  private:
    velh_db_t *db_ = nullptr;
    vel_db_connection_h cons_[2] = {nullptr, nullptr};
};

// Everything an iterator delivers from where it stands.
template <class F> struct Drained {
    std::vector<typename F::T> vals;
    std::vector<bool> nulls;
    std::vector<int> tiles; // tile sizes, in order
    VEL_RET end = VEL_S_OK; // the code that stopped the drain
};

template <class F> Drained<F> drain(vel_seq_iterator_h it, int max_tiles = 100000) {
    Drained<F> d;
    for (int t = 0; t < max_tiles; t++) {
        VEL_RET rc = it->next(it);
        if (rc != VEL_S_OK) {
            d.end = rc;
            return d;
        }
        d.tiles.push_back(it->tile_size);
        const auto *v = F::tile(it);
        for (int i = 0; i < it->tile_size; i++) {
            d.vals.push_back(v[i]);
            d.nulls.push_back(((it->tile.null_bitmap[i / 64] >> (i % 64)) & 1) != 0);
        }
    }
    d.end = VEL_S_OK;
    return d;
}

// A null bitmap with the given positions set.
inline std::vector<vel_bitmap_word_t> bitmap_of(size_t n, const std::vector<size_t> &null_at) {
    std::vector<vel_bitmap_word_t> bm((n + 63) / 64 + 1, 0);
    for (size_t i : null_at)
        bm[i / 64] |= vel_bitmap_word_t{1} << (i % 64);
    return bm;
}

} // namespace itest

namespace itest {

inline vel_seq_iterator_context_t *ctx_of(vel_seq_iterator_t &it) {
    return reinterpret_cast<vel_seq_iterator_context_t *>(it.context);
}

// One database and one object, in an open write transaction.
class HostTest : public ::testing::Test {
  public:
    void SetUp() override {
        host = std::make_unique<Host>();
        host->begin_write();
        obj = host->create();
    }
    void TearDown() override {
        if (host)
            host->commit();
    }

    // Appends `vals` (with nulls where given) to field `f` of `o`.
    template <class F>
    void put(vel_objhandle_t &o, const Field &f, const std::vector<typename F::T> &vals,
             vel_seq_order_t order, const std::vector<size_t> &null_at = {}) {
        std::vector<vel_bitmap_word_t> bm = bitmap_of(vals.size(), null_at);
        ASSERT_EQ(F::append(&o, f.u, f.c, f.no, vals.data(), vals.size(), order,
                            null_at.empty() ? nullptr : bm.data()),
                  VEL_S_OK);
    }

    std::unique_ptr<Host> host;
    vel_objhandle_t obj{};
};

} // namespace itest

namespace itest {

// A database without the default object; tests manage transactions.
class BareHostTest : public HostTest {
  public:
    void SetUp() override {
        host = std::make_unique<Host>();
        host->begin_write();
    }
};

} // namespace itest
