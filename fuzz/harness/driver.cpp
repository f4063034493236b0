#include "harness/driver.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

#include "harness/tree_check.h"
#include "seq_root.h"

namespace velrel {

namespace {

constexpr uint64_t kAll = ~uint64_t{0};

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
    return fmt("position %" PRIu64 ": got %s null=%d, model %s null=%d", i, show(f, got).c_str(),
               null, show(f, m.at(i)).c_str(), m.nulls[i]);
}

// The iterator's range and element type against the model's set-up.
std::string setup_mismatch(const Family &f, const vel_seq_iterator_t &it, uint64_t first,
                           uint64_t next, uint64_t last) {
    if (it.elem_type != f.elem_type || it.elem_size != f.width)
        return "elem_type/elem_size set wrongly";
    if (it.first_seq_no == first && it.next_seq_no == next && it.last_seq_no == last)
        return {};
    return fmt("range first/next/last %" PRIu64 "/%" PRIu64 "/%" PRIu64 ", model %" PRIu64
               "/%" PRIu64 "/%" PRIu64,
               it.first_seq_no, it.next_seq_no, it.last_seq_no, first, next, last);
}

// The context stack a map tile leaves: the path of the tile's last descent,
// replayed here by a positional set-up from the root.  The positions
// descended to are found as map finds them: a position outside the leaf
// reached last (none at the tile's start) descends.
std::string map_stack_mismatch(const Field &fl, const vel_seq_iterator_t &it, const uint64_t *p,
                               size_t n) {
    auto ref = std::make_unique<vel_seq_iterator_t>();
    const auto *ctx = reinterpret_cast<const vel_seq_iterator_context_t *>(it.context);
    const auto *rctx = reinterpret_cast<const vel_seq_iterator_context_t *>(ref->context);
    uint64_t leaf_pos = 0, leaf_size = 0;
    for (size_t t = 0; t < n; ++t) {
        if (p[t] - leaf_pos < leaf_size)
            continue;
        if (fl.subseq(ref.get(), p[t], p[t]) != VEL_S_OK)
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

// How many of a field's `size` elements from..till holds.
uint64_t range_count(uint64_t from, uint64_t till, size_t size) {
    return from <= till && from < size ? std::min<uint64_t>(till, size - 1) - from + 1 : 0;
}

// An iterator filled with garbage, so a field the set-up leaves alone shows.
std::unique_ptr<vel_seq_iterator_t> fresh_iter() {
    auto it = std::make_unique<vel_seq_iterator_t>();
    std::memset(it.get(), 0x5A, sizeof *it);
    return it;
}

// "v lies before bound b of kind k": the search's test, in the declared order.
bool before(const FieldSpec &fs, const uint8_t *v, const uint8_t *b, int k) {
    if (k == VEL_SEQ_BOUNDARY_OPEN)
        return false;
    if (fs.order != VEL_SEQ_ASC_ORDER)
        std::swap(v, b);
    return k == VEL_SEQ_BOUNDARY_INCLUSIVE ? fs.fam.lt(v, b, fs.fam.width)
                                           : fs.fam.le(v, b, fs.fam.width);
}

// "a may come before b" in the declared order of an ordered field.
bool in_order(const FieldSpec &fs, const uint8_t *a, const uint8_t *b) {
    return before(fs, a, b, VEL_SEQ_BOUNDARY_EXCLUSIVE);
}

uint64_t partition(const FieldSpec &fs, const SeqModel &m, const uint8_t *b, int k) {
    uint64_t i = 0;
    while (i < m.size() && before(fs, m.at(i), b, k))
        ++i;
    return i;
}

// What map's next returns for a tile of positions into a field of `size`.
VEL_RET map_rc(const std::vector<uint64_t> &p, size_t size) {
    if (!p.empty() && size == 0)
        return VEL_E_NOMEM;
    return std::all_of(p.begin(), p.end(), [&](uint64_t x) { return x < size; }) ? VEL_S_OK
                                                                                 : VEL_S_NOTFOUND;
}

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
        out += fmt("%s%s %" PRIu64, out.empty() ? "" : ", ", c.first, (this->*c.second));
    return out;
}

std::vector<FieldSpec> driver_fields() {
    return {
        {family_of(VEL_DD_INT4), VEL_SEQ_ASC_ORDER},
        {family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER},
        {family_of(VEL_DD_DOUBLE), VEL_SEQ_NO_ORDER},
        {family_of(VEL_DD_UINT2), VEL_SEQ_DESC_ORDER},
        {char_family(5), VEL_SEQ_ASC_ORDER},
        {family_of(VEL_DD_DATETIME), VEL_SEQ_ASC_ORDER},
        {family_of(VEL_DD_INT1), VEL_SEQ_NO_ORDER},
        {family_of(VEL_DD_FLOAT), VEL_SEQ_DESC_ORDER},
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
    uint32_t below(size_t k) {
        return k <= 1 ? 0 : static_cast<uint32_t>(k <= 256 ? u8() % k : u16() % k);
    }
    bool coin() { return u8() & 1; }
    // A batch size: mostly small, sometimes spanning several leaves.
    size_t size() {
        static const uint32_t limits[] = {4, 24, 200, 700};
        return below(limits[u8() & 3]);
    }
    // An end for a range from `from`: everything, one before `from` (an
    // inverted range; `at0` when `from` is 0), or up to `span` past it.
    uint64_t till(uint64_t from, uint64_t at0, size_t span) {
        const uint32_t kind = below(4);
        return kind == 0 ? kAll : kind == 1 ? (from == 0 ? at0 : from - 1) : from + below(span);
    }
};

// The field an operation works on and its model.
struct Driver::Pick {
    int fi;
    const FieldSpec &fs;
    SeqModel &m;
};

// ---- caller-made vector iterator -------------------------------------------

namespace {

VEL_RET vec_next(vel_seq_iterator_h it) {
    auto *v = reinterpret_cast<VecIter *>(it->context[0]);
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
    auto *v = reinterpret_cast<VecIter *>(it->context[0]);
    v->pos = v->chunk_no = 0;
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
    for (const auto &fs : f_)
        cur_.push_back(SeqModel::of_width(fs.fam.width));
    committed_ = cur_;
}

bool Driver::fail(const std::string &what) {
    err_ = fmt("op #%" PRIu64 ": ", op_no_) + what;
    return false;
}

// A field drawn from the input: any, or one with a declared order.
Driver::Pick Driver::pick(Src &s, bool ordered) {
    std::vector<int> from;
    for (size_t i = 0; i < f_.size(); ++i)
        if (!ordered || f_[i].ordered())
            from.push_back(static_cast<int>(i));
    const int fi = from[s.below(from.size())];
    return {fi, f_[fi], cur_[fi]};
}

bool Driver::expect_rc(const char *op, int fi, VEL_RET got, VEL_RET want) {
    ++st_.codes_checked;
    if (got == want)
        return true;
    return fail(fmt("%s on field %d (%s): code %d, model says %d", op, fi, f_[fi].fam.name,
                    (int)got, (int)want));
}

// An update's code against the model's, then the whole field.
bool Driver::updated(const char *op, int fi, VEL_RET got, VEL_RET want) {
    ++st_.updates;
    st_.refusals += want != VEL_S_OK;
    return expect_rc(op, fi, got, want) && check_field(fi, env_.obj(), cur_[fi]);
}

// Tree checks (the driver's and the host's) and the content against the model,
// then count, first and last on the object.
bool Driver::check_field(int fi, vel_objhandle_h obj, const SeqModel &m) {
    const Family &f = f_[fi].fam;
    const FieldLoc &l = env_.loc(fi);
    TreeInfo ti;
    std::string e = env_.field(fi, obj).check(m.keys_exact, &ti);
    ++st_.tree_checks;
    if (!e.empty())
        return fail("tree check: " + e);
    // The host's own checker also sees the reference counts.
    velh_tree_report_t rep{};
    VEL_RET rc = velh_check_tree(obj, l.fld_no, f_[fi].order, m.keys_exact, &rep);
    if (rc != VEL_S_OK || !rep.ok || rep.elements != m.size())
        return fail(fmt("host tree check on field %d: %s (code %d, elements %" PRIu64 ")", fi,
                        rep.message, (int)rc, rep.elements));
    if (!(ti.content == m))
        return fail(
            fmt("field %d (%s): stored values or null flags differ from the model", fi, f.name));
    st_.elements_compared += m.size();
    vel_seq_no_t cnt = 12345;
    if (!expect_rc("count", fi, vel_w_seq_count(obj, l.u, l.c, &cnt), VEL_S_OK))
        return false;
    if (cnt != m.size())
        return fail(fmt("count of field %d: %" PRIu64 ", model %zu", fi, cnt, m.size()));
    // first and last: the end's value and null code; on an empty field,
    // not found with the output untouched.
    for (int end = 0; end < 2; ++end) {
        std::vector<uint8_t> val(16, 0xA5), want(val);
        const char *name = end ? "last" : "first";
        const size_t i = end ? m.size() - 1 : 0;
        VEL_RET rc = (end ? f.last : f.first)(obj, l.u, l.c, val.data(), f.width);
        if (m.size())
            std::memcpy(want.data(), m.at(i), f.width);
        if (!expect_rc(name, fi, rc,
                       m.size() == 0 ? VEL_S_NOTFOUND
                       : m.nulls[i]  ? VEL_E_SEQ_NULL_VALUE
                                     : VEL_S_OK))
            return false;
        if (!std::equal(val.begin(), val.begin() + (m.size() ? f.width : 16), want.begin()))
            return fail(fmt("%s value %s, model %s", name, show(f, val.data()).c_str(),
                            m.size() ? show(f, want.data()).c_str() : "none"));
    }
    return true;
}

bool Driver::check_all(vel_objhandle_h obj, const std::vector<SeqModel> &ms) {
    for (size_t i = 0; i < f_.size(); ++i)
        if (!check_field(static_cast<int>(i), obj, ms[i]))
            return false;
    return true;
}

namespace {

void gen_value(const Family &f, bool allow_nan, Driver::Src &s, uint8_t *out) {
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
        constexpr size_t n = sizeof pool / sizeof pool[0];
        const size_t k = s.below(n + (allow_nan ? 1 : 0));
        const double d = k < n ? pool[k] : std::nan("");
        const float x = static_cast<float>(d);
        std::memcpy(out, f.width == 4 ? static_cast<const void *>(&x) : &d, f.width);
        return;
    }
    // Integers: small values (many duplicates) and the width's extremes.
    const uint64_t top = uint64_t{1} << (8 * f.width - 1), neg = ~uint64_t{0}; // neg: -1
    const uint64_t pool[] = {0,   1,   2,       3,       5,        7,   10,      42,
                             100, neg, neg - 1, neg - 4, neg - 99, top, top - 1, top + 1};
    std::memcpy(out, &pool[s.below(sizeof pool / sizeof pool[0])], f.width); // little-endian
}

// n values in the field's declared order (unordered fields: as drawn).
std::vector<uint8_t> gen_sorted(const FieldSpec &fs, size_t n, Driver::Src &s) {
    const size_t w = fs.fam.width;
    std::vector<std::vector<uint8_t>> v(n, std::vector<uint8_t>(w));
    for (auto &e : v)
        gen_value(fs.fam, !fs.ordered(), s, e.data());
    if (fs.ordered())
        std::stable_sort(v.begin(), v.end(), [&](const auto &a, const auto &b) {
            return fs.order == VEL_SEQ_ASC_ORDER ? fs.fam.lt(a.data(), b.data(), w)
                                                 : fs.fam.lt(b.data(), a.data(), w);
        });
    std::vector<uint8_t> out;
    for (auto &e : v)
        out.insert(out.end(), e.begin(), e.end());
    return out;
}

// A value to look for: half the time a stored one, when there is any.
void gen_probe(const Family &f, const SeqModel &m, Driver::Src &s, uint8_t *out) {
    if (m.size() && s.coin())
        std::memcpy(out, m.at(s.below(m.size())), f.width);
    else
        gen_value(f, false, s, out);
}

std::vector<vel_bitmap_word_t> gen_nulls(size_t n, Driver::Src &s, uint32_t density) {
    std::vector<vel_bitmap_word_t> b((n + 63) / 64 + 1, 0);
    for (size_t i = 0; i < n; ++i)
        if (s.below(8) < density)
            b[i / 64] |= uint64_t{1} << (i % 64);
    return b;
}

// Moves every value of v into [lo, hi] of the declared order (null: open).
void clamp(const FieldSpec &fs, std::vector<uint8_t> &v, const uint8_t *lo, const uint8_t *hi) {
    const size_t w = fs.fam.width;
    for (size_t i = 0; i < v.size(); i += w) {
        if (lo && !in_order(fs, lo, &v[i]))
            std::memcpy(&v[i], lo, w);
        if (hi && !in_order(fs, &v[i], hi))
            std::memcpy(&v[i], hi, w);
    }
}

} // namespace

// A batch size that keeps field fi within the room of its keys.  An ordered
// char inner page sizes itself for entries alone yet stores a key per child
// from byte 8 upwards, so past (page_size - 8) / (16 + width) children its
// keys run into its entries.  The driver keeps ordered char fields small
// enough (children <= elements) never to get there.
size_t Driver::room_for(int fi, size_t n) const {
    const FieldSpec &fs = f_[fi];
    if (!fs.fam.is_char || !fs.ordered())
        return n;
    const size_t room = (env_.page_size() - 8) / (16 + fs.fam.width), cnt = cur_[fi].size();
    return std::min(n, room > cnt ? room - cnt : 0);
}

// ---- updates -----------------------------------------------------------------

bool Driver::op_append(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const size_t n = room_for(fi, s.size()), w = fs.fam.width;
    std::vector<uint8_t> v = gen_sorted(fs, n, s);
    const uint32_t mode = s.below(8);
    if (fs.ordered() && m.size() && mode >= 3) // at or after the stored last value
        clamp(fs, v, m.at(m.size() - 1), nullptr);
    if (fs.ordered() && mode == 0 && n >= 2) // break the buffer's own order
        std::swap_ranges(v.begin(), v.begin() + w, v.end() - w);
    std::vector<vel_bitmap_word_t> nb;
    if (fs.ordered() ? mode == 1 : s.coin())
        nb = gen_nulls(n, s, fs.ordered() ? 1 : 3);
    const vel_bitmap_word_t *nbp = nb.empty() ? nullptr : nb.data();
    VEL_RET want = model_append(fs.fam, fs.order, m, v.data(), n, nbp);
    return updated("append", fi, env_.field(fi).append(v.data(), n, nbp), want);
}

bool Driver::op_insert(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const size_t w = fs.fam.width, cnt = m.size();
    size_t n = room_for(fi, s.size());
    uint64_t pos = s.below(cnt + 2);
    std::vector<uint8_t> v = gen_sorted(fs, n, s);
    std::vector<vel_bitmap_word_t> nb;
    const uint32_t mode = s.below(6);
    // Accepted inserts into ordered fields keep them sorted and never go in
    // front of the first element (that would leave the left edge's keys
    // ahead of the values); refused ones break the order against the left
    // neighbour, inside the buffer, or carry nulls.
    if (fs.ordered() && mode == 2 && cnt > 0 && n > 0) {
        // One value strictly before its left neighbour (pos 0: after element 0).
        pos = std::min<uint64_t>(pos, cnt);
        bool found = false;
        for (int tries = 0; tries < 8 && !found; ++tries) {
            gen_value(fs.fam, false, s, v.data());
            found = insert_verdict(fs.fam, fs.order, m, pos, v.data(), 1, nullptr) != VEL_S_OK;
        }
        if (!found)
            return true;
        n = 1;
    } else if (fs.ordered()) {
        if (cnt > 0 && pos == 0)
            pos = 1;
        if (pos <= cnt)
            clamp(fs, v, pos > 0 ? m.at(pos - 1) : nullptr, pos < cnt ? m.at(pos) : nullptr);
        if (mode == 0 && n >= 2)
            std::swap_ranges(v.begin(), v.begin() + w, v.end() - w);
        else if (mode == 1)
            nb = gen_nulls(n, s, 1);
    } else if (s.coin()) {
        nb = gen_nulls(n, s, 3);
    }
    const vel_bitmap_word_t *nbp = nb.empty() ? nullptr : nb.data();
    const VEL_RET want = insert_verdict(fs.fam, fs.order, m, pos, v.data(), n, nbp);
    // With lagging keys an accepted insert could leave the left edge's keys
    // ahead of its values; only refusals are tried then.
    if (fs.ordered() && want == VEL_S_OK && n > 0 && cnt > 0 && !m.keys_exact)
        return true;
    VEL_RET got = env_.field(fi).insert(pos, v.data(), n, nbp);
    if (want == VEL_S_OK)
        m.insert(pos, v.data(), n, nbp, 0);
    return updated("insert", fi, got, want);
}

// A run of single-value inserts, consecutive from one place or at random
// places, long enough to grow trees by levels on small pages.  Half the runs
// keep the field compact through velh_keep_compact after every insert; the
// others go raw and compact once when the tree nears the depth at which the
// module traps.  Ordered fields take a copy of the left neighbour; those with
// lagging keys are left alone, since a rebuild would make their keys exact.
bool Driver::op_late_inserts(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const uint16_t fld = env_.loc(fi).fld_no;
    if (fs.ordered() && (!m.keys_exact || m.size() == 0))
        return true;
    const bool consecutive = s.coin(), kept = s.coin();
    const uint32_t runs = 16 + s.below(300);
    uint64_t pos = s.below(m.size() + 1);
    velh_compact_state_t st{};
    std::vector<uint8_t> v(fs.fam.width);
    // Structured bindings go into lambdas by init-capture (clang 14 cannot
    // capture them).
    auto shape = [&, fi = fi, &fs = fs](velh_field_shape_t *sh) {
        return expect_rc("shape", fi, velh_field_shape(env_.obj(), fld, fs.order, sh), VEL_S_OK);
    };
    // A compaction builds the tree appends build, page for page.
    auto dense = [&, fi = fi](const velh_field_shape_t &sh) {
        return sh.pages == sh.dense_pages ||
               fail(fmt("compacted field %d: %" PRIu64 " pages, dense %" PRIu64, fi, sh.pages,
                        sh.dense_pages));
    };
    for (uint32_t k = 0; k < runs && room_for(fi, 1) > 0; ++k) {
        if (!consecutive || pos > m.size())
            pos = s.below(m.size() + 1);
        if (fs.ordered() && pos == 0)
            pos = 1;
        vel_bitmap_word_t null = 0;
        if (fs.ordered()) {
            std::memcpy(v.data(), m.at(pos - 1), v.size());
        } else {
            gen_value(fs.fam, true, s, v.data());
            null = s.below(4) == 0;
        }
        ++st_.updates;
        if (!expect_rc("late insert", fi, env_.field(fi).insert(pos, v.data(), 1, &null), VEL_S_OK))
            return false;
        m.insert(pos, v.data(), 1, &null, 0);
        pos += consecutive;
        velh_field_shape_t before{}, sh{};
        VEL_RET got = velh_field_shape(env_.obj(), fld, fs.order, &before);
        if (got == VEL_S_OK && kept)
            got = velh_keep_compact(env_.obj(), fld, fs.order, 1, &st);
        else if (got == VEL_S_OK && before.depth >= VEL_SEQ_MAX_DEPTH - 1)
            got = velh_compact(env_.obj(), fld, fs.order);
        if (!expect_rc(kept ? "keep compact" : "compact", fi, got, VEL_S_OK) || !shape(&sh))
            return false;
        // Kept fields hold the policy's limits (repaired locally, so not
        // always dense).
        if (kept && (sh.depth > VELH_COMPACT_MAX_DEPTH || sh.pages > 2 * sh.dense_pages))
            return fail(fmt("kept field %d: depth %u, %" PRIu64 " pages, dense %" PRIu64, fi,
                            sh.depth, sh.pages, sh.dense_pages));
        if (!kept && sh.pages < before.pages && !dense(sh))
            return false;
    }
    if (!kept && s.coin()) { // a raw run ends with a compaction now and then
        velh_field_shape_t sh{};
        if (!expect_rc("compact", fi, velh_compact(env_.obj(), fld, fs.order), VEL_S_OK) ||
            !shape(&sh) || !dense(sh))
            return false;
    }
    return check_field(fi, env_.obj(), m);
}

bool Driver::op_delete(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const size_t cnt = m.size();
    uint64_t from = s.below(cnt + 3);
    const uint64_t till = s.till(from, kAll, cnt / 2 + 3);
    // A root leaf traps on a start more than one past its end; a taller tree
    // finds no child and deletes nothing.  Only the latter is a valid call.
    vel_seq_page_t *root = nullptr;
    if (from > cnt && env_.field(fi).root(&root) == VEL_S_OK && root && (root->hdr.kind & 15) == 3)
        from = cnt;
    VEL_RET got = env_.field(fi).del(from, till);
    if (till >= from && from < cnt) {
        const uint64_t t = std::min<uint64_t>(till, cnt - 1);
        if (t < cnt - 1 && fs.ordered())
            m.keys_exact = false;
        m.erase(from, t);
        m.keys_exact = m.keys_exact || m.size() == 0;
    }
    return updated("delete", fi, got, VEL_S_OK);
}

bool Driver::op_truncate(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const FieldLoc &l = env_.loc(fi);
    m.clear();
    return updated("truncate", fi, vel_w_seq_truncate(env_.obj(), l.u, l.c, l.fld_no), VEL_S_OK);
}

bool Driver::op_ends(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    return check_field(fi, env_.obj(), m);
}

// ---- iterators -----------------------------------------------------------------

// Drains a scan over m's elements from..till (tiles of 128, all found).
bool Driver::drain_range(const char *op, int fi, vel_seq_iterator_t &it, const SeqModel &m,
                         uint64_t from, uint64_t till) {
    return drain(op, fi, it, range_count(from, till, m.size()), nullptr, &m,
                 [&](size_t k, size_t n, auto &p) {
                     for (size_t t = 0; t < n; ++t)
                         p.push_back(from + k + t);
                     return VEL_S_OK;
                 });
}

bool Driver::op_scan(Src &s) {
    auto [fi, fs, cur] = pick(s, false);
    uint64_t from = s.below(cur.size() + 2);
    const uint64_t till = s.till(from, 0, 300);
    const bool use_snapshot = s.coin() && env_.snapshot_is_open(0);
    const SeqModel &m = use_snapshot ? snap_[0][fi] : cur;
    if (use_snapshot && from > m.size() + 1)
        from = m.size();
    auto it = fresh_iter();
    const VEL_RET rc = env_.field(fi, use_snapshot ? env_.snapshot_obj(0) : env_.obj())
                           .subseq(it.get(), from, till);
    const bool ok = till >= from && from < m.size();
    if (!expect_rc("subseq", fi, rc, ok ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    if (std::string e = ok ? setup_mismatch(fs.fam, *it, from, from, till)
                           : setup_mismatch(fs.fam, *it, 1, 1, 0);
        !e.empty())
        return fail("subseq: " + e);
    if (!drain_range("scan", fi, *it, m, from, till))
        return false;
    return !s.coin() ||
           (expect_rc("subseq reset", fi, it->reset(it.get()), ok ? VEL_S_OK : VEL_S_NOTFOUND) &&
            drain_range("scan after reset", fi, *it, m, from, till));
}

bool Driver::op_search(Src &s) {
    auto [fi, fs, m] = pick(s, true);
    const size_t cnt = m.size();
    uint8_t low[16], high[16];
    for (uint8_t *b : {low, high})
        gen_probe(fs.fam, m, s, b);
    const int lk = static_cast<int>(s.below(4)), hk = static_cast<int>(s.below(4));
    // Model of the set-up.  An empty result still sets a range: the char
    // family's is always 1/1/0, the scalar ones' lies where the bounds met.
    VEL_RET want = VEL_S_OK;
    uint64_t first = 0, next = 0, last = kAll;
    auto none = [&, &fs = fs](uint64_t at) {
        want = VEL_S_NOTFOUND;
        last = fs.fam.is_char ? 0 : at;
        first = next = last + 1;
    };
    const uint64_t hi = hk == VEL_SEQ_BOUNDARY_OPEN ? cnt + 1 : partition(fs, m, high, 3 - hk);
    if (cnt == 0 || hi == 0) {
        none(0);
    } else {
        if (hi < cnt || (hi == cnt && !fs.fam.is_char))
            last = hi - 1;
        const uint64_t lo = partition(fs, m, low, lk);
        if (lo == cnt)
            none(last == kAll ? 0 : last);
        else if (lo <= last)
            first = next = lo;
        else
            none(lo);
    }
    auto it = fresh_iter();
    VEL_RET rc = env_.field(fi).search(it.get(), low, (vel_seq_boundary_kind_t)lk, high,
                                       (vel_seq_boundary_kind_t)hk);
    if (!expect_rc("search", fi, rc, want))
        return false;
    if (std::string e = setup_mismatch(fs.fam, *it, first, next, last); !e.empty())
        return fail(fmt("search on %s lk=%d hk=%d low=%s high=%s: %s", fs.fam.name, lk, hk,
                        show(fs.fam, low).c_str(), show(fs.fam, high).c_str(), e.c_str()));
    // Optionally project another field over the remaining range first.
    if (s.coin()) {
        const int pj = static_cast<int>(s.below(f_.size()));
        auto dst = fresh_iter();
        const vel_seq_iterator_t before_src = *it;
        rc = env_.field(pj).project(dst.get(), it.get());
        const uint64_t from = it->next_seq_no, till = it->last_seq_no;
        const bool ok = till >= from && from < cur_[pj].size();
        if (!expect_rc("project", pj, rc, ok ? VEL_S_OK : VEL_S_NOTFOUND))
            return false;
        if (std::memcmp(&before_src, it.get(), sizeof before_src) != 0)
            return fail("project changed its source iterator");
        if (!drain_range("project", pj, *dst, cur_[pj], from, till))
            return false;
    }
    return drain_range("search scan", fi, *it, m, first, last); // none when not found
}

// Drains `it` over n elements in tiles of 128 or, following a caller's
// iterator `src` (map's positions, join's values), in src's tile sizes.  For
// the tile at element k, `expect` gives the model positions it stands for
// and the code next must return; the tile must then hold field fi's values
// `vm` there (null: the positions themselves, never null), and after `src`
// leave map's context stack.
bool Driver::drain(const char *op, int fi, vel_seq_iterator_t &it, size_t n, const VecIter *src,
                   const SeqModel *vm, const Expect &expect) {
    for (size_t k = 0, chunk = 0;;) {
        std::vector<uint64_t> p;
        size_t want_n = 0;
        VEL_RET want = VEL_S_CURSOR_END;
        if (k < n) {
            const size_t c = src ? src->chunks[chunk++ % src->chunks.size()] : 128;
            want_n = std::min<size_t>({c, n - k, 128});
            want = expect(k, want_n, p);
        }
        if (!expect_rc(op, fi, it.next(&it), want))
            return false;
        if (want != VEL_S_OK)
            return true;
        if (it.tile_size != want_n)
            return fail(fmt("%s: tile of %u after %zu, expected %zu", op, it.tile_size, k, want_n));
        std::string e;
        for (size_t t = 0; t < want_n && e.empty(); ++t)
            if (vm)
                e = tile_mismatch(f_[fi].fam, it, t, *vm, p[t]);
            else if (it.tile.u.arr_uint8[t] != p[t] ||
                     ((it.tile.null_bitmap[t / 64] >> (t % 64)) & 1))
                e = fmt("position %" PRIu64 ", model %" PRIu64, it.tile.u.arr_uint8[t], p[t]);
        if (e.empty() && src && vm)
            e = map_stack_mismatch(env_.field(fi), it, p.data(), want_n);
        if (!e.empty())
            return fail(fmt("%s on %s, tile at %zu: ", op, f_[fi].fam.name, k) + e);
        st_.elements_compared += want_n;
        k += want_n;
    }
}

bool Driver::op_map(Src &s) {
    auto [fi, fs, m] = pick(s, false);
    const size_t cnt = m.size(), n = s.size();
    const bool bad = s.below(8) == 0;
    std::vector<uint64_t> p(n);
    for (auto &x : p)
        x = cnt ? s.below(cnt) : 0;
    if (bad && n)
        p[s.below(n)] = cnt + s.below(3);
    auto pos = std::make_unique<VecIter>();
    pos->setup(VEL_DD_UINT8, 8);
    const auto *pb = reinterpret_cast<const uint8_t *>(p.data());
    pos->data.assign(pb, pb + n * 8);
    // Tile sizes, cycled; empty tiles may occur, but not only empty ones.
    pos->chunks.push_back(static_cast<uint16_t>(1 + s.below(128)));
    for (int i = 0, k = static_cast<int>(s.below(4)); i < k; ++i)
        pos->chunks.push_back(static_cast<uint16_t>(s.below(129)));
    auto it = fresh_iter();
    if (!expect_rc("map", fi, env_.field(fi).map(it.get(), &pos->it), VEL_S_OK))
        return false;
    if (!pos->it.bounded)
        return fail("map did not mark its positions iterator bound");
    const Expect expect = [&](size_t k, size_t want_n, std::vector<uint64_t> &tile) {
        tile.assign(p.begin() + k, p.begin() + k + want_n);
        return map_rc(tile, cnt);
    };
    if (!drain("map next", fi, *it, n, pos.get(), &m, expect))
        return false;
    if (!s.coin())
        return true;
    if (!expect_rc("map reset", fi, it->reset(it.get()), VEL_S_OK))
        return false;
    if (pos->it.bounded)
        return fail("map reset left its positions iterator bound");
    return drain("map next", fi, *it, n, pos.get(), &m, expect);
}

bool Driver::op_join(Src &s) {
    auto [fi, fs, m] = pick(s, true);
    const size_t w = fs.fam.width, cnt = m.size(), n = s.size();
    auto vals = std::make_unique<VecIter>();
    vals->setup(fs.fam.elem_type, static_cast<uint16_t>(w));
    vals->data.resize(n * w);
    for (size_t i = 0; i < n; ++i)
        gen_probe(fs.fam, m, s, &vals->data[i * w]);
    for (int i = 0, k = 1 + static_cast<int>(s.below(3)); i < k; ++i)
        vals->chunks.push_back(static_cast<uint16_t>(1 + s.below(128)));
    auto it = fresh_iter();
    if (!expect_rc("join", fi, env_.field(fi).join(it.get(), &vals->it),
                   cnt ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    if (!vals->it.bounded)
        return fail("join did not mark its operand bound");
    if (cnt == 0)
        return true;
    if (it->elem_type != VEL_DD_UINT8 || it->elem_size != 8)
        return fail("join iterator does not deliver uint8 positions");
    // Optionally gather another field at the joined positions.
    const int mf = s.coin() ? static_cast<int>(s.below(f_.size())) : -1;
    auto mit = fresh_iter();
    if (mf >= 0 &&
        !expect_rc("map over join", mf, env_.field(mf).map(mit.get(), it.get()), VEL_S_OK))
        return false;
    return drain(
        mf >= 0 ? "map over join next" : "join next", mf >= 0 ? mf : fi, mf >= 0 ? *mit : *it, n,
        vals.get(), mf >= 0 ? &cur_[mf] : nullptr,
        [&, &fs = fs, &m = m](size_t k, size_t want_n, std::vector<uint64_t> &p) {
            for (size_t t = 0; t < want_n; ++t)
                p.push_back(partition(fs, m, &vals->data[(k + t) * w], VEL_SEQ_BOUNDARY_INCLUSIVE));
            if (std::find(p.begin(), p.end(), cnt) != p.end())
                return VEL_S_NOTFOUND;
            return mf >= 0 ? map_rc(p, cur_[mf].size()) : VEL_S_OK;
        });
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
    auto [src, dst] = pairs[s.below(pairs.size())];
    const SeqModel &sm = cur_[src];
    const uint64_t from = s.below(sm.size() + 1);
    const uint64_t till = s.coin() ? kAll : from + s.below(400);
    auto it = std::make_unique<vel_seq_iterator_t>();
    if (!expect_rc("subseq for store", src, env_.field(src).subseq(it.get(), from, till),
                   from < sm.size() ? VEL_S_OK : VEL_S_NOTFOUND))
        return false;
    // Model: one append per tile of 128, stopping at the first refusal.
    const uint64_t total = range_count(from, till, sm.size());
    VEL_RET want = VEL_S_OK;
    for (uint64_t k = from; k < from + total && want == VEL_S_OK; k += 128) {
        const size_t n = std::min<uint64_t>(128, from + total - k);
        vel_bitmap_word_t nb[2] = {0, 0};
        for (size_t t = 0; t < n; ++t)
            nb[t / 64] |= uint64_t{sm.nulls[k + t]} << (t % 64);
        want = model_append(f_[dst].fam, f_[dst].order, cur_[dst], sm.at(k), n, nb);
    }
    return updated("store", dst, env_.field(dst).store(it.get()), want);
}

// ---- transactions and snapshots ------------------------------------------------

bool Driver::op_commit(Src &) {
    ++st_.commits;
    committed_ = cur_;
    return expect_rc("commit", 0, env_.commit_and_begin(), VEL_S_OK);
}

bool Driver::op_rollback(Src &) {
    ++st_.rollbacks;
    cur_ = committed_;
    return expect_rc("rollback", 0, env_.rollback_and_begin(), VEL_S_OK) &&
           check_all(env_.obj(), cur_);
}

bool Driver::op_snapshot(Src &s) {
    const int slot = static_cast<int>(s.below(Env::kSnapshots));
    if (!env_.snapshot_is_open(slot)) {
        snap_[slot] = committed_;
        return expect_rc("snapshot open", 0, env_.snapshot_open(slot), VEL_S_OK);
    }
    return check_snapshot(slot, s.coin());
}

// Every field as snapshot `slot` sees it; then closes it when asked to.
bool Driver::check_snapshot(int slot, bool close) {
    if (!check_all(env_.snapshot_obj(slot), snap_[slot]))
        return fail("(in snapshot) " + err_);
    ++st_.snapshot_checks;
    if (close)
        env_.snapshot_close(slot);
    return true;
}

std::string Driver::run(const uint8_t *data, size_t size) {
    Src s{data, size};
    err_.clear();
    using Op = bool (Driver::*)(Src &);
    static const Op ops[] = {&Driver::op_append,   &Driver::op_append,   &Driver::op_append,
                             &Driver::op_insert,   &Driver::op_insert,   &Driver::op_delete,
                             &Driver::op_delete,   &Driver::op_truncate, &Driver::op_ends,
                             &Driver::op_scan,     &Driver::op_search,   &Driver::op_map,
                             &Driver::op_join,     &Driver::op_store,    &Driver::op_commit,
                             &Driver::op_rollback, &Driver::op_snapshot, &Driver::op_search,
                             &Driver::op_scan,     &Driver::op_append,   &Driver::op_late_inserts};
    while (!s.done() && op_no_ < 400) {
        ++op_no_;
        ++st_.ops;
        if (!(this->*ops[s.below(std::size(ops))])(s))
            return err_;
    }
    // Every snapshot still open must still see its state.
    for (int slot = 0; slot < Env::kSnapshots; ++slot)
        if (env_.snapshot_is_open(slot) && !check_snapshot(slot, true))
            return "(final snapshot check) " + err_;
    return {};
}

} // namespace velrel
