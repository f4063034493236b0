// Memory behind exported Arrow structures.  A schema or array tree is one
// owner, shared by the tree's root and each child: every struct of the tree
// gets its own release callback holding a reference, so that a consumer
// may move a child out and release it after its parent, as the C data
// interface allows.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "velseq/arrow.h"

namespace velseq::table::arrow {

// Strings and children of a schema tree.
struct schema_owner {
    std::vector<std::string> strings;      // format, name, metadata of each child
    std::vector<ArrowSchema> children;     // the root's children
    std::vector<ArrowSchema *> child_ptrs; // root.children
    std::string format = "+s";
};

// Buffers and children of one record batch.
template <class Extra> struct array_owner {
    std::vector<ArrowArray> children;
    std::vector<ArrowArray *> child_ptrs;
    std::vector<std::vector<const void *>> child_buffers;
    std::vector<std::unique_ptr<unsigned char[]>> memory; // copied values, bitmaps, offsets
    const void *root_buffers[1] = {nullptr};              // a struct array has no validity
    Extra extra;                                          // what the batch's pointers need alive
};

// private_data of every struct of a tree: one reference to its owner.
template <class Owner, class S> void release_node(S *s) {
    if (s == nullptr || s->release == nullptr)
        return;
    // A root releases the children the consumer has not moved out.
    for (int64_t i = 0; i < s->n_children; i++)
        if (s->children[i]->release != nullptr)
            s->children[i]->release(s->children[i]);
    delete static_cast<std::shared_ptr<Owner> *>(s->private_data);
    s->release = nullptr;
}

// Attaches struct `s` (already filled) to `owner`.
template <class Owner, class S> void hold(S &s, const std::shared_ptr<Owner> &owner) {
    s.private_data = new std::shared_ptr<Owner>(owner);
    s.release = &release_node<Owner, S>;
}

// Arrow's metadata encoding: int32 pair count, then each key and value as
// an int32 byte length and its bytes, native byte order.
inline std::string encode_metadata(const std::vector<std::pair<std::string, std::string>> &kv) {
    std::string out;
    auto put32 = [&](int32_t v) { out.append(reinterpret_cast<const char *>(&v), sizeof v); };
    put32(static_cast<int32_t>(kv.size()));
    for (const auto &[k, v] : kv) {
        put32(static_cast<int32_t>(k.size()));
        out += k;
        put32(static_cast<int32_t>(v.size()));
        out += v;
    }
    return out;
}

// The value of `key` in encoded metadata, or "" (also for NULL metadata).
inline std::string metadata_value(const char *meta, const std::string &key) {
    if (meta == nullptr)
        return {};
    auto get32 = [&](const char *&p) {
        int32_t v;
        std::memcpy(&v, p, sizeof v);
        p += sizeof v;
        return v;
    };
    const char *p = meta;
    const int32_t n = get32(p);
    for (int32_t i = 0; i < n; i++) {
        const int32_t kl = get32(p);
        std::string k(p, static_cast<size_t>(kl));
        p += kl;
        const int32_t vl = get32(p);
        std::string v(p, static_cast<size_t>(vl));
        p += vl;
        if (k == key)
            return v;
    }
    return {};
}

} // namespace velseq::table::arrow
