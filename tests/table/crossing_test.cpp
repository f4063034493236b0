// A database crosses between the typed C++ API and the table layer (which
// the program and Python stand on) through an image: names, types and
// orders as defined, and a schema that differs is refused.  (Values through
// images: the durability tests.)
#include <gtest/gtest.h>

#include <filesystem>

#include "model.h"
#include "velseq/image.hpp"

namespace {

using namespace velseq;

TEST(Crossing, ImagesKeepNamesTypesAndOrders) {
    const std::string img = testing::TempDir() + "velseq_crossing.img";
    {
        database db;
        schema s("quote");
        s.seq<datetime>("ts", order::ascending);
        s.seq<chars<8>>("venue");
        s.seq<float>("px", order::descending);
        s.value<int16_t>("lot");
        db.define(s);
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
    bind("quote", order::descending, true);
    std::filesystem::remove(img);
}

} // namespace
