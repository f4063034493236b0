// Databases, classes and their object layouts, connections, transactions and
// the release of old versions.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "durable.h"
#include "host_internal.h"

static_assert(VELH_MAX_SEQ_CHAR_WIDTH * VEL_SEQ_TILE_SIZE == VEL_SEQ_PAYLOAD_BYTES);

namespace velhost {

namespace {

std::atomic<uint64_t> g_txn_serial{1};

// Bytes of a scalar of a VEL_DD_* code; 0 for a code that is not a scalar.
uint16_t scalar_size(uint8_t type) {
    switch (type) {
    case VEL_DD_UINT1:
    case VEL_DD_INT1:
        return 1;
    case VEL_DD_UINT2:
    case VEL_DD_INT2:
        return 2;
    case VEL_DD_UINT4:
    case VEL_DD_INT4:
    case VEL_DD_FLOAT:
        return 4;
    case VEL_DD_UINT8:
    case VEL_DD_INT8:
    case VEL_DD_DOUBLE:
    case VEL_DD_DATETIME:
        return 8;
    default:
        return 0;
    }
}

// Element type of a sequence code (VEL_DD_SEQUENCE_UINT1 .. _DATETIME).
bool seq_elem_type(uint8_t type, uint8_t *elem) {
    static const uint8_t kElem[] = {VEL_DD_UINT1, VEL_DD_UINT2,  VEL_DD_UINT4, VEL_DD_UINT8,
                                    VEL_DD_INT1,  VEL_DD_INT2,   VEL_DD_INT4,  VEL_DD_INT8,
                                    VEL_DD_FLOAT, VEL_DD_DOUBLE, VEL_DD_CHAR,  VEL_DD_DATETIME};
    if (type < VEL_DD_SEQUENCE_UINT1 || type > VEL_DD_SEQUENCE_DATETIME)
        return false;
    *elem = kElem[type - VEL_DD_SEQUENCE_UINT1];
    return true;
}

uint32_t align_of(const Field &f) {
    if (f.is_seq)
        return 8;
    if (f.is_char)
        return 1;
    return f.size;
}

// Places the fields in the given order.  Positions count from the start of
// the object image, whose first additional_object_field_size bytes are the
// host's header; object page k holds image bytes [k*d, (k+1)*d).  A field is
// aligned to its natural alignment and moved to the next object page when it
// would straddle one.  Returns false when a field is wider than a page.
bool place(std::vector<Field> &fields, const std::vector<uint16_t> &order, uint32_t afs, uint32_t d,
           bool compact, uint32_t *end) {
    uint64_t pos = afs;
    for (uint16_t i : order) {
        Field &f = fields[i];
        if (f.size > d)
            return false;
        const uint32_t a = align_of(f);
        pos = (pos + a - 1) / a * a;
        if (pos % d + f.size > d)
            pos = (pos / d + 1) * d;
        (compact ? f.c_off : f.u_off) = static_cast<uint32_t>(pos - afs);
        pos += f.size;
        if (pos > UINT32_MAX / 2)
            return false;
    }
    *end = static_cast<uint32_t>(pos);
    return true;
}

// ---- class definitions -----------------------------------------------------

// Names: at most VELH_MAX_NAME bytes (files store them with a 16-bit
// length), and no non-empty field name twice in a class.
VEL_RET check_names(const char *name, const velh_field_def_t *fields, uint16_t n_fields) {
    auto too_long = [](const char *s) { return s != nullptr && std::strlen(s) > VELH_MAX_NAME; };
    bool long_name = too_long(name);
    for (uint16_t i = 0; i < n_fields && !long_name; ++i)
        long_name = too_long(fields[i].name);
    if (long_name)
        return VEL_E_ILLEGAL_PARAM;
    std::set<std::string_view> seen;
    for (uint16_t i = 0; i < n_fields; ++i)
        if (fields[i].name != nullptr && *fields[i].name != '\0' &&
            !seen.insert(fields[i].name).second)
            return fail(VEL_E_HOST_BAD_ARG, "class " + std::string(name != nullptr ? name : "") +
                                                ": field " + std::to_string(i) + " is named " +
                                                fields[i].name + " as an earlier field is");
    return VEL_S_OK;
}

// The field of a definition, before placement; false for a bad type, width
// or order.  `ps`: the sequence page size.
bool make_field(const velh_field_def_t &def, uint32_t ps, Field *f) {
    f->name = def.name != nullptr ? def.name : "";
    f->type = def.type;
    f->order = def.order;
    uint8_t elem;
    if (def.type == VEL_DD_CHAR) {
        if (def.width == 0 || def.width > 4096 || def.order != 0)
            return false;
        f->is_char = true;
        f->size = f->elem_size = def.width;
    } else if (seq_elem_type(def.type, &elem)) {
        if (def.order > VEL_SEQ_DESC_ORDER)
            return false;
        f->is_seq = true;
        f->size = 8;
        if (elem == VEL_DD_CHAR) {
            // A tile holds 128 elements of at most 32 bytes, and the
            // module's set-ups do not check the width against it; at least
            // one element must also fit a leaf.
            if (def.width == 0 || def.width > VELH_MAX_SEQ_CHAR_WIDTH ||
                layout::leaf_capacity(static_cast<int32_t>(ps), def.width) == 0)
                return false;
            f->is_char = true;
            f->elem_size = def.width;
        } else {
            if (def.width != 0)
                return false;
            f->elem_size = scalar_size(elem);
        }
    } else {
        f->size = f->elem_size = scalar_size(def.type);
        if (f->size == 0 || def.width != 0 || def.order != 0)
            return false;
    }
    return true;
}

// Places the fields in both layouts and sizes the object image; false when
// a field does not fit an object page.  Uncompact: declaration order.
// Compact: widest alignment first, which needs no padding between fields
// except at object page ends.
bool lay_out(Db *d, ClassDef *cls) {
    const auto n_fields = static_cast<uint16_t>(cls->fields.size());
    std::vector<uint16_t> order(n_fields);
    for (uint16_t i = 0; i < n_fields; ++i)
        order[i] = i;
    const uint32_t afs = d->cfg.additional_object_field_size;
    const uint32_t dd = d->obj_data;
    uint32_t end_u = 0, end_c = 0;
    if (!place(cls->fields, order, afs, dd, false, &end_u))
        return false;
    std::stable_sort(order.begin(), order.end(), [&](uint16_t a, uint16_t b) {
        return align_of(cls->fields[a]) > align_of(cls->fields[b]);
    });
    if (!place(cls->fields, order, afs, dd, true, &end_c))
        return false;
    const bool compact = (cls->flags & VEL_CLASS_COMPACT) != 0;
    for (Field &f : cls->fields)
        f.off = compact ? f.c_off : f.u_off;
    uint32_t end = std::max<uint32_t>(compact ? end_c : end_u, 1);
    cls->pages_per_object = (end + dd - 1) / dd;
    cls->image_bytes = cls->pages_per_object * dd;
    return true;
}

// The class of a non-empty name, or null.
ClassDef *class_named(Db *d, const char *name) {
    const uint32_t n = d->n_classes.load(std::memory_order_acquire);
    for (uint32_t code = 1; code < n; ++code)
        if (d->classes[code]->name == name)
            return d->classes[code].get();
    return nullptr;
}

// Gives the class the next code, logs it and makes it visible.
VEL_RET publish_class(Db *d, std::unique_ptr<ClassDef> cls, uint16_t *class_code) {
    std::lock_guard<std::mutex> lock(d->schema_mutex);
    uint32_t code = d->n_classes.load();
    if (code >= VELH_MAX_CLASSES)
        return VEL_E_HOST_BAD_ARG;
    if (!cls->name.empty())
        if (const ClassDef *other = class_named(d, cls->name.c_str()))
            return fail(VEL_E_HOST_BAD_ARG, "a class named " + cls->name + " exists already (" +
                                                "class " + std::to_string(other->code) + ")");
    cls->code = static_cast<uint16_t>(code);
    // Logged before it is published, under the lock checkpoints hold, so
    // that an image and its log never both or neither hold the class.
    std::unique_lock<std::mutex> log_lock;
    if (d->durable != nullptr) {
        log_lock = std::unique_lock<std::mutex>(d->durable->mutex);
        if (VEL_RET r = log_class(d, *cls, static_cast<uint16_t>(code)); r != VEL_S_OK)
            return r;
    }
    d->block.classes[code].flags = cls->flags;
    d->block.classes[code].host_index = code;
    d->classes[code] = std::move(cls);
    d->block.dict.n_classes = code + 1;
    d->n_classes.store(code + 1, std::memory_order_release);
    *class_code = static_cast<uint16_t>(code);
    return VEL_S_OK;
}

void fill_class_info(const ClassDef &cls, velh_class_info_t *info) {
    info->code = cls.code;
    info->name = cls.name.c_str();
    info->n_fields = static_cast<uint16_t>(cls.fields.size());
    info->flags = cls.flags;
    info->pm = cls.pm->which;
}

// Stamps the transaction's private versions with the next commit
// timestamp and puts them at their chains' heads, retiring the versions
// they supersede.
void publish(Db *d, Txn *txn) {
    std::lock_guard<std::mutex> state(d->state_mutex);
    const uint64_t ts = d->commit_ts + 1;
    {
        std::unique_lock<std::shared_mutex> lock(d->objects_mutex);
        for (Chain *ch : txn->written) {
            Version *v = ch->priv;
            v->ts = ts;
            v->older = ch->head;
            v->privatized.clear();
            if (ch->head != nullptr)
                d->retired.push_back(Retired{ts, ch, v, ch->head});
            ch->head = v;
            ch->priv = nullptr;
            ch->writer = nullptr;
            if (v->deleted)
                d->retired.push_back(Retired{ts, ch, nullptr, nullptr});
        }
    }
    d->commit_ts = ts;
}

// The commit of a transaction that carries an error: rolled back, with the
// sentence saying why.
VEL_RET refuse_failed(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    const VEL_RET why = c->txn->doomed != VEL_S_OK ? c->txn->doomed : c->pub.trans.error_code;
    velh_rollback(con);
    return fail(VEL_E_HOST_TRANS_FAILED,
                (why == VEL_E_HOST_TRANS_FAILED
                     ? std::string("an update stopped at a trap")
                     : "an update failed (code " + std::to_string(int(why)) + ")") +
                    " after it may have changed pages; the transaction is rolled back");
}

void end_txn(Db *db, Conn *c) {
    Txn *txn = c->txn;
    {
        std::lock_guard<std::mutex> lock(db->state_mutex);
        db->active.erase(db->active.find(txn->snapshot));
    }
    if (txn->rw && !db->cfg.concurrent_write_transactions) {
        std::lock_guard<std::mutex> lock(db->writer_mutex);
        db->writer_active = false;
        db->writer_cv.notify_one();
    }
    release_quarantine(db, txn);
    if (t_writing == txn)
        t_writing = nullptr;
    c->txn = nullptr;
    c->pub.trans.host = nullptr;
    delete txn;
}

// Releases every retired version that no running transaction can see.
void collect_garbage(Db *db) {
    std::lock_guard<std::mutex> gc(db->gc_mutex);
    std::vector<Retired> done;
    {
        std::lock_guard<std::mutex> lock(db->state_mutex);
        const uint64_t bound = db->active.empty() ? db->commit_ts : *db->active.begin();
        auto split = std::stable_partition(db->retired.begin(), db->retired.end(),
                                           [bound](const Retired &r) { return r.ts <= bound; });
        done.assign(db->retired.begin(), split);
        db->retired.erase(db->retired.begin(), split);
    }
    if (done.empty())
        return;
    std::vector<std::pair<ClassDef *, Version *>> versions;
    std::vector<Chain *> chains;
    {
        std::unique_lock<std::shared_mutex> lock(db->objects_mutex);
        for (Retired &r : done) {
            ClassDef *cls = class_of(db, r.chain->class_code);
            if (r.newer != nullptr) {
                r.newer->older = nullptr;
                versions.emplace_back(cls, r.version);
                continue;
            }
            // A deleted object that nobody can see any more.
            db->chains.erase(r.chain->oid);
            cls->objects.erase(r.chain->oid);
            for (Version *v = r.chain->head; v != nullptr;) {
                Version *o = v->older;
                versions.emplace_back(cls, v);
                v = o;
            }
            chains.push_back(r.chain);
        }
    }
    for (auto &[cls, v] : versions)
        release_version(db, cls, v, nullptr);
    for (Chain *ch : chains)
        delete ch;
}

} // namespace

Db *db_of(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    return c != nullptr ? c->db : nullptr;
}

Conn *conn_of(vel_db_connection_h con) {
    return con != nullptr ? static_cast<Conn *>(con->host) : nullptr;
}

PageManager *pm_of(vel_page_manager_t *pm) {
    return pm != nullptr ? static_cast<PageManager *>(pm->host) : nullptr;
}

ClassDef *class_of(Db *db, uint16_t class_code) {
    if (db == nullptr || class_code == 0 ||
        class_code >= db->n_classes.load(std::memory_order_acquire))
        return nullptr;
    return db->classes[class_code].get();
}

Version *visible_version(Chain *c, Txn *txn) {
    if (txn != nullptr && c->writer == txn)
        return c->priv;
    for (Version *v = c->head; v != nullptr; v = v->older)
        if (txn == nullptr || v->ts <= txn->snapshot)
            return v;
    return nullptr;
}

void release_version(Db *db, ClassDef *cls, Version *v, Txn *txn) {
    if (!v->deleted && !v->data.empty()) {
        const uint32_t afs = db->cfg.additional_object_field_size;
        for (uint16_t fno : cls->seq_fields) {
            vel_seq_page_t **slot = root_slot(cls, v, cls->fields[fno], afs);
            prune_tree(cls->pm, *slot, txn);
            *slot = nullptr;
        }
    }
    delete v;
}

} // namespace velhost

using namespace velhost;

extern "C" {

void velh_config_init(velh_config_t *cfg) {
    if (cfg == nullptr)
        return;
    *cfg = velh_config_t{};
    cfg->object_page_size = 4096;
    cfg->seq_page_size = 4096;
    cfg->log_group_ms = 10;
}

VEL_RET velh_db_open(const velh_config_t *cfg, velh_db_t **db) {
    if (cfg == nullptr || db == nullptr)
        return VEL_E_HOST_BAD_ARG;
    if (cfg->object_page_size < 128 || cfg->object_page_size % 8 != 0 || cfg->seq_page_size < 64 ||
        cfg->seq_page_size > 65536 || cfg->seq_page_size % 8 != 0)
        return VEL_E_HOST_BAD_ARG;
    Db *d = new (std::nothrow) Db;
    if (d == nullptr)
        return VEL_E_NOMEM;
    d->cfg = *cfg;
    d->cfg.concurrent_write_transactions = cfg->concurrent_write_transactions ? 1 : 0;
    d->obj_data = cfg->object_page_size - 24u;
    vel_database_header_t &h = d->block.hdr;
    h.pagesize = cfg->object_page_size;
    h.dict_offs = static_cast<uint32_t>(offsetof(HeaderBlock, dict));
    h.additional_object_field_size = cfg->additional_object_field_size;
    h.concurrent_write_transactions = d->cfg.concurrent_write_transactions;
    h.host = d;
    d->block.dict.v_class_info =
        static_cast<uint32_t>(offsetof(HeaderBlock, classes) - offsetof(HeaderBlock, dict));
    d->block.dict.n_classes = 1;
    arena_init(&d->pms[0], d, VELH_PM_INMEM, cfg->seq_page_size);
    arena_init(&d->pms[1], d, VELH_PM_ALT, cfg->seq_page_size);
    if (cfg->warm_pages != 0)
        arena_warm(&d->pms[0], cfg->warm_pages);
    if (cfg->log_path != nullptr) {
        // A log that holds records belongs to a database velh_db_open_file
        // opens; starting afresh would throw its commits away.
        int fd = open_locked(cfg->log_path, O_RDWR | O_CREAT, true);
        struct stat st;
        VEL_RET r = fd < 0 ? (errno == EWOULDBLOCK ? VEL_E_HOST_BUSY : VEL_E_HOST_IO) : VEL_S_OK;
        if (fd >= 0 && (::fstat(fd, &st) != 0 || st.st_size != 0)) {
            ::close(fd);
            r = fail(VEL_E_HOST_BAD_LOG, std::string(cfg->log_path) +
                                             " holds a log already; velh_db_open_file opens it");
        } else if (fd >= 0) {
            r = log_start(d, fd, cfg, 0, 1, {});
        }
        if (r != VEL_S_OK) {
            velh_db_close(reinterpret_cast<velh_db_t *>(d));
            return r;
        }
    }
    *db = reinterpret_cast<velh_db_t *>(d);
    return VEL_S_OK;
}

VEL_RET velh_db_close(velh_db_t *db) {
    if (db == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Db *d = reinterpret_cast<Db *>(db);
    if (d->n_connections.load() != 0)
        return VEL_E_HOST_BUSY;
    const VEL_RET flushed = log_close(d);
    if (d->image_fd >= 0)
        ::close(d->image_fd);
    if (d->ro_log_fd >= 0)
        ::close(d->ro_log_fd);
    // No transaction runs: every chain holds committed versions only.
    for (auto &[oid, ch] : d->chains) {
        ClassDef *cls = class_of(d, ch->class_code);
        for (Version *v = ch->head; v != nullptr;) {
            Version *o = v->older;
            release_version(d, cls, v, nullptr);
            v = o;
        }
        delete ch;
    }
    d->chains.clear();
    d->retired.clear();
    arena_destroy(&d->pms[0]);
    arena_destroy(&d->pms[1]);
    delete d;
    return flushed;
}

VEL_RET velh_class_define(velh_db_t *db, const char *name, const velh_field_def_t *fields,
                          uint16_t n_fields, uint32_t flags, int pm, uint16_t *class_code) {
    if (db == nullptr || class_code == nullptr || (n_fields != 0 && fields == nullptr) ||
        n_fields > VELH_MAX_FIELDS || (flags & ~uint32_t(VEL_CLASS_COMPACT)) != 0 ||
        (pm != VELH_PM_INMEM && pm != VELH_PM_ALT))
        return VEL_E_HOST_BAD_ARG;
    Db *d = reinterpret_cast<Db *>(db);
    if (d->read_only)
        return VEL_E_HOST_READ_ONLY;
    fail(VEL_S_OK, ""); // a refusal below may leave its sentence
    if (VEL_RET r = check_names(name, fields, n_fields); r != VEL_S_OK)
        return r;
    auto cls = std::make_unique<ClassDef>();
    cls->name = name != nullptr ? name : "";
    cls->flags = flags;
    cls->pm = &d->pms[pm];
    for (uint16_t i = 0; i < n_fields; ++i) {
        Field f;
        if (!make_field(fields[i], d->cfg.seq_page_size, &f))
            return VEL_E_HOST_BAD_ARG;
        cls->fields.push_back(std::move(f));
        if (cls->fields.back().is_seq)
            cls->seq_fields.push_back(i);
    }
    if (!lay_out(d, cls.get()))
        return VEL_E_HOST_LAYOUT;
    return publish_class(d, std::move(cls), class_code);
}

uint16_t velh_class_count(velh_db_t *db) {
    if (db == nullptr)
        return 0;
    return static_cast<uint16_t>(
        reinterpret_cast<Db *>(db)->n_classes.load(std::memory_order_acquire) - 1);
}

VEL_RET velh_class_info(velh_db_t *db, uint16_t class_code, velh_class_info_t *info) {
    if (db == nullptr || info == nullptr)
        return VEL_E_HOST_BAD_ARG;
    ClassDef *cls = class_of(reinterpret_cast<Db *>(db), class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    fill_class_info(*cls, info);
    return VEL_S_OK;
}

VEL_RET velh_class_by_name(velh_db_t *db, const char *name, velh_class_info_t *info) {
    if (db == nullptr || name == nullptr || info == nullptr)
        return VEL_E_HOST_BAD_ARG;
    ClassDef *cls = *name != '\0' ? class_named(reinterpret_cast<Db *>(db), name) : nullptr;
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    fill_class_info(*cls, info);
    return VEL_S_OK;
}

static VEL_RET fill_info(ClassDef *cls, uint16_t fld_no, velh_field_info_t *info) {
    const Field &f = cls->fields[fld_no];
    info->fld_no = fld_no;
    info->type = f.type;
    info->size = f.size;
    info->elem_size = f.elem_size;
    info->u_offset = f.u_off;
    info->c_offset = f.c_off;
    info->offset = f.off;
    info->name = f.name.c_str();
    info->order = f.order;
    return VEL_S_OK;
}

VEL_RET velh_field_info(velh_db_t *db, uint16_t class_code, uint16_t fld_no,
                        velh_field_info_t *info) {
    if (db == nullptr || info == nullptr)
        return VEL_E_HOST_BAD_ARG;
    ClassDef *cls = class_of(reinterpret_cast<Db *>(db), class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    if (fld_no >= cls->fields.size())
        return VEL_E_HOST_NO_FIELD;
    return fill_info(cls, fld_no, info);
}

VEL_RET velh_field_by_name(velh_db_t *db, uint16_t class_code, const char *name,
                           velh_field_info_t *info) {
    if (db == nullptr || info == nullptr || name == nullptr)
        return VEL_E_HOST_BAD_ARG;
    ClassDef *cls = class_of(reinterpret_cast<Db *>(db), class_code);
    if (cls == nullptr)
        return VEL_E_HOST_NO_CLASS;
    for (size_t i = 0; i < cls->fields.size(); ++i)
        if (cls->fields[i].name == name)
            return fill_info(cls, static_cast<uint16_t>(i), info);
    return VEL_E_HOST_NO_FIELD;
}

vel_page_manager_t *velh_page_manager(velh_db_t *db, int pm) {
    if (db == nullptr || (pm != VELH_PM_INMEM && pm != VELH_PM_ALT))
        return nullptr;
    return &reinterpret_cast<Db *>(db)->pms[pm].pub;
}

VEL_RET velh_connect(velh_db_t *db, vel_db_connection_h *con) {
    if (db == nullptr || con == nullptr)
        return VEL_E_HOST_BAD_ARG;
    Db *d = reinterpret_cast<Db *>(db);
    Conn *c = new (std::nothrow) Conn;
    if (c == nullptr)
        return VEL_E_NOMEM;
    std::memset(&c->pub, 0, sizeof c->pub);
    c->pub.db = &d->block.hdr;
    c->pub.pm_inmem = &d->pms[VELH_PM_INMEM].pub;
    c->pub.host = c;
    c->db = d;
    d->n_connections.fetch_add(1);
    *con = &c->pub;
    return VEL_S_OK;
}

VEL_RET velh_disconnect(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    if (c == nullptr)
        return VEL_E_HOST_BAD_ARG;
    if (c->txn != nullptr)
        velh_rollback(con);
    c->db->n_connections.fetch_sub(1);
    c->pub.host = nullptr;
    delete c;
    return VEL_S_OK;
}

velh_db_t *velh_db_of(vel_db_connection_h con) { return reinterpret_cast<velh_db_t *>(db_of(con)); }

vel_bool velh_in_transaction(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    return c != nullptr && c->txn != nullptr;
}

VEL_RET velh_begin(vel_db_connection_h con, int mode) {
    Conn *c = conn_of(con);
    if (c == nullptr || (mode & ~(VELH_READ_WRITE | VELH_NOWAIT)) != 0)
        return VEL_E_HOST_BAD_ARG;
    if (c->txn != nullptr)
        return VEL_E_HOST_TRANS_ACTIVE;
    Db *d = c->db;
    const bool rw = (mode & VELH_READ_WRITE) != 0;
    if (rw && d->read_only)
        return VEL_E_HOST_READ_ONLY;
    if (rw && !d->cfg.concurrent_write_transactions) {
        std::unique_lock<std::mutex> lock(d->writer_mutex);
        if (d->writer_active && (mode & VELH_NOWAIT) != 0)
            return VEL_E_HOST_BUSY;
        d->writer_cv.wait(lock, [d] { return !d->writer_active; });
        d->writer_active = true;
    }
    Txn *txn = new Txn;
    txn->serial = g_txn_serial.fetch_add(1);
    txn->rw = rw;
    {
        std::lock_guard<std::mutex> lock(d->state_mutex);
        txn->snapshot = d->commit_ts;
        d->active.insert(txn->snapshot);
    }
    c->txn = txn;
    c->pub.trans.error_code = VEL_S_OK;
    c->pub.trans.host = txn;
    return VEL_S_OK;
}

VEL_RET velh_commit(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    if (c == nullptr)
        return VEL_E_HOST_BAD_ARG;
    if (c->txn == nullptr)
        return VEL_E_HOST_TRANS_CLOSED;
    fail(VEL_S_OK, ""); // a failure below leaves its sentence
    if (c->pub.trans.error_code != VEL_S_OK || c->txn->doomed != VEL_S_OK)
        return refuse_failed(con);
    Db *d = c->db;
    Txn *txn = c->txn;
    // With a log, its mutex orders records as commits: held from encoding
    // (before the sweep forgets which pages the transaction made) until
    // the versions are published.
    std::unique_lock<std::mutex> log_lock;
    std::string record;
    if (txn->rw && d->durable != nullptr) {
        log_lock = std::unique_lock<std::mutex>(d->durable->mutex);
        VEL_RET r = log_encode_commit(d, txn, &record);
        if (r != VEL_S_OK) {
            log_lock.unlock();
            velh_rollback(con);
            return r;
        }
    }
    if (txn->rw) {
        // A tree that references a freed page (an update failed halfway) or
        // that no iterator can read would corrupt the database.
        if (VEL_RET refused = sweep_created(d, txn, true); refused != VEL_S_OK) {
            if (log_lock.owns_lock())
                log_lock.unlock();
            velh_rollback(con);
            return refused;
        }
        if (log_lock.owns_lock()) {
            VEL_RET r = log_append(d, record);
            if (r != VEL_S_OK) {
                log_lock.unlock();
                velh_rollback(con);
                return r;
            }
        }
        publish(d, txn);
    }
    if (log_lock.owns_lock())
        log_lock.unlock();
    end_txn(d, c);
    collect_garbage(d);
    return VEL_S_OK;
}

VEL_RET velh_rollback(vel_db_connection_h con) {
    Conn *c = conn_of(con);
    if (c == nullptr)
        return VEL_E_HOST_BAD_ARG;
    if (c->txn == nullptr)
        return VEL_E_HOST_TRANS_CLOSED;
    Db *d = c->db;
    Txn *txn = c->txn;
    std::vector<std::pair<ClassDef *, Version *>> drop;
    std::vector<Chain *> unborn;
    {
        std::unique_lock<std::shared_mutex> lock(d->objects_mutex);
        for (Chain *ch : txn->written) {
            ClassDef *cls = class_of(d, ch->class_code);
            drop.emplace_back(cls, ch->priv);
            ch->priv = nullptr;
            ch->writer = nullptr;
            if (ch->head == nullptr) { // created by this transaction
                d->chains.erase(ch->oid);
                cls->objects.erase(ch->oid);
                unborn.push_back(ch);
            }
        }
    }
    for (auto &[cls, v] : drop)
        release_version(d, cls, v, txn);
    for (Chain *ch : unborn)
        delete ch;
    sweep_created(d, txn, false);
    end_txn(d, c);
    collect_garbage(d);
    return VEL_S_OK;
}

} // extern "C"
