// velseq demo: writes a day of trades (a random walk with a trading halt and
// missing sizes) and a few orders, loads the trades and runs every
// subcommand once, showing the command line that asks the same.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "commands.h"

namespace vcli {

namespace {

constexpr int64_t kSec = VEL_DT_NS_PER_SEC;

// 2024-03-04T09:30:00Z .. 16:00:00Z, no trades 12:00 .. 12:20 (a halt).
void write_trades(const std::string &path, uint64_t rows) {
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        throw Fail(kExitInput, "cannot write " + path + ": " + std::strerror(errno));
    std::mt19937_64 rng(20240304);
    const int64_t open = (9 * 3600 + 30 * 60) * kSec, close = 16 * 3600 * kSec;
    const int64_t halt = 12 * 3600 * kSec, resume = halt + 20 * 60 * kSec;
    // Exponential gaps (a Poisson stream of trades), scaled so that the last
    // trade falls just before the close: unscaled, their sum overshoots the
    // session about half the time and the tail would pile up at the close.
    std::exponential_distribution<double> gap(1.0);
    std::vector<double> at(rows);
    double sum = 0;
    for (double &a : at)
        a = sum += gap(rng);
    const double session = double(close - open - (resume - halt) - kSec);
    std::uniform_int_distribution<int> step(-1, 1), lots(1, 50), miss(0, 199);
    std::fprintf(f, "time,price,size,side\n");
    int64_t cents = 10000;
    for (uint64_t i = 0; i < rows; i++) {
        int64_t t = open + static_cast<int64_t>(at[i] / sum * session) / 1000 * 1000; // us
        if (t >= halt)
            t += resume - halt;
        cents = std::max<int64_t>(100, cents + step(rng));
        const int64_t us = t / 1000;
        const int64_t s = us / 1000000;
        char size[16] = "";
        if (miss(rng) != 0)
            std::snprintf(size, sizeof size, "%d", 100 * lots(rng));
        std::fprintf(f, "2024-03-04T%02d:%02d:%02d.%06dZ,%lld.%02lld,%s,%c\n", int(s / 3600),
                     int(s / 60 % 60), int(s % 60), int(us % 1000000),
                     static_cast<long long>(cents / 100), static_cast<long long>(cents % 100), size,
                     (rng() & 1) ? 'B' : 'S');
    }
    if (std::fclose(f) != 0)
        throw Fail(kExitInput, "cannot write " + path + ": " + std::strerror(errno));
}

void write_orders(const std::string &path) {
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        throw Fail(kExitInput, "cannot write " + path + ": " + std::strerror(errno));
    std::fputs("time,order,qty\n"
               "2024-03-04T09:00:00Z,A-1,100\n" // before the first trade
               "2024-03-04T10:15:00.5Z,A-2,300\n"
               "2024-03-04T12:10:00Z,A-3,200\n" // in the halt: the last trade is too old
               "2024-03-04T15:59:59Z,A-4,500\n",
               f);
    std::fclose(f);
}

void show(const std::string &cmd) {
    std::printf("\n$ velseq %s\n", cmd.c_str());
    std::fflush(stdout);
}

// The folder of the generated files: `dir`, or a new one in /tmp.
std::string make_dir(std::string dir) {
    if (dir.empty()) {
        char tmpl[] = "/tmp/velseq-demo-XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            throw Fail(kExitInput,
                       std::string("cannot make a folder in /tmp: ") + std::strerror(errno));
        dir = tmpl;
    } else if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
        throw Fail(kExitInput, "cannot make " + dir + ": " + std::strerror(errno));
    }
    return dir;
}

} // namespace

int run_demo(uint64_t rows, const std::string &dir_opt) {
    const std::string dir = make_dir(dir_opt);
    const std::string trades = dir + "/trades.csv", orders = dir + "/orders.csv";
    std::printf("velseq demo: a day of %llu trades (a random walk, a halt from 12:00 to 12:20, "
                "1 size in 200 missing)\nwritten to %s\n",
                static_cast<unsigned long long>(rows), trades.c_str());
    std::fflush(stdout);
    write_trades(trades, rows);
    write_orders(orders);

    Source src;
    src.load.file = trades;
    src.load.progress = isatty(STDERR_FILENO) ? 1 : -1;
    src.out = Format::Table;
    src.db = dir + "/trades.vdb";
    show("load " + trades + " --db " + src.db);
    {
        Table t;
        std::unique_ptr<velseq::database> db = open_source("load", src, t);
        answer("load", *db, t, src, Query{});
    }
    // The questions read the table back from the image.
    Table t;
    std::unique_ptr<velseq::database> db = open_table(src.db, t);
    auto ask = [&](const std::string &name, const std::string &args, Query q) {
        show(name + " --db " + src.db + args);
        answer(name, *db, t, src, q);
    };
    Query q;
    q.n = 5;
    ask("head", " -n 5", q);
    ask("tail", " -n 5", q);
    q = Query{};
    q.from = "2024-03-04T11:59:59.9";
    q.to = "2024-03-04T12:20:00.1";
    ask("window", " " + q.from + " " + q.to, q);
    ask("stats", "", Query{});
    q = Query{};
    q.every = "1h";
    q.cols = {"price", "size"};
    ask("resample", " 1h --cols price,size", q);
    q = Query{};
    q.other = orders;
    q.tolerance = "1m";
    q.cols = {"time", "price", "size"};
    ask("asof", " " + orders + " --tolerance 1m --cols time,price,size", q);
    q = Query{};
    q.cols = {"price"};
    ask("tree", " --cols price", q);
    std::printf("\nThe files stay in %s for your own questions (rm -r %s removes them).\n"
                "velseq --help lists every subcommand; tools/README.md explains them.\n",
                dir.c_str(), dir.c_str());
    return 0;
}

} // namespace vcli
