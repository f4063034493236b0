// Shape and compaction of sequence fields.
//
// Inserts into full leaves split them, and the module's split policy keeps
// the split page full and opens a page for the inserted values alone, so a
// field fed by single late inserts grows a page per insert and its depth
// climbs.  velh_compact rebuilds one field's tree the way appends of the same
// values would have built it: every leaf full but the last, every inner page
// full but the last of its level, the root the single page of the top level,
// counts exact and, for ordered fields, key i the first value of child i's
// subtree.  velh_keep_compact is the policy the layers above the module call
// after every insert or delete, so that no sequence of their calls leaves a
// field deeper than VELH_COMPACT_MAX_DEPTH or with more than twice the pages
// of its dense tree.  It repairs locally: pages that the damage left nearly
// empty are merged with their neighbours, and the inner pages above them are
// rebuilt; leaves are copied only where several fit into one, or where their
// waste is the largest once the field nears its page budget.  Every page it
// writes is new and every page it keeps is shared by reference, so pages of
// other versions are never changed.
#include <algorithm>
#include <cstring>
#include <vector>

#include "host_internal.h"
#include "seq_walk.h"

namespace velhost {

namespace {

using namespace velseq::layout;

// A field's page geometry (seq_layout.h); inner capacities by the order
// declared to the call.
struct Geometry {
    int32_t ps = 0;
    uint32_t s = 0;        // element bytes
    bool keyed = false;    // ordered: inner pages carry keys
    uint32_t leaf_cap = 0; // values a leaf
    uint32_t inner_cap = 0;

    Geometry(const PageManager *pm, const Field &f, vel_seq_order_t order)
        : ps(static_cast<int32_t>(pm->page_size)), s(f.elem_size), keyed(order != VEL_SEQ_NO_ORDER),
          leaf_cap(static_cast<uint32_t>(leaf_capacity(ps, s))),
          inner_cap(static_cast<uint32_t>(inner_capacity(ps, s, keyed, f.is_char))) {}

    std::byte *value(vel_seq_page_t *pg, uint32_t i) const { return value_at(pg, s, i); }
    vel_seq_node_t *entry(vel_seq_page_t *pg, uint32_t i) const { return entry_at(pg, ps, i); }
    uint64_t *nulls(vel_seq_page_t *pg) const { return null_mask(pg, ps, leaf_cap); }
    // Pages of the tree that appends of n values build.
    uint64_t dense_pages(uint64_t n) const {
        if (n == 0)
            return 0;
        uint64_t level = (n + leaf_cap - 1) / leaf_cap, total = level;
        while (level > 1) {
            level = (level + inner_cap - 1) / inner_cap;
            total += level;
        }
        return total;
    }
    // Levels of that tree.
    uint32_t dense_depth(uint64_t n) const {
        if (n == 0)
            return 0;
        uint64_t level = (n + leaf_cap - 1) / leaf_cap;
        uint32_t depth = 1;
        for (; level > 1; ++depth)
            level = (level + inner_cap - 1) / inner_cap;
        return depth;
    }
};

bool is_inner(const vel_seq_page_t *pg) { return page_kind(pg) == kInnerPage; }

uint32_t levels_of(const Geometry &g, vel_seq_page_t *pg) {
    uint32_t levels = 0;
    while (pg != nullptr && levels <= VEL_SEQ_MAX_DEPTH) {
        levels++;
        if (!is_inner(pg) || pg->hdr.user == 0)
            break;
        pg = g.entry(pg, 0)->page;
    }
    return levels;
}

// n bits from src at bit `from` to dst at bit `to` (bit i of a mask is bit
// i % 64 of word i / 64), a word at a time.
void copy_bits(uint64_t *dst, uint32_t to, const uint64_t *src, uint32_t from, uint32_t n) {
    while (n > 0) {
        const uint32_t dw = to / 64, db = to % 64;
        const uint32_t k = n < 64 - db ? n : 64 - db;
        const uint32_t sw = from / 64, sb = from % 64;
        uint64_t bits = src[sw] >> sb;
        if (sb + k > 64)
            bits |= src[sw + 1] << (64 - sb);
        const uint64_t mask = (k == 64 ? ~uint64_t(0) : (uint64_t(1) << k) - 1) << db;
        dst[dw] = (dst[dw] & ~mask) | ((bits << db) & mask);
        to += k;
        from += k;
        n -= k;
    }
}

// True when one of n bits from bit `from` is set.
bool any_bits(const uint64_t *src, uint32_t from, uint32_t n) {
    for (uint32_t w = from / 64; w <= (from + n - 1) / 64; ++w) {
        uint64_t bits = src[w];
        if (w == from / 64)
            bits &= ~uint64_t(0) << (from % 64);
        if (w == (from + n - 1) / 64 && (from + n) % 64 != 0)
            bits &= (uint64_t(1) << ((from + n) % 64)) - 1;
        if (bits != 0)
            return true;
    }
    return false;
}

// One page of a level under construction: where its subtree starts
// (first value, for the parent's key) and how many elements it holds.
struct Built {
    vel_seq_page_t *page;
    const std::byte *first;
    uint64_t count;
};

// The pages a rebuild makes, freed again when it fails.
class Maker {
  public:
    Maker(PageManager *pm, Txn *txn) : pm_(pm), txn_(txn) {}

    VEL_RET new_page(uint8_t kind, vel_seq_page_t **out) {
        std::byte *b;
        VEL_RET r = page_alloc(pm_, txn_, &b);
        if (r != VEL_S_OK)
            return r;
        auto *pg = reinterpret_cast<vel_seq_page_t *>(b);
        pg->hdr.kind = kind;
        pg->hdr.extraflags = 0;
        pg->hdr.user = 1;
        std::atomic_ref<uint32_t>(pg->ref_count).store(1, std::memory_order_release);
        made_.push_back(pg);
        *out = pg;
        return VEL_S_OK;
    }
    // Frees every page made so far (a failed build).
    void discard() {
        for (vel_seq_page_t *pg : made_)
            page_free(pm_, reinterpret_cast<std::byte *>(pg), txn_);
        made_.clear();
    }
    size_t made() const { return made_.size(); }
    // Frees the page made last.
    void drop_last() {
        page_free(pm_, reinterpret_cast<std::byte *>(made_.back()), txn_);
        made_.pop_back();
    }

  private:
    PageManager *pm_;
    Txn *txn_;
    std::vector<vel_seq_page_t *> made_;
};

class Builder {
  public:
    Builder(const Geometry &g, PageManager *pm, Txn *txn) : g_(g), mk_(pm, txn) {}

    void discard() { mk_.discard(); }

    // Appends the values and null bits of one old leaf.
    VEL_RET add_leaf(vel_seq_page_t *old) {
        const uint32_t n = old->hdr.user;
        const uint64_t *old_nulls = g_.nulls(old);
        for (uint32_t done = 0; done < n;) {
            if (cur_ == nullptr || cur_->hdr.user == g_.leaf_cap) {
                VEL_RET r = mk_.new_page(3, &cur_);
                if (r != VEL_S_OK)
                    return r;
                cur_->hdr.user = 0;
                std::memset(g_.nulls(cur_), 0, 8 * null_mask_words(g_.leaf_cap));
                leaves_.push_back({cur_, g_.value(cur_, 0), 0});
            }
            const uint32_t at = cur_->hdr.user;
            const uint32_t k = n - done < g_.leaf_cap - at ? n - done : g_.leaf_cap - at;
            std::memcpy(g_.value(cur_, at), g_.value(old, done), size_t(k) * g_.s);
            if (any_bits(old_nulls, done, k))
                copy_bits(g_.nulls(cur_), at, old_nulls, done, k);
            cur_->hdr.user = static_cast<uint16_t>(at + k);
            leaves_.back().count += k;
            done += k;
        }
        return VEL_S_OK;
    }

    // Builds the inner levels over the leaves; the root goes to *root.
    VEL_RET finish(vel_seq_page_t **root) {
        std::vector<Built> level = std::move(leaves_);
        while (level.size() > 1) {
            std::vector<Built> up;
            for (size_t i = 0; i < level.size(); i += g_.inner_cap) {
                vel_seq_page_t *pg;
                VEL_RET r = mk_.new_page(2, &pg);
                if (r != VEL_S_OK)
                    return r;
                const size_t n = level.size() - i < g_.inner_cap ? level.size() - i : g_.inner_cap;
                Built b{pg, level[i].first, 0};
                // Entry, then key, child by child, as appends write them:
                // where a char page's keys reach into its entries, the
                // later write wins in both.
                for (size_t j = 0; j < n; ++j) {
                    *g_.entry(pg, uint32_t(j)) = {level[i + j].page, level[i + j].count};
                    if (g_.keyed)
                        std::memcpy(g_.value(pg, uint32_t(j)), level[i + j].first, g_.s);
                    b.count += level[i + j].count;
                }
                pg->hdr.user = static_cast<uint16_t>(n);
                up.push_back(b);
            }
            level = std::move(up);
        }
        *root = level.empty() ? nullptr : level[0].page;
        return VEL_S_OK;
    }

  private:
    const Geometry &g_;
    Maker mk_;
    vel_seq_page_t *cur_ = nullptr;
    std::vector<Built> leaves_;
};

// Feeds the leaves of a tree, left to right, to the builder.  The walk
// trusts the pages but for the depth limit (and null references).
VEL_RET rebuild(const Geometry &g, vel_seq_page_t *root, Builder &b) {
    struct Leaves : TreeWalk<Leaves, vel_seq_page_t> {
        Leaves(const Geometry &g, Builder &b)
            : TreeWalk(g.ps, g.leaf_cap, g.inner_cap, false), b(b) {}
        bool leaf(vel_seq_page_t *pg, int, uint64_t) {
            rc = b.add_leaf(pg);
            return rc == VEL_S_OK;
        }
        Builder &b;
        VEL_RET rc = VEL_S_OK;
    } w(g, b);
    if (root == nullptr || w.walk(root))
        return VEL_S_OK;
    return w.rc != VEL_S_OK ? w.rc : VEL_E_HOST_TREE_DEPTH;
}

// Drops one reference to a tree: pages whose count falls to zero are freed
// (with one reference less on each child), in one batch under one lock.
// A reference to a page no longer allocated (left by a failed update) holds
// no count and is skipped.
void release_tree(const Geometry &g, PageManager *pm, vel_seq_page_t *root) {
    std::vector<std::byte *> dead;
    std::vector<vel_seq_page_t *> todo{root};
    while (!todo.empty()) {
        vel_seq_page_t *pg = todo.back();
        todo.pop_back();
        if (!page_live(pg))
            continue;
        std::atomic_ref<uint32_t> rc(pg->ref_count);
        uint32_t old = rc.load(std::memory_order_acquire);
        do {
            if (old == 0)
                break;
        } while (!rc.compare_exchange_weak(old, old - 1, std::memory_order_acq_rel));
        if (old != 1)
            continue; // still referenced elsewhere (or a release too many)
        if (is_inner(pg))
            for (uint32_t i = 0; i < pg->hdr.user; ++i)
                todo.push_back(g.entry(pg, i)->page);
        dead.push_back(reinterpret_cast<std::byte *>(pg));
    }
    page_free_many(pm, dead);
}

// The field of an open object, its class and the version the access gave.
struct Access {
    Conn *conn = nullptr;
    ClassDef *cls = nullptr;
    const Field *field = nullptr;
    vel_seq_page_t **slot = nullptr;
};

VEL_RET open_field(const vel_objhandle_t *obj, uint16_t fld_no, bool write, Access *a) {
    if (obj == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_WRK w;
    auto *h = const_cast<vel_objhandle_h>(obj);
    if ((write ? vel_writing(h, &w, 0, fld_no) : vel_reading(h, &w)) != 0)
        return w.ret;
    a->conn = conn_of(obj->con);
    a->cls = class_of(a->conn->db, obj->class_code);
    if (fld_no >= a->cls->fields.size())
        return VEL_E_HOST_NO_FIELD;
    a->field = &a->cls->fields[fld_no];
    if (!a->field->is_seq)
        return VEL_E_HOST_WRONG_FIELD;
    a->slot = root_slot(a->cls, static_cast<Version *>(w.pobj), *a->field,
                        a->conn->db->cfg.additional_object_field_size);
    return VEL_S_OK;
}

// Shape from the inner pages: the parents of leaves give the leaf count by
// their entry counts, so no leaf is read.
velh_field_shape_t shape_of(const Geometry &g, vel_seq_page_t *root) {
    velh_field_shape_t sh{};
    sh.depth = levels_of(g, root);
    if (root == nullptr)
        return sh;
    if (!is_inner(root)) {
        sh.pages = sh.leaves = 1;
        sh.elements = root->hdr.user;
    } else {
        for (uint32_t i = 0; i < root->hdr.user; ++i)
            sh.elements += g.entry(root, i)->count;
        std::vector<std::pair<vel_seq_page_t *, uint32_t>> todo{{root, 1}};
        while (!todo.empty()) {
            auto [pg, level] = todo.back();
            todo.pop_back();
            sh.pages++;
            if (level + 1 == sh.depth) {
                sh.leaves += pg->hdr.user;
                sh.pages += pg->hdr.user;
                continue;
            }
            for (uint32_t i = 0; i < pg->hdr.user; ++i)
                todo.push_back({g.entry(pg, i)->page, level + 1});
        }
    }
    sh.dense_pages = g.dense_pages(sh.elements);
    return sh;
}

VEL_RET compact(const Access &a, vel_seq_order_t order) {
    const Geometry g(a.cls->pm, *a.field, order);
    vel_seq_page_t *old = *a.slot;
    Builder b(g, a.cls->pm, a.conn->txn);
    vel_seq_page_t *root = nullptr;
    VEL_RET r = rebuild(g, old, b);
    if (r == VEL_S_OK)
        r = b.finish(&root);
    if (r != VEL_S_OK) {
        b.discard();
        return r;
    }
    // The old tree loses this version's reference; pages that other
    // versions share stay theirs.  Its private pages go straight back to
    // the pool rather than to the transaction's quarantine: nothing can
    // refer to them any more (the quarantine is for entries a failed update
    // leaves behind), and a policy that compacts again and again in one
    // transaction would otherwise take fresh memory every time.
    *a.slot = root;
    release_tree(g, a.cls->pm, old);
    return VEL_S_OK;
}

// Policy state, in the caller's velh_compact_state_t:
//   word[0]  serial of the transaction the figures belong to
//   word[1]  oid of the object
//   word[2]  field number + 1 (0: never used) in bits 0..16, the field's
//            pages after the last full look above them
//   word[3]  an upper bound of the field's pages
//   word[4]  the field's elements at the last call
//   word[5]  pages the transaction had created at the last call
constexpr int kSerial = 0, kOid = 1, kField = 2, kPages = 3, kElements = 4, kCreated = 5;
constexpr int kFieldBits = 17;

// Pages the bound may grow by between full looks.  A look reads the inner
// pages (a page in 256), so a look per 1/128 of the dense pages costs a
// page read per two pages of growth; and at least 1024, so that single
// inserts bring a look every few hundred calls, with the repair of what
// they did in a millisecond or two.
uint64_t look_every(uint64_t dense) { return std::max<uint64_t>(1024, dense / 128); }

// Elements of a tree from its root alone.
uint64_t elements_of(const Geometry &g, vel_seq_page_t *root) {
    if (root == nullptr)
        return 0;
    if (!is_inner(root))
        return root->hdr.user;
    uint64_t n = 0;
    for (uint32_t i = 0; i < root->hdr.user; ++i)
        n += g.entry(root, i)->count;
    return n;
}

// The most pages `n` inserted values can add to a tree of `depth` levels:
// each pass of an insert puts values into one leaf (the first pass may find
// room for one value only, later ones take a leaf's worth) and makes at most
// one page a level plus a new root.
uint64_t insert_growth(const Geometry &g, uint64_t n, uint32_t depth) {
    if (n == 0)
        return 0;
    const uint64_t passes = 1 + (n - 1 + g.leaf_cap - 1) / g.leaf_cap;
    return passes * (uint64_t(depth) + 1);
}

// ---- local repair ----------------------------------------------------------
//
// The walk lists the inner pages level by level, left to right: the header
// of each, and the entries of those above the parents of leaves (of an
// int64 field on 4 KiB pages, one page in 256 and one in 65 000).  Leaves
// are read only where their values move.  A page opens (is rebuilt) when it
// is less than a third full (and then a neighbour too, so that they can
// share), when it is a parent of leaves with more than twice the leaves its
// values need plus one (then two neighbouring leaves fit into one), or when
// one of its children opened; the root opens with a child or when it has a
// single one.  Near the page budget the parents of leaves whose leaves
// waste the most open too, with their leaves copied densely.  Each run of
// neighbouring open pages of a level gives way to new pages sharing the
// run's children (kept, or the new pages of open ones) evenly, three
// quarters full, so that the next splits find room instead of making pages
// (the root's level is packed full).  Heights stay, and levels left with a
// single page above which everything opened drop out.

// A page above the leaves, as the walk found it.
struct Node {
    vel_seq_page_t *page;
    const std::byte *key; // its key in its parent (ordered fields)
    uint64_t count;       // elements of its subtree
    uint32_t parent;      // its parent's index one level up
    uint32_t first_child; // index of its first child one level down
    uint16_t user;
    uint8_t open;       // 0 kept, 1 rebuilt, 2 rebuilt with its leaves copied densely,
                        // 3 kept but left out (a root of one child)
    bool freed = false; // left the tree and this version held its last reference
};

// A page of the new tree: an old one kept by reference, or a new one.
struct Item {
    vel_seq_page_t *page;
    const std::byte *first; // its first value, or its key in an old parent
    uint64_t count;
    bool made;
    Node *node = nullptr;   // an old inner page's own
    Node *parent = nullptr; // an old page's old parent
};

class Repair {
  public:
    Repair(const Geometry &g, PageManager *pm, Txn *txn) : g_(g), pm_(pm), mk_(pm, txn) {}

    // Lists the inner levels of a tree of three levels or more, parents of
    // leaves first.  False when a page is not of its level's kind.
    bool walk(vel_seq_page_t *root, uint32_t depth) {
        lv_.assign(depth - 1, {});
        lv_.back().push_back({root, nullptr, elements_of(g_, root), 0, 0, root->hdr.user, 0});
        pages_ = 1;
        for (size_t k = lv_.size() - 1; k > 0; --k)
            for (uint32_t j = 0; j < lv_[k].size(); ++j) {
                Node &n = lv_[k][j];
                n.first_child = static_cast<uint32_t>(lv_[k - 1].size());
                for (uint32_t i = 0; i < n.user; ++i) {
                    const vel_seq_node_t *e = g_.entry(n.page, i);
                    if (e->page == nullptr || !is_inner(e->page) || e->page->hdr.user == 0)
                        return false;
                    lv_[k - 1].push_back({e->page, g_.keyed ? g_.value(n.page, i) : nullptr,
                                          e->count, j, 0, e->page->hdr.user, 0});
                }
                pages_ += n.user;
            }
        for (const Node &b : lv_[0])
            pages_ += b.user;
        return true;
    }
    uint64_t pages() const { return pages_; }

    // Opens the pages to rebuild; while the pages are above `target`, the
    // most wasteful parents of leaves copy their leaves densely.
    void plan(uint64_t target) {
        std::vector<std::pair<double, uint32_t>> waste;
        for (uint32_t j = 0; j < lv_[0].size(); ++j) {
            Node &b = lv_[0][j];
            const uint64_t need = needed(b);
            b.open = sparse(b) || b.user > 2 * need + 1;
            if (b.user > need)
                waste.push_back({double(b.user - need) / double(need), j});
        }
        if (pages_ > target) {
            std::sort(waste.begin(), waste.end(), std::greater<>());
            uint64_t left = pages_;
            for (size_t i = 0; i < waste.size() && left > target; ++i) {
                Node &b = lv_[0][waste[i].second];
                b.open = 2;
                left -= b.user - needed(b);
            }
        }
        for (size_t k = 0; k < lv_.size(); ++k) {
            for (Node &n : lv_[k]) {
                bool open = k == 0 ? n.open != 0 : k + 1 < lv_.size() ? sparse(n) : n.user == 1;
                for (uint32_t c = 0; k > 0 && c < n.user && !open; ++c)
                    open = lv_[k - 1][n.first_child + c].open != 0;
                n.open = std::max<uint8_t>(n.open, open);
            }
            // A sparse page draws a neighbour in (its parent opens with it).
            for (size_t j = 0; k + 1 < lv_.size() && lv_[k].size() > 1 && j < lv_[k].size(); ++j)
                if (sparse(lv_[k][j])) {
                    Node &n = lv_[k][j + 1 < lv_[k].size() ? j + 1 : j - 1];
                    n.open = std::max<uint8_t>(n.open, 1);
                }
        }
    }

    // Makes the new pages; nothing old changes yet.  False in *changed when
    // nothing opened.
    VEL_RET build(bool *changed) {
        const size_t top = lv_.size() - 1;
        *changed = lv_[top][0].open != 0;
        depth_ = uint32_t(top) + 2;
        if (!*changed)
            return VEL_S_OK;
        // all_open[k]: every page of levels k.. of the walk opened.
        std::vector<bool> all_open(lv_.size() + 1, true);
        for (size_t k = top + 1; k-- > 0;) {
            all_open[k] = all_open[k + 1];
            for (const Node &n : lv_[k]) {
                all_open[k] = all_open[k] && n.open;
                removed_ += n.open != 0;
            }
        }
        // The new pages level by level, while a page above stays or the
        // level has more than one.
        std::vector<Item> cur;
        VEL_RET r = level(0, nullptr, &cur);
        uint32_t depth = 2;
        for (size_t k = 1; r == VEL_S_OK && k <= top && !(cur.size() == 1 && all_open[k]); ++k) {
            std::vector<Item> up;
            r = level(k, &cur, &up);
            cur = std::move(up);
            ++depth;
        }
        while (r == VEL_S_OK && cur.size() > 1) { // not met: an open root's children fit into one
            std::vector<Item> up;
            r = pack(cur, 0, cur.size(), &up, true);
            cur = std::move(up);
            ++depth;
        }
        if (r != VEL_S_OK)
            return r;
        root_ = cur[0];
        // A root of one child gives way to it.  A new root was made last,
        // by a pack of that child alone, so an old child is the last page
        // kept; an old root's children are old, leaves under a parent of
        // leaves.
        while (is_inner(root_.page) && root_.page->hdr.user == 1) {
            Item child{g_.entry(root_.page, 0)->page, nullptr, root_.count, true};
            if (root_.made) {
                if (!kept_.empty() && kept_.back().page == child.page) {
                    child = kept_.back();
                    kept_.pop_back();
                }
                mk_.drop_last();
            } else {
                Node *n = root_.node;
                n->open = 3;
                ++removed_;
                child.made = false;
                child.parent = n;
                for (size_t k = 1; k < lv_.size(); ++k)
                    if (n >= lv_[k].data() && n < lv_[k].data() + lv_[k].size())
                        child.node = &lv_[k - 1][n->first_child];
            }
            root_ = child;
            --depth;
        }
        depth_ = depth;
        return VEL_S_OK;
    }
    uint64_t pages_after() const { return pages_ - removed_ + mk_.made(); }
    uint32_t depth_after() const { return depth_; }

    void discard() { mk_.discard(); }

    // Puts the new tree in the slot.  The old pages that leave it, top
    // down, lose a reference where their parent was freed (the root: this
    // version's), and are freed when it was their last; a kept page takes
    // over its freed old parent's reference for its new parent, or gains one
    // where the old parent stays for other versions.  Every leaving page
    // was read by the build, so none is a reference left by a failed update.
    void install(vel_seq_page_t **slot) {
        std::vector<std::byte *> dead;
        for (size_t k = lv_.size(); k-- > 0;)
            for (Node &n : lv_[k])
                if (n.open != 0) {
                    n.freed = (k + 1 == lv_.size() || lv_[k + 1][n.parent].freed) && last(n.page);
                    if (n.freed)
                        dead.push_back(reinterpret_cast<std::byte *>(n.page));
                }
        for (auto [leaf, parent] : copied_)
            if (parent->freed && last(leaf))
                dead.push_back(reinterpret_cast<std::byte *>(leaf));
        for (const Item &c : kept_)
            if (!c.parent->freed)
                ref_add(c.page);
        if (!root_.made && !root_.parent->freed)
            ref_add(root_.page);
        *slot = root_.page;
        page_free_many(pm_, dead);
    }

  private:
    uint64_t needed(const Node &b) const { return (b.count + g_.leaf_cap - 1) / g_.leaf_cap; }
    // Drops a reference; true when it was the last.
    static bool last(vel_seq_page_t *pg) {
        std::atomic_ref<uint32_t> rc(pg->ref_count);
        uint32_t old = rc.load(std::memory_order_acquire);
        do {
            if (old == 0)
                return false; // a release too many: keep the page
        } while (!rc.compare_exchange_weak(old, old - 1, std::memory_order_acq_rel));
        return old == 1;
    }
    bool sparse(const Node &n) const { return 3u * n.user < g_.inner_cap; }

    // The new pages of walk level k from those of the level below (at level
    // 0, from the leaves).  at_[j] is where old page j of the level below
    // starts among `below`; on return, the same for level k and `out`.
    // Runs of open pages never straddle a kept parent, so their shares are
    // contiguous.
    VEL_RET level(size_t k, const std::vector<Item> *below, std::vector<Item> *out) {
        std::vector<Node> &pages = lv_[k];
        std::vector<uint32_t> at(pages.size() + 1);
        for (size_t j = 0; j < pages.size();) {
            Node &n = pages[j];
            if (!n.open) {
                at[j++] = static_cast<uint32_t>(out->size());
                Node *parent = k + 1 < lv_.size() ? &lv_[k + 1][n.parent] : nullptr;
                out->push_back({n.page, n.key, n.count, false, &n, parent});
                continue;
            }
            size_t e = j;
            for (; e < pages.size() && pages[e].open; ++e)
                at[e] = static_cast<uint32_t>(out->size());
            VEL_RET r = k == 0 ? leaves(j, e, out)
                               : pack(*below, at_[pages[j].first_child],
                                      at_[pages[e - 1].first_child + pages[e - 1].user], out,
                                      k + 1 == lv_.size());
            if (r != VEL_S_OK)
                return r;
            j = e;
        }
        at[pages.size()] = static_cast<uint32_t>(out->size());
        at_ = std::move(at);
        return VEL_S_OK;
    }

    // New inner pages over in[from, to), as few as hold them three quarters
    // full (full at the top), sharing them evenly.
    VEL_RET pack(const std::vector<Item> &in, size_t from, size_t to, std::vector<Item> *out,
                 bool top) {
        const size_t fill = top ? g_.inner_cap : g_.inner_cap - g_.inner_cap / 4;
        const size_t m = to - from, pages = (m + fill - 1) / fill;
        for (size_t q = 0, i = from, n = 0; q < pages; ++q, i += n) {
            n = m / pages + (q < m % pages);
            vel_seq_page_t *pg;
            VEL_RET r = mk_.new_page(2, &pg);
            if (r != VEL_S_OK)
                return r;
            Item it{pg, in[i].first, 0, true};
            // Entry, then key, child by child, as in Builder::finish.
            for (size_t j = 0; j < n; ++j) {
                const Item &c = in[i + j];
                *g_.entry(pg, uint32_t(j)) = {c.page, c.count};
                if (g_.keyed)
                    std::memcpy(g_.value(pg, uint32_t(j)), c.first, g_.s);
                it.count += c.count;
                if (!c.made)
                    kept_.push_back(c);
            }
            pg->hdr.user = static_cast<uint16_t>(n);
            out->push_back(it);
        }
        return VEL_S_OK;
    }

    // The leaves of the open parents j..e-1, neighbours that fit into one
    // leaf merged (all of them for a dense copy), under new parents.
    VEL_RET leaves(size_t j, size_t e, std::vector<Item> *out) {
        leaves_.clear();
        for (size_t q = j; q < e; ++q) {
            Node &b = lv_[0][q];
            for (uint32_t i = 0; i < b.user; ++i) {
                const vel_seq_node_t *en = g_.entry(b.page, i);
                const Item leaf{en->page,  g_.keyed ? g_.value(b.page, i) : nullptr,
                                en->count, false,
                                nullptr,   &b};
                VEL_RET r = take(leaf, b.open == 2);
                if (r != VEL_S_OK)
                    return r;
            }
        }
        flush();
        return pack(leaves_, 0, leaves_.size(), out, false);
    }

    // One old leaf: kept (pending) unless it fits into the leaf being
    // filled or beside the pending one; a dense copy always moves it.
    VEL_RET take(const Item &leaf, bool dense) {
        const bool fits = (acc_ != nullptr && acc_->hdr.user + leaf.count <= g_.leaf_cap) ||
                          (acc_ == nullptr && has_pend_ && pend_.count + leaf.count <= g_.leaf_cap);
        if (!dense && !fits) {
            flush();
            pend_ = leaf;
            has_pend_ = true;
            return VEL_S_OK;
        }
        if (has_pend_) {
            has_pend_ = false;
            VEL_RET r = copy_in(pend_);
            if (r != VEL_S_OK)
                return r;
        }
        return copy_in(leaf);
    }
    // Appends an old leaf's values and null bits to the leaves being filled.
    VEL_RET copy_in(const Item &leaf) {
        const auto n = static_cast<uint32_t>(leaf.count);
        const uint64_t *nulls = g_.nulls(leaf.page);
        for (uint32_t done = 0; done < n;) {
            if (acc_ != nullptr && acc_->hdr.user == g_.leaf_cap)
                emit();
            if (acc_ == nullptr) {
                VEL_RET r = mk_.new_page(3, &acc_);
                if (r != VEL_S_OK)
                    return r;
                acc_->hdr.user = 0;
                std::memset(g_.nulls(acc_), 0, 8 * null_mask_words(g_.leaf_cap));
            }
            const uint32_t to = acc_->hdr.user;
            const uint32_t k = std::min(n - done, g_.leaf_cap - to);
            std::memcpy(g_.value(acc_, to), g_.value(leaf.page, done), size_t(k) * g_.s);
            if (any_bits(nulls, done, k))
                copy_bits(g_.nulls(acc_), to, nulls, done, k);
            acc_->hdr.user = static_cast<uint16_t>(to + k);
            done += k;
        }
        copied_.push_back({leaf.page, leaf.parent});
        ++removed_;
        return VEL_S_OK;
    }
    void emit() {
        leaves_.push_back({acc_, g_.value(acc_, 0), acc_->hdr.user, true});
        acc_ = nullptr;
    }
    void flush() {
        if (acc_ != nullptr)
            emit();
        if (has_pend_)
            leaves_.push_back(pend_);
        has_pend_ = false;
    }

    const Geometry &g_;
    PageManager *pm_;
    Maker mk_;
    std::vector<std::vector<Node>> lv_; // lv_[0]: parents of leaves; back(): the root
    uint64_t pages_ = 0;
    uint64_t removed_ = 0; // old pages the new tree leaves out
    uint32_t depth_ = 0;
    Item root_{};
    std::vector<uint32_t> at_;
    std::vector<Item> kept_;                                  // old pages under new ones
    std::vector<std::pair<vel_seq_page_t *, Node *>> copied_; // old leaves copied, their parents
    std::vector<Item> leaves_;                                // leaves of the run being rebuilt
    vel_seq_page_t *acc_ = nullptr;                           // new leaf being filled
    Item pend_{};                                             // old leaf not yet placed
    bool has_pend_ = false;
};

// The policy's full look at a field of `depth` levels: a local repair, whose
// dense copies start `margin` pages before the budget of twice the dense
// pages (so that the next look is some inserts away), or a full compaction
// when the tree is at most two levels deep or the repair would miss the
// limits.  *pages: the field's pages after.
VEL_RET keep(const Access &a, vel_seq_order_t order, const Geometry &g, uint32_t depth,
             uint32_t max_depth, uint64_t *pages) {
    vel_seq_page_t *root = *a.slot;
    const uint64_t elements = elements_of(g, root);
    const uint64_t dense = g.dense_pages(elements);
    const uint64_t margin = std::min<uint64_t>(512, dense / 8);
    bool full;
    if (depth < 3) {
        const velh_field_shape_t sh = shape_of(g, root);
        *pages = sh.pages;
        full = sh.depth > max_depth || sh.pages > 2 * dense;
    } else {
        Repair rp(g, a.cls->pm, a.conn->txn);
        full = !rp.walk(root, depth);
        *pages = full ? 0 : rp.pages();
        if (!full) {
            rp.plan(2 * dense - std::min(2 * margin, 2 * dense));
            bool changed = false;
            VEL_RET r = rp.build(&changed);
            if (r != VEL_S_OK) {
                rp.discard();
                return r;
            }
            full = rp.depth_after() > max_depth || rp.pages_after() > 2 * dense;
            if (full) {
                rp.discard();
            } else if (changed) {
                rp.install(a.slot);
                *pages = rp.pages_after();
            }
        }
    }
    if (!full)
        return VEL_S_OK;
    VEL_RET r = compact(a, order);
    if (r == VEL_S_OK)
        *pages = dense;
    return r;
}

} // namespace

} // namespace velhost

using namespace velhost;

extern "C" {

VEL_RET velh_field_shape(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order,
                         velh_field_shape_t *shape) {
    if (shape == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Access a;
    VEL_RET r = open_field(obj, fld_no, false, &a);
    if (r != VEL_S_OK)
        return r;
    *shape = shape_of(Geometry(a.cls->pm, *a.field, order), *a.slot);
    return VEL_S_OK;
}

VEL_RET velh_compact(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order) {
    Access a;
    VEL_RET r = open_field(obj, fld_no, true, &a);
    if (r != VEL_S_OK)
        return r;
    return compact(a, order);
}

VEL_RET velh_keep_compact(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order,
                          vel_size_t n_changed, velh_compact_state_t *state) {
    if (state == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Access a;
    VEL_RET r = open_field(obj, fld_no, true, &a);
    if (r != VEL_S_OK)
        return r;
    const Geometry g(a.cls->pm, *a.field, order);
    Txn *txn = a.conn->txn;
    uint64_t *st = state->word;
    vel_seq_page_t *root = *a.slot;
    const uint32_t depth = levels_of(g, root);
    const uint64_t elements = elements_of(g, root);
    const uint64_t created = txn->created.size();
    const uint64_t dense = g.dense_pages(elements);
    const uint32_t max_depth =
        std::min<uint32_t>(VELH_COMPACT_MAX_DEPTH, g.dense_depth(elements) + 2);
    const uint64_t field = uint64_t(fld_no) + 1;
    bool check = st[kSerial] != txn->serial || st[kOid] != obj->oid ||
                 (st[kField] & ((uint64_t(1) << kFieldBits) - 1)) != field || depth > max_depth;
    if (!check) {
        // The budget is exact (twice the dense pages of the elements there
        // are now); the pages are an upper bound, raised by what the changes
        // since the last call can have added.  Deletes add no pages; an
        // insert adds no more than its passes allow, nor more than the
        // transaction created meanwhile.
        const bool deleted_only = elements + n_changed == st[kElements];
        uint64_t grown = 0;
        if (!deleted_only) {
            const uint64_t inserted =
                elements > st[kElements] && n_changed < elements - st[kElements]
                    ? elements - st[kElements]
                    : n_changed;
            grown = insert_growth(g, inserted, depth);
            if (created >= st[kCreated] && created - st[kCreated] < grown)
                grown = created - st[kCreated];
        }
        st[kPages] += grown;
        st[kElements] = elements;
        st[kCreated] = created;
        if (st[kPages] <= 2 * dense && st[kPages] <= (st[kField] >> kFieldBits) + look_every(dense))
            return VEL_S_OK;
    }
    uint64_t pages;
    r = keep(a, order, g, depth, max_depth, &pages);
    if (r != VEL_S_OK)
        return r;
    st[kSerial] = txn->serial;
    st[kOid] = obj->oid;
    st[kField] = field | pages << kFieldBits;
    st[kPages] = pages;
    st[kElements] = elements;
    st[kCreated] = txn->created.size();
    return VEL_S_OK;
}

} // extern "C"
