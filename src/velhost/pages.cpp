// Sequence page arenas and the page services of velhost.h.
//
// Memory fresh from the operating system costs about 10 us per 4 KiB page on
// its first touch (the kernel zeroes and maps it), some forty times a memcpy
// of the page, so pages come from 2 MiB chunks (huge pages where the kernel gives them) and freed
// pages go to a LIFO free list that the next allocation reuses.  A benchmark therefore measures the
// warm pool once its working set has been allocated and freed before, or when the database was
// opened with velh_config_t.warm_pages; the first allocations of a fresh database measure fresh
// memory.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>

#include "host_internal.h"
#include "seq_layout.h"

#ifdef VELH_ASAN
#include <sanitizer/asan_interface.h>
#define VELH_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define VELH_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define VELH_POISON(p, n) ((void)(p), (void)(n))
#define VELH_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace velhost {

using namespace velseq::layout;

namespace {

ChunkHdr *chunk_of(const void *page) {
    auto a = reinterpret_cast<uintptr_t>(page) & ~(uintptr_t(kChunkBytes) - 1);
    return reinterpret_cast<ChunkHdr *>(a);
}

uint32_t slot_of(ChunkHdr *ch, const void *page) {
    auto off = static_cast<uint32_t>(reinterpret_cast<const std::byte *>(page) -
                                     reinterpret_cast<std::byte *>(ch));
    return (off - ch->first_off) / ch->slot_size;
}

// Transparent huge pages for the arenas unless VELH_HUGEPAGES=0 (to
// measure the fallback); where the kernel has them off, the advice is void.
bool use_huge_pages() {
    static const bool on = [] {
        const char *v = std::getenv("VELH_HUGEPAGES");
        return v == nullptr || std::strcmp(v, "0") != 0;
    }();
    return on;
}

// Adds one chunk of free pages.  Called with Db::alloc_mutex held.
bool add_chunk(PageManager *pm) {
    const uint32_t slot = pm->page_size + kRedZone;
    // Header and meta array, then slots from a kSlotAlign boundary.
    uint32_t n = static_cast<uint32_t>(kChunkBytes / (slot + sizeof(PageMeta)));
    uint32_t first = 0;
    for (;; --n) {
        first = static_cast<uint32_t>(offsetof(ChunkHdr, meta) + n * sizeof(PageMeta));
        first = (first + kSlotAlign - 1) & ~(kSlotAlign - 1);
        if (first + size_t(n) * slot <= kChunkBytes)
            break;
    }
    void *mem = std::aligned_alloc(kChunkBytes, kChunkBytes);
    if (mem == nullptr)
        return false;
    if (use_huge_pages())
        madvise(mem, kChunkBytes, MADV_HUGEPAGE); // advice only: failure keeps 4 KiB pages
    auto *ch = static_cast<ChunkHdr *>(mem);
    ch->magic = kChunkMagic;
    ch->n_slots = n;
    ch->first_off = first;
    ch->slot_size = slot;
    ch->pm = pm;
    auto *base = static_cast<std::byte *>(mem);
    pm->chunks.push_back(mem);
    // Pushed in reverse so that the lowest address is handed out first.
    for (uint32_t i = n; i-- > 0;) {
        ch->meta[i] = PageMeta{0, 0, 0};
        std::byte *pg = base + first + size_t(i) * slot;
        pm->free_pages.push_back(pg);
    }
    VELH_POISON(base + first, size_t(n) * slot);
    return true;
}

// The fault injector; called with Db::alloc_mutex held.
bool injected_failure(Db *db) {
    if (db->failing)
        return true;
    if (db->fail_countdown == 0)
        return false;
    if (--db->fail_countdown != 0)
        return false;
    db->failing = db->fail_sticky;
    return true;
}

} // namespace

uint32_t ref_load(vel_seq_page_t *pg) {
    return std::atomic_ref<uint32_t>(pg->ref_count).load(std::memory_order_acquire);
}

void ref_add(vel_seq_page_t *pg) {
    std::atomic_ref<uint32_t>(pg->ref_count).fetch_add(1, std::memory_order_acq_rel);
}

// Decrements unless already zero; returns the new count, or -1 when the
// count was zero (a release too many).
static int64_t ref_sub(vel_seq_page_t *pg) {
    std::atomic_ref<uint32_t> rc(pg->ref_count);
    uint32_t old = rc.load(std::memory_order_acquire);
    do {
        if (old == 0)
            return -1;
    } while (!rc.compare_exchange_weak(old, old - 1, std::memory_order_acq_rel));
    return int64_t(old) - 1;
}

PageMeta *page_meta(std::byte *page) {
    ChunkHdr *ch = chunk_of(page);
    return &ch->meta[slot_of(ch, page)];
}

void arena_init(PageManager *pm, Db *db, int which, uint32_t page_size) {
    pm->db = db;
    pm->which = which;
    pm->page_size = page_size;
    pm->pub.large_page_size = [](vel_db_connection_h con) -> int32_t {
        // Every page manager of a database has the database's page size; a
        // transaction handle is accepted as the connection.
        // Asked several times by every module call: no out-of-line helpers.
        auto *c = con != nullptr ? static_cast<Conn *>(con->host) : nullptr;
        return c != nullptr && c->db != nullptr ? static_cast<int32_t>(c->db->cfg.seq_page_size)
                                                : 0;
    };
    pm->pub.host = pm;
}

void arena_warm(PageManager *pm, uint32_t n_pages) {
    std::lock_guard<std::mutex> lock(pm->db->alloc_mutex);
    while (pm->free_pages.size() < n_pages)
        if (!add_chunk(pm))
            return;
    // Touch every page once so that the kernel has mapped it.
    for (std::byte *pg : pm->free_pages) {
        VELH_UNPOISON(pg, pm->page_size);
        std::memset(pg, 0, pm->page_size);
        VELH_POISON(pg, pm->page_size);
    }
}

void arena_destroy(PageManager *pm) {
    for (void *c : pm->chunks) {
        auto *ch = static_cast<ChunkHdr *>(c);
        VELH_UNPOISON(reinterpret_cast<std::byte *>(c) + ch->first_off,
                      size_t(ch->n_slots) * ch->slot_size);
        std::free(c);
    }
    pm->chunks.clear();
    pm->free_pages.clear();
}

VEL_RET page_alloc(PageManager *pm, Txn *creator, std::byte **page) {
    Db *db = pm->db;
    std::byte *pg;
    {
        std::lock_guard<std::mutex> lock(db->alloc_mutex);
        if (injected_failure(db))
            return VEL_E_NOMEM;
        if (pm->free_pages.empty() && !add_chunk(pm))
            return VEL_E_NOMEM;
        pg = pm->free_pages.back();
        pm->free_pages.pop_back();
        VELH_UNPOISON(pg, pm->page_size);
        PageMeta *m = page_meta(pg);
        m->live = 1;
        m->reached = 0;
        m->creator = creator != nullptr ? creator->serial : 0;
        velh_page_stats_t &s = pm->stats;
        s.allocated++;
        s.live++;
        if (s.live > s.peak)
            s.peak = s.live;
    }
#ifndef NDEBUG
    // The module may not rely on anything but the header it was promised.
    std::memset(pg, 0xCB, pm->page_size);
#endif
    if (creator != nullptr)
        creator->created.emplace_back(pg, pm);
    *page = pg;
    return VEL_S_OK;
}

namespace {

// Marks a page free and poisons it.  Called with Db::alloc_mutex held.
void mark_free(PageManager *pm, std::byte *page) {
    PageMeta *m = page_meta(page);
    if (m->live == 0)
        vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__); // double free
    m->live = 0;
    m->creator = 0;
    pm->stats.freed++;
    pm->stats.live--;
    VELH_POISON(page, pm->page_size);
}

} // namespace

void page_free(PageManager *pm, std::byte *page, Txn *txn) {
    std::lock_guard<std::mutex> lock(pm->db->alloc_mutex);
    mark_free(pm, page);
    if (txn != nullptr)
        txn->quarantine.emplace_back(page, pm);
    else
        pm->free_pages.push_back(page);
}

// True for an allocated page of a velhost arena.
bool page_live(const void *page) {
    if (page == nullptr)
        return false;
    ChunkHdr *ch = chunk_of(page);
    if (ch->magic != kChunkMagic)
        return false;
    std::lock_guard<std::mutex> lock(ch->pm->db->alloc_mutex);
    return ch->meta[slot_of(ch, page)].live != 0;
}

// Frees pages straight to the pool under one lock; the caller knows that
// nothing refers to them any more.
void page_free_many(PageManager *pm, const std::vector<std::byte *> &pages) {
    std::lock_guard<std::mutex> lock(pm->db->alloc_mutex);
    for (std::byte *page : pages) {
        mark_free(pm, page);
        pm->free_pages.push_back(page);
    }
}

void release_quarantine(Db *db, Txn *txn) {
    std::lock_guard<std::mutex> lock(db->alloc_mutex);
    for (auto &[pg, pm] : txn->quarantine)
        pm->free_pages.push_back(pg);
    txn->quarantine.clear();
}

// A reference to a page that is no longer allocated is left over by an
// update that failed halfway (it freed a child before it could remove the
// parent's entry); it holds no count and is skipped.
void prune_tree(PageManager *pm, vel_seq_page_t *root, Txn *txn) {
    if (!page_live(root))
        return;
    int64_t n = ref_sub(root);
    if (n != 0)
        return; // still referenced elsewhere (or a release too many: keep it)
    if (page_kind(root) == kInnerPage)
        for (uint32_t i = 0; i < root->hdr.user; ++i)
            prune_tree(pm, entry_at(root, pm->page_size, i)->page, txn);
    page_free(pm, reinterpret_cast<std::byte *>(root), txn);
}

// Copies every shared page of a tree, top-down, the way the module's
// copy-on-write would on a full descent.  A failure leaves a consistent tree
// (every step is one complete page copy).
VEL_RET make_tree_private(Txn *txn, PageManager *pm, vel_seq_page_t **slot) {
    vel_seq_page_t *pg = *slot;
    if (pg == nullptr)
        return VEL_S_OK;
    const uint32_t ps = pm->page_size;
    const bool inner = page_kind(pg) == kInnerPage;
    if (ref_load(pg) > 1) {
        std::byte *q;
        VEL_RET r = page_alloc(pm, txn, &q);
        if (r != VEL_S_OK)
            return r;
        // Not the reference count: other versions may be releasing the page.
        auto *copy = reinterpret_cast<vel_seq_page_t *>(q);
        std::memcpy(&copy->hdr, &pg->hdr, sizeof pg->hdr);
        std::memcpy(q + 8, reinterpret_cast<std::byte *>(pg) + 8, ps - 8);
        std::atomic_ref<uint32_t>(copy->ref_count).store(1, std::memory_order_release);
        if (inner)
            for (uint32_t i = 0; i < copy->hdr.user; ++i)
                ref_add(entry_at(copy, ps, i)->page);
        ref_sub(pg);
        *slot = copy;
        pg = copy;
    }
    if (inner)
        for (uint32_t i = 0; i < pg->hdr.user; ++i)
            if (VEL_RET r = make_tree_private(txn, pm, &entry_at(pg, ps, i)->page); r != VEL_S_OK)
                return r;
    return VEL_S_OK;
}

namespace {

// Marks the pages created by `serial` that a tree reaches.  Pages made by
// others are committed and never point to a page of a running transaction,
// so the walk stops there.  The walk has no depth limit: every page it
// descends into is marked first, so a page is entered once and a cycle ends
// the walk instead of looping.  Called with Db::alloc_mutex held.  Returns
// false when the tree references a page that is no longer allocated: a tree
// left broken by an update that failed halfway.
bool mark_reached(PageManager *pm, vel_seq_page_t *root, uint64_t serial) {
    std::vector<vel_seq_page_t *> todo{root};
    const uint32_t ps = pm->page_size;
    while (!todo.empty()) {
        vel_seq_page_t *pg = todo.back();
        todo.pop_back();
        if (pg == nullptr)
            continue;
        auto *b = reinterpret_cast<std::byte *>(pg);
        ChunkHdr *ch = chunk_of(b);
        if (ch->magic != kChunkMagic)
            return false;
        PageMeta *m = page_meta(b);
        if (!m->live)
            return false;
        if (m->creator != serial || m->reached)
            continue;
        m->reached = 1;
        if (page_kind(pg) == kInnerPage)
            for (uint32_t i = 0; i < pg->hdr.user; ++i)
                todo.push_back(entry_at(pg, ps, i)->page);
    }
    return true;
}

// Levels of a tree down its left edge, stopping one past the deepest tree an
// iterator can read.
uint32_t left_edge_levels(PageManager *pm, vel_seq_page_t *pg) {
    uint32_t levels = 0;
    while (pg != nullptr && levels <= VEL_SEQ_MAX_DEPTH) {
        levels++;
        if (page_kind(pg) != kInnerPage || pg->hdr.user == 0)
            break;
        pg = entry_at(pg, pm->page_size, 0)->page;
    }
    return levels;
}

} // namespace

// At the end of a transaction: frees every page it created that no version
// references (the module may leave a created page unlinked after a failure)
// and forgets the creations.  When committing, the private versions about
// to be published are the only versions that can reach such pages; at
// rollback they are already pruned, so whatever is left is garbage.  A
// commit is refused before anything is freed when one of its trees
// references a freed page (VEL_E_HOST_TRANS_FAILED) or is deeper than an
// iterator can read (VEL_E_HOST_TREE_DEPTH).
VEL_RET sweep_created(Db *db, Txn *txn, bool committing) {
    if (committing) {
        const uint32_t afs = db->cfg.additional_object_field_size;
        for (Chain *c : txn->written) {
            Version *v = c->priv;
            ClassDef *cls = class_of(db, c->class_code);
            if (v == nullptr || v->deleted || cls == nullptr)
                continue;
            for (uint16_t fno : cls->seq_fields) {
                vel_seq_page_t *root = *root_slot(cls, v, cls->fields[fno], afs);
                std::lock_guard<std::mutex> lock(db->alloc_mutex);
                if (!mark_reached(cls->pm, root, txn->serial))
                    return VEL_E_HOST_TRANS_FAILED;
                if (left_edge_levels(cls->pm, root) > VEL_SEQ_MAX_DEPTH)
                    return VEL_E_HOST_TREE_DEPTH;
            }
        }
    }
    // Orphans: pages this transaction made that no version reaches.  An
    // orphan inner page (a sibling detached by a split whose update then
    // failed) holds a counted reference on each child; the children that are
    // not orphans themselves (pages shared with committed versions, or
    // reached ones) must lose that reference, or they outlive every version.
    const uint64_t serial = txn->serial;
    auto orphan = [serial](const void *pg) {
        const PageMeta *m = page_meta(static_cast<std::byte *>(const_cast<void *>(pg)));
        return m->live && m->creator == serial && !m->reached;
    };
    std::vector<std::pair<std::byte *, PageManager *>> orphans;
    std::vector<std::pair<vel_seq_page_t *, PageManager *>> released;
    for (auto &[pg, pm] : txn->created) {
        std::lock_guard<std::mutex> lock(db->alloc_mutex);
        if (!orphan(pg))
            continue;
        orphans.emplace_back(pg, pm);
        auto *p = reinterpret_cast<vel_seq_page_t *>(pg);
        if (page_kind(p) != kInnerPage)
            continue;
        const int32_t ps = pm->page_size;
        for (int32_t i = 0; i < p->hdr.user && i < inner_capacity(ps, 0, false, false); ++i) {
            vel_seq_page_t *child = entry_at(p, ps, i)->page;
            if (child != nullptr && chunk_of(child)->magic == kChunkMagic && !orphan(child))
                released.emplace_back(child, pm);
        }
    }
    for (auto &[pg, pm] : txn->created) {
        std::lock_guard<std::mutex> lock(db->alloc_mutex);
        PageMeta *m = page_meta(pg);
        if (m->live && m->creator == serial) {
            m->creator = 0;
            m->reached = 0;
        }
    }
    for (auto &[pg, pm] : orphans)
        page_free(pm, pg, txn);
    for (auto &[child, pm] : released)
        prune_tree(pm, child, txn);
    txn->created.clear();
    return VEL_S_OK;
}

} // namespace velhost

using namespace velhost;

namespace {

// velh_fail_prune's countdowns, per database (rarely more than one).
std::mutex g_prune_mutex;
std::vector<std::pair<const Db *, uint64_t>> g_prune_countdown;

bool prune_fails(const Db *db) {
    std::lock_guard<std::mutex> lock(g_prune_mutex);
    for (auto &[d, n] : g_prune_countdown)
        if (d == db && n != 0)
            return --n == 0;
    return false;
}

// The transaction of a connection when it may create pages.
VEL_RET writer_txn(vel_db_connection_h con, Txn **txn) {
    Conn *c = conn_of(con);
    if (c == nullptr)
        return VEL_E_HOST_BAD_ARG;
    if (c->txn == nullptr)
        return VEL_E_HOST_TRANS_CLOSED;
    if (!c->txn->rw)
        return VEL_E_HOST_READ_ONLY;
    *txn = c->txn;
    return VEL_S_OK;
}

} // namespace

extern "C" {

VEL_RET vel_seq_create_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **page,
                            vel_seq_page_t **ref_slot, int kind) {
    PageManager *p = pm_of(pm);
    if (p == nullptr || page == nullptr || ref_slot == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Txn *txn;
    VEL_RET r = writer_txn(con, &txn);
    if (r != VEL_S_OK)
        return r;
    std::byte *b;
    r = page_alloc(p, txn, &b);
    if (r != VEL_S_OK) {
        doom(txn, r); // the module may have changed pages before asking
        return r;
    }
    auto *pg = reinterpret_cast<vel_seq_page_t *>(b);
    // The high nibble is the host's: the page manager that made the page
    // (1 = in-memory, 2 = alternative).  The module masks it off.
    pg->hdr.kind = static_cast<uint8_t>((kind & 15) | (p->which + 1) << 4);
    pg->hdr.user = 1;
    std::atomic_ref<uint32_t>(pg->ref_count).store(1, std::memory_order_release);
    *page = pg;
    *ref_slot = pg;
    return VEL_S_OK;
}

VEL_RET vel_seq_free_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page) {
    PageManager *p = pm_of(pm);
    if (p == nullptr || page == nullptr)
        return VEL_E_HOST_BAD_ARG;
    // Only a private page may go; a shared one still belongs to a version.
    if (!page_live(page) || ref_load(page) > 1)
        return VEL_E_HOST_BAD_ARG;
    Conn *c = conn_of(con);
    page_free(p, reinterpret_cast<std::byte *>(page), c != nullptr ? c->txn : nullptr);
    return VEL_S_OK;
}

vel_bool vel_seq_is_copy(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                         vel_seq_page_t *ref) {
    (void)con;
    (void)pm;
    vel_seq_page_t *pg = ref != nullptr ? ref : page;
    return pg != nullptr && ref_load(pg) > 1;
}

void vel_seq_lock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm) {
    (void)con;
    PageManager *p = pm_of(pm);
    if (p == nullptr)
        vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__);
    p->cow_mutex.lock();
}

void vel_seq_unlock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm) {
    (void)con;
    PageManager *p = pm_of(pm);
    if (p == nullptr)
        vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__);
    p->cow_mutex.unlock();
}

void vel_seq_init_ref_count(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                            vel_seq_page_t *ref) {
    (void)con;
    (void)pm;
    vel_seq_page_t *pg = ref != nullptr ? ref : page;
    if (pg != nullptr)
        std::atomic_ref<uint32_t>(pg->ref_count).store(1, std::memory_order_release);
}

VEL_RET vel_seq_increment_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref) {
    (void)con;
    (void)pm;
    if (ref == nullptr)
        return VEL_E_NOMEM;
    ref_add(ref);
    return VEL_S_OK;
}

VEL_RET vel_seq_decrement_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref, int32_t *count) {
    (void)con;
    (void)pm;
    if (ref == nullptr || count == nullptr)
        return VEL_E_HOST_BAD_ARG;
    int64_t n = ref_sub(ref);
    if (n < 0) {
        *count = 0;
        return VEL_E_HOST_BAD_ARG;
    }
    *count = static_cast<int32_t>(n);
    return VEL_S_OK;
}

VEL_RET vel_seq_prune(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *root) {
    PageManager *p = pm_of(pm);
    if (p == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Conn *c = conn_of(con);
    if (prune_fails(p->db)) {
        doom(c != nullptr ? c->txn : nullptr, VEL_E_NOMEM);
        return VEL_E_NOMEM; // nothing released
    }
    prune_tree(p, root, c != nullptr ? c->txn : nullptr);
    return VEL_S_OK;
}

VEL_RET velh_page_stats(velh_db_t *db, int pm, velh_page_stats_t *stats) {
    if (db == nullptr || stats == nullptr || pm < VELH_PM_ALL || pm > VELH_PM_ALT)
        return VEL_E_HOST_BAD_ARG;
    Db *d = reinterpret_cast<Db *>(db);
    std::lock_guard<std::mutex> lock(d->alloc_mutex);
    if (pm != VELH_PM_ALL) {
        *stats = d->pms[pm].stats;
        return VEL_S_OK;
    }
    velh_page_stats_t s{};
    for (auto &p : d->pms) {
        s.live += p.stats.live;
        s.allocated += p.stats.allocated;
        s.freed += p.stats.freed;
        s.peak += p.stats.peak;
    }
    *stats = s;
    return VEL_S_OK;
}

void velh_reset_peak(velh_db_t *db) {
    if (db == nullptr)
        return;
    Db *d = reinterpret_cast<Db *>(db);
    std::lock_guard<std::mutex> lock(d->alloc_mutex);
    for (auto &p : d->pms)
        p.stats.peak = p.stats.live;
}

void velh_fail_prune(velh_db_t *db, uint64_t nth) {
    const Db *d = reinterpret_cast<const Db *>(db);
    std::lock_guard<std::mutex> lock(g_prune_mutex);
    std::erase_if(g_prune_countdown, [d](const auto &e) { return e.first == d; });
    if (d != nullptr && nth != 0)
        g_prune_countdown.emplace_back(d, nth);
}

void velh_fail_page_alloc(velh_db_t *db, uint64_t nth, vel_bool sticky) {
    if (db == nullptr)
        return;
    Db *d = reinterpret_cast<Db *>(db);
    std::lock_guard<std::mutex> lock(d->alloc_mutex);
    d->fail_countdown = nth;
    d->fail_sticky = nth != 0 && sticky;
    d->failing = false;
}

} // extern "C"
