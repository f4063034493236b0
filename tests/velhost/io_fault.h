// Injected failures of the libc calls the host makes on its files.  The
// durability tests' executable defines these calls itself (io_fault.cpp), so
// the dynamic linker binds the host library's calls to them ahead of libc (or
// of a sanitizer's interceptors, which LD_PRELOAD would have to precede);
// each forwards to the next definition unless it is the armed one.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace io_fault {

// clang-format off
enum Op { kOpen, kRead, kPread, kWrite, kPwrite, kFdatasync, kFsync, kRename, kFtruncate, kOps };
inline constexpr const char *kNames[kOps] = {"open", "read", "pread", "write", "pwrite",
                                             "fdatasync", "fsync", "rename", "ftruncate"};
// clang-format on

// From now on the n-th call (1 = the next) of `op`, in any thread, fails
// with `err`; calls are counted only while armed.
void arm(Op op, long n, int err);
// Whether the armed call failed; disarm() disarms too.
extern std::atomic<bool> fired;
bool disarm();

// A journal of what reaches the files of one folder, for power-loss tests:
// writes with their bytes, truncations, syncs (begin and end), creations,
// renames and unlinks, in the order they completed, with the test's own
// marks between them.  Files are numbered at creation (1, 2, ...; 0 is the
// folder), so that a reused inode is a new file.
namespace journal {
struct Event {
    enum Kind { kCreate, kWrite, kTruncate, kSyncBegin, kSyncEnd, kRename, kUnlink, kMark };
    Kind kind;
    uint64_t file = 0; // kMark: the test's tag
    uint64_t at = 0;   // kWrite offset, kTruncate size, kSyncEnd index of its begin, kMark value
    std::string data{}, to{}; // kWrite bytes; kCreate, kUnlink, kRename names (kRename: data -> to)
    int64_t ns = 0;           // steady clock
};
// Journals the calls on files in `folder` (absolute, no trailing slash) from
// now on; each fdatasync made off this thread first sleeps `sync_delay_us`,
// a slow device under the background flusher only.
void start(const std::string &folder, long sync_delay_us = 0);
void mark(uint64_t tag, uint64_t value);
std::vector<Event> stop();
} // namespace journal

} // namespace io_fault
