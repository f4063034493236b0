// velseq: tables of time series in, answers out.  Every subcommand but demo
// reads a table, from a CSV file (loaded into an in-memory database for the
// run) or from a database image (--db), and answers one question about it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "commands.h"
#include "veltools.h"

namespace vcli {
namespace {

const char kFooter[] = R"(examples:
  velseq load ticks.csv --db ticks.vdb     load a CSV, keep the table in a file
  velseq head ticks.csv -n 5               the first rows (of a CSV loaded for this run)
  velseq window --db ticks.vdb 2024-03-04T10:00 2024-03-04T10:01 --cols time,price
  velseq stats --db ticks.vdb --window 2024-03-04T12:00 2024-03-04T13:00
  velseq resample --db ticks.vdb 1h --cols price,size --agg first,last,sum
  velseq asof --db ticks.vdb orders.csv --direction backward --tolerance 5s
  velseq tree --db ticks.vdb --cols price --dump
  velseq export --db ticks.vdb --parquet ticks/ --partition object,month
  velseq import ticks/ --db copy.vdb --table ticks
  velseq demo                              a day of trades, every subcommand once

exit codes: 0 success, 1 input or file error (unreadable, empty, binary, no rows,
lines over 1 MiB, a bad image or log), 2 usage (unknown option or column,
reversed window, bad duration), 3 refused data (a bad cell, NaN, a time out of
order, with its line), 4 DuckDB's library, which export and import use for
Parquet, is not there (scripts/fetch-duckdb.sh fetches it; VELSEQ_DUCKDB names it).)";

// The positionals of a subcommand are "[FILE] ARGS...": the CSV file (absent
// with --db) before the subcommand's own arguments, split after parsing.
void add_source(CLI::App *sub, Source &s, std::vector<std::string> &pos, const char *usage) {
    sub->add_option("args", pos, usage);
    sub->add_option("--db", s.db,
                    "database image to read (written by velseq load --db, the C++ "
                    "API or the Python package)");
    sub->add_option("--table", s.table,
                    sub->get_name() == "load"
                        ? "the table's name (default: the file's name without its extension)"
                        : "with --db: the table to read, when the image holds several");
    if (sub->get_name() != "load") {
        sub->add_option("--log", s.log, "with --db: the commit log to replay on the image");
        sub->add_flag("--recover", s.recover,
                      "with --log: open a log damaged before its end with the records before "
                      "the damage, moving the rest aside to LOG.damaged-OFFSET");
    }
    sub->add_option("--columns", s.load.columns, "column names of a file without header")
        ->delimiter(',');
    sub->add_option("--type", s.types,
                    "a column's type: NAME=int|double|datetime|text (int8, double, datetime, "
                    "char(32))");
    sub->add_option("--time", s.load.time, "the time column (default: the first datetime column)");
    sub->add_option("--epoch", s.epoch, "the time column counts s|ms|us|ns since 1970")
        ->check(CLI::IsMember({"s", "ms", "us", "ns"}));
    sub->add_flag("--sort", s.load.sort, "sort the rows by time instead of refusing disorder");
    sub->add_flag("--skip-bad", s.load.skip_bad, "skip bad lines and count them");
    sub->add_option("--format", s.format, "table (default on a terminal), csv or json")
        ->check(CLI::IsMember({"table", "csv", "json"}));
}

// Every subcommand with its options; returns demo's, which reads no table.
CLI::App *add_subcommands(CLI::App &app, Source &src, Query &q, std::vector<std::string> &pos) {
    const char *file = "[FILE]: CSV file (- : standard input), or --db";
    auto sub = [&](const char *name, const char *help, const char *usage) {
        CLI::App *s = app.add_subcommand(name, help);
        add_source(s, src, pos, usage);
        return s;
    };
    auto cols = [&](CLI::App *s, const char *help) {
        s->add_option("--cols", q.cols, help)->delimiter(',');
    };
    sub("load", "load a CSV and describe its columns; --db FILE saves the table there",
        "FILE: CSV file with a header (- : standard input)");
    for (const char *name : {"head", "tail"}) {
        CLI::App *s = sub(name, name[0] == 'h' ? "the first rows" : "the last rows", file);
        s->add_option("-n,--rows", q.n, "rows (default 10)");
        cols(s, "columns to show");
    }
    cols(sub("window", "the rows with FROM <= time < TO",
             "[FILE] FROM TO: CSV file (or --db); first time (ISO-8601 or YYYYMMDD); end time, "
             "not included"),
         "columns to show");
    CLI::App *stats = sub("stats", "count, nulls, min, max, mean, first, last per column", file);
    stats->add_option("--window", q.window, "only the rows with FROM <= time < TO")->expected(2);
    cols(stats, "columns to describe");
    stats->add_option("--agg", q.agg, "aggregates (default count,min,max,mean,first,last)")
        ->delimiter(',');
    CLI::App *resample = sub(
        "resample", "first, max, min, last, count and mean per time bucket (e.g. 1h, 1d, 1M, 1Y)",
        "[FILE] EVERY: CSV file (or --db); bucket width: 500ms, 30s, 15m, 1h, 1d, 1w (7 days "
        "from 1970-01-01), or calendar: 1D, 1W (from Monday), 1W-SUN, 1M (or 1mo), 3M, 1Q, 1Y");
    resample->add_option("--utc-offset", q.utc_offset,
                         "days start at local midnight of UTC + this (+01:00, -0500)");
    resample->add_option("--window", q.window, "only the rows with FROM <= time < TO")->expected(2);
    cols(resample, "numeric columns to resample (default: all)");
    resample->add_option("--agg", q.agg, "aggregates (default first,max,min,last,count,mean)")
        ->delimiter(',');
    CLI::App *asof =
        sub("asof", "each row of OTHER.csv with the row of this table prevailing at its time",
            "[FILE] OTHER.csv: CSV file (or --db); CSV whose rows are matched (by "
            "its first datetime column)");
    asof->add_option("--direction", q.direction, "backward (default), forward or nearest")
        ->check(CLI::IsMember({"backward", "forward", "nearest"}));
    asof->add_option("--tolerance", q.tolerance, "farther matches count as none (e.g. 5s)");
    asof->add_option("--other-type", q.other_types,
                     "a column's type in OTHER.csv: NAME=int|double|datetime|text");
    asof->add_flag("--row-numbers", q.row_numbers,
                   "add a column 'row': the position of the matched row in this table");
    asof->add_option("--by", q.by,
                     "match each row of OTHER.csv only with rows holding its value of this "
                     "column (as pandas' merge_asof(by=))");
    cols(asof, "columns of this table to join");
    CLI::App *tree = sub("tree", "page-tree statistics of each column's sequence", file);
    cols(tree, "columns (default: all)");
    tree->add_flag("--dump", q.dump, "print the tree page by page");
    tree->add_option("--preview", q.preview, "values shown per leaf by --dump (default 8)");
    CLI::App *exp = sub("export", "write the table to a folder of Parquet files, hive-style", file);
    exp->add_option("--parquet", q.other, "the folder to write (new or empty)")->required();
    exp->add_option("--partition", q.partition,
                    "a folder per object (default), and per day or month: object, "
                    "object,month, day, none")
        ->delimiter(',');
    exp->add_option("--window", q.window, "only the rows with FROM <= time < TO")->expected(2);
    cols(exp, "columns to write (default: all)");
    CLI::App *demo =
        app.add_subcommand("demo", "generate a day of trades and run every subcommand");
    demo->add_option("--rows", q.n, "trades to generate (default 2000000)");
    demo->add_option("--dir", q.other,
                     "folder for the generated files (default: a new one in /tmp)");
    return demo;
}

// import reads no table: it makes one.
CLI::App *add_import(CLI::App &app, Source &src, Query &q) {
    CLI::App *imp =
        app.add_subcommand("import", "read a folder of Parquet files into a table of an image");
    imp->add_option("dir", q.other,
                    "DIR: folder of Parquet files (every *.parquet under it, "
                    "oid=N folders naming objects), or one file")
        ->required();
    imp->add_option("--db", src.db, "database image that keeps the table (made when absent)")
        ->required();
    imp->add_option("--table", src.table, "the table's name (default: the folder's name)");
    imp->add_option("--time", src.load.time,
                    "the ascending time column of a new table (default: the one the files "
                    "name, else the first timestamp column)");
    return imp;
}

// "[FILE] ARGS...": the CSV file, then the subcommand's own arguments.
void take_positionals(const std::string &name, const std::vector<std::string> &pos, Source &src,
                      Query &q) {
    const size_t want = name == "window" ? 2 : name == "resample" || name == "asof" ? 1 : 0;
    if (name == "load" ? pos.size() != 1 : pos.size() != want && pos.size() != want + 1)
        throw Fail(kExitUsage, name + " takes " +
                                   (name == "load"       ? "FILE"
                                    : name == "window"   ? "[FILE] FROM TO"
                                    : name == "resample" ? "[FILE] EVERY"
                                    : name == "asof"     ? "[FILE] OTHER.csv"
                                                         : "[FILE]") +
                                   " (velseq " + name + " --help)");
    if (pos.size() > want)
        src.load.file = pos[0];
    const size_t at = pos.size() - want;
    if (name == "window")
        q.from = pos[at], q.to = pos[at + 1];
    else if (name == "resample")
        q.every = pos[at];
    else if (name == "asof")
        q.other = pos[at];
}

int run(int argc, char **argv) {
    CLI::App app{
        "velseq: tables of time series in, answers out.\n"
        "Each subcommand reads a table from a CSV file (FILE) or a database image (--db)."};
    app.footer(kFooter);
    app.require_subcommand(1);
    Source src;
    Query q;
    std::vector<std::string> pos;
    CLI::App *demo = add_subcommands(app, src, q, pos);
    CLI::App *imp = add_import(app, src, q);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : kExitUsage;
    }
    CLI::App *sub = app.get_subcommands().front();
    if (sub == demo)
        return run_demo(q.n > 0 ? q.n : 2000000, q.other);
    if (sub == imp)
        return cmd_import(src, q);
    if (sub->get_name() == "export" && q.partition.empty())
        q.partition = {"object"};
    take_positionals(sub->get_name(), pos, src, q);
    src.prepare(isatty(STDOUT_FILENO) != 0);
    return run_command(sub->get_name(), src, q);
}

} // namespace
} // namespace vcli

int main(int argc, char **argv) {
    try {
        return vcli::run(argc, argv);
    } catch (const vcli::Fail &f) {
        std::fflush(stdout);
        std::fprintf(stderr, "velseq: %s\n", f.what());
        return f.exit_code;
    } catch (const velseq::error &e) {
        std::fflush(stdout);
        std::fprintf(stderr, "velseq: %s\n", e.what());
        return e.code() == VELT_E_UNAVAILABLE ? vcli::kExitMissing : vcli::kExitInput;
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "velseq: out of memory\n");
        return vcli::kExitInput;
    }
}
