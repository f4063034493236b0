// The velseq program run as a child process: exit codes and messages of bad
// command lines and bad data, and the output of the actions.
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "tools_fixture.h"

namespace vttest {
namespace {

struct Result {
    int code = -1;
    std::string out, err;
};

std::string quoted(const std::string &s) {
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
    // ctest runs the tests of this suite in parallel: every file carries the
    // test's name.
    std::string dir = ::testing::TempDir() + "velseq_cli_" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_";

    std::string file(const std::string &name, const std::string &text) {
        const std::string path = dir + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    Result run(const std::vector<std::string> &args) {
        const std::string out = dir + "stdout", err = dir + "stderr";
        std::string cmd = quoted(VELSEQ_CLI);
        // Appended piece by piece: gcc 12 at -O3 takes " " + std::string for
        // an overlapping memcpy (-Wrestrict).
        for (const std::string &a : args)
            cmd.append(" ").append(quoted(a));
        cmd.append(" >").append(quoted(out)).append(" 2>").append(quoted(err));
        const int status = std::system(cmd.c_str());
        Result r;
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }
};

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Exit codes: 2 for a bad command line, 1 for an unreadable file, 3 for bad
// data (named by its line); no action runs after an error.
TEST_F(Cli, ErrorsExitWithTheirCodeAndMessage) {
    Result help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(has(help.out, "usage: velseq")) << help.out;
    EXPECT_TRUE(help.err.empty());

    const std::string csv = file("ints.csv", "1\n2\n");
    struct Case {
        std::vector<std::string> args;
        int code;
        const char *message;
    } cases[] = {
        {{"--type", "int9", csv}, 2, "unknown type 'int9'"},
        {{csv}, 2, "--type is required"},
        {{"--type", "int4"}, 2, "no input file"},
        {{"--type", "int4", "--page-size", "100", csv}, 2, "page size '100'"},
        {{"--type", "int4", "--page-size", "32", csv}, 2, "page size '32'"},
        {{"--type", "int4", "--frobnicate", csv}, 2, "unknown option --frobnicate"},
        {{"--type", "int4", "--search", "1", "2", csv}, 2, "needs an ordered field"},
        {{"--type", "int4", "--scan", "5", "2", csv}, 2, "FROM <= TILL"},
        {{"--type", "int4", csv, "--scan", "5"}, 2, "takes two values"},
        {{"--type", "int4", "--scan", "5", csv}, 2, "no input file"}, // the file became TILL
        {{"--type", "int4", "--asc", "--search", "1", "x", csv},
         2,
         "not values of the field's type"},
        {{"--type", "char(40)", csv}, 2, "up to N = 32"},
        {{"--type", "int4", csv, csv}, 2, "more than one input file"},
        {{"--type", "int4", dir + "no_such_file.csv"}, 1, "cannot read"},
        {{"--type", "uint1", file("bad.csv", "1\n2\n300\n")},
         3,
         "line 3: \"300\" is not a valid uint1"},
        {{"--type", "int8", "--ordered", "--stats", file("ooo.csv", "1\n5\n9\n7\n")},
         3,
         "line 4: 7 after 9 breaks the ascending order (module: 700 VEL_E_SEQ_OUT_OF_ORDER)"},
        {{"--type", "int8", "--desc", file("desc.csv", "9\n9\n10\n")},
         3,
         "line 3: 10 after 9 breaks the descending order"},
        {{"--type", "double", "--ordered", "--header", file("null.csv", "x\n1\n\n2\n")},
         3,
         "line 3: null cell in an ordered field"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message);
        Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_TRUE(has(r.err, c.message)) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

TEST_F(Cli, StatsAndSearchOnAnOrderedField) {
    std::string csv;
    for (int i = 0; i <= 1000; i++)
        csv += std::to_string(i) + "\n";
    Result r = run(
        {"--type", "int8", "--ordered", "--stats", "--search", "10", "20", file("seq.csv", csv)});
    ASSERT_EQ(r.code, 0) << r.err;
    // 1001 int8 values overflow one 4096-byte leaf (502 values).
    EXPECT_TRUE(has(r.out, "depth           2\n")) << r.out;
    EXPECT_TRUE(has(r.out, "elements        1001 (0 null)\n")) << r.out;
    std::string rows;
    for (int i = 10; i <= 20; i++)
        rows += std::to_string(i) + "," + std::to_string(i) + "\n";
    EXPECT_TRUE(has(r.out, "# search 10..20: 11 elements\n" + rows)) << r.out;

    r = run({"--type", "int8", "--ordered", "search", "2000", "3000", file("seq.csv", csv)});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "# search 2000..3000: 0 elements\n");
}

TEST_F(Cli, ScanDumpCheckAndExportInOrder) {
    const std::string csv = file("mixed.csv", "id,name\n1,ab\n2,\n3,\"c,d\"\n4,\"\"\n");
    const std::string out = dir + "export.csv";
    Result r = run({"load", "--type", "char(4)", "--column", "2", "--header", "--page-size", "64",
                    "scan", "1", "end", "--check", "--dump", "--export", out, csv});
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string scan = "# scan 1..end: 3 elements\n1,\n2,\"c,d\"\n3,\"\"\n";
    ASSERT_TRUE(has(r.out, scan)) << r.out;
    const size_t check = r.out.find("check: ok, depth 1, 1 pages, 4 elements, 1 null\n");
    const size_t dump = r.out.find("sequence char(4), unordered, page size 64");
    EXPECT_EQ(r.out.find(scan), 0u);
    EXPECT_NE(check, std::string::npos) << r.out;
    EXPECT_LT(check, dump);
    EXPECT_TRUE(has(r.out, "\"ab\", null, \"c,d\", \"\"")) << r.out;
    EXPECT_EQ(slurp(out), "ab\n\n\"c,d\"\n\"\"\n");
}

TEST_F(Cli, ExportToStandardOutputRoundTrips) {
    const std::string text = "1.5\n\n-0\n1e+300\n";
    Result r = run({"--type", "double", "--export", "-", file("d.csv", text)});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, text);
}

} // namespace
} // namespace vttest
