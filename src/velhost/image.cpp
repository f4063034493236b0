// Database images: velh_db_save writes the state of the last commit, image
// loading puts it back (velh_db_open_file in wal.cpp adds the log).
//
// Why physical: a sequence page is written as it lies in the arena (its
// child pointers replaced by page ids) and read back into a fresh page with
// one copy, so saving and loading run at memory-copy speed plus the file
// system's; re-appending values logically would rebuild every tree through
// the module, several times slower for large fields.  The price is that the
// file's pages are trusted only after a full structural check at load.
//
// File layout (little-endian; every block checksummed with XXH3-64):
//
//   header, 128 bytes
//   offset size  field
//   0      8     magic "VELHIMG\0"
//   8      4     format version (kImageVersion)
//   12     4     header bytes (128)
//   16     4     object page size
//   20     4     sequence page size
//   24     2     additional object field size
//   26     2     layout flags (kLayoutFlags: little-endian, 8-byte pointers)
//   28     4     flags: bit 0, written by a checkpoint
//   32     8     image id (random, never 0)
//   40     8     a checkpoint's: id of the image its log followed (0: the
//                empty database); otherwise 0
//   48     8     classes
//   56     8     objects
//   64     8     sequence pages
//   72     8     next object id
//   80     40    zero
//   120    8     XXH3-64 of bytes 0..119
//
//   then blocks: 24-byte block header, then `length` bytes of payload
//   0      4     kind: 1 classes, 2 pages, 3 objects, 4 end
//   4      4     items in the payload
//   8      8     length of the payload
//   16     8     XXH3-64 of the payload, seeded with the XXH3-64 of three
//                u64: kind << 56 ^ items << 24 ^ length, the block's file
//                offset, the image id (version 1: seeded with the first alone)
//
//   classes (one block): per class, codes 1.. in order, as the log's class
//     records hold it too:
//     offset size  field
//     0      4     flags (VEL_CLASS_COMPACT)
//     4      1     page manager (VELH_PM_INMEM, VELH_PM_ALT)
//     5      1     zero
//     6      2     fields
//     8      2+k   name: u16 length k, then k bytes
//     then per field:
//     0      1     type (VEL_DD_*)
//     1      1     declared order (vel_seq_order_t; 0 for scalars); zero
//                  before version 3, read as order 0
//     2      2     width (char(N) and sequences of char(N): N; otherwise 0)
//     4      2+k   name
//   pages: u8 page manager, 7 zero bytes, then `items` pages of the sequence
//     page size; ids run on from block to block, 1 first
//   objects: per object in oid order: u64 oid, u16 class, u16 0, u32 position
//     (mo), then the object image with each sequence root slot holding a
//     page id (0: empty)
//   end: u64 blocks before it, u64 file bytes before it; nothing follows
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <xxhash.h>

#include "durable.h"
#include "seq_walk.h"

namespace velhost {

namespace {

constexpr char kImageMagic[8] = {'V', 'E', 'L', 'H', 'I', 'M', 'G', '\0'};
// 1: block checksums bound to nothing else; 2: no declared orders
constexpr uint32_t kImageVersion = 3;
constexpr uint32_t kHeaderBytes = 128;
constexpr uint32_t kBlockKinds[] = {1, 2, 3, 4};
enum BlockKind : uint32_t { kClasses = 1, kPages = 2, kObjects = 3, kEnd = 4 };
constexpr size_t kBlockTarget = size_t(1) << 20; // payload bytes a block aims at

thread_local std::string t_error;

// The seed of a block's checksum: its header fields and, from version 2 on,
// its offset in the file and the image's id, so that a block moved within
// the file or brought in from another image fails its checksum.
uint64_t block_seed(uint32_t version, uint32_t kind, uint32_t items, uint64_t len, uint64_t pos,
                    uint64_t image_id) {
    const uint64_t seed = (uint64_t(kind) << 56) ^ (uint64_t(items) << 24) ^ len;
    if (version < 2)
        return seed;
    const uint64_t bound[3] = {seed, pos, image_id};
    return XXH3_64bits(bound, sizeof bound);
}

uint64_t new_image_id() {
    std::random_device rd;
    uint64_t id = (uint64_t(rd()) << 32) ^ rd() ^
                  uint64_t(std::chrono::steady_clock::now().time_since_epoch().count());
    return id != 0 ? id : 1;
}

// Writes blocks to a file descriptor, counting them and their bytes.
struct BlockWriter {
    int fd;
    uint64_t image_id;
    uint64_t pos = 0;
    uint64_t blocks = 0;
    bool emit(uint32_t kind, uint32_t items, const std::string &payload) {
        uint64_t hdr[3];
        hdr[0] = uint64_t(kind) | (uint64_t(items) << 32);
        hdr[1] = payload.size();
        hdr[2] = XXH3_64bits_withSeed(
            payload.data(), payload.size(),
            block_seed(kImageVersion, kind, items, payload.size(), pos, image_id));
        if (!write_all(fd, hdr, sizeof hdr) || !write_all(fd, payload.data(), payload.size()))
            return false;
        pos += sizeof hdr + payload.size();
        blocks++;
        return true;
    }
};

thread_local int t_read_errno; // the error that stopped the last read_full, 0: none

// Reads whole buffers; the number of bytes read, short at the end of the
// file or at an error (then t_read_errno says which).
size_t read_full(int fd, void *p, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t k = ::read(fd, static_cast<char *>(p) + done, n - done);
        if (k < 0 && errno == EINTR)
            continue;
        if (k < 0)
            t_read_errno = errno;
        if (k <= 0)
            break;
        done += size_t(k);
    }
    return done;
}

struct SavedObject {
    uint64_t oid;
    ClassDef *cls;
    uint32_t mo;
    Version *v;
};

} // namespace

std::atomic<bool> g_fuzz_skip_checksums{false};

VEL_RET fail(VEL_RET code, const std::string &message) {
    t_error = message;
    return code;
}

const char *error_text() { return t_error.c_str(); }

std::string errno_text() { return std::strerror(errno); }

bool write_all(int fd, const void *p, size_t n) {
    auto *c = static_cast<const char *>(p);
    while (n > 0) {
        ssize_t k = ::write(fd, c, n);
        if (k < 0 && errno == EINTR)
            continue;
        if (k <= 0) {
            if (k == 0)
                errno = EIO;
            return false;
        }
        c += k;
        n -= size_t(k);
    }
    return true;
}

bool sync_dir(const std::string &path) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

void put_class(Out &o, const ClassDef &cls, bool orders) {
    o.put<uint32_t>(cls.flags);
    o.put<uint8_t>(static_cast<uint8_t>(cls.pm->which));
    o.put<uint8_t>(0);
    o.put<uint16_t>(static_cast<uint16_t>(cls.fields.size()));
    o.str(cls.name);
    for (const Field &f : cls.fields) {
        o.put<uint8_t>(f.type);
        o.put<uint8_t>(orders ? f.order : 0);
        o.put<uint16_t>(f.is_char ? f.elem_size : 0);
        o.str(f.name);
    }
}

VEL_RET get_class(Db *db, In &in, uint16_t expect_code, bool orders, std::string *why) {
    auto flags = in.get<uint32_t>();
    auto pm = in.get<uint8_t>();
    in.get<uint8_t>();
    auto n = in.get<uint16_t>();
    std::string name = in.str();
    if (!in.ok || n > VELH_MAX_FIELDS) {
        *why = "class " + std::to_string(expect_code) + " is cut short";
        return VEL_E_HOST_BAD_IMAGE;
    }
    std::vector<std::string> names(n);
    std::vector<velh_field_def_t> defs(n);
    bool stray = false; // an older format's reserved byte, not zero
    for (uint16_t i = 0; i < n; ++i) {
        defs[i].type = in.get<uint8_t>();
        const auto order = in.get<uint8_t>();
        defs[i].order = orders ? order : 0;
        stray |= !orders && order != 0;
        defs[i].width = in.get<uint16_t>();
        names[i] = in.str();
        defs[i].name = names[i].c_str();
    }
    if (!in.ok || stray) {
        *why = "class " + std::to_string(expect_code) + (stray ? " is malformed" : " is cut short");
        return VEL_E_HOST_BAD_IMAGE;
    }
    uint16_t code = 0;
    VEL_RET r = velh_class_define(reinterpret_cast<velh_db_t *>(db), name.c_str(), defs.data(), n,
                                  flags, pm, &code);
    if (r != VEL_S_OK || code != expect_code) {
        const std::string said = r != VEL_S_OK && *error_text() != '\0' ? error_text() : "";
        *why = "class " + std::to_string(expect_code) + " has a definition velhost refuses (" +
               std::to_string(r) + (said.empty() ? "" : ": " + said) + ")";
        return VEL_E_HOST_BAD_IMAGE;
    }
    return VEL_S_OK;
}

bool put_page(Out &o, const std::byte *page, uint32_t ps,
              const std::unordered_map<const std::byte *, uint64_t> &ids) {
    const size_t at = o.b.size();
    o.bytes(page, 4);
    o.put<uint32_t>(0); // the reference count: rebuilt at load
    o.bytes(page + 8, ps - 8);
    if (!is_inner(page))
        return true;
    auto *pg = reinterpret_cast<const vel_seq_page_t *>(page);
    if (pg->hdr.user > max_entries(ps))
        return false;
    for (uint32_t i = 0; i < pg->hdr.user; ++i) {
        const vel_seq_node_t *e = entry_at(pg, ps, i);
        auto it = ids.find(reinterpret_cast<const std::byte *>(e->page));
        if (it == ids.end())
            return false; // the copy's entry at the same offset gets the id
        std::memcpy(o.b.data() + at + (reinterpret_cast<const std::byte *>(e) - page), &it->second,
                    8);
    }
    return true;
}

namespace {

// The objects the snapshot of `txn` sees, in oid order.
std::vector<SavedObject> saved_objects(Db *d, Txn *txn, uint32_t n_classes) {
    std::vector<SavedObject> objs;
    {
        std::shared_lock<std::shared_mutex> lock(d->objects_mutex);
        for (uint32_t code = 1; code < n_classes; ++code) {
            ClassDef *cls = d->classes[code].get();
            for (auto &[oid, ch] : cls->objects) {
                Version *v = visible_version(ch, txn);
                if (v != nullptr && !v->deleted)
                    objs.push_back({oid, cls, ch->mo, v});
            }
        }
    }
    std::sort(objs.begin(), objs.end(),
              [](const SavedObject &a, const SavedObject &b) { return a.oid < b.oid; });
    return objs;
}

// The walk of Loader::check.  A page checked before, from this tree or an
// earlier one, is not walked again: its count and height stand.
struct LoadWalk : layout::TreeWalk<LoadWalk, vel_seq_page_t> {
    // link() bounds the entries of every inner page alike, keys or not.
    LoadWalk(Loader *ld, int32_t ps, uint16_t w, uint8_t pm)
        : TreeWalk(ps, layout::leaf_capacity(ps, w), max_entries(ps)), ld(ld), w(w), pm(pm) {}
    Loader *ld;
    const uint16_t w;
    const uint8_t pm;

    Loader::PageInfo &info(vel_seq_page_t *pg) {
        return ld->info.at(reinterpret_cast<std::byte *>(pg));
    }

    bool enter(vel_seq_page_t *pg, int level, uint64_t k) {
        auto it = ld->info.find(reinterpret_cast<std::byte *>(pg));
        if (it == ld->info.end() || !page_live(pg))
            return fail(k, level, "a tree references a page that is not there");
        const Loader::PageInfo &pi = it->second;
        const auto id = static_cast<unsigned long long>(pi.id);
        if (pi.checked && pi.width != w)
            return fail(k, level, "page id %llu is shared by fields of different element widths",
                        id);
        if (!pi.checked && pi.pm != pm)
            return fail(k, level, "page id %llu belongs to another page manager", id);
        return true;
    }
    bool known(vel_seq_page_t *pg, int, uint64_t, uint64_t *count, int *height) {
        const Loader::PageInfo &pi = info(pg);
        *count = pi.count;
        *height = pi.height;
        return pi.checked;
    }
    bool leaf(vel_seq_page_t *pg, int, uint64_t) { return done(pg, pg->hdr.user, 1); }
    // After the last entry every child is checked: the page's references
    // are taken (a failure dooms the load) and its count summed (the walk's
    // own sum may wrap).
    bool child(vel_seq_page_t *pg, int level, uint64_t k, uint64_t i, uint64_t, vel_seq_page_t *) {
        if (i + 1 < pg->hdr.user)
            return true;
        uint64_t count = 0;
        for (uint32_t j = 0; j <= i; ++j) {
            ref_add(entry_at(pg, page_size, j)->page);
            if (__builtin_add_overflow(count, entry_at(pg, page_size, j)->count, &count))
                return fail(k, level, "holds more elements than a count can");
        }
        return done(pg, count, leaf_level - level + 1);
    }
    bool done(vel_seq_page_t *pg, uint64_t count, int height) {
        Loader::PageInfo &pi = info(pg);
        pi.checked = true;
        pi.count = count;
        pi.height = static_cast<uint8_t>(height);
        pi.width = w;
        return true;
    }
};

// What an image holds, numbered, ready to be written.
struct ImageContent {
    uint32_t n_classes = 0; // codes 1..n_classes - 1
    std::vector<SavedObject> objs;
    std::unordered_map<const std::byte *, uint64_t> ids;
    std::vector<std::pair<const std::byte *, uint8_t>> pages; // by id - 1, with their manager
};

// Page ids in the walk's order (depth-first, pre-order) from the roots, each
// page once.
struct Numbering : layout::TreeWalk<Numbering> {
    using TreeWalk::TreeWalk;
    ImageContent *c = nullptr;
    uint8_t which = 0; // the page manager of the field walked
    bool fresh = false;

    bool enter(const vel_seq_page_t *pg, int, uint64_t) {
        auto *b = reinterpret_cast<const std::byte *>(pg);
        if ((fresh = c->ids.emplace(b, c->pages.size() + 1).second))
            c->pages.emplace_back(b, which);
        return true;
    }
    bool known(const vel_seq_page_t *, int, uint64_t, uint64_t *, int *) { return !fresh; }
};

void number_pages(const Db *d, ImageContent *c) {
    const uint32_t afs = d->cfg.additional_object_field_size;
    Numbering walk(static_cast<int32_t>(d->cfg.seq_page_size), 0, 0, false);
    walk.c = c;
    for (const SavedObject &o : c->objs)
        for (uint16_t fno : o.cls->seq_fields)
            if (const vel_seq_page_t *root = *root_slot(o.cls, o.v, o.cls->fields[fno], afs)) {
                walk.which = static_cast<uint8_t>(o.cls->pm->which);
                walk.walk(root);
            }
}

// The 128-byte header of image `id`.
std::string image_header(const Db *d, uint64_t id, const uint64_t *prev_id, const ImageContent &c) {
    Out h;
    h.bytes(kImageMagic, 8);
    h.put<uint32_t>(kImageVersion);
    h.put<uint32_t>(kHeaderBytes);
    h.put<uint32_t>(d->cfg.object_page_size);
    h.put<uint32_t>(d->cfg.seq_page_size);
    h.put<uint16_t>(d->cfg.additional_object_field_size);
    h.put<uint16_t>(kLayoutFlags);
    h.put<uint32_t>(prev_id != nullptr ? 1 : 0);
    h.put<uint64_t>(id);
    h.put<uint64_t>(prev_id != nullptr ? *prev_id : 0);
    h.put<uint64_t>(c.n_classes - 1);
    h.put<uint64_t>(c.objs.size());
    h.put<uint64_t>(c.pages.size());
    h.put<uint64_t>(d->next_oid.load());
    h.b.resize(120, '\0');
    h.put<uint64_t>(XXH3_64bits(h.b.data(), 120));
    return std::move(h.b);
}

enum class BodyResult { kOk, kWriteFailed, kBadTree };

// Writes the blocks after the header: classes, pages, objects, end.
BodyResult write_body(BlockWriter &w, const Db *d, const ImageContent &c) {
    const uint32_t ps = d->cfg.seq_page_size;
    const uint32_t afs = d->cfg.additional_object_field_size;
    Out o;
    for (uint32_t code = 1; code < c.n_classes; ++code)
        put_class(o, *d->classes[code], true);
    if (!w.emit(kClasses, c.n_classes - 1, o.b))
        return BodyResult::kWriteFailed;

    const size_t per_block = std::max<size_t>(1, kBlockTarget / ps);
    for (size_t i = 0; i < c.pages.size();) {
        const uint8_t pm = c.pages[i].second;
        o.b.clear();
        o.put<uint64_t>(pm);
        uint32_t k = 0;
        for (; i < c.pages.size() && k < per_block && c.pages[i].second == pm; ++i, ++k)
            if (!put_page(o, c.pages[i].first, ps, c.ids))
                return BodyResult::kBadTree;
        if (!w.emit(kPages, k, o.b))
            return BodyResult::kWriteFailed;
    }

    o.b.clear();
    uint32_t k = 0;
    for (size_t i = 0; i < c.objs.size(); ++i) {
        const SavedObject &s = c.objs[i];
        o.put<uint64_t>(s.oid);
        o.put<uint16_t>(s.cls->code);
        o.put<uint16_t>(0);
        o.put<uint32_t>(s.mo);
        const size_t at = o.b.size();
        o.bytes(s.v->bytes(), s.cls->image_bytes);
        for (uint16_t fno : s.cls->seq_fields) {
            auto *root =
                reinterpret_cast<std::byte *>(*root_slot(s.cls, s.v, s.cls->fields[fno], afs));
            uint64_t pid = root != nullptr ? c.ids.at(root) : 0;
            std::memcpy(o.b.data() + at + afs + s.cls->fields[fno].off, &pid, 8);
        }
        ++k;
        if (o.b.size() >= kBlockTarget || i + 1 == c.objs.size()) {
            if (!w.emit(kObjects, k, o.b))
                return BodyResult::kWriteFailed;
            o.b.clear();
            k = 0;
        }
    }
    o.b.clear();
    o.put<uint64_t>(w.blocks);
    o.put<uint64_t>(w.pos);
    return w.emit(kEnd, 0, o.b) ? BodyResult::kOk : BodyResult::kWriteFailed;
}

// Writes image `id` to `tmp`, flushed; with `lock` it stays open and
// locked in *fd, else it is closed.  On failure nothing is left behind.
VEL_RET write_temp(const Db *d, const std::string &tmp, bool lock, uint64_t id,
                   const uint64_t *prev_id, const ImageContent &content, int *out_fd) {
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(VEL_E_HOST_IO, "cannot create " + tmp + ": " + errno_text());
    if (lock && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        std::string msg = "cannot lock " + tmp + ": " + errno_text();
        ::close(fd);
        ::unlink(tmp.c_str());
        return fail(VEL_E_HOST_IO, msg);
    }
    auto io_error = [&](const char *what) {
        std::string msg = std::string(what) + " " + tmp + ": " + errno_text();
        ::close(fd);
        ::unlink(tmp.c_str());
        return fail(VEL_E_HOST_IO, msg);
    };
    const std::string h = image_header(d, id, prev_id, content);
    if (!write_all(fd, h.data(), h.size()))
        return io_error("cannot write");
    BlockWriter w{fd, id, kHeaderBytes};
    switch (write_body(w, d, content)) {
    case BodyResult::kOk:
        break;
    case BodyResult::kWriteFailed:
        return io_error("cannot write");
    case BodyResult::kBadTree:
        ::close(fd);
        ::unlink(tmp.c_str());
        return fail(VEL_E_HOST_BAD_ARG, "a sequence tree references a page it cannot");
    }
    if (::fsync(fd) != 0)
        return io_error("cannot flush");
    if (!lock && ::close(fd) != 0) {
        ::unlink(tmp.c_str());
        return fail(VEL_E_HOST_IO, "cannot close " + tmp + ": " + errno_text());
    }
    *out_fd = fd;
    return VEL_S_OK;
}

} // namespace

VEL_RET image_save(Db *d, const char *path, ImageSave *how) {
    if (path == nullptr || *path == '\0')
        return fail(VEL_E_HOST_BAD_ARG, "no image path");
    const uint64_t *prev_id = how->prev_id;
    const std::string target(path);
    // Another database's image is not replaced under it; ours is, and the
    // caller moves its lock to the new file.
    int target_lock = -1;
    if (!same_file(d->image_fd, target)) {
        target_lock = open_locked(target, O_RDONLY, true);
        if (target_lock < 0 && errno != ENOENT)
            return errno == EWOULDBLOCK ? VEL_E_HOST_BUSY : VEL_E_HOST_IO;
        fail(VEL_S_OK, ""); // a new file: nobody holds it
    }
    struct Unlock {
        int fd;
        ~Unlock() {
            if (fd >= 0)
                ::close(fd);
        }
    } unlock{target_lock};
    remove_stale_temps(target);
    // The snapshot: a read-only transaction keeps every version it sees.
    vel_db_connection_h con;
    VEL_RET r = velh_connect(reinterpret_cast<velh_db_t *>(d), &con);
    if (r != VEL_S_OK)
        return r;
    struct Done {
        vel_db_connection_h con;
        ~Done() { velh_disconnect(con); }
    } done{con};
    if ((r = velh_begin(con, VELH_READ_ONLY)) != VEL_S_OK)
        return r;
    ImageContent content;
    content.n_classes = d->n_classes.load(std::memory_order_acquire);
    content.objs = saved_objects(d, conn_of(con)->txn, content.n_classes);
    number_pages(d, &content);

    const std::string tmp = target + ".tmp." + std::to_string(::getpid());
    const uint64_t id = new_image_id();
    int fd = -1;
    if (VEL_RET w = write_temp(d, tmp, how->keep_lock, id, prev_id, content, &fd); w != VEL_S_OK)
        return w;
    auto refuse = [&](VEL_RET r) {
        if (how->keep_lock)
            ::close(fd);
        ::unlink(tmp.c_str());
        return r;
    };
    if (how->before_rename)
        if (VEL_RET r = how->before_rename(id, content.pages.size()); r != VEL_S_OK)
            return refuse(r);
    if (::rename(tmp.c_str(), target.c_str()) != 0)
        return refuse(
            fail(VEL_E_HOST_IO, "cannot rename " + tmp + " to " + target + ": " + errno_text()));
    how->renamed = true;
    how->image_id = id;
    how->numbering = std::move(content.ids);
    if (how->keep_lock)
        how->lock_fd = fd;
    if (!sync_dir(target))
        return fail(VEL_E_HOST_IO, "cannot flush the folder of " + target + ": " + errno_text());
    return VEL_S_OK;
}

// ---- loading -----------------------------------------------------------------

VEL_RET Loader::add_page(PageManager *pm, uint64_t id, const std::byte *bytes, std::byte **out) {
    if (id == 0 || ptr_of.count(id) != 0)
        return VEL_E_HOST_BAD_IMAGE;
    std::byte *pg;
    VEL_RET r = page_alloc(pm, nullptr, &pg);
    if (r != VEL_S_OK)
        return r;
    std::memcpy(pg, bytes, pm->page_size);
    std::atomic_ref<uint32_t>(reinterpret_cast<vel_seq_page_t *>(pg)->ref_count).store(0);
    auto old = info.find(pg);
    if (old != info.end()) {
        ptr_of.erase(old->second.id);
        info.erase(old);
    }
    PageInfo pi;
    pi.id = id;
    pi.pm = static_cast<uint8_t>(pm->which);
    info.emplace(pg, pi);
    ptr_of.emplace(id, pg);
    max_page_id = std::max(max_page_id, id);
    *out = pg;
    return VEL_S_OK;
}

bool Loader::link(std::byte *page, std::string *why) {
    auto *pg = reinterpret_cast<vel_seq_page_t *>(page);
    const uint32_t ps = db->cfg.seq_page_size;
    const int kind = layout::page_kind(pg);
    if (kind == layout::kLeafPage)
        return true;
    if (kind != layout::kInnerPage || pg->hdr.user == 0 || pg->hdr.user > max_entries(ps)) {
        *why = "page " + std::to_string(info[page].id) + " has a bad kind or item count";
        return false;
    }
    for (uint32_t i = 0; i < pg->hdr.user; ++i) {
        vel_seq_node_t *e = entry_at(page, ps, i);
        auto it = ptr_of.find(reinterpret_cast<uint64_t>(e->page));
        if (it == ptr_of.end() || !page_live(it->second)) {
            *why = "page " + std::to_string(info[page].id) + " references an unknown page";
            return false;
        }
        e->page = reinterpret_cast<vel_seq_page_t *>(it->second);
    }
    return true;
}

bool Loader::check(std::byte *root, uint16_t w, PageManager *pm, std::string *why) {
    LoadWalk walk(this, static_cast<int32_t>(db->cfg.seq_page_size), w,
                  static_cast<uint8_t>(pm->which));
    if (walk.walk(reinterpret_cast<vel_seq_page_t *>(root)))
        return true;
    *why = "a damaged tree (or a cycle), " + std::string(walk.message);
    return false;
}

void free_unreferenced(Loader *ld) {
    for (auto it = ld->info.begin(); it != ld->info.end();) {
        auto *pg = const_cast<std::byte *>(it->first);
        if (!page_live(pg)) { // pruned during replay
            ld->ptr_of.erase(it->second.id);
            it = ld->info.erase(it);
        } else if (ref_load(reinterpret_cast<vel_seq_page_t *>(pg)) == 0) {
            page_free(&ld->db->pms[it->second.pm], pg, nullptr);
            ld->ptr_of.erase(it->second.id);
            it = ld->info.erase(it);
        } else {
            ++it;
        }
    }
}

void discard_db(Db *db) {
    // Version images may still hold page ids in their root slots: drop the
    // images so that closing does not walk them; the arenas go whole.
    for (auto &[oid, ch] : db->chains)
        for (Version *v = ch->head; v != nullptr; v = v->older)
            v->data.clear();
    velh_db_close(reinterpret_cast<velh_db_t *>(db));
}

namespace {

// Reads the `items` objects of an object block into committed versions of
// new chains (root slots still holding page ids).
bool load_objects(Db *d, In &in, uint32_t items, uint64_t next_oid,
                  std::vector<std::pair<Version *, ClassDef *>> *versions, std::string *why) {
    for (uint32_t i = 0; i < items; ++i) {
        const auto oid = in.get<uint64_t>();
        const auto code = in.get<uint16_t>();
        in.get<uint16_t>();
        const auto mo = in.get<uint32_t>();
        ClassDef *cls = class_of(d, code);
        if (!in.ok || cls == nullptr || oid == 0 || oid >= next_oid ||
            uint64_t(mo) + cls->image_bytes > UINT32_MAX || d->chains.count(oid) != 0) {
            *why = "object " + std::to_string(oid) + " is malformed";
            return false;
        }
        const std::byte *img = in.bytes(cls->image_bytes);
        if (img == nullptr) {
            *why = "object " + std::to_string(oid) + " is cut short";
            return false;
        }
        auto *ch = new Chain;
        auto *v = new Version;
        ch->oid = oid;
        ch->class_code = code;
        ch->mo = mo;
        ch->head = v;
        v->ts = d->commit_ts;
        v->chain = ch;
        v->data.assign((cls->image_bytes + 7) / 8, 0);
        std::memcpy(v->data.data(), img, cls->image_bytes);
        d->chains.emplace(oid, ch);
        cls->objects.emplace(oid, ch);
        versions->emplace_back(v, cls);
    }
    return true;
}

// Replaces the page ids in the versions' root slots by the pages, checking
// each tree and taking the root's reference.
bool link_roots(Loader *ld, const std::vector<std::pair<Version *, ClassDef *>> &versions,
                std::string *why) {
    const uint32_t a = ld->db->cfg.additional_object_field_size;
    for (auto &[v, cls] : versions)
        for (uint16_t fno : cls->seq_fields) {
            vel_seq_page_t **slot = root_slot(cls, v, cls->fields[fno], a);
            const uint64_t id = reinterpret_cast<uint64_t>(*slot);
            if (id == 0)
                continue;
            auto it = ld->ptr_of.find(id);
            if (it == ld->ptr_of.end()) {
                *why = "object " + std::to_string(v->chain->oid) + " references no page";
                return false;
            }
            if (!ld->check(it->second, cls->fields[fno].elem_size, cls->pm, why))
                return false;
            *slot = reinterpret_cast<vel_seq_page_t *>(it->second);
            ref_add(*slot);
        }
    return true;
}

} // namespace

namespace {

// The load of one image, step by step: the header, then the blocks, then
// the trees.  Every refusal discards the database made so far.
struct ImageReader {
    int fd;
    std::string file;
    Loader *ld;
    velh_config_t c; // page sizes from the header
    uint64_t size = 0;
    bool sums = !g_fuzz_skip_checksums.load(std::memory_order_relaxed);
    // From the header:
    uint32_t version = 0;
    uint64_t n_classes = 0, n_objects = 0, n_pages = 0, next_oid = 0;
    // Read so far:
    Db *d = nullptr;
    std::vector<std::byte *> loaded; // by id - 1
    std::vector<std::pair<Version *, ClassDef *>> versions;
    uint64_t pos = kHeaderBytes, blocks = 0;
    uint32_t state = 0; // the last block kind read

    ImageReader(int fd_, std::string file_, Loader *ld_, const velh_config_t &c_)
        : fd(fd_), file(std::move(file_)), ld(ld_), c(c_) {}

    VEL_RET bad(const std::string &why) {
        if (ld->db != nullptr)
            discard_db(ld->db);
        ld->db = nullptr;
        if (t_read_errno != 0) // not damage: the file could not be read
            return fail(VEL_E_HOST_IO, "cannot read " + file + ": " + std::strerror(t_read_errno));
        return fail(VEL_E_HOST_BAD_IMAGE, file + ": " + why);
    }
    std::string at() const { return std::to_string(pos); }

    VEL_RET run(velh_open_stats_t *stats) {
        t_read_errno = 0;
        struct stat st;
        if (::fstat(fd, &st) != 0)
            return fail(VEL_E_HOST_IO, "cannot stat " + file + ": " + errno_text());
        size = uint64_t(st.st_size);
        if (VEL_RET r = header(); r != VEL_S_OK)
            return r;
        velh_db_t *handle = nullptr;
        if (velh_db_open(&c, &handle) != VEL_S_OK)
            return bad("the page sizes are refused");
        d = ld->db = reinterpret_cast<Db *>(handle);
        if (VEL_RET r = read_blocks(); r != VEL_S_OK)
            return r;
        if (pos != size)
            return bad("bytes follow the end block");
        if (loaded.size() != n_pages || versions.size() != n_objects)
            return bad("the page or object count disagrees with the header");
        std::string why;
        for (std::byte *pg : loaded)
            if (!ld->link(pg, &why))
                return bad(why);
        if (!link_roots(ld, versions, &why))
            return bad(why);
        // Only now do the roots hold pointers; a failure above left ids there.
        free_unreferenced(ld);
        d->next_oid.store(next_oid);
        if (stats != nullptr) {
            stats->classes = n_classes;
            stats->objects = versions.size();
            stats->image_pages = n_pages;
        }
        return VEL_S_OK;
    }

    // Checks the 128-byte header and takes the sizes and counts from it.
    VEL_RET header() {
        std::byte hb[kHeaderBytes];
        if (read_full(fd, hb, kHeaderBytes) != kHeaderBytes || std::memcmp(hb, kImageMagic, 8) != 0)
            return bad("not a velhost database image");
        In h(hb, kHeaderBytes);
        h.bytes(8);
        version = h.get<uint32_t>();
        const auto header_bytes = h.get<uint32_t>();
        uint64_t sum;
        std::memcpy(&sum, hb + 120, 8);
        if (version < 1 || version > kImageVersion)
            return bad("format version " + std::to_string(version) +
                       "; this build reads versions 1 to " + std::to_string(kImageVersion));
        if (header_bytes != kHeaderBytes || (sums && sum != XXH3_64bits(hb, 120)))
            return bad("the header is damaged (checksum)");
        const auto obj_ps = h.get<uint32_t>();
        const auto seq_ps = h.get<uint32_t>();
        const auto afs = h.get<uint16_t>();
        const auto layout = h.get<uint16_t>();
        ld->checkpoint = (h.get<uint32_t>() & 1) != 0;
        ld->image_id = h.get<uint64_t>();
        ld->prev_image_id = h.get<uint64_t>();
        n_classes = h.get<uint64_t>();
        n_objects = h.get<uint64_t>();
        n_pages = h.get<uint64_t>();
        next_oid = h.get<uint64_t>();
        if (layout != kLayoutFlags)
            return bad("written on a machine of another byte order or pointer width");
        if (obj_ps > UINT16_MAX || n_classes >= VELH_MAX_CLASSES || ld->image_id == 0 ||
            n_pages > size / std::max<uint32_t>(seq_ps, 1) || n_objects > size || next_oid == 0)
            return bad("the header holds impossible sizes");
        c.object_page_size = static_cast<uint16_t>(obj_ps);
        c.seq_page_size = seq_ps;
        c.additional_object_field_size = afs;
        return VEL_S_OK;
    }

    // Reads, checks and applies the blocks up to the end block.
    VEL_RET read_blocks() {
        std::vector<std::byte> payload;
        for (;;) {
            uint64_t bh[3];
            if (read_full(fd, bh, sizeof bh) != sizeof bh)
                return bad("cut short at byte " + at());
            const auto kind = static_cast<uint32_t>(bh[0]);
            const auto items = static_cast<uint32_t>(bh[0] >> 32);
            const uint64_t len = bh[1];
            if (std::find(std::begin(kBlockKinds), std::end(kBlockKinds), kind) ==
                    std::end(kBlockKinds) ||
                len > size - pos - sizeof bh)
                return bad("the block at byte " + at() + " is damaged or cut short");
            payload.resize(len);
            if (read_full(fd, payload.data(), len) != len)
                return bad("cut short at byte " + at());
            if (sums && XXH3_64bits_withSeed(
                            payload.data(), len,
                            block_seed(version, kind, items, len, pos, ld->image_id)) != bh[2])
                return bad("the block at byte " + at() + " is damaged (checksum)");
            // Blocks come in the order classes, pages..., objects..., end.
            if ((kind == kClasses) != (state == 0) || kind < state)
                return bad("the block at byte " + at() + " is out of order");
            state = kind;
            In in(payload.data(), len);
            if (kind == kEnd) {
                if (in.get<uint64_t>() != blocks || in.get<uint64_t>() != pos || !in.done())
                    return bad("the end block disagrees with the file");
                pos += sizeof bh + len;
                return VEL_S_OK;
            }
            if (VEL_RET r = block(kind, items, len, in); r != VEL_S_OK)
                return r;
            pos += sizeof bh + len;
            ++blocks;
        }
    }

    // Applies one classes, pages or objects block.
    VEL_RET block(uint32_t kind, uint32_t items, uint64_t len, In &in) {
        std::string why;
        if (kind == kClasses) {
            if (items != n_classes)
                return bad("the class count disagrees with the header");
            for (uint32_t i = 0; i < items; ++i)
                if (get_class(d, in, static_cast<uint16_t>(i + 1), version >= 3, &why) != VEL_S_OK)
                    return bad(why);
        } else if (kind == kPages) {
            if (VEL_RET r = pages(items, len, in); r != VEL_S_OK)
                return r;
        } else {
            if (!load_objects(d, in, items, next_oid, &versions, &why))
                return bad(why);
            if (!in.done())
                return bad("the object block at byte " + at() + " is malformed");
        }
        if (kind != kObjects && !in.done())
            return bad("the block at byte " + at() + " has trailing bytes");
        return VEL_S_OK;
    }

    VEL_RET pages(uint32_t items, uint64_t len, In &in) {
        const uint32_t seq_ps = c.seq_page_size;
        const auto pm = in.get<uint64_t>();
        if (pm > VELH_PM_ALT || len != 8 + uint64_t(items) * seq_ps ||
            loaded.size() + items > n_pages)
            return bad("the page block at byte " + at() + " is malformed");
        for (uint32_t i = 0; i < items; ++i) {
            std::byte *pg;
            VEL_RET r = ld->add_page(&d->pms[pm], loaded.size() + 1, in.bytes(seq_ps), &pg);
            if (r != VEL_S_OK) {
                discard_db(d);
                ld->db = nullptr;
                return fail(r, file + ": out of memory for its pages");
            }
            loaded.push_back(pg);
        }
        return VEL_S_OK;
    }
};

} // namespace

VEL_RET image_load(const velh_config_t *cfg, int fd, const char *path, Loader *ld, velh_db_t **out,
                   velh_open_stats_t *stats) {
    velh_config_t c = *cfg;
    c.log_path = nullptr;
    if (path == nullptr) {
        velh_db_t *handle = nullptr;
        VEL_RET r = velh_db_open(&c, &handle);
        if (r != VEL_S_OK)
            return fail(r, "the configuration is refused");
        ld->db = reinterpret_cast<Db *>(handle);
        *out = handle;
        return VEL_S_OK;
    }
    ImageReader rd(fd, path, ld, c);
    VEL_RET r = rd.run(stats);
    if (r == VEL_S_OK)
        *out = reinterpret_cast<velh_db_t *>(rd.d);
    return r;
}

} // namespace velhost
