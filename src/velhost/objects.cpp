// Objects: creation, deletion, scalar fields, the module's object access
// services (vel_reading, vel_writing, vel_obj_pos), cursors and the database
// function table.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "host_internal.h"

namespace velhost {

thread_local Txn *t_writing = nullptr;

namespace {

constexpr uint32_t kCursorMagic = 0x56435552; // "VCUR"
constexpr uint16_t kListCursor = 1;
constexpr uint16_t kIndexCursor = 2;
constexpr uint64_t kAtEnd = UINT64_MAX;

static_assert(sizeof(vel_cursor_t) <= 232, "a list cursor must fit the iterator context");

// Object position: a multiple of the object page data size, so that a field
// at image offset q lies at (mo + q) mod d within its page, as the module's
// straddle test assumes.  Distinct objects get distinct positions until the
// 32-bit space wraps, which is harmless: positions only locate bytes inside
// the object passed along with them.
uint32_t object_position(uint64_t oid, const ClassDef *cls, uint32_t d) {
    const uint64_t slots = (UINT32_MAX - uint64_t(cls->image_bytes)) / d;
    return static_cast<uint32_t>(((oid * cls->pages_per_object) % slots) * d);
}

struct Resolved {
    Conn *conn = nullptr;
    Txn *txn = nullptr;
    ClassDef *cls = nullptr;
    Chain *chain = nullptr;
};

VEL_RET resolve_conn(vel_db_connection_h con, Resolved *r) {
    r->conn = conn_of(con);
    if (r->conn == nullptr)
        return VEL_E_HOST_BAD_ARG;
    r->txn = r->conn->txn;
    if (r->txn == nullptr)
        return VEL_E_HOST_TRANS_CLOSED;
    return VEL_S_OK;
}

// Connection, transaction, class and chain of an object handle.
VEL_RET resolve(const vel_objhandle_t *obj, Resolved *r) {
    if (obj == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(obj->con, r);
    if (ret != VEL_S_OK)
        return ret;
    Db *db = r->conn->db;
    r->cls = class_of(db, obj->class_code);
    if (r->cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
    auto it = db->chains.find(obj->oid);
    if (it == db->chains.end() || it->second->class_code != obj->class_code)
        return VEL_E_HOST_NO_OBJECT;
    r->chain = it->second;
    return VEL_S_OK;
}

// The version the transaction reads; null when the object does not exist
// for it.
Version *read_version(Db *db, Chain *c, Txn *txn) {
    std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
    Version *v = visible_version(c, txn);
    return v != nullptr && !v->deleted ? v : nullptr;
}

// The transaction's private version of the object, made on its first write:
// a copy of the visible version whose sequence trees gain one reference.
// The first writer of an object wins; a later one, or one whose snapshot
// misses a newer commit of the object, gets VEL_E_HOST_CONFLICT.
VEL_RET write_version(Db *db, Resolved &r, Version **out) {
    if (!r.txn->rw)
        return VEL_E_HOST_READ_ONLY;
    Chain *c = r.chain;
    {
        // Fast path of every later write: only this transaction changes a
        // chain whose writer it is.
        std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
        if (c->writer == r.txn) {
            if (c->priv->deleted)
                return VEL_E_HOST_NO_OBJECT;
            *out = c->priv;
            return VEL_S_OK;
        }
    }
    std::unique_lock<std::shared_mutex> lock(db->objects_mutex);
    if (c->writer == r.txn) {
        if (c->priv->deleted)
            return VEL_E_HOST_NO_OBJECT;
        *out = c->priv;
        return VEL_S_OK;
    }
    Version *base = visible_version(c, r.txn);
    if (base == nullptr || base->deleted)
        return VEL_E_HOST_NO_OBJECT;
    if (c->writer != nullptr || c->head != base)
        return VEL_E_HOST_CONFLICT;
    auto *v = new (std::nothrow) Version;
    if (v == nullptr)
        return VEL_E_NOMEM;
    v->chain = c;
    v->data = base->data;
    v->privatized.assign(r.cls->fields.size(), 0);
    const uint32_t afs = db->cfg.additional_object_field_size;
    for (uint16_t fno : r.cls->seq_fields)
        if (vel_seq_page_t *root = *root_slot(r.cls, v, r.cls->fields[fno], afs))
            ref_add(root);
    c->writer = r.txn;
    c->priv = v;
    r.txn->written.push_back(c);
    *out = v;
    return VEL_S_OK;
}

void fill_handle(vel_db_connection_h con, ClassDef *cls, Chain *c, vel_objhandle_t *obj) {
    obj->con = con;
    obj->pm = &cls->pm->pub;
    obj->mo = c->mo;
    obj->class_code = c->class_code;
    obj->oid = c->oid;
}

int refuse(VEL_WRK *w, VEL_RET code) {
    if (w != nullptr)
        w->ret = code;
    return 1;
}

void fill_wrk(VEL_WRK *w, vel_objhandle_h obj, Resolved &r, Version *v) {
    w->con = obj->con;
    w->pm = &r.cls->pm->pub;
    w->pagesize = r.conn->db->block.hdr.pagesize;
    w->pobj = v;
    w->ret = VEL_S_OK;
    w->class_code = obj->class_code;
}

// Three-way comparison of two scalar field values of a VEL_DD_* type; NaN
// sorts after every number.
int compare_keys(uint8_t type, uint16_t size, const std::byte *a, const std::byte *b) {
    auto cmp = [](auto x, auto y) { return x < y ? -1 : (y < x ? 1 : 0); };
    auto fcmp = [](auto x, auto y) {
        if (std::isnan(x) || std::isnan(y))
            return std::isnan(x) - std::isnan(y);
        return x < y ? -1 : (y < x ? 1 : 0);
    };
    auto ld = [](const std::byte *p, auto v) {
        std::memcpy(&v, p, sizeof v);
        return v;
    };
    switch (type) {
    case VEL_DD_UINT1:
        return cmp(ld(a, uint8_t()), ld(b, uint8_t()));
    case VEL_DD_UINT2:
        return cmp(ld(a, uint16_t()), ld(b, uint16_t()));
    case VEL_DD_UINT4:
        return cmp(ld(a, uint32_t()), ld(b, uint32_t()));
    case VEL_DD_UINT8:
    case VEL_DD_DATETIME:
        return cmp(ld(a, uint64_t()), ld(b, uint64_t()));
    case VEL_DD_INT1:
        return cmp(ld(a, int8_t()), ld(b, int8_t()));
    case VEL_DD_INT2:
        return cmp(ld(a, int16_t()), ld(b, int16_t()));
    case VEL_DD_INT4:
        return cmp(ld(a, int32_t()), ld(b, int32_t()));
    case VEL_DD_INT8:
        return cmp(ld(a, int64_t()), ld(b, int64_t()));
    case VEL_DD_FLOAT:
        return fcmp(ld(a, float()), ld(b, float()));
    case VEL_DD_DOUBLE:
        return fcmp(ld(a, double()), ld(b, double()));
    default:
        return std::memcmp(a, b, size);
    }
}

// Cursor checks common to every cursor operation.
VEL_RET cursor_check(vel_trans_h trans, vel_cursor_h cursor, Resolved *r) {
    if (cursor == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(reinterpret_cast<vel_db_connection_h>(trans), r);
    if (ret != VEL_S_OK)
        return ret;
    if (cursor->magic != kCursorMagic ||
        (cursor->kind != kListCursor && cursor->kind != kIndexCursor))
        return VEL_E_HOST_BAD_ARG;
    if (cursor->trans_serial != r->txn->serial)
        return VEL_E_HOST_TRANS_CLOSED;
    r->cls = class_of(r->conn->db, cursor->class_code);
    if (r->cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    if (cursor->kind == kIndexCursor && cursor->index_slot >= r->txn->indexes.size())
        return VEL_E_HOST_BAD_ARG;
    return VEL_S_OK;
}

// First object of the class after `oid` that the transaction sees; 0: none.
uint64_t next_visible(Db *db, ClassDef *cls, Txn *txn, uint64_t oid) {
    std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
    for (auto it = cls->objects.upper_bound(oid); it != cls->objects.end(); ++it) {
        Version *v = visible_version(it->second, txn);
        if (v != nullptr && !v->deleted)
            return it->first;
    }
    return 0;
}

VEL_RET cursor_move(vel_trans_h trans, vel_cursor_h cursor, bool first) {
    Resolved r;
    VEL_RET ret = cursor_check(trans, cursor, &r);
    if (ret != VEL_S_OK)
        return ret;
    if (!first && cursor->pos == kAtEnd)
        return VEL_S_CURSOR_END;
    if (cursor->kind == kListCursor) {
        uint64_t oid = next_visible(r.conn->db, r.cls, r.txn, first ? 0 : cursor->pos);
        cursor->pos = oid != 0 ? oid : kAtEnd;
        return oid != 0 ? VEL_S_OK : VEL_S_CURSOR_END;
    }
    const uint64_t n = r.txn->indexes[cursor->index_slot].size();
    const uint64_t rank = first ? 1 : cursor->pos + 1;
    if (rank > n) {
        cursor->pos = kAtEnd;
        return first ? VEL_S_NOTFOUND : VEL_S_CURSOR_END;
    }
    cursor->pos = rank;
    return VEL_S_OK;
}

void cursor_init(vel_cursor_h cursor, uint16_t kind, uint16_t class_code, Txn *txn,
                 uint64_t index_slot) {
    std::memset(cursor, 0, sizeof *cursor);
    cursor->magic = kCursorMagic;
    cursor->kind = kind;
    cursor->class_code = class_code;
    cursor->trans_serial = txn->serial;
    cursor->pos = 0;
    cursor->index_slot = index_slot;
}

VEL_RET open_object(vel_db_connection_h con, Resolved &r, uint16_t class_code, uint64_t oid,
                    vel_objhandle_t *obj) {
    Db *db = r.conn->db;
    r.cls = class_of(db, class_code);
    if (r.cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    Chain *c;
    {
        std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
        auto it = db->chains.find(oid);
        if (it == db->chains.end() || it->second->class_code != class_code)
            return VEL_E_HOST_NO_OBJECT;
        c = it->second;
        Version *v = visible_version(c, r.txn);
        if (v == nullptr || v->deleted)
            return VEL_E_HOST_NO_OBJECT;
    }
    fill_handle(con, r.cls, c, obj);
    return VEL_S_OK;
}

vel_page_manager_t *class_pm(vel_trans_h trans, uint16_t class_code) {
    Db *db = db_of(reinterpret_cast<vel_db_connection_h>(trans));
    if (db == nullptr)
        return nullptr;
    ClassDef *cls = class_of(db, class_code);
    // An unknown class gets the in-memory manager; the cursor it is used
    // with then reports the unknown class.
    return cls != nullptr ? &cls->pm->pub : &db->pms[VELH_PM_INMEM].pub;
}

const vel_db_vtable_t g_vtable = {class_pm};

} // namespace

} // namespace velhost

using namespace velhost;

extern "C" {

VEL_RET velh_obj_create(vel_db_connection_h con, uint16_t class_code, vel_objhandle_t *obj) {
    Resolved r;
    if (obj == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(con, &r);
    if (ret != VEL_S_OK)
        return ret;
    if (!r.txn->rw)
        return VEL_E_HOST_READ_ONLY;
    Db *db = r.conn->db;
    ClassDef *cls = class_of(db, class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    auto *c = new (std::nothrow) Chain;
    auto *v = new (std::nothrow) Version;
    if (c == nullptr || v == nullptr) {
        delete c;
        delete v;
        return VEL_E_NOMEM;
    }
    c->oid = db->next_oid.fetch_add(1);
    c->class_code = class_code;
    c->mo = object_position(c->oid, cls, db->obj_data);
    v->chain = c;
    v->data.assign((cls->image_bytes + 7) / 8, 0);
    v->privatized.assign(cls->fields.size(), 0);
    c->writer = r.txn;
    c->priv = v;
    {
        std::unique_lock<std::shared_mutex> lock(db->objects_mutex);
        db->chains.emplace(c->oid, c);
        cls->objects.emplace(c->oid, c);
    }
    r.txn->written.push_back(c);
    fill_handle(con, cls, c, obj);
    return VEL_S_OK;
}

VEL_RET velh_obj_open(vel_db_connection_h con, uint16_t class_code, uint64_t oid,
                      vel_objhandle_t *obj) {
    Resolved r;
    if (obj == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(con, &r);
    if (ret != VEL_S_OK)
        return ret;
    return open_object(con, r, class_code, oid, obj);
}

VEL_RET velh_obj_delete(vel_objhandle_t *obj) {
    Resolved r;
    VEL_RET ret = resolve(obj, &r);
    if (ret != VEL_S_OK)
        return ret;
    Db *db = r.conn->db;
    Version *v;
    ret = write_version(db, r, &v);
    if (ret != VEL_S_OK)
        return ret;
    const uint32_t afs = db->cfg.additional_object_field_size;
    for (uint16_t fno : r.cls->seq_fields) {
        vel_seq_page_t **slot = root_slot(r.cls, v, r.cls->fields[fno], afs);
        prune_tree(r.cls->pm, *slot, r.txn);
        *slot = nullptr;
    }
    std::unique_lock<std::shared_mutex> lock(db->objects_mutex);
    v->deleted = true;
    v->data.clear();
    return VEL_S_OK;
}

VEL_RET velh_get(const vel_objhandle_t *obj, uint16_t fld_no, void *value, size_t size) {
    Resolved r;
    VEL_RET ret = resolve(obj, &r);
    if (ret != VEL_S_OK)
        return ret;
    if (fld_no >= r.cls->fields.size())
        return VEL_E_HOST_NO_FIELD;
    const Field &f = r.cls->fields[fld_no];
    if (f.is_seq || size != f.size)
        return VEL_E_HOST_WRONG_FIELD;
    if (value == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Db *db = r.conn->db;
    Version *v = read_version(db, r.chain, r.txn);
    if (v == nullptr)
        return VEL_E_HOST_NO_OBJECT;
    std::memcpy(value, v->bytes() + db->cfg.additional_object_field_size + f.off, size);
    return VEL_S_OK;
}

VEL_RET velh_set(const vel_objhandle_t *obj, uint16_t fld_no, const void *value, size_t size) {
    Resolved r;
    VEL_RET ret = resolve(obj, &r);
    if (ret != VEL_S_OK)
        return ret;
    if (!r.txn->rw)
        return VEL_E_HOST_READ_ONLY;
    if (fld_no >= r.cls->fields.size())
        return VEL_E_HOST_NO_FIELD;
    const Field &f = r.cls->fields[fld_no];
    if (f.is_seq || size != f.size)
        return VEL_E_HOST_WRONG_FIELD;
    if (value == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Db *db = r.conn->db;
    Version *v;
    ret = write_version(db, r, &v);
    if (ret != VEL_S_OK)
        return ret;
    std::memcpy(v->bytes() + db->cfg.additional_object_field_size + f.off, value, size);
    return VEL_S_OK;
}

VEL_RET velh_obj_count(vel_db_connection_h con, uint16_t class_code, uint64_t *count) {
    Resolved r;
    if (count == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(con, &r);
    if (ret != VEL_S_OK)
        return ret;
    Db *db = r.conn->db;
    ClassDef *cls = class_of(db, class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    uint64_t n = 0;
    std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
    for (auto &[oid, c] : cls->objects) {
        Version *v = visible_version(c, r.txn);
        n += v != nullptr && !v->deleted;
    }
    *count = n;
    return VEL_S_OK;
}

// ---- the module's object access -------------------------------------------

namespace {

// The private version of `obj` when the connection's open transaction is the
// writer recorded in its write cache; null otherwise (take the full path).
// Only the writer changes writer and priv of its chain, and it does so on
// this connection, so the unlocked reads see its own stores.
inline Conn *conn_inline(vel_db_connection_h con) {
    return con != nullptr ? static_cast<Conn *>(con->host) : nullptr;
}

inline Version *cached_private(vel_objhandle_h obj, Resolved *r) {
    Conn *conn = conn_inline(obj->con);
    if (conn == nullptr || conn->txn == nullptr)
        return nullptr;
    const WriteCache &wc = conn->last_write;
    if (wc.serial != conn->txn->serial || wc.oid != obj->oid || wc.class_code != obj->class_code)
        return nullptr;
    Chain *c = wc.chain;
    if (c->writer != conn->txn || c->priv->deleted)
        return nullptr;
    r->conn = conn;
    r->txn = conn->txn;
    r->cls = wc.cls;
    r->chain = c;
    return c->priv;
}

} // namespace

int vel_reading(vel_objhandle_h obj, VEL_WRK *w) {
    Resolved r;
    if (w != nullptr) {
        if (Version *v = cached_private(obj, &r)) {
            fill_wrk(w, obj, r, v);
            return 0;
        }
    }
    VEL_RET ret = resolve(obj, &r);
    if (ret != VEL_S_OK)
        return refuse(w, ret);
    if (w == nullptr)
        return 1;
    Version *v = read_version(r.conn->db, r.chain, r.txn);
    if (v == nullptr)
        return refuse(w, VEL_E_HOST_NO_OBJECT);
    fill_wrk(w, obj, r, v);
    return 0;
}

int vel_writing(vel_objhandle_h obj, VEL_WRK *w, int flags, uint16_t fld_no) {
    (void)flags;
    Resolved r;
    if (w != nullptr) {
        Version *v = cached_private(obj, &r);
        // The ALT manager's first write of a field still makes its tree private.
        if (v != nullptr && fld_no < r.conn->last_write.n_fields &&
            (!r.conn->last_write.alt || v->privatized[fld_no] || !r.cls->fields[fld_no].is_seq) &&
            r.txn->doomed == VEL_S_OK) {
            fill_wrk(w, obj, r, v);
            t_writing = r.txn;
            return 0;
        }
    }
    VEL_RET ret = resolve(obj, &r);
    if (ret != VEL_S_OK)
        return refuse(w, ret);
    if (w == nullptr)
        return 1;
    if (!r.txn->rw)
        return refuse(w, VEL_E_HOST_READ_ONLY);
    if (r.txn->doomed != VEL_S_OK)
        return refuse(w, VEL_E_HOST_TRANS_FAILED);
    if (fld_no >= r.cls->fields.size())
        return refuse(w, VEL_E_HOST_NO_FIELD);
    Db *db = r.conn->db;
    Version *v;
    ret = write_version(db, r, &v);
    if (ret != VEL_S_OK)
        return refuse(w, ret);
    const Field &f = r.cls->fields[fld_no];
    // A page manager whose pages the module writes in place: the host makes
    // the field's tree private before handing it out.
    if (f.is_seq && r.cls->pm->which == VELH_PM_ALT && !db->cfg.concurrent_write_transactions &&
        !v->privatized[fld_no]) {
        ret = make_tree_private(r.txn, r.cls->pm,
                                root_slot(r.cls, v, f, db->cfg.additional_object_field_size));
        if (ret != VEL_S_OK)
            return refuse(w, ret);
        v->privatized[fld_no] = 1;
    }
    r.conn->last_write = {r.txn->serial,
                          obj->oid,
                          obj->class_code,
                          static_cast<uint16_t>(r.cls->fields.size()),
                          r.cls->pm->which == VELH_PM_ALT && !db->cfg.concurrent_write_transactions,
                          r.cls->image_bytes,
                          r.cls,
                          r.chain};
    fill_wrk(w, obj, r, v);
    t_writing = r.txn;
    return 0;
}

void vel_end_writing(vel_objhandle_h obj, VEL_WRK *w) {
    (void)obj;
    (void)w;
    t_writing = nullptr;
}

void *vel_obj_pos(void *pobj, vel_db_connection_h con, vel_page_manager_t *pm, uint32_t pos,
                  int for_write) {
    (void)pm;
    Conn *c = conn_inline(con);
    auto *v = static_cast<Version *>(pobj);
    if (c == nullptr || v == nullptr || v->deleted)
        vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__);
    // The image size of the object last opened for writing is at hand.
    const WriteCache &wc = c->last_write;
    if (c->txn != nullptr && wc.serial == c->txn->serial && wc.chain == v->chain) {
        const uint32_t off = pos - v->chain->mo + c->db->cfg.additional_object_field_size;
        if (pos < v->chain->mo || off >= wc.image_bytes)
            vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__);
        if (for_write && (v->chain->writer != c->txn || v->chain->priv != v))
            vel_stop__(VEL_E_HOST_READ_ONLY, __FILE__, __LINE__);
        return v->bytes() + off;
    }
    ClassDef *cls = class_of(c->db, v->chain->class_code);
    const uint32_t off = pos - v->chain->mo + c->db->cfg.additional_object_field_size;
    if (cls == nullptr || pos < v->chain->mo || off >= cls->image_bytes)
        vel_stop__(VEL_E_HOST_BAD_ARG, __FILE__, __LINE__);
    // Only the writer's private version is writable.
    if (for_write && (c->txn == nullptr || v->chain->writer != c->txn || v->chain->priv != v))
        vel_stop__(VEL_E_HOST_READ_ONLY, __FILE__, __LINE__);
    return v->bytes() + off;
}

// ---- cursors ----------------------------------------------------------------

VEL_RET vel_w_list_cursor(vel_trans_h trans, uint16_t class_code, vel_cursor_h cursor) {
    Resolved r;
    if (cursor == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(reinterpret_cast<vel_db_connection_h>(trans), &r);
    if (ret != VEL_S_OK)
        return ret;
    ClassDef *cls = class_of(r.conn->db, class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    cursor_init(cursor, kListCursor, class_code, r.txn, 0);
    return next_visible(r.conn->db, cls, r.txn, 0) != 0 ? VEL_S_OK : VEL_S_CURSOR_EMPTY;
}

VEL_RET velh_index_cursor(vel_db_connection_h con, uint16_t class_code, uint16_t fld_no,
                          vel_cursor_t *cursor) {
    Resolved r;
    if (cursor == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = resolve_conn(con, &r);
    if (ret != VEL_S_OK)
        return ret;
    Db *db = r.conn->db;
    ClassDef *cls = class_of(db, class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    if (fld_no >= cls->fields.size())
        return VEL_E_HOST_NO_FIELD;
    const Field &f = cls->fields[fld_no];
    if (f.is_seq)
        return VEL_E_HOST_WRONG_FIELD;
    const uint32_t at = db->cfg.additional_object_field_size + f.off;
    std::vector<std::pair<const std::byte *, uint64_t>> keys;
    std::vector<uint64_t> oids;
    {
        std::shared_lock<std::shared_mutex> lock(db->objects_mutex);
        for (auto &[oid, c] : cls->objects) {
            Version *v = visible_version(c, r.txn);
            if (v != nullptr && !v->deleted)
                keys.emplace_back(v->bytes() + at, oid);
        }
        // The versions stay put while the lock is held; objects come in oid
        // order, so a stable sort keeps equal keys in creation order.
        std::stable_sort(keys.begin(), keys.end(), [&](const auto &a, const auto &b) {
            return compare_keys(f.type, f.size, a.first, b.first) < 0;
        });
        oids.reserve(keys.size());
        for (auto &k : keys)
            oids.push_back(k.second);
    }
    r.txn->indexes.push_back(std::move(oids));
    cursor_init(cursor, kIndexCursor, class_code, r.txn, r.txn->indexes.size() - 1);
    return VEL_S_OK;
}

VEL_RET vel_cursor_first(vel_trans_h trans, vel_cursor_h cursor) {
    return cursor_move(trans, cursor, true);
}

VEL_RET vel_cursor_next(vel_trans_h trans, vel_cursor_h cursor) {
    return cursor_move(trans, cursor, false);
}

VEL_RET vel_w_obj_from_cursor(vel_trans_h trans, vel_cursor_h cursor, uint16_t class_code,
                              vel_objhandle_h obj) {
    Resolved r;
    if (obj == nullptr)
        return VEL_E_HOST_BAD_ARG;
    VEL_RET ret = cursor_check(trans, cursor, &r);
    if (ret != VEL_S_OK)
        return ret;
    if (class_code != cursor->class_code)
        return VEL_E_HOST_NO_CLASS;
    if (cursor->pos == 0 || cursor->pos == kAtEnd)
        return VEL_S_NOTFOUND;
    const uint64_t oid = cursor->kind == kListCursor
                             ? cursor->pos
                             : r.txn->indexes[cursor->index_slot][cursor->pos - 1];
    return open_object(reinterpret_cast<vel_db_connection_h>(trans), r, class_code, oid, obj);
}

const vel_db_vtable_t *vel_int_get_db_vtable(void) { return &g_vtable; }

} // extern "C"
