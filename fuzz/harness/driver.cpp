#include "harness/driver.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "harness/tree_check.h"
#include "seq_root.h"

namespace velrel {

namespace {

[[gnu::format(printf, 1, 2)]] std::string fmt(const char *f, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// "" when element t of the iterator's tile equals model element i (bytes
// and null flag); otherwise what differs.
std::string tile_mismatch(const Family &f, const vel_seq_iterator_t &it, size_t t,
                          const SeqModel &m, uint64_t i) {
    const uint8_t *got = reinterpret_cast<const uint8_t *>(it.tile.u.arr_char) + t * f.width;
    const bool null = (it.tile.null_bitmap[t / 64] >> (t % 64)) & 1;
    if (std::memcmp(got, m.at(i), f.width) == 0 && null == (m.nulls[i] != 0))
        return {};
    return fmt("position %llu: got %s null=%d, model %s null=%d", (unsigned long long)i,
               show(f, got).c_str(), null, show(f, m.at(i)).c_str(), m.nulls[i]);
}

} // namespace

constexpr uint64_t kAll = ~uint64_t{0};

namespace {
using Counter = std::pair<const char *, uint64_t DriverStats::*>;
const Counter kCounters[] = {{"ops", &DriverStats::ops},
                             {"updates", &DriverStats::updates},
                             {"refusals", &DriverStats::refusals},
                             {"codes", &DriverStats::codes_checked},
                             {"tree checks", &DriverStats::tree_checks},
                             {"elements compared", &DriverStats::elements_compared},
                             {"commits", &DriverStats::commits},
                             {"rollbacks", &DriverStats::rollbacks},
                             {"snapshot checks", &DriverStats::snapshot_checks}};
} // namespace

void DriverStats::add(const DriverStats &o) {
    for (const Counter &c : kCounters)
        this->*c.second += o.*c.second;
}

std::string DriverStats::str() const {
    std::string out;
    for (const Counter &c : kCounters)
        out += fmt("%s%s %llu", out.empty() ? "" : ", ", c.first,
                   (unsigned long long)(this->*c.second));
    return out;
}

std::vector<FieldSpec> driver_fields() {
    const auto &sc = scalar_families();
    auto fam = [&](const char *name) {
        for (const auto &f : sc)
            if (std::strcmp(f.name, name) == 0)
                return f;
        return sc[0];
    };
    return {
        {fam("int4"), VEL_SEQ_ASC_ORDER},    {fam("int4"), VEL_SEQ_NO_ORDER},
        {fam("double"), VEL_SEQ_NO_ORDER},   {fam("uint2"), VEL_SEQ_DESC_ORDER},
        {char_family(5), VEL_SEQ_ASC_ORDER}, {fam("datetime"), VEL_SEQ_ASC_ORDER},
        {fam("int1"), VEL_SEQ_NO_ORDER},     {fam("float"), VEL_SEQ_DESC_ORDER},
    };
}

EnvConfig config_from_byte(uint8_t b) {
    static const int32_t sizes[] = {256, 512, 1024, 4096};
    EnvConfig cfg;
    cfg.seq_page_size = sizes[b & 3];
    cfg.compact = (b >> 2) & 1;
    cfg.alt_pm = (b >> 3) & 1;
    cfg.concurrent = (b >> 4) & 1;
    return cfg;
}

// ---- input decoding ---------------------------------------------------------

struct Driver::Src {
    const uint8_t *p;
    size_t n, i = 0;
    bool done() const { return i >= n; }
    uint8_t u8() { return i < n ? p[i++] : 0; }
    uint32_t u16() { return u8() | (uint32_t(u8()) << 8); }
    uint32_t below(uint32_t k) { return k <= 1 ? 0 : (k <= 256 ? u8() % k : u16() % k); }
    bool coin() { return u8() & 1; }
    // A batch size: mostly small, sometimes spanning several leaves.
    size_t size() {
        static const uint32_t limits[] = {4, 24, 200, 700};
        return below(limits[u8() & 3]);
    }
};

// ---- caller-made vector iterator -------------------------------------------

namespace {

VecIter *vec_of(vel_seq_iterator_h it) { return reinterpret_cast<VecIter *>(it->context[0]); }

VEL_RET vec_next(vel_seq_iterator_h it) {
    VecIter *v = vec_of(it);
    size_t left = v->count() - v->pos;
    if (left == 0)
        return VEL_S_CURSOR_END;
    size_t k = v->chunks.empty() ? 128 : v->chunks[v->chunk_no++ % v->chunks.size()];
    k = std::min<size_t>({k, left, 128});
    std::memcpy(it->tile.u.arr_char, v->data.data() + v->pos * it->elem_size, k * it->elem_size);
    it->tile.null_bitmap[0] = it->tile.null_bitmap[1] = 0;
    it->tile_size = static_cast<uint16_t>(k);
    v->pos += k;
    it->next_seq_no += k;
    return VEL_S_OK;
}

VEL_RET vec_reset(vel_seq_iterator_h it) {
    VecIter *v = vec_of(it);
    v->pos = 0;
    v->chunk_no = 0;
    it->next_seq_no = 0;
    it->tile_size = 0;
    it->bounded = 0;
    return VEL_S_OK;
}

} // namespace

void VecIter::setup(uint8_t elem_type, uint16_t elem_size) {
    std::memset(&it, 0, sizeof it);
    it.next = vec_next;
    it.reset = vec_reset;
    it.elem_type = elem_type;
    it.elem_size = elem_size;
    it.last_seq_no = kAll;
    it.context[0] = reinterpret_cast<uint64_t>(this);
    pos = chunk_no = 0;
}

// ---- driver ------------------------------------------------------------------

Driver::Driver(Env &env) : env_(env), f_(env.fields()) {
    for (const auto &fs : f_) {
        SeqModel m;
        m.w = fs.fam.width;
        cur_.push_back(m);
    }
    committed_ = cur_;
}

bool Driver::fail(const std::string &what) {
    err_ = fmt("op #%llu: ", (unsigned long long)op_no_) + what;
    return false;
}

// A field drawn from the input: any, or one with a declared order.
int Driver::pick_field(Src &s, bool ordered) const {
    std::vector<int> from;
    for (size_t i = 0; i < f_.size(); ++i)
        if (!ordered || f_[i].order != VEL_SEQ_NO_ORDER)
            from.push_back(static_cast<int>(i));
    return from[s.below(static_cast<uint32_t>(from.size()))];
}

bool Driver::expect_rc(const char *op, int fi, VEL_RET got, VEL_RET want) {
    ++st_.codes_checked;
    if (got == want)
        return true;
    return fail(fmt("%s on field %d (%s): code %d, model says %d", op, fi, f_[fi].fam.name,
                    (int)got, (int)want));
}

bool Driver::root_is_leaf(int fi) {
    vel_seq_page_t *root = nullptr;
    if (env_.field(fi).root(&root) != VEL_S_OK || !root)
        return false;
    return (root->hdr.kind & 15) == 3;
}

// Tree check plus content comparison, then count/first/last on the object.
bool Driver::check_field(int fi, vel_objhandle_h obj, const SeqModel &m, bool tree) {
    const FieldSpec &fs = f_[fi];
    const FieldLoc &l = env_.loc(fi);
    if (tree) {
        TreeInfo ti;
        std::string e = env_.field(fi, obj).check(m.keys_exact, &ti);
        ++st_.tree_checks;
        if (!e.empty())
            return fail("tree check: " + e);
        // The host's own checker also sees the reference counts.
        velh_tree_report_t rep{};
        VEL_RET rc = velh_check_tree(obj, l.fld_no, fs.order, m.keys_exact, &rep);
        if (rc != VEL_S_OK || !rep.ok || rep.elements != m.size())
            return fail(std::string("host tree check on field ") + std::to_string(fi) + ": " +
                        rep.message + " (code " + std::to_string(rc) + ", elements " +
                        std::to_string(rep.elements) + ")");
        if (!(ti.content == m))
            return fail(fmt("field %d (%s): stored values or null flags differ from the model", fi,
                            fs.fam.name));
        st_.elements_compared += m.size();
    }
    vel_seq_no_t cnt = 12345;
    VEL_RET rc = vel_w_seq_count(obj, l.u, l.c, &cnt);
    if (!expect_rc("count", fi, rc, VEL_S_OK))
        return false;
    if (cnt != m.size())
        return fail(
            fmt("count of field %d: %llu, model %zu", fi, (unsigned long long)cnt, m.size()));
    uint8_t val[16], sentinel[16];
    std::memset(sentinel, 0xA5, sizeof sentinel);
    for (int end = 0; end < 2; ++end) {
        std::memcpy(val, sentinel, sizeof val);
        rc = end ? fs.fam.last(obj, l.u, l.c, val, fs.fam.width)
                 : fs.fam.first(obj, l.u, l.c, val, fs.fam.width);
        const char *name = end ? "last" : "first";
        if (m.size() == 0) {
            if (!expect_rc(name, fi, rc, VEL_S_NOTFOUND))
                return false;
            if (std::memcmp(val, sentinel, sizeof val) != 0)
                return fail(std::string(name) + " wrote its output on an empty field");
            continue;
        }
        size_t i = end ? m.size() - 1 : 0;
        if (!expect_rc(name, fi, rc, m.nulls[i] ? VEL_E_SEQ_NULL_VALUE : VEL_S_OK))
            return false;
        if (std::memcmp(val, m.at(i), m.w) != 0)
            return fail(std::string(name) + " value " + show(fs.fam, val) + ", model " +
                        show(fs.fam, m.at(i)));
    }
    return true;
}

void Driver::gen_value(const Family &f, bool allow_nan, Src &s, uint8_t *out) {
    if (f.is_char) {
        static const uint8_t bytes[] = {0x00, 'a', 'b', 'c', 0x7f, 0x80, 0xff};
        for (size_t i = 0; i < f.width; ++i)
            out[i] = bytes[s.below(sizeof bytes)];
        return;
    }
    if (f.is_float) {
        constexpr double inf = std::numeric_limits<double>::infinity();
        static const double pool[] = {0.0,  -0.0, 1.0,   -1.0, 2.5,   3.0, 7.0,
                                      -7.5, 1e30, -1e30, 0.5,  100.0, inf, -inf};
        size_t k = s.below(sizeof pool / sizeof pool[0] + (allow_nan ? 1 : 0));
        double d = k < sizeof pool / sizeof pool[0] ? pool[k] : std::nan("");
        if (f.width == 4) {
            float x = static_cast<float>(d);
            std::memcpy(out, &x, 4);
        } else {
            std::memcpy(out, &d, 8);
        }
        return;
    }
    // Integers: small values (many duplicates) and the width's extremes.
    uint64_t top = uint64_t{1} << (8 * f.width - 1);
    const uint64_t neg = ~uint64_t{0}; // -1 in every width
    const uint64_t pool[] = {0,   1,   2,       3,       5,        7,   10,      42,
                             100, neg, neg - 1, neg - 4, neg - 99, top, top - 1, top + 1};
    uint64_t v = pool[s.below(sizeof pool / sizeof pool[0])];
    std::memcpy(out, &v, f.width); // little-endian truncation to the width
}

// n values in the field's declared order (unordered fields: as drawn).
std::vector<uint8_t> Driver::gen_sorted(int fi, size_t n, Src &s) {
    const FieldSpec &fs = f_[fi];
    size_t w = fs.fam.width;
    bool ordered = fs.order != VEL_SEQ_NO_ORDER;
    std::vector<std::vector<uint8_t>> v(n, std::vector<uint8_t>(w));
    for (auto &e : v)
        gen_value(fs.fam, !ordered, s, e.data());
    if (ordered) {
        auto less = [&](const std::vector<uint8_t> &a, const std::vector<uint8_t> &b) {
            return fs.order == VEL_SEQ_ASC_ORDER ? fs.fam.lt(a.data(), b.data(), w)
                                                 : fs.fam.lt(b.data(), a.data(), w);
        };
        std::stable_sort(v.begin(), v.end(), less);
    }
    std::vector<uint8_t> out;
    out.reserve(n * w);
    for (auto &e : v)
        out.insert(out.end(), e.begin(), e.end());
    return out;
}

namespace {

// "a comes before b" in the declared order (ascending unless DESC).
bool in_order(const Family &f, vel_seq_order_t o, const uint8_t *a, const uint8_t *b) {
    return o == VEL_SEQ_DESC_ORDER ? f.le(b, a, f.width) : f.le(a, b, f.width);
}

std::vector<vel_bitmap_word_t> gen_nulls(size_t n, Driver::Src &s, int density) {
    std::vector<vel_bitmap_word_t> b((n + 63) / 64 + 1, 0);
    if (density == 0)
        return b;
    for (size_t i = 0; i < n; ++i)
        if (s.below(8) < static_cast<uint32_t>(density))
            b[i / 64] |= uint64_t{1} << (i % 64);
    return b;
}

} // namespace

// An ordered char inner page sizes itself for entries alone yet stores a
// key per child from byte 8 upwards, so past (page_size - 8) / (16 + width)
// children its keys run into its entries.  The driver keeps ordered char
// fields small enough (children <= elements) never to get there.
static size_t char_key_room(const FieldSpec &fs, int32_t page_size) {
    if (!fs.fam.is_char || fs.order == VEL_SEQ_NO_ORDER)
        return SIZE_MAX;
    return static_cast<size_t>((page_size - 8) / (16 + static_cast<int32_t>(fs.fam.width)));
}

// ---- updates -----------------------------------------------------------------

bool Driver::op_append(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    SeqModel &m = cur_[fi];
    size_t n = s.size(), w = fs.fam.width;
    size_t room = char_key_room(fs, env_.page_size());
    if (m.size() + n > room)
        n = m.size() < room ? room - m.size() : 0;
    std::vector<uint8_t> v = gen_sorted(fi, n, s);
    bool ordered = fs.order != VEL_SEQ_NO_ORDER;
    uint32_t mode = s.below(8);
    if (ordered && m.size() && mode >= 3) {
        // Keep the batch at or after the stored last value.
        const uint8_t *last = m.at(m.size() - 1);
        for (size_t i = 0; i < n; ++i)
            if (!in_order(fs.fam, fs.order, last, &v[i * w]))
                std::memcpy(&v[i * w], last, w);
    }
    if (ordered && mode == 0 && n >= 2) // break the buffer's own order
        std::swap_ranges(v.begin(), v.begin() + w, v.end() - w);
    std::vector<vel_bitmap_word_t> nb;
    bool with_nulls = ordered ? mode == 1 : s.coin();
    if (with_nulls)
        nb = gen_nulls(n, s, ordered ? 1 : 3);
    const vel_bitmap_word_t *nbp = with_nulls ? nb.data() : nullptr;
    VEL_RET want = model_append(fs.fam, fs.order, m, v.data(), n, nbp);
    VEL_RET got = env_.field(fi).append(v.data(), n, nbp);
    ++st_.updates;
    st_.refusals += want != VEL_S_OK;
    return expect_rc("append", fi, got, want) && check_field(fi, env_.obj(), m, true);
}

bool Driver::op_insert(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    SeqModel &m = cur_[fi];
    size_t w = fs.fam.width, cnt = m.size();
    size_t n = s.size();
    size_t room = char_key_room(fs, env_.page_size());
    if (cnt + n > room)
        n = cnt < room ? room - cnt : 0;
    bool ordered = fs.order != VEL_SEQ_NO_ORDER;
    uint64_t pos = s.below(static_cast<uint32_t>(cnt + 2));
    std::vector<uint8_t> v = gen_sorted(fi, n, s);
    std::vector<vel_bitmap_word_t> nb;
    const vel_bitmap_word_t *nbp = nullptr;
    VEL_RET want = VEL_S_OK;
    uint32_t mode = s.below(6);
    if (ordered) {
        // Accepted inserts keep the field sorted and never go in front of the
        // first element (that would leave the left edge's keys ahead of the
        // values); refused ones break the order against the left neighbour,
        // inside the buffer, or carry nulls.
        if (mode == 2 && cnt > 0 && n > 0) {
            // First value strictly before the left neighbour (pos 0: after element 0).
            if (pos > cnt)
                pos = cnt;
            const uint8_t *nb_val = pos == 0 ? m.at(0) : m.at(pos - 1);
            bool found = false;
            for (int tries = 0; tries < 8 && !found; ++tries) {
                gen_value(fs.fam, false, s, v.data());
                found = pos == 0 ? !in_order(fs.fam, fs.order, v.data(), nb_val)
                                 : !in_order(fs.fam, fs.order, nb_val, v.data());
            }
            if (!found)
                return true;
            n = 1;
        } else {
            if (cnt > 0 && pos == 0)
                pos = 1;
            if (pos <= cnt) {
                const uint8_t *lo = pos > 0 ? m.at(pos - 1) : nullptr;
                const uint8_t *hi = pos < cnt ? m.at(pos) : nullptr;
                for (size_t i = 0; i < n; ++i) {
                    uint8_t *e = &v[i * w];
                    if (lo && !in_order(fs.fam, fs.order, lo, e))
                        std::memcpy(e, lo, w);
                    if (hi && !in_order(fs.fam, fs.order, e, hi))
                        std::memcpy(e, hi, w);
                }
            }
            if (mode == 0 && n >= 2) {
                std::swap_ranges(v.begin(), v.begin() + w, v.end() - w);
            } else if (mode == 1) {
                nb = gen_nulls(n, s, 1);
                nbp = nb.data();
            }
        }
    } else if (s.coin()) {
        nb = gen_nulls(n, s, 3);
        nbp = nb.data();
    }
    // The model's verdict.
    if (ordered && ordered_null_test_hits(nbp, n))
        want = VEL_E_SEQ_NULL_VALUE;
    else if (buffer_out_of_order(fs.fam, fs.order, v.data(), n))
        want = VEL_E_SEQ_OUT_OF_ORDER;
    else if (n > 0 && pos > cnt)
        want = VEL_E_ILLEGAL_PARAM;
    else if (n > 0 && ordered && cnt > 0 &&
             (pos > 0 ? !in_order(fs.fam, fs.order, m.at(pos - 1), v.data())
                      : !in_order(fs.fam, fs.order, v.data(), m.at(0))))
        want = VEL_E_SEQ_OUT_OF_ORDER;
    // With lagging keys an accepted insert could leave the left edge's keys
    // ahead of its values; only refusals are tried then.
    if (ordered && want == VEL_S_OK && n > 0 && cnt > 0 && !m.keys_exact)
        return true;
    VEL_RET got = env_.field(fi).insert(pos, v.data(), n, nbp);
    ++st_.updates;
    st_.refusals += want != VEL_S_OK;
    if (got != want)
        return fail(fmt("insert of %zu at %llu into %zu elements: code %d, model says %d", n,
                        (unsigned long long)pos, cnt, (int)got, (int)want));
    if (want == VEL_S_OK && n > 0)
        m.insert(pos, v.data(), n, nbp, 0);
    return expect_rc("insert", fi, got, want) && check_field(fi, env_.obj(), m, true);
}

// A run of single-value inserts, consecutive from one place or at random
// places, long enough to grow trees by levels on small pages.  Half the runs
// keep the field compact through velh_keep_compact after every insert; the
// others go raw and compact once when the tree nears the depth at which the
// module traps.  Ordered fields take a copy of the left neighbour; those with
// lagging keys are left alone, since a rebuild would make their keys exact.
bool Driver::op_late_inserts(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    SeqModel &m = cur_[fi];
    const FieldLoc &l = env_.loc(fi);
    const size_t w = fs.fam.width;
    const bool ordered = fs.order != VEL_SEQ_NO_ORDER;
    if (ordered && (!m.keys_exact || m.size() == 0))
        return true;
    const size_t room = char_key_room(fs, env_.page_size());
    const bool consecutive = s.coin(), kept = s.coin();
    const uint32_t runs = 16 + s.below(300);
    uint64_t pos = s.below(static_cast<uint32_t>(m.size() + 1));
    velh_compact_state_t st{};
    std::vector<uint8_t> v(w);
    for (uint32_t k = 0; k < runs && m.size() < room; ++k) {
        if (!consecutive || pos > m.size())
            pos = s.below(static_cast<uint32_t>(m.size() + 1));
        if (ordered && pos == 0)
            pos = 1;
        vel_bitmap_word_t null = 0;
        if (ordered) {
            std::memcpy(v.data(), m.at(pos - 1), w);
            if (!in_order(fs.fam, fs.order, m.at(pos - 1), v.data()) ||
                (pos < m.size() && !in_order(fs.fam, fs.order, v.data(), m.at(pos))))
                break; // a NaN neighbour refuses every value
        } else {
            gen_value(fs.fam, true, s, v.data());
            null = s.below(4) == 0;
        }
        VEL_RET got = env_.field(fi).insert(pos, v.data(), 1, &null);
        ++st_.updates;
        if (!expect_rc("late insert", fi, got, VEL_S_OK))
            return false;
        m.insert(pos, v.data(), 1, &null, 0);
        pos += consecutive;
        velh_field_shape_t before{}, sh{};
        got = velh_field_shape(env_.obj(), l.fld_no, fs.order, &before);
        if (got == VEL_S_OK && kept)
            got = velh_keep_compact(env_.obj(), l.fld_no, fs.order, 1, &st);
        else if (got == VEL_S_OK && before.depth >= VEL_SEQ_MAX_DEPTH - 1)
            got = velh_compact(env_.obj(), l.fld_no, fs.order);
        if (!expect_rc(kept ? "keep compact" : "compact", fi, got, VEL_S_OK) ||
            !expect_rc("shape", fi, velh_field_shape(env_.obj(), l.fld_no, fs.order, &sh),
                       VEL_S_OK))
            return false;
        // Kept fields hold the policy's limits (repaired locally, so not
        // always dense); a compaction builds the tree appends build, page
        // for page.
        if (kept && (sh.depth > VELH_COMPACT_MAX_DEPTH || sh.pages > 2 * sh.dense_pages))
            return fail(fmt("kept field %d: depth %u, %llu pages, dense %llu", fi, sh.depth,
                            (unsigned long long)sh.pages, (unsigned long long)sh.dense_pages));
        if (!kept && sh.pages < before.pages && sh.pages != sh.dense_pages)
            return fail(fmt("compacted field %d: %llu pages, dense %llu", fi,
                            (unsigned long long)sh.pages, (unsigned long long)sh.dense_pages));
    }
    if (!kept && s.coin()) { // a raw run ends with a compaction now and then
        velh_field_shape_t sh{};
        if (!expect_rc("compact", fi, velh_compact(env_.obj(), l.fld_no, fs.order), VEL_S_OK) ||
            !expect_rc("shape", fi, velh_field_shape(env_.obj(), l.fld_no, fs.order, &sh),
                       VEL_S_OK))
            return false;
        if (sh.pages != sh.dense_pages)
            return fail(fmt("compacted field %d: %llu pages, dense %llu", fi,
                            (unsigned long long)sh.pages, (unsigned long long)sh.dense_pages));
    }
    return check_field(fi, env_.obj(), m, true);
}

bool Driver::op_delete(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    SeqModel &m = cur_[fi];
    size_t cnt = m.size();
    uint64_t from = s.below(static_cast<uint32_t>(cnt + 3));
    const uint32_t kind = s.below(4); // everything, inverted (or everything), a range
    const uint64_t till = kind == 0   ? kAll
                          : kind == 1 ? (from == 0 ? kAll : from - 1)
                                      : from + s.below(static_cast<uint32_t>(cnt / 2 + 3));
    // A root leaf traps on a start more than one past its end; a taller tree
    // finds no child and deletes nothing.  Only the latter is a valid call.
    if (from > cnt && root_is_leaf(fi))
        from = cnt;
    VEL_RET got = env_.field(fi).del(from, till);
    ++st_.updates;
    if (till >= from && from < cnt) {
        uint64_t t = std::min<uint64_t>(till, cnt - 1);
        if (t < cnt - 1 && fs.order != VEL_SEQ_NO_ORDER)
            m.keys_exact = false;
        m.erase(from, t);
        if (m.size() == 0)
            m.keys_exact = true;
    }
    return expect_rc("delete", fi, got, VEL_S_OK) && check_field(fi, env_.obj(), m, true);
}

bool Driver::op_truncate(Src &s) {
    int fi = pick_field(s, false);
    const FieldLoc &l = env_.loc(fi);
    VEL_RET got = vel_w_seq_truncate(env_.obj(), l.u, l.c, l.fld_no);
    ++st_.updates;
    cur_[fi].clear();
    return expect_rc("truncate", fi, got, VEL_S_OK) && check_field(fi, env_.obj(), cur_[fi], true);
}

bool Driver::op_ends(Src &s) {
    int fi = pick_field(s, false);
    return check_field(fi, env_.obj(), cur_[fi], false);
}

// ---- iterators -----------------------------------------------------------------

// Drains `it` (tiles of 128) and compares it with the model elements idx[0..].
static std::string drain_compare(const Family &f, vel_seq_iterator_t &it, const SeqModel &m,
                                 const std::vector<uint64_t> &idx, uint64_t *compared) {
    size_t k = 0;
    for (int guard = 0; guard < 100000; ++guard) {
        VEL_RET rc = it.next(&it);
        if (rc == VEL_S_CURSOR_END)
            return k == idx.size() ? ""
                                   : fmt("iterator ended after %zu of %zu elements", k, idx.size());
        if (rc != VEL_S_OK)
            return fmt("next returned %d after %zu elements", (int)rc, k);
        size_t want = std::min<size_t>(128, idx.size() - k);
        if (it.tile_size != want)
            return fmt("tile of %u elements after %zu, expected %zu", it.tile_size, k, want);
        for (size_t t = 0; t < want; ++t, ++k)
            if (std::string e = tile_mismatch(f, it, t, m, idx[k]); !e.empty())
                return fmt("element %zu, ", k) + e;
        *compared += want;
    }
    return "iterator never ended";
}

static std::vector<uint64_t> range_idx(uint64_t from, uint64_t till, size_t cnt) {
    std::vector<uint64_t> v;
    if (cnt == 0 || from > till || from >= cnt)
        return v;
    uint64_t t = std::min<uint64_t>(till, cnt - 1);
    for (uint64_t i = from; i <= t; ++i)
        v.push_back(i);
    return v;
}

static std::string range_mismatch(const vel_seq_iterator_t &it, uint64_t first, uint64_t next,
                                  uint64_t last) {
    if (it.first_seq_no == first && it.next_seq_no == next && it.last_seq_no == last)
        return {};
    return fmt("range first/next/last %llu/%llu/%llu, model %llu/%llu/%llu",
               (unsigned long long)it.first_seq_no, (unsigned long long)it.next_seq_no,
               (unsigned long long)it.last_seq_no, (unsigned long long)first,
               (unsigned long long)next, (unsigned long long)last);
}

bool Driver::op_scan(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    const SeqModel &m = cur_[fi];
    size_t cnt = m.size();
    uint64_t from = s.below(static_cast<uint32_t>(cnt + 2));
    const uint32_t kind = s.below(4);
    const uint64_t till = kind == 0   ? kAll
                          : kind == 1 ? (from == 0 ? 0 : from - 1)
                                      : from + s.below(300);
    bool use_snapshot = s.coin() && env_.snapshot_is_open(0);
    vel_objhandle_h obj = use_snapshot ? env_.snapshot_obj(0) : env_.obj();
    const SeqModel &mm = use_snapshot ? snap_[0][fi] : m;
    if (use_snapshot) {
        cnt = mm.size();
        if (from > cnt + 1)
            from = cnt;
    }
    auto it = std::make_unique<vel_seq_iterator_t>();
    std::memset(it.get(), 0x5A, sizeof *it);
    VEL_RET rc = env_.field(fi, obj).subseq(it.get(), from, till);
    bool ok = till >= from && from < cnt;
    if (!expect_rc("subseq", fi, rc, ok ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    std::string e = ok ? range_mismatch(*it, from, from, till) : range_mismatch(*it, 1, 1, 0);
    if (e.empty() && (it->elem_type != fs.fam.elem_type || it->elem_size != fs.fam.width))
        e = "subseq set elem_type/elem_size wrongly";
    if (!e.empty())
        return fail("subseq: " + e);
    std::vector<uint64_t> idx = range_idx(from, till, cnt);
    e = drain_compare(fs.fam, *it, mm, idx, &st_.elements_compared);
    if (!e.empty())
        return fail(std::string("scan of ") + fs.fam.name + ": " + e);
    if (s.coin()) {
        rc = it->reset(it.get());
        if (!expect_rc("subseq reset", fi, rc, ok ? VEL_S_OK : VEL_S_NOTFOUND))
            return false;
        e = drain_compare(fs.fam, *it, mm, idx, &st_.elements_compared);
        if (!e.empty())
            return fail(std::string("scan after reset: ") + e);
    }
    return true;
}

namespace {

// "v lies before bound b of kind k": the search's test, in the declared order.
bool before(const Family &f, vel_seq_order_t o, const uint8_t *v, const uint8_t *b, int k) {
    if (k == VEL_SEQ_BOUNDARY_OPEN)
        return false;
    bool asc = o == VEL_SEQ_ASC_ORDER;
    if (k == VEL_SEQ_BOUNDARY_INCLUSIVE)
        return asc ? f.lt(v, b, f.width) : f.lt(b, v, f.width);
    return asc ? f.le(v, b, f.width) : f.le(b, v, f.width);
}

uint64_t partition(const Family &f, vel_seq_order_t o, const SeqModel &m, const uint8_t *b, int k) {
    uint64_t i = 0;
    while (i < m.size() && before(f, o, m.at(i), b, k))
        ++i;
    return i;
}

} // namespace

bool Driver::op_search(Src &s) {
    int fi = pick_field(s, true);
    const FieldSpec &fs = f_[fi];
    const SeqModel &m = cur_[fi];
    size_t w = fs.fam.width, cnt = m.size();
    uint8_t low[16], high[16];
    for (uint8_t *b : {low, high}) {
        if (cnt && s.coin())
            std::memcpy(b, m.at(s.below(static_cast<uint32_t>(cnt))), w);
        else
            gen_value(fs.fam, false, s, b);
    }
    int lk = static_cast<int>(s.below(4)), hk = static_cast<int>(s.below(4));
    // Model of the set-up.  An empty result still sets a range: the char
    // family's is always 1/1/0, the scalar ones' lies where the bounds met.
    VEL_RET want = VEL_S_OK;
    uint64_t first = 0, next = 0, last = kAll;
    auto none = [&](uint64_t at) {
        want = VEL_S_NOTFOUND;
        last = fs.fam.is_char ? 0 : at;
        first = next = last + 1;
    };
    const uint64_t hi =
        hk == VEL_SEQ_BOUNDARY_OPEN ? cnt + 1 : partition(fs.fam, fs.order, m, high, 3 - hk);
    if (cnt == 0 || hi == 0) {
        none(0);
    } else {
        if (hi < cnt || (hi == cnt && !fs.fam.is_char))
            last = hi - 1;
        const uint64_t lo = partition(fs.fam, fs.order, m, low, lk);
        if (lo == cnt)
            none(last == kAll ? 0 : last);
        else if (lo <= last)
            first = next = lo;
        else
            none(lo);
    }
    auto it = std::make_unique<vel_seq_iterator_t>();
    std::memset(it.get(), 0x5A, sizeof *it);
    VEL_RET rc = env_.field(fi).search(it.get(), low, (vel_seq_boundary_kind_t)lk, high,
                                       (vel_seq_boundary_kind_t)hk);
    if (!expect_rc("search", fi, rc, want))
        return false;
    std::string e = range_mismatch(*it, first, next, last);
    if (!e.empty())
        return fail(std::string("search on ") + fs.fam.name + " lk=" + std::to_string(lk) +
                    " hk=" + std::to_string(hk) + " low=" + show(fs.fam, low) +
                    " high=" + show(fs.fam, high) + ": " + e);
    std::vector<uint64_t> idx =
        want == VEL_S_OK ? range_idx(first, last, cnt) : std::vector<uint64_t>{};
    // Optionally project another field over the remaining range first.
    if (s.coin()) {
        int pj = static_cast<int>(s.below(static_cast<uint32_t>(f_.size())));
        const FieldSpec &ps = f_[pj];
        const SeqModel &pm = cur_[pj];
        auto dst = std::make_unique<vel_seq_iterator_t>();
        std::memset(dst.get(), 0x5A, sizeof *dst);
        vel_seq_iterator_t before_src = *it;
        rc = env_.field(pj).project(dst.get(), it.get());
        uint64_t from = it->next_seq_no, till = it->last_seq_no;
        bool ok = till >= from && from < pm.size();
        if (!expect_rc("project", pj, rc, ok ? VEL_S_OK : VEL_S_NOTFOUND))
            return false;
        if (std::memcmp(&before_src, it.get(), sizeof before_src) != 0)
            return fail("project changed its source iterator");
        e = drain_compare(ps.fam, *dst, pm, range_idx(from, till, pm.size()),
                          &st_.elements_compared);
        if (!e.empty())
            return fail(std::string("project onto ") + ps.fam.name + ": " + e);
    }
    e = drain_compare(fs.fam, *it, m, idx, &st_.elements_compared);
    if (!e.empty())
        return fail(std::string("search scan of ") + fs.fam.name + ": " + e);
    return true;
}

// The context stack a map tile leaves: the path of the tile's last descent,
// replayed here by a positional set-up from the root.  The positions
// descended to are found as map finds them: a position outside the leaf
// reached last (none at the tile's start) descends.
std::string Driver::map_stack_mismatch(int fi, const vel_seq_iterator_t &it, const uint64_t *p,
                                       size_t n) {
    auto ref = std::make_unique<vel_seq_iterator_t>();
    const auto *ctx = reinterpret_cast<const vel_seq_iterator_context_t *>(it.context);
    const auto *rctx = reinterpret_cast<const vel_seq_iterator_context_t *>(ref->context);
    uint64_t leaf_pos = 0, leaf_size = 0;
    for (size_t t = 0; t < n; ++t) {
        if (p[t] - leaf_pos < leaf_size)
            continue;
        if (env_.field(fi).subseq(ref.get(), p[t], p[t]) != VEL_S_OK)
            return "no descent to a delivered position";
        const auto &top = rctx->stack[rctx->stack_size - 1];
        leaf_pos = p[t] - static_cast<uint64_t>(top.pos);
        leaf_size = static_cast<uint64_t>(top.page->hdr.user);
    }
    if (n == 0)
        return "";
    if (ctx->stack_size != rctx->stack_size)
        return fmt("stack of %u levels, expected %u", ctx->stack_size, rctx->stack_size);
    for (int i = 0; i < ctx->stack_size; ++i)
        if (ctx->stack[i].page != rctx->stack[i].page || ctx->stack[i].pos != rctx->stack[i].pos)
            return fmt("stack level %d differs from the last descent's path", i);
    return "";
}

bool Driver::op_map(Src &s) {
    int fi = pick_field(s, false);
    const FieldSpec &fs = f_[fi];
    const SeqModel &m = cur_[fi];
    size_t cnt = m.size();
    auto pos = std::make_unique<VecIter>();
    pos->setup(VEL_DD_UINT8, 8);
    size_t n = s.size();
    bool bad = s.below(8) == 0;
    std::vector<uint64_t> p(n);
    for (auto &x : p)
        x = cnt ? s.below(static_cast<uint32_t>(cnt)) : 0;
    if (bad && n)
        p[s.below(static_cast<uint32_t>(n))] = cnt + s.below(3);
    const auto *pb = reinterpret_cast<const uint8_t *>(p.data());
    pos->data.assign(pb, pb + n * 8);
    // Tile sizes, cycled; empty tiles may occur, but not only empty ones.
    pos->chunks.push_back(static_cast<uint16_t>(1 + s.below(128)));
    for (int i = 0, k = static_cast<int>(s.below(4)); i < k; ++i)
        pos->chunks.push_back(static_cast<uint16_t>(s.below(129)));
    auto it = std::make_unique<vel_seq_iterator_t>();
    std::memset(it.get(), 0x5A, sizeof *it);
    VEL_RET rc = env_.field(fi).map(it.get(), &pos->it);
    if (!expect_rc("map", fi, rc, VEL_S_OK))
        return false;
    if (!pos->it.bounded)
        return fail("map did not mark its positions iterator bound");
    for (int round = 0; round < 2; ++round) {
        size_t k = 0, chunk = 0;
        for (;;) {
            size_t want_n = 0;
            if (k < n) {
                want_n = pos->chunks[chunk++ % pos->chunks.size()];
                want_n = std::min<size_t>({want_n, n - k, 128});
            }
            VEL_RET want = k >= n ? VEL_S_CURSOR_END : VEL_S_OK;
            if (want == VEL_S_OK && want_n > 0) {
                if (cnt == 0)
                    want = VEL_E_NOMEM;
                else
                    for (size_t t = 0; t < want_n; ++t)
                        if (p[k + t] >= cnt)
                            want = VEL_S_NOTFOUND;
            }
            rc = it->next(it.get());
            if (!expect_rc("map next", fi, rc, want))
                return false;
            if (want != VEL_S_OK)
                break;
            if (it->tile_size != want_n)
                return fail(fmt("map tile of %u, expected %zu", it->tile_size, want_n));
            for (size_t t = 0; t < want_n; ++t)
                if (std::string e = tile_mismatch(fs.fam, *it, t, m, p[k + t]); !e.empty())
                    return fail(std::string("map of ") + fs.fam.name + " " + e);
            if (std::string e = map_stack_mismatch(fi, *it, p.data() + k, want_n); !e.empty())
                return fail("map of " + std::string(fs.fam.name) + ": " + e);
            st_.elements_compared += want_n;
            k += want_n;
        }
        if (round == 0) {
            if (!s.coin())
                break;
            rc = it->reset(it.get());
            if (!expect_rc("map reset", fi, rc, VEL_S_OK))
                return false;
            if (pos->it.bounded)
                return fail("map reset left its positions iterator bound");
        }
    }
    return true;
}

bool Driver::op_join(Src &s) {
    int fi = pick_field(s, true);
    const FieldSpec &fs = f_[fi];
    const SeqModel &m = cur_[fi];
    size_t w = fs.fam.width, cnt = m.size(), n = s.size();
    auto vals = std::make_unique<VecIter>();
    vals->setup(fs.fam.elem_type, static_cast<uint16_t>(w));
    vals->data.resize(n * w);
    for (size_t i = 0; i < n; ++i) {
        if (cnt && s.coin())
            std::memcpy(&vals->data[i * w], m.at(s.below(static_cast<uint32_t>(cnt))), w);
        else
            gen_value(fs.fam, false, s, &vals->data[i * w]);
    }
    for (int i = 0, k = 1 + static_cast<int>(s.below(3)); i < k; ++i)
        vals->chunks.push_back(static_cast<uint16_t>(1 + s.below(128)));
    auto it = std::make_unique<vel_seq_iterator_t>();
    std::memset(it.get(), 0x5A, sizeof *it);
    VEL_RET rc = env_.field(fi).join(it.get(), &vals->it);
    if (!expect_rc("join", fi, rc, cnt ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    if (!vals->it.bounded)
        return fail("join did not mark its operand bound");
    if (cnt == 0)
        return true;
    if (it->elem_type != VEL_DD_UINT8 || it->elem_size != 8)
        return fail("join iterator does not deliver uint8 positions");
    // Optionally gather another field at the joined positions.
    int mf = s.coin() ? static_cast<int>(s.below(static_cast<uint32_t>(f_.size()))) : -1;
    std::unique_ptr<vel_seq_iterator_t> mit;
    if (mf >= 0) {
        mit = std::make_unique<vel_seq_iterator_t>();
        rc = env_.field(mf).map(mit.get(), it.get());
        if (!expect_rc("map over join", mf, rc, VEL_S_OK))
            return false;
    }
    size_t k = 0, chunk = 0;
    for (;;) {
        size_t want_n = 0;
        VEL_RET want = VEL_S_CURSOR_END;
        std::vector<uint64_t> expect_pos;
        if (k < n) {
            want = VEL_S_OK;
            want_n =
                std::min<size_t>({size_t(vals->chunks[chunk++ % vals->chunks.size()]), n - k, 128});
            for (size_t t = 0; t < want_n; ++t) {
                uint64_t p = partition(fs.fam, fs.order, m, &vals->data[(k + t) * w],
                                       VEL_SEQ_BOUNDARY_INCLUSIVE);
                if (p == cnt)
                    want = VEL_S_NOTFOUND;
                expect_pos.push_back(p);
            }
        }
        if (mf >= 0 && want == VEL_S_OK) {
            const SeqModel &mm = cur_[mf];
            for (uint64_t p : expect_pos)
                if (p >= mm.size())
                    want = mm.size() == 0 ? VEL_E_NOMEM : VEL_S_NOTFOUND;
        }
        vel_seq_iterator_t *drv = mf >= 0 ? mit.get() : it.get();
        rc = drv->next(drv);
        if (!expect_rc(mf >= 0 ? "map over join next" : "join next", fi, rc, want))
            return false;
        if (want != VEL_S_OK)
            break;
        if (drv->tile_size != want_n)
            return fail(fmt("join tile of %u, expected %zu", drv->tile_size, want_n));
        for (size_t t = 0; t < want_n; ++t) {
            if (mf >= 0) {
                if (std::string e = tile_mismatch(f_[mf].fam, *mit, t, cur_[mf], expect_pos[t]);
                    !e.empty())
                    return fail("map over join, " + e);
                continue;
            }
            uint64_t got;
            std::memcpy(&got, &it->tile.u.arr_uint8[t], 8);
            if (got != expect_pos[t] || ((it->tile.null_bitmap[t / 64] >> (t % 64)) & 1))
                return fail(fmt("join on %s value %s: position %llu, model %llu", fs.fam.name,
                                show(fs.fam, &vals->data[(k + t) * w]).c_str(),
                                (unsigned long long)got, (unsigned long long)expect_pos[t]));
        }
        st_.elements_compared += want_n;
        k += want_n;
    }
    return true;
}

bool Driver::op_store(Src &s) {
    // Pairs of fields of one family: store from one into the other.
    std::vector<std::pair<int, int>> pairs;
    for (size_t a = 0; a < f_.size(); ++a)
        for (size_t b = 0; b < f_.size(); ++b)
            if (a != b && f_[a].fam.elem_type == f_[b].fam.elem_type &&
                f_[a].fam.width == f_[b].fam.width)
                pairs.emplace_back(static_cast<int>(a), static_cast<int>(b));
    if (pairs.empty())
        return true;
    auto [src, dst] = pairs[s.below(static_cast<uint32_t>(pairs.size()))];
    const FieldSpec &ds = f_[dst];
    SeqModel &sm = cur_[src];
    SeqModel &dm = cur_[dst];
    size_t cnt = sm.size();
    uint64_t from = s.below(static_cast<uint32_t>(cnt + 1));
    uint64_t till = s.coin() ? kAll : from + s.below(400);
    auto it = std::make_unique<vel_seq_iterator_t>();
    VEL_RET rc = env_.field(src).subseq(it.get(), from, till);
    if (!expect_rc("subseq for store", src, rc, from < cnt ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    std::vector<uint64_t> idx = range_idx(from, till, cnt);
    // Model: one append per tile of 128, stopping at the first refusal.
    SeqModel snap = sm; // the source as the iterator sees it (no self-store)
    VEL_RET want = VEL_S_OK;
    for (size_t k = 0; k < idx.size() && want == VEL_S_OK; k += 128) {
        size_t n = std::min<size_t>(128, idx.size() - k);
        std::vector<uint8_t> v(n * ds.fam.width);
        vel_bitmap_word_t nb[2] = {0, 0};
        for (size_t t = 0; t < n; ++t) {
            std::memcpy(&v[t * ds.fam.width], snap.at(idx[k + t]), ds.fam.width);
            if (snap.nulls[idx[k + t]])
                nb[t / 64] |= uint64_t{1} << (t % 64);
        }
        want = model_append(ds.fam, ds.order, dm, v.data(), n, nb);
    }
    rc = env_.field(dst).store(it.get());
    ++st_.updates;
    st_.refusals += want != VEL_S_OK;
    return expect_rc("store", dst, rc, want) && check_field(dst, env_.obj(), dm, true);
}

// ---- transactions and snapshots ------------------------------------------------

bool Driver::op_commit(Src &) {
    VEL_RET rc = env_.commit_and_begin();
    ++st_.commits;
    if (!expect_rc("commit", 0, rc, VEL_S_OK))
        return false;
    committed_ = cur_;
    return true;
}

bool Driver::op_rollback(Src &) {
    VEL_RET rc = env_.rollback_and_begin();
    ++st_.rollbacks;
    if (!expect_rc("rollback", 0, rc, VEL_S_OK))
        return false;
    cur_ = committed_;
    for (size_t i = 0; i < f_.size(); ++i)
        if (!check_field(static_cast<int>(i), env_.obj(), cur_[i], true))
            return false;
    return true;
}

bool Driver::op_snapshot(Src &s) {
    int slot = static_cast<int>(s.below(Env::kSnapshots));
    if (!env_.snapshot_is_open(slot)) {
        VEL_RET rc = env_.snapshot_open(slot);
        if (!expect_rc("snapshot open", 0, rc, VEL_S_OK))
            return false;
        snap_[slot] = committed_;
        return true;
    }
    // Verify every field as the snapshot sees it, then maybe close it.
    if (!check_snapshot(slot))
        return fail("(in snapshot) " + err_);
    if (s.coin())
        env_.snapshot_close(slot);
    return true;
}

bool Driver::check_snapshot(int slot) {
    for (size_t i = 0; i < f_.size(); ++i)
        if (!check_field(static_cast<int>(i), env_.snapshot_obj(slot), snap_[slot][i], true))
            return false;
    ++st_.snapshot_checks;
    return true;
}

std::string Driver::run(const uint8_t *data, size_t size) {
    Src s{data, size};
    err_.clear();
    using Op = bool (Driver::*)(Src &);
    static const Op ops[] = {
        &Driver::op_append,       &Driver::op_append, &Driver::op_append, &Driver::op_insert,
        &Driver::op_insert,       &Driver::op_delete, &Driver::op_delete, &Driver::op_truncate,
        &Driver::op_ends,         &Driver::op_scan,   &Driver::op_search, &Driver::op_map,
        &Driver::op_join,         &Driver::op_store,  &Driver::op_commit, &Driver::op_rollback,
        &Driver::op_snapshot,     &Driver::op_search, &Driver::op_scan,   &Driver::op_append,
        &Driver::op_late_inserts,
    };
    constexpr uint32_t n_ops = sizeof ops / sizeof ops[0];
    while (!s.done() && op_no_ < 400) {
        ++op_no_;
        ++st_.ops;
        Op op = ops[s.below(n_ops)];
        if (!(this->*op)(s))
            return err_;
    }
    // Every snapshot still open must still see its state.
    for (int slot = 0; slot < Env::kSnapshots; ++slot) {
        if (!env_.snapshot_is_open(slot))
            continue;
        if (!check_snapshot(slot))
            return "(final snapshot check) " + err_;
        env_.snapshot_close(slot);
    }
    return {};
}

} // namespace velrel
