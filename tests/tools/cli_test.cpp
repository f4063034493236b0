// The velseq program run as a child process on files the tests write: its
// answers, every bad input with its exit code and message, and an image with
// a log (written through the C++ API) read, and recovered when damaged.  The
// answers themselves are the table layer's, checked against a model in
// tests/table; here each command's own part (bounds, buckets, directions,
// formats) is checked on small tables.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "model.h"
#include "velseq/image.hpp"

namespace {

// A call of the program: what it is given, and its exit code and outputs,
// expected (standard error: a part of it) or got.
struct Call {
    std::string text; // written to in.csv ("": no file)
    std::string args; // words; @in.csv names the file, "-" reads it from standard input
    int code;
    std::string out, err;
};

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class Cli : public ::testing::Test {
  protected:
    // ctest runs tests in parallel, and other builds may run them at the same
    // time: every test has a folder of its own, named after it and the process id.
    std::string dir = ::testing::TempDir() + "velseq_cli_" + std::to_string(::getpid()) + "_" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name() + "/";
    void SetUp() override { std::filesystem::create_directories(dir); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    void file(const std::string &name, const std::string &text) {
        std::ofstream(dir + name, std::ios::binary) << text;
    }
    // Runs the program with the words of `args`, where "@name" stands for
    // the test's file `name`; a word "-" reads in.csv from standard input.
    Call run(const std::string &args) {
        // Appended piece by piece: gcc 12 at -O3 takes `"literal" + string`
        // for an overlapping copy (-Wrestrict).
        std::string cmd = quote(VELSEQ_CLI);
        std::istringstream words(args);
        for (std::string a; words >> a;)
            cmd.append(" ").append(quote(a[0] == '@' ? dir + a.substr(1) : a));
        if (args.find(" - ") != std::string::npos)
            cmd.append(" <").append(quote(dir + "in.csv"));
        cmd.append(" >").append(quote(dir + "stdout")).append(" 2>").append(quote(dir + "stderr"));
        const int status = std::system(cmd.c_str());
        return {"", args, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                slurp(dir + "stdout"), slurp(dir + "stderr")};
    }
    // Runs the cases in turn (csv: standard output is no terminal).
    void check(const std::vector<Call> &cases) {
        for (const Call &c : cases) {
            SCOPED_TRACE(c.args);
            if (!c.text.empty())
                file("in.csv", c.text);
            const Call r = run(c.args);
            EXPECT_EQ(r.code, c.code) << r.err;
            EXPECT_EQ(r.out, c.out);
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
            std::remove((dir + "in.csv").c_str());
            EXPECT_FALSE(c.code != 0 && std::remove((dir + "in.vdb").c_str()) == 0); // no image
        }
    }
};

// ---- bad input, options and formats ------------------------------------------

TEST_F(Cli, BadInputAndOptions) {
    const std::string good = "time,x,n\n"
                             "2024-01-01T00:00:00Z,1.5,3\n"
                             "2024-01-01T00:00:01Z,,4\n"
                             "2024-01-01T00:00:01Z,2.25,\n"; // a duplicate time: kept
    const std::string unsorted = "time,x\n2024-01-02,1\n2024-01-03,2\n\n2024-01-01,3\n";
    // A time before the last of the first batch of 65536 rows, as the next
    // batch's first row (line 65538), which the stored rows refuse.
    std::string late = "time,x\n";
    for (int i = 0; i < 65536; i++)
        late += "2024-01-02,1\n";
    late += "2024-01-01,2\n";
    const std::string big_line = "time,x\n2024-01-01," + std::string(size_t(1) << 20, '7');
    file("p.csv", "when\n2024-01-01T00:00:00.6Z\n");
    file("q.csv", "when,sym\n20240103,A\n20240103,\n20240105,A\n20240105,B\n20240105,C\n");
    check({
        // hostile files and cells: refused with the line and column, nothing cut or misread
        {"\n", "load @in.csv", 1, "", "is empty"},
        {"time,x\n", "load @in.csv", 1, "", "header but no rows"},
        {std::string("time,x\n2024-01-01,1\x00\x01\x02\n", 24), "load @in.csv", 1, "",
         "line 2 holds a NUL byte"},
        {big_line, "load @in.csv", 1, "", "longer than 1 MiB"},
        {"", "head @nothing.csv", 1, "", "cannot read"},
        {"time," + std::string(70000, 'y') + "\n2024-01-01,1\n", "load @in.csv --db @in.vdb", 3, "",
         "in.csv: column 2 ('yyyyyyyyyyyyyyyyyyyyyyyy...') has a name of 70000 bytes"},
        {"time,x\n2024-01-01,1\n2024-01-02,2,9\n", "load @in.csv", 3, "",
         "line 3: 3 cells where the header has 2"},
        {"time,x\n2024-01-01,1\n2024-01-02,nan\n", "load @in.csv", 3, "",
         "line 3: column x: 'nan' is NaN or infinite"},
        {"time,x\n2024-01-01,1\n2024-01-02,abc\n", "load @in.csv --type x=double", 3, "",
         "line 3: column x: 'abc' is not a number"},
        {"time,x\n2024-01-01,1\n,2\n", "load @in.csv", 3, "",
         "line 3: column time: the time column has an empty cell"},
        {"time,x\n2024-01-01,1\n2024-13-01,2\n", "load @in.csv", 3, "",
         "line 3: column time: '2024-13-01' is not a date or time"},
        {"date,x\n20240101,1\n20240230,2\n", "load @in.csv", 3, "", "line 3: column date:"},
        {"date,v\n2262-04-11,1\n", "window @in.csv 16770921 2262-04-12", 2, "",
         "'16770921' is not a date"},
        {good, "window @in.csv yesterday 2024-01-01", 2, "", "'yesterday' is not a date"},
        {good, "resample @in.csv 1M --utc-offset +25:00", 2, "", "not a UTC offset"},
        {good, "load @in.csv --db @no/such/folder/t.vdb", 1, "", "cannot save"},
        {good, "head @in.csv -n 2 --format json", 0,
         "[\n {\"time\": \"2024-01-01T00:00:00Z\", \"x\": 1.5, \"n\": 3},\n"
         " {\"time\": \"2024-01-01T00:00:01Z\", \"x\": null, \"n\": 4}\n]\n",
         ""},
        {good, "tail @in.csv -n 1 --format table", 0,
         "time                  x     n\n--------------------  ----  -\n"
         "2024-01-01T00:00:01Z  2.25\n",
         ""},
        {good, "tail - -n 1 --format csv", 0, "time,x,n\n2024-01-01T00:00:01Z,2.25,\n", ""},
        {unsorted, "load @in.csv", 3, "", "line 5: column time: time before that of line 3"},
        {late, "load @in.csv", 3, "", "line 65538: column time: time before that of line 65537"},
        {good, "resample @in.csv 1h --agg last,count,mean --format csv", 0, // mean: of the values
         "start,x.last,x.count,x.mean,n.last,n.count,n.mean\n"
         "2024-01-01T00:00:00Z,2.25,2,1.875,4,2,3.5\n",
         ""},
        // weeks counted from 1970-01-01, a Thursday
        {"time,v\n2024-01-03,1\n2024-01-04,2\n2024-01-10,3\n", "resample @in.csv 1w --agg count", 0,
         "start,v.count\n2023-12-28T00:00:00Z,1\n2024-01-04T00:00:00Z,2\n", ""},
        {good, "asof @in.csv @p.csv --direction nearest --format csv", 0,
         "when,time,x,n\n2024-01-01T00:00:00.600Z,2024-01-01T00:00:01Z,,4\n", ""},
        // a probe file told its types; --by matches within a symbol (rows and
        // probes without one match nothing) and numbers the rows of the whole table
        {"time,sym,px\n2024-01-01,A,1\n2024-01-02,,2\n2024-01-03,B,3\n2024-01-04,A,4\n",
         "asof @in.csv @q.csv --other-type when=datetime --by sym --row-numbers --format csv", 0,
         "when,sym,row,time,px\n2024-01-03T00:00:00Z,A,0,2024-01-01T00:00:00Z,1\n"
         "2024-01-03T00:00:00Z,,,,\n2024-01-05T00:00:00Z,A,3,2024-01-04T00:00:00Z,4\n"
         "2024-01-05T00:00:00Z,B,2,2024-01-03T00:00:00Z,3\n2024-01-05T00:00:00Z,C,,,\n",
         ""},
        // ISO-8601 and YYYYMMDD through one calendar: the same first and last days.
        {"date,v\n16771001,1\n1677-10-02,2\n", "window @in.csv 1677-10-01 16771002 --format csv", 0,
         "date,v\n1677-10-01T00:00:00Z,1\n", ""},
        {unsorted, "head @in.csv --sort --format csv", 0,
         "time,x\n2024-01-01T00:00:00Z,3\n2024-01-02T00:00:00Z,1\n2024-01-03T00:00:00Z,2\n", ""},
        // every aggregate, of a datetime column (no sum or mean) and of one with a null
        {"time,x\n2024-01-01,1\n2024-01-02,2,9\n2024-01-03,3\n2024-01-04,\n",
         "stats @in.csv --skip-bad --format csv", 0,
         "column,type,count,nulls,sum,min,max,mean,first,last,argmin,argmax,argmin_time,"
         "argmax_time\ntime,datetime,3,0,,2024-01-01T00:00:00Z,2024-01-04T00:00:00Z,,"
         "2024-01-01T00:00:00Z,2024-01-04T00:00:00Z,0,2,2024-01-01T00:00:00Z,2024-01-04T00:00:00Z\n"
         "x,int8,2,1,4,1,3,2,1,3,0,1,2024-01-01T00:00:00Z,2024-01-03T00:00:00Z\n",
         "skipped 1 bad line (first: line 3: 3 cells where the header has 2)"},
        {"1700000000000,5\n1700000000250,6\n",
         "tail @in.csv --columns ms,v --epoch ms -n 1 --format csv", 0,
         "ms,v\n2023-11-14T22:13:20.250Z,6\n", ""},
        {"time,name\n2024-01-01,\"a, \"\"b\"\"\"\n2024-01-02,\"\"\n", "head @in.csv --format csv",
         0, "time,name\n2024-01-01T00:00:00Z,\"a, \"\"b\"\"\"\n2024-01-02T00:00:00Z,\"\"\n", ""},
        {"\xEF\xBB\xBFtime,x\n2024-01-01,1\n", "head @in.csv --cols time --format csv", 0,
         "time\n2024-01-01T00:00:00Z\n", ""},
        {"time,\"x\ny\"\n2024-01-01,1\n", "load @in.csv --db @in.vdb", 3, "",
         "line 1: column 2 ('x\ny') has a control character"},
        // a stray quote does not merge the rows after it; a bad date is no text column
        {"time,x,t\n2024-01-01,1,a\n2024-01-02,2,b\"c\n2024-01-03,3,d\n2024-01-04,4,e\"f\n",
         "load @in.csv", 3, "",
         "line 3: unterminated quote, text after a closing quote, or a quote inside"},
        {"time,x\n2024-01-01,1\n2024-13-01,2\n", "load @in.csv --type time=text --format csv", 0,
         "column,type,rows,nulls,role\ntime,char(32),2,0,\nx,int8,2,0,\n", ""},
        // calendar buckets, at local midnight of an offset
        {"date,v\n19991231,1\n20000101,2\n20000331,3\n20000401,4\n20000403,5\n",
         "resample @in.csv 1Q --agg count,sum --format csv", 0,
         "start,v.count,v.sum\n1999-10-01T00:00:00Z,1,1\n2000-01-01T00:00:00Z,2,5\n"
         "2000-04-01T00:00:00Z,2,9\n",
         ""},
        {"time,v\n2024-01-01T04:59Z,1\n2024-01-01T05:00Z,2\n2024-01-07T06:00Z,3\n2024-01-08T05:00Z,"
         "4\n",
         "resample @in.csv 1W-SUN --utc-offset -05:00 --agg count --format csv", 0,
         "start,v.count\n2023-12-31T05:00:00Z,2\n2024-01-07T05:00:00Z,2\n", ""},
        // time from fields; stats with positions and their times
        {"year,month,v\n1700,2,1\n1700,3,2\n2000,2,3\n",
         "head @in.csv --time year,month --cols time,v", 0,
         "time,v\n1700-02-01T00:00:00Z,1\n1700-03-01T00:00:00Z,2\n2000-02-01T00:00:00Z,3\n", ""},
        {"year,quarter,v\n1947,Q1,1\n1947,2,2\n1948,Q3,3\n",
         "head @in.csv --time year,quarter --cols time", 0,
         "time\n1947-01-01T00:00:00Z\n1947-04-01T00:00:00Z\n1948-07-01T00:00:00Z\n", ""},
        // a column of years is the time; centuries counted from 1970, the first
        // beginning before the first instant a datetime holds
        {"year,v\n1700,1\n1769,2\n1770,3\n1969,4\n1970,5\n", "resample @in.csv 100Y --agg count", 0,
         "start,v.count\n1677-09-21T00:12:43.145224192Z,2\n1770-01-01T00:00:00Z,1\n"
         "1870-01-01T00:00:00Z,1\n1970-01-01T00:00:00Z,1\n",
         ""},
        {"year,month,v\n1700,13,1\n", "load @in.csv --time year,month", 3, "",
         "line 2: columns year,month: 1700-13-1 is no calendar day"},
        {"year,v\n1700,5\n1701,7\n1702,6\n", "stats @in.csv --cols v --agg argmax,argmax_time", 0,
         "column,type,argmax,argmax_time\nv,int8,1,1701-01-01T00:00:00Z\n", ""},
    });
}

// ---- images cross between the program and the table layer ---------------------

using namespace model; // array_of, and tbl for velseq::table

// Tables written through the table layer, of other types and several to an
// image, are read by the program, which chooses one with --table.  (The
// program saves its tables through the same table layer, whose images the
// Python package's file tests read back.)
TEST_F(Cli, ImagesCross) {
    { // quotes: its time column the one ascending (not the first); other: the
      // ascending datetime rather than the first ascending column
        velseq::database db;
        const auto type = [](const char *n) { return *tbl::type_by_name(n); };
        const tbl::table_info q = tbl::define_table(db.get(), "quotes",
                                                    {{"px", type("float")},
                                                     {"tag", type("char(8)")},
                                                     {"k", type("int4"), VEL_SEQ_ASC_ORDER}});
        const tbl::table_info o = tbl::define_table(db.get(), "other",
                                                    {{"seq", type("int8"), VEL_SEQ_ASC_ORDER},
                                                     {"t", type("datetime"), VEL_SEQ_ASC_ORDER},
                                                     {"v", type("double")}});
        const auto at = [](int64_t s, int64_t ns = 0) { // after 2024-01-01
            return vel_dt_from_ns((1704067200 + s) * VEL_DT_NS_PER_SEC + ns);
        };
        const std::vector<tbl::array> rows[] = {
            {array_of<float>({0.1f, std::nullopt, 2.5f, -0.25f, 7.0f}, type("float")),
             array_of<std::string>({"a", "bb", std::nullopt, "abcdefgh", "x"}, type("char(8)")),
             array_of<int32_t>({1, 2, 2, 5, 9}, type("int4"))},
            {array_of<int64_t>({1, 2, 3}, type("int8")),
             array_of<vel_datetime>({at(0), at(1800), at(3600, 1)}, type("datetime")),
             array_of<double>({1.5, 2.5, std::nullopt}, type("double"))},
        };
        velseq::connection con(db);
        velseq::transaction tx(con, velseq::transaction::write);
        for (const tbl::table_info *t : {&q, &o}) {
            vel_objhandle_t h{};
            ASSERT_EQ(velh_obj_create(con.get(), t->code, &h), VEL_S_OK);
            for (uint16_t c = 0; c < 3; c++)
                tbl::append(tbl::column_of(h, db.get(), *t, c), rows[t == &o][c]);
        }
        tx.commit();
        velseq::save_image(db, dir + "q.vdb");
    }
    check({
        {"", "head --db @q.vdb --table quotes", 0,
         "px,tag,k\n0.1,a,1\n,bb,2\n2.5,,2\n-0.25,abcdefgh,5\n7,x,9\n", ""},
        {"", "stats --db @q.vdb --table quotes --agg count,nulls,min,max,mean,first,last", 0,
         // the mean of the floats as doubles: 0.1f is 0.100000001490116...
         "column,type,count,nulls,min,max,mean,first,last\npx,float,4,1,-0.25,7,2.337500000372529,"
         "0.1,7\ntag,char(8),4,1,a,x,,a,x\nk,int4,5,0,1,9,3.8,1,9\n",
         ""},
        {"", "window --db @q.vdb --table quotes 2 5 --cols k,tag", 0, "k,tag\n2,bb\n2,\n", ""},
        {"", "resample --db @q.vdb --table other 1h --agg sum,argmax", 0,
         "start,seq.sum,seq.argmax,v.sum,v.argmax\n2024-01-01T00:00:00Z,3,1,4,1\n"
         "2024-01-01T01:00:00Z,3,2,0,\n",
         ""},
        {"", "head --db @q.vdb", 2, "",
         "holds 2 tables: name one with --table (tables: quotes, other)"},
        {"", "head --db @q.vdb --table nope", 2, "", "no table 'nope'"},
    });
}

// ---- an image with the commit log that follows it ---------------------------------

// Answers read the files without changing them (a torn tail is left where it
// is); damage before the last record refuses the open, and --recover opens
// the rows before it and sets the rest aside.
TEST_F(Cli, ImageWithLog) {
    file("t.csv", "time,x\n2024-01-01,0\n");
    ASSERT_EQ(run("load @t.csv --db @t.vdb").code, 0);
    { // a row per commit through the log, as an application that keeps the table would
        velseq::config cfg;
        const std::string log = dir + "t.log";
        cfg.log_path = log.c_str();
        auto db = velseq::open_image(dir + "t.vdb", cfg);
        velseq::schema s("t");
        auto time = s.seq<velseq::datetime>("time", velseq::order::ascending);
        auto x = s.seq<int64_t>("x");
        velseq::attach(*db, s, 1);
        velseq::connection con(*db);
        for (int64_t i = 1; i <= 4; i++) {
            velseq::transaction tx(con, velseq::transaction::write);
            velseq::object o = tx.open(s, 1); // the table's object, the first of its database
            o[time].append({velseq::datetime::parse("2024-01-01") + std::chrono::hours(24 * i)});
            o[x].append({i});
            tx.commit();
        }
    }
    const std::string good = slurp(dir + "t.log"), tail = "tail --db @t.vdb --log @t.log -n 1";
    file("t.log", good + "VLRC\2");
    check({{"", tail, 0, "time,x\n2024-01-05T00:00:00Z,4\n",
            "t.log: left out a torn tail of 1 record (5 bytes) (read-only"}});
    EXPECT_TRUE(slurp(dir + "t.log") == good + "VLRC\2");
    uint64_t first = 0; // body bytes of the first record, after the 64-byte header
    std::memcpy(&first, good.data() + 64 + 8, 8);
    const size_t at = 64 + 24 + first;
    std::string bad = good;
    bad[at + 30] ^= 1;
    file("t.log", bad);
    check({{"", tail, 1, "", "opens with --recover)"}, // VEL_E_HOST_BAD_LOG
           {"", tail + " --recover", 0, "time,x\n2024-01-02T00:00:00Z,1\n",
            " from there to " + dir + "t.log.damaged-" + std::to_string(at)}});
}

} // namespace

// ---- Parquet out and back in (DuckDB's library) --------------------------------

TEST_F(Cli, ParquetOutAndBackIn) {
    setenv("VELSEQ_DUCKDB", VELSEQ_DUCKDB_DEFAULT, 0);    // for the program
    const std::string lib = std::getenv("VELSEQ_DUCKDB"); // set now if it was not
    if (!std::ifstream(lib))
        GTEST_SKIP() << "DuckDB's library is not there: run scripts/fetch-duckdb.sh";
    const std::string rows = "2024-01-31T23:59:59.999999999Z,1.5,AB\n2024-02-01T00:00:00Z,,CD\n"
                             "2024-02-03T10:00:00.000000001Z,3.25,\n2024-03-01T00:00:00Z,-2,E\n";
    file("t.csv", "time,price,sym\n" + rows);
    ASSERT_EQ(run("load @t.csv --db @t.vdb").code, 0);
    // Months end at their last nanosecond; everything comes back.
    check({
        {"", "export --db @t.vdb --parquet @all --partition month", 0, "", ""},
        {"", "import @all --db @all.vdb", 0, "", ""},
        {"", "head --db @all.vdb --format csv", 0, "time,price,sym\n" + rows, ""},
        {"",
         "export --db @t.vdb --parquet @out --partition object,month --window 2024-02-01 "
         "2024-03-01",
         0, "", ""},
        {"", "import @out --db @back.vdb --table t", 0, "", ""},
        {"", "head --db @back.vdb --format csv", 0,
         "time,price,sym\n2024-02-01T00:00:00Z,,CD\n2024-02-03T10:00:00.000000001Z,3.25,\n", ""},
    });
    EXPECT_TRUE(std::ifstream(dir + "out/oid=1/month=2024-02/data.parquet"));
    EXPECT_FALSE(std::ifstream(dir + "out/oid=1/month=2024-01/data.parquet"));
    // Without the library: its own exit code, and how to get it.
    setenv("VELSEQ_DUCKDB", "/nonexistent/libduckdb.so", 1);
    check({{"", "export --db @t.vdb --parquet @o3", 4, "", "fetch-duckdb.sh"}});
    setenv("VELSEQ_DUCKDB", lib.c_str(), 1);
}
