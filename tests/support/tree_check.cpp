#include "tree_check.h"

#include <cstring>
#include <sstream>

#include "storage/field_root.h"

namespace vstest {

uint64_t leaf_capacity(int32_t page_size, size_t elem_size) {
    return (static_cast<uint64_t>(page_size) * 8 - 127) / (elem_size * 8 + 1);
}

uint64_t inner_capacity(int32_t page_size, size_t elem_size, bool is_char, bool ordered) {
    if (is_char || !ordered)
        return static_cast<uint64_t>(page_size - 8) / 16;
    return static_cast<uint64_t>(page_size - 8) / (16 + elem_size);
}

namespace {

constexpr int kMaxDepth = 14;

struct Walker {
    const FieldRef &f;
    bool ordered;
    bool check_keys;
    int32_t page_size;
    TreeReport &rep;
    int leaf_depth = -1;

    uint8_t *body(vel_seq_page_t *pg) { return reinterpret_cast<uint8_t *>(pg) + 8; }
    vel_seq_node_t *entry(vel_seq_page_t *pg, int i) {
        return reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<uint8_t *>(pg) + page_size -
                                                  16 * (i + 1));
    }

    bool fail(const std::string &path, const std::string &msg) {
        if (rep.error.empty())
            rep.error = "page " + path + ": " + msg;
        return false;
    }

    // Walks the subtree of pg; *count gets its element total and *first its
    // first value (a pointer into its leftmost leaf).
    bool walk(vel_seq_page_t *pg, int level, const std::string &path, uint64_t *count,
              const uint8_t **first) {
        if (pg == nullptr)
            return fail(path, "null page reference");
        if (level >= kMaxDepth)
            return fail(path, "deeper than 14 levels");
        rep.pages.push_back(pg);
        const int kind = pg->hdr.kind & 15;
        const int user = pg->hdr.user;
        if (kind == 3) {
            uint64_t cap = leaf_capacity(page_size, f.elem_size);
            if (user < 1 || static_cast<uint64_t>(user) > cap)
                return fail(path, "leaf holds " + std::to_string(user) + " values, capacity " +
                                      std::to_string(cap));
            if (leaf_depth < 0)
                leaf_depth = level;
            else if (leaf_depth != level)
                return fail(path, "leaf at depth " + std::to_string(level) + ", others at " +
                                      std::to_string(leaf_depth));
            auto *mask = reinterpret_cast<vel_bitmap_word_t *>(reinterpret_cast<uint8_t *>(pg) +
                                                               page_size - 8 * ((cap + 63) / 64));
            rep.contents.bytes.insert(rep.contents.bytes.end(), body(pg),
                                      body(pg) + static_cast<size_t>(user) * f.elem_size);
            for (int i = 0; i < user; i++)
                rep.contents.nulls.push_back(bit(mask, static_cast<size_t>(i)));
            *count = static_cast<uint64_t>(user);
            *first = body(pg);
            return true;
        }
        if (kind != 2)
            return fail(path, "kind " + std::to_string(kind));
        uint64_t cap = inner_capacity(page_size, f.elem_size, f.is_char, ordered);
        if (user < 1 || static_cast<uint64_t>(user) > cap)
            return fail(path, "inner page holds " + std::to_string(user) + " children, capacity " +
                                  std::to_string(cap));
        uint64_t total = 0;
        for (int i = 0; i < user; i++) {
            uint64_t sub = 0;
            const uint8_t *sub_first = nullptr;
            std::string child_path = path + "/" + std::to_string(i);
            if (!walk(entry(pg, i)->page, level + 1, child_path, &sub, &sub_first))
                return false;
            if (entry(pg, i)->count != sub)
                return fail(path, "entry " + std::to_string(i) + " counts " +
                                      std::to_string(entry(pg, i)->count) + ", subtree holds " +
                                      std::to_string(sub));
            if (ordered && check_keys &&
                std::memcmp(body(pg) + static_cast<size_t>(i) * f.elem_size, sub_first,
                            f.elem_size) != 0)
                return fail(path, "key " + std::to_string(i) + " differs from its first value");
            if (i == 0)
                *first = sub_first;
            total += sub;
        }
        *count = total;
        return true;
    }
};

} // namespace

TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys) {
    TreeReport rep;
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, f.u_offset, f.c_offset, &root);
    if (rc != VEL_S_OK) {
        rep.error = "root fetch failed with " + std::to_string(static_cast<int>(rc));
        return rep;
    }
    if (root == nullptr)
        return rep;
    Walker w{f, order != VEL_SEQ_NO_ORDER, check_keys, obj->pm->large_page_size(obj->con), rep};
    uint64_t count = 0;
    const uint8_t *first = nullptr;
    if (w.walk(root, 0, "root", &count, &first)) {
        rep.depth = w.leaf_depth + 1;
        rep.elements = count;
    }
    return rep;
}

void SeqModel::append(const uint8_t *vals, size_t n, const vel_bitmap_word_t *nulls) {
    insert(size(), vals, n, nulls);
}

void SeqModel::insert(size_t pos, const uint8_t *vals, size_t n, const vel_bitmap_word_t *nulls) {
    bytes_.insert(bytes_.begin() + static_cast<std::ptrdiff_t>(pos * w_), vals, vals + n * w_);
    std::vector<bool> flags(n);
    for (size_t i = 0; i < n; i++)
        flags[i] = bit(nulls, i);
    nulls_.insert(nulls_.begin() + static_cast<std::ptrdiff_t>(pos), flags.begin(), flags.end());
}

void SeqModel::erase(uint64_t from, uint64_t till) {
    if (till < from || from >= size())
        return;
    if (till >= size())
        till = size() - 1;
    bytes_.erase(bytes_.begin() + static_cast<std::ptrdiff_t>(from * w_),
                 bytes_.begin() + static_cast<std::ptrdiff_t>((till + 1) * w_));
    nulls_.erase(nulls_.begin() + static_cast<std::ptrdiff_t>(from),
                 nulls_.begin() + static_cast<std::ptrdiff_t>(till + 1));
}

void SeqModel::clear() {
    bytes_.clear();
    nulls_.clear();
}

std::string SeqModel::diff(const SeqContents &c) const {
    if (c.size() != size())
        return "field holds " + std::to_string(c.size()) + " elements, model " +
               std::to_string(size());
    for (size_t i = 0; i < size(); i++) {
        if (c.nulls[i] != nulls_[i])
            return "null flag of element " + std::to_string(i) + " is " +
                   std::to_string(c.nulls[i]) + ", model " + std::to_string(nulls_[i]);
        if (std::memcmp(c.bytes.data() + i * w_, at(i), w_) != 0)
            return "value of element " + std::to_string(i) + " differs";
    }
    return {};
}

} // namespace vstest
