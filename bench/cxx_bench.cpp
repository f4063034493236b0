// The C++ API against what it replaces, on one object of 10^7 ticks (an
// ascending datetime field and a double field):
//   - a full scan summing the prices: tile_range vs the C iterator calls;
//   - ascending as-of probes: asof_join (merge over tiles) vs the module's
//     join followed by map over stored probes, per probe, both forward;
//   - window aggregates: aggregate() vs a plain loop over a std::vector;
//   - a feed of single int32 values: push_back (one append each) vs an
//     appender (one append per batch of 2048).
// Build with the `release` preset; run build/release/bench/velseq_cxx_bench.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

#include "velseq.hpp"

namespace {

using namespace velseq;

constexpr uint64_t kTicks = 10'000'000;

struct Ticks {
    database db{[] {
        config c;
        c.warm_pages = 50000;
        return c;
    }()};
    schema cls{"ticks"};
    field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    field<double> px = cls.seq<double>("px");
    field<datetime> probe = cls.seq<datetime>("probe");
    bool defined = (db.define(cls), true);
    connection con{db};
    std::unique_ptr<transaction> tx;
    std::unique_ptr<object> obj;
    std::vector<double> prices; // the same values, for the plain loop

    Ticks() {
        tx = std::make_unique<transaction>(con, transaction::write);
        obj = std::make_unique<object>(tx->create(cls));
        std::vector<datetime> t(1 << 16);
        std::vector<double> p(1 << 16);
        std::mt19937_64 rng(1);
        const datetime start = datetime::parse("2024-01-02T00:00:00Z");
        for (uint64_t done = 0; done < kTicks; done += t.size()) {
            for (size_t i = 0; i < t.size(); i++) {
                t[i] = start + std::chrono::milliseconds(10 * (done + i));
                p[i] = 100.0 + double(rng() % 10000) / 100.0;
            }
            (*obj)[ts].append(t);
            (*obj)[px].append(p);
            prices.insert(prices.end(), p.begin(), p.end());
        }
    }
    static Ticks &get() {
        static Ticks t;
        return t;
    }
};

void BM_ScanC(benchmark::State &state) {
    Ticks &t = Ticks::get();
    const velh_field_info_t &f = t.px.info();
    auto it = std::make_unique<vel_seq_iterator_t>();
    for (auto _ : state) {
        double sum = 0;
        vel_w_seq_subseq_double(const_cast<vel_objhandle_t *>(t.obj->handle()), f.u_offset,
                                f.c_offset, it.get(), 0, kTicks - 1);
        while (it->next(it.get()) == VEL_S_OK)
            for (int i = 0; i < it->tile_size; i++)
                sum += it->tile.u.arr_double[i];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * kTicks));
}

void BM_ScanCxx(benchmark::State &state) {
    Ticks &t = Ticks::get();
    for (auto _ : state) {
        double sum = 0;
        for (const tile<double> &tl : (*t.obj)[t.px].tiles())
            for (double v : tl.values)
                sum += v;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * kTicks));
}

// Ascending probes spread over the whole field, one every state.range(0) ticks.
std::vector<datetime> probes_every(Ticks &t, uint64_t every) {
    std::vector<datetime> p;
    const datetime first = *(*t.obj)[t.ts].front();
    for (uint64_t i = 0; i + 1 < kTicks; i += every)
        p.push_back(first + std::chrono::milliseconds(10 * i + 3));
    return p;
}

void BM_AsofModuleJoinMap(benchmark::State &state) {
    Ticks &t = Ticks::get();
    const std::vector<datetime> probes = probes_every(t, uint64_t(state.range(0)));
    sequence<datetime> pf = (*t.obj)[t.probe];
    pf.truncate();
    pf.append(probes); // the module joins iterators only: the probes are stored first
    vel_objhandle_h o = const_cast<vel_objhandle_t *>(t.obj->handle());
    const velh_field_info_t &ts = t.ts.info(), &px = t.px.info(), &pr = t.probe.info();
    auto src = std::make_unique<vel_seq_iterator_t>();
    auto pos = std::make_unique<vel_seq_iterator_t>();
    auto val = std::make_unique<vel_seq_iterator_t>();
    for (auto _ : state) {
        // the same answer as asof_join's: one optional price per probe
        std::vector<std::optional<double>> out;
        out.reserve(probes.size());
        vel_w_seq_subseq_datetime(o, pr.u_offset, pr.c_offset, src.get(), 0, probes.size() - 1);
        vel_w_seq_join_datetime(o, ts.u_offset, ts.c_offset, pos.get(), src.get(),
                                VEL_SEQ_ASC_ORDER);
        vel_w_seq_map_double(o, px.u_offset, px.c_offset, val.get(), pos.get());
        while (val->next(val.get()) == VEL_S_OK)
            for (int i = 0; i < val->tile_size; i++)
                out.push_back((val->tile.null_bitmap[i / 64] >> (i % 64)) & 1u
                                  ? std::nullopt
                                  : std::optional<double>(val->tile.u.arr_double[i]));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * probes.size()));
}

void BM_AsofMerge(benchmark::State &state) {
    Ticks &t = Ticks::get();
    const std::vector<datetime> probes = probes_every(t, uint64_t(state.range(0)));
    asof_options<datetime> opt;
    opt.dir = direction::forward;
    for (auto _ : state) {
        auto [v] = asof_join((*t.obj)[t.ts], span<const datetime>(probes), opt, (*t.obj)[t.px]);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * probes.size()));
}

// A window of state.range(0) ticks in the middle of the field.
void BM_WindowAggregate(benchmark::State &state) {
    Ticks &t = Ticks::get();
    const uint64_t first = kTicks / 3, last = first + uint64_t(state.range(0));
    for (auto _ : state) {
        summary<double> s = aggregate((*t.obj)[t.px], position_range{first, last});
        benchmark::DoNotOptimize(s);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * (last - first)));
}

void BM_WindowVectorLoop(benchmark::State &state) {
    Ticks &t = Ticks::get();
    const uint64_t first = kTicks / 3, last = first + uint64_t(state.range(0));
    for (auto _ : state) {
        double sum = 0, lo = t.prices[first], hi = t.prices[first];
        for (uint64_t i = first; i < last; i++) {
            const double v = t.prices[i];
            sum += v;
            lo = v < lo ? v : lo;
            hi = hi < v ? v : hi;
        }
        benchmark::DoNotOptimize(sum);
        benchmark::DoNotOptimize(lo);
        benchmark::DoNotOptimize(hi);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * (last - first)));
}

// 2^20 single values into a new object of a fresh transaction, one call each.
template <bool Buffered> void BM_AppendOneByOne(benchmark::State &state) {
    constexpr int32_t kValues = 1 << 20;
    database db;
    schema cls{"feed"};
    field<int32_t> v = cls.seq<int32_t>("v");
    db.define(cls);
    connection con(db);
    for (auto _ : state) {
        transaction tx(con, transaction::write);
        object o = tx.create(cls);
        if constexpr (Buffered) {
            appender<int32_t> ap(o[v]);
            for (int32_t i = 0; i < kValues; i++)
                ap.push(i);
        } else {
            sequence<int32_t> s = o[v];
            for (int32_t i = 0; i < kValues; i++)
                s.push_back(i);
        }
        state.PauseTiming();
        tx.rollback();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

BENCHMARK(BM_ScanC)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScanCxx)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AsofModuleJoinMap)->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AsofMerge)->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WindowAggregate)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WindowVectorLoop)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AppendOneByOne<false>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AppendOneByOne<true>)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
