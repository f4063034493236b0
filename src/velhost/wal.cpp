// The commit log, and the durability entry points of velembed.h.
//
// Every commit that changed something appends one record: the sequence
// pages the transaction made that its trees reach (physically, as an image
// holds them), and for each object it wrote either its new image (root slots
// holding page ids) or its deletion.  A class definition appends a record of
// its own.  Pages a record does not carry are named by the ids the image or
// an earlier record gave them, so an append of k values logs about the
// depth of the tree in pages, whatever the size of the field.
//
// File layout (little-endian):
//
//   header, 64 bytes
//   offset size  field
//   0      8     magic "VELHLOG\0"
//   8      4     format version (kLogVersion)
//   12     4     header bytes (64)
//   16     4     sequence page size
//   20     4     object page size
//   24     8     id of the image the log follows (0: the empty database)
//   32     8     first page id the records may introduce
//   40     2     additional object field size
//   42     14    zero
//   56     8     XXH3-64 of bytes 0..55
//
//   records, each a 24-byte header and a body
//   0      4     magic "VLRC"
//   4      4     type: 1 class, 2 commit
//   8      8     body length
//   16     8     XXH3-64 of the body, seeded with type and length
//
//   body: u64 sequence number (1, 2, ... in file order), then
//   class:  u16 class code, the class as an image holds it (image.cpp), with
//           the declared order of each field from version 2 on (version 1
//           holds a zero byte there: a database that goes on appending to a
//           version 1 log refuses classes with a declared order until a
//           checkpoint starts a log of the current version)
//   commit: u32 pages, u32 objects; per page u64 id, u8 page manager, 7
//           zero bytes, the page; per object u64 oid, u16 class, u8 op
//           (1 write, 2 delete), u8 0, u32 position (mo), and for a write
//           the object image with page ids in its root slots
//
// A record is written whole with one pwrite at the end of the last whole
// record.  At open the first record that is short, fails its checksum or
// breaks the sequence ends the log: it and everything after it are cut.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>
#include <utility>
#include <xxhash.h>

#include "durable.h"

namespace velhost {

namespace {

constexpr char kLogMagic[8] = {'V', 'E', 'L', 'H', 'L', 'O', 'G', '\0'};
constexpr uint32_t kLogVersion = 2; // 1: class records without declared orders
constexpr uint32_t kLogHeader = 64;
constexpr uint32_t kRecMagic = 0x4352'4c56; // "VLRC"
constexpr uint32_t kRecClass = 1;
constexpr uint32_t kRecCommit = 2;
constexpr uint8_t kOpWrite = 1;
constexpr uint8_t kOpDelete = 2;

uint64_t rec_seed(uint32_t type, uint64_t len) { return (uint64_t(type) << 56) ^ len; }

bool pwrite_all(int fd, const void *p, size_t n, uint64_t off) {
    auto *c = static_cast<const char *>(p);
    while (n > 0) {
        ssize_t k = ::pwrite(fd, c, n, static_cast<off_t>(off));
        if (k < 0 && errno == EINTR)
            continue;
        if (k <= 0) {
            if (k == 0)
                errno = EIO;
            return false;
        }
        c += k;
        n -= size_t(k);
        off += uint64_t(k);
    }
    return true;
}

// Reads n bytes at `off`: 1 all of them, 0 the file ends first, -1 a read
// error (errno set).
int pread_exact(int fd, void *p, size_t n, uint64_t off) {
    size_t done = 0;
    while (done < n) {
        ssize_t k = ::pread(fd, static_cast<char *>(p) + done, n - done, off_t(off + done));
        if (k < 0 && errno == EINTR)
            continue;
        if (k < 0)
            return -1;
        if (k == 0)
            return 0;
        done += size_t(k);
    }
    return 1;
}

// The 64-byte header of a log that follows image `image_id`.
std::string log_header(const Db *d, uint64_t image_id, uint64_t first_page_id) {
    Out h;
    h.bytes(kLogMagic, 8);
    h.put<uint32_t>(kLogVersion);
    h.put<uint32_t>(kLogHeader);
    h.put<uint32_t>(d->cfg.seq_page_size);
    h.put<uint32_t>(d->cfg.object_page_size);
    h.put<uint64_t>(image_id);
    h.put<uint64_t>(first_page_id);
    h.put<uint16_t>(d->cfg.additional_object_field_size);
    h.b.resize(56, '\0');
    h.put<uint64_t>(XXH3_64bits(h.b.data(), 56));
    return std::move(h.b);
}

// Writes a new log with its header only to `tmp` (PATH.tmp.PID), flushed and
// locked, for the caller to rename over `path`; the open descriptor, or -1
// with the error message set and nothing left behind.
int prepare_log(const Db *d, const std::string &path, uint64_t image_id, uint64_t first_page_id,
                std::string *tmp) {
    remove_stale_temps(path);
    *tmp = path + ".tmp." + std::to_string(::getpid());
    int fd = ::open(tmp->c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail(VEL_E_HOST_IO, "cannot create " + *tmp + ": " + errno_text());
        return -1;
    }
    const std::string h = log_header(d, image_id, first_page_id);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || !write_all(fd, h.data(), h.size()) ||
        ::fdatasync(fd) != 0) {
        fail(VEL_E_HOST_IO, "cannot write the new log " + *tmp + ": " + errno_text());
        ::close(fd);
        ::unlink(tmp->c_str());
        return -1;
    }
    return fd;
}

// Flushes start on deadlines a period apart, not a period after the last
// flush ended: a commit that returns at t is flushed by a flush that starts
// by t + period, or when the flush running then ends if that is later.
// Sleeping a period after each flush would add the flush's own time to
// every window, and a slow device would stretch it without bound.
void flusher_loop(Durable *L) {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::milliseconds(L->group_ms);
    auto deadline = Clock::now() + period;
    std::unique_lock<std::mutex> lock(L->mutex);
    while (!L->stop) {
        if (L->flusher_cv.wait_until(lock, deadline, [L] { return L->stop; }))
            break;
        deadline += period;
        if (L->dirty && L->fd >= 0) {
            // A checkpoint may swap the descriptor meanwhile: flush a duplicate.
            int fd = ::dup(L->fd);
            L->dirty = false;
            lock.unlock();
            bool ok = fd >= 0 && ::fdatasync(fd) == 0;
            std::string why = ok ? "" : errno_text();
            if (fd >= 0)
                ::close(fd);
            lock.lock();
            if (!ok && L->failure.empty())
                L->failure = "cannot flush " + L->path + ": " + why;
        }
        // Behind (a flush or a wake-up outlasted the period): the next flush
        // is due now, not a backlog of them.
        deadline = std::max(deadline, Clock::now());
    }
}

// Writes one record at the end of the log; the caller holds the mutex.
VEL_RET append_locked(Durable *L, uint32_t type, const std::string &body) {
    if (!L->failure.empty())
        return fail(VEL_E_HOST_IO, "the log failed earlier: " + L->failure +
                                       "; a checkpoint or a reopen lets commits go on");
    Out h;
    h.put<uint32_t>(kRecMagic);
    h.put<uint32_t>(type);
    h.put<uint64_t>(body.size());
    h.put<uint64_t>(XXH3_64bits_withSeed(body.data(), body.size(), rec_seed(type, body.size())));
    h.b += body;
    if (!pwrite_all(L->fd, h.b.data(), h.b.size(), L->end)) {
        std::string why = "cannot write " + L->path + ": " + errno_text();
        // A partial record would end the log at the next open anyway; cut it
        // now so that later records are not lost behind it.
        if (::ftruncate(L->fd, static_cast<off_t>(L->end)) != 0)
            L->failure = why;
        return fail(VEL_E_HOST_IO, why);
    }
    if (L->sync_mode == VELH_LOG_SYNC_COMMIT && ::fdatasync(L->fd) != 0) {
        // The device's state is unknown now: no more appends.  The record is
        // refused, so take it back lest a reopen replay it (a checkpoint
        // writes a log without it in any case).
        L->failure = "cannot flush " + L->path + ": " + errno_text();
        if (::ftruncate(L->fd, static_cast<off_t>(L->end)) == 0)
            ::fdatasync(L->fd);
        return fail(VEL_E_HOST_IO, L->failure);
    }
    L->end += h.b.size();
    L->next_seq++;
    L->dirty = true;
    return VEL_S_OK;
}

Durable *attach(Db *d, const velh_config_t *cfg, int fd, uint64_t end, uint64_t image_id,
                uint32_t version) {
    auto *L = new Durable;
    L->version = version;
    L->path = cfg->log_path;
    L->fd = fd;
    L->end = end;
    L->image_id = image_id;
    L->sync_mode = cfg->log_sync;
    L->group_ms = cfg->log_group_ms != 0 ? cfg->log_group_ms : 10;
    d->durable = L;
    if (L->sync_mode == VELH_LOG_SYNC_GROUP)
        L->flusher = std::thread(flusher_loop, L);
    return L;
}

struct Op {
    uint64_t oid;
    ClassDef *cls;
    uint8_t op;
    uint32_t mo;
    const std::byte *img;
};

// A commit record's pages: loaded with their ids and linked.
bool replay_pages(Db *d, Loader *ld, In &in, uint32_t n_pages, uint64_t first_page_id,
                  std::string *why) {
    const uint32_t ps = d->cfg.seq_page_size;
    std::vector<std::byte *> fresh;
    for (uint32_t i = 0; i < n_pages && in.ok; ++i) {
        const auto id = in.get<uint64_t>();
        const auto pm = in.get<uint64_t>();
        const std::byte *bytes = in.bytes(ps);
        std::byte *pg;
        if (bytes == nullptr || pm > VELH_PM_ALT || id < first_page_id ||
            ld->add_page(&d->pms[pm], id, bytes, &pg) != VEL_S_OK) {
            *why = "a page of the record is malformed";
            return false;
        }
        fresh.push_back(pg);
    }
    for (std::byte *pg : fresh)
        if (!ld->link(pg, why))
            return false;
    return true;
}

// A commit record's objects, checked against the database but not applied.
bool replay_ops(Db *d, In &in, uint32_t n_objects, std::vector<Op> *ops, std::string *why) {
    std::unordered_set<uint64_t> oids;
    for (uint32_t i = 0; i < n_objects && in.ok; ++i) {
        Op o{};
        o.oid = in.get<uint64_t>();
        const auto code = in.get<uint16_t>();
        o.op = in.get<uint8_t>();
        in.get<uint8_t>();
        o.mo = in.get<uint32_t>();
        o.cls = class_of(d, code);
        auto it = d->chains.find(o.oid);
        Chain *ch = it != d->chains.end() ? it->second : nullptr;
        if (o.cls == nullptr || o.oid == 0 || o.oid >= (uint64_t(1) << 62) ||
            !oids.insert(o.oid).second || (o.op != kOpWrite && o.op != kOpDelete) ||
            (ch != nullptr && ch->class_code != code) || (o.op == kOpDelete && ch == nullptr) ||
            uint64_t(o.mo) + o.cls->image_bytes > UINT32_MAX) {
            *why = "object " + std::to_string(o.oid) + " of the record is malformed";
            return false;
        }
        if (o.op == kOpWrite && (o.img = in.bytes(o.cls->image_bytes)) == nullptr)
            break;
        ops->push_back(o);
    }
    if (!in.done()) {
        *why = "the record is malformed";
        return false;
    }
    return true;
}

// The new versions of the written objects, in the order of their ops: every
// tree checked and its references taken before any old version lets go of
// pages the new ones share.  Nothing is left behind on failure.
bool build_versions(Db *d, Loader *ld, std::vector<Op> &ops,
                    std::vector<std::pair<Version *, Op *>> *built, std::string *why) {
    const uint32_t afs = d->cfg.additional_object_field_size;
    for (Op &o : ops) {
        if (o.op != kOpWrite)
            continue;
        auto *v = new Version;
        built->emplace_back(v, &o);
        v->ts = d->commit_ts;
        v->data.assign((o.cls->image_bytes + 7) / 8, 0);
        std::memcpy(v->data.data(), o.img, o.cls->image_bytes);
        for (uint16_t fno : o.cls->seq_fields) {
            vel_seq_page_t **slot = root_slot(o.cls, v, o.cls->fields[fno], afs);
            const uint64_t id = reinterpret_cast<uint64_t>(*slot);
            *slot = nullptr;
            if (id == 0)
                continue;
            auto it = ld->ptr_of.find(id);
            if (it == ld->ptr_of.end() ||
                !ld->check(it->second, o.cls->fields[fno].elem_size, o.cls->pm, why)) {
                if (why->empty())
                    *why = "object " + std::to_string(o.oid) + " references no page";
                for (auto &[bv, bo] : *built)
                    release_version(d, bo->cls, bv, nullptr);
                return false;
            }
            *slot = reinterpret_cast<vel_seq_page_t *>(it->second);
            ref_add(*slot);
        }
    }
    return true;
}

// Publishes the ops: deletions drop their chains, writes replace the head
// (or start a chain) with the version built for them.
void apply_ops(Db *d, std::vector<Op> &ops, const std::vector<std::pair<Version *, Op *>> &built) {
    size_t next = 0;
    for (Op &o : ops) {
        auto it = d->chains.find(o.oid);
        Chain *ch = it != d->chains.end() ? it->second : nullptr;
        if (o.op == kOpDelete) {
            release_version(d, o.cls, ch->head, nullptr);
            d->chains.erase(o.oid);
            o.cls->objects.erase(o.oid);
            delete ch;
            continue;
        }
        Version *v = built[next++].first;
        if (ch == nullptr) {
            ch = new Chain;
            ch->oid = o.oid;
            ch->class_code = o.cls->code;
            ch->mo = o.mo;
            d->chains.emplace(o.oid, ch);
            o.cls->objects.emplace(o.oid, ch);
        } else {
            release_version(d, o.cls, ch->head, nullptr);
        }
        v->chain = ch;
        ch->head = v;
        if (o.oid >= d->next_oid.load())
            d->next_oid.store(o.oid + 1);
    }
}

// Applies one commit record; nothing of it is applied when it is refused.
bool replay_commit(Db *d, Loader *ld, In &in, uint64_t first_page_id, std::string *why) {
    const auto n_pages = in.get<uint32_t>();
    const auto n_objects = in.get<uint32_t>();
    std::vector<Op> ops;
    std::vector<std::pair<Version *, Op *>> built;
    if (!replay_pages(d, ld, in, n_pages, first_page_id, why) ||
        !replay_ops(d, in, n_objects, &ops, why) || !build_versions(d, ld, ops, &built, why))
        return false;
    apply_ops(d, ops, built);
    return true;
}

} // namespace

VEL_RET log_start(Db *d, int fd, const velh_config_t *cfg, uint64_t image_id,
                  uint64_t first_page_id, std::unordered_map<const std::byte *, uint64_t> ids) {
    const std::string path(cfg->log_path);
    const std::string h = log_header(d, image_id, first_page_id);
    if (!pwrite_all(fd, h.data(), h.size(), 0) || ::fdatasync(fd) != 0 || !sync_dir(path)) {
        std::string why = "cannot write the new log " + path + ": " + errno_text();
        // Back to the empty file, which the next open takes for no log.
        if (::ftruncate(fd, 0) == 0)
            ::fdatasync(fd);
        ::close(fd);
        return fail(VEL_E_HOST_IO, why);
    }
    Durable *L = attach(d, cfg, fd, kLogHeader, image_id, kLogVersion);
    L->next_page_id = first_page_id;
    L->id_of = std::move(ids);
    return VEL_S_OK;
}

namespace {

// Whether rec[0..avail) starts with a whole record: magic, type, a length
// within `avail`, the checksum; `len` receives its body length.
bool whole_record(const std::byte *rec, uint64_t avail, uint32_t *type, uint64_t *len) {
    uint32_t rh[2];
    uint64_t rl[2];
    if (avail < 24)
        return false;
    std::memcpy(rh, rec, 8);
    std::memcpy(rl, rec + 8, 16);
    *type = rh[1];
    *len = rl[0];
    return rh[0] == kRecMagic && (rh[1] == kRecClass || rh[1] == kRecCommit) && rl[0] >= 8 &&
           rl[0] <= avail - 24 &&
           XXH3_64bits_withSeed(rec + 24, rl[0], rec_seed(rh[1], rl[0])) == rl[1];
}

uint64_t seq_of(const std::byte *rec) {
    uint64_t seq;
    std::memcpy(&seq, rec + 24, 8);
    return seq;
}

// The whole records in `rest` past its first byte whose sequence numbers
// are `seq` or later: records a crash during one write cannot leave behind.
uint64_t records_after(const std::string &rest, uint64_t seq) {
    const auto *p = reinterpret_cast<const std::byte *>(rest.data());
    const char magic[4] = {'V', 'L', 'R', 'C'};
    uint64_t found = 0;
    for (size_t i = 1; i + 24 <= rest.size();) {
        const void *m = ::memmem(rest.data() + i, rest.size() - i, magic, 4);
        if (m == nullptr)
            break;
        i = size_t(static_cast<const char *>(m) - rest.data());
        uint32_t type;
        uint64_t len;
        if (whole_record(p + i, rest.size() - i, &type, &len) && seq_of(p + i) >= seq) {
            ++found;
            i += 24 + len;
        } else {
            ++i;
        }
    }
    return found;
}

} // namespace

namespace {

// The open of one log, step by step.  The replay owns the descriptor until
// it hands it to the database (attach, or the read-only lock); every
// failure closes it and leaves the file as it was.
struct Replay {
    Db *d;
    int fd;
    const velh_config_t *cfg;
    Loader *ld;
    velh_open_stats_t *stats;
    std::string path = cfg->log_path;
    bool ro = (cfg->open_flags & VELH_OPEN_READ_ONLY) != 0;
    bool recover = (cfg->open_flags & VELH_OPEN_RECOVER) != 0;
    uint64_t size = 0;
    uint64_t image_id = 0, first_page_id = 0; // from the header
    uint32_t version = kLogVersion;           // from the header
    uint64_t pos = kLogHeader, seq = 1;       // the first record not replayed

    ~Replay() {
        if (fd >= 0)
            ::close(fd);
    }
    VEL_RET io(uint64_t at) {
        return fail(VEL_E_HOST_IO, "cannot read " + path + " at offset " + std::to_string(at) +
                                       ": " + errno_text());
    }
    VEL_RET bad(const std::string &why) { return fail(VEL_E_HOST_BAD_LOG, path + ": " + why); }
    std::unordered_map<const std::byte *, uint64_t> ids() const {
        std::unordered_map<const std::byte *, uint64_t> m;
        for (auto &[pg, pi] : ld->info)
            m.emplace(pg, pi.id);
        return m;
    }
    // The database keeps the log: for appending, or only its lock.
    VEL_RET keep(uint64_t end, uint64_t next_page_id) {
        if (ro) {
            d->ro_log_fd = std::exchange(fd, -1);
            return VEL_S_OK;
        }
        Durable *L = attach(d, cfg, std::exchange(fd, -1), end, image_id, version);
        L->next_seq = seq;
        L->next_page_id = next_page_id;
        L->id_of = ids();
        return VEL_S_OK;
    }

    VEL_RET run() {
        struct stat st;
        if (::fstat(fd, &st) != 0)
            return io(0);
        size = uint64_t(st.st_size);
        if (size == 0 || unfinished()) { // created and never flushed: no log yet
            image_id = ld->image_id;
            return ro ? keep(0, 0)
                      : log_start(d, std::exchange(fd, -1), cfg, ld->image_id, ld->max_page_id + 1,
                                  ids());
        }
        if (VEL_RET r = header(); r != VEL_S_OK)
            return r;
        if (image_id != ld->image_id) {
            // A checkpoint stopped between renaming its image and its new
            // log: the image holds every record of the old log (no commit
            // is acknowledged in between), and a new log replaces it.
            if (!ld->checkpoint || image_id != ld->prev_image_id)
                return bad("it follows another image than the one opened");
            return ro ? keep(0, 0) : replace_contained();
        }
        if (VEL_RET r = records(); r != VEL_S_OK)
            return r;
        if (pos < size)
            if (VEL_RET r = tail(); r != VEL_S_OK)
                return r;
        free_unreferenced(ld);
        return keep(pos, std::max(ld->max_page_id, first_page_id - 1) + 1);
    }

    // A machine crash while a new log's header was written (before its
    // flush) leaves at most its 64 bytes, some of them zeros where a page
    // was not written; no record was written behind a header not flushed.
    // Anything else that is not a log is refused.
    bool unfinished() {
        std::byte hb[kLogHeader] = {};
        if (size > kLogHeader || pread_exact(fd, hb, size, 0) != 1)
            return false;
        for (size_t i = 0; i < std::min<uint64_t>(size, 8); ++i)
            if (hb[i] != std::byte{0} && hb[i] != std::byte(kLogMagic[i]))
                return false;
        uint64_t sum;
        std::memcpy(&sum, hb + 56, 8);
        return size < kLogHeader || sum != XXH3_64bits(hb, 56);
    }

    // Checks the 64-byte header against the image just loaded.
    VEL_RET header() {
        std::byte hb[kLogHeader];
        const int got = pread_exact(fd, hb, kLogHeader, 0);
        if (got < 0)
            return io(0);
        if (got == 0 || std::memcmp(hb, kLogMagic, 8) != 0)
            return bad("not a velhost commit log");
        In h(hb, kLogHeader);
        h.bytes(8);
        version = h.get<uint32_t>();
        const auto header_bytes = h.get<uint32_t>();
        const auto seq_ps = h.get<uint32_t>();
        const auto obj_ps = h.get<uint32_t>();
        image_id = h.get<uint64_t>();
        first_page_id = h.get<uint64_t>();
        const auto afs = h.get<uint16_t>();
        uint64_t sum;
        std::memcpy(&sum, hb + 56, 8);
        if (version < 1 || version > kLogVersion)
            return bad("format version " + std::to_string(version) +
                       "; this build reads versions 1 to " + std::to_string(kLogVersion));
        if (header_bytes != kLogHeader || sum != XXH3_64bits(hb, 56))
            return bad("the header is damaged (checksum)");
        if (image_id == ld->image_id &&
            (seq_ps != d->cfg.seq_page_size || obj_ps != d->cfg.object_page_size ||
             afs != d->cfg.additional_object_field_size || first_page_id <= ld->max_page_id))
            return bad("its page sizes or page ids disagree with the image");
        return VEL_S_OK;
    }

    // Puts a new, empty log for the image in place of the contained one.
    VEL_RET replace_contained() {
        std::string tmp;
        int nfd = prepare_log(d, path, ld->image_id, ld->max_page_id + 1, &tmp);
        if (nfd < 0)
            return VEL_E_HOST_IO;
        if (::rename(tmp.c_str(), path.c_str()) != 0 || !sync_dir(path)) {
            std::string why = "cannot replace the log " + path + ": " + errno_text();
            ::unlink(tmp.c_str());
            ::close(nfd);
            return fail(VEL_E_HOST_IO, why);
        }
        ::close(fd);
        fd = nfd;
        image_id = ld->image_id;
        version = kLogVersion;
        seq = 1;
        return keep(kLogHeader, ld->max_page_id + 1);
    }

    // Applies the whole records in sequence; stops at the first that is
    // short, damaged or out of sequence (pos, seq: that record).
    VEL_RET records() {
        std::string rec;
        while (pos < size) {
            const uint64_t avail = std::min<uint64_t>(size - pos, 24);
            rec.resize(avail);
            if (pread_exact(fd, rec.data(), avail, pos) < 0)
                return io(pos);
            uint64_t len = 0;
            if (avail == 24)
                std::memcpy(&len, rec.data() + 8, 8);
            if (avail < 24 || len > size - pos - 24)
                return VEL_S_OK;
            rec.resize(24 + len);
            if (pread_exact(fd, rec.data() + 24, len, pos + 24) < 0)
                return io(pos);
            uint32_t type;
            const auto *r = reinterpret_cast<const std::byte *>(rec.data());
            if (!whole_record(r, rec.size(), &type, &len) || seq_of(r) != seq)
                return VEL_S_OK;
            In in(r + 24, len);
            in.get<uint64_t>();
            std::string why;
            bool ok;
            if (type == kRecClass) {
                const auto code = in.get<uint16_t>();
                ok = get_class(d, in, code, version >= 2, &why) == VEL_S_OK && in.done();
            } else {
                ok = replay_commit(d, ld, in, first_page_id, &why);
            }
            if (!ok)
                return bad("record " + std::to_string(seq) + " cannot be applied: " + why);
            pos += 24 + len;
            ++seq;
            ++stats->log_replayed;
        }
        return VEL_S_OK;
    }

    // What follows the last record applied.  A torn tail is a short or bad
    // last record, which a crash during its write leaves: it is cut.
    // Damage that whole records follow is not: those were acknowledged, and
    // nothing is cut without being asked (VELH_OPEN_RECOVER), nor deleted.
    VEL_RET tail() {
        std::string rest(size - pos, '\0');
        if (pread_exact(fd, rest.data(), rest.size(), pos) != 1)
            return io(pos);
        const uint64_t later = records_after(rest, seq);
        const std::string at = std::to_string(pos);
        const std::string aside = path + ".damaged-" + at;
        if (later != 0 && !recover)
            return bad("the record at offset " + at + " is damaged and " + std::to_string(later) +
                       " whole records follow it; opening with VELH_OPEN_RECOVER keeps the " +
                       "records before it and moves the rest aside to " + aside);
        (later != 0 ? stats->log_set_aside_records : stats->log_cut_records) = later + 1;
        (later != 0 ? stats->log_set_aside_bytes : stats->log_cut_bytes) = rest.size();
        stats->log_damage_offset = pos;
        if (ro)
            return VEL_S_OK;
        if (later != 0) {
            int afd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            const bool moved = afd >= 0 && write_all(afd, rest.data(), rest.size()) &&
                               ::fsync(afd) == 0 && sync_dir(aside);
            std::string why = moved ? "" : errno_text();
            if (afd >= 0)
                ::close(afd);
            if (!moved) {
                if (afd >= 0)
                    ::unlink(aside.c_str());
                return fail(VEL_E_HOST_IO, "cannot move the damaged rest of " + path + " to " +
                                               aside + ": " + why);
            }
        }
        if (::ftruncate(fd, static_cast<off_t>(pos)) != 0 || ::fdatasync(fd) != 0)
            return fail(VEL_E_HOST_IO,
                        "cannot cut " + path + " at offset " + at + ": " + errno_text());
        return VEL_S_OK;
    }
};

} // namespace

VEL_RET log_open(Db *d, int fd, const velh_config_t *cfg, Loader *ld, velh_open_stats_t *stats) {
    return Replay{d, fd, cfg, ld, stats}.run();
}

VEL_RET log_close(Db *d) {
    Durable *L = d->durable;
    if (L == nullptr)
        return VEL_S_OK;
    {
        std::lock_guard<std::mutex> lock(L->mutex);
        L->stop = true;
    }
    L->flusher_cv.notify_all();
    if (L->flusher.joinable())
        L->flusher.join();
    // The last flush of the grouped and unflushed modes: its failure is the
    // caller's to hear, though the database goes all the same.
    VEL_RET r = VEL_S_OK;
    if (L->fd >= 0 && ::fdatasync(L->fd) != 0)
        r = fail(VEL_E_HOST_IO, "cannot flush " + L->path + ": " + errno_text() +
                                    "; commits since the last flush may be lost in a crash");
    if (L->fd >= 0)
        ::close(L->fd);
    delete L;
    d->durable = nullptr;
    return r;
}

VEL_RET log_class(Db *d, const ClassDef &cls, uint16_t class_code) {
    Durable *L = d->durable;
    const bool orders = L->version >= 2;
    for (const Field &f : cls.fields)
        if (f.order != 0 && !orders)
            return fail(VEL_E_HOST_BAD_ARG,
                        L->path + " is a log of format version " + std::to_string(L->version) +
                            ", which keeps no declared orders (field " + f.name + " of class " +
                            cls.name + "); a checkpoint starts a log of the current version");
    Out o;
    o.put<uint64_t>(L->next_seq);
    o.put<uint16_t>(class_code);
    put_class(o, cls, orders);
    return append_locked(L, kRecClass, o.b);
}

namespace {

// New pages: those the transaction created that its trees reach, each given
// the next page id.
VEL_RET number_fresh_pages(Db *d, Txn *txn, std::vector<std::pair<std::byte *, uint8_t>> *fresh) {
    Durable *L = d->durable;
    const uint32_t ps = d->cfg.seq_page_size;
    const uint32_t afs = d->cfg.additional_object_field_size;
    std::vector<std::byte *> stack;
    std::unordered_set<std::byte *> seen;
    for (Chain *ch : txn->written) {
        Version *v = ch->priv;
        if (v->deleted)
            continue;
        ClassDef *cls = class_of(d, ch->class_code);
        for (uint16_t fno : cls->seq_fields) {
            if (auto *root =
                    reinterpret_cast<std::byte *>(*root_slot(cls, v, cls->fields[fno], afs)))
                stack.push_back(root);
            while (!stack.empty()) {
                std::byte *pg = stack.back();
                stack.pop_back();
                if (!page_live(pg))
                    return fail(VEL_E_HOST_TRANS_FAILED, "a tree references a freed page");
                if (page_meta(pg)->creator != txn->serial || !seen.insert(pg).second)
                    continue;
                L->id_of[pg] = L->next_page_id++;
                fresh->emplace_back(pg, static_cast<uint8_t>(cls->pm->which));
                if (!is_inner(pg))
                    continue;
                auto *p = reinterpret_cast<vel_seq_page_t *>(pg);
                if (p->hdr.user > (ps - 8) / 16)
                    return fail(VEL_E_HOST_TRANS_FAILED, "an inner page overflows");
                for (uint32_t i = 0; i < p->hdr.user; ++i)
                    stack.push_back(reinterpret_cast<std::byte *>(entry_at(pg, ps, i)->page));
            }
        }
    }
    return VEL_S_OK;
}

} // namespace

VEL_RET log_encode_commit(Db *d, Txn *txn, std::string *record) {
    Durable *L = d->durable;
    record->clear();
    if (!L->failure.empty())
        return fail(VEL_E_HOST_IO, "the log failed earlier: " + L->failure);
    if (txn->written.empty())
        return VEL_S_OK;
    const uint32_t ps = d->cfg.seq_page_size;
    const uint32_t afs = d->cfg.additional_object_field_size;
    std::vector<std::pair<std::byte *, uint8_t>> fresh;
    if (VEL_RET r = number_fresh_pages(d, txn, &fresh); r != VEL_S_OK)
        return r;
    Out o;
    o.b.reserve(24 + fresh.size() * (ps + 16) + txn->written.size() * 64);
    o.put<uint64_t>(L->next_seq);
    o.put<uint32_t>(static_cast<uint32_t>(fresh.size()));
    const size_t n_objects_at = o.b.size();
    o.put<uint32_t>(0);
    for (auto &[pg, pm] : fresh) {
        o.put<uint64_t>(L->id_of[pg]);
        o.put<uint64_t>(pm);
        if (!put_page(o, pg, ps, L->id_of))
            return fail(VEL_E_HOST_TRANS_FAILED, "a tree references a page the log never saw");
    }
    uint32_t n_objects = 0;
    for (Chain *ch : txn->written) {
        Version *v = ch->priv;
        if (v->deleted && ch->head == nullptr)
            continue; // born and deleted in this transaction
        ClassDef *cls = class_of(d, ch->class_code);
        o.put<uint64_t>(ch->oid);
        o.put<uint16_t>(ch->class_code);
        o.put<uint8_t>(v->deleted ? kOpDelete : kOpWrite);
        o.put<uint8_t>(0);
        o.put<uint32_t>(ch->mo);
        ++n_objects;
        if (v->deleted)
            continue;
        const size_t at = o.b.size();
        o.bytes(v->bytes(), cls->image_bytes);
        for (uint16_t fno : cls->seq_fields) {
            const auto *root =
                reinterpret_cast<const std::byte *>(*root_slot(cls, v, cls->fields[fno], afs));
            uint64_t id = 0;
            if (root != nullptr) {
                auto it = L->id_of.find(root);
                if (it == L->id_of.end())
                    return fail(VEL_E_HOST_TRANS_FAILED, "a root the log never saw");
                id = it->second;
            }
            std::memcpy(o.b.data() + at + afs + cls->fields[fno].off, &id, 8);
        }
    }
    std::memcpy(o.b.data() + n_objects_at, &n_objects, 4);
    *record = std::move(o.b);
    return VEL_S_OK;
}

VEL_RET log_append(Db *d, const std::string &record) {
    if (record.empty())
        return VEL_S_OK;
    return append_locked(d->durable, kRecCommit, record);
}

} // namespace velhost

namespace velhost {
namespace {

// Opens and locks the image and the log (-1: none) before either is read.
// A read-only open of a missing log opens none.
VEL_RET lock_files(const velh_config_t *cfg, const char *image_path, bool ro, int *image_fd,
                   int *log_fd) {
    if (image_path != nullptr && (*image_fd = open_locked(image_path, O_RDONLY, !ro)) < 0)
        return errno == EWOULDBLOCK ? VEL_E_HOST_BUSY : VEL_E_HOST_IO;
    if (cfg->log_path != nullptr) {
        *log_fd = open_locked(cfg->log_path, ro ? O_RDONLY : O_RDWR | O_CREAT, !ro);
        if (*log_fd < 0 && !(ro && errno == ENOENT)) {
            const VEL_RET r = errno == EWOULDBLOCK ? VEL_E_HOST_BUSY : VEL_E_HOST_IO;
            if (*image_fd >= 0)
                ::close(*image_fd);
            *image_fd = -1;
            return r;
        }
        fail(VEL_S_OK, "");
    }
    return VEL_S_OK;
}

// Without an image, the log's header gives the layout of the empty database
// (a header that is not one is left to the replay to refuse).
void layout_from_log(int log_fd, velh_config_t *c) {
    std::byte hb[kLogHeader];
    if (pread_exact(log_fd, hb, kLogHeader, 0) != 1 || std::memcmp(hb, kLogMagic, 8) != 0)
        return;
    In in(hb, kLogHeader);
    in.bytes(16);
    const auto seq_ps = in.get<uint32_t>();
    const auto obj_ps = in.get<uint32_t>();
    in.bytes(16);
    const auto afs = in.get<uint16_t>();
    if (obj_ps <= UINT16_MAX) {
        c->seq_page_size = seq_ps;
        c->object_page_size = static_cast<uint16_t>(obj_ps);
        c->additional_object_field_size = afs;
    }
}

} // namespace
} // namespace velhost

using namespace velhost;

extern "C" {

const char *velh_error_message(void) { return error_text(); }

VEL_RET velh_db_save(velh_db_t *db, const char *path) {
    if (db == nullptr)
        return fail(VEL_E_HOST_BAD_ARG, "no database");
    Db *d = reinterpret_cast<Db *>(db);
    std::lock_guard<std::mutex> files(d->file_mutex);
    ImageSave how;
    if (path != nullptr && same_file(d->image_fd, path)) {
        // Saving over the database's own image moves its lock to the new
        // file; with a log that follows the image, only a checkpoint may.
        if (d->read_only)
            return fail(VEL_E_HOST_READ_ONLY, std::string(path) + " is opened read-only");
        if (d->durable != nullptr)
            return fail(VEL_E_HOST_BAD_ARG, std::string(path) +
                                                " is the image the log follows; a checkpoint "
                                                "replaces it");
        how.keep_lock = true;
    }
    VEL_RET r = image_save(d, path, &how);
    if (how.lock_fd >= 0) {
        ::close(d->image_fd);
        d->image_fd = how.lock_fd;
    }
    return r;
}

VEL_RET velh_db_open_file(const velh_config_t *cfg, const char *image_path, velh_db_t **db,
                          velh_open_stats_t *stats) {
    if (cfg == nullptr || db == nullptr)
        return fail(VEL_E_HOST_BAD_ARG, "no configuration or result");
    if ((cfg->open_flags & ~(VELH_OPEN_READ_ONLY | VELH_OPEN_RECOVER)) != 0)
        return fail(VEL_E_HOST_BAD_ARG, "unknown open flags");
    fail(VEL_S_OK, "");
    const bool ro = (cfg->open_flags & VELH_OPEN_READ_ONLY) != 0;
    velh_open_stats_t st{};
    Loader ld;
    velh_db_t *h = nullptr;
    velh_config_t c = *cfg;
    // Both files are locked before either is read, and for the life of the
    // database.
    int image_fd = -1, log_fd = -1;
    if (VEL_RET r = lock_files(cfg, image_path, ro, &image_fd, &log_fd); r != VEL_S_OK)
        return r;
    if (image_path == nullptr && log_fd >= 0)
        layout_from_log(log_fd, &c);
    VEL_RET r = image_load(&c, image_fd, image_path, &ld, &h, &st);
    if (r != VEL_S_OK) {
        if (image_fd >= 0)
            ::close(image_fd);
        if (log_fd >= 0)
            ::close(log_fd);
        return r;
    }
    Db *d = reinterpret_cast<Db *>(h);
    d->image_fd = image_fd;
    if (log_fd >= 0) {
        r = log_open(d, log_fd, cfg, &ld, &st);
        if (r != VEL_S_OK) {
            discard_db(d);
            return r;
        }
    }
    d->read_only = ro; // after the replay, whose class records define classes
    st.classes = d->n_classes.load() - 1;
    st.objects = d->chains.size();
    if (stats != nullptr)
        *stats = st;
    *db = h;
    return VEL_S_OK;
}

VEL_RET velh_checkpoint(velh_db_t *db, const char *image_path) {
    if (db == nullptr)
        return fail(VEL_E_HOST_BAD_ARG, "no database");
    Db *d = reinterpret_cast<Db *>(db);
    if (d->read_only)
        return fail(VEL_E_HOST_READ_ONLY, "the database is opened read-only");
    Durable *L = d->durable;
    if (L == nullptr)
        return fail(VEL_E_HOST_BAD_ARG, "the database has no log");
    std::lock_guard<std::mutex> lock(L->mutex);
    std::lock_guard<std::mutex> files(d->file_mutex);
    // The new log is written and flushed before the image is renamed in, so
    // that every failure before that rename changes nothing.  After it the
    // image holds every acknowledged commit: the old log may stay (a reopen
    // starts a new one) as long as no commit is acknowledged into it.
    std::string tmp;
    int log_fd = -1;
    ImageSave how;
    how.prev_id = &L->image_id;
    how.keep_lock = true;
    how.before_rename = [&](uint64_t id, uint64_t pages) {
        log_fd = prepare_log(d, L->path, id, pages + 1, &tmp);
        return log_fd >= 0 ? VEL_S_OK : VEL_E_HOST_IO;
    };
    VEL_RET r = image_save(d, image_path, &how);
    if (!how.renamed) { // nothing changed; commits go on as before
        if (log_fd >= 0) {
            ::close(log_fd);
            ::unlink(tmp.c_str());
        }
        return r;
    }
    ::close(d->image_fd);
    d->image_fd = how.lock_fd;
    if (r == VEL_S_OK && ::rename(tmp.c_str(), L->path.c_str()) != 0)
        r = fail(VEL_E_HOST_IO, "cannot rename " + tmp + " to " + L->path + ": " + errno_text());
    if (r != VEL_S_OK) {
        L->failure = std::string("a checkpoint failed: ") + velh_error_message();
        ::close(log_fd);
        ::unlink(tmp.c_str());
        return r;
    }
    ::close(L->fd);
    L->fd = log_fd;
    L->end = kLogHeader;
    L->version = kLogVersion;
    L->next_seq = 1;
    L->image_id = how.image_id;
    L->next_page_id = how.numbering.size() + 1;
    L->id_of = std::move(how.numbering);
    L->dirty = false;
    if (!sync_dir(L->path)) {
        L->failure = "a checkpoint could not flush the folder of " + L->path + ": " + errno_text();
        return fail(VEL_E_HOST_IO, L->failure);
    }
    L->failure.clear();
    return VEL_S_OK;
}

} // extern "C"
