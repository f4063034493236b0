// The velseq program's table: a named class of the database, as the
// catalogue describes it (velseq/table.hpp), with one object whose sequence
// fields are the columns; loaded from CSV text or kept in database images.
#ifndef VELSEQ_CLI_TABLE_H
#define VELSEQ_CLI_TABLE_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"
#include "velseq.hpp"
#include "velseq/datetime.h"
#include "velseq/table.hpp"

namespace vcli {

namespace tbl = velseq::table;

// Exit codes of the program.
constexpr int kExitInput = 1;   // a file cannot be read, is empty, binary, or has no rows
constexpr int kExitUsage = 2;   // bad command line: unknown column, reversed window, ...
constexpr int kExitRefused = 3; // a cell or row the table cannot take
constexpr int kExitMissing = 4; // an optional library (DuckDB's, for Parquet) is not there

// Every error the program reports: the message and its exit code.
struct Fail : std::runtime_error {
    Fail(int code, const std::string &msg) : std::runtime_error(msg), exit_code(code) {}
    int exit_code;
};

// The element types of the CSV kinds int, double, datetime and text.
constexpr tbl::column_type kInt8{VEL_DD_SEQUENCE_INT8, 8}, kDouble{VEL_DD_SEQUENCE_DOUBLE, 8},
    kDatetime{VEL_DD_SEQUENCE_DATETIME, 8}, kText{VEL_DD_SEQUENCE_CHAR, 32};

// How integer cells of the time column count time since 1970 (--epoch).
enum class Epoch { None, Sec, Milli, Micro, Nano };

struct LoadOptions {
    std::string file;                                       // "-": standard input
    std::string name;                                       // the table's ("": the file's stem)
    std::vector<std::string> columns;                       // names when the file has no header
    std::vector<std::pair<std::string, std::string>> types; // --type col=kind
    std::string time;                                       // --time column ("" : inferred)
    Epoch epoch = Epoch::None;
    bool sort = false;
    bool skip_bad = false;
    int progress =
        0; // 0: when stderr is a terminal and the load takes over 1 s; 1: always; -1 never
    bool parse_only = false; // benchmark: parse every cell, store nothing
};

// A column: a sequence field of the table's class, with the catalogue's
// name, type and declared order.
struct Column : tbl::column_def {
    uint16_t field = 0; // its field number in the class
};

struct Table {
    tbl::table_info info;     // the class
    std::vector<Column> cols; // its sequence fields, in field order
    int time = -1;            // the ascending time column; -1: none
    uint64_t oid = 0;
    uint64_t rows = 0;
    uint64_t skipped = 0; // bad lines skipped (--skip-bad)
    std::string first_skip;
    std::string source; // file name, for messages

    int find(const std::string &name) const; // -1 when absent
    int need(const std::string &name) const; // Fail (usage) when absent
    // Column c of the table's object `obj`.
    tbl::column column(const vel_objhandle_t &obj, velh_db_t *db, int c) const {
        return tbl::column_of(obj, db, info, cols[static_cast<size_t>(c)].field);
    }
};

// The sequence columns of class `info`, and its time column: the first
// ascending datetime column, else the first ascending column.
void take_columns(Table &t, const tbl::table_info &info);

// Loads a CSV into a new object of a new class of `db`.
Table load_csv(velseq::database &db, const LoadOptions &o);

// Opens the image at `path` (with the commit log `log` replayed on it) and
// describes in `t` its table `name` ("": its only table).  The files are
// opened read-only, unless `recover`, which may move a damaged log's rest
// aside; what the open cut or set aside is said on standard error.
std::unique_ptr<velseq::database> open_table(const std::string &path, Table &t,
                                             const std::string &name = "",
                                             const std::string &log = "", bool recover = false);

// ---- values as text: one parser and one formatter per element type, and the
// one calendar parser of the program (CSV cells and command-line bounds alike)

std::string_view trim(std::string_view s);

// The calendar parser of velseq/datetime.h (vel_dt_parse: ISO-8601, YYYY,
// YYYY-MM, YYYYMMDD[(T| )hhmmss]), blanks around it ignored: one grammar and
// one range (1677-09-21T00:12:43.145224192Z .. 2262-04-11T23:47:16.854775807Z)
// for every front end.
bool parse_datetime(std::string_view s, vel_datetime &out);

// Nanoseconds of "1h", "15m", "30s", "500ms", "1d", "1w", ... ; Fail (usage) when bad.
int64_t parse_duration(const std::string &text, const char *what);

enum class Parsed { Ok, Bad, NotFinite, OutOfRange, TooLong };
// Parses `s` (blanks around a number or time ignored) as a value of type `t` into
// out[0, t.width).  Floats refuse NaN and infinities (NotFinite); char(N)
// takes up to N bytes, padded with NULs.
Parsed parse_value(velseq::table::column_type t, std::string_view s, unsigned char *out);
// "is not an integer", "is NaN or infinite", ...: what a cell refused with
// `p` is, for messages.
std::string refusal(velseq::table::column_type t, Parsed p);

// Value i of `a` through the formatter of its type (a null: an empty
// cell): numbers in the shortest form that reads back to the same value,
// datetimes as ISO-8601 UTC, characters up to their last non-NUL byte (the
// last two quoted).
OutCell cell_of(const velseq::table::array &a, uint64_t i);

} // namespace vcli

#endif
