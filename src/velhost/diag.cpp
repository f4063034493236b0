// Byte operations, trace data and the fatal trap.
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

} // namespace

extern "C" {

void (*vel_trace_callback)(int severity, int module, const char *file, int line,
                           const char *text) = nullptr;
uint32_t vel_trace_modules_mask = 0;

void *vel_memmove(void *dst, const void *src, size_t n) { return std::memmove(dst, src, n); }
int vel_memcmp(const void *a, const void *b, size_t n) { return std::memcmp(a, b, n); }

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
