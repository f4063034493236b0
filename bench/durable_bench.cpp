// Durability throughput: saving and loading an image of 10^8 int4 values in
// one field and of 10^5 objects with small sequences, beside a plain
// write(2) + fsync and read(2) of the same number of bytes; commit latency
// of a small append under each log mode.  Files go to $VELSEQ_BENCH_DIR
// (default: the current folder).  Loading includes the first touch of the
// arena pages, as the plain read includes the first touch of its buffer.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "velembed.h"

namespace {

void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "%s failed with %d: %s\n", what, int(rc), velh_error_message());
        std::abort();
    }
}

std::string bench_file(const char *name) {
    const char *dir = std::getenv("VELSEQ_BENCH_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/" + name;
}

uint64_t file_size(const std::string &p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
}

// A database holding either one field of n int4 values or n objects of 16
// int8 values each.
velh_db_t *make_db(bool one_field, uint64_t n) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db;
    check(velh_db_open(&cfg, &db), "open");
    velh_field_def_t f[] = {
        {"id", VEL_DD_INT8, 0, 0},
        {"vals", one_field ? uint8_t(VEL_DD_SEQUENCE_INT4) : uint8_t(VEL_DD_SEQUENCE_INT8), 0, 0}};
    uint16_t cls;
    check(velh_class_define(db, "c", f, 2, 0, VELH_PM_INMEM, &cls), "class");
    velh_field_info_t fi;
    check(velh_field_info(db, cls, 1, &fi), "field");
    vel_db_connection_h con;
    check(velh_connect(db, &con), "connect");
    check(velh_begin(con, VELH_READ_WRITE), "begin");
    vel_objhandle_t obj;
    if (one_field) {
        check(velh_obj_create(con, cls, &obj), "create");
        std::vector<int32_t> v(1 << 20);
        for (uint64_t done = 0; done < n; done += v.size()) {
            for (size_t i = 0; i < v.size(); ++i)
                v[i] = int32_t(done + i);
            check(vel_w_seq_append_int4(&obj, fi.u_offset, fi.c_offset, 1, v.data(),
                                        std::min<uint64_t>(v.size(), n - done), VEL_SEQ_NO_ORDER,
                                        nullptr),
                  "append");
        }
    } else {
        int64_t v[16];
        for (uint64_t k = 0; k < n; ++k) {
            check(velh_obj_create(con, cls, &obj), "create");
            for (int i = 0; i < 16; ++i)
                v[i] = int64_t(k * 16 + i);
            check(velh_set(&obj, 0, &v[0], 8), "set");
            check(vel_w_seq_append_int8(&obj, fi.u_offset, fi.c_offset, 1, v, 16, VEL_SEQ_NO_ORDER,
                                        nullptr),
                  "append");
        }
    }
    check(velh_commit(con), "commit");
    check(velh_disconnect(con), "disconnect");
    return db;
}

void save_load(benchmark::State &state, bool one_field, uint64_t n, bool load) {
    static velh_db_t *db[2] = {nullptr, nullptr};
    velh_db_t *&d = db[one_field];
    if (d == nullptr)
        d = make_db(one_field, n);
    const std::string path = bench_file(one_field ? "big-field.img" : "many-objects.img");
    if (!load || file_size(path) == 0)
        check(velh_db_save(d, path.c_str()), "save");
    velh_config_t cfg;
    velh_config_init(&cfg);
    for (auto _ : state) {
        if (load) {
            velh_db_t *out;
            check(velh_db_open_file(&cfg, path.c_str(), &out, nullptr), "load");
            state.PauseTiming();
            velh_db_close(out);
            state.ResumeTiming();
        } else {
            check(velh_db_save(d, path.c_str()), "save");
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations() * file_size(path)));
}

// The same bytes as the image, written with one fsync or read into fresh
// memory.
void plain(benchmark::State &state, bool one_field, bool read) {
    const std::string img = bench_file(one_field ? "big-field.img" : "many-objects.img");
    const uint64_t bytes = file_size(img);
    if (bytes == 0) {
        state.SkipWithError("run the save benchmark first");
        return;
    }
    const std::string path = bench_file("plain.bin");
    std::vector<char> src(bytes, 'x');
    for (auto _ : state) {
        if (read) {
            int fd = ::open(img.c_str(), O_RDONLY);
            std::unique_ptr<char[]> buf(new char[bytes]);
            uint64_t done = 0;
            for (ssize_t k; done < bytes && (k = ::read(fd, buf.get() + done, bytes - done)) > 0;)
                done += uint64_t(k);
            ::close(fd);
            benchmark::DoNotOptimize(buf.get());
        } else {
            int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            uint64_t done = 0;
            for (ssize_t k; done < bytes && (k = ::write(fd, src.data() + done, bytes - done)) > 0;)
                done += uint64_t(k);
            ::fsync(fd);
            ::close(fd);
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
}

constexpr uint64_t kBigValues = 100'000'000;
constexpr uint64_t kObjects = 100'000;

void BM_SaveBigField(benchmark::State &s) { save_load(s, true, kBigValues, false); }
void BM_PlainWriteBigField(benchmark::State &s) { plain(s, true, false); }
void BM_LoadBigField(benchmark::State &s) { save_load(s, true, kBigValues, true); }
void BM_PlainReadBigField(benchmark::State &s) { plain(s, true, true); }
void BM_SaveManyObjects(benchmark::State &s) { save_load(s, false, kObjects, false); }
void BM_PlainWriteManyObjects(benchmark::State &s) { plain(s, false, false); }
void BM_LoadManyObjects(benchmark::State &s) { save_load(s, false, kObjects, true); }
void BM_PlainReadManyObjects(benchmark::State &s) { plain(s, false, true); }

// One transaction appending 10 int8 values to one object, then commit.
// Argument: -1 no log, else the VELH_LOG_SYNC_* mode.
void BM_CommitSmallAppend(benchmark::State &state) {
    const int mode = int(state.range(0));
    const std::string log = bench_file("commit.log");
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.warm_pages = 4096;
    if (mode >= 0) {
        cfg.log_path = log.c_str();
        cfg.log_sync = mode;
    }
    velh_db_t *db;
    check(velh_db_open(&cfg, &db), "open");
    velh_field_def_t f[] = {{"vals", VEL_DD_SEQUENCE_INT8, 0, 0}};
    uint16_t cls;
    check(velh_class_define(db, "c", f, 1, 0, VELH_PM_INMEM, &cls), "class");
    velh_field_info_t fi;
    check(velh_field_info(db, cls, 0, &fi), "field");
    vel_db_connection_h con;
    check(velh_connect(db, &con), "connect");
    check(velh_begin(con, VELH_READ_WRITE), "begin");
    vel_objhandle_t obj;
    check(velh_obj_create(con, cls, &obj), "create");
    check(velh_commit(con), "commit");
    int64_t v[10] = {};
    for (auto _ : state) {
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        check(velh_obj_open(con, cls, obj.oid, &obj), "open object");
        check(vel_w_seq_append_int8(&obj, fi.u_offset, fi.c_offset, 0, v, 10, VEL_SEQ_NO_ORDER,
                                    nullptr),
              "append");
        check(velh_commit(con), "commit");
        v[0]++;
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    if (mode >= 0)
        state.counters["log_bytes_per_commit"] =
            double(file_size(log)) / double(state.iterations());
    velh_disconnect(con);
    velh_db_close(db);
    ::unlink(log.c_str());
}

} // namespace

BENCHMARK(BM_SaveBigField)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_PlainWriteBigField)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_LoadBigField)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_PlainReadBigField)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_SaveManyObjects)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_PlainWriteManyObjects)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_LoadManyObjects)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_PlainReadManyObjects)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_CommitSmallAppend)
    ->Arg(-1)
    ->Arg(VELH_LOG_SYNC_COMMIT)
    ->Arg(VELH_LOG_SYNC_GROUP)
    ->Arg(VELH_LOG_SYNC_NONE)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

BENCHMARK_MAIN();
