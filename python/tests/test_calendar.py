"""Calendar buckets against pandas over 1700..2200 (leap years, dates before
1970, UTC offsets), and times made of year, quarter, month and day fields."""
import numpy as np
import pandas as pd
import pytest
import velseq

AGGS = ["count", "sum", "mean", "first", "last", "min", "max"]


@pytest.fixture(scope="module")
def series():
    rng = np.random.default_rng(5)
    start = pd.Timestamp("1700-01-01").value
    steps = rng.integers(1, 45 * 86400 * 10**9, 4500)
    times = pd.DatetimeIndex(start + np.cumsum(steps))
    times = times[times < pd.Timestamp("2201-01-01")]
    values = rng.normal(size=len(times)).round(3)
    values[rng.random(len(times)) < 0.1] = np.nan
    s = pd.Series(values, index=times, name="v")
    db = velseq.Database()
    return db, db.from_pandas(s.to_frame(), "s"), s


@pytest.mark.parametrize("rule", ["MS", "M", "QS", "Q", "YS", "A", "W", "W-MON", "W-THU",
                                  "3MS", "2A", "2W-SAT"])
@pytest.mark.parametrize("offset", [None, "-05:00", "+09:30"])
def test_calendar_rules_match_pandas(series, rule, offset):
    db, oid, s = series
    local = s if offset is None else s.tz_localize("UTC").tz_convert(offset)  # a fixed offset
    # pandas counts multiples from the first row: its unit begins the first
    # bucket of a start rule and ends that of an end rule
    origin = None
    if rule[0].isdigit():
        n, unit = int(rule[0]), rule[1]
        back = {"A": pd.DateOffset(years=n - 1), "W": pd.DateOffset(weeks=n - 1)}.get(unit)
        origin = s.index[0].floor("D") - back if back is not None else s.index[0]
    theirs = local.resample(rule).agg(AGGS)
    theirs = theirs[local.resample(rule).size() > 0]  # velseq lists the buckets holding a row
    if offset is not None:  # the UTC instants of the local labels
        theirs.index = theirs.index.tz_convert("UTC").tz_localize(None)
    with db.read() as tx:
        ours = tx.open("s", oid).resample("time", "v", rule, origin=origin, aggs=AGGS,
                                          utc_offset=offset)
    pd.testing.assert_frame_equal(ours, theirs, check_dtype=False, check_freq=False,
                                  check_names=False)


def test_time_from_fields_against_pandas():
    rng = np.random.default_rng(9)
    y, m, d = rng.integers(1678, 2262, 5000), rng.integers(1, 13, 5000), rng.integers(1, 32, 5000)
    ok = pd.to_datetime(dict(year=y, month=m, day=d), errors="coerce").notna().to_numpy()
    theirs = pd.to_datetime(dict(year=y[ok], month=m[ok], day=d[ok])).to_numpy()
    np.testing.assert_array_equal(velseq.time_from_fields(y[ok], month=m[ok], day=d[ok]), theirs)
    q = rng.integers(1, 5, 5000)
    np.testing.assert_array_equal(
        velseq.time_from_fields(pd.Series(y), quarter=[f"Q{x}" for x in q]),
        pd.PeriodIndex(year=y, quarter=q).to_timestamp().to_numpy())
    np.testing.assert_array_equal(velseq.time_from_fields(y, utc_offset="-05:00"),
                                  pd.to_datetime(y.astype(str)) + pd.Timedelta("5h"))
    bad = [dict(year=[1900], month=[2], day=[29]), dict(year=[1677]), dict(year=[2262], month=[5]),
           dict(year=[2000], quarter=[5]), dict(year=[2000.5]), dict(year=[2000], day=[1]),
           dict(year=[2000], quarter=[1], month=[1]), dict(year=[2000], month=["x"])]
    for kw in bad:
        with pytest.raises(velseq.BadInput):
            velseq.time_from_fields(**kw)
