// Internals of velhost, the embedded in-memory host.
//
// Versions.  Every object is a Chain of immutable committed Versions, newest
// first, each stamped with the commit timestamp that published it.  A
// transaction reads the newest version whose stamp is <= its snapshot (the
// last commit when it began) and writes a private version of its own, made on
// its first write of the object; commit stamps the private versions and puts
// them at the chain heads, rollback drops them.  A superseded version is
// retired at the stamp of the commit that replaced it and released once no
// running transaction's snapshot is older than that stamp.
//
// Sequence pages.  A field's page tree is shared between versions: each
// version's root slot and each inner-page entry holds one reference, counted
// in the page's ref_count.  Making a private version increments the roots it
// copies; releasing a version prunes them (decrement, free at zero, recurse).
// So a page is shared, and must be copied before it is written, exactly
// while ref_count > 1.
//
// Locks, outermost first: Db::writer_mutex (one read-write transaction at a
// time unless concurrent_write_transactions), Db::schema_mutex, Durable::mutex
// (the commit log, durable.h), Db::gc_mutex, Db::state_mutex (timestamps,
// active snapshots, retired versions; held briefly), Db::objects_mutex
// (shared by readers, exclusive while chains change; held briefly),
// Db::alloc_mutex (arenas and accounting).  Page reference counts are atomic;
// PageManager::cow_mutex is the module's copy-on-write lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "velembed.h"

namespace velhost {

struct Db;
struct Txn;
struct Durable;

// ---- sequence page arenas -------------------------------------------------

// Pages are carved from chunks of kChunkBytes, aligned to kChunkBytes so that
// a page's chunk is found by masking its address.  A chunk is one x86-64
// huge page: add_chunk asks for transparent huge pages, so that reads
// spread over many pages cost one TLB entry per chunk, not one per page.
//
//   offset            content
//   0                 ChunkHdr, then PageMeta[n_slots]
//   first_off         slot 0: page_size bytes of page, then kRedZone bytes
//   first_off + k*s   slot k (s = page_size + kRedZone)
//
// Under AddressSanitizer free pages and every red zone are poisoned, so a
// write past a page's end or into a freed page is reported.  Elsewhere the
// red zone is empty and first_off a multiple of 4 KiB: a 4 KiB page then
// fills one 4 KiB frame, where a 64-byte red zone put every page across
// two, and a scan reading pages from memory stalled at each frame's end
// (the hardware prefetcher stops there).  A scan of 10^7 int4 in place ran
// at 0.84x a plain loop's rate with the red zone, 0.93x without.
#if defined(__SANITIZE_ADDRESS__)
#define VELH_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELH_ASAN 1
#endif
#endif
constexpr size_t kChunkBytes = size_t(2) << 20;
#ifdef VELH_ASAN
constexpr uint32_t kRedZone = 64;
constexpr uint32_t kSlotAlign = 64;
#else
constexpr uint32_t kRedZone = 0;
constexpr uint32_t kSlotAlign = 4096;
#endif
constexpr uint32_t kChunkMagic = 0x564c4843; // "VLHC"

struct PageMeta {
    uint8_t live;     // 1 while allocated
    uint8_t reached;  // scratch mark of the commit sweep
    uint64_t creator; // serial of the transaction that created it and has
                      // not ended yet; 0 otherwise
};

struct PageManager;

struct ChunkHdr {
    uint32_t magic;
    uint32_t n_slots;
    uint32_t first_off;
    uint32_t slot_size;
    PageManager *pm;
    PageMeta meta[1]; // n_slots entries
};

struct PageManager {
    vel_page_manager_t pub; // pub.host points back here
    Db *db = nullptr;
    int which = 0; // VELH_PM_INMEM or VELH_PM_ALT
    uint32_t page_size = 0;
    std::mutex cow_mutex; // vel_seq_lock_cow_bitmap
    // Guarded by Db::alloc_mutex:
    std::vector<void *> chunks;
    std::vector<std::byte *> free_pages; // LIFO: the warmest page first
    velh_page_stats_t stats{};
};

// ---- schema ----------------------------------------------------------------

struct Field {
    std::string name;
    uint8_t type = 0;
    uint8_t order = 0; // declared order (vel_seq_order_t) of a sequence field; kept, not enforced
    bool is_seq = false;
    bool is_char = false;
    uint16_t size = 0;      // bytes in the object
    uint16_t elem_size = 0; // sequence element / scalar size
    uint32_t u_off = 0;
    uint32_t c_off = 0;
    uint32_t off = 0; // the offset this class uses
};

struct Chain;

struct ClassDef {
    uint16_t code = 0;
    std::string name;
    uint32_t flags = 0;
    PageManager *pm = nullptr;
    std::vector<Field> fields;
    std::vector<uint16_t> seq_fields; // field numbers of sequence fields
    uint32_t image_bytes = 0;         // object image: header + fields, whole pages
    uint32_t pages_per_object = 0;
    std::map<uint64_t, Chain *> objects; // by oid; guarded by Db::objects_mutex
};

// ---- objects and versions --------------------------------------------------

struct Version {
    uint64_t ts = 0;      // commit stamp; 0 while private
    bool deleted = false; // a tombstone: the object does not exist
    Version *older = nullptr;
    Chain *chain = nullptr;
    std::vector<uint64_t> data;      // object image, image_bytes (8-aligned)
    std::vector<uint8_t> privatized; // VELH_PM_ALT: field tree already private
    std::byte *bytes() { return reinterpret_cast<std::byte *>(data.data()); }
};

struct Chain {
    uint64_t oid = 0;
    uint16_t class_code = 0;
    uint32_t mo = 0;
    Version *head = nullptr; // newest committed version; null until first commit
    Txn *writer = nullptr;   // transaction holding a private version
    Version *priv = nullptr; // that private version
};

// ---- connections and transactions ------------------------------------------

struct Txn {
    uint64_t serial = 0;
    uint64_t snapshot = 0;
    bool rw = false;
    std::vector<Chain *> written; // chains holding a private version of ours
    std::vector<std::pair<std::byte *, PageManager *>> created; // page creations
    std::vector<std::vector<uint64_t>> indexes;                 // oids of each index cursor
    // Pages freed while the transaction runs stay out of the free lists
    // until it ends: an update that fails halfway may leave entries that
    // still point to a page it freed, and such a reference must keep
    // meaning "freed" (not "some other live page") until rollback.
    std::vector<std::pair<std::byte *, PageManager *>> quarantine;
    // Set when an update failed after it may have changed pages (a page
    // could not be made, a prune failed, a trap left the module): the
    // module cannot undo half an update, so the commit is refused and rolls
    // back.  Reads go on; further updates are refused.
    VEL_RET doomed = VEL_S_OK;
};

// The transaction whose write access (vel_writing .. vel_end_writing) is
// open on this thread, for a trap to doom it.
extern thread_local Txn *t_writing;
inline void doom(Txn *txn, VEL_RET code) {
    if (txn != nullptr && txn->doomed == VEL_S_OK)
        txn->doomed = code;
}

// The object a connection's transaction last opened for writing.  While
// that transaction (by serial) is the chain's writer, nobody else changes
// the chain, so repeated access to it needs neither the chain lookup nor
// Db::objects_mutex.
struct WriteCache {
    uint64_t serial = 0; // 0: empty
    uint64_t oid = 0;
    uint16_t class_code = 0;
    uint16_t n_fields = 0;
    bool alt = false; // the class's pages are written in place: first writes privatise
    uint32_t image_bytes = 0;
    ClassDef *cls = nullptr;
    Chain *chain = nullptr;
};

struct Conn {
    vel_db_connection_t pub; // pub.host points back here
    Db *db = nullptr;
    Txn *txn = nullptr;
    WriteCache last_write;
};

struct Retired {
    uint64_t ts; // stamp of the commit that superseded / deleted it
    Chain *chain;
    Version *newer; // version whose `older` is `version`; null: remove chain
    Version *version;
};

// Database header block: the module finds the dictionary at dict_offs from
// the header and the class table at v_class_info from the dictionary.
struct HeaderBlock {
    vel_database_header_t hdr;
    vel_dictionary_t dict;
    vel_class_info_t classes[VELH_MAX_CLASSES];
};

struct Db {
    HeaderBlock block{};
    velh_config_t cfg{};
    uint32_t obj_data = 0; // object data bytes a page: pagesize - 24
    PageManager pms[2];

    std::mutex schema_mutex;
    std::unique_ptr<ClassDef> classes[VELH_MAX_CLASSES];
    std::atomic<uint32_t> n_classes{1}; // class code 0 is never used

    std::mutex writer_mutex;
    std::condition_variable writer_cv;
    bool writer_active = false;

    // Serialises garbage collection, so that versions of one chain are
    // released oldest first even when several transactions end at once.
    std::mutex gc_mutex;

    std::mutex state_mutex;
    uint64_t commit_ts = 1;
    std::multiset<uint64_t> active; // snapshots of running transactions
    std::vector<Retired> retired;

    std::shared_mutex objects_mutex;
    std::unordered_map<uint64_t, Chain *> chains;

    std::mutex alloc_mutex;
    uint64_t fail_countdown = 0; // guarded by alloc_mutex
    bool fail_sticky = false;
    bool failing = false;

    std::atomic<uint64_t> next_oid{1};
    std::atomic<uint32_t> n_connections{0};

    Durable *durable = nullptr; // the commit log, when the config names one
    // Files (files.cpp): the descriptors that hold the locks on the image
    // the database was opened from or last checkpointed to, and, read-only,
    // on its log (a writable database's log lock is Durable::fd).
    std::mutex file_mutex; // guards image_fd
    int image_fd = -1;
    int ro_log_fd = -1;
    bool read_only = false; // VELH_OPEN_READ_ONLY: no writes, no file changes
};

// ---- helpers shared by the source files -----------------------------------

Db *db_of(vel_db_connection_h con);
Conn *conn_of(vel_db_connection_h con);
PageManager *pm_of(vel_page_manager_t *pm);
ClassDef *class_of(Db *db, uint16_t class_code);

inline uint32_t &ref_count_word(vel_seq_page_t *pg) { return pg->ref_count; }

// Pages (pages.cpp).
VEL_RET page_alloc(PageManager *pm, Txn *creator, std::byte **page);
void page_free(PageManager *pm, std::byte *page, Txn *txn);
void page_free_many(PageManager *pm, const std::vector<std::byte *> &pages);
bool page_live(const void *page);
void release_quarantine(Db *db, Txn *txn);
PageMeta *page_meta(std::byte *page);
void arena_init(PageManager *pm, Db *db, int which, uint32_t page_size);
void arena_warm(PageManager *pm, uint32_t n_pages);
void arena_destroy(PageManager *pm);
uint32_t ref_load(vel_seq_page_t *pg);
void ref_add(vel_seq_page_t *pg);
void prune_tree(PageManager *pm, vel_seq_page_t *root, Txn *txn);
VEL_RET make_tree_private(Txn *txn, PageManager *pm, vel_seq_page_t **slot);
VEL_RET sweep_created(Db *db, Txn *txn, bool committing);

// Versions (db.cpp).
Version *visible_version(Chain *c, Txn *txn);
void release_version(Db *db, ClassDef *cls, Version *v, Txn *txn);

// Object slots of sequence roots in a version.
inline vel_seq_page_t **root_slot(ClassDef *, Version *v, const Field &f, uint32_t afs) {
    return reinterpret_cast<vel_seq_page_t **>(v->bytes() + afs + f.off);
}

} // namespace velhost
