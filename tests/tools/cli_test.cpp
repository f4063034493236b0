// The velseq program run as a child process on files the tests write: its
// answers against a brute-force model of random tables, and every bad input
// with its exit code and message.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "velseq/datetime.h"

namespace {

struct Result {
    int code = -1;
    std::string out, err;
};

std::string shell_quote(const std::string &s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class Cli : public ::testing::Test {
  protected:
    // ctest runs tests in parallel: every file carries the test's name.
    std::string dir = ::testing::TempDir() + "velseq_cli_" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_";

    std::string file(const std::string &name, const std::string &text) {
        const std::string path = dir + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // Runs the program; "@name" in args stands for the file `name` written
    // by the test, and `in` names a file for standard input.
    Result run(std::vector<std::string> args, const std::string &in = "") {
        const std::string out = dir + "stdout", err = dir + "stderr";
        std::string cmd = shell_quote(VELSEQ_CLI);
        for (std::string &a : args) {
            if (!a.empty() && a[0] == '@')
                a = dir + a.substr(1);
            cmd.append(" ").append(shell_quote(a));
        }
        if (!in.empty())
            cmd.append(" <").append(shell_quote(dir + in));
        cmd.append(" >").append(shell_quote(out)).append(" 2>").append(shell_quote(err));
        const int status = std::system(cmd.c_str());
        Result r;
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }
};

// ---- answers against a model ------------------------------------------------

std::string iso(int64_t ns) {
    char b[VEL_DT_TEXT_MAX];
    return std::string(b, vel_dt_format(vel_dt_from_ns(ns), b, sizeof b));
}

std::string num(double v) {
    char b[32];
    return std::string(b, std::to_chars(b, b + sizeof b, v).ptr);
}

// The random table: ascending times with duplicates and gaps, a double
// column and an int column with nulls.
struct Model {
    std::vector<int64_t> t;
    std::vector<std::optional<double>> x;
    std::vector<std::optional<int64_t>> n;

    std::string csv() const {
        std::string s = "t,x,n\n";
        for (size_t i = 0; i < t.size(); i++)
            s += iso(t[i]) + "," + (x[i] ? num(*x[i]) : "") + "," +
                 (n[i] ? std::to_string(*n[i]) : "") + "\n";
        return s;
    }
    std::string row(size_t i) const {
        return iso(t[i]) + "," + (x[i] ? num(*x[i]) : "") + "," +
               (n[i] ? std::to_string(*n[i]) : "");
    }
    // First position with time >= v.
    size_t lower(int64_t v) const { return std::lower_bound(t.begin(), t.end(), v) - t.begin(); }
};

Model random_model(std::mt19937_64 &rng, size_t rows) {
    Model m;
    int64_t now = 1709510400LL * VEL_DT_NS_PER_SEC; // 2024-03-04
    for (size_t i = 0; i < rows; i++) {
        const int r = int(rng() % 10);
        now += r == 0 ? 0 : r == 1 ? 3600 * VEL_DT_NS_PER_SEC : int64_t(rng() % 5000) * 1000000;
        m.t.push_back(now);
        m.x.push_back(rng() % 7 == 0
                          ? std::nullopt
                          : std::optional<double>(double(int64_t(rng() % 20001) - 10000) / 64.0));
        m.n.push_back(rng() % 5 == 0 ? std::nullopt
                                     : std::optional<int64_t>(int64_t(rng() % 2001) - 1000));
    }
    return m;
}

std::vector<std::string> lines(const std::string &s) {
    std::vector<std::string> out;
    std::stringstream ss(s);
    for (std::string l; std::getline(ss, l);)
        out.push_back(l);
    return out;
}

std::vector<std::string> cells(const std::string &line) {
    std::vector<std::string> out;
    std::stringstream ss(line);
    for (std::string c; std::getline(ss, c, ',');)
        out.push_back(c);
    if (!line.empty() && line.back() == ',')
        out.push_back("");
    return out;
}

// count, nulls, min, max, mean, first, last of column values as the program prints them.
template <class T> std::vector<std::string> model_stats(const std::vector<std::optional<T>> &v) {
    uint64_t count = 0;
    double sum = 0;
    std::optional<T> lo, hi, first, last;
    for (const auto &e : v) {
        if (!e)
            continue;
        count++;
        sum += double(*e);
        lo = lo ? std::min(*lo, *e) : *e;
        hi = hi ? std::max(*hi, *e) : *e;
        first = first ? first : e;
        last = e;
    }
    auto f = [](const std::optional<T> &e) {
        if (!e)
            return std::string();
        if constexpr (std::is_same_v<T, double>)
            return num(*e);
        else
            return std::to_string(*e);
    };
    return {std::to_string(count),
            std::to_string(v.size() - count),
            f(lo),
            f(hi),
            count ? num(sum / double(count)) : "",
            f(first),
            f(last)};
}

void expect_stats_line(const std::string &line, const std::vector<std::string> &want) {
    const std::vector<std::string> got = cells(line);
    ASSERT_EQ(got.size(), want.size() + 2) << line;
    for (size_t i = 0; i < want.size(); i++) {
        if (i == 4 && !want[i].empty()) // the mean: summed in another order
            EXPECT_NEAR(std::stod(got[i + 2]), std::stod(want[i]),
                        1e-9 * (1 + std::fabs(std::stod(want[i]))))
                << line;
        else
            EXPECT_EQ(got[i + 2], want[i]) << line << " (cell " << i + 2 << ")";
    }
}

TEST_F(Cli, AnswersMatchModel) {
    std::mt19937_64 rng(7);
    const Model m = random_model(rng, 3000);
    file("t.csv", m.csv());
    const size_t rows = m.t.size();

    // head and tail
    for (bool head : {true, false}) {
        const Result r = run({head ? "head" : "tail", "@t.csv", "-n", "7", "--format", "csv"});
        ASSERT_EQ(r.code, 0) << r.err;
        const auto got = lines(r.out);
        ASSERT_EQ(got.size(), 8u);
        EXPECT_EQ(got[0], "t,x,n");
        for (size_t i = 0; i < 7; i++)
            EXPECT_EQ(got[i + 1], m.row(head ? i : rows - 7 + i));
    }

    // windows, with stats over them, at random bounds (duplicates included)
    for (int k = 0; k < 6; k++) {
        size_t a = rng() % rows, b = rng() % rows;
        if (a > b)
            std::swap(a, b);
        const int64_t from = m.t[a], to = m.t[b] + (k % 2);
        const size_t p = m.lower(from), q = m.lower(to);
        Result r = run({"window", "@t.csv", iso(from), iso(to), "--format", "csv"});
        ASSERT_EQ(r.code, 0) << r.err;
        const auto got = lines(r.out);
        ASSERT_EQ(got.size(), q - p + 1) << iso(from) << " " << iso(to);
        for (size_t i = p; i < q; i++)
            ASSERT_EQ(got[i - p + 1], m.row(i));

        r = run({"stats", "@t.csv", "--window", iso(from), iso(to), "--cols", "x,n", "--format",
                 "csv"});
        ASSERT_EQ(r.code, 0) << r.err;
        const auto st = lines(r.out);
        ASSERT_EQ(st.size(), 3u);
        expect_stats_line(st[1], model_stats(std::vector<std::optional<double>>(m.x.begin() + p,
                                                                                m.x.begin() + q)));
        expect_stats_line(st[2], model_stats(std::vector<std::optional<int64_t>>(m.n.begin() + p,
                                                                                 m.n.begin() + q)));
    }

    // resample into 10-minute and weekly buckets (weeks aligned on 1970-01-01)
    for (const auto &[every, secs] :
         {std::pair<const char *, int64_t>{"10m", 600}, {"1w", 7 * 86400}}) {
        const int64_t w = secs * VEL_DT_NS_PER_SEC;
        std::map<int64_t, std::vector<std::optional<double>>> buckets;
        for (size_t i = 0; i < rows; i++)
            buckets[m.t[i] / w * w].push_back(m.x[i]);
        const Result r = run({"resample", "@t.csv", every, "--cols", "x", "--format", "csv"});
        ASSERT_EQ(r.code, 0) << r.err;
        const auto got = lines(r.out);
        ASSERT_EQ(got[0], "start,x.first,x.max,x.min,x.last,x.count,x.mean");
        ASSERT_EQ(got.size(), buckets.size() + 1);
        size_t i = 1;
        for (const auto &[start, v] : buckets) {
            const auto s = model_stats(v); // count nulls min max mean first last
            const auto c = cells(got[i++]);
            ASSERT_EQ(c.size(), 7u) << got[i - 1];
            EXPECT_EQ(c[0], iso(start));
            EXPECT_EQ((std::vector<std::string>{c[1], c[2], c[3], c[4], c[5]}),
                      (std::vector<std::string>{s[5], s[3], s[2], s[6], s[0]}));
            if (!s[4].empty()) { // the mean skips nulls: over count, not rows
                EXPECT_NEAR(std::stod(c[6]), std::stod(s[4]),
                            1e-9 * (1 + std::fabs(std::stod(s[4]))));
            }
        }
    }

    // as-of joins of random probes, each direction, with and without a tolerance
    {
        std::vector<int64_t> probes;
        for (int i = 0; i < 200; i++)
            probes.push_back(
                m.t[0] - 10 * VEL_DT_NS_PER_SEC +
                int64_t(rng() % uint64_t(m.t.back() - m.t[0] + 20 * VEL_DT_NS_PER_SEC)));
        probes.push_back(m.t[rows / 2]); // an exact hit on a duplicated time, maybe
        std::sort(probes.begin(), probes.end());
        std::string csv = "when,id\n";
        for (size_t i = 0; i < probes.size(); i++)
            csv += iso(probes[i]) + "," + std::to_string(i) + "\n";
        file("p.csv", csv);
        for (const char *dir : {"backward", "forward", "nearest"})
            for (bool tol : {false, true}) {
                std::vector<std::string> args{"asof",     "@t.csv", "@p.csv", "--direction", dir,
                                              "--format", "csv",    "--cols", "t,x"};
                if (tol)
                    args.insert(args.end(), {"--tolerance", "2s"});
                const Result r = run(args);
                ASSERT_EQ(r.code, 0) << r.err;
                const auto got = lines(r.out);
                ASSERT_EQ(got.size(), probes.size() + 1);
                EXPECT_EQ(got[0], "when,id,t,x");
                for (size_t i = 0; i < probes.size(); i++) {
                    const int64_t p = probes[i];
                    // brute force: last time <= p, first time >= p
                    std::optional<size_t> back, fwd, pick;
                    for (size_t j = 0; j < rows; j++) {
                        if (m.t[j] <= p)
                            back = j;
                        if (m.t[j] >= p && !fwd)
                            fwd = j;
                    }
                    const std::string d = dir;
                    pick = d == "backward" ? back : d == "forward" ? fwd : back ? back : fwd;
                    if (d == "nearest" && back && fwd && m.t[*fwd] - p < p - m.t[*back])
                        pick = fwd;
                    if (pick && tol && std::llabs(m.t[*pick] - p) > 2 * VEL_DT_NS_PER_SEC)
                        pick.reset();
                    const std::string want =
                        iso(p) + "," + std::to_string(i) + "," +
                        (pick ? iso(m.t[*pick]) + "," + (m.x[*pick] ? num(*m.x[*pick]) : "")
                              : std::string(","));
                    ASSERT_EQ(got[i + 1], want) << dir << (tol ? " 2s" : "");
                }
            }
    }
}

// ---- bad input, options and formats ------------------------------------------

struct Case {
    const char *name;
    std::string text;              // written to in.csv ("" : no file written)
    std::vector<std::string> args; // @in.csv names it
    int code;
    std::string out; // exact standard output ("*": not checked)
    std::string err; // part of standard error
};

TEST_F(Cli, BadInputAndOptions) {
    const std::string good = "time,x,n\n"
                             "2024-01-01T00:00:00Z,1.5,3\n"
                             "2024-01-01T00:00:01Z,,4\n"
                             "2024-01-01T00:00:01Z,2.25,\n"; // a duplicate time: kept
    std::string big_line = "time,x\n2024-01-01,";
    big_line.append(size_t(1) << 20, '7');
    const std::vector<Case> cases = {
        {"empty file", "\n", {"load", "@in.csv"}, 1, "", "is empty"},
        {"header only", "time,x\n", {"load", "@in.csv"}, 1, "", "header but no rows"},
        {"binary",
         std::string("time,x\n2024-01-01,1\x00\x01\x02\n", 24),
         {"load", "@in.csv"},
         1,
         "",
         "line 2 holds a NUL byte"},
        {"line over 1 MiB", big_line, {"load", "@in.csv"}, 1, "", "longer than 1 MiB"},
        {"missing file", "", {"head", "@nothing.csv"}, 1, "", "cannot read"},
        {"no subcommand", "", {}, 2, "*", ""},
        {"loaded, duplicates kept",
         good,
         {"load", "@in.csv", "--format", "csv"},
         0,
         "column,type,rows,nulls,role\ntime,datetime,3,0,time (ascending)\nx,double,3,1,\n"
         "n,int,3,1,\n",
         ""},
        {"json",
         good,
         {"head", "@in.csv", "-n", "2", "--format", "json"},
         0,
         "[\n {\"time\": \"2024-01-01T00:00:00Z\", \"x\": 1.5, \"n\": 3},\n"
         " {\"time\": \"2024-01-01T00:00:01Z\", \"x\": null, \"n\": 4}\n]\n",
         ""},
        {"aligned table",
         good,
         {"tail", "@in.csv", "-n", "1", "--format", "table"},
         0,
         "time                  x     n\n--------------------  ----  -\n"
         "2024-01-01T00:00:01Z  2.25\n",
         ""},
        {"standard input",
         good,
         {"tail", "-", "-n", "1", "--format", "csv"},
         0,
         "time,x,n\n2024-01-01T00:00:01Z,2.25,\n",
         ""},
        {"head past the end",
         good,
         {"head", "@in.csv", "-n", "5", "--format", "csv"},
         0,
         "*",
         "only 3 rows"},
        {"reversed window",
         good,
         {"window", "@in.csv", "2024-01-02", "2024-01-01"},
         2,
         "",
         "reversed"},
        {"window past the end",
         good,
         {"window", "@in.csv", "2024-02-01", "2024-03-01", "--format", "csv"},
         0,
         "time,x,n\n",
         "starts after the last row (2024-01-01T00:00:01Z)"},
        {"window before the start",
         good,
         {"stats", "@in.csv", "--window", "2023-01-01", "2023-02-01", "--format", "csv"},
         0,
         "*",
         "ends before the first row"},
        {"bad window bound",
         good,
         {"window", "@in.csv", "yesterday", "2024-01-01"},
         2,
         "",
         "'yesterday' is not a date"},
        {"unknown column",
         good,
         {"head", "@in.csv", "--cols", "x,nope"},
         2,
         "",
         "no column 'nope'"},
        {"unknown type",
         good,
         {"load", "@in.csv", "--type", "x=float"},
         2,
         "",
         "types are int, double"},
        {"bad duration",
         good,
         {"resample", "@in.csv", "1fortnight"},
         2,
         "",
         "not a positive duration"},
        {"time out of order",
         "time,x\n2024-01-02,1\n2024-01-03,2\n2024-01-01,3\n",
         {"load", "@in.csv"},
         3,
         "",
         "line 4: column time: time before that of line 3"},
        {"sorted with --sort",
         "time,x\n2024-01-02,1\n2024-01-03,2\n2024-01-01,3\n",
         {"head", "@in.csv", "--sort", "--format", "csv"},
         0,
         "time,x\n2024-01-01T00:00:00Z,3\n2024-01-02T00:00:00Z,1\n2024-01-03T00:00:00Z,2\n",
         ""},
        {"NaN in a number column",
         "time,x\n2024-01-01,1\n2024-01-02,nan\n",
         {"load", "@in.csv"},
         3,
         "",
         "line 3: column x: 'nan' is NaN or infinite"},
        {"text in a number column",
         "time,x\n2024-01-01,1\n2024-01-02,abc\n",
         {"load", "@in.csv", "--type", "x=double"},
         3,
         "",
         "line 3: column x: 'abc' is not a number"},
        {"empty time cell",
         "time,x\n2024-01-01,1\n,2\n",
         {"load", "@in.csv"},
         3,
         "",
         "line 3: column time: the time column has an empty cell"},
        {"ragged row skipped",
         "time,x\n2024-01-01,1\n2024-01-02,2,9\n2024-01-03,3\n",
         {"stats", "@in.csv", "--skip-bad", "--cols", "x", "--format", "csv"},
         0,
         "column,type,count,nulls,min,max,mean,first,last\nx,int,2,0,1,3,2,1,3\n",
         "skipped"},
        {"ragged row refused",
         "time,x\n2024-01-01,1\n2024-01-02,2,9\n",
         {"load", "@in.csv"},
         3,
         "",
         "line 3: 3 cells where the header has 2"},
        {"YYYYMMDD dates, empty cells",
         "date,value\n19580329,315.71\n19580405,\n19580412,317.69\n",
         {"stats", "@in.csv", "--format", "csv"},
         0,
         "column,type,count,nulls,min,max,mean,first,last\n"
         "date,datetime,3,0,1958-03-29T00:00:00Z,1958-04-12T00:00:00Z,,1958-03-29T00:00:00Z,"
         "1958-04-12T00:00:00Z\nvalue,double,2,1,315.71,317.69,316.7,315.71,317.69\n",
         ""},
        {"epoch milliseconds, no header",
         "1700000000000,5\n1700000000250,6\n",
         {"tail", "@in.csv", "--columns", "ms,v", "--epoch", "ms", "-n", "1", "--format", "csv"},
         0,
         "ms,v\n2023-11-14T22:13:20.250Z,6\n",
         ""},
        {"quoted cells",
         "time,name\n2024-01-01,\"a, \"\"b\"\"\"\n2024-01-02,\"\"\n",
         {"head", "@in.csv", "--format", "csv"},
         0,
         "time,name\n2024-01-01T00:00:00Z,\"a, \"\"b\"\"\"\n2024-01-02T00:00:00Z,\"\"\n",
         ""},
        {"byte order mark",
         "\xEF\xBB\xBFtime,x\n2024-01-01,1\n",
         {"head", "@in.csv", "--cols", "time", "--format", "csv"},
         0,
         "time\n2024-01-01T00:00:00Z\n",
         ""},
        {"no time column",
         "a,b\n1,2\n",
         {"resample", "@in.csv", "1h"},
         2,
         "",
         "has none (name one with --time)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.text.empty())
            file("in.csv", c.text);
        const bool stdin_case = std::find(c.args.begin(), c.args.end(), "-") != c.args.end();
        const Result r = run(c.args, stdin_case ? "in.csv" : "");
        EXPECT_EQ(r.code, c.code) << r.err;
        if (c.out != "*") {
            EXPECT_EQ(r.out, c.out);
        }
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        std::remove((dir + "in.csv").c_str());
    }
}

// ---- database images -------------------------------------------------------------

TEST_F(Cli, DatabaseImageAnswersAsTheCsv) {
    std::mt19937_64 rng(11);
    const Model m = random_model(rng, 2000);
    file("t.csv", m.csv());
    Result r = run({"load", "@t.csv", "--db", "@t.vdb", "--format", "csv"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("2000 rows saved"), std::string::npos) << r.err;
    const std::vector<std::vector<std::string>> questions = {
        {"head", "-n", "20"}, {"tail"}, {"window", iso(m.t[100]), iso(m.t[900])}, {"stats"},
        {"resample", "1h"},   {"tree"}};
    for (const auto &q : questions) {
        std::vector<std::string> from_csv = q, from_db = q;
        from_csv.insert(from_csv.begin() + 1, "@t.csv");
        from_db.insert(from_db.end(), {"--db", "@t.vdb"});
        from_csv.insert(from_csv.end(), {"--format", "csv"});
        from_db.insert(from_db.end(), {"--format", "csv"});
        const Result a = run(from_csv), b = run(from_db);
        EXPECT_EQ(a.code, 0) << q[0] << ": " << a.err;
        EXPECT_EQ(b.code, 0) << q[0] << ": " << b.err;
        EXPECT_EQ(a.out, b.out) << q[0];
    }
    // Files that are no table image: refused with exit 1, never a crash.
    const std::string image = slurp(dir + "t.vdb");
    file("cut.vdb", image.substr(0, image.size() / 2));
    file("text.vdb", "time,x\n2024-01-01,1\n");
    for (const char *bad : {"@cut.vdb", "@text.vdb", "@none.vdb"}) {
        r = run({"head", "--db", bad});
        EXPECT_EQ(r.code, 1) << bad;
        EXPECT_NE(r.err.find("cannot open"), std::string::npos) << r.err;
    }
    r = run({"head", "@t.csv", "--db", "@t.vdb"});
    EXPECT_EQ(r.code, 2);
    r = run({"load", "@t.csv", "--db", "@no/such/folder/t.vdb"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("cannot save"), std::string::npos) << r.err;
}

} // namespace
