#include "common/trap.h"

#include <cstdlib>

#include "velhost.h"

namespace velseq {

void trap(const char *file, int line) {
    if (vel_trace_callback != nullptr && (vel_trace_modules_mask & (1u << kTraceModule)) != 0)
        vel_trace_callback(0, kTraceModule, file, line, "VEL_STOP");
    vel_stop__(VEL_ERR_SEQ, file, line);
    std::abort(); // a host whose trap returns gets no further
}

} // namespace velseq
