// Broken invariants reach the host's trap with VEL_ERR_SEQ, the source file
// and line, after the trace hook when bit 26 of its mask is set.
#include <functional>

#include <gtest/gtest.h>

#include "seq_fixture.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

namespace velrel {
namespace {

struct TraceCall {
    int severity, module, line;
    std::string file, text;
};
std::vector<TraceCall> g_trace;

void record_trace(int severity, int module, const char *file, int line, const char *text) {
    g_trace.push_back({severity, module, line, file, text});
}

// Each case damages a committed-looking tree (or asks for a root at a bad
// place) and names the source file whose check must trap.
TEST(Traps, BrokenInvariantsTrapWhereChecked) {
    const auto saved_cb = vel_trace_callback;
    const uint32_t saved_mask = vel_trace_modules_mask;
    vel_trace_callback = record_trace;
    vel_trace_modules_mask = saved_mask | (1u << 26);
    velh_set_trap_handler(throwing_trap, nullptr);
    auto env = must_open({.seq_page_size = 1024}, {{family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER}});
    vel_objhandle_t &obj = *env->obj();
    const Field f = env->field(0);
    auto fill = [&](size_t n) {
        std::vector<vel_int4> v(n, 1);
        ASSERT_EQ(f.append(v.data(), n), VEL_S_OK);
    };
    auto root = [&] {
        vel_seq_page_t *r = nullptr;
        EXPECT_EQ(f.root(&r), VEL_S_OK);
        return r;
    };
    // Runs `op`, which must trap in a file whose name ends with `file`.
    auto expect_trap = [](const std::function<void()> &op, const std::string &file) {
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
    };
    const vel_int4 v = 3;
    auto append = [&] { f.append(&v, 1); };
    auto insert = [&] { f.insert(0, &v, 1); };
    auto del = [&](vel_seq_no_t from) { return f.del(from, 20); };
    // The root reference at position d - 4 of an object page's data (4096-byte
    // pages, no host header): it would straddle two pages.
    const uint32_t d = 4096 - 24;
    const uint32_t at = obj.mo % d;
    const vel_offs32_t off = (d - 4 + d - at) % d;
    vel_seq_no_t count = 0;
    auto child = [&](bool last) { // 500 values: a root over leaves of 244, 244, 12
        fill(500);
        vel_seq_page_t *r = root();
        EXPECT_EQ(velseq::page_kind(r), velseq::kInnerPage);
        return velseq::inner_entry(r, 1024, last ? r->hdr.user - 1 : 0)->page;
    };
    struct Case {
        const char *name, *file;
        std::function<void()> damage, op;
    };
    const Case cases[] = {
        {"empty page on the append path", "append.h", [&] { child(true)->hdr.user = 0; }, append},
        {"empty page on the insert path", "insert.h", [&] { child(false)->hdr.user = 0; }, insert},
        {"empty page on the delete path", "delete.cpp", [&] { child(false)->hdr.user = 0; },
         [&] { del(0); }},
        {"leaf over capacity (244)", "append.h",
         [&] {
             fill(10);
             root()->hdr.user = 245;
         },
         append},
        // One past a root leaf's end deletes nothing; further traps (a taller
        // tree finds no child there and does nothing).
        {"delete from beyond a root leaf", "delete.cpp",
         [&] {
             fill(10);
             EXPECT_EQ(del(10), VEL_S_OK);
         },
         [&] { del(11); }},
        {"root straddling object pages (reader)", "field_root.cpp", [] {},
         [&] { vel_w_seq_count(&obj, off, off, &count); }},
        {"root straddling object pages (writer)", "field_root.cpp", [] {},
         [&] { vel_w_seq_truncate(&obj, off, off, f.l.fld_no); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        c.damage();
        expect_trap(c.op, c.file);
        ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    }
    // Without bit 26 in the mask the trace hook stays silent; the trap comes.
    fill(10);
    root()->hdr.user = 0;
    vel_trace_modules_mask &= ~(1u << 26);
    g_trace.clear();
    EXPECT_THROW(append(), TrapHit);
    EXPECT_TRUE(g_trace.empty());
    vel_trace_callback = saved_cb;
    vel_trace_modules_mask = saved_mask;
}

} // namespace
} // namespace velrel
