// CSV in: records, cells, type inference, parsing, and appends in chunks.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

#include "table.h"

namespace vcli {

const char *kind_name(Kind k) {
    switch (k) {
    case Kind::Int:
        return "int";
    case Kind::Double:
        return "double";
    case Kind::Time:
        return "datetime";
    case Kind::Text:
        return "text";
    }
    return "?";
}

std::optional<Kind> kind_parse(const std::string &name) {
    for (Kind k : {Kind::Int, Kind::Double, Kind::Time, Kind::Text})
        if (name == kind_name(k))
            return k;
    return std::nullopt;
}

int Table::find(const std::string &name) const {
    for (size_t i = 0; i < cols.size(); i++)
        if (cols[i].name == name)
            return static_cast<int>(i);
    return -1;
}

int Table::need(const std::string &name) const {
    const int i = find(name);
    if (i < 0) {
        std::string names;
        for (const ColumnDef &c : cols)
            names += (names.empty() ? "" : ", ") + c.name;
        throw Fail(kExitUsage,
                   "no column '" + name + "' in " + source + " (columns: " + names + ")");
    }
    return i;
}

std::string format_double(double v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

namespace {

constexpr size_t kMaxLine = size_t(1) << 20; // a record longer than this is refused
constexpr size_t kBlock = size_t(1) << 20;
constexpr size_t kSample = 1000; // records that decide the inferred kinds
constexpr size_t kChunk = 65536; // rows per append

// Records of a CSV stream: a newline ends a record unless it lies inside a
// quoted cell.  The buffer holds the unread bytes [pos, end).
class RecordReader {
  public:
    RecordReader(FILE *f, std::string name) : f_(f), name_(std::move(name)), buf_(2 * kBlock) {}
    // The next record without its line end; false at the end of the input.
    bool next(std::string_view &rec, uint64_t &line) {
        size_t scan = pos_;
        bool quoted = false; // inside quotes at `scan`
        for (;;) {
            const char *nl = static_cast<const char *>(
                scan < end_ ? std::memchr(buf_.data() + scan, '\n', end_ - scan) : nullptr);
            if (nl != nullptr) {
                const size_t stop = nl - buf_.data();
                // Quote parity over the new part decides whether this newline ends it.
                if (std::memchr(buf_.data() + scan, '"', stop - scan) != nullptr || quoted)
                    for (size_t i = scan; i < stop; i++)
                        quoted ^= buf_[i] == '"';
                if (!quoted) {
                    emit(stop, stop + 1, rec, line);
                    return true;
                }
                scan = stop + 1;
                continue;
            }
            if (end_ - pos_ > kMaxLine)
                throw Fail(kExitInput, name_ + ": line " + std::to_string(line_ + 1) +
                                           " is longer than 1 MiB (not a CSV file?)");
            if (eof_) {
                if (pos_ == end_)
                    return false;
                emit(end_, end_, rec, line);
                return true;
            }
            const size_t kept = end_ - pos_;
            scan -= pos_;
            std::memmove(buf_.data(), buf_.data() + pos_, kept);
            pos_ = 0;
            end_ = kept;
            if (buf_.size() - end_ < kBlock)
                buf_.resize(end_ + kBlock);
            const size_t got = std::fread(buf_.data() + end_, 1, buf_.size() - end_, f_);
            if (got == 0) {
                if (std::ferror(f_))
                    throw Fail(kExitInput, name_ + ": read error: " + std::strerror(errno));
                eof_ = true;
            }
            end_ += got;
            bytes_ += got;
        }
    }
    uint64_t bytes_read() const { return bytes_; }
    uint64_t consumed() const { return bytes_ - (end_ - pos_); }

  private:
    void emit(size_t stop, size_t next, std::string_view &rec, uint64_t &line) {
        size_t n = stop - pos_;
        const char *p = buf_.data() + pos_;
        if (std::memchr(p, '\0', n) != nullptr)
            throw Fail(kExitInput, name_ + ": line " + std::to_string(line_ + 1) +
                                       " holds a NUL byte: a binary file, not CSV text");
        line = ++line_;
        line_ += std::count(p, p + n, '\n'); // newlines inside quoted cells
        if (n > 0 && p[n - 1] == '\r')
            n--;
        rec = std::string_view(p, n);
        pos_ = next;
    }
    FILE *f_;
    std::string name_;
    std::vector<char> buf_;
    size_t pos_ = 0, end_ = 0;
    bool eof_ = false;
    uint64_t line_ = 0, bytes_ = 0;
};

// Splits a record into cells; `quoted[i]` says whether cell i was quoted (an
// unquoted empty cell is a null, a quoted one an empty text).  Cells point
// into the record or, when unquoting changed them, into `scratch`.
bool split(std::string_view rec, std::vector<std::string_view> &cells, std::vector<char> &quoted,
           std::string &scratch) {
    cells.clear();
    quoted.clear();
    if (rec.find('"') == std::string_view::npos) {
        size_t s = 0;
        for (;;) {
            const size_t c = rec.find(',', s);
            cells.push_back(rec.substr(s, c == std::string_view::npos ? c : c - s));
            quoted.push_back(0);
            if (c == std::string_view::npos)
                return true;
            s = c + 1;
        }
    }
    scratch.clear();
    scratch.reserve(rec.size());
    std::vector<std::pair<size_t, size_t>> spans;
    size_t i = 0;
    for (;;) {
        const size_t start = scratch.size();
        bool q = false;
        while (i < rec.size() && rec[i] == ' ')
            i++;
        if (i < rec.size() && rec[i] == '"') {
            q = true;
            i++;
            for (;;) {
                if (i >= rec.size())
                    return false; // unterminated quote
                if (rec[i] == '"') {
                    if (i + 1 < rec.size() && rec[i + 1] == '"') {
                        scratch.push_back('"');
                        i += 2;
                        continue;
                    }
                    i++;
                    break;
                }
                scratch.push_back(rec[i++]);
            }
            while (i < rec.size() && rec[i] == ' ')
                i++;
            if (i < rec.size() && rec[i] != ',')
                return false; // text after a closing quote
        } else {
            while (i < rec.size() && rec[i] != ',')
                scratch.push_back(rec[i++]);
        }
        spans.push_back({start, scratch.size() - start});
        quoted.push_back(q);
        if (i >= rec.size())
            break;
        i++; // the comma
    }
    for (auto [s, n] : spans)
        cells.push_back(std::string_view(scratch).substr(s, n));
    return true;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

bool parse_int(std::string_view s, int64_t &v) {
    s = trim(s);
    if (!s.empty() && s.front() == '+')
        s.remove_prefix(1);
    auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

// 0: ok, 1: not a number, 2: NaN or infinite
int parse_double(std::string_view s, double &v) {
    s = trim(s);
    if (!s.empty() && s.front() == '+')
        s.remove_prefix(1);
    auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || r.ec == std::errc::invalid_argument || r.ptr != s.data() + s.size())
        return 1;
    if (r.ec == std::errc::result_out_of_range || !std::isfinite(v))
        return 2;
    return 0;
}

// YYYYMMDD, optionally followed by [T]hhmmss (compact ISO-8601), as UTC.
bool parse_compact_date(std::string_view s, int64_t &ns) {
    auto digits = [&](size_t at, size_t n, unsigned &out) {
        out = 0;
        for (size_t i = at; i < at + n; i++) {
            if (s[i] < '0' || s[i] > '9')
                return false;
            out = out * 10 + unsigned(s[i] - '0');
        }
        return true;
    };
    unsigned y, m, d, hh = 0, mm = 0, ss = 0;
    if (s.size() < 8 || !digits(0, 4, y) || !digits(4, 2, m) || !digits(6, 2, d))
        return false;
    size_t at = 8;
    if (s.size() > 8) {
        if (s[8] == 'T' || s[8] == ' ')
            at = 9;
        if (s.size() != at + 6 || !digits(at, 2, hh) || !digits(at + 2, 2, mm) ||
            !digits(at + 4, 2, ss))
            return false;
    }
    static const unsigned mdays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (y < 1678 || y > 2261 || m < 1 || m > 12 || d < 1 || d > mdays[m - 1] || hh > 23 ||
        mm > 59 || ss > 59)
        return false;
    if (m == 2 && d == 29 && !(y % 4 == 0 && (y % 100 != 0 || y % 400 == 0)))
        return false;
    ns = (vel_dt_days_from_civil(y, m, d) * 86400 + hh * 3600 + mm * 60 + ss) * VEL_DT_NS_PER_SEC;
    return true;
}

bool parse_time(std::string_view s, Epoch epoch, velseq::datetime &t) {
    s = trim(s);
    if (epoch != Epoch::None) {
        int64_t v;
        if (!parse_int(s, v))
            return false;
        const int64_t mul = epoch == Epoch::Sec     ? VEL_DT_NS_PER_SEC
                            : epoch == Epoch::Milli ? 1000000
                            : epoch == Epoch::Micro ? 1000
                                                    : 1;
        if (v > INT64_MAX / mul || v < INT64_MIN / mul)
            return false;
        t = velseq::datetime::from_ns(v * mul);
        return true;
    }
    int64_t ns;
    if (s.size() >= 8 && s.size() <= 15 && s[4] != '-' && parse_compact_date(s, ns)) {
        t = velseq::datetime::from_ns(ns);
        return true;
    }
    vel_datetime raw;
    if (vel_dt_parse(s.data(), s.size(), &raw) != VEL_DT_OK)
        return false;
    t = velseq::datetime::from_raw(raw);
    return true;
}

bool looks_like_time_name(const std::string &name) {
    std::string l = name;
    for (char &c : l)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return l.find("date") != std::string::npos || l.find("time") != std::string::npos ||
           l == "ts" || l == "day";
}

// One parsed cell of a row, before the row is known to be whole.
struct Cell {
    bool null;
    union {
        int64_t i;
        double d;
        vel_datetime t;
    };
    Text s;
};

// Values of one column waiting for an append.
struct Chunk {
    std::vector<int64_t> i;
    std::vector<double> d;
    std::vector<velseq::datetime> t;
    std::vector<Text> s;
    std::vector<vel_bitmap_word_t> nulls;
    bool any_null = false;
    size_t n = 0;
    void add(Kind k, const Cell &c) {
        if (n % 64 == 0)
            nulls.push_back(0);
        if (c.null) {
            nulls[n / 64] |= vel_bitmap_word_t(1) << (n % 64);
            any_null = true;
        }
        switch (k) {
        case Kind::Int:
            i.push_back(c.null ? 0 : c.i);
            break;
        case Kind::Double:
            d.push_back(c.null ? 0 : c.d);
            break;
        case Kind::Time:
            t.push_back(velseq::datetime::from_raw(c.null ? 0 : c.t));
            break;
        case Kind::Text:
            s.push_back(c.null ? Text{} : c.s);
            break;
        }
        n++;
    }
    void clear() {
        i.clear();
        d.clear();
        t.clear();
        s.clear();
        nulls.clear();
        any_null = false;
        n = 0;
    }
};

class Progress {
  public:
    Progress(int mode, const std::string &name, uint64_t total)
        : name_(name), total_(total), start_(clock::now()) {
        on_ = mode > 0 || (mode == 0 && isatty(STDERR_FILENO));
        wait_ = mode > 0 ? 0.0 : 1.0;
    }
    void update(uint64_t rows, uint64_t bytes) {
        if (!on_)
            return;
        const double s = std::chrono::duration<double>(clock::now() - start_).count();
        if (s < wait_ || s - last_ < 0.1)
            return;
        last_ = s;
        shown_ = true;
        const double rate = rows / std::max(s, 1e-9);
        std::string eta;
        if (total_ > 0 && bytes > 0 && bytes <= total_) {
            const double frac = double(bytes) / double(total_);
            char b[64];
            std::snprintf(b, sizeof b, " %3.0f%%  ETA %.0fs", 100 * frac, s / frac - s);
            eta = b;
        }
        std::fprintf(stderr, "\rloading %s: %llu rows, %.2fM rows/s%s   ", name_.c_str(),
                     static_cast<unsigned long long>(rows), rate / 1e6, eta.c_str());
        std::fflush(stderr);
    }
    void done(uint64_t rows) {
        if (!shown_)
            return;
        const double s = std::chrono::duration<double>(clock::now() - start_).count();
        std::fprintf(stderr, "\rloaded %s: %llu rows in %.2f s, %.2fM rows/s%30s\n", name_.c_str(),
                     static_cast<unsigned long long>(rows), s, rows / std::max(s, 1e-9) / 1e6, "");
    }

  private:
    using clock = std::chrono::steady_clock;
    std::string name_;
    uint64_t total_;
    clock::time_point start_;
    bool on_ = false, shown_ = false;
    double wait_ = 1.0, last_ = -1.0;
};

template <class T> const std::vector<T> &values_of(const Chunk &c) {
    if constexpr (std::is_same_v<T, int64_t>)
        return c.i;
    else if constexpr (std::is_same_v<T, double>)
        return c.d;
    else if constexpr (std::is_same_v<T, velseq::datetime>)
        return c.t;
    else
        return c.s;
}

class Loader {
  public:
    Loader(velseq::database &db, const LoadOptions &o) : db_(db), o_(o) {}

    Table run() {
        FILE *f = o_.file == "-" ? stdin : std::fopen(o_.file.c_str(), "rb");
        if (f == nullptr)
            throw Fail(kExitInput, "cannot read " + o_.file + ": " + std::strerror(errno));
        std::unique_ptr<FILE, int (*)(FILE *)> guard(f, f == stdin ? [](FILE *) { return 0; }
                                                                   : &std::fclose);
        t_.source = o_.file == "-" ? "standard input" : o_.file;
        uint64_t total = 0;
        struct stat st;
        if (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode))
            total = static_cast<uint64_t>(st.st_size);
        RecordReader rd(f, t_.source);
        std::string_view rec;
        uint64_t line = 0;

        // Header (or --columns), then a sample that decides the kinds.
        std::vector<std::string> names = o_.columns;
        if (names.empty()) {
            if (!rd.next(rec, line) || trim(rec).empty())
                throw Fail(kExitInput, t_.source + " is empty: no header, no rows");
            if (!split(rec, cells_, quoted_, scratch_))
                throw Fail(kExitRefused, t_.source + ": line 1: unterminated quote in the header");
            for (std::string_view c : cells_)
                names.emplace_back(trim(c));
            if (names[0].rfind("\xEF\xBB\xBF", 0) == 0) // a UTF-8 byte order mark
                names[0].erase(0, 3);
        }
        for (size_t i = 0; i < names.size(); i++) {
            if (names[i].empty())
                names[i] = "column" + std::to_string(i + 1);
            if (names[i].size() > VELH_MAX_NAME) // refused here, before anything is stored
                throw Fail(kExitRefused,
                           t_.source + ": column " + std::to_string(i + 1) + " ('" +
                               velseq::detail::shortened(names[i]) + "') has a name of " +
                               std::to_string(names[i].size()) + " bytes; names hold at most " +
                               std::to_string(VELH_MAX_NAME) + " (give others with --columns)");
            for (size_t j = 0; j < i; j++)
                if (names[j] == names[i])
                    throw Fail(kExitRefused, t_.source + ": two columns are named '" + names[i] +
                                                 "' (give other names with --columns)");
        }
        std::vector<std::pair<uint64_t, std::string>> sample;
        while (sample.size() < kSample && rd.next(rec, line))
            sample.emplace_back(line, std::string(rec));
        if (sample.empty())
            throw Fail(kExitInput, t_.source + (o_.columns.empty() ? " has a header but no rows"
                                                                   : " is empty: no rows"));
        decide_kinds(names, sample);
        define();

        Progress bar(o_.progress, t_.source, total);
        velseq::connection con(db_);
        velseq::transaction tx(con, velseq::transaction::write);
        obj_.emplace(tx.create(t_.schema));
        t_.oid = obj_->oid();
        chunks_.assign(t_.cols.size(), Chunk());
        row_.resize(t_.cols.size());
        for (auto &[ln, text] : sample)
            take(text, ln);
        while (rd.next(rec, line)) {
            take(rec, line);
            if (!o_.sort && chunks_[0].n >= kChunk) {
                flush();
                bar.update(t_.rows, rd.consumed());
            }
        }
        if (o_.sort)
            sort_rows();
        flush();
        if (t_.rows == 0)
            throw Fail(kExitRefused,
                       t_.source + ": every row was bad (first: " + t_.first_skip + ")");
        const std::string d = describe(t_);
        std::vector<Text> pieces((d.size() + sizeof(Text) - 1) / sizeof(Text));
        std::memcpy(static_cast<void *>(pieces.data()), d.data(), d.size());
        (*obj_)[t_.meta].append(velseq::span<const Text>(pieces));
        tx.commit();
        bar.done(t_.rows);
        obj_.reset();
        return std::move(t_);
    }

  private:
    [[noreturn]] void refuse(uint64_t line, const std::string &why) {
        throw Fail(kExitRefused, t_.source + ": line " + std::to_string(line) + ": " + why);
    }

    void decide_kinds(const std::vector<std::string> &names,
                      const std::vector<std::pair<uint64_t, std::string>> &sample) {
        const size_t n = names.size();
        // Per column: whether every non-empty sampled cell parses as each kind.
        std::vector<char> can_int(n, 1), can_double(n, 1), can_time(n, 1), compact(n, 1), any(n, 0);
        for (auto &[ln, text] : sample) {
            if (!split(text, cells_, quoted_, scratch_) || cells_.size() != n)
                continue; // reported when the row is loaded
            for (size_t c = 0; c < n; c++) {
                const std::string_view s = trim(cells_[c]);
                if (s.empty() && !quoted_[c])
                    continue;
                any[c] = 1;
                int64_t i;
                double d;
                velseq::datetime t;
                can_int[c] &= parse_int(s, i);
                can_double[c] &= parse_double(s, d) != 1;
                int64_t ns;
                compact[c] &= s.size() == 8 && parse_compact_date(s, ns);
                can_time[c] &= parse_time(s, Epoch::None, t);
            }
        }
        for (size_t c = 0; c < n; c++) {
            Kind k = Kind::Text;
            if (!any[c])
                k = Kind::Double; // all empty: a column of missing numbers
            else if (compact[c] && looks_like_time_name(names[c]))
                k = Kind::Time;
            else if (can_int[c])
                k = Kind::Int;
            else if (can_double[c])
                k = Kind::Double;
            else if (can_time[c])
                k = Kind::Time;
            t_.cols.push_back({names[c], k});
        }
        for (auto &[name, kind] : o_.types) {
            const std::optional<Kind> k = kind_parse(kind);
            if (!k)
                throw Fail(kExitUsage, "--type " + name + "=" + kind +
                                           ": the types are int, double, datetime and text");
            t_.cols[t_.need(name)].kind = *k;
        }
        if (!o_.time.empty()) {
            t_.time = t_.need(o_.time);
            if (o_.epoch != Epoch::None || t_.cols[t_.time].kind == Kind::Int)
                t_.cols[t_.time].kind = o_.epoch != Epoch::None ? Kind::Time : Kind::Int;
        } else if (o_.epoch != Epoch::None) {
            t_.time = 0; // epoch counts in the first column
            t_.cols[0].kind = Kind::Time;
        } else {
            for (size_t c = 0; c < n && t_.time < 0; c++)
                if (t_.cols[c].kind == Kind::Time)
                    t_.time = static_cast<int>(c);
        }
        if (t_.time >= 0 && t_.cols[t_.time].kind != Kind::Time &&
            t_.cols[t_.time].kind != Kind::Int)
            throw Fail(kExitUsage, "the time column '" + t_.cols[t_.time].name + "' holds " +
                                       kind_name(t_.cols[t_.time].kind) +
                                       " values; it must hold datetimes or integers");
    }

    void define() {
        for (size_t c = 0; c < t_.cols.size(); c++) {
            const velseq::order ord =
                static_cast<int>(c) == t_.time ? velseq::order::ascending : velseq::order::none;
            const std::string &nm = t_.cols[c].name;
            switch (t_.cols[c].kind) {
            case Kind::Int:
                t_.fields.emplace_back(t_.schema.seq<int64_t>(nm, ord));
                break;
            case Kind::Double:
                t_.fields.emplace_back(t_.schema.seq<double>(nm, ord));
                break;
            case Kind::Time:
                t_.fields.emplace_back(t_.schema.seq<velseq::datetime>(nm, ord));
                break;
            case Kind::Text:
                t_.fields.emplace_back(t_.schema.seq<Text>(nm, ord));
                break;
            }
        }
        t_.meta = t_.schema.seq<Text>("velseq.table");
        db_.define(t_.schema);
    }

    // Parses one record into row_; on a bad cell returns the reason.
    std::optional<std::string> parse_row(std::string_view rec) {
        if (!split(rec, cells_, quoted_, scratch_))
            return std::string("unterminated quote, or text after a closing quote");
        if (cells_.size() != t_.cols.size())
            return std::to_string(cells_.size()) + " cells where the header has " +
                   std::to_string(t_.cols.size());
        for (size_t c = 0; c < cells_.size(); c++) {
            Cell &v = row_[c];
            const std::string_view s = cells_[c];
            const ColumnDef &col = t_.cols[c];
            v.null = !quoted_[c] && trim(s).empty();
            if (v.null) {
                if (static_cast<int>(c) == t_.time)
                    return "column " + col.name + ": the time column has an empty cell";
                continue;
            }
            auto bad = [&](const std::string &what) {
                return "column " + col.name + ": '" + std::string(s.substr(0, 40)) + "' " + what;
            };
            switch (col.kind) {
            case Kind::Int:
                if (!parse_int(s, v.i))
                    return bad("is not an integer (give --type " + col.name + "=double?)");
                break;
            case Kind::Double:
                if (const int r = parse_double(s, v.d); r != 0)
                    return bad(r == 1 ? "is not a number"
                                      : "is NaN or infinite (leave the cell empty for a "
                                        "missing value)");
                break;
            case Kind::Time: {
                velseq::datetime t;
                if (!parse_time(s, static_cast<int>(c) == t_.time ? o_.epoch : Epoch::None, t))
                    return bad(o_.epoch != Epoch::None && static_cast<int>(c) == t_.time
                                   ? "is not an integer count since 1970"
                                   : "is not a date or time (ISO-8601 or YYYYMMDD)");
                v.t = t.raw();
                break;
            }
            case Kind::Text:
                if (s.size() > sizeof(Text::bytes))
                    return bad("is longer than the 32 bytes of a text cell");
                v.s = Text{};
                std::memcpy(v.s.bytes, s.data(), s.size());
                break;
            }
        }
        return std::nullopt;
    }

    void take(std::string_view rec, uint64_t line) {
        if (rec.empty() ||
            (rec.find_first_not_of(" \t") == std::string_view::npos && t_.cols.size() > 1))
            return; // blank lines separate nothing; skipped silently
        std::optional<std::string> why = parse_row(rec);
        if (!why && t_.time >= 0 && !o_.sort && have_last_) {
            const Cell &c = row_[t_.time];
            const bool before = t_.cols[t_.time].kind == Kind::Int ? c.i < last_.i : c.t < last_.t;
            if (before)
                why = "column " + t_.cols[t_.time].name + ": time before that of line " +
                      std::to_string(last_line_) +
                      " (the time column must ascend; --sort sorts the rows)";
        }
        if (why) {
            if (!o_.skip_bad)
                refuse(line, *why + (o_.skip_bad ? "" : "; --skip-bad skips bad lines"));
            if (t_.skipped++ == 0)
                t_.first_skip = "line " + std::to_string(line) + ": " + *why;
            return;
        }
        if (t_.time >= 0) {
            last_ = row_[t_.time];
            last_line_ = line;
            have_last_ = true;
        }
        for (size_t c = 0; c < row_.size(); c++)
            chunks_[c].add(t_.cols[c].kind, row_[c]);
        t_.rows++;
    }

    // Stable sort of the buffered rows by time: equal times keep file order.
    void sort_rows() {
        if (t_.time < 0)
            throw Fail(kExitUsage, "--sort needs a time column (--time NAME)");
        const Chunk &tc = chunks_[t_.time];
        std::vector<uint32_t> perm(tc.n);
        std::iota(perm.begin(), perm.end(), 0u);
        if (t_.cols[t_.time].kind == Kind::Int)
            std::stable_sort(perm.begin(), perm.end(),
                             [&](uint32_t a, uint32_t b) { return tc.i[a] < tc.i[b]; });
        else
            std::stable_sort(perm.begin(), perm.end(),
                             [&](uint32_t a, uint32_t b) { return tc.t[a] < tc.t[b]; });
        for (size_t c = 0; c < chunks_.size(); c++) {
            Chunk &old = chunks_[c];
            Chunk out;
            for (uint32_t p : perm) {
                Cell v{};
                v.null = ((old.nulls[p / 64] >> (p % 64)) & 1u) != 0;
                switch (t_.cols[c].kind) {
                case Kind::Int:
                    v.i = old.i[p];
                    break;
                case Kind::Double:
                    v.d = old.d[p];
                    break;
                case Kind::Time:
                    v.t = old.t[p].raw();
                    break;
                case Kind::Text:
                    v.s = old.s[p];
                    break;
                }
                out.add(t_.cols[c].kind, v);
            }
            old = std::move(out);
        }
    }

    void flush() {
        if (o_.parse_only) {
            for (Chunk &c : chunks_)
                c.clear();
            return;
        }
        for (size_t c = 0; c < chunks_.size(); c++) {
            Chunk &ch = chunks_[c];
            if (ch.n == 0)
                continue;
            std::visit(
                [&](auto &fld) {
                    using T = typename field_elem<std::decay_t<decltype(fld)>>::type;
                    const std::vector<T> &v = values_of<T>(ch);
                    if (ch.any_null)
                        (*obj_)[fld].append(velseq::span<const T>(v),
                                            velseq::null_view(ch.nulls.data(), ch.n));
                    else
                        (*obj_)[fld].append(velseq::span<const T>(v));
                },
                t_.fields[c]);
            ch.clear();
        }
    }

    velseq::database &db_;
    const LoadOptions &o_;
    Table t_;
    std::optional<velseq::object> obj_;
    std::vector<Chunk> chunks_;
    std::vector<Cell> row_;
    Cell last_{};
    uint64_t last_line_ = 0;
    bool have_last_ = false;
    std::vector<std::string_view> cells_;
    std::vector<char> quoted_;
    std::string scratch_;
};

} // namespace

Table load_csv(velseq::database &db, const LoadOptions &o) { return Loader(db, o).run(); }

std::string describe(const Table &t) {
    std::string d;
    for (size_t c = 0; c < t.cols.size(); c++)
        d += std::string(kind_name(t.cols[c].kind)) + (int(c) == t.time ? " T " : " - ") +
             t.cols[c].name + "\n";
    return d;
}

void parse_description(const std::string &text, Table &t) {
    size_t at = 0;
    while (at < text.size()) {
        const size_t nl = text.find('\n', at);
        const std::string line = text.substr(at, nl == std::string::npos ? nl : nl - at);
        at = nl == std::string::npos ? text.size() : nl + 1;
        const size_t a = line.find(' ');
        const std::optional<Kind> k =
            a == std::string::npos ? std::nullopt : kind_parse(line.substr(0, a));
        if (!k || line.size() < a + 3 || (line[a + 1] != 'T' && line[a + 1] != '-'))
            throw Fail(kExitInput, t.source + " does not describe a velseq table");
        if (line[a + 1] == 'T')
            t.time = static_cast<int>(t.cols.size());
        t.cols.push_back({line.substr(a + 3), *k});
    }
}

int64_t parse_bound(Kind k, const std::string &text, const char *what) {
    if (k == Kind::Int) {
        int64_t v;
        if (!parse_int(text, v))
            throw Fail(kExitUsage, std::string(what) + " '" + text + "' is not an integer");
        return v;
    }
    velseq::datetime t;
    if (!parse_time(text, Epoch::None, t))
        throw Fail(kExitUsage, std::string(what) + " '" + text +
                                   "' is not a date or time (ISO-8601 or YYYYMMDD)");
    return static_cast<int64_t>(t.raw());
}

int64_t parse_duration(const std::string &text, const char *what) {
    static const std::pair<const char *, int64_t> units[] = {
        {"ns", 1},
        {"us", 1000},
        {"ms", 1000000},
        {"s", VEL_DT_NS_PER_SEC},
        {"m", 60 * VEL_DT_NS_PER_SEC},
        {"h", 3600 * VEL_DT_NS_PER_SEC},
        {"d", 86400 * VEL_DT_NS_PER_SEC},
        {"w", 7 * 86400 * VEL_DT_NS_PER_SEC},
    };
    int64_t n = 0;
    auto r = std::from_chars(text.data(), text.data() + text.size(), n);
    const std::string unit(r.ptr, text.data() + text.size());
    if (r.ec == std::errc() && n > 0)
        for (auto [u, mul] : units)
            if (unit == u) {
                if (n > INT64_MAX / mul)
                    break;
                return n * mul;
            }
    throw Fail(kExitUsage, std::string(what) + " '" + text +
                               "' is not a positive duration such as 500ms, 30s, 15m, 1h, 1d, 1w");
}

} // namespace vcli
