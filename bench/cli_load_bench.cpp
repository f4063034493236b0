// Load of a CSV by the velseq program's loader against parsing alone with the
// same parser: writes a 3-column CSV (ISO time, double price, int size with
// empty cells), then runs each in a child process of its own so that the
// peak resident memory of each is its own.
//
//   velseq_cli_load_bench [ROWS]          (default 10000000)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "table.h"

namespace {

struct Figures {
    double seconds = 0, cpu = 0; // wall clock, and user + system time
    long max_rss_kb = 0;
    uint64_t pages = 0, rows = 0;
};

void write_csv(const std::string &path, uint64_t rows) {
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::mt19937_64 rng(1);
    std::fputs("time,price,size\n", f);
    int64_t us = 0, cents = 10000;
    for (uint64_t i = 0; i < rows; i++) {
        us += 1 + int64_t(rng() % 4000);
        cents += int64_t(rng() % 3) - 1;
        const int64_t s = us / 1000000;
        char size[16] = "";
        if (rng() % 100 != 0)
            std::snprintf(size, sizeof size, "%d", int(rng() % 5000));
        std::fprintf(f, "2024-03-%02dT%02d:%02d:%02d.%06dZ,%lld.%02lld,%s\n", int(4 + s / 86400),
                     int(s / 3600 % 24), int(s / 60 % 60), int(s % 60), int(us % 1000000),
                     static_cast<long long>(cents / 100), static_cast<long long>(cents % 100),
                     size);
    }
    std::fclose(f);
}

// Runs one load in a child; the figures come back through a pipe.
Figures measure(const std::string &path, bool parse_only) {
    int fd[2];
    if (pipe(fd) != 0)
        std::exit(1);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fd[0]);
        Figures fig;
        velseq::config cfg;
        velseq::database db(cfg);
        vcli::LoadOptions o;
        o.file = path;
        o.progress = -1;
        o.parse_only = parse_only;
        const auto t0 = std::chrono::steady_clock::now();
        const vcli::Table t = vcli::load_csv(db, o);
        fig.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        fig.rows = t.rows;
        velh_page_stats_t ps;
        velh_page_stats(db.get(), VELH_PM_ALL, &ps);
        fig.pages = ps.live;
        rusage ru;
        getrusage(RUSAGE_SELF, &ru);
        fig.max_rss_kb = ru.ru_maxrss;
        fig.cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                  double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
        if (write(fd[1], &fig, sizeof fig) != sizeof fig)
            _exit(1);
        _exit(0);
    }
    close(fd[1]);
    Figures fig;
    if (read(fd[0], &fig, sizeof fig) != sizeof fig) {
        std::fprintf(stderr, "the child failed\n");
        std::exit(1);
    }
    close(fd[0]);
    waitpid(pid, nullptr, 0);
    return fig;
}

} // namespace

int main(int argc, char **argv) {
    const uint64_t rows = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10000000;
    const std::string path = "/tmp/velseq_cli_load_bench.csv";
    write_csv(path, rows);
    FILE *f = std::fopen(path.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    const double mb = double(std::ftell(f)) / 1e6;
    std::fclose(f);
    const Figures parse = measure(path, true), load = measure(path, false);
    const uint64_t page_size = velseq::config().seq_page_size;
    const double stored = double(load.rows) * 3 * 8 / 1e6,
                 pages = double(load.pages * page_size) / 1e6;
    std::printf("rows %llu, CSV %.0f MB\n", static_cast<unsigned long long>(load.rows), mb);
    // CPU time is the figure to compare on a shared machine; wall time beside it.
    for (const auto &[name, f] : {std::pair<const char *, Figures>{"parse only ", parse},
                                  std::pair<const char *, Figures>{"parse+store", load}})
        std::printf("%s  cpu %.2f s (wall %.2f s)  %.2fM rows/s  %.0f MB/s  peak RSS %.0f MB\n",
                    name, f.cpu, f.seconds, f.rows / f.cpu / 1e6, mb / f.cpu, f.max_rss_kb / 1e3);
    std::printf("load speed / parse speed: %.2f (cpu), %.2f (wall)\n", parse.cpu / load.cpu,
                parse.seconds / load.seconds);
    std::printf("stored values %.0f MB, sequence pages %.0f MB (%llu pages), peak RSS / pages "
                "%.2f\n",
                stored, pages, static_cast<unsigned long long>(load.pages),
                load.max_rss_kb / 1e3 / pages);
    std::remove(path.c_str());
    return 0;
}
