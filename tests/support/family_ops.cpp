#include "family_ops.h"

#include <stdexcept>

namespace vstest {

namespace {

FamilyOps wrap(const velrel::Family &f) {
    const bool is_signed = f.elem_type == VEL_DD_INT1 || f.elem_type == VEL_DD_INT2 ||
                           f.elem_type == VEL_DD_INT4 || f.elem_type == VEL_DD_INT8;
    return FamilyOps{f,          f.is_char ? "char" + std::to_string(f.width) : f.name,
                     f.seq_code, f.width,
                     f.is_char,  f.is_float,
                     is_signed};
}

} // namespace

const std::vector<FamilyOps> &all_families() {
    static const std::vector<FamilyOps> families = [] {
        std::vector<FamilyOps> out;
        for (const velrel::Family &f : velrel::scalar_families())
            out.push_back(wrap(f));
        for (size_t width : {3, 16, 32})
            out.push_back(wrap(velrel::char_family(width)));
        return out;
    }();
    return families;
}

const FamilyOps &family(const std::string &name) {
    for (const FamilyOps &f : all_families())
        if (f.name == name)
            return f;
    throw std::invalid_argument("no element family " + name);
}

} // namespace vstest
