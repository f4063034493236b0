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

namespace velhost {

namespace {

// The module's page layout as seen from the host:
//
//   offset                 size    field
//   0                      1       kind (low 4 bits: 2 inner, 3 leaf)
//   2                      2       user: values of a leaf, children of an inner page
//   4                      4       ref_count
//   8                      ...     leaf values / ordered inner keys, s bytes each
//   ps - 8*W               8*W     leaf null mask, W = (leaf capacity + 63) / 64
//   ps - 16*(i+1)          16      inner entry i {page, count}
struct Geometry {
    uint32_t ps = 0;
    uint32_t s = 0;        // element bytes
    bool keyed = false;    // ordered: inner pages carry keys
    uint32_t leaf_cap = 0; // values a leaf
    uint32_t inner_cap = 0;

    Geometry(const PageManager *pm, const Field &f, vel_seq_order_t order)
        : ps(pm->page_size), s(f.elem_size), keyed(order != VEL_SEQ_NO_ORDER),
          leaf_cap((8 * ps - 127) / (8 * s + 1)),
          // A char inner page ignores its keys in its capacity.
          inner_cap(keyed && !f.is_char ? (ps - 8) / (16 + s) : (ps - 8) / 16) {}

    std::byte *value(vel_seq_page_t *pg, uint32_t i) const {
        return reinterpret_cast<std::byte *>(pg) + 8 + size_t(i) * s;
    }
    vel_seq_node_t *entry(vel_seq_page_t *pg, uint32_t i) const {
        return reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<std::byte *>(pg) + ps -
                                                  16 * (size_t(i) + 1));
    }
    uint64_t *nulls(vel_seq_page_t *pg) const {
        return reinterpret_cast<uint64_t *>(reinterpret_cast<std::byte *>(pg) + ps -
                                            8 * ((size_t(leaf_cap) + 63) / 64));
    }
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

bool is_inner(const vel_seq_page_t *pg) { return (pg->hdr.kind & 15) == 2; }

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
                std::memset(g_.nulls(cur_), 0, 8 * ((size_t(g_.leaf_cap) + 63) / 64));
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

// Feeds the leaves of a tree, left to right, to the builder.
VEL_RET rebuild(const Geometry &g, vel_seq_page_t *root, Builder &b) {
    struct Step {
        vel_seq_page_t *page;
        uint32_t next;
    };
    std::vector<Step> stack;
    if (root != nullptr)
        stack.push_back({root, 0});
    while (!stack.empty()) {
        Step &top = stack.back();
        if (!is_inner(top.page)) {
            VEL_RET r = b.add_leaf(top.page);
            if (r != VEL_S_OK)
                return r;
            stack.pop_back();
        } else if (top.next < top.page->hdr.user) {
            if (stack.size() >= VEL_SEQ_MAX_DEPTH + 1u)
                return VEL_E_HOST_TREE_DEPTH;
            vel_seq_page_t *child = g.entry(top.page, top.next++)->page;
            stack.push_back({child, 0});
        } else {
            stack.pop_back();
        }
    }
    return VEL_S_OK;
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
//   word[2]  field number + 1 (0: never used)
//   word[3]  an upper bound of the field's pages
//   word[4]  the field's elements at the last call
//   word[5]  pages the transaction had created at the last call
constexpr int kSerial = 0, kOid = 1, kField = 2, kPages = 3, kElements = 4, kCreated = 5;

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
    bool check = st[kSerial] != txn->serial || st[kOid] != obj->oid ||
                 st[kField] != uint64_t(fld_no) + 1 || depth > VELH_COMPACT_MAX_DEPTH;
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
        if (st[kPages] <= 2 * g.dense_pages(elements))
            return VEL_S_OK;
    }
    velh_field_shape_t sh = shape_of(g, root);
    if (sh.depth > VELH_COMPACT_MAX_DEPTH || sh.pages > 2 * sh.dense_pages) {
        r = compact(a, order);
        if (r != VEL_S_OK)
            return r;
        sh.pages = sh.dense_pages;
    }
    st[kSerial] = txn->serial;
    st[kOid] = obj->oid;
    st[kField] = uint64_t(fld_no) + 1;
    st[kPages] = sh.pages;
    st[kElements] = sh.elements;
    st[kCreated] = txn->created.size();
    return VEL_S_OK;
}

} // extern "C"
