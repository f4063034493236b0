#include "tree_check.h"

#include <cstring>

#include "storage/field_root.h"

namespace vstest {

TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys) {
    TreeReport rep;
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, f.u_offset, f.c_offset, &root);
    if (rc != VEL_S_OK) {
        rep.error = "root fetch failed with " + std::to_string(static_cast<int>(rc));
        return rep;
    }
    velrel::TreeInfo ti;
    rep.error = velrel::check_tree(*f.fam, order, root, obj->pm->large_page_size(obj->con),
                                   check_keys, &ti);
    rep.depth = ti.depth;
    rep.pages = std::move(ti.page_list);
    rep.contents = std::move(ti.content);
    return rep;
}

std::string diff(const SeqModel &model, const SeqModel &got) {
    if (got.size() != model.size())
        return "field holds " + std::to_string(got.size()) + " elements, model " +
               std::to_string(model.size());
    for (size_t i = 0; i < model.size(); i++) {
        if (got.nulls[i] != model.nulls[i])
            return "null flag of element " + std::to_string(i) + " differs";
        if (std::memcmp(got.at(i), model.at(i), model.w) != 0)
            return "value of element " + std::to_string(i) + " differs";
    }
    return {};
}

} // namespace vstest
