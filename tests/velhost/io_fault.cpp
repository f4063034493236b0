// See io_fault.h.  open64 and friends are the same calls under the names a
// build with 64-bit file offsets binds to.
#include "io_fault.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

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

} // namespace io_fault

using namespace io_fault;

#define FORWARD(op, ret, name, params, args, ...)                                                  \
    extern "C" ret name params __VA_ARGS__ {                                                       \
        static const auto real = next<ret(*) params>(#name);                                       \
        return hit(op) ? ret(-1) : real args;                                                      \
    }
FORWARD(kRead, ssize_t, read, (int fd, void *b, size_t n), (fd, b, n))
FORWARD(kPread, ssize_t, pread, (int fd, void *b, size_t n, off_t o), (fd, b, n, o))
FORWARD(kPread, ssize_t, pread64, (int fd, void *b, size_t n, off_t o), (fd, b, n, o))
FORWARD(kWrite, ssize_t, write, (int fd, const void *b, size_t n), (fd, b, n))
FORWARD(kPwrite, ssize_t, pwrite, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o))
FORWARD(kPwrite, ssize_t, pwrite64, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o))
FORWARD(kFdatasync, int, fdatasync, (int fd), (fd))
FORWARD(kFsync, int, fsync, (int fd), (fd))
FORWARD(kRename, int, rename, (const char *a, const char *b), (a, b), noexcept)
FORWARD(kLink, int, link, (const char *a, const char *b), (a, b), noexcept)
FORWARD(kFtruncate, int, ftruncate, (int fd, off_t n), (fd, n), noexcept)
FORWARD(kFtruncate, int, ftruncate64, (int fd, off_t n), (fd, n), noexcept)

// The mode is there only with O_CREAT or O_TMPFILE.
#define OPEN(name)                                                                                 \
    extern "C" int name(const char *path, int flags, ...) {                                        \
        static const auto real = next<int (*)(const char *, int, ...)>(#name);                     \
        va_list ap;                                                                                \
        va_start(ap, flags);                                                                       \
        const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(ap, mode_t) : 0;                \
        va_end(ap);                                                                                \
        return hit(kOpen) ? -1 : real(path, flags, mode);                                          \
    }
OPEN(open)
OPEN(open64)
