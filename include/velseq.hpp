// velseq.hpp -- C++17 API over the sequence module and the embedded host.
//
// Header-only; built on the C functions of velseq.h and velembed.h alone.
//
//   velseq::database db;                              // velh_db_open .. velh_db_close
//   velseq::schema quote("quote");
//   auto ts = quote.seq<velseq::datetime>("ts", velseq::order::ascending);
//   auto px = quote.seq<double>("px");
//   db.define(quote);                                  // field handles become usable
//   velseq::connection con(db);
//   velseq::transaction tx(con, velseq::transaction::write);
//   velseq::object o = tx.create(quote);
//   o[ts].append(times);  o[px].append(prices);
//   for (auto t : o[px].tiles(0, o[px].size())) ...   // a span of values + a null view
//   tx.commit();                                       // else rolled back by ~transaction
//
// Every failure is a velseq::error carrying the module's or host's code.  The
// checks that the module does not make (NaN in ordered fields, bounds given in
// reverse, positions past the end, nulls or disorder in ordered fields) are
// made here before any module call, so a refused call changes nothing and the
// transaction stays usable.
//
// Lifetimes: a database outlives its connections, a connection its
// transaction, a transaction its objects, sequences and ranges.
//
// The API by concern, each header usable alone: velseq/error.hpp,
// velseq/types.hpp, velseq/schema.hpp, velseq/transaction.hpp,
// velseq/sequence.hpp, velseq/asof.hpp, velseq/aggregates.hpp; files:
// velseq/image.hpp.
#ifndef VELSEQ_HPP
#define VELSEQ_HPP

#include "velseq/aggregates.hpp"
#include "velseq/asof.hpp"
#include "velseq/error.hpp"
#include "velseq/schema.hpp"
#include "velseq/sequence.hpp"
#include "velseq/transaction.hpp"
#include "velseq/types.hpp"

#endif // VELSEQ_HPP
