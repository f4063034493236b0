// Who may use a database's files: the locks on the image and the log, and
// the clean-up of temporary files that crashed writers left behind.
//
// A lock is a flock(2) on the file itself, held through one open file
// description for the life of the database: exclusive for a database that
// may write, shared for a read-only one.  flock rather than fcntl locks:
// fcntl locks belong to the process and vanish when any descriptor of the
// file is closed, and two databases of one process would not exclude each
// other.  Images and logs are replaced by rename, so a lock taken on a
// descriptor is only good while the path still names the same inode: after
// locking, the path is looked up again, and a mismatch retries.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "durable.h"

namespace velhost {

namespace {

// " (process N)" for the process that holds a flock on the file of `fd`,
// from /proc/locks; "" where it cannot be told.
std::string holder_of(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0)
        return "";
    FILE *f = std::fopen("/proc/locks", "re");
    if (f == nullptr)
        return "";
    // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"
    char line[256];
    std::string found;
    while (found.empty() && std::fgets(line, sizeof line, f) != nullptr) {
        char kind[16], mode[16], access[16];
        long pid;
        unsigned maj, min;
        unsigned long long ino;
        if (std::strstr(line, "->") != nullptr) // a waiter, not a holder
            continue;
        if (std::sscanf(line, "%*d: %15s %15s %15s %ld %x:%x:%llu", kind, mode, access, &pid, &maj,
                        &min, &ino) == 7 &&
            std::strcmp(kind, "FLOCK") == 0 && ino == st.st_ino && maj == major(st.st_dev) &&
            min == minor(st.st_dev) && pid > 0)
            found = " (process " + std::to_string(pid) + ")";
    }
    std::fclose(f);
    return found;
}

} // namespace

int open_locked(const std::string &path, int flags, bool exclusive) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
        if (fd < 0) {
            const int e = errno;
            fail(VEL_E_HOST_IO, "cannot open " + path + ": " + errno_text());
            errno = e;
            return -1;
        }
        if (::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
            const bool busy = errno == EWOULDBLOCK;
            std::string why = busy ? path + " is in use by another database" + holder_of(fd)
                                   : "cannot lock " + path + ": " + errno_text();
            ::close(fd);
            fail(busy ? VEL_E_HOST_BUSY : VEL_E_HOST_IO, why);
            errno = busy ? EWOULDBLOCK : EIO;
            return -1;
        }
        struct stat a, b;
        if (::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_ino == b.st_ino &&
            a.st_dev == b.st_dev)
            return fd;
        ::close(fd); // replaced (or removed) while we locked it: look again
    }
    fail(VEL_E_HOST_BUSY, path + " keeps being replaced by another database");
    errno = EWOULDBLOCK;
    return -1;
}

bool same_file(int fd, const std::string &path) {
    struct stat a, b;
    return fd >= 0 && ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 &&
           a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

void remove_stale_temps(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string prefix =
        (slash == std::string::npos ? path : path.substr(slash + 1)) + ".tmp.";
    DIR *d = ::opendir(dir.c_str());
    if (d == nullptr)
        return;
    while (const dirent *e = ::readdir(d)) {
        const char *name = e->d_name;
        if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0)
            continue;
        char *end = nullptr;
        const long pid = std::strtol(name + prefix.size(), &end, 10);
        // Only the temporaries of processes that are gone: a live one may be
        // writing its own right now.
        if (end == name + prefix.size() || *end != '\0' || pid <= 0 || pid == ::getpid() ||
            ::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH)
            continue;
        ::unlink((slash == std::string::npos ? std::string(name) : dir + name).c_str());
    }
    ::closedir(d);
}

} // namespace velhost
