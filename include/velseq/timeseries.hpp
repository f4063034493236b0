// velseq/timeseries.hpp -- as-of lookups, aggregates and resampling: the
// two headers that hold them, under their former name.
#ifndef VELSEQ_TIMESERIES_HPP
#define VELSEQ_TIMESERIES_HPP

#include "velseq/aggregates.hpp"
#include "velseq/asof.hpp"

#endif // VELSEQ_TIMESERIES_HPP
