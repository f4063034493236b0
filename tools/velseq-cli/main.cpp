// velseq: loads one CSV column into a sequence field of a fresh in-memory
// database, then runs the requested actions on it in command-line order.
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "veltools.h"

namespace {

// Exit codes.
constexpr int kExitIo = 1;     // a file could not be read or written
constexpr int kExitUsage = 2;  // bad command line
constexpr int kExitData = 3;   // a cell is no value, or the data breaks the field's order
constexpr int kExitModule = 4; // the module or the host failed otherwise

const char kUsage[] =
    "usage: velseq [load] --type TYPE [options] [actions] FILE.csv\n"
    "\n"
    "Loads one column of FILE.csv (- for standard input) into a sequence field of a\n"
    "fresh in-memory database, then runs the actions in the order given.\n"
    "\n"
    "options:\n"
    "  --type TYPE       int1 int2 int4 int8 uint1 uint2 uint4 uint8 float double\n"
    "                    datetime (ISO-8601 or ns since 1970) char(N) / charN (1..4096)\n"
    "  --page-size N     sequence page bytes, 64..65536, multiple of 8 (default 4096)\n"
    "  --ordered, --asc  the field is ascending; --desc: descending\n"
    "  --column K        read cell K (from 1) of each record (default 1)\n"
    "  --header          the first record is a header\n"
    "  --preview N       values shown per leaf by dump (default 8)\n"
    "  --help            this text\n"
    "\n"
    "actions (also without the leading --):\n"
    "  --stats           tree statistics: depth, pages per level, leaf fill, bytes\n"
    "  --dump            the page tree, page by page\n"
    "  --check           the host's tree check\n"
    "  --scan FROM TILL  elements at positions FROM..TILL (TILL may be 'end')\n"
    "  --search LOW HIGH elements with LOW <= value <= HIGH (ordered fields)\n"
    "  --export OUT      the field as CSV to OUT (- for standard output)\n"
    "\n"
    "CSV: an unquoted empty cell is a null; \"\" is an empty char value; char cells\n"
    "shorter than N are padded with NUL bytes. Ordered fields refuse nulls.\n"
    "\n"
    "exit codes: 0 ok, 1 file error, 2 usage error, 3 bad data (unparsable cell,\n"
    "out-of-order value, null in an ordered field), 4 module or host failure.\n";

struct Action {
    std::string name;
    std::string a, b;
};

struct Options {
    velt_type_t type{};
    bool have_type = false;
    uint32_t page_size = 4096;
    vel_seq_order_t order = VEL_SEQ_NO_ORDER;
    uint32_t column = 0;
    bool header = false;
    uint32_t preview = 8;
    std::string file;
    std::vector<Action> actions;
};

int usage_error(const char *fmt, const std::string &what) {
    std::fprintf(stderr, "velseq: ");
    std::fprintf(stderr, fmt, what.c_str());
    std::fprintf(stderr, "\n(velseq --help shows the usage)\n");
    return kExitUsage;
}

template <class T> bool parse_uint(const std::string &s, T *v) {
    auto r = std::from_chars(s.data(), s.data() + s.size(), *v, 10);
    return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

// Fills `o`; returns -1 to go on, or an exit code.
int parse_args(int argc, char **argv, Options &o) {
    int i = 1;
    if (i < argc && std::strcmp(argv[i], "load") == 0)
        i++;
    auto value = [&](int k) -> const char * { return i + k < argc ? argv[i + k] : nullptr; };
    for (; i < argc; i++) {
        std::string arg = argv[i];
        std::string name = arg.rfind("--", 0) == 0 ? arg.substr(2) : arg;
        const bool dashed = name.size() != arg.size();
        if (dashed && name == "help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (name == "stats" || name == "dump" || name == "check") {
            o.actions.push_back({name, "", ""});
            continue;
        }
        if (name == "scan" || name == "search") {
            if (value(1) == nullptr || value(2) == nullptr)
                return usage_error("%s takes two values", arg);
            o.actions.push_back({name, argv[i + 1], argv[i + 2]});
            i += 2;
            continue;
        }
        if (name == "export") {
            if (value(1) == nullptr)
                return usage_error("%s takes a file name (- for standard output)", arg);
            o.actions.push_back({name, argv[++i], ""});
            continue;
        }
        if (!dashed || arg == "-") {
            if (!o.file.empty())
                return usage_error("more than one input file (second: %s)", arg);
            o.file = arg;
            continue;
        }
        if (name == "ordered" || name == "asc") {
            o.order = VEL_SEQ_ASC_ORDER;
        } else if (name == "desc") {
            o.order = VEL_SEQ_DESC_ORDER;
        } else if (name == "header") {
            o.header = true;
        } else if (name == "type" || name == "page-size" || name == "column" || name == "preview") {
            const char *v = value(1);
            if (v == nullptr)
                return usage_error("%s takes a value", arg);
            i++;
            if (name == "type") {
                if (velt_type_parse(v, &o.type) != VELT_OK)
                    return usage_error("unknown type '%s' (int1..int8, uint1..uint8, float, "
                                       "double, datetime, char(N))",
                                       v);
                o.have_type = true;
            } else if (name == "page-size") {
                if (!parse_uint(v, &o.page_size) || o.page_size < 64 || o.page_size > 65536 ||
                    o.page_size % 8 != 0)
                    return usage_error("page size '%s' is not 64..65536 and a multiple of 8", v);
            } else if (name == "column") {
                if (!parse_uint(v, &o.column) || o.column == 0)
                    return usage_error("column '%s' is not a number from 1", v);
                o.column--;
            } else if (!parse_uint(v, &o.preview)) {
                return usage_error("preview '%s' is not a number", v);
            }
        } else {
            return usage_error("unknown option %s", arg);
        }
    }
    if (!o.have_type)
        return usage_error("%s--type is required", "");
    if (o.file.empty())
        return usage_error("%sno input file", "");
    if (o.type.elem_type == VEL_DD_CHAR && o.type.elem_size > VELT_MAX_SCAN_WIDTH)
        return usage_error("%schar(N) sequences hold N up to N = 32 (a tile holds 128 values)", "");
    for (const Action &a : o.actions)
        if (a.name == "search" && o.order == VEL_SEQ_NO_ORDER)
            return usage_error("%s needs an ordered field (--ordered or --desc)", a.name);
    return -1;
}

// The database of one invocation: one class with one sequence field.
struct Db {
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;
    vel_objhandle_t obj{};
    velt_field_t field{};

    ~Db() {
        if (con != nullptr)
            velh_disconnect(con); // rolls back an open transaction
        if (db != nullptr)
            velh_db_close(db);
    }
};

int host_failure(const char *what, int rc) {
    std::fprintf(stderr, "velseq: %s failed: %d %s\n", what, rc, velt_code_name(rc));
    return kExitModule;
}

int open_db(const Options &o, Db &d) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = o.page_size;
    int rc = velh_db_open(&cfg, &d.db);
    if (rc != VEL_S_OK)
        return host_failure("opening the database", rc);
    const velh_field_def_t def{
        "values", velt_sequence_code(o.type),
        static_cast<uint16_t>(o.type.elem_type == VEL_DD_CHAR ? o.type.elem_size : 0)};
    uint16_t cls = 0;
    velh_field_info_t fi;
    if ((rc = velh_class_define(d.db, "column", &def, 1, 0, VELH_PM_INMEM, &cls)) != VEL_S_OK ||
        (rc = velh_field_info(d.db, cls, 0, &fi)) != VEL_S_OK)
        return host_failure("defining the class", rc);
    if ((rc = velh_connect(d.db, &d.con)) != VEL_S_OK ||
        (rc = velh_begin(d.con, VELH_READ_WRITE)) != VEL_S_OK ||
        (rc = velh_obj_create(d.con, cls, &d.obj)) != VEL_S_OK)
        return host_failure("creating the object", rc);
    d.field = {fi.u_offset, fi.c_offset, fi.fld_no, o.type, o.order};
    return -1;
}

void print_rows(uint64_t first, const velt_column_t &col) {
    std::vector<char> cell(2 * col.type.elem_size + 64);
    for (uint64_t i = 0; i < col.n; i++) {
        const bool null = velt_column_is_null(&col, i) != 0;
        velt_format_value(col.type, null ? nullptr : col.values + i * col.type.elem_size,
                          cell.data(), cell.size());
        std::printf("%llu,%s\n", static_cast<unsigned long long>(first + i), cell.data());
    }
}

int run_action(const Options &o, Db &d, const Action &a) {
    vel_objhandle_t *obj = &d.obj;
    const velt_field_t *f = &d.field;
    velt_error_t err{};
    if (a.name == "stats") {
        velt_tree_stats_t st;
        int rc = velt_tree_stats(obj, f, &st, &err);
        if (rc != VELT_OK) {
            std::fprintf(stderr, "velseq: stats: %s\n", err.message);
            return kExitModule;
        }
        velt_print_stats(stdout, &st);
        return 0;
    }
    if (a.name == "dump") {
        const velt_dump_options_t opt{o.preview, 16};
        if (velt_dump_tree(obj, f, stdout, &opt, &err) != VELT_OK) {
            std::fprintf(stderr, "velseq: dump: %s\n", err.message);
            return kExitModule;
        }
        return 0;
    }
    if (a.name == "check") {
        velh_tree_report_t rep;
        int rc = velh_check_tree(obj, f->fld_no, f->order, 1, &rep);
        if (rc != VEL_S_OK)
            return host_failure("the tree check", rc);
        std::printf("check: %s, depth %u, %llu pages, %llu elements, %llu null%s%s\n",
                    rep.ok ? "ok" : "FAILED", rep.depth, static_cast<unsigned long long>(rep.pages),
                    static_cast<unsigned long long>(rep.elements),
                    static_cast<unsigned long long>(rep.nulls), rep.ok ? "" : ": ", rep.message);
        return rep.ok ? 0 : kExitModule;
    }
    if (a.name == "export") {
        FILE *out = a.a == "-" ? stdout : std::fopen(a.a.c_str(), "w");
        if (out == nullptr) {
            std::fprintf(stderr, "velseq: cannot write %s: %s\n", a.a.c_str(),
                         std::strerror(errno));
            return kExitIo;
        }
        int rc = velt_export_csv(obj, f, out, nullptr);
        if (out != stdout && std::fclose(out) != 0 && rc == VELT_OK)
            rc = VELT_E_IO;
        if (rc == VELT_E_IO) {
            std::fprintf(stderr, "velseq: writing %s failed\n", a.a.c_str());
            return kExitIo;
        }
        return rc == VELT_OK ? 0 : host_failure("export", rc);
    }
    velt_column_t col;
    velt_column_init(&col, o.type);
    int rc;
    uint64_t first = 0;
    if (a.name == "scan") {
        uint64_t till = 0;
        if (!parse_uint(a.a, &first) ||
            !(a.b == "end" ? (till = UINT64_MAX, true) : parse_uint(a.b, &till)) || till < first) {
            velt_column_free(&col);
            return usage_error("scan takes FROM <= TILL, positions from 0 (got %s)",
                               a.a + " " + a.b);
        }
        rc = velt_read_range(obj, f, first, till, &col);
        if (rc == VELT_OK)
            std::printf("# scan %s..%s: %llu elements\n", a.a.c_str(), a.b.c_str(),
                        static_cast<unsigned long long>(col.n));
    } else {
        std::vector<uint8_t> low(o.type.elem_size), high(o.type.elem_size);
        if (velt_parse_value(o.type, a.a.data(), a.a.size(), low.data()) != VELT_OK ||
            velt_parse_value(o.type, a.b.data(), a.b.size(), high.data()) != VELT_OK) {
            velt_column_free(&col);
            return usage_error("search bounds %s are not values of the field's type",
                               a.a + " " + a.b);
        }
        rc = velt_search(obj, f, low.data(), high.data(), &first, &col);
        if (rc == VEL_S_NOTFOUND)
            rc = VELT_OK;
        if (rc == VELT_OK)
            std::printf("# search %s..%s: %llu elements\n", a.a.c_str(), a.b.c_str(),
                        static_cast<unsigned long long>(col.n));
    }
    if (rc == VELT_OK)
        print_rows(first, col);
    velt_column_free(&col);
    return rc == VELT_OK ? 0 : host_failure(a.name.c_str(), rc);
}

int run(int argc, char **argv) {
    Options o;
    int rc = parse_args(argc, argv, o);
    if (rc >= 0)
        return rc;

    FILE *in = o.file == "-" ? stdin : std::fopen(o.file.c_str(), "rb");
    if (in == nullptr) {
        std::fprintf(stderr, "velseq: cannot read %s: %s\n", o.file.c_str(), std::strerror(errno));
        return kExitIo;
    }
    velt_column_t col;
    velt_error_t err{};
    const velt_csv_options_t copt{o.column, o.header ? 1 : 0};
    rc = velt_csv_read(in, o.type, &copt, &col, &err);
    if (in != stdin)
        std::fclose(in);
    if (rc != VELT_OK) {
        velt_column_free(&col);
        std::fprintf(stderr, "velseq: %s: %s\n", o.file.c_str(), err.message);
        return rc == VELT_E_IO ? kExitIo : rc == VELT_E_PARSE ? kExitData : kExitModule;
    }

    Db d;
    if ((rc = open_db(o, d)) >= 0) {
        velt_column_free(&col);
        return rc;
    }
    rc = velt_append_column(&d.obj, &d.field, &col, &err);
    const uint64_t loaded = col.n;
    velt_column_free(&col);
    if (rc != VELT_OK) {
        std::fprintf(stderr, "velseq: %s: %s\n", o.file.c_str(), err.message);
        return rc == VEL_E_SEQ_OUT_OF_ORDER || rc == VEL_E_SEQ_NULL_VALUE ? kExitData : kExitModule;
    }
    // Actions read the committed field in a read-only transaction.
    const uint64_t oid = d.obj.oid;
    const uint16_t cls = d.obj.class_code;
    if ((rc = velh_commit(d.con)) != VEL_S_OK)
        return host_failure("commit", rc);
    if ((rc = velh_begin(d.con, VELH_READ_ONLY)) != VEL_S_OK ||
        (rc = velh_obj_open(d.con, cls, oid, &d.obj)) != VEL_S_OK)
        return host_failure("reopening the object", rc);
    if (o.actions.empty())
        std::printf("loaded %llu values\n", static_cast<unsigned long long>(loaded));
    for (const Action &a : o.actions) {
        std::fflush(stdout);
        if ((rc = run_action(o, d, a)) != 0)
            return rc;
    }
    velh_rollback(d.con);
    return std::fflush(stdout) == 0 ? 0 : kExitIo;
}

} // namespace

int main(int argc, char **argv) { return run(argc, argv); }
