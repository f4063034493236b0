// Read-only walk of a field's page tree, shared by the statistics and the
// dump.  The walk records every page in depth-first pre-order (the #k names
// of the dump) and checks the layout as it descends, so that a broken page is
// reported instead of followed: kinds 2/3, 1 <= user <= capacity, every leaf
// at one level, at most VEL_SEQ_MAX_DEPTH levels, entry counts equal to the
// subtree sizes.
//
// Capacities, for page size P and element size s:
//   leaf   (8P - 127) / (8s + 1)   one value and one null bit per slot,
//                                  the mask in whole words at the page end
//   inner  (P - 8) / (16 + s)      ordered scalar fields: entry and key
//          (P - 8) / 16            unordered fields, and every char field
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "family.h"
#include "storage/field_root.h"
#include "velseq.hpp"

using namespace veltools;

namespace {

struct Node {
    const vel_seq_page_t *page;
    int level;
    uint64_t elements;
    uint64_t nulls;                 // leaves only
    std::vector<uint64_t> children; // inner pages: pre-order numbers of the children walked
};

struct Walker {
    const velt_field_t &f;
    const Family &fam;
    int32_t page_size;
    uint64_t leaf_cap;
    uint64_t inner_cap;
    velt_error_t *err;
    std::vector<Node> nodes;
    int leaf_level = -1;

    Walker(const velt_field_t &field, const Family &family, int32_t ps, velt_error_t *e)
        : f(field), fam(family), page_size(ps), err(e) {
        const uint64_t s = f.type.elem_size;
        leaf_cap = (static_cast<uint64_t>(ps) * 8 - 127) / (8 * s + 1);
        const bool keyed = f.order != VEL_SEQ_NO_ORDER && fam.size != 0;
        inner_cap = static_cast<uint64_t>(ps - 8) / (keyed ? 16 + s : 16);
    }

    const uint8_t *bytes(const vel_seq_page_t *pg) const {
        return reinterpret_cast<const uint8_t *>(pg);
    }
    vel_seq_node_t entry(const vel_seq_page_t *pg, uint64_t i) const {
        vel_seq_node_t e;
        std::memcpy(&e, bytes(pg) + page_size - 16 * (i + 1), sizeof e);
        return e;
    }
    bool is_null(const vel_seq_page_t *pg, uint64_t i) const {
        const uint64_t words = (leaf_cap + 63) / 64;
        vel_bitmap_word_t word;
        std::memcpy(&word, bytes(pg) + page_size - 8 * words + 8 * (i / 64), sizeof word);
        return ((word >> (i % 64)) & 1) != 0;
    }
    const uint8_t *value(const vel_seq_page_t *pg, uint64_t i) const {
        return bytes(pg) + 8 + i * f.type.elem_size;
    }

    int bad(uint64_t ordinal, int level, const std::string &what) {
        set_error(err, VELT_E_BAD_TREE, ordinal, "page #%llu (level %d): %s",
                  static_cast<unsigned long long>(ordinal), level, what.c_str());
        return VELT_E_BAD_TREE;
    }

    int walk(const vel_seq_page_t *pg, int level, uint64_t *count) {
        const uint64_t me = nodes.size();
        if (pg == nullptr)
            return bad(me, level, "null page reference");
        if (level >= VEL_SEQ_MAX_DEPTH)
            return bad(me, level, "deeper than the deepest level allowed");
        nodes.push_back(Node{pg, level, 0, 0, {}});
        const int kind = pg->hdr.kind & 15;
        const uint64_t user = pg->hdr.user;
        if (kind == 3) {
            if (user < 1 || user > leaf_cap)
                return bad(me, level,
                           "leaf holds " + std::to_string(user) + " values, capacity " +
                               std::to_string(leaf_cap));
            if (leaf_level < 0)
                leaf_level = level;
            else if (leaf_level != level)
                return bad(me, level,
                           "leaf at another level than leaf #0's " + std::to_string(leaf_level));
            uint64_t nulls = 0;
            for (uint64_t i = 0; i < user; i++)
                nulls += is_null(pg, i) ? 1 : 0;
            nodes[me].elements = user;
            nodes[me].nulls = nulls;
            *count = user;
            return VELT_OK;
        }
        if (kind != 2)
            return bad(me, level, "page kind " + std::to_string(kind));
        if (user < 1 || user > inner_cap)
            return bad(me, level,
                       "inner page holds " + std::to_string(user) + " children, capacity " +
                           std::to_string(inner_cap));
        uint64_t total = 0;
        for (uint64_t i = 0; i < user; i++) {
            const vel_seq_node_t e = entry(pg, i);
            nodes[me].children.push_back(nodes.size());
            uint64_t sub = 0;
            int rc = walk(e.page, level + 1, &sub);
            if (rc != VELT_OK)
                return rc;
            if (e.count != sub)
                return bad(me, level,
                           "entry " + std::to_string(i) + " counts " + std::to_string(e.count) +
                               ", its subtree holds " + std::to_string(sub));
            total += sub;
        }
        nodes[me].elements = total;
        *count = total;
        return VELT_OK;
    }
};

int start_walk(vel_objhandle_h obj, const velt_field_t *f, velt_error_t *err, const Family **fam,
               int32_t *page_size, const vel_seq_page_t **root) {
    *fam = family_of(f->type);
    if (*fam == nullptr) {
        set_error(err, VELT_E_ARG, 0, "unknown element type");
        return VELT_E_ARG;
    }
    vel_seq_page_t *r = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, f->u_offset, f->c_offset, &r);
    if (rc != VEL_S_OK) {
        set_error(err, rc, 0, "root fetch failed with %d %s", rc, velseq::code_name(rc));
        return rc;
    }
    *page_size = obj->pm->large_page_size(obj->con);
    *root = r;
    return VELT_OK;
}

std::string escaped(const uint8_t *p, size_t width, size_t shown) {
    while (width > 0 && p[width - 1] == 0)
        width--;
    std::string s = "\"";
    for (size_t i = 0; i < width && i < shown; i++) {
        const unsigned c = p[i];
        if (c == '"' || c == '\\') {
            s += '\\';
            s += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7f) {
            s += static_cast<char>(c);
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            s += buf;
        }
    }
    s += '"';
    if (width > shown)
        s += "...";
    return s;
}

std::string preview(const Walker &w, const uint8_t *v, const velt_dump_options_t &opt) {
    if (w.fam.size == 0)
        return escaped(v, w.f.type.elem_size, opt.char_bytes);
    std::string s;
    w.fam.format(v, w.f.type.elem_size, s);
    return s;
}

const char *order_word(vel_seq_order_t order) {
    return order == VEL_SEQ_ASC_ORDER    ? "ascending"
           : order == VEL_SEQ_DESC_ORDER ? "descending"
                                         : "unordered";
}

} // namespace

extern "C" int velt_tree_stats(vel_objhandle_h obj, const velt_field_t *f, velt_tree_stats_t *st,
                               velt_error_t *err) {
    std::memset(st, 0, sizeof *st);
    const Family *fam;
    const vel_seq_page_t *root;
    int rc = start_walk(obj, f, err, &fam, &st->page_size, &root);
    if (rc != VELT_OK)
        return rc;
    Walker w(*f, *fam, st->page_size, err);
    st->leaf_capacity = w.leaf_cap;
    st->inner_capacity = w.inner_cap;
    if (root == nullptr)
        return VELT_OK;
    uint64_t count = 0;
    rc = w.walk(root, 0, &count);
    if (rc != VELT_OK)
        return rc;

    const uint64_t s = f->type.elem_size;
    const uint64_t mask_bytes = 8 * ((w.leaf_cap + 63) / 64);
    const bool keyed = f->order != VEL_SEQ_NO_ORDER;
    st->depth = static_cast<uint32_t>(w.leaf_level + 1);
    st->elements = count;
    st->leaf_fill_min = UINT64_MAX;
    for (const Node &n : w.nodes) {
        st->pages++;
        st->pages_at_level[n.level]++;
        if (n.page->ref_count > 1)
            st->shared_pages++;
        const uint64_t user = n.page->hdr.user;
        if ((n.page->hdr.kind & 15) == 3) {
            st->leaf_pages++;
            st->nulls += n.nulls;
            st->leaf_fill_min = std::min(st->leaf_fill_min, user);
            st->leaf_fill_max = std::max(st->leaf_fill_max, user);
            st->bytes_used += 8 + user * s + mask_bytes;
        } else {
            st->inner_pages++;
            st->bytes_used += 8 + user * (16 + (keyed ? s : 0));
        }
    }
    st->leaf_fill_avg = static_cast<double>(count) / static_cast<double>(st->leaf_pages);
    st->bytes_allocated = st->pages * static_cast<uint64_t>(st->page_size);
    return VELT_OK;
}

extern "C" void velt_print_stats(FILE *out, const velt_tree_stats_t *st) {
    auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
    std::fprintf(out, "page size       %d\n", st->page_size);
    std::fprintf(out, "depth           %u\n", st->depth);
    std::fprintf(out, "pages           %llu (%llu inner, %llu leaf, %llu shared)\n", u(st->pages),
                 u(st->inner_pages), u(st->leaf_pages), u(st->shared_pages));
    for (uint32_t l = 0; l < st->depth; l++)
        std::fprintf(out, "  level %-2u      %llu\n", l, u(st->pages_at_level[l]));
    std::fprintf(out, "elements        %llu (%llu null)\n", u(st->elements), u(st->nulls));
    std::fprintf(out, "leaf capacity   %llu values\n", u(st->leaf_capacity));
    std::fprintf(out, "inner capacity  %llu children\n", u(st->inner_capacity));
    if (st->leaf_pages > 0)
        std::fprintf(out, "leaf fill       min %llu, avg %.1f, max %llu (%.1f%% of capacity)\n",
                     u(st->leaf_fill_min), st->leaf_fill_avg, u(st->leaf_fill_max),
                     100.0 * st->leaf_fill_avg / static_cast<double>(st->leaf_capacity));
    std::fprintf(out, "bytes           %llu used of %llu allocated", u(st->bytes_used),
                 u(st->bytes_allocated));
    if (st->bytes_allocated > 0)
        std::fprintf(out, " (%.1f%%)",
                     100.0 * static_cast<double>(st->bytes_used) /
                         static_cast<double>(st->bytes_allocated));
    std::fputc('\n', out);
}

extern "C" int velt_dump_tree(vel_objhandle_h obj, const velt_field_t *f, FILE *out,
                              const velt_dump_options_t *opt, velt_error_t *err) {
    const velt_dump_options_t defaults{8, 16};
    if (opt == nullptr)
        opt = &defaults;
    const Family *fam;
    int32_t page_size;
    const vel_seq_page_t *root;
    int rc = start_walk(obj, f, err, &fam, &page_size, &root);
    if (rc != VELT_OK)
        return rc;
    char tname[16];
    velt_type_name(f->type, tname, sizeof tname);
    if (root == nullptr) {
        std::fprintf(out, "sequence %s, %s, page size %d: empty\n", tname, order_word(f->order),
                     page_size);
        return VELT_OK;
    }
    Walker w(*f, *fam, page_size, err);
    uint64_t count = 0;
    const int walked = w.walk(root, 0, &count);
    if (walked == VELT_OK)
        std::fprintf(out, "sequence %s, %s, page size %d: depth %d, %zu pages, %llu elements\n",
                     tname, order_word(f->order), page_size, w.leaf_level + 1, w.nodes.size(),
                     static_cast<unsigned long long>(count));
    else
        std::fprintf(out, "sequence %s, %s, page size %d: broken tree\n", tname,
                     order_word(f->order), page_size);

    const bool keyed = f->order != VEL_SEQ_NO_ORDER;
    for (size_t k = 0; k < w.nodes.size(); k++) {
        const Node &n = w.nodes[k];
        const std::string indent(2 * static_cast<size_t>(n.level), ' ');
        const uint64_t user = n.page->hdr.user;
        if ((n.page->hdr.kind & 15) == 2) {
            std::fprintf(out, "%s#%zu inner L%d: %llu children, %llu elements\n", indent.c_str(), k,
                         n.level, static_cast<unsigned long long>(user),
                         static_cast<unsigned long long>(n.elements));
            for (uint64_t i = 0; i < user && i <= n.children.size(); i++) {
                std::string line = indent + "    [" + std::to_string(i) + "] ";
                line += i < n.children.size() ? "#" + std::to_string(n.children[i])
                                              : std::string("(not walked)");
                line += " count " + std::to_string(w.entry(n.page, i).count);
                if (keyed)
                    line += " key " + preview(w, w.value(n.page, i), *opt);
                std::fprintf(out, "%s\n", line.c_str());
            }
            continue;
        }
        if ((n.page->hdr.kind & 15) != 3) {
            std::fprintf(out, "%s#%zu kind %d L%d\n", indent.c_str(), k, n.page->hdr.kind & 15,
                         n.level);
            continue;
        }
        std::string line = indent + "#" + std::to_string(k) + " leaf L" + std::to_string(n.level) +
                           ": " + std::to_string(user) + " values, " + std::to_string(n.nulls) +
                           " null";
        const uint64_t shown = std::min<uint64_t>({user, opt->preview, w.leaf_cap});
        for (uint64_t i = 0; i < shown; i++) {
            line += i == 0 ? ": " : ", ";
            line += w.is_null(n.page, i) ? "null" : preview(w, w.value(n.page, i), *opt);
        }
        if (shown > 0 && shown < user)
            line += ", ... (+" + std::to_string(user - shown) + ")";
        std::fprintf(out, "%s\n", line.c_str());
    }
    if (walked != VELT_OK)
        std::fprintf(out, "!! %s\n", err != nullptr ? err->message : "broken page");
    return walked;
}
