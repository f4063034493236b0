// ticks.cpp -- ticks.c again, through the C++ API.
//
// The object of class "instrument" holds a day of one-second ticks:
//   ts      datetime sequence, ascending (calendar time, velseq/datetime.h)
//   price   double sequence, one price per tick, some ticks without a price
//   window  double sequence: the prices of the trading window, stored back
//
// Steps: append the day, search the trading window, aggregate its prices,
// look prices up as of a few times of day (before the first tick and after
// the last one included), make hourly OHLC bars, store the window.  Every
// result is checked against plain arithmetic; the exit code says whether all
// checks passed.
#include <cmath>
#include <cstdio>

#include "velseq.hpp"

namespace {

int failures = 0;

void check(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "FAILED: %s\n", what);
        failures++;
    }
}

constexpr uint32_t kDay = 86400, kOpen = 9 * 3600 + 30 * 60, kClose = 16 * 3600;

// A deterministic price path; every 1000th tick has no price.
std::optional<double> price_at(uint32_t sec) {
    if (sec % 1000 == 999)
        return std::nullopt;
    return 100.0 + double((sec / 60) % 50) * 0.25 + double(sec % 7) * 0.01;
}

} // namespace

int main() {
    using namespace velseq;
    const datetime midnight = datetime::parse("2024-06-03");
    auto time_at = [&](uint32_t sec) { return midnight + std::chrono::seconds(sec); };

    database db;
    schema instrument("instrument");
    auto ts = instrument.seq<datetime>("ts", order::ascending);
    auto price = instrument.seq<double>("price");
    auto window = instrument.seq<double>("window");
    db.define(instrument);

    connection con(db);
    transaction tx(con, transaction::write);
    object o = tx.create(instrument);

    // 1. A day of ticks, appended an hour at a time.
    for (uint32_t hour = 0; hour < 24; hour++) {
        std::vector<datetime> t;
        std::vector<std::optional<double>> p;
        for (uint32_t s = hour * 3600; s < (hour + 1) * 3600; s++) {
            t.push_back(time_at(s));
            p.push_back(price_at(s));
        }
        o[ts].append(t);
        o[price].append(p);
    }
    std::printf("stored %llu ticks, %s .. %s\n", (unsigned long long)o[ts].size(),
                o[ts].front()->iso().c_str(), o[ts].back()->iso().c_str());
    check(o[ts].size() == kDay, "tick count");

    // 2. The trading window 09:30 <= ts < 16:00, and its prices aggregated.
    const position_range win =
        o[ts].search(time_at(kOpen), time_at(kClose), bound::inclusive, bound::exclusive);
    const summary<double> w = aggregate(o[price], win);
    double sum = 0, lo = INFINITY, hi = -INFINITY;
    uint64_t present = 0;
    for (uint32_t s = kOpen; s < kClose; s++)
        if (auto p = price_at(s)) {
            sum += *p, present++;
            lo = std::min(lo, *p), hi = std::max(hi, *p);
        }
    std::printf("window: positions %llu..%llu, %llu prices, low %.2f, high %.2f, mean %.4f\n",
                (unsigned long long)win.first, (unsigned long long)win.last,
                (unsigned long long)w.count, *w.min, *w.max, *w.mean());
    check(win.first == kOpen && win.last == kClose, "window positions");
    check(w.rows == kClose - kOpen && w.count == present, "window counts");
    check(*w.min == lo && *w.max == hi && std::fabs(w.sum - sum) < 1e-6, "window aggregates");

    // 3. Prices as of a few times: last tick at or before each, within 2 s.
    const std::vector<datetime> probes = {
        time_at(0) - std::chrono::seconds(5),            // before the first tick
        time_at(kOpen) + std::chrono::milliseconds(500), // between two ticks
        time_at(12 * 3600),                              // a tick exactly
        time_at(kDay - 1) + std::chrono::seconds(10),    // after the last, too far
        time_at(2 * 1000 - 1),                           // a tick without a price
    };
    asof_options<datetime> opt;
    opt.tolerance = std::chrono::seconds(2);
    const auto at = asof(o[ts], span<const datetime>(probes), opt);
    const auto [px] = asof_join(o[ts], span<const datetime>(probes), opt, o[price]);
    const std::optional<uint64_t> expect_at[] = {std::nullopt, kOpen, 12 * 3600, std::nullopt,
                                                 1999};
    for (size_t i = 0; i < probes.size(); i++) {
        std::printf("as of %s: tick %s, price %s\n", probes[i].iso().c_str(),
                    at[i] ? std::to_string(*at[i]).c_str() : "none",
                    px[i] ? std::to_string(*px[i]).c_str() : "none");
        check(at[i] == expect_at[i], "as-of position");
        check(px[i] == (at[i] ? price_at(uint32_t(*at[i])) : std::nullopt), "as-of price");
    }

    // 4. Hourly OHLC bars of the trading day.
    const auto bars = resample(o[ts], o[price], std::chrono::hours(1),
                               std::make_pair(time_at(kOpen), time_at(kClose)));
    for (const bar<double> &b : bars)
        std::printf("  %s  O %.2f H %.2f L %.2f C %.2f  n %llu\n", b.start.iso().c_str(), *b.first,
                    *b.max, *b.min, *b.last, (unsigned long long)b.count);
    check(bars.size() == 7, "bar count"); // 09:00 (half an hour) .. 15:00
    check(bars.front().rows == 1800 && bars.back().rows == 3600, "bar rows");
    check(*bars.front().first == *price_at(kOpen), "first bar open");

    // 5. Store the window's prices into `window`, tile by tile.
    for (const tile<double> &t : o[price].tiles(win.first, win.last))
        o[window].append(t.values, t.nulls);
    check(o[window].size() == win.size(), "stored window size");
    check(o[window].front() == price_at(kOpen) && o[window].back() == price_at(kClose - 1),
          "stored window ends");
    tx.commit();

    if (failures != 0) {
        std::fprintf(stderr, "%d check(s) failed\n", failures);
        return 1;
    }
    std::printf("all checks passed\n");
    return 0;
}
