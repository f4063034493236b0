// Read-only walk of a field's page tree (seq_walk.h), shared by the
// statistics and the dump.  The walk records every page in depth-first
// pre-order (the #k names of the dump) and checks the layout as it descends,
// so that a broken page is reported instead of followed.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "family.h"
#include "seq_root.h"
#include "seq_walk.h"
#include "velseq.hpp"

using namespace veltools;
using namespace velseq::layout;

namespace {

struct Node {
    const vel_seq_page_t *page;
    int level;
    uint64_t elements;
    uint64_t nulls;                 // leaves only
    std::vector<uint64_t> children; // inner pages: pre-order numbers of the children walked
};

struct Walker : TreeWalk<Walker> {
    const velt_field_t &f;
    const Family &fam;
    std::vector<Node> nodes;
    std::vector<uint64_t> path; // path[l]: the page entered last at level l

    Walker(const velt_field_t &field, const Family &family, int32_t ps)
        : TreeWalk(ps, leaf_capacity(ps, field.type.elem_size),
                   static_cast<uint64_t>(inner_capacity(ps, field.type.elem_size,
                                                        field.order != VEL_SEQ_NO_ORDER,
                                                        family.size == 0))),
          f(field), fam(family) {}

    bool enter(const vel_seq_page_t *pg, int level, uint64_t k) {
        path.resize(static_cast<size_t>(level) + 1);
        path[static_cast<size_t>(level)] = k;
        if (level > 0)
            nodes[path[static_cast<size_t>(level) - 1]].children.push_back(k);
        nodes.push_back(Node{pg, level, 0, 0, {}});
        return true;
    }
    bool leaf(const vel_seq_page_t *pg, int, uint64_t k) {
        nodes[k].elements = pg->hdr.user;
        for (uint64_t i = 0; i < pg->hdr.user; i++)
            nodes[k].nulls += is_null(pg, i);
        return true;
    }
    bool child(const vel_seq_page_t *, int, uint64_t k, uint64_t, uint64_t count,
               const vel_seq_page_t *) {
        nodes[k].elements += count;
        return true;
    }
    const vel_seq_node_t &entry(const vel_seq_page_t *pg, uint64_t i) const {
        return *entry_at(pg, page_size, static_cast<int64_t>(i));
    }
    bool is_null(const vel_seq_page_t *pg, uint64_t i) const {
        return velseq::layout::is_null(null_mask(pg, page_size, leaf_cap), i);
    }
    const uint8_t *value(const vel_seq_page_t *pg, uint64_t i) const {
        return reinterpret_cast<const uint8_t *>(value_at(pg, f.type.elem_size, i));
    }
    int walked(const vel_seq_page_t *root, velt_error_t *err) {
        if (walk(root))
            return VELT_OK;
        set_error(err, VELT_E_BAD_TREE, fault_page, "%s", message);
        return VELT_E_BAD_TREE;
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
    Walker w(*f, *fam, st->page_size);
    st->leaf_capacity = w.leaf_cap;
    st->inner_capacity = w.inner_cap;
    if (root == nullptr)
        return VELT_OK;
    rc = w.walked(root, err);
    if (rc != VELT_OK)
        return rc;

    const uint64_t s = f->type.elem_size;
    const uint64_t mask_bytes = 8 * null_mask_words(w.leaf_cap);
    const bool keyed = f->order != VEL_SEQ_NO_ORDER;
    st->depth = static_cast<uint32_t>(w.depth());
    st->elements = w.elements;
    st->leaf_fill_min = UINT64_MAX;
    for (const Node &n : w.nodes) {
        st->pages++;
        st->pages_at_level[n.level]++;
        if (n.page->ref_count > 1)
            st->shared_pages++;
        const uint64_t user = n.page->hdr.user;
        if (page_kind(n.page) == kLeafPage) {
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
    st->leaf_fill_avg = static_cast<double>(w.elements) / static_cast<double>(st->leaf_pages);
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
    Walker w(*f, *fam, page_size);
    const int walked = w.walked(root, err);
    if (walked == VELT_OK)
        std::fprintf(out, "sequence %s, %s, page size %d: depth %d, %zu pages, %llu elements\n",
                     tname, order_word(f->order), page_size, w.depth(), w.nodes.size(),
                     static_cast<unsigned long long>(w.elements));
    else
        std::fprintf(out, "sequence %s, %s, page size %d: broken tree\n", tname,
                     order_word(f->order), page_size);

    const bool keyed = f->order != VEL_SEQ_NO_ORDER;
    for (size_t k = 0; k < w.nodes.size(); k++) {
        const Node &n = w.nodes[k];
        const std::string indent(2 * static_cast<size_t>(n.level), ' ');
        const uint64_t user = n.page->hdr.user;
        const int kind = page_kind(n.page);
        if (kind == kInnerPage) {
            std::fprintf(out, "%s#%zu inner L%d: %llu children, %llu elements\n", indent.c_str(), k,
                         n.level, static_cast<unsigned long long>(user),
                         static_cast<unsigned long long>(n.elements));
            for (uint64_t i = 0; i < user && i <= n.children.size(); i++) {
                std::string line = indent + "    [" + std::to_string(i) + "] ";
                line +=
                    i < n.children.size() ? '#' + std::to_string(n.children[i]) : "(not walked)";
                line += " count " + std::to_string(w.entry(n.page, i).count);
                if (keyed)
                    line += " key " + preview(w, w.value(n.page, i), *opt);
                std::fprintf(out, "%s\n", line.c_str());
            }
            continue;
        }
        if (kind != kLeafPage) {
            std::fprintf(out, "%s#%zu kind %d L%d\n", indent.c_str(), k, kind, n.level);
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
