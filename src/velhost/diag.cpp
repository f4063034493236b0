// Byte operations, trace data, the fatal trap and the names of the codes.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "host_internal.h"
#include "velembed.h"

namespace {

// The handler and its context are set together and read together.
std::mutex g_trap_mutex;
velh_trap_handler_t g_trap_handler = nullptr;
void *g_trap_ctx = nullptr;

struct CodeText {
    int code;
    const char *name;
    const char *sentence;
};

// Every code of velseq.h, with its name and what it means: the one table of
// them (velseq.hpp and the front ends print these).
const CodeText *find_code(int code) {
    static const CodeText table[] = {
        {VEL_S_OK, "VEL_S_OK", "success"},
        {VEL_S_OVERFLOW, "VEL_S_OVERFLOW", "a page overflowed into a new page (internal)"},
        {VEL_S_UNDERFLOW, "VEL_S_UNDERFLOW", "a page became empty and was freed (internal)"},
        {VEL_S_NOTFOUND, "VEL_S_NOTFOUND", "no element qualifies"},
        {VEL_S_CURSOR_END, "VEL_S_CURSOR_END", "the iterator or cursor is past its end"},
        {VEL_S_CURSOR_EMPTY, "VEL_S_CURSOR_EMPTY", "the class has no objects"},
        {VEL_E_NOMEM, "VEL_E_NOMEM", "out of pages, or a page reference is missing"},
        {VEL_E_ILLEGAL_TYPE, "VEL_E_ILLEGAL_TYPE", "an operand has the wrong element type"},
        {VEL_E_ILLEGAL_PARAM, "VEL_E_ILLEGAL_PARAM", "an argument is out of range for this field"},
        {VEL_E_SEQ_OUT_OF_ORDER, "VEL_E_SEQ_OUT_OF_ORDER",
         "the values break the field's declared order"},
        {VEL_E_SEQ_BOUNDED, "VEL_E_SEQ_BOUNDED",
         "the operand iterator is already bound to another one"},
        {VEL_E_SEQ_LENGTH_MISMATCH, "VEL_E_SEQ_LENGTH_MISMATCH",
         "two inputs that go together differ in length"},
        {VEL_E_SEQ_NULL_VALUE, "VEL_E_SEQ_NULL_VALUE",
         "a null where none is allowed, or the element is null"},
        {VEL_E_HOST_BAD_ARG, "VEL_E_HOST_BAD_ARG", "a null handle, a bad size or a bad definition"},
        {VEL_E_HOST_TRANS_CLOSED, "VEL_E_HOST_TRANS_CLOSED", "no transaction is open"},
        {VEL_E_HOST_READ_ONLY, "VEL_E_HOST_READ_ONLY",
         "a write in a read-only transaction or database"},
        {VEL_E_HOST_NO_CLASS, "VEL_E_HOST_NO_CLASS", "unknown class"},
        {VEL_E_HOST_NO_OBJECT, "VEL_E_HOST_NO_OBJECT", "unknown or deleted object"},
        {VEL_E_HOST_NO_FIELD, "VEL_E_HOST_NO_FIELD", "unknown field"},
        {VEL_E_HOST_WRONG_FIELD, "VEL_E_HOST_WRONG_FIELD",
         "the field is of another kind, type or class"},
        {VEL_E_HOST_CONFLICT, "VEL_E_HOST_CONFLICT", "another writer committed first"},
        {VEL_E_HOST_TRANS_ACTIVE, "VEL_E_HOST_TRANS_ACTIVE",
         "the connection already has a transaction"},
        {VEL_E_HOST_BUSY, "VEL_E_HOST_BUSY", "still in use"},
        {VEL_E_HOST_LAYOUT, "VEL_E_HOST_LAYOUT", "the class does not fit an object page"},
        {VEL_E_HOST_TRANS_FAILED, "VEL_E_HOST_TRANS_FAILED",
         "the transaction carried an earlier error and was rolled back"},
        {VEL_E_HOST_TREE_DEPTH, "VEL_E_HOST_TREE_DEPTH",
         "a sequence tree is deeper than the module can read"},
        {VEL_E_HOST_IO, "VEL_E_HOST_IO", "a file could not be created, read, written or flushed"},
        {VEL_E_HOST_BAD_IMAGE, "VEL_E_HOST_BAD_IMAGE",
         "the file is not a database image of this version, or a damaged one"},
        {VEL_E_HOST_BAD_LOG, "VEL_E_HOST_BAD_LOG",
         "the commit log is not one, belongs to another image, or is damaged before its end"},
        {VEL_ERR_SEQ, "VEL_ERR_SEQ",
         "the sequence module trapped on a corrupt page or a broken invariant"},
    };
    for (const CodeText &t : table)
        if (t.code == code)
            return &t;
    return nullptr;
}

} // namespace

extern "C" {

void (*vel_trace_callback)(int severity, int module, const char *file, int line,
                           const char *text) = nullptr;
uint32_t vel_trace_modules_mask = 0;

void *vel_memmove(void *dst, const void *src, size_t n) { return std::memmove(dst, src, n); }
int vel_memcmp(const void *a, const void *b, size_t n) { return std::memcmp(a, b, n); }

const char *vel_code_name(int code) {
    const CodeText *t = find_code(code);
    return t != nullptr ? t->name : nullptr;
}

const char *vel_code_text(int code) {
    const CodeText *t = find_code(code);
    return t != nullptr ? t->sentence : nullptr;
}

void velh_set_trap_handler(velh_trap_handler_t handler, void *ctx) {
    std::lock_guard<std::mutex> lock(g_trap_mutex);
    g_trap_handler = handler;
    g_trap_ctx = ctx;
}

// Not noexcept: a handler may throw to unwind out of the trap.
void vel_stop__(int code, const char *file, int line) {
    // A handler may unwind out of the module: whatever update was running
    // stopped half-way, so its transaction must not commit.
    velhost::doom(velhost::t_writing, VEL_E_HOST_TRANS_FAILED);
    velhost::t_writing = nullptr;
    velh_trap_handler_t handler;
    void *ctx;
    {
        std::lock_guard<std::mutex> lock(g_trap_mutex);
        handler = g_trap_handler;
        ctx = g_trap_ctx;
    }
    if (handler != nullptr)
        handler(code, file, line, ctx);
    std::fprintf(stderr, "velhost: fatal trap %d at %s:%d\n", code, file ? file : "?", line);
    std::fflush(stderr);
    std::abort();
}

} // extern "C"
