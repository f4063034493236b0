// CSV in: records, cells, type inference, parsing, and appends in chunks
// through the table layer, whose append checks the time column's order.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

#include "table.h"
#include "velseq/calendar.hpp"

namespace vcli {

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
        for (const Column &c : cols)
            names += (names.empty() ? "" : ", ") + c.name;
        throw Fail(kExitUsage,
                   "no column '" + name + "' in " + source + " (columns: " + names + ")");
    }
    return i;
}

namespace {

constexpr size_t kMaxLine = size_t(1) << 20; // a record longer than this is refused
constexpr size_t kBlock = size_t(1) << 20;
constexpr size_t kSample = 1000; // records that decide the inferred types
constexpr size_t kChunk = 65536; // rows per append

// Records of a CSV stream: a newline ends a record unless it lies inside a
// quoted cell.  The buffer holds the unread bytes [pos, end).
class RecordReader {
  public:
    RecordReader(FILE *f, std::string name) : f_(f), name_(std::move(name)), buf_(2 * kBlock) {}
    // The next record without its line end; false at the end of the input.
    bool next(std::string_view &rec, uint64_t &line) {
        size_t scan = pos_;
        // At `scan`: inside quotes; only blanks since the cell began; just
        // past a closing quote (a quote there is a doubled one).
        bool quoted = false, start = true, closed = false;
        for (;;) {
            const char *nl = static_cast<const char *>(
                scan < end_ ? std::memchr(buf_.data() + scan, '\n', end_ - scan) : nullptr);
            if (nl != nullptr) {
                const size_t stop = nl - buf_.data();
                // A quote opens a quoted cell only where the cell begins: one
                // inside an unquoted cell is stray (split refuses it) and
                // does not carry the record over the newline.
                if (std::memchr(buf_.data() + scan, '"', stop - scan) != nullptr || quoted)
                    for (size_t i = scan; i < stop; i++) {
                        const char c = buf_[i];
                        if (quoted) {
                            quoted = c != '"';
                            closed = !quoted;
                        } else if (c == '"' && (start || closed)) {
                            quoted = true;
                        } else {
                            start = c == ',' || (start && c == ' ');
                            closed = false;
                        }
                    }
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

// A quoted cell from rec[i] (its opening quote) into `scratch`, doubled
// quotes undoubled; false when unterminated or followed by more than blanks.
bool quoted_cell(std::string_view rec, size_t &i, std::string &scratch) {
    for (i++;;) {
        if (i >= rec.size())
            return false;
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
    return i >= rec.size() || rec[i] == ',';
}

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
    for (size_t i = 0;; i++) { // i++: past the comma
        const size_t start = scratch.size();
        while (i < rec.size() && rec[i] == ' ')
            i++;
        const bool q = i < rec.size() && rec[i] == '"';
        if (q && !quoted_cell(rec, i, scratch))
            return false;
        while (!q && i < rec.size() && rec[i] != ',') {
            if (rec[i] == '"')
                return false; // a stray quote inside an unquoted cell
            scratch.push_back(rec[i++]);
        }
        spans.push_back({start, scratch.size() - start});
        quoted.push_back(q);
        if (i >= rec.size())
            break;
    }
    for (auto [s, n] : spans)
        cells.push_back(std::string_view(scratch).substr(s, n));
    return true;
}

std::string lower(std::string l) {
    for (char &c : l)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return l;
}

bool looks_like_time_name(const std::string &name) {
    const std::string l = lower(name);
    return l.find("date") != std::string::npos || l.find("time") != std::string::npos ||
           l == "ts" || l == "day";
}

bool looks_like_year_name(const std::string &name) {
    const std::string l = lower(name);
    return l.find("year") != std::string::npos || l == "yr";
}

// The element type of a CSV kind (--type NAME=KIND).
std::optional<tbl::column_type> csv_type(const std::string &kind) {
    static const std::pair<const char *, tbl::column_type> kinds[] = {
        {"int", kInt8}, {"double", kDouble}, {"datetime", kDatetime}, {"text", kText}};
    for (const auto &[k, t] : kinds)
        if (kind == k)
            return t;
    return std::nullopt;
}

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

// Rows waiting for an append: an array per column in the table layer's
// (Arrow) layout, its validity bitmap built here as the rows come and
// handed to table::append as it is, and the CSV line of each row.
struct Chunk {
    std::vector<tbl::array> cols;
    std::vector<uint64_t> lines;

    // Empty, of the types of `types` (columns or arrays).
    template <class V> explicit Chunk(const V &types) : cols(types.size()) {
        for (size_t c = 0; c < cols.size(); c++)
            cols[c].type = types[c].type;
    }
    size_t rows() const { return lines.size(); }
    // Appends value c of a row (`v`: its bytes; nullptr for a null).
    void add(size_t c, const unsigned char *v) {
        tbl::array &a = cols[c];
        const uint64_t i = a.length++;
        if (i % 8 == 0)
            a.validity.push_back(0);
        a.validity[i / 8] = static_cast<uint8_t>(a.validity[i / 8] | (v != nullptr) << (i % 8));
        const size_t w = a.type.width;
        a.values.resize(a.values.size() + w); // a null's bytes stay zero
        if (v != nullptr)
            std::memcpy(a.values.data() + i * w, v, w);
    }
    // Rows at(0) .. at(n - 1) of this chunk, as another.
    template <class At> void pick(Chunk &out, size_t n, At at) const {
        for (size_t i = 0; i < n; i++) {
            const size_t r = at(i);
            for (size_t c = 0; c < cols.size(); c++)
                out.add(c, cols[c].valid(r) ? cols[c].values.data() + r * cols[c].type.width
                                            : nullptr);
            out.lines.push_back(lines[r]);
        }
    }
};

// Appends chunks to the table's object, the time column first: its append
// checks the order (against the rows stored too) before it writes, so a
// refused append changes nothing.  A refused row goes to `refused` (its line
// and the line before it), which throws or lets the rows around it go in: the
// rows before it, then the rest in a batch that starts small and doubles.
class Appender {
  public:
    using Refused = std::function<void(uint64_t line, uint64_t before)>;
    Appender(std::vector<tbl::column> cols, int time, Refused refused)
        : cols_(std::move(cols)), time_(time), refused_(std::move(refused)) {}
    uint64_t rows = 0; // appended

    void flush(const Chunk &ch) {
        const size_t n = ch.rows();
        for (size_t from = 0, step = n; from < n;) {
            const size_t to = std::min(n, from + step);
            const std::optional<size_t> bad = append(ch, from, to);
            step = bad ? 16 : std::max<size_t>(step * 2, 16);
            if (bad)
                refused_(ch.lines[*bad], *bad == from ? last_line_ : ch.lines[*bad - 1]);
            from = bad ? *bad + 1 : to;
        }
    }

  private:
    // Appends rows [from, to) of `ch`; refused, the rows before the one
    // refused, and that one's position.
    std::optional<size_t> append(const Chunk &ch, size_t from, size_t to) {
        if (from == to)
            return std::nullopt;
        std::optional<Chunk> part; // when not every row goes in
        if (from > 0 || to < ch.rows())
            ch.pick(part.emplace(ch.cols), to - from, [&](size_t i) { return from + i; });
        const Chunk &in = part ? *part : ch;
        if (time_ >= 0) {
            try {
                tbl::append(cols_[size_t(time_)], in.cols[size_t(time_)]);
            } catch (const velseq::error &e) {
                const std::optional<uint64_t> r = refused_row(e);
                if (!r || *r >= to - from)
                    throw;
                append(ch, from, from + *r);
                return from + *r;
            }
        }
        for (size_t c = 0; c < cols_.size(); c++)
            if (static_cast<int>(c) != time_)
                tbl::append(cols_[c], in.cols[c]);
        rows += to - from;
        last_line_ = ch.lines[to - 1];
        return std::nullopt;
    }
    // The row a table::append refusal names ("... row N ...").
    static std::optional<uint64_t> refused_row(const velseq::error &e) {
        const std::string msg = e.what();
        const size_t at = msg.find("row ");
        if (e.code() != VEL_E_SEQ_OUT_OF_ORDER || at == std::string::npos)
            return std::nullopt;
        return std::strtoull(msg.c_str() + at + 4, nullptr, 10);
    }

    std::vector<tbl::column> cols_;
    int time_;
    Refused refused_;
    uint64_t last_line_ = 0; // of the last row appended
};

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
        const std::vector<std::string> names = header(rd);
        const Sample sample = read_sample(rd);
        infer_types(names, sample);
        ncsv_ = names.size();
        decide_types();
        define();
        Progress bar(o_.progress, t_.source, total);
        load_rows(rd, sample, bar);
        bar.done(t_.rows);
        return std::move(t_);
    }

  private:
    // The column names: the header's (or --columns), checked before
    // anything is stored.
    std::vector<std::string> header(RecordReader &rd) {
        std::vector<std::string> names = o_.columns;
        std::string_view rec;
        uint64_t line = 0;
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
            if (names[i].size() > VELH_MAX_NAME)
                throw Fail(kExitRefused,
                           t_.source + ": column " + std::to_string(i + 1) + " ('" +
                               velseq::detail::shortened(names[i]) + "') has a name of " +
                               std::to_string(names[i].size()) + " bytes; names hold at most " +
                               std::to_string(VELH_MAX_NAME) + " (give others with --columns)");
            // A name is a line of CSV headers and of table output: a newline
            // or another control byte in it would not read back.
            if (std::any_of(names[i].begin(), names[i].end(), [](char ch) {
                    return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f;
                }))
                throw Fail(kExitRefused, t_.source + ": line 1: column " + std::to_string(i + 1) +
                                             " ('" + velseq::detail::shortened(names[i]) +
                                             "') has a control character (a newline?) in its "
                                             "name (give others with --columns)");
            for (size_t j = 0; j < i; j++)
                if (names[j] == names[i])
                    throw Fail(kExitRefused, t_.source + ": two columns are named '" + names[i] +
                                                 "' (give other names with --columns)");
        }
        return names;
    }

    using Sample = std::vector<std::pair<uint64_t, std::string>>;
    Sample read_sample(RecordReader &rd) {
        Sample sample;
        std::string_view rec;
        uint64_t line = 0;
        while (sample.size() < kSample && rd.next(rec, line))
            sample.emplace_back(line, std::string(rec));
        if (sample.empty())
            throw Fail(kExitInput, t_.source + (o_.columns.empty() ? " has a header but no rows"
                                                                   : " is empty: no rows"));
        return sample;
    }

    // Per column, the first type that every non-empty sampled cell parses
    // as: a YYYYMMDD column named like a time or a YYYY column named like a
    // year, int, double, datetime, else text; all empty: double.
    void infer_types(const std::vector<std::string> &names, const Sample &sample) {
        const size_t n = names.size();
        std::vector<char> can_int(n, 1), can_double(n, 1), can_time(n, 1), compact(n, 1),
            years(n, 1), any(n, 0);
        // Cells that read as dates (not as bare numbers, unless the name
        // says time or year), and the first that does not read as one.
        std::vector<size_t> dates(n, 0), others(n, 0);
        std::vector<std::pair<uint64_t, std::string>> first_other(n);
        for (auto &[ln, text] : sample) {
            if (!split(text, cells_, quoted_, scratch_) || cells_.size() != n)
                continue; // reported when the row is loaded
            for (size_t c = 0; c < n; c++) {
                const std::string_view s = trim(cells_[c]);
                if (s.empty() && !quoted_[c])
                    continue;
                any[c] = 1;
                unsigned char v[8];
                vel_datetime t;
                can_int[c] &= parse_value(kInt8, s, v) == Parsed::Ok;
                can_double[c] &= parse_value(kDouble, s, v) != Parsed::Bad;
                can_time[c] &= parse_datetime(s, t);
                compact[c] &= s.size() == 8 && parse_datetime(s, t);
                years[c] &= s.size() == 4 && parse_datetime(s, t);
                const bool date = parse_datetime(s, t);
                const bool bare = s.find_first_not_of("0123456789") == std::string_view::npos;
                if (date && (!bare || (s.size() == 8 && looks_like_time_name(names[c])) ||
                             (s.size() == 4 && looks_like_year_name(names[c]))))
                    dates[c]++;
                else if (!date && others[c]++ == 0)
                    first_other[c] = {ln, std::string(s.substr(0, 40))};
            }
        }
        t_.cols.resize(n);
        for (size_t c = 0; c < n; c++) {
            const char *kind = !any[c]                                        ? "double"
                               : compact[c] && looks_like_time_name(names[c]) ? "datetime"
                               : years[c] && looks_like_year_name(names[c])   ? "datetime"
                               : can_int[c]                                   ? "int"
                               : can_double[c]                                ? "double"
                               : can_time[c]                                  ? "datetime"
                                                                              : "text";
            t_.cols[c].name = names[c];
            t_.cols[c].type = *csv_type(kind);
        }
        // A column of dates but for a few cells would be taken as text (or
        // numbers) and lose its times: when it would be the time column, the
        // first such cell is refused instead, unless --type names its type.
        bool time_seen = false;
        for (size_t c = 0; c < n; c++) {
            const bool typed = std::any_of(o_.types.begin(), o_.types.end(),
                                           [&](const auto &t) { return t.first == names[c]; });
            if (t_.cols[c].type == kDatetime) {
                time_seen = true;
            } else if (dates[c] > 0 && others[c] > 0 && dates[c] >= others[c] && !typed &&
                       (!time_seen || o_.time == names[c])) {
                throw Fail(kExitRefused,
                           t_.source + ": line " + std::to_string(first_other[c].first) +
                               ": column " + names[c] + ": '" + first_other[c].second +
                               "' is not a date or time (ISO-8601 or YYYYMMDD), where the "
                               "column's other cells are (--type " +
                               names[c] + "=text takes the column as text)");
            }
        }
    }

    // The inferred types with --type applied, and the time column (--time,
    // the first column with --epoch, else the first datetime column)
    // declared ascending.
    void decide_types() {
        for (auto &[name, kind] : o_.types) {
            const std::optional<tbl::column_type> t = csv_type(kind);
            if (!t)
                throw Fail(kExitUsage, "--type " + name + "=" + kind +
                                           ": the types are int, double, datetime and text");
            t_.cols[size_t(t_.need(name))].type = *t;
        }
        if (o_.time.find_first_of(",=") != std::string::npos)
            time_from_fields();
        else if (!o_.time.empty())
            t_.time = t_.need(o_.time);
        else if (o_.epoch != Epoch::None)
            t_.time = 0; // epoch counts in the first column
        for (size_t c = 0; c < t_.cols.size() && t_.time < 0; c++)
            t_.time = t_.cols[c].type == kDatetime ? static_cast<int>(c) : -1;
        if (t_.time < 0)
            return;
        Column &time = t_.cols[size_t(t_.time)];
        if (o_.epoch != Epoch::None)
            time.type = kDatetime;
        if (!(time.type == kDatetime) && !(time.type == kInt8))
            throw Fail(kExitUsage, "the time column '" + time.name + "' holds " +
                                       tbl::type_name(time.type) +
                                       " values; it must hold datetimes or integers");
        time.order = VEL_SEQ_ASC_ORDER;
    }

    // --time YEAR[,QUARTER|MONTH[,DAY]] (each column NAME or KIND=NAME; a
    // column without KIND is told by its name, the first is the year): a
    // datetime column "time" after the file's, the first day of each row's
    // year, quarter, month or its day at midnight UTC.  Those columns are read
    // as integers (a quarter may be written Q1..Q4).
    void time_from_fields() {
        static const char *const kinds[] = {"year", "quarter", "month", "day"};
        const std::string usage = "--time " + o_.time +
                                  ": give YEAR, YEAR,QUARTER, YEAR,MONTH or YEAR,MONTH,DAY "
                                  "columns (NAME or KIND=NAME, KIND year, quarter, month, day)";
        std::string want;
        for (size_t at = 0; at <= o_.time.size();) {
            size_t end = o_.time.find(',', at);
            end = end == std::string::npos ? o_.time.size() : end;
            const std::string item = o_.time.substr(at, end - at);
            at = end + 1;
            const size_t eq = item.find('=');
            std::string kind = eq == std::string::npos ? "" : item.substr(0, eq);
            const std::string name = eq == std::string::npos ? item : item.substr(eq + 1);
            const std::string l = lower(name);
            if (kind.empty())
                kind = fields_.empty() ? "year"
                       : l.find("quarter") != std::string::npos || l == "q" || l == "qtr"
                           ? "quarter"
                       : l.find("month") != std::string::npos || l == "m" ? "month"
                       : l.find("day") != std::string::npos || l == "d"   ? "day"
                                                                          : "";
            int k = 0;
            while (k < 4 && kind != kinds[k])
                k++;
            if (k == 4)
                throw Fail(kExitUsage, usage + " (cannot tell what '" + name + "' holds)");
            fields_.push_back({kinds[k][0], t_.need(name)});
            Column &c = t_.cols[size_t(fields_.back().second)];
            if (c.type == kDatetime) // a YYYY column inferred as a year's time
                c.type = kInt8;
        }
        for (auto [k, c] : fields_)
            want.push_back(k);
        if (want != "y" && want != "yq" && want != "ym" && want != "ymd")
            throw Fail(kExitUsage, usage);
        if (t_.find("time") >= 0)
            throw Fail(kExitUsage, "--time " + o_.time +
                                       ": the column it makes is named time, which the file has");
        Column time;
        time.name = "time";
        time.type = kDatetime;
        t_.cols.push_back(time);
        t_.time = static_cast<int>(t_.cols.size()) - 1;
    }

    // The time of the row's fields into row_; on a bad field, the reason.
    std::optional<std::string> compose_time() {
        int64_t ymd[3] = {0, 1, 1};
        for (auto [kind, c] : fields_) {
            const std::string_view cell = trim(cells_[size_t(c)]);
            std::string_view s = cell;
            const std::string &name = t_.cols[size_t(c)].name;
            if (kind == 'q' && !s.empty() && (s[0] == 'Q' || s[0] == 'q'))
                s.remove_prefix(1);
            int64_t v = 0;
            const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
            if (s.empty() || r.ec != std::errc() || r.ptr != s.data() + s.size() ||
                (kind == 'q' && (v < 1 || v > 4)))
                return "column " + name + ": '" + std::string(cell.substr(0, 40)) + "' is not " +
                       (kind == 'y'   ? "a year"
                        : kind == 'q' ? "a quarter (1..4 or Q1..Q4)"
                        : kind == 'm' ? "a month (1..12)"
                                      : "a day of the month");
            ymd[kind == 'y' ? 0 : kind == 'd' ? 2 : 1] = kind == 'q' ? 3 * v - 2 : v;
        }
        try {
            const vel_datetime t = tbl::civil_time(ymd[0], ymd[1], ymd[2]);
            std::memcpy(row_.data() + offsets_[size_t(t_.time)], &t, sizeof t);
        } catch (const velseq::error &e) {
            return "columns " + o_.time + ": " + tbl::refusal_of(e);
        }
        return std::nullopt;
    }

    // The table's class, named after the file (or --table).
    void define() {
        std::string name = o_.name;
        if (name.empty() && o_.file != "-") {
            name = o_.file.substr(o_.file.find_last_of('/') + 1);
            const size_t dot = name.find_last_of('.');
            name = name.substr(0, dot == 0 || dot == std::string::npos ? name.size() : dot);
        }
        if (name.empty())
            name = "table";
        try {
            take_columns(t_, tbl::define_table(db_.get(), name, {t_.cols.begin(), t_.cols.end()}));
        } catch (const velseq::error &e) {
            throw Fail(kExitUsage, "cannot name the table '" + velseq::detail::shortened(name) +
                                       "': " + e.what() + " (give a name with --table)");
        }
        offsets_.assign(1, 0);
        for (const Column &c : t_.cols)
            offsets_.push_back(offsets_.back() + c.type.width);
        row_.assign(offsets_.back(), 0);
        row_null_.assign(t_.cols.size(), 0);
    }

    // Every row in one write transaction on a new object of the table.
    void load_rows(RecordReader &rd, const Sample &sample, Progress &bar) {
        velseq::connection con(db_);
        velseq::transaction tx(con, velseq::transaction::write);
        vel_objhandle_t obj{};
        velseq::detail::check(velh_obj_create(con.get(), t_.info.code, &obj), "creating the table");
        t_.oid = obj.oid;
        std::vector<tbl::column> cols;
        for (size_t c = 0; c < t_.cols.size(); c++)
            cols.push_back(t_.column(obj, db_.get(), static_cast<int>(c)));
        appender_.emplace(std::move(cols), t_.time, [this](uint64_t line, uint64_t before) {
            bad_line(line,
                     "column " + t_.cols[size_t(t_.time)].name + ": time before that of line " +
                         std::to_string(before) +
                         " (the time column must ascend; --sort sorts the rows)",
                     false);
        });
        chunk_.emplace(t_.cols);
        for (auto &[ln, text] : sample)
            take(text, ln);
        std::string_view rec;
        uint64_t line = 0;
        while (rd.next(rec, line)) {
            take(rec, line);
            if (!o_.sort && chunk_->rows() >= kChunk) {
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
        tx.commit();
    }

    // Parses cell c of the split record into row_; on a bad cell, the reason.
    std::optional<std::string> parse_cell(size_t c) {
        const std::string_view s = cells_[c];
        const Column &col = t_.cols[c];
        unsigned char *v = row_.data() + offsets_[c];
        const bool epoch = static_cast<int>(c) == t_.time && o_.epoch != Epoch::None;
        row_null_[c] = !quoted_[c] && trim(s).empty();
        if (row_null_[c])
            return static_cast<int>(c) == t_.time
                       ? std::optional<std::string>("column " + col.name +
                                                    ": the time column has an empty cell")
                       : std::nullopt;
        const Parsed p = epoch ? parse_epoch(s, v) : parse_value(col.type, s, v);
        if (p == Parsed::Ok)
            return std::nullopt;
        std::string why = epoch ? "is not an integer count since 1970" : refusal(col.type, p);
        if (p == Parsed::Bad && col.type == kInt8)
            why += " (give --type " + col.name + "=double?)";
        return "column " + col.name + ": '" + std::string(s.substr(0, 40)) + "' " + why;
    }

    Parsed parse_epoch(std::string_view s, unsigned char *v) const {
        static const int64_t mul[] = {1, VEL_DT_NS_PER_SEC, 1000000, 1000, 1}; // by Epoch
        const int64_t m = mul[static_cast<int>(o_.epoch)];
        int64_t n;
        if (parse_value(kInt8, s, reinterpret_cast<unsigned char *>(&n)) != Parsed::Ok ||
            n > INT64_MAX / m || n < INT64_MIN / m)
            return Parsed::Bad;
        const vel_datetime t = vel_dt_from_ns(n * m);
        std::memcpy(v, &t, sizeof t);
        return Parsed::Ok;
    }

    void take(std::string_view rec, uint64_t line) {
        if (rec.empty() ||
            (rec.find_first_not_of(" \t") == std::string_view::npos && t_.cols.size() > 1))
            return; // blank lines separate nothing; skipped silently
        std::optional<std::string> why;
        if (!split(rec, cells_, quoted_, scratch_))
            why = "unterminated quote, text after a closing quote, or a quote inside an unquoted "
                  "cell (quote the cell and double the quote: \"a \"\"b\"\"\")";
        else if (cells_.size() != ncsv_)
            why = std::to_string(cells_.size()) + " cells where the header has " +
                  std::to_string(ncsv_);
        for (size_t c = 0; !why && c < ncsv_; c++)
            why = parse_cell(c);
        if (!why && !fields_.empty())
            why = compose_time();
        if (why)
            return bad_line(line, *why);
        for (size_t c = 0; c < t_.cols.size(); c++)
            chunk_->add(c, row_null_[c] ? nullptr : row_.data() + offsets_[c]);
        chunk_->lines.push_back(line);
    }

    // A bad line stops the load, unless --skip-bad, which counts it.  The
    // rows `pending` before it go in first (unless --sort): one of them may
    // be out of order, and the first bad line is the one reported.
    void bad_line(uint64_t line, const std::string &why, bool pending = true) {
        if (!o_.skip_bad) {
            if (pending && !o_.sort)
                flush();
            throw Fail(kExitRefused, t_.source + ": line " + std::to_string(line) + ": " + why +
                                         "; --skip-bad skips bad lines");
        }
        if (t_.skipped++ == 0 || line < first_skip_line_) {
            t_.first_skip = "line " + std::to_string(line) + ": " + why;
            first_skip_line_ = line;
        }
    }

    // Stable sort of the buffered rows by time: equal times keep file order.
    void sort_rows() {
        if (t_.time < 0)
            throw Fail(kExitUsage, "--sort needs a time column (--time NAME)");
        const tbl::array &tc = chunk_->cols[size_t(t_.time)];
        std::vector<uint32_t> perm(tc.length);
        std::iota(perm.begin(), perm.end(), 0u);
        // Both time types are 8 bytes: int8 compares signed, datetime unsigned.
        const uint64_t flip = tc.type.code == VEL_DD_SEQUENCE_INT8 ? VEL_DT_SIGN : 0;
        auto key = [&](uint32_t i) {
            uint64_t v;
            std::memcpy(&v, tc.values.data() + size_t(i) * 8, 8);
            return v ^ flip;
        };
        std::stable_sort(perm.begin(), perm.end(),
                         [&](uint32_t a, uint32_t b) { return key(a) < key(b); });
        Chunk sorted(t_.cols);
        chunk_->pick(sorted, perm.size(), [&](size_t i) { return perm[i]; });
        chunk_ = std::move(sorted);
    }

    void flush() {
        if (!o_.parse_only)
            appender_->flush(*chunk_);
        t_.rows = o_.parse_only ? t_.rows + chunk_->rows() : appender_->rows;
        chunk_.emplace(t_.cols);
    }

    velseq::database &db_;
    const LoadOptions &o_;
    Table t_;
    std::optional<Appender> appender_;
    std::optional<Chunk> chunk_;
    std::vector<size_t> offsets_;    // of each column's bytes in row_
    std::vector<unsigned char> row_; // the row being parsed
    std::vector<char> row_null_;     // per column
    uint64_t first_skip_line_ = 0;
    std::vector<std::string_view> cells_;
    std::vector<char> quoted_;
    size_t ncsv_ = 0;                          // columns of the file (then the time made of them)
    std::vector<std::pair<char, int>> fields_; // y, q, m, d and their columns
    std::string scratch_;
};

} // namespace

Table load_csv(velseq::database &db, const LoadOptions &o) { return Loader(db, o).run(); }

} // namespace vcli
