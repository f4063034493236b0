// Durability internals: database images (image.cpp) and the commit log
// (wal.cpp).
//
// Both files carry sequence pages physically: a page is written as it is in
// the arena, with its reference count zeroed and the child pointer of every
// inner entry replaced by a page id (1..; 0 is a null root).  An image numbers
// the pages of its snapshot 1..n; a log goes on from the image's n + 1 and
// names, in a commit record, the pages the transaction made and the ids of
// the older pages its trees still reach.  Loading puts pages back into the
// arena, restores the pointers, checks every tree and rebuilds the reference
// counts from the references it finds.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "host_internal.h"
#include "seq_layout.h"

namespace velhost {

// Little-endian, 8-byte pointers: the layout flags an image is stamped with
// and must match to be loaded.
constexpr uint16_t kLayoutFlags = 0x0001;

// The commit log of a database (wal.cpp).
struct Durable {
    // Orders log records as commits are ordered; taken before
    // Db::state_mutex and held from a commit's encoding to its publication.
    std::mutex mutex;
    std::string path;
    int fd = -1;
    int sync_mode = VELH_LOG_SYNC_COMMIT;
    uint32_t group_ms = 10;
    uint64_t image_id = 0;     // image the log follows (0: the empty database)
    uint64_t next_seq = 1;     // sequence number of the next record
    uint64_t next_page_id = 1; // id of the next page a record introduces
    uint64_t end = 0;          // file offset after the last whole record
    uint32_t version = 0;      // format version of the file: its records are written so
    // Page id of every page a committed tree may reach.  A freed page keeps a
    // stale entry until its address is handed out again and renumbered;
    // nothing reaches it meanwhile.
    std::unordered_map<const std::byte *, uint64_t> id_of;
    // Non-empty once a write or flush failed, or a checkpoint failed after
    // renaming its image: commits are refused until a checkpoint succeeds.
    std::string failure;

    // VELH_LOG_SYNC_GROUP: the flusher thread.
    std::thread flusher;
    std::condition_variable flusher_cv;
    bool stop = false;
    bool dirty = false;
};

// ---- file locks and temporaries (files.cpp) ---------------------------------

// Opens `path` with `flags` (O_CLOEXEC added; O_CREAT creates with 0644) and
// takes a non-blocking flock on it, exclusive or shared, making sure the
// path still names the locked file.  -1 with the error message set (and
// errno ENOENT for a missing file, EWOULDBLOCK when another holds it).
int open_locked(const std::string &path, int flags, bool exclusive);
// Whether `path` names the file open on `fd`.
bool same_file(int fd, const std::string &path);
// Removes PATH.tmp.PID files left by processes that no longer run.
void remove_stale_temps(const std::string &path);

// Fuzzing only: images are read without comparing checksums, so that the
// structural checks behind them see arbitrary bytes.
extern std::atomic<bool> g_fuzz_skip_checksums;

// Sets the calling thread's velh_error_message() and returns `code`.
VEL_RET fail(VEL_RET code, const std::string &message);
const char *error_text();

// ---- images (image.cpp) ------------------------------------------------------

// How an image is saved, and what the save did.
struct ImageSave {
    const uint64_t *prev_id = nullptr; // a checkpoint's: the image its log followed
    // Called once the new image is written and flushed, before it is renamed
    // into place, with its id and page count; a failure refuses the save.
    std::function<VEL_RET(uint64_t id, uint64_t pages)> before_rename;
    bool keep_lock = false; // hand back the new image open and locked
    // Out:
    std::unordered_map<const std::byte *, uint64_t> numbering; // id of every page
    uint64_t image_id = 0;
    bool renamed = false; // the new image replaced the path (even if the save then failed)
    int lock_fd = -1;     // keep_lock: the new image's locked descriptor, the caller's
};

// Writes the image of the last commit to `path`, refusing a path whose file
// another database holds.
VEL_RET image_save(Db *db, const char *path, ImageSave *how);

// Tree checks and page ids while a database is loaded and its log replayed.
struct Loader {
    struct PageInfo {
        uint64_t id = 0;
        uint64_t count = 0; // elements of the subtree, once checked
        uint8_t height = 0; // 1 for a leaf, once checked
        uint16_t width = 0; // element width of the field that reached it
        uint8_t pm = 0;     // VELH_PM_INMEM or VELH_PM_ALT
        bool checked = false;
    };
    Db *db = nullptr;
    std::unordered_map<uint64_t, std::byte *> ptr_of;
    std::unordered_map<const std::byte *, PageInfo> info;
    uint64_t image_id = 0;
    bool checkpoint = false;    // the image was written by a checkpoint,
    uint64_t prev_image_id = 0; // of the log that followed this image
    uint64_t max_page_id = 0;

    // A page read from a file: allocated, copied, its ref count zeroed.  An
    // address handed out again loses the id and checks of its old page.
    VEL_RET add_page(PageManager *pm, uint64_t id, const std::byte *bytes, std::byte **out);
    // Replaces the ids in an inner page's entries by pointers.
    bool link(std::byte *page, std::string *why);
    // Checks the tree under a root reached from a field of element width w,
    // adding one reference to each child of every page checked the first
    // time.  The root's own reference is the caller's.
    bool check(std::byte *root, uint16_t w, PageManager *pm, std::string *why);
};

// Opens the database of the image open on `fd` and named `path` (path null:
// an empty one).
VEL_RET image_load(const velh_config_t *cfg, int fd, const char *path, Loader *ld, velh_db_t **db,
                   velh_open_stats_t *stats);

// Frees a database that failed to load, without walking its trees.
void discard_db(Db *db);

// Frees every arena page of the database that no reference reaches.
void free_unreferenced(Loader *ld);

// ---- the commit log (wal.cpp) ----------------------------------------------

// Starts the log open on `fd` (an empty file, locked) at cfg->log_path for
// the image `image_id`; ids of new pages start at `first_page_id`.  Closes
// `fd` on failure.
VEL_RET log_start(Db *db, int fd, const velh_config_t *cfg, uint64_t image_id,
                  uint64_t first_page_id, std::unordered_map<const std::byte *, uint64_t> ids);

// Replays the log open on `fd` (locked) onto a database just loaded by `ld`:
// cuts a torn tail, refuses damage that whole records follow (or moves it
// aside with VELH_OPEN_RECOVER), and keeps the log for appending (read-only:
// only its lock).  Closes `fd` on failure.
VEL_RET log_open(Db *db, int fd, const velh_config_t *cfg, Loader *ld, velh_open_stats_t *stats);

// Flushes and closes the log; VEL_E_HOST_IO when the flush failed.
VEL_RET log_close(Db *db);

// Appends the definition of class `class_code`, before it is published; the
// caller holds Durable::mutex.
VEL_RET log_class(Db *db, const ClassDef &cls, uint16_t class_code);

// Commit steps, called with Durable::mutex held: the record of what the
// transaction changed (before its unreached pages are swept), then its
// append, and its flush when every commit is flushed.
VEL_RET log_encode_commit(Db *db, Txn *txn, std::string *record);
VEL_RET log_append(Db *db, const std::string &record);

} // namespace velhost

namespace velhost {

// Little-endian encoding into a growing byte string.
struct Out {
    std::string b;
    template <class T> void put(T v) { b.append(reinterpret_cast<const char *>(&v), sizeof v); }
    void bytes(const void *p, size_t n) { b.append(static_cast<const char *>(p), n); }
    void str(const std::string &s) {
        put<uint16_t>(static_cast<uint16_t>(s.size()));
        b.append(s);
    }
};

// Bounds-checked decoding; `ok` turns false at the first read past the end
// and stays so (every later read yields zeros).
struct In {
    const std::byte *p;
    size_t n;
    size_t at = 0;
    bool ok = true;
    In(const void *data, size_t size) : p(static_cast<const std::byte *>(data)), n(size) {}
    template <class T> T get() {
        T v{};
        if (!ok || n - at < sizeof v) {
            ok = false;
            return v;
        }
        std::memcpy(&v, p + at, sizeof v);
        at += sizeof v;
        return v;
    }
    const std::byte *bytes(size_t k) {
        if (!ok || n - at < k) {
            ok = false;
            return nullptr;
        }
        const std::byte *q = p + at;
        at += k;
        return q;
    }
    std::string str() {
        auto k = get<uint16_t>();
        const std::byte *q = bytes(k);
        return q != nullptr ? std::string(reinterpret_cast<const char *>(q), k) : std::string();
    }
    bool done() const { return ok && at == n; }
};

// Pages as both files carry them are read through the one layout.
namespace layout = velseq::layout;
using layout::entry_at;
inline bool is_inner(const std::byte *page) {
    return layout::page_kind(reinterpret_cast<const vel_seq_page_t *>(page)) == layout::kInnerPage;
}
// The most entries an inner page holds, whatever its field: no keys.
inline uint32_t max_entries(uint32_t ps) {
    return static_cast<uint32_t>(layout::inner_capacity(static_cast<int32_t>(ps), 0, false, false));
}

// Class definitions as both files carry them.  `orders`: the format keeps
// declared orders (image version 3, log version 2 on); older formats hold a
// zero byte where the order goes, and their sequence fields get order 0.
void put_class(Out &o, const ClassDef &cls, bool orders);
// Defines the class read from `in`; the new code must be `expect_code`.
VEL_RET get_class(Db *db, In &in, uint16_t expect_code, bool orders, std::string *why);

// A page as files hold it: bytes 0..3 and 8.. copied, the reference count
// zeroed, entry pointers replaced by ids (false when a child has no id).
bool put_page(Out &o, const std::byte *page, uint32_t ps,
              const std::unordered_map<const std::byte *, uint64_t> &ids);

// write(2) of every byte, retrying short writes; false with errno set.
bool write_all(int fd, const void *p, size_t n);
// Flushes the folder holding `path`, so that a rename in it is durable.
bool sync_dir(const std::string &path);
std::string errno_text();

} // namespace velhost
