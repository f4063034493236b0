// A database crosses between the typed C++ API and the table layer (which
// the program and Python stand on) through an image: names, types, orders
// and values as written, and a schema that differs is refused, naming what.
#include <gtest/gtest.h>

#include <filesystem>

#include "model.h"
#include "velseq/image.hpp"

namespace {

using namespace velseq;

TEST(Crossing, ImagesKeepNamesTypesAndOrders) {
    const std::string img = testing::TempDir() + "velseq_crossing.img";
    uint64_t oid = 0;
    {
        database db;
        schema s("quote");
        field<datetime> ts = s.seq<datetime>("ts", order::ascending);
        field<chars<8>> venue = s.seq<chars<8>>("venue");
        field<float> px = s.seq<float>("px", order::descending);
        scalar_field<int16_t> lot = s.value<int16_t>("lot");
        db.define(s);
        connection con(db);
        transaction tx(con, transaction::write);
        object o = tx.create(s);
        o[ts].append({datetime::from_ns(5), datetime::from_ns(9)});
        o[venue].append({chars<8>::from("XNAS"), chars<8>::from("XLON")});
        o[px].append({2.5f, 1.5f});
        o.set(lot, int16_t(100));
        oid = o.oid();
        tx.commit();
        table::define_table(db.get(), "fx", {{"rate", *table::type_by_name("double")}});
        save_image(db, img);
    }
    auto db = open_image(img);
    // The table layer sees what the C++ API defined.
    const std::vector<table::table_info> ts = table::tables(db->get());
    ASSERT_EQ(ts.size(), 2u);
    const table::table_info &q = ts[0];
    EXPECT_EQ(q.name, "quote");
    std::string got; // name, type, order (0 none, 1 ascending, 2 descending), scalar
    for (const table::column_def &c : q.columns)
        got += c.name + " " + table::type_name(c.type) + " " + std::to_string(c.order) +
               (c.scalar ? " scalar; " : "; ");
    EXPECT_EQ(got, "ts datetime 1; venue char(8) 0; px float 2; lot int2 0 scalar; ");
    // A C++ schema binds by name when it matches, and is refused otherwise.
    auto bind = [&](const std::string &cls, order px_order, bool float_px,
                    const char *venue = "venue") {
        schema s(cls);
        s.seq<datetime>("ts", order::ascending);
        s.seq<chars<8>>(venue);
        if (float_px)
            s.seq<float>("px", px_order);
        else
            s.seq<double>("px", px_order);
        s.value<int16_t>("lot");
        attach(*db, s);
        return s;
    };
    const auto code = model::code_of;
    EXPECT_EQ(code([&] { bind("quote", order::ascending, true); }), VEL_E_HOST_WRONG_FIELD);
    EXPECT_EQ(code([&] { bind("quote", order::descending, false); }), VEL_E_HOST_WRONG_FIELD);
    EXPECT_EQ(code([&] { bind("quote", order::descending, true, "place"); }),
              VEL_E_HOST_WRONG_FIELD);
    EXPECT_EQ(code([&] { bind("quotes", order::descending, true); }), VEL_E_HOST_NO_CLASS);
    schema s = bind("quote", order::descending, true);
    connection con(*db);
    ASSERT_EQ(velh_begin(con.get(), VELH_READ_ONLY), VEL_S_OK);
    vel_objhandle_t h{};
    ASSERT_EQ(velh_obj_open(con.get(), q.code, oid, &h), VEL_S_OK);
    EXPECT_EQ(model::values_of<float>(table::read(table::column_of(h, db->get(), q, 2), 0, 2)),
              (std::vector<std::optional<float>>{2.5f, 1.5f}));
    EXPECT_EQ(model::values_of<int16_t>(table::get_scalar(h, q, 3)),
              std::vector<std::optional<int16_t>>{100});
    velh_rollback(con.get());
    std::filesystem::remove(img);
}

} // namespace
