// consumer.cpp -- a C++ program built against the installed package only,
// through the C++ API header: appends in uneven batches (small pages, so the
// tree grows several levels), commits, and reads the field back from a new
// read-only transaction against a vector, and its sum through the aggregates
// (the table layer's archive).
#include <cstdio>
#include <numeric>
#include <vector>

#include <velseq.hpp>

int main() try {
    velseq::config cfg;
    cfg.seq_page_size = 512;
    velseq::database db(cfg);
    velseq::schema cls("c");
    auto v = cls.seq<int64_t>("v");
    db.define(cls);
    velseq::connection con(db);

    std::vector<int64_t> model;
    uint64_t oid = 0;
    {
        velseq::transaction tx(con, velseq::transaction::write);
        velseq::object obj = tx.create(cls);
        oid = obj.oid();
        for (int batch = 1; batch <= 40; ++batch) {
            std::vector<int64_t> vals(static_cast<size_t>(batch * 13 % 97 + 1));
            std::iota(vals.begin(), vals.end(), static_cast<int64_t>(model.size()) * 3 - 500);
            obj[v].append(vals);
            model.insert(model.end(), vals.begin(), vals.end());
        }
        tx.commit();
    }
    velseq::transaction tx(con, velseq::transaction::read);
    std::vector<int64_t> got;
    for (std::optional<int64_t> x : tx.open(cls, oid)[v].elements())
        got.push_back(x.value_or(-1));
    const int64_t sum = aggregate(tx.open(cls, oid)[v], {0, got.size()}).sum;
    if (got != model || sum != std::accumulate(model.begin(), model.end(), int64_t(0))) {
        std::fprintf(stderr, "consumer.cpp: %zu values read back, %zu expected\n", got.size(),
                     model.size());
        return 1;
    }
    std::printf("consumer (C++): %zu values read back\n", got.size());
    return 0;
} catch (const velseq::error &e) {
    std::fprintf(stderr, "consumer.cpp: %s\n", e.what());
    return 1;
}
