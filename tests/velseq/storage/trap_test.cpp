// Broken invariants reach the host's trap with VEL_ERR_SEQ, the source file
// and line, after the trace hook when bit 26 of its mask is set.
#include "test_util.h"

#include "storage/field_root.h"
#include "storage/page_format.h"

namespace vstest {
namespace {

struct TraceCall {
    int severity, module, line;
    std::string file, text;
};
std::vector<TraceCall> g_trace;

void record_trace(int severity, int module, const char *file, int line, const char *text) {
    g_trace.push_back({severity, module, line, file, text});
}

class Traps : public ::testing::Test {
  protected:
    void SetUp() override {
        g_trace.clear();
        saved_cb = vel_trace_callback;
        saved_mask = vel_trace_modules_mask;
        vel_trace_callback = record_trace;
        vel_trace_modules_mask = saved_mask | (1u << 26);
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        obj = sdb.new_object();
        f = sdb.field("int4");
    }
    void TearDown() override {
        sdb.rollback();
        vel_trace_callback = saved_cb;
        vel_trace_modules_mask = saved_mask;
    }

    void fill(size_t n) {
        std::vector<vel_int4> v(n, 1);
        ASSERT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v.data(), n,
                                        VEL_SEQ_NO_ORDER, nullptr),
                  VEL_S_OK);
    }
    vel_seq_page_t *root() {
        vel_seq_page_t *r = nullptr;
        EXPECT_EQ(vel_seq_get_root(&obj, f.u_offset, f.c_offset, &r), VEL_S_OK);
        return r;
    }

    // Runs `op`, which must trap in a file whose name ends with `file`.
    template <class Op> void expect_trap(Op op, const std::string &file) {
        g_trace.clear();
        try {
            op();
            ADD_FAILURE() << "no trap";
        } catch (const TrapHit &hit) {
            EXPECT_EQ(hit.code, VEL_ERR_SEQ);
            EXPECT_GT(hit.line, 0);
            EXPECT_TRUE(hit.file.size() >= file.size() &&
                        hit.file.compare(hit.file.size() - file.size(), file.size(), file) == 0)
                << hit.file;
            ASSERT_EQ(g_trace.size(), 1u);
            EXPECT_EQ(g_trace[0].severity, 0);
            EXPECT_EQ(g_trace[0].module, 26);
            EXPECT_EQ(g_trace[0].text, "VEL_STOP");
            EXPECT_EQ(g_trace[0].file, hit.file);
            EXPECT_EQ(g_trace[0].line, hit.line);
        }
    }

    SeqDb sdb{DbOptions{.seq_page_size = 1024}};
    vel_objhandle_t obj{};
    FieldRef f;
    void (*saved_cb)(int, int, const char *, int, const char *) = nullptr;
    uint32_t saved_mask = 0;
};

TEST_F(Traps, EmptyPageOnTheAppendPath) {
    fill(500); // root with two full leaves and one of 12
    vel_seq_page_t *r = root();
    ASSERT_EQ(velseq::page_kind(r), velseq::kInnerPage);
    velseq::inner_entry(r, 1024, r->hdr.user - 1)->page->hdr.user = 0;
    const vel_int4 v = 3;
    expect_trap(
        [&] {
            vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, &v, 1, VEL_SEQ_NO_ORDER,
                                  nullptr);
        },
        "append.h");
}

TEST_F(Traps, EmptyPageOnTheInsertAndDeletePaths) {
    fill(500);
    vel_seq_page_t *r = root();
    velseq::inner_entry(r, 1024, 0)->page->hdr.user = 0;
    const vel_int4 v = 3;
    expect_trap(
        [&] {
            vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 0, &v, 1,
                                  VEL_SEQ_NO_ORDER, nullptr);
        },
        "insert.h");
    expect_trap(
        [&] {
            vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 0, 0, VEL_SEQ_NO_ORDER);
        },
        "delete.cpp");
}

TEST_F(Traps, LeafOverCapacity) {
    fill(10);
    root()->hdr.user = 245; // capacity 244
    const vel_int4 v = 3;
    expect_trap(
        [&] {
            vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, &v, 1, VEL_SEQ_NO_ORDER,
                                  nullptr);
        },
        "append.h");
}

// Delete traps when `from` lies more than one past a root leaf's end; on a
// taller tree the same call finds no child and does nothing.
TEST_F(Traps, DeleteFromBeyondARootLeaf) {
    fill(10);
    EXPECT_EQ(
        vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 10, 20, VEL_SEQ_NO_ORDER),
        VEL_S_OK);
    expect_trap(
        [&] {
            vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 11, 20, VEL_SEQ_NO_ORDER);
        },
        "delete.cpp");
}

// A root reference that would straddle two object pages traps in the root
// fetch, for readers and writers alike.
TEST_F(Traps, RootStraddlingAnObjectPage) {
    const uint32_t d = static_cast<uint16_t>(sdb.options().object_page_size - 24);
    const uint32_t at = (obj.mo + sdb.options().additional_object_field_size) % d;
    const vel_offs32_t off = (d - 4 + d - at) % d; // position d - 4 within a page's data
    vel_seq_no_t c = 0;
    expect_trap([&] { vel_w_seq_count(&obj, off, off, &c); }, "field_root.cpp");
    expect_trap([&] { vel_w_seq_truncate(&obj, off, off, f.fld_no); }, "field_root.cpp");
}

TEST_F(Traps, TraceHookIsSilentWithoutItsMaskBit) {
    fill(10);
    root()->hdr.user = 0;
    vel_trace_modules_mask &= ~(1u << 26);
    g_trace.clear();
    vel_seq_no_t c = 0;
    const vel_int4 v = 3;
    try {
        vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, &v, 1, VEL_SEQ_NO_ORDER,
                              nullptr);
        ADD_FAILURE() << "no trap";
    } catch (const TrapHit &hit) {
        EXPECT_EQ(hit.code, VEL_ERR_SEQ);
    }
    EXPECT_TRUE(g_trace.empty());
    (void)c;
}

} // namespace
} // namespace vstest
