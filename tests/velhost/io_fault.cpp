// See io_fault.h.  Only the names the host library binds to (nm -D) are
// defined: a build with 64-bit file offsets on a 32-bit system would need
// open64 and friends too.
#include "io_fault.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

namespace io_fault {

std::atomic<bool> fired{false};
static std::atomic<int> armed{-1}, failure{0};
static std::atomic<long> left{0};

void arm(Op op, long n, int err) {
    armed = -1;
    fired = false;
    failure = err;
    left = n;
    armed = op;
}

bool disarm() {
    armed = -1;
    return fired;
}

// Whether this call is the armed one (errno then set): exactly one call of
// the armed op sees the countdown reach 0, whichever thread makes it.
static bool hit(Op op) {
    if (armed != op || left.fetch_sub(1) != 1)
        return false;
    fired = true;
    errno = failure;
    return true;
}

template <class F> static F next(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

namespace journal {
namespace {

std::atomic<bool> on{false};
std::mutex mu;
// The journal's state, reset by start().
struct State {
    std::string folder;
    dev_t dev = 0;
    long delay_us = 0;
    std::thread::id starter;
    std::unordered_map<ino_t, uint64_t> id_of; // inode -> file number, the folder's 0
    uint64_t files = 0;
    std::vector<Event> events;
} js;

// The name within the folder, or null for a path outside it.
const char *name_in(const char *path) {
    const size_t n = js.folder.size();
    return std::strncmp(path, js.folder.c_str(), n) == 0 && path[n] == '/' ? path + n + 1 : nullptr;
}

// The file open on `fd`: its number, 0 for the folder, -1 untracked.
int64_t file_of(int fd) {
    struct stat st;
    auto it =
        ::fstat(fd, &st) == 0 && st.st_dev == js.dev ? js.id_of.find(st.st_ino) : js.id_of.end();
    return it == js.id_of.end() ? -1 : int64_t(it->second);
}

size_t add(Event e) {
    e.ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
               .count();
    js.events.push_back(std::move(e));
    return js.events.size() - 1;
}

} // namespace

void start(const std::string &dir, long sync_delay_us) {
    std::lock_guard<std::mutex> lock(mu);
    struct stat st {};
    ::stat(dir.c_str(), &st);
    js = {dir, st.st_dev, sync_delay_us, std::this_thread::get_id(), {{st.st_ino, 0}}, 0, {}};
    on = true;
}

void mark(uint64_t tag, uint64_t value) {
    std::lock_guard<std::mutex> lock(mu);
    add({Event::kMark, tag, value});
}

std::vector<Event> stop() {
    std::lock_guard<std::mutex> lock(mu);
    on = false;
    return std::move(js.events);
}

// The hooks, called around the real calls while the journal is on.  An
// open `created` a file when it may create one and the path was not there.
void opened(const char *path, int flags, int fd, bool created) {
    std::lock_guard<std::mutex> lock(mu);
    const char *name = on && fd >= 0 ? name_in(path) : nullptr;
    struct stat st;
    if (name == nullptr || ::fstat(fd, &st) != 0)
        return;
    if (created || js.id_of.count(st.st_ino) == 0) {
        js.id_of[st.st_ino] = ++js.files;
        add({Event::kCreate, js.files, 0, name});
    } else if (flags & O_TRUNC) {
        add({Event::kTruncate, js.id_of[st.st_ino], 0});
    }
}

// A write (of n bytes at b), truncation or sync end that succeeded (`ok`) on
// the file open on fd.
void changed(Event::Kind kind, int fd, bool ok, int64_t at, const void *b = nullptr,
             ssize_t n = 0) {
    std::lock_guard<std::mutex> lock(mu);
    const int64_t f = on && ok ? file_of(fd) : -1;
    if (f >= 0)
        add({kind, uint64_t(f), uint64_t(at),
             b ? std::string(static_cast<const char *>(b), size_t(n)) : std::string()});
}

// The index of the sync's begin event, -1 when untracked.
int64_t sync_begin(int fd, bool data_only) {
    int64_t at;
    {
        std::lock_guard<std::mutex> lock(mu);
        const int64_t f = on ? file_of(fd) : -1;
        if (f < 0)
            return -1;
        at = int64_t(add({Event::kSyncBegin, uint64_t(f), 0}));
    }
    if (data_only && js.delay_us > 0 && std::this_thread::get_id() != js.starter)
        ::usleep(useconds_t(js.delay_us));
    return at;
}

// A rename (a -> b) or unlink (a) in the folder that succeeded.
void named(Event::Kind kind, const char *a, const char *b, int r) {
    std::lock_guard<std::mutex> lock(mu);
    if (on && r == 0 && name_in(a) && (b == nullptr || name_in(b)))
        add({kind, 0, 0, name_in(a), b ? name_in(b) : "", 0});
}

} // namespace journal

} // namespace io_fault

using namespace io_fault;
using namespace io_fault::journal;

// `before` runs ahead of the real call and gives `j`, `after` follows it
// with its result `r`: both only while the journal is on.
#define FORWARD(op, ret, name, params, args, before, after, ...)                                   \
    extern "C" ret name params __VA_ARGS__ {                                                       \
        static const auto real = next<ret(*) params>(#name);                                       \
        if (hit(op))                                                                               \
            return ret(-1);                                                                        \
        const bool journal = on;                                                                   \
        [[maybe_unused]] const int64_t j = journal ? (before) : 0;                                 \
        const ret r = real args;                                                                   \
        if (journal)                                                                               \
            after;                                                                                 \
        return r;                                                                                  \
    }
FORWARD(kRead, ssize_t, read, (int fd, void *b, size_t n), (fd, b, n), 0, (void)0)
FORWARD(kPread, ssize_t, pread, (int fd, void *b, size_t n, off_t o), (fd, b, n, o), 0, (void)0)
FORWARD(kWrite, ssize_t, write, (int fd, const void *b, size_t n), (fd, b, n),
        ::lseek(fd, 0, SEEK_CUR), changed(Event::kWrite, fd, r > 0, j, b, r))
FORWARD(kPwrite, ssize_t, pwrite, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o), 0,
        changed(Event::kWrite, fd, r > 0, o, b, r))
FORWARD(kFdatasync, int, fdatasync, (int fd), (fd), sync_begin(fd, true),
        changed(Event::kSyncEnd, fd, r == 0 && j >= 0, j))
FORWARD(kFsync, int, fsync, (int fd), (fd), sync_begin(fd, false),
        changed(Event::kSyncEnd, fd, r == 0 && j >= 0, j))
FORWARD(kRename, int, rename, (const char *a, const char *b), (a, b), 0,
        named(Event::kRename, a, b, r), noexcept)
FORWARD(kFtruncate, int, ftruncate, (int fd, off_t n), (fd, n), 0,
        changed(Event::kTruncate, fd, r == 0, n), noexcept)
FORWARD(kOps, int, unlink, (const char *p), (p), 0, named(Event::kUnlink, p, nullptr, r),
        noexcept) // never fails

// The mode is there only with O_CREAT or O_TMPFILE.
extern "C" int open(const char *path, int flags, ...) {
    static const auto real = next<int (*)(const char *, int, ...)>("open");
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(ap, mode_t) : 0;
    va_end(ap);
    if (hit(kOpen))
        return -1;
    const bool journal = on;
    const bool absent = journal && (flags & O_CREAT) && ::access(path, F_OK) != 0;
    const int fd = real(path, flags, mode);
    if (journal)
        opened(path, flags, fd, absent);
    return fd;
}
