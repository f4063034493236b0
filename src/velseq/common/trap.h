// Fatal traps for broken tree invariants.
//
// A corrupt tree (an empty page on a path, a leaf over capacity, a path
// deeper than the scan stack, a field root straddling two object pages) is
// never reported as a code: the module calls the host's vel_stop__ with
// VEL_ERR_SEQ, after the trace hook when bit 26 of its mask is set.  The host
// may leave by longjmp or by unwinding, so callers hold nothing that needs
// cleaning up when they trap.
#pragma once

namespace velseq {

inline constexpr int kTraceModule = 26;

[[noreturn]] void trap(const char *file, int line);

} // namespace velseq

#define VEL_SEQ_TRAP() ::velseq::trap(__FILE__, __LINE__)
#define VEL_SEQ_CHECK(cond)                                                                        \
    do {                                                                                           \
        if (!(cond))                                                                               \
            VEL_SEQ_TRAP();                                                                        \
    } while (0)
