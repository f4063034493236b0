"""The velseq package against NumPy models and pandas, on random data."""

import threading

import numpy as np
import pandas as pd
import pytest

import velseq

NUMERIC = ["int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64",
           "float32", "float64"]
T0 = np.datetime64("2024-01-02T00:00:00", "ns")


def random_values(rng, dtype, n):
    if dtype[0] == "S":  # 0..N bytes, none zero (NumPy's S<N> drops trailing ones)
        return np.array([bytes(rng.choice(list(b"abc\xff"), rng.integers(0, int(dtype[1:]) + 1)))
                         for _ in range(n)], dtype)
    if dtype == "datetime64[ns]":
        return T0 + rng.integers(-10**17, 10**17, n).astype("timedelta64[ns]")
    dt = np.dtype(dtype)
    if dt.kind == "f":
        v = rng.normal(0, 1e6, n).astype(dt)
        v[:3] = [np.finfo(dt).min, np.finfo(dt).max, np.nan]  # NaN is a value here
        return v
    info = np.iinfo(dt)
    v = rng.integers(info.min, info.max, n, dtype=dt, endpoint=True)
    v[:2] = [info.min, info.max]
    return v


def same(got, values, mask):
    """got (an ndarray, masked where nulls exist) holds values with nulls at mask."""
    if mask.any():
        assert isinstance(got, np.ma.MaskedArray)
        np.testing.assert_array_equal(np.ma.getmaskarray(got), mask)
        got = got.data
    else:
        assert not isinstance(got, np.ma.MaskedArray)
    assert got.dtype == values.dtype
    np.testing.assert_array_equal(got[~mask], values[~mask])


@pytest.mark.parametrize("dtype", NUMERIC + ["datetime64[ns]"])
def test_round_trip_with_nulls(dtype):
    """Appends, inserts and deletes against a NumPy model; reads whole and by
    ranges, fresh and into a caller's buffer; scalar fields."""
    rng = np.random.default_rng(7)
    db = velseq.Database()
    db.define("c", v=velseq.seq(dtype), s=velseq.value(dtype))
    n = 3000
    vals = random_values(rng, dtype, n)
    mask = rng.random(n) < 0.2
    with db.write() as tx:
        o = tx.create("c")
        o["v"].append(np.ma.masked_array(vals[:1000], mask=mask[:1000]))
        o["v"].append(vals[1000:2000], mask[1000:2000])
        o["v"].append(vals[2000:])
        mask[2000:] = False
        o["v"].insert(500, vals[:300], mask[:300])
        vals = np.concatenate([vals[:500], vals[:300], vals[500:]])
        mask = np.concatenate([mask[:500], mask[:300], mask[500:]])
        o["v"].delete(2000, 2700)
        vals = np.delete(vals, np.s_[2000:2700])
        mask = np.delete(mask, np.s_[2000:2700])
        o["s"] = vals[5]
        oid = o.oid
    with db.read() as tx:
        o = tx.open("c", oid)
        assert len(o["v"]) == len(vals)
        same(o["v"].read(), vals, mask)
        for first, last in [(0, 0), (0, 1), (127, 129), (1000, 2600), (len(vals) - 1, None)]:
            end = len(vals) if last is None else last
            same(o["v"].read(first, last), vals[first:end], mask[first:end])
        buf = np.empty(400, vals.dtype)
        same(o["v"].read(100, 500, out=buf), vals[100:500], mask[100:500])
        if not mask[100:500].any():
            np.testing.assert_array_equal(buf, vals[100:500])
        assert o["s"] == vals[5] or (np.isnan(vals[5]) and np.isnan(o["s"]))


def test_datetime_units_and_frames():
    """datetime64 of any unit lands on the same nanoseconds; a table with
    nullable columns survives from_pandas / to_pandas."""
    db = velseq.Database()
    db.define("t", ts=velseq.seq("datetime64[ns]"))
    base = np.array(["1700-03-01T00:00:00", "1969-12-31T23:59:59", "2262-04-10T00:00:00"],
                    "datetime64[s]")
    units = ["W", "D", "h", "m", "s", "ms", "us", "ns", "10ms", "M", "Y"]
    with db.write() as tx:
        o = tx.create("t")
        for u in units:
            o["ts"].append(base.astype(f"datetime64[{u}]"))
        got = o["ts"].read()
    want = np.concatenate([base.astype(f"datetime64[{u}]").astype("datetime64[ns]")
                           for u in units])
    np.testing.assert_array_equal(got, want)

    rng = np.random.default_rng(3)
    n = 500
    df = pd.DataFrame({
        "px": pd.array(np.where(rng.random(n) < 0.1, None, rng.normal(100, 5, n)),
                       dtype="Float64"),
        "qty": pd.array(np.where(rng.random(n) < 0.1, None, rng.integers(1, 100, n)),
                        dtype="Int64"),
        "seen": np.where(rng.random(n) < 0.1, np.datetime64("NaT"),
                         T0 + rng.integers(0, 10**12, n).astype("timedelta64[ns]")),
        "code": rng.integers(0, 255, n).astype(np.uint8),
    }, index=pd.DatetimeIndex(np.sort(T0 + rng.integers(0, 10**12, n)
                                      .astype("timedelta64[ns]")), name="ts"))
    oid = db.from_pandas(df, "quotes")
    pd.testing.assert_frame_equal(db.to_pandas("quotes", oid), df)


def keyed(rng, n, with_nulls=True):
    """An object with ascending times (runs of equal ones) and a price field
    with nulls; the same as a pandas frame with a nullable column."""
    db = velseq.Database(page_size=512)  # deep trees from few rows
    db.define("q", ts=velseq.seq("datetime64[ns]", "ascending"), px=velseq.seq("float64"),
              n=velseq.seq("int64"))
    ts = T0 + np.sort(rng.integers(0, 50 * n, n) // 4 * 4).astype("timedelta64[s]")
    px = rng.normal(100, 10, n)
    nulls = (rng.random(n) < 0.15) if with_nulls else np.zeros(n, bool)
    qty = rng.integers(-1000, 1000, n)
    with db.write() as tx:
        o = tx.create("q")
        o["ts"].append(ts)
        o["px"].append(px, nulls)
        o["n"].append(qty)
        oid = o.oid
    df = pd.DataFrame({"ts": ts, "px": pd.array(np.where(nulls, None, px), dtype="Float64"),
                       "n": qty})
    return db, oid, df


@pytest.mark.parametrize("direction", ["backward", "forward", "nearest"])
@pytest.mark.parametrize("strict", [False, True])
@pytest.mark.parametrize("tolerance", [None, "90s"])
def test_asof_against_merge_asof(direction, strict, tolerance):
    rng = np.random.default_rng(hash((direction, strict, tolerance)) % 2**32)
    db, oid, df = keyed(rng, 5000)
    # ascending probes, many of them equal to stored times, some outside
    probes = np.sort(np.concatenate([
        df["ts"].to_numpy()[rng.integers(0, len(df), 300)],
        df["ts"].to_numpy()[0] + rng.integers(-5000, 260000, 700).astype("timedelta64[s]")]))
    want = pd.merge_asof(pd.DataFrame({"ts": probes}), df, on="ts", direction=direction,
                         allow_exact_matches=not strict,
                         tolerance=None if tolerance is None else pd.Timedelta(tolerance))
    with db.read() as tx:
        got = tx.open("q", oid).asof_join("ts", probes, ["px", "n"], direction=direction,
                                          strict=strict, tolerance=tolerance)
    pd.testing.assert_frame_equal(got.reset_index(), want.astype({"n": "Int64"}),
                                  check_dtype=False)


def test_aggregates_and_resample_against_pandas():
    rng = np.random.default_rng(11)
    db, oid, df = keyed(rng, 20000)
    s = df.set_index("ts")["px"]
    with db.read() as tx:
        o = tx.open("q", oid)
        for lo, hi in [(0, 20000), (0, 1), (777, 13001), (19999, 20000)]:
            a = o["px"].aggregate(lo, hi)
            w = s.iloc[lo:hi]
            assert (a["rows"], a["count"]) == (len(w), w.count())
            if a["count"]:
                assert a["sum"] == pytest.approx(w.sum(), rel=1e-12)
                assert (a["min"], a["max"]) == (w.min(), w.max())
                assert (a["first"], a["last"]) == (w.dropna().iloc[0], w.dropna().iloc[-1])
        lo, hi = df["ts"].iloc[5000], df["ts"].iloc[9000] + np.timedelta64(1, "s")
        a = o["px"].aggregate_window(o["ts"], lo, hi)
        w = s[(s.index >= lo) & (s.index < hi)]
        assert (a["rows"], a["count"]) == (len(w), w.count())
        assert a["mean"] == pytest.approx(w.mean(), rel=1e-12)
        for width in ["7s", "1min", "1h"]:
            got = o.resample("ts", "px", width)
            r = s.resample(width, origin="epoch")
            want = r.agg(["first", "max", "min", "last", "count", "sum"])
            want.columns = ["open", "high", "low", "close", "count", "sum"]
            want["rows"] = r.size()
            want = want[want["rows"] > 0]
            pd.testing.assert_frame_equal(got, want, check_dtype=False, check_freq=False,
                                          check_names=False)


def test_bad_inputs_raise_and_change_nothing():
    """Each bad call raises velseq.Error with its code and leaves the fields
    and the transaction as they were."""
    db = velseq.Database()
    db.define("q", ts=velseq.seq("datetime64[ns]", "ascending"),
              px=velseq.seq("float64", "ascending"), v=velseq.seq("int32"))
    tx = db.write()
    o = tx.create("q")
    o["ts"].append(T0 + np.arange(10).astype("timedelta64[s]"))
    o["px"].append(np.arange(10.0))
    o["v"].append(np.arange(10, dtype=np.int32))
    ro = np.arange(10, dtype=np.int32)
    ro.flags.writeable = False
    cases = [
        ("VEL_E_ILLEGAL_TYPE", lambda: o["v"].append(np.arange(3, dtype=np.int64))),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["v"].append(np.array(["a"]))),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["ts"].append(np.arange(3))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].append(np.arange(6, dtype=np.int32)[::2])),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].append(np.zeros((2, 2), np.int32))),
        ("VEL_E_SEQ_LENGTH_MISMATCH",
         lambda: o["v"].append(np.arange(3, dtype=np.int32), np.zeros(4, bool))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["px"].append(np.array([11.0, np.nan]))),
        ("VEL_E_SEQ_OUT_OF_ORDER", lambda: o["px"].append(np.array([12.0, 11.0]))),
        ("VEL_E_SEQ_OUT_OF_ORDER", lambda: o["ts"].append(np.array([T0]))),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["ts"].append(np.array(["NaT"], "datetime64[ns]"))),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["px"].append(np.array([20.0]), np.array([True]))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].append(np.array(["2300-01-01"], "datetime64[s]"))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].read(5, 11)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].read(6, 5)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].read(0, 10, out=ro)),
        ("VEL_E_SEQ_LENGTH_MISMATCH", lambda: o["v"].read(0, 5, out=np.empty(4, np.int32))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].insert(11, np.arange(2, dtype=np.int32))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["px"].search(5.0, 1.0)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].asof(np.arange(3, dtype=np.int32))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].asof(np.array([T0]), direction="sideways")),
        ("VEL_E_HOST_NO_FIELD", lambda: o["nope"]),
        ("VEL_E_HOST_WRONG_FIELD", lambda: o.resample("v", "px", "1s")),
        ("VEL_E_ILLEGAL_PARAM", lambda: o.resample("ts", "px", "0s")),
        ("VEL_E_HOST_NO_CLASS", lambda: tx.create("nope")),
        ("VEL_E_ILLEGAL_TYPE", lambda: db.define("bad", s=velseq.seq("U4"))),
        ("VEL_E_HOST_BUSY", db.close),
        ("VEL_E_HOST_BUSY", db.write),  # would wait for this thread's own writer
    ]
    before = [o[f].read() for f in ("ts", "px", "v")]
    for code, call in cases:
        with pytest.raises(velseq.Error) as e:
            call()
        assert e.value.name == code, (code, str(e.value))
        assert str(e.value).startswith(code) and len(str(e.value)) > len(code) + 20
        for f, b in zip(("ts", "px", "v"), before):
            np.testing.assert_array_equal(o[f].read(), b)

    # a transaction used from another thread
    errors = []

    def other():
        try:
            o["v"].append(np.arange(3, dtype=np.int32))
        except velseq.Error as err:
            errors.append(err.name)

    t = threading.Thread(target=other)
    t.start()
    t.join()
    assert errors == ["VEL_E_HOST_BUSY"]
    # another thread's writer waits for this one without holding the GIL
    waiter = threading.Thread(target=lambda: db.write().rollback())
    waiter.start()
    waiter.join(0.2)
    assert waiter.is_alive()
    tx.commit()
    waiter.join()

    # after the transaction, after close
    with pytest.raises(velseq.Error, match="VEL_E_HOST_TRANS_CLOSED"):
        len(o["v"])
    unsorted = pd.DataFrame({"x": [1.0, 2.0]}, index=pd.DatetimeIndex([T0 + 1, T0], name="t"))
    with pytest.raises(velseq.Error, match="VEL_E_SEQ_OUT_OF_ORDER"):
        db.from_pandas(unsorted, "u")
    with db.read() as r:
        assert r.count("u") == 0 and r.count("q") == 1
    with pytest.raises(ZeroDivisionError):
        with db.write() as w:
            w.open("q", o.oid)["v"].append(np.arange(3, dtype=np.int32))
            1 / 0
    with db.read() as r:
        np.testing.assert_array_equal(r.open("q", o.oid)["v"].read(), before[2])
    db.close()
    with pytest.raises(velseq.Error, match="VEL_E_HOST_BAD_ARG"):
        db.read()


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * 4


def test_no_leak_over_many_calls():
    """10^5 calls, refused ones included, leave the resident size flat."""
    rng = np.random.default_rng(5)
    db, oid, _ = keyed(rng, 2000)
    probes = np.array(["2024-01-02T00:10:00"], "datetime64[s]")
    bad = np.arange(3, dtype=np.int8)

    def calls(k):
        with db.read() as tx:
            o = tx.open("q", oid)
            for _ in range(k):
                o["px"].read(100, 400)
                o["px"].aggregate(0, 2000)
                o["px"].gather(o["ts"].asof(probes))
                try:
                    o["n"].append(bad)
                except velseq.Error:
                    pass

    calls(2000)
    start = rss_kib()
    calls(25000)  # 10^5 calls
    assert rss_kib() - start < 2048


def test_file_round_trip_every_dtype(tmp_path):
    """Every dtype with nulls through an image, a log replayed on it, a
    checkpoint and to_pandas; names and orders come back with the classes."""
    rng = np.random.default_rng(11)
    dtypes = NUMERIC + ["datetime64[ns]", "S1", "S7", "S32"]
    model = {}

    def add(db, oid, n):
        with db.write() as tx:
            o = tx.create("c") if oid is None else tx.open("c", oid)
            for i, dt in enumerate(dtypes):
                v, m = random_values(rng, dt, n), rng.random(n) < 0.3
                o[f"f{i}"].append(v, m)
                old = model.get(i, (v[:0], m[:0]))
                model[i] = (np.concatenate([old[0], v]), np.concatenate([old[1], m]))
            o["s"] = b"xyz"
            return o.oid

    db = velseq.Database()
    db.define("c", s=velseq.value("S5"),
              **{f"f{i}": velseq.seq(dt) for i, dt in enumerate(dtypes)})
    oid = add(db, None, 700)
    db.save(tmp_path / "a.img")
    db.close()
    img, log = str(tmp_path / "a.img"), str(tmp_path / "a.log")
    with velseq.Database.open(img, log=log, sync="none") as db:
        add(db, oid, 300)
        db.define("k", key=velseq.seq("S4", "descending"))
    db = velseq.Database.open(img, log=log)
    assert db.fields("k") == [("key", "seq", "S4", "descending")]
    add(db, oid, 50)
    db.checkpoint(img)
    db.close()
    for db in (velseq.Database.open(img), velseq.Database.open(img, log=log)):
        with db.read() as tx:
            o = tx.open("c", oid)
            assert o["s"] == b"xyz"
            for i, (v, m) in model.items():
                same(o[f"f{i}"].read(), v, m)
        df = db.to_pandas("c", oid)  # S7 with nulls: bytes or None
        assert df[f"f{len(NUMERIC) + 2}"].isna().tolist() == model[len(NUMERIC) + 2][1].tolist()
        db.close()
        with velseq.Database() as again:  # bytes and None columns back to char fields
            pd.testing.assert_frame_equal(again.to_pandas("c", again.from_pandas(df, "c")), df)


def test_bad_files(tmp_path):
    good = tmp_path / "good.img"
    velseq.Database().save(good)
    data = good.read_bytes()
    (tmp_path / "text.img").write_bytes(b"not an image\n" * 100)
    (tmp_path / "cut.img").write_bytes(data[: len(data) // 2])
    (tmp_path / "flip.img").write_bytes(data[:-9] + bytes([data[-9] ^ 1]) + data[-8:])
    for name, code in [("missing.img", "VEL_E_HOST_IO"), ("text.img", "VEL_E_HOST_BAD_IMAGE"),
                       ("cut.img", "VEL_E_HOST_BAD_IMAGE"), ("flip.img", "VEL_E_HOST_BAD_IMAGE")]:
        with pytest.raises(velseq.Error) as e:
            velseq.Database.open(tmp_path / name)
        assert e.value.name == code and name in str(e.value), str(e.value)


def test_char_search_against_numpy():
    """Bytewise order of zero-padded values is NumPy's order of S<N>."""
    rng = np.random.default_rng(12)
    keys = np.sort(random_values(rng, "S4", 3000))
    db = velseq.Database()
    db.define("k", key=velseq.seq("S4", "ascending"))
    with db.write() as tx:
        o = tx.create("k")
        o["key"].append(keys[:1000].astype("S9"))  # wider dtype, values that fit
        o["key"].append(list(keys[1000:]))  # bytes of 0..4: padded
        with pytest.raises(velseq.Error, match="VEL_E_ILLEGAL_PARAM.*more than char"):
            o["key"].append(np.array([b"\xff" * 5]))
        for _ in range(300):
            lo, hi = np.sort(random_values(rng, "S4", 2))
            lb, hb = rng.choice(["inclusive", "exclusive"], 2)
            first = np.searchsorted(keys, lo, "left" if lb == "inclusive" else "right")
            last = np.searchsorted(keys, hi, "right" if hb == "inclusive" else "left")
            got = o["key"].search(lo, hi, lb, hb)
            assert got == (first, last) if first < last else got[0] == got[1]
        np.testing.assert_array_equal(o["key"].read(), keys)
