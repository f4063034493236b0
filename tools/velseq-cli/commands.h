// The subcommands of the velseq program.
#ifndef VELSEQ_CLI_COMMANDS_H
#define VELSEQ_CLI_COMMANDS_H

#include <memory>
#include <string>
#include <vector>

#include "output.h"
#include "table.h"

namespace vcli {

// Where the table comes from, and how answers are written.
struct Source {
    LoadOptions load;
    std::string db;                 // --db: a database image
    std::string log;                // --log: the commit log that follows it
    std::string table;              // --table: the table of the image (load: its name)
    bool recover = false;           // --recover: set a damaged log's rest aside
    std::vector<std::string> types; // --type NAME=KIND as given
    std::string epoch;              // --epoch s|ms|us|ns
    std::string format;             // "" : table on a terminal, csv otherwise
    Format out = Format::Csv;
    // Checks and converts the options; Fail (usage) when they are bad.
    void prepare(bool stdout_is_terminal);
};

struct Query {
    uint64_t n = 0;
    std::vector<std::string> cols;
    std::string from, to, every, other, direction = "backward", tolerance;
    std::string utc_offset;               // resample: days start at local midnight of UTC + this
    std::vector<std::string> window, agg; // --window FROM TO, --agg kernel names
    std::vector<std::string> other_types; // asof: --other-type NAME=KIND for OTHER.csv
    bool row_numbers = false;             // asof: a column of the matched row's position
    std::string by;                       // asof: match within rows sharing this column's value
    std::vector<std::string> partition;   // export: object, day, month, none
    bool dump = false;
    uint32_t preview = 8;
};

// NAME=KIND words of --type (or `option`), split; Fail (usage) when one is not.
std::vector<std::pair<std::string, std::string>> types_of(const std::vector<std::string> &types,
                                                          const char *option);
// Opens the table of a subcommand: the CSV file loaded into a new in-memory
// database, or the database image of --db.
std::unique_ptr<velseq::database> open_source(const std::string &name, const Source &src, Table &t);
// Answers subcommand `name` (not demo) over an open table.
int answer(const std::string &name, velseq::database &db, const Table &t, const Source &src,
           const Query &q);
int run_command(const std::string &name, Source &src, const Query &q);
// export --parquet DIR (q.other) of an open table; import DIR (q.other) into --db.
int cmd_export(velseq::database &db, const Table &t, const Source &src, const Query &q);
int cmd_import(const Source &src, const Query &q);
int run_demo(uint64_t rows, const std::string &dir);

} // namespace vcli

#endif
