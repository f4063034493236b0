// guide.cpp -- the code of docs/GUIDE.md, run as a test.
//
// Each block between "// [name]" and "// [end]" is quoted by the guide; the
// test example_guide_quotes checks that the guide quotes it verbatim.
#include <cstdio>
#include <cstdlib>

#include "velseq.hpp"

#define EXPECT(cond)                                                                               \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "FAILED %s:%d: %s\n", __FILE__, __LINE__, #cond);                 \
            std::exit(1);                                                                          \
        }                                                                                          \
    } while (0)

struct Reading {
    bool ok;
    double value;
};

static uint64_t feed_readings(velseq::connection &con, const velseq::schema &sensor,
                              const velseq::field<double> &temp,
                              const std::vector<Reading> &readings);

int main() {
    // [schema]
    velseq::database db; // an empty in-memory database

    velseq::schema sensor("sensor");
    auto ts = sensor.seq<velseq::datetime>("ts", velseq::order::ascending);
    auto temp = sensor.seq<double>("temp"); // may hold nulls (missing readings)
    auto rain = sensor.seq<double>("rain");
    auto station = sensor.value<uint32_t>("station");
    db.define(sensor); // the field handles are usable from here on
    // [end]

    // [load]
    velseq::connection con(db);
    uint64_t oid;
    {
        velseq::transaction tx(con, velseq::transaction::write);
        velseq::object s = tx.create(sensor);
        s.set(station, 42u);

        // a reading every 10 minutes for two days, every 7th one missing
        const auto start = velseq::datetime::parse("2024-03-01T00:00:00Z");
        std::vector<velseq::datetime> times;
        std::vector<std::optional<double>> temps, rains;
        for (int i = 0; i < 2 * 144; i++) {
            times.push_back(start + std::chrono::minutes(10 * i));
            temps.push_back(i % 7 == 3 ? std::nullopt : std::optional<double>(10 + (i % 144) / 12));
            rains.push_back(i % 5 == 0 ? 0.5 : 0.0);
        }
        s[ts].append(times);
        s[temp].append(temps);
        s[rain].append(rains);
        oid = s.oid();
        tx.commit(); // without it the transaction rolls back when destroyed
    }
    // [end]
    {
        std::vector<Reading> readings;
        for (int i = 0; i < 5000; i++)
            readings.push_back({i % 100 != 0, 20.0 + i % 7});
        const uint64_t fed = feed_readings(con, sensor, temp, readings);
        velseq::transaction check(con, velseq::transaction::read);
        const auto sum = velseq::aggregate(check.open(sensor, fed)[temp], {0, 5000});
        EXPECT(sum.rows == 5000 && sum.count == 4950);
    }

    // [window]
    velseq::transaction tx(con, velseq::transaction::read);
    velseq::object s = tx.open(sensor, oid);

    // positions of the readings of the morning of March 2nd
    const velseq::position_range morning = s[ts].search(
        velseq::datetime::parse("2024-03-02T06:00Z"), velseq::datetime::parse("2024-03-02T12:00Z"),
        velseq::bound::inclusive, velseq::bound::exclusive);
    std::printf("morning: positions %llu..%llu\n", (unsigned long long)morning.first,
                (unsigned long long)morning.last);

    for (const velseq::tile<double> &t : s[temp].tiles(morning.first, morning.last))
        for (size_t i = 0; i < t.size(); i++)
            if (t.nulls[i])
                std::printf("  missing reading at position %llu\n",
                            (unsigned long long)(t.first + i));

    // the same window by time, aggregated (nulls skipped)
    const velseq::summary<double> m =
        velseq::aggregate(s[temp], s[ts], velseq::datetime::parse("2024-03-02T06:00Z"),
                          velseq::datetime::parse("2024-03-02T12:00Z"));
    std::printf("morning: %llu readings, %llu present, mean %.3f, max %.1f\n",
                (unsigned long long)m.rows, (unsigned long long)m.count, *m.mean(), *m.max);
    // [end]
    EXPECT(morning.first == 144 + 36 && morning.size() == 36);
    EXPECT(m.rows == 36 && m.count == 31 && *m.max == 15.0);

    // [asof]
    // When did people look at the sensor, and what did it say then?
    const std::vector<velseq::datetime> looks = {
        velseq::datetime::parse("2024-02-29T23:00Z"),         // before the first reading
        velseq::datetime::parse("2024-03-01T08:05Z"),         // between two readings
        velseq::datetime::parse("2024-03-02T13:30:00+01:00"), // 12:30 UTC, a reading time
        velseq::datetime::parse("2024-03-05T00:00Z"),         // long after the last one
    };
    velseq::asof_options<velseq::datetime> opt;
    opt.dir = velseq::direction::backward;    // last reading at or before the look
    opt.tolerance = std::chrono::minutes(30); // older readings do not count
    auto [t_at, r_at] = velseq::asof_join(s[ts], velseq::span<const velseq::datetime>(looks), opt,
                                          s[temp], s[rain]);
    velseq::fill_forward(t_at); // a missing reading: the previous one prevails
    for (size_t i = 0; i < looks.size(); i++)
        std::printf("  %s: temp %s, rain %s\n", looks[i].iso().c_str(),
                    t_at[i] ? std::to_string(*t_at[i]).c_str() : "-",
                    r_at[i] ? std::to_string(*r_at[i]).c_str() : "-");
    // [end]
    EXPECT(!t_at[0] && !r_at[0]);
    EXPECT(t_at[1] == 14.0 && r_at[1] == 0.0);
    EXPECT(t_at[2] == 16.0 && r_at[2] == 0.0);
    EXPECT(t_at[3] == 16.0 && !r_at[3]); // filled forward from the look before

    // [resample]
    // six-hour bars over the second day: first, max, min, last, count, sum
    const auto bars = velseq::resample(s[ts], s[temp], std::chrono::hours(6),
                                       std::make_pair(velseq::datetime::parse("2024-03-02"),
                                                      velseq::datetime::parse("2024-03-03")));
    for (const velseq::bar<double> &b : bars)
        std::printf("  %s  open %.1f  high %.1f  low %.1f  close %.1f  n %llu  mean %.2f\n",
                    b.start.iso().c_str(), *b.first, *b.max, *b.min, *b.last,
                    (unsigned long long)b.count, b.sum / double(b.count));
    // [end]
    EXPECT(bars.size() == 4);
    EXPECT(bars[1].start == velseq::datetime::parse("2024-03-02T06:00Z"));
    EXPECT(*bars[1].first == 13.0 && *bars[1].max == 15.0 && *bars[1].last == 15.0);
    EXPECT(bars[1].count == m.count && bars[1].sum == m.sum);

    // [errors]
    try {
        velseq::connection con2(db); // one transaction per connection; tx is still open
        velseq::transaction w(con2, velseq::transaction::write);
        velseq::object o = w.open(sensor, oid);
        o[ts].push_back(velseq::datetime::parse("2024-03-01T12:00Z")); // before the last one
    } catch (const velseq::error &e) {
        std::printf("refused: %s\n", e.what()); // code, name and a sentence
    }
    // [end]
    std::printf("all checks passed\n");
    return 0;
}

// A feed of single readings into a new object: one transaction.
static uint64_t feed_readings(velseq::connection &con, const velseq::schema &sensor,
                              const velseq::field<double> &temp,
                              const std::vector<Reading> &readings) {
    velseq::transaction tx(con, velseq::transaction::write);
    velseq::object o = tx.create(sensor);
    // [feed]
    velseq::appender<double> feed(o[temp]);
    for (const Reading &r : readings)
        feed.push(r.ok ? std::optional<double>(r.value) : std::nullopt);
    tx.commit(); // appends what is still buffered first
    // [end]
    return o.oid();
}
