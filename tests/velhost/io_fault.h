// Injected failures of the libc calls the host makes on its files.  The
// durability tests' executable defines these calls itself (io_fault.cpp), so
// the dynamic linker binds the host library's calls to them ahead of libc (or
// of a sanitizer's interceptors, which LD_PRELOAD would have to precede);
// each forwards to the next definition unless it is the armed one.
#pragma once

#include <atomic>

namespace io_fault {

// clang-format off
enum Op { kOpen, kRead, kPread, kWrite, kPwrite, kFdatasync, kFsync, kRename, kLink, kFtruncate, kOps };
inline constexpr const char *kNames[kOps] = {"open", "read", "pread", "write", "pwrite",
                                             "fdatasync", "fsync", "rename", "link", "ftruncate"};
// clang-format on

// From now on the n-th call (1 = the next) of `op`, in any thread, fails
// with `err`; calls are counted only while armed.
void arm(Op op, long n, int err);
// Whether the armed call failed; disarm() disarms too.
extern std::atomic<bool> fired;
bool disarm();

} // namespace io_fault
