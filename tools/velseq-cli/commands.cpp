// The questions the program answers over a loaded table.
#include "commands.h"

#include <chrono>
#include <cstdio>

#include "store.h"
#include "veltools.h"

namespace vcli {

void Source::prepare(bool stdout_is_terminal) {
    for (const std::string &t : types) {
        const size_t eq = t.find('=');
        if (eq == std::string::npos || eq == 0)
            throw Fail(kExitUsage,
                       "--type takes NAME=KIND, e.g. --type price=double (got '" + t + "')");
        load.types.emplace_back(t.substr(0, eq), t.substr(eq + 1));
    }
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

template <class T> OutCell cell_of(const std::optional<T> &v) {
    OutCell c;
    if (!v) {
        c.null = true;
    } else if constexpr (std::is_same_v<T, double>) {
        c.text = format_double(*v);
    } else if constexpr (std::is_same_v<T, int64_t>) {
        c.text = std::to_string(*v);
    } else if constexpr (std::is_same_v<T, velseq::datetime>) {
        c.text = v->iso();
        c.quoted = true;
    } else {
        c.text = std::string(v->view());
        c.quoted = true;
    }
    return c;
}

// The table's object in one read transaction.
struct Reader {
    const Table &t;
    velseq::connection con;
    velseq::transaction tx;
    velseq::object obj;
    Reader(velseq::database &db, const Table &tab)
        : t(tab), con(db), tx(con, velseq::transaction::read), obj(tx.open(tab.schema, tab.oid)) {}

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
            h.push_back(t.cols[c].name);
        return h;
    }
    // Rows [first, last) of the given columns, a block at a time.
    void print_rows(Output &out, const std::vector<int> &cols, uint64_t first, uint64_t last) {
        constexpr uint64_t kBlock = 4096;
        std::vector<std::vector<OutCell>> by_col(cols.size());
        std::vector<OutCell> row(cols.size());
        for (uint64_t a = first; a < last; a += kBlock) {
            const uint64_t b = std::min(last, a + kBlock);
            for (size_t k = 0; k < cols.size(); k++) {
                by_col[k].clear();
                std::visit(
                    [&](auto &fld) {
                        for (auto v : obj[fld].elements(a, b))
                            by_col[k].push_back(cell_of(v));
                    },
                    t.fields[cols[k]]);
            }
            for (uint64_t i = 0; i < b - a; i++) {
                for (size_t k = 0; k < cols.size(); k++)
                    row[k] = std::move(by_col[k][i]);
                out.row(row);
            }
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
    velseq::position_range window(const std::string &from, const std::string &to) {
        const int tc = need_time("a time window");
        const Kind k = t.cols[tc].kind;
        const int64_t lo = parse_bound(k, from, "window start"),
                      hi = parse_bound(k, to, "window end");
        const bool reversed = k == Kind::Int ? hi < lo : uint64_t(hi) < uint64_t(lo);
        if (reversed)
            throw Fail(kExitUsage, "the window " + from + " .. " + to +
                                       " is reversed: its end comes before its start");
        return std::visit(
            [&](auto &fld) -> velseq::position_range {
                using T = typename field_elem<std::decay_t<decltype(fld)>>::type;
                if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, velseq::datetime>) {
                    T a, b;
                    if constexpr (std::is_same_v<T, int64_t>)
                        a = lo, b = hi;
                    else
                        a = velseq::datetime::from_raw(uint64_t(lo)),
                        b = velseq::datetime::from_raw(uint64_t(hi));
                    auto s = obj[fld];
                    const std::optional<T> first = s.front(), last = s.back();
                    if (last && *last < a)
                        std::fprintf(stderr, "velseq: the window starts after the last row (%s)\n",
                                     cell_of(last).text.c_str());
                    else if (first && b <= *first)
                        std::fprintf(stderr, "velseq: the window ends before the first row (%s)\n",
                                     cell_of(first).text.c_str());
                    return s.search(a, b, velseq::bound::inclusive, velseq::bound::exclusive);
                } else {
                    throw Fail(kExitUsage, "the time column holds no times");
                }
            },
            t.fields[tc]);
    }
};

int cmd_load(velseq::database &db, const Table &t, const Source &src) {
    if (!src.db.empty())
        save_table(db, t, src.db);
    Reader r(db, t);
    Output out(stdout, src.out, {"column", "type", "rows", "nulls", "role"});
    for (size_t c = 0; c < t.cols.size(); c++) {
        uint64_t nulls = 0;
        std::visit(
            [&](auto &fld) {
                for (const auto &tile : r.obj[fld].tiles())
                    for (size_t i = 0; i < tile.size(); i++)
                        nulls += tile.nulls[i];
            },
            t.fields[c]);
        out.row({{t.cols[c].name, false, true},
                 {kind_name(t.cols[c].kind), false, true},
                 {std::to_string(t.rows)},
                 {std::to_string(nulls)},
                 {static_cast<int>(c) == t.time ? "time (ascending)" : "",
                  static_cast<int>(c) != t.time, true}});
    }
    out.end();
    std::fflush(stdout);
    if (!src.db.empty())
        std::fprintf(stderr, "velseq: %llu rows saved to %s\n",
                     static_cast<unsigned long long>(t.rows), src.db.c_str());
    return 0;
}

int cmd_head_tail(Reader &r, const Source &src, const Query &q, bool head) {
    const std::vector<int> cols = r.columns(q.cols);
    const uint64_t want = q.n > 0 ? q.n : 10, n = r.t.rows;
    if (want > n)
        std::fprintf(stderr, "velseq: the table has only %llu rows\n",
                     static_cast<unsigned long long>(n));
    const uint64_t k = std::min(want, n);
    Output out(stdout, src.out, r.header(cols));
    r.print_rows(out, cols, head ? 0 : n - k, head ? k : n);
    out.end();
    return 0;
}

int cmd_window(Reader &r, const Source &src, const Query &q) {
    const std::vector<int> cols = r.columns(q.cols);
    const velseq::position_range p = r.window(q.from, q.to);
    Output out(stdout, src.out, r.header(cols));
    r.print_rows(out, cols, p.first, p.last);
    out.end();
    return 0;
}

int cmd_stats(Reader &r, const Source &src, const Query &q) {
    const std::vector<int> cols = r.columns(q.cols);
    velseq::position_range p{0, r.t.rows};
    if (!q.window.empty())
        p = r.window(q.window[0], q.window[1]);
    Output out(stdout, src.out,
               {"column", "type", "count", "nulls", "min", "max", "mean", "first", "last"});
    for (int c : cols)
        std::visit(
            [&](auto &fld) {
                const auto s = velseq::aggregate(r.obj[fld], p);
                out.row({{r.t.cols[c].name, false, true},
                         {kind_name(r.t.cols[c].kind), false, true},
                         {std::to_string(s.count)},
                         {std::to_string(s.rows - s.count)},
                         cell_of(s.min),
                         cell_of(s.max),
                         cell_of(s.mean()),
                         cell_of(s.first),
                         cell_of(s.last)});
            },
            r.t.fields[c]);
    out.end();
    return 0;
}

int cmd_resample(Reader &r, const Source &src, const Query &q) {
    const int tc = r.need_time("resample");
    if (r.t.cols[tc].kind != Kind::Time)
        throw Fail(kExitUsage, "resample needs a datetime time column");
    const int64_t every = parse_duration(q.every, "bucket width");
    std::optional<std::pair<velseq::datetime, velseq::datetime>> win;
    if (!q.window.empty()) {
        const velseq::position_range p = r.window(q.window[0], q.window[1]); // checks, says so
        (void)p;
        win = {velseq::datetime::from_raw(uint64_t(parse_bound(Kind::Time, q.window[0], ""))),
               velseq::datetime::from_raw(uint64_t(parse_bound(Kind::Time, q.window[1], "")))};
    }
    std::vector<int> cols;
    for (int c : r.columns(q.cols)) {
        const Kind k = r.t.cols[c].kind;
        if (k == Kind::Int || k == Kind::Double) {
            if (c != tc)
                cols.push_back(c);
        } else if (!q.cols.empty()) {
            throw Fail(kExitUsage, "resample takes numeric columns; " + r.t.cols[c].name +
                                       " holds " + kind_name(k));
        }
    }
    if (cols.empty())
        throw Fail(kExitUsage, "resample: " + r.t.source + " has no numeric column");
    const auto &ts = std::get<velseq::field<velseq::datetime>>(r.t.fields[tc]);
    // One column of bars per value column; every column has the same buckets
    // (those holding a row).
    std::vector<std::string> header{"start"};
    std::vector<std::vector<std::vector<OutCell>>> bars(cols.size());
    std::vector<velseq::datetime> starts;
    for (size_t k = 0; k < cols.size(); k++) {
        const std::string &nm = r.t.cols[cols[k]].name;
        for (const char *s : {"first", "max", "min", "last", "count", "mean"})
            header.push_back(nm + "." + s);
        std::visit(
            [&](auto &fld) {
                using T = typename field_elem<std::decay_t<decltype(fld)>>::type;
                if constexpr (std::is_arithmetic_v<T>) {
                    const auto b = velseq::resample(r.obj[ts], r.obj[fld],
                                                    std::chrono::nanoseconds(every), win);
                    for (const auto &x : b) {
                        if (k == 0)
                            starts.push_back(x.start);
                        const std::optional<double> mean =
                            x.count ? std::optional<double>(double(x.sum) / double(x.count))
                                    : std::nullopt;
                        bars[k].push_back({cell_of(x.first), cell_of(x.max), cell_of(x.min),
                                           cell_of(x.last), OutCell{std::to_string(x.count)},
                                           cell_of(mean)});
                    }
                }
            },
            r.t.fields[cols[k]]);
    }
    Output out(stdout, src.out, header);
    for (size_t i = 0; i < starts.size(); i++) {
        std::vector<OutCell> row{cell_of(std::optional<velseq::datetime>(starts[i]))};
        for (auto &b : bars)
            row.insert(row.end(), b[i].begin(), b[i].end());
        out.row(row);
    }
    out.end();
    return 0;
}

int cmd_asof(Reader &r, const Source &src, const Query &q) {
    const int tc = r.need_time("asof");
    LoadOptions lo;
    lo.file = q.other;
    lo.progress = -1;
    // The probes live in a database of their own: the table's may be open
    // read-only.
    velseq::database other_db;
    Table other = load_csv(other_db, lo);
    if (other.time < 0 || other.cols[other.time].kind != r.t.cols[tc].kind)
        throw Fail(kExitUsage, q.other + " has no " + kind_name(r.t.cols[tc].kind) +
                                   " column to match the time column " + r.t.cols[tc].name);
    const std::vector<int> cols = r.columns(q.cols);
    Reader o(other_db, other);
    std::vector<std::string> header = o.header(o.columns({}));
    for (int c : cols) {
        std::string nm = r.t.cols[c].name;
        while (std::find(header.begin(), header.end(), nm) != header.end())
            nm += ".asof";
        header.push_back(nm);
    }
    // The other table's columns, then the prevailing row of this one.
    std::vector<std::vector<OutCell>> by_col;
    for (size_t c = 0; c < other.cols.size(); c++) {
        by_col.emplace_back();
        std::visit(
            [&](auto &fld) {
                for (auto v : o.obj[fld].elements())
                    by_col.back().push_back(cell_of(v));
            },
            other.fields[c]);
    }
    std::visit(
        [&](auto &key_fld) {
            using K = typename field_elem<std::decay_t<decltype(key_fld)>>::type;
            if constexpr (std::is_same_v<K, int64_t> || std::is_same_v<K, velseq::datetime>) {
                velseq::asof_options<K> opt;
                opt.dir = q.direction == "forward"   ? velseq::direction::forward
                          : q.direction == "nearest" ? velseq::direction::nearest
                                                     : velseq::direction::backward;
                if (!q.tolerance.empty()) {
                    if constexpr (std::is_same_v<K, velseq::datetime>) {
                        opt.tolerance =
                            std::chrono::nanoseconds(parse_duration(q.tolerance, "tolerance"));
                    } else {
                        opt.tolerance =
                            static_cast<uint64_t>(parse_bound(Kind::Int, q.tolerance, "tolerance"));
                    }
                }
                std::vector<K> probes;
                for (auto v :
                     o.obj[std::get<velseq::field<K>>(other.fields[other.time])].elements())
                    probes.push_back(*v);
                const auto pos = velseq::asof(r.obj[key_fld], velseq::span<const K>(probes), opt);
                for (int c : cols) {
                    by_col.emplace_back();
                    std::visit(
                        [&](auto &fld) {
                            for (const auto &v : velseq::gather(
                                     r.obj[fld], velseq::span<const std::optional<uint64_t>>(pos)))
                                by_col.back().push_back(cell_of(v));
                        },
                        r.t.fields[c]);
                }
            }
        },
        r.t.fields[tc]);
    Output out(stdout, src.out, header);
    std::vector<OutCell> row(by_col.size());
    for (uint64_t i = 0; i < other.rows; i++) {
        for (size_t k = 0; k < by_col.size(); k++)
            row[k] = std::move(by_col[k][i]);
        out.row(row);
    }
    out.end();
    return 0;
}

int cmd_tree(Reader &r, const Query &q) {
    for (int c : r.columns(q.cols)) {
        std::visit(
            [&](auto &fld) {
                auto s = r.obj[fld];
                const velh_field_info_t &fi = s.info();
                const Kind k = r.t.cols[c].kind;
                const velt_type_t type{k == Kind::Int      ? uint8_t(VEL_DD_INT8)
                                       : k == Kind::Double ? uint8_t(VEL_DD_DOUBLE)
                                       : k == Kind::Time   ? uint8_t(VEL_DD_DATETIME)
                                                           : uint8_t(VEL_DD_CHAR),
                                       fi.elem_size};
                const velt_field_t f{fi.u_offset, fi.c_offset, fi.fld_no, type,
                                     c == r.t.time ? VEL_SEQ_ASC_ORDER : VEL_SEQ_NO_ORDER};
                velt_error_t err{};
                velt_tree_stats_t st;
                std::printf("column %s (%s):\n", r.t.cols[c].name.c_str(), kind_name(k));
                if (velt_tree_stats(s.obj(), &f, &st, &err) != VELT_OK)
                    throw Fail(kExitInput, std::string("tree: ") + err.message);
                velt_print_stats(stdout, &st);
                if (q.dump) {
                    const velt_dump_options_t opt{q.preview, 16};
                    if (velt_dump_tree(s.obj(), &f, stdout, &opt, &err) != VELT_OK)
                        throw Fail(kExitInput, std::string("tree: ") + err.message);
                }
            },
            r.t.fields[c]);
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
        db = open_table(src.db, t, src.log, src.recover);
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
    if (name == "head" || name == "tail")
        return cmd_head_tail(r, src, q, name == "head");
    if (name == "window")
        return cmd_window(r, src, q);
    if (name == "stats")
        return cmd_stats(r, src, q);
    if (name == "resample")
        return cmd_resample(r, src, q);
    if (name == "asof")
        return cmd_asof(r, src, q);
    return cmd_tree(r, q);
}

int run_command(const std::string &name, Source &src, const Query &q) {
    Table t;
    std::unique_ptr<velseq::database> db = open_source(name, src, t);
    return answer(name, *db, t, src, q);
}

} // namespace vcli
