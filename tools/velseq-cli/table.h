// The velseq program's table: one object of a class with one sequence field
// per CSV column, and the loader that fills it from CSV text.
#ifndef VELSEQ_CLI_TABLE_H
#define VELSEQ_CLI_TABLE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "velseq.hpp"

namespace vcli {

// Exit codes of the program.
constexpr int kExitInput = 1;   // a file cannot be read, is empty, binary, or has no rows
constexpr int kExitUsage = 2;   // bad command line: unknown column, reversed window, ...
constexpr int kExitRefused = 3; // a cell or row the table cannot take

// Every error the program reports: the message and its exit code.
struct Fail : std::runtime_error {
    Fail(int code, const std::string &msg) : std::runtime_error(msg), exit_code(code) {}
    int exit_code;
};

using Text = velseq::chars<32>;

// Column kinds and their element types: int -> int64_t, double -> double,
// datetime -> velseq::datetime, text -> char(32).
enum class Kind { Int, Double, Time, Text };
const char *kind_name(Kind k);
std::optional<Kind> kind_parse(const std::string &name);

using AnyField = std::variant<velseq::field<int64_t>, velseq::field<double>,
                              velseq::field<velseq::datetime>, velseq::field<Text>>;
template <class F> struct field_elem;
template <class T> struct field_elem<velseq::field<T>> { using type = T; };

// How integer cells of the time column count time since 1970 (--epoch).
enum class Epoch { None, Sec, Milli, Micro, Nano };

struct LoadOptions {
    std::string file;                                       // "-": standard input
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

struct ColumnDef {
    std::string name;
    Kind kind;
};

// A loaded table in a database (in memory or opened from an image).
struct Table {
    velseq::schema schema{"table"};
    std::vector<ColumnDef> cols;
    std::vector<AnyField> fields;
    // The table's description ("<kind> <T or -> <name>" a line per column, T
    // for the time column) in 32-byte pieces, so that an image describes
    // its own table.
    velseq::field<Text> meta;
    int time = -1; // the ordered time column; -1: none
    uint64_t oid = 0;
    uint64_t rows = 0;
    uint64_t skipped = 0; // bad lines skipped (--skip-bad)
    std::string first_skip;
    std::string source; // file name, for messages

    int find(const std::string &name) const; // -1 when absent
    int need(const std::string &name) const; // Fail (usage) when absent
};

// The description stored in Table::meta, and the columns it describes
// (Fail (input) when it is none).
std::string describe(const Table &t);
void parse_description(const std::string &text, Table &t);

// Loads a CSV into a new object of a new class of `db`.
Table load_csv(velseq::database &db, const LoadOptions &o);

// Parses a time bound given on the command line for a column of kind `k`
// (Time: ISO-8601 or YYYYMMDD; Int: an integer).  Fail (usage) when bad.
int64_t parse_bound(Kind k, const std::string &text, const char *what);
// Nanoseconds of "1h", "15m", "30s", "500ms", "1d", "1w", ... ; Fail (usage) when bad.
int64_t parse_duration(const std::string &text, const char *what);

// Shortest text that reads back to the same value; integral doubles print
// without a fraction ("315").
std::string format_double(double v);

} // namespace vcli

#endif
