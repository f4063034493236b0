// The questions the program answers over a table, through the table layer.
#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <tuple>

#include "velseq/calendar.hpp"
#include "velseq/image.hpp"
#include "veltools.h"

namespace vcli {

std::vector<std::pair<std::string, std::string>> types_of(const std::vector<std::string> &types,
                                                          const char *option) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const std::string &t : types) {
        const size_t eq = t.find('=');
        if (eq == std::string::npos || eq == 0)
            throw Fail(kExitUsage, std::string(option) + " takes NAME=KIND, e.g. " + option +
                                       " price=double (got '" + t + "')");
        out.emplace_back(t.substr(0, eq), t.substr(eq + 1));
    }
    return out;
}

void Source::prepare(bool stdout_is_terminal) {
    load.types = types_of(types, "--type");
    load.name = table;
    load.epoch = epoch == "s"    ? Epoch::Sec
                 : epoch == "ms" ? Epoch::Milli
                 : epoch == "us" ? Epoch::Micro
                 : epoch == "ns" ? Epoch::Nano
                                 : Epoch::None;
    out = format == "csv"                                               ? Format::Csv
          : format == "json"                                            ? Format::Json
          : format == "table" || (format.empty() && stdout_is_terminal) ? Format::Table
                                                                        : Format::Csv;
}

namespace {

// Values of type `t` parsed from command-line words; Fail (usage) when one
// is no such value.
tbl::array values_of(tbl::column_type t, const std::vector<std::string> &texts, const char *what) {
    tbl::array a;
    a.type = t;
    a.length = texts.size();
    a.values.resize(texts.size() * t.width);
    for (size_t i = 0; i < texts.size(); i++)
        if (const Parsed p = parse_value(t, texts[i], a.values.data() + i * t.width);
            p != Parsed::Ok)
            throw Fail(kExitUsage, std::string(what) + " '" + texts[i] + "' " + refusal(t, p));
    return a;
}

// The rows of columns of equal length.
void write_rows(Output &out, const std::vector<tbl::array> &cols) {
    std::vector<OutCell> row(cols.size());
    for (uint64_t i = 0; !cols.empty() && i < cols[0].length; i++) {
        for (size_t k = 0; k < cols.size(); k++)
            row[k] = cell_of(cols[k], i);
        out.row(row);
    }
}

// The table's object in one read transaction.
struct Reader {
    const Table &t;
    velh_db_t *db;
    velseq::connection con;
    velseq::transaction tx;
    vel_objhandle_t obj{};
    Reader(velseq::database &d, const Table &tab)
        : t(tab), db(d.get()), con(d), tx(con, velseq::transaction::read) {
        velseq::detail::check(velh_obj_open(con.get(), t.info.code, t.oid, &obj),
                              "opening the table");
    }
    tbl::column column(int c) const { return t.column(obj, db, c); }
    const Column &col(int c) const { return t.cols[static_cast<size_t>(c)]; }

    // Column indices of --cols, or every column.
    std::vector<int> columns(const std::vector<std::string> &names) const {
        std::vector<int> out;
        for (const std::string &n : names)
            out.push_back(t.need(n));
        if (names.empty())
            for (size_t i = 0; i < t.cols.size(); i++)
                out.push_back(static_cast<int>(i));
        return out;
    }
    std::vector<std::string> header(const std::vector<int> &cols) const {
        std::vector<std::string> h;
        for (int c : cols)
            h.push_back(col(c).name);
        return h;
    }
    // Rows [first, last) of the given columns, a block at a time.
    void print_rows(Output &out, const std::vector<int> &cols, uint64_t first, uint64_t last) {
        constexpr uint64_t kBlock = 4096;
        std::vector<tbl::array> block(cols.size());
        for (uint64_t a = first; a < last; a += kBlock) {
            const uint64_t b = std::min(last, a + kBlock);
            for (size_t k = 0; k < cols.size(); k++)
                block[k] = tbl::read(column(cols[k]), a, b);
            write_rows(out, block);
        }
    }
    int need_time(const char *what) const {
        if (t.time < 0)
            throw Fail(kExitUsage, std::string(what) + " needs a time column, and " + t.source +
                                       " has none (name one with --time)");
        return t.time;
    }
    // Positions of the rows with from <= time < to; says so on standard
    // error when the window lies wholly before or after the rows.
    std::pair<uint64_t, uint64_t> window(const std::string &from, const std::string &to) {
        const int tc = need_time("a time window");
        const tbl::column c = column(tc);
        const tbl::array b = values_of(c.type, {from, to}, "window bound");
        std::pair<uint64_t, uint64_t> p;
        try {
            p = tbl::search(c, b, tbl::bound::inclusive, tbl::bound::exclusive);
        } catch (const velseq::error &e) {
            if (e.code() != VEL_E_ILLEGAL_PARAM) // bounds given reversed
                throw;
            throw Fail(kExitUsage, "the window " + from + " .. " + to +
                                       " is reversed: its end comes before its start");
        }
        if (p.first == p.second && t.rows > 0) {
            if (tbl::search(c, b, tbl::bound::inclusive, tbl::bound::open).second == 0)
                std::fprintf(stderr, "velseq: the window starts after the last row (%s)\n",
                             cell_of(tbl::read(c, t.rows - 1, t.rows), 0).text.c_str());
            else if (tbl::search(c, b, tbl::bound::open, tbl::bound::exclusive).second == 0)
                std::fprintf(stderr, "velseq: the window ends before the first row (%s)\n",
                             cell_of(tbl::read(c, 0, 1), 0).text.c_str());
        }
        return p;
    }
    // The kernels that apply to column c; a column named with --cols
    // (`named`) to which one does not apply is refused.
    std::vector<std::string> applying(int c, const std::vector<std::string> &ks, bool named) const {
        std::vector<std::string> out;
        for (const std::string &k : ks) {
            bool yes = false;
            try {
                yes = tbl::applies(k, col(c).type);
            } catch (const velseq::error &e) { // an unknown name
                std::string names;
                for (const tbl::kernel_info &i : tbl::kernels())
                    names += (names.empty() ? "" : ", ") + std::string(i.name);
                throw Fail(kExitUsage, "--agg: " + std::string(e.what()) + " (" + names + ")");
            }
            if (yes)
                out.push_back(k);
            else if (named)
                throw Fail(kExitUsage, k + " does not apply to column " + col(c).name + " (" +
                                           tbl::type_name(col(c).type) + ")");
        }
        return out;
    }
};

int cmd_load(velseq::database &db, const Table &t, const Source &src) {
    try { // the image replaced whole
        if (!src.db.empty())
            velseq::save_image(db, src.db);
    } catch (const velseq::error &e) {
        throw Fail(kExitInput, "cannot save the table to " + src.db + ": " + e.what());
    }
    Reader r(db, t);
    Output out(stdout, src.out, {"column", "type", "rows", "nulls", "role"});
    for (size_t c = 0; c < t.cols.size(); c++) {
        const tbl::array n = tbl::aggregate(r.column(static_cast<int>(c)), 0, t.rows, {"count"})[0];
        uint64_t count;
        std::memcpy(&count, n.values.data(), 8);
        const vel_seq_order_t ord = t.cols[c].order;
        const std::string role = static_cast<int>(c) == t.time ? "time (ascending)"
                                 : ord == VEL_SEQ_ASC_ORDER    ? "ascending"
                                 : ord == VEL_SEQ_DESC_ORDER   ? "descending"
                                                               : "";
        out.row({{t.cols[c].name, false, true},
                 {tbl::type_name(t.cols[c].type), false, true},
                 {std::to_string(t.rows)},
                 {std::to_string(t.rows - count)},
                 {role, role.empty(), true}});
    }
    out.end();
    std::fflush(stdout);
    if (!src.db.empty())
        std::fprintf(stderr, "velseq: %llu rows saved to %s as table '%s'\n",
                     static_cast<unsigned long long>(t.rows), src.db.c_str(), t.info.name.c_str());
    return 0;
}

// head, tail and window: rows [first, last) of the --cols.
int cmd_rows(Reader &r, const Source &src, const Query &q, uint64_t first, uint64_t last) {
    const std::vector<int> cols = r.columns(q.cols);
    Output out(stdout, src.out, r.header(cols));
    r.print_rows(out, cols, first, last);
    out.end();
    return 0;
}

// The layer's kernel behind a name of stats: nulls is rows - count, and
// argmin_time and argmax_time the time column at argmin's and argmax's row.
std::string base_kernel(const std::string &k) {
    return k == "nulls"         ? "count"
           : k == "argmin_time" ? "argmin"
           : k == "argmax_time" ? "argmax"
                                : k;
}

// Per column, the answers of the kernels (and of nulls, argmin_time and
// argmax_time) over the rows (of the window); a kernel that does not apply
// to a column leaves its cell empty.
int cmd_stats(Reader &r, const Source &src, const Query &q) {
    const std::vector<int> cols = r.columns(q.cols);
    std::pair<uint64_t, uint64_t> p{0, r.t.rows};
    if (!q.window.empty())
        p = r.window(q.window[0], q.window[1]);
    std::vector<std::string> ks = q.agg;
    if (ks.empty()) {
        ks = {"count", "nulls", "sum", "min", "max", "mean", "first", "last", "argmin", "argmax"};
        if (r.t.time >= 0)
            ks.insert(ks.end(), {"argmin_time", "argmax_time"});
    }
    std::vector<std::string> bases;
    for (const std::string &k : ks) {
        if (k.find("_time") != std::string::npos && base_kernel(k) != k)
            r.need_time(k.c_str());
        bases.push_back(base_kernel(k));
    }
    std::vector<std::string> header{"column", "type"};
    header.insert(header.end(), ks.begin(), ks.end());
    std::vector<std::vector<std::string>> some; // per column, the kernels that apply
    for (int c : cols)
        some.push_back(r.applying(c, bases, !q.cols.empty()));
    Output out(stdout, src.out, header);
    for (size_t i = 0; i < cols.size(); i++) {
        const int c = cols[i];
        const std::vector<tbl::array> a = tbl::aggregate(r.column(c), p.first, p.second, some[i]);
        std::vector<OutCell> row{{r.col(c).name, false, true},
                                 {tbl::type_name(r.col(c).type), false, true}};
        for (size_t k = 0; k < ks.size(); k++) {
            const size_t j = std::find(some[i].begin(), some[i].end(), bases[k]) - some[i].begin();
            if (j == some[i].size()) {
                row.push_back(OutCell{"", true, false});
            } else if (ks[k] == "nulls") {
                uint64_t count;
                std::memcpy(&count, a[j].values.data(), 8);
                row.push_back(OutCell{std::to_string(p.second - p.first - count)});
            } else if (ks[k] != bases[k] && a[j].valid(0)) { // the time of a position
                uint64_t at;
                std::memcpy(&at, a[j].values.data(), 8);
                row.push_back(cell_of(tbl::read(r.column(r.t.time), at, at + 1), 0));
            } else {
                row.push_back(cell_of(a[j], 0));
            }
        }
        out.row(row);
    }
    out.end();
    return 0;
}

// Per bucket of the time column, each kernel's answer per column: those
// named with --cols, else every other column to which all the kernels apply.
int cmd_resample(Reader &r, const Source &src, const Query &q) {
    const int tc = r.need_time("resample");
    if (!(r.col(tc).type == kDatetime))
        throw Fail(kExitUsage, "resample needs a datetime time column");
    // A calendar unit (1D, 1W-MON, 3M, 1Q, 1Y, ...), else a fixed width,
    // both with their days starting at local midnight of --utc-offset.
    std::optional<velseq::calendar> cal;
    int64_t every = 0, offset = 0;
    try {
        cal = velseq::calendar::parse(q.every);
        if (!q.utc_offset.empty())
            offset = velseq::calendar::parse_offset(q.utc_offset);
    } catch (const velseq::error &e) {
        throw Fail(kExitUsage, std::string(e.what()));
    }
    if (cal)
        cal->utc_offset_ns = offset;
    else
        every = parse_duration(q.every, "bucket width");
    std::optional<std::pair<vel_datetime, vel_datetime>> win;
    if (!q.window.empty()) {
        r.window(q.window[0], q.window[1]); // checks the bounds, says when it misses
        const tbl::array b = values_of(kDatetime, q.window, "window bound");
        win.emplace();
        std::memcpy(&win->first, b.values.data(), 8);
        std::memcpy(&win->second, b.values.data() + 8, 8);
    }
    const std::vector<std::string> ks =
        !q.agg.empty() ? q.agg
                       : std::vector<std::string>{"first", "max", "min", "last", "count", "mean"};
    std::vector<int> cols;
    for (int c : r.columns(q.cols))
        if (c != tc && r.applying(c, ks, !q.cols.empty()).size() == ks.size())
            cols.push_back(c);
    if (cols.empty())
        throw Fail(kExitUsage, "resample: " + r.t.source + " has no column to which every " +
                                   "aggregate applies (a numeric column, for the default ones)");
    std::vector<std::string> header{"start"};
    std::vector<tbl::buckets> bars;
    for (int c : cols) {
        for (const std::string &k : ks)
            header.push_back(r.col(c).name + "." + k);
        bars.push_back(cal ? tbl::resample(r.column(tc), r.column(c), *cal, win, ks)
                           : tbl::resample(r.column(tc), r.column(c), every,
                                           vel_dt_from_ns(-offset), win, ks));
    }
    // Every column has the same buckets: those holding a row.
    Output out(stdout, src.out, header);
    for (uint64_t i = 0; i < bars[0].start.length; i++) {
        std::vector<OutCell> row{cell_of(bars[0].start, i)};
        for (const tbl::buckets &b : bars)
            for (const tbl::array &a : b.answers)
                row.push_back(cell_of(a, i));
        out.row(row);
    }
    out.end();
    return 0;
}

// Column pc of OTHER as values of type t (converted through their text).
tbl::array column_as(Reader &o, int pc, tbl::column_type t, const std::string &what) {
    const tbl::array got = tbl::read(o.column(pc), 0, o.t.rows);
    if (got.type == t)
        return got;
    std::vector<std::string> texts;
    for (uint64_t i = 0; i < got.length; i++)
        texts.push_back(cell_of(got, i).text);
    return values_of(t, texts, what.c_str());
}

// The probes of an as-of join: OTHER's time column for a datetime key, else
// its column of the key's name, as values of the key's type.
tbl::array probes_of(Reader &o, const Column &key, const std::string &file) {
    int pc = key.type == kDatetime ? o.t.time : o.t.find(key.name);
    if (pc < 0)
        throw Fail(kExitUsage,
                   file + " has no " +
                       (key.type == kDatetime ? "datetime column" : "column named " + key.name) +
                       " to match the time column " + key.name);
    return column_as(o, pc, key.type, file + ": probe");
}

// Rows `rows` of a, in that order.
tbl::array picked(const tbl::array &a, const std::vector<uint64_t> &rows) {
    tbl::array out;
    out.type = a.type;
    out.length = rows.size();
    out.values.resize(rows.size() * a.type.width);
    for (size_t i = 0; i < rows.size(); i++) {
        std::memcpy(out.values.data() + i * a.type.width, a.values.data() + rows[i] * a.type.width,
                    a.type.width);
        if (!a.valid(rows[i])) {
            out.validity.resize((rows.size() + 7) / 8, 0xFF);
            out.validity[i / 8] &= static_cast<uint8_t>(~(1u << (i % 8)));
        }
    }
    return out;
}

// asof --by: as-of within the rows that share the probe's value of a column,
// as pandas' merge_asof(by=).  Each group of rows becomes an object of a
// scratch class (its times, ascending as they were, and the joined columns),
// and the table layer's by-join matches every probe in its group's object.
// A null value of the column is in no group.  Returns the joined columns
// and the matched rows' positions in this table.
std::pair<std::vector<tbl::array>, tbl::array> asof_by(Reader &r, Reader &o, const Query &q, int tc,
                                                       const std::vector<int> &cols,
                                                       const tbl::asof_options &opt) {
    const int bc = r.t.need(q.by), obc = o.t.find(q.by);
    if (obc < 0)
        throw Fail(kExitUsage, q.other + " has no column " + q.by + " to match --by with");
    const tbl::array by = tbl::read(r.column(bc), 0, r.t.rows);
    std::map<std::string, uint32_t> group_of_value;
    std::vector<std::vector<uint64_t>> rows; // of each group, ascending
    const size_t bw = by.type.width;
    for (uint64_t i = 0; i < by.length; i++)
        if (by.valid(i)) {
            const std::string v(reinterpret_cast<const char *>(by.values.data() + i * bw), bw);
            const auto [it, fresh] = group_of_value.emplace(v, static_cast<uint32_t>(rows.size()));
            if (fresh)
                rows.emplace_back();
            rows[it->second].push_back(i);
        }
    std::vector<tbl::column_def> defs{{"t", r.col(tc).type, VEL_SEQ_ASC_ORDER}};
    std::vector<tbl::array> whole{tbl::read(r.column(tc), 0, r.t.rows)};
    for (int c : cols) {
        std::string name = "c"; // (gcc 12 at -O3 warns of "literal" + string, -Wrestrict)
        name += std::to_string(defs.size());
        defs.push_back({name, r.col(c).type});
        whole.push_back(tbl::read(r.column(c), 0, r.t.rows));
    }
    velseq::database gdb;
    const tbl::table_info gt = tbl::define_table(gdb.get(), "groups", defs);
    velseq::connection gcon(gdb);
    velseq::transaction gtx(gcon, velseq::transaction::write);
    std::vector<tbl::asof_group> groups;
    for (const std::vector<uint64_t> &g : rows) {
        vel_objhandle_t h{};
        velseq::detail::check(velh_obj_create(gcon.get(), gt.code, &h), "asof --by: a group");
        tbl::asof_group ag{tbl::column_of(h, gdb.get(), gt, 0), {}};
        tbl::append(ag.keys, picked(whole[0], g));
        for (size_t k = 0; k < cols.size(); k++) {
            ag.cols.push_back(tbl::column_of(h, gdb.get(), gt, static_cast<uint16_t>(k + 1)));
            tbl::append(ag.cols.back(), picked(whole[k + 1], g));
        }
        groups.push_back(std::move(ag));
    }
    const tbl::array probes = probes_of(o, r.col(tc), q.other);
    const tbl::array pby = column_as(o, obc, by.type, q.other + ": " + q.by);
    std::vector<uint32_t> group_of(probes.length, tbl::kNoGroup);
    for (uint64_t i = 0; i < pby.length; i++)
        if (pby.valid(i)) {
            const auto it = group_of_value.find(
                std::string(reinterpret_cast<const char *>(pby.values.data() + i * bw), bw));
            if (it != group_of_value.end())
                group_of[i] = it->second;
        }
    const uint64_t n = probes.length;
    std::vector<tbl::array> out(cols.size());
    std::vector<tbl::buffer> bufs;
    for (size_t k = 0; k < cols.size(); k++) {
        out[k].type = r.col(cols[k]).type;
        out[k].length = n;
        out[k].values.resize(n * out[k].type.width);
        out[k].validity.resize((n + 7) / 8);
        bufs.push_back({out[k].type, n, out[k].values.data(), out[k].validity.data()});
    }
    tbl::array pos; // positions in the groups, then in this table
    pos.type = {VEL_DD_SEQUENCE_UINT8, 8};
    pos.length = n;
    pos.values.resize(n * 8);
    pos.validity.resize((n + 7) / 8);
    auto *at = reinterpret_cast<uint64_t *>(pos.values.data());
    tbl::asof_join_by(groups, group_of.data(), tbl::view(probes), opt, at, pos.validity.data(),
                      bufs.data(), bufs.size());
    for (uint64_t i = 0; i < n; i++)
        if (pos.valid(i))
            at[i] = rows[group_of[i]][at[i]];
    return {std::move(out), std::move(pos)};
}

int cmd_asof(Reader &r, const Source &src, const Query &q) {
    const int tc = r.need_time("asof");
    LoadOptions lo;
    lo.file = q.other;
    lo.progress = -1;
    lo.types = types_of(q.other_types, "--other-type");
    // The probes live in a database of their own: the table's may be open
    // read-only.
    velseq::database other_db;
    const Table other = load_csv(other_db, lo);
    Reader o(other_db, other);
    tbl::asof_options opt;
    opt.dir = q.direction == "forward"   ? tbl::direction::forward
              : q.direction == "nearest" ? tbl::direction::nearest
                                         : tbl::direction::backward;
    if (!q.tolerance.empty() && r.col(tc).type == kDatetime) {
        opt.tolerance = parse_duration(q.tolerance, "tolerance");
    } else if (!q.tolerance.empty()) { // a difference of key values
        double d;
        std::memcpy(&d, values_of(kDouble, {q.tolerance}, "tolerance").values.data(), 8);
        opt.tolerance = d;
    }
    std::vector<int> cols = r.columns(q.cols);
    std::vector<tbl::array> joined;
    tbl::array pos;
    if (!q.by.empty()) {
        const int bc = r.t.need(q.by); // OTHER holds it: not joined again
        cols.erase(std::remove(cols.begin(), cols.end(), bc), cols.end());
        std::tie(joined, pos) = asof_by(r, o, q, tc, cols, opt);
    } else {
        pos = tbl::asof(r.column(tc), probes_of(o, r.col(tc), q.other), opt);
        for (int c : cols)
            joined.push_back(tbl::gather(r.column(c), pos));
    }
    // The other table's columns, then the prevailing row of this one.
    std::vector<int> ocols = o.columns({});
    std::vector<std::string> header = o.header(ocols);
    std::vector<tbl::array> by_col;
    for (int c : ocols)
        by_col.push_back(tbl::read(o.column(c), 0, other.rows));
    auto add = [&](std::string nm, tbl::array a) {
        while (std::find(header.begin(), header.end(), nm) != header.end())
            nm += ".asof";
        header.push_back(nm);
        by_col.push_back(std::move(a));
    };
    if (q.row_numbers) // the matched row's position, as argmin and argmax give them
        add("row", pos);
    for (size_t k = 0; k < cols.size(); k++)
        add(r.col(cols[k]).name, std::move(joined[k]));
    Output out(stdout, src.out, header);
    write_rows(out, by_col);
    out.end();
    return 0;
}

// The scalar code (VEL_DD_*) of a column type, which the tree walks take.
uint8_t element_code(tbl::column_type t) {
#define VCLI_SCALAR_(S, T, DD)                                                                     \
    if (t.code == VEL_DD_SEQUENCE_##DD)                                                            \
        return VEL_DD_##DD;
    VEL_SEQ_SCALAR_TYPES(VCLI_SCALAR_)
#undef VCLI_SCALAR_
    return VEL_DD_CHAR;
}

int cmd_tree(Reader &r, const Query &q) {
    for (int c : r.columns(q.cols)) {
        tbl::column s = r.column(c);
        const velt_field_t f{s.field.u_offset, s.field.c_offset, s.field.fld_no,
                             velt_type_t{element_code(s.type), s.type.width}, r.col(c).order};
        velt_error_t err{};
        velt_tree_stats_t st;
        std::printf("column %s (%s):\n", r.col(c).name.c_str(), tbl::type_name(s.type).c_str());
        if (velt_tree_stats(&s.obj, &f, &st, &err) != VELT_OK)
            throw Fail(kExitInput, std::string("tree: ") + err.message);
        velt_print_stats(stdout, &st);
        if (q.dump) {
            const velt_dump_options_t opt{q.preview, 16};
            if (velt_dump_tree(&s.obj, &f, stdout, &opt, &err) != VELT_OK)
                throw Fail(kExitInput, std::string("tree: ") + err.message);
        }
    }
    return 0;
}

} // namespace

std::unique_ptr<velseq::database> open_source(const std::string &name, const Source &src,
                                              Table &t) {
    std::unique_ptr<velseq::database> db;
    if (name == "load" || !src.load.file.empty()) {
        if (src.load.file.empty())
            throw Fail(kExitUsage, name + " needs a CSV file");
        if (name != "load" && !src.db.empty())
            throw Fail(kExitUsage, "give either a CSV file or --db, not both");
        if (!src.log.empty() || src.recover)
            throw Fail(kExitUsage, "--log and --recover go with --db IMAGE, not a CSV file");
        db = std::make_unique<velseq::database>();
        t = load_csv(*db, src.load);
        if (t.skipped > 0)
            std::fprintf(stderr, "velseq: skipped %llu bad line%s (first: %s)\n",
                         static_cast<unsigned long long>(t.skipped), t.skipped == 1 ? "" : "s",
                         t.first_skip.c_str());
    } else if (!src.db.empty()) {
        if (src.recover && src.log.empty())
            throw Fail(kExitUsage, "--recover repairs a commit log: name it with --log");
        db = open_table(src.db, t, src.table, src.log, src.recover);
    } else {
        throw Fail(kExitUsage, name + " needs a CSV file or --db IMAGE");
    }
    return db;
}

int answer(const std::string &name, velseq::database &db, const Table &t, const Source &src,
           const Query &q) {
    if (name == "load")
        return cmd_load(db, t, src);
    Reader r(db, t);
    const uint64_t n = t.rows, k = std::min(n, q.n > 0 ? q.n : 10);
    if ((name == "head" || name == "tail") && k < (q.n > 0 ? q.n : 10))
        std::fprintf(stderr, "velseq: the table has only %llu rows\n",
                     static_cast<unsigned long long>(n));
    if (name == "head" || name == "tail")
        return cmd_rows(r, src, q, name == "head" ? 0 : n - k, name == "head" ? k : n);
    if (name == "window") {
        const auto p = r.window(q.from, q.to);
        return cmd_rows(r, src, q, p.first, p.second);
    }
    if (name == "stats")
        return cmd_stats(r, src, q);
    if (name == "resample")
        return cmd_resample(r, src, q);
    if (name == "asof")
        return cmd_asof(r, src, q);
    if (name == "export")
        return cmd_export(db, t, src, q);
    return cmd_tree(r, q);
}

int run_command(const std::string &name, Source &src, const Query &q) {
    Table t;
    std::unique_ptr<velseq::database> db = open_source(name, src, t);
    return answer(name, *db, t, src, q);
}

} // namespace vcli
