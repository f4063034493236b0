// Tables by name, from the host's catalogue: a table is a named class, its
// columns the class's fields with their names, types and declared orders.
#include "dispatch.h"

namespace velseq::table {

namespace {

// The element type of a field: sequences by their code, scalars by the
// sequence code of the same element type.
column_def def_of(const velh_field_info_t &fi) {
    column_def d;
    d.name = fi.name != nullptr ? fi.name : "";
    d.order = static_cast<vel_seq_order_t>(fi.order);
    if (std::optional<column_type> t = type_of(fi)) {
        d.type = *t;
        return d;
    }
    d.scalar = true;
    if (fi.type == VEL_DD_CHAR) {
        d.type = {VEL_DD_SEQUENCE_CHAR, fi.elem_size};
        return d;
    }
    velh_field_info_t as_seq = fi;
#define VELSEQ_SCALAR_(S, T, DD)                                                                   \
    if (fi.type == VEL_DD_##DD)                                                                    \
        as_seq.type = VEL_DD_SEQUENCE_##DD;
    VEL_SEQ_SCALAR_TYPES(VELSEQ_SCALAR_)
#undef VELSEQ_SCALAR_
    if (std::optional<column_type> t = type_of(as_seq)) {
        d.type = *t;
        return d;
    }
    throw error(VEL_E_ILLEGAL_TYPE, "field '" + d.name + "' has no type of this layer (code " +
                                        std::to_string(fi.type) + ")");
}

uint8_t scalar_code(column_type t) {
#define VELSEQ_SCALAR_(S, T, DD)                                                                   \
    if (t.code == VEL_DD_SEQUENCE_##DD)                                                            \
        return VEL_DD_##DD;
    VEL_SEQ_SCALAR_TYPES(VELSEQ_SCALAR_)
#undef VELSEQ_SCALAR_
    return VEL_DD_CHAR;
}

table_info info_of(velh_db_t *db, const velh_class_info_t &ci) {
    table_info t;
    t.code = ci.code;
    t.name = ci.name;
    for (uint16_t f = 0; f < ci.n_fields; f++) {
        velh_field_info_t fi{};
        velseq::detail::check(velh_field_info(db, ci.code, f, &fi), "reading the catalogue");
        t.columns.push_back(def_of(fi));
    }
    return t;
}

const column_def &scalar_def(const vel_objhandle_t &obj, const table_info &t, uint16_t fld_no) {
    if (obj.class_code != t.code)
        throw error(VEL_E_HOST_WRONG_FIELD, "the object is not of table '" + t.name + "'");
    if (fld_no >= t.columns.size() || !t.columns[fld_no].scalar)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    "table '" + t.name + "': field " + std::to_string(fld_no) + " is no scalar");
    return t.columns[fld_no];
}

} // namespace

uint16_t table_info::field(std::string_view name) const {
    for (size_t i = 0; i < columns.size(); i++)
        if (columns[i].name == name)
            return static_cast<uint16_t>(i);
    throw error(VEL_E_HOST_NO_FIELD, "table '" + this->name + "' has no column '" +
                                         velseq::detail::shortened(name) + "'");
}

std::vector<table_info> tables(velh_db_t *db) {
    std::vector<table_info> out;
    const uint16_t n = velh_class_count(db);
    for (uint16_t code = 1; code <= n; code++) {
        velh_class_info_t ci{};
        velseq::detail::check(velh_class_info(db, code, &ci), "reading the catalogue");
        if (*ci.name != '\0')
            out.push_back(info_of(db, ci));
    }
    return out;
}

std::optional<table_info> find_table(velh_db_t *db, std::string_view name) {
    velh_class_info_t ci{};
    const VEL_RET rc = velh_class_by_name(db, std::string(name).c_str(), &ci);
    if (rc == VEL_E_HOST_NO_CLASS)
        return std::nullopt;
    velseq::detail::check(rc, "reading the catalogue");
    return info_of(db, ci);
}

table_info define_table(velh_db_t *db, const std::string &name,
                        const std::vector<column_def> &columns) {
    if (name.empty())
        throw error(VEL_E_ILLEGAL_PARAM, "a table needs a name");
    velseq::detail::check_name(name, "table");
    std::vector<velh_field_def_t> defs;
    for (const column_def &c : columns) {
        velseq::detail::check_name(c.name, "column");
        if (c.name.empty())
            throw error(VEL_E_ILLEGAL_PARAM, "table '" + name + "': a column needs a name");
        if (!type_by_name(type_name(c.type)) && !(c.scalar && c.type.code == VEL_DD_SEQUENCE_CHAR))
            throw error(VEL_E_ILLEGAL_TYPE, "column '" + c.name + "': not an element type");
        if (c.scalar && c.order != VEL_SEQ_NO_ORDER)
            throw error(VEL_E_ILLEGAL_PARAM, "column '" + c.name + "': a scalar keeps no order");
        velh_field_def_t d{};
        d.name = c.name.c_str();
        d.type = c.scalar ? scalar_code(c.type) : c.type.code;
        d.width = c.type.code == VEL_DD_SEQUENCE_CHAR ? c.type.width : 0;
        d.order = static_cast<uint8_t>(c.order);
        defs.push_back(d);
    }
    uint16_t code = 0;
    velseq::detail::check_logged(velh_class_define(db, name.c_str(), defs.data(),
                                                   static_cast<uint16_t>(defs.size()), 0,
                                                   VELH_PM_INMEM, &code),
                                 "defining table '" + velseq::detail::shortened(name) + "'");
    velh_class_info_t ci{};
    velseq::detail::check(velh_class_info(db, code, &ci), "reading the catalogue");
    return info_of(db, ci);
}

column column_of(const vel_objhandle_t &obj, velh_db_t *db, const table_info &t, uint16_t fld_no) {
    if (obj.class_code != t.code)
        throw error(VEL_E_HOST_WRONG_FIELD, "the object is not of table '" + t.name + "'");
    if (fld_no >= t.columns.size() || t.columns[fld_no].scalar)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    "table '" + t.name + "': field " + std::to_string(fld_no) + " is no column");
    column c{obj, {}, t.columns[fld_no].type};
    velseq::detail::check(velh_field_info(db, t.code, fld_no, &c.field), "reading the catalogue");
    return c;
}

array get_scalar(const vel_objhandle_t &obj, const table_info &t, uint16_t fld_no) {
    const column_def &d = scalar_def(obj, t, fld_no);
    array a;
    a.type = d.type;
    a.length = 1;
    a.values.resize(d.type.width);
    velseq::detail::check(velh_get(&obj, fld_no, a.values.data(), d.type.width),
                          ("reading " + d.name).c_str());
    return a;
}

void set_scalar(const vel_objhandle_t &obj, const table_info &t, uint16_t fld_no,
                const array &value) {
    const column_def &d = scalar_def(obj, t, fld_no);
    if (!(value.type == d.type) || value.length != 1 || !value.valid(0) ||
        value.values.size() != d.type.width)
        throw error(VEL_E_ILLEGAL_TYPE,
                    "setting " + d.name + ": give one " + type_name(d.type) + " value, present");
    velseq::detail::check(velh_set(&obj, fld_no, value.values.data(), d.type.width),
                          ("setting " + d.name).c_str());
}

} // namespace velseq::table
