"""The velseq package against NumPy models and pandas, on random data."""

import ctypes
import datetime
import io
import os
import select
import sys
import time
from concurrent.futures import ThreadPoolExecutor, wait
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import velseq

NUMERIC = ["int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64",
           "float32", "float64"]
T0 = np.datetime64("2024-01-02T00:00:00", "ns")
N = 20000  # rows of the quotes fixture


def at(offsets, unit="ns"):
    return T0 + np.asarray(offsets).astype(f"timedelta64[{unit}]")


def random_values(rng, dtype, n):
    if dtype[0] == "S":  # 0..N bytes, none zero (NumPy's S<N> drops trailing ones)
        return np.array([bytes(rng.choice(list(b"abc\xff"), rng.integers(0, int(dtype[1:]) + 1)))
                         for _ in range(n)], dtype)
    if dtype == "datetime64[ns]":
        return at(rng.integers(-10**17, 10**17, n))
    dt = np.dtype(dtype)
    info = np.finfo(dt) if dt.kind == "f" else np.iinfo(dt)
    v = (rng.normal(0, 1e6, n).astype(dt) if dt.kind == "f"
         else rng.integers(info.min, info.max, n, dtype=dt, endpoint=True))
    v[:3] = [info.min, info.max, np.nan if dt.kind == "f" else 0]
    return v


def same(got, values, mask):
    """got (an ndarray, masked where nulls exist) holds values with nulls at mask."""
    assert isinstance(got, np.ma.MaskedArray) == mask.any() and got.dtype == values.dtype
    np.testing.assert_array_equal(np.ma.getmaskarray(got), mask)
    np.testing.assert_array_equal(np.ma.getdata(got)[~mask], values[~mask])


def raises(code, call, *args, says=""):
    """call(*args) raises velseq.Error `code` with a message that explains it;
    a refusal of the caller's values is also a ValueError (a TypeError when
    their Python type is one the call does not take)."""
    with pytest.raises(velseq.Error) as e:
        call(*args)
    msg = str(e.value)
    assert e.value.name == code and msg.startswith(code) and len(msg) > len(code) + 20, msg
    assert says in msg, msg
    assert isinstance(e.value, (ValueError, TypeError)) == (code.startswith(("VEL_E_ILLEGAL", "VEL_E_SEQ")) or
                                               code == "VEL_E_HOST_WRONG_FIELD"), code


@pytest.mark.parametrize("dtype", NUMERIC + ["datetime64[ns]"])
def test_round_trip_with_nulls(dtype):
    """Appends (masked, with a mask in the other byte order, plain keeping
    NaN), an insert and a delete against a NumPy model (NaN a null unless
    kept); reads whole, by ranges and into a caller's buffer; a scalar."""
    rng = np.random.default_rng(7)
    db = velseq.Database()
    db.define("c", v=velseq.seq(dtype), s=velseq.value(dtype))
    vals, mask = random_values(rng, dtype, 3000), rng.random(3000) < 0.2
    mask[2000:], vals[2001] = False, vals[2]
    mask[:2000] |= vals[:2000] != vals[:2000]  # NaN
    with db.write() as tx:
        o = tx.create("c")
        o["v"].append(np.ma.masked_array(vals[:1000], mask=mask[:1000]))
        o["v"].append(vals[1000:2000].astype(vals.dtype.newbyteorder()), mask[1000:2000])
        o["v"].append(vals[2000:], nan_as_null=False)
        o["v"].insert(500, vals[:300], mask[:300])
        o["v"].delete(2000, 2700)
        o["s"] = vals[5]
        oid = o.oid
    vals, mask = (np.delete(np.insert(a, 500, a[:300]), np.s_[2000:2700]) for a in (vals, mask))
    with db.read() as tx:
        o = tx.open("c", oid)
        assert len(o["v"]) == len(vals)
        same(o["v"].read(), vals, mask)
        for first, last in [(0, 0), (0, 1), (127, 129), (1000, 2600), (len(vals) - 1, None)]:
            same(o["v"].read(first, last), vals[first:last], mask[first:last])
        buf, m = np.empty(400, vals.dtype), mask[100:500]
        same(o["v"].read(100, 500, out=buf), vals[100:500], m)
        np.testing.assert_array_equal(buf[~m], vals[100:500][~m])
        np.testing.assert_array_equal(o["s"], vals[5])


def test_datetime_units_and_frames():
    """datetime64 of any unit lands on the same nanoseconds; a table with
    nullable columns survives from_pandas / to_pandas."""
    db = velseq.Database()
    db.define("t", ts=velseq.seq("datetime64[ns]"))
    base = np.array(["1700-03-01T00:00:00", "1969-12-31T23:59:59", "2262-04-10T00:00:00"],
                    "datetime64[s]")
    parts = [base.astype(f"datetime64[{u}]")
             for u in ["W", "D", "h", "m", "s", "ms", "us", "ns", "10ms", "M", "Y"]]
    with db.write() as tx:
        o = tx.create("t")
        for p in parts:
            o["ts"].append(p)
        np.testing.assert_array_equal(o["ts"].read(),
                                      np.concatenate([p.astype("datetime64[ns]") for p in parts]))
    rng, n = np.random.default_rng(3), 500
    df = pd.DataFrame({
        "px": pd.array(np.where(rng.random(n) < 0.1, None, rng.normal(100, 5, n)), "Float64"),
        "qty": pd.array(np.where(rng.random(n) < 0.1, None, rng.integers(1, 100, n)), "Int64"),
        "seen": np.where(rng.random(n) < 0.1, np.datetime64("NaT"), at(rng.integers(0, 10**12, n))),
        "code": rng.integers(0, 255, n).astype(np.uint8),
        "name": rng.choice(np.array(["Zürich", "東京", "", None], object), n),
    }, index=pd.DatetimeIndex(np.sort(at(rng.integers(0, 10**12, n))), name="ts"))
    pd.testing.assert_frame_equal(db.to_pandas("quotes", db.from_pandas(df, "quotes")), df)


@pytest.fixture(scope="module")
def quotes():
    """A frame as pd.read_csv gives it: ascending times (runs of equal ones), a
    float64 price with NaN for empty cells, a count; stored as an object in a
    database: (database, oid, frame).  Prices are in quarters, so that every
    sum is exact and pandas' answers are the only right ones to the bit."""
    rng = np.random.default_rng(11)
    ts = at(np.sort(rng.integers(0, 50 * N, N) // 4 * 4), "s")
    px = np.where(rng.random(N) < 0.15, np.nan, np.round(rng.normal(100, 10, N) * 4) / 4)
    csv = pd.DataFrame({"ts": ts, "px": px, "n": rng.integers(-1000, 1000, N)}).to_csv(index=False)
    df = pd.read_csv(io.StringIO(csv), parse_dates=["ts"])
    db = velseq.Database(page_size=512)  # deep trees from few rows
    return db, db.from_pandas(df, "q", time="ts"), df


@pytest.mark.parametrize("direction", ["backward", "forward", "nearest"])
@pytest.mark.parametrize("strict", [False, True])
@pytest.mark.parametrize("tolerance", [None, "90s"])
def test_asof_against_merge_asof(quotes, direction, strict, tolerance):
    db, oid, df = quotes
    rng = np.random.default_rng(1)
    # ascending probes, many of them equal to stored times, some outside,
    # more than two blocks of 16384 (answered a block at a time); NaT ones
    # answered null, the others as pandas answers them
    probes = np.sort(np.concatenate([df["ts"].to_numpy()[rng.integers(0, N, 12000)],
                                     at(rng.integers(-5000, 50 * N + 10000, 28000), "s")]))
    want = pd.merge_asof(pd.DataFrame({"ts": probes}), df, on="ts", direction=direction,
                         allow_exact_matches=not strict,
                         tolerance=tolerance and pd.Timedelta(tolerance))
    nat = rng.random(len(probes)) < 0.05
    with db.read() as tx:
        got = tx.open("q", oid).asof_join("ts", np.where(nat, np.datetime64("NaT"), probes),
                                          ["px", "n"], direction=direction, strict=strict,
                                          tolerance=tolerance)
        for unit in ("ns", "us"):  # read in place, and converted
            nats = np.full(3, np.datetime64("NaT"), f"M8[{unit}]")
            assert tx.open("q", oid)["ts"].asof(nats).mask.all()
        if (direction, strict, tolerance) == ("backward", False, None):
            pos = tx.open("q", oid)["ts"].asof(probes.astype("M8[ns]"))
            keys = df["ts"].to_numpy()
            np.testing.assert_array_equal(np.ma.filled(pos, -1),
                                          np.searchsorted(keys, probes, side="right") - 1)
    assert got[nat].isna().all().all()
    pd.testing.assert_frame_equal(got[~nat].reset_index(),
                                  want[~nat].reset_index(drop=True).astype({"n": "Int64"}),
                                  check_dtype=False)


def test_asof_by_against_merge_asof():
    """As-of within groups, an object per symbol, as merge_asof(by=) answers:
    probes of every symbol interleaved, of a symbol without rows and of one
    without an object."""
    rng = np.random.default_rng(5)
    db = velseq.Database()
    db.define("quote", sym=velseq.value("S4"), ts=velseq.seq("datetime64[ns]", "ascending"),
              px=velseq.seq("float64"))
    frames = []
    with db.write() as tx:
        for sym, n in [("AA", 3000), ("BB", 40), ("CC", 0)]:
            o = tx.create("quote")
            o["sym"] = sym
            ts, px = at(np.sort(rng.integers(0, 10**6, n)), "ms"), rng.integers(0, 400, n) / 4
            o["ts"].append(ts)
            o["px"].append(px)
            frames.append(pd.DataFrame({"ts": ts, "sym": sym, "px": px}))
    right = pd.concat(frames).sort_values("ts", kind="stable")
    left = pd.DataFrame({"ts": at(np.sort(rng.integers(-1000, 10**6 + 1000, 2000)), "ms"),
                         "sym": rng.choice(["AA", "BB", "CC", "DD"], 2000)})
    want = pd.merge_asof(left, right, on="ts", by="sym")
    with db.read() as tx:
        got = tx.asof_join("quote", "ts", left["ts"], ["px"], by="sym", groups=left["sym"])
    np.testing.assert_array_equal(got["px"].to_numpy(dtype=float, na_value=np.nan),
                                  want["px"].to_numpy())


KERNELS = velseq.kernels  # the table layer's registry


def kernels_of(w, base, timed=False):
    """A summary over a pandas Series of nullable values at positions base..:
    the kernels, the count of nulls and (timed) the times of the extremes."""
    v = w.reset_index(drop=True).dropna()
    want = {"count": len(v), "sum": v.sum(), "rows": len(w), "nulls": len(w) - len(v)}
    times = {"argmin_time": None, "argmax_time": None}
    if v.empty:
        return {**dict.fromkeys(KERNELS), **want, **(times if timed else {})}
    if timed:
        times = {"argmin_time": w.index[v.idxmin()], "argmax_time": w.index[v.idxmax()]}
    return {**want, "mean": v.mean(), "min": v.min(), "max": v.max(), "first": v.iloc[0],
            "last": v.iloc[-1], "argmin": base + v.idxmin(), "argmax": base + v.idxmax(),
            **(times if timed else {})}


def test_aggregates_and_resample_against_pandas(quotes):
    """Every kernel under its name, over positions, a time window and time
    buckets, against pandas; kernels chosen by name, unknown ones and ones
    that do not apply refused."""
    db, oid, df = quotes
    s = df.set_index("ts")["px"]
    assert {"count", "sum", "mean", "min", "max", "first", "last", "argmin", "argmax"} <= set(KERNELS)
    with db.read() as tx:
        o = tx.open("q", oid)
        lo, hi = df["ts"].iloc[5000], df["ts"].iloc[9000] + np.timedelta64(1, "s")
        first = int(np.searchsorted(df["ts"], lo))
        cases = [(o["px"].aggregate(a, b), s.iloc[a:b], a, False)
                 for a, b in [(0, N), (0, 1), (777, 13001), (N - 1, N), (5, 5)]]
        cases.append((o["px"].aggregate_window(o["ts"], lo, hi), s[(s.index >= lo) & (s.index < hi)],
                      first, True))
        for got, w, base, timed in cases:
            want = kernels_of(w, base, timed)
            assert list(got) == KERNELS + ["nulls"] + ["argmin_time", "argmax_time"] * timed
            assert got == want
        assert o["n"].aggregate(aggs=["sum", "argmax"]) == {"sum": df["n"].sum(),
                                                           "argmax": df["n"].idxmax()}
        assert list(o["ts"].aggregate()) == [k for k in KERNELS if k not in ("sum", "mean")] + [
            "nulls"]
        raises("VEL_E_ILLEGAL_PARAM", o["px"].aggregate, 0, 10, ["mean", "median"], says="median")
        raises("VEL_E_ILLEGAL_TYPE", o["ts"].aggregate, 0, 10, ["sum"], says="datetime")
        raises("VEL_E_ILLEGAL_PARAM", lambda: o.resample("ts", "px", "1s", aggs=["open"]),
               says="open")
        for t in [lo, lo.to_datetime64(), lo.to_pydatetime(), lo.isoformat(),
                  lo.tz_localize("UTC").tz_convert("Asia/Tokyo")]:  # one instant, each way
            assert o["ts"].search(t, None) == (first, N), t
        bars = ["first", "max", "min", "last", "count", "sum", "mean"]
        for width in ["7s", pd.Timedelta(minutes=1), np.timedelta64(1, "h"),
                      datetime.timedelta(hours=1)]:
            r = s.resample(pd.Timedelta(width), origin="epoch")
            want = r.agg(bars)[r.size() > 0]
            pd.testing.assert_frame_equal(o.resample("ts", "px", width, aggs=bars), want,
                                          check_dtype=False, check_freq=False, check_names=False)
        assert list(o.resample("ts", "px", "1h")) == KERNELS


def test_bad_inputs_raise_and_change_nothing():
    """Each bad call raises velseq.Error with its code and leaves the fields
    and the transaction as they were."""
    db = velseq.Database()
    db.define("q", ts=velseq.seq("datetime64[ns]", "ascending"),
              px=velseq.seq("float64", "ascending"), v=velseq.seq("int32"), c=velseq.seq("S4"))
    tx = db.write()
    o = tx.create("q")
    i32 = np.arange(10, dtype=np.int32)
    pool = ThreadPoolExecutor(1)  # another thread
    o["ts"].append(at(np.arange(10), "s"))
    o["px"].append(np.arange(10.0))
    o["v"].append(i32)
    o["c"].append(np.array(["é", b"\xff"], object))  # text as UTF-8, bytes as they are
    cases = [
        ("VEL_E_ILLEGAL_TYPE", lambda: o["v"].append(i32[:3].astype(np.int64))),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["v"].append(np.array(["a"]))),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["ts"].append([20240103])),  # not taken as ns since 1970
        ("VEL_E_ILLEGAL_TYPE", lambda: o["ts"].asof([20240101])),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["px"].aggregate_window(o["ts"], 19900101, 19910101)),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["ts"].asof([T0], tolerance=5)),
        ("VEL_E_ILLEGAL_TYPE", lambda: o.resample("ts", "px", 60)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o.resample("ts", "px", "bad")),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].search("2024-13-01", None)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].append([1.5])),  # NumPy would cut it to 1
        ("VEL_E_ILLEGAL_PARAM", lambda: o["c"].append(["ééé"])),  # 6 bytes of UTF-8
        ("VEL_E_ILLEGAL_TYPE", lambda: o["c"].append([b"ab", 3])),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["px"].asof([np.nan])),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["px"].search(np.nan, None)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].append(i32[::2])),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].append(i32.reshape(2, 5))),
        ("VEL_E_SEQ_LENGTH_MISMATCH", lambda: o["v"].append(i32[:3], np.zeros(4, bool))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["px"].append([11.0, np.nan], nan_as_null=False)),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["px"].append([11.0, np.nan])),
        ("VEL_E_SEQ_NULL_VALUE", lambda: o["ts"].append(np.array(["NaT"], "datetime64[ns]"))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].append(np.array(["2300-01-01"], "datetime64[s]"))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].append(np.array([1], "datetime64[100000W]"))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].search(np.datetime64(2**62, "us"), None)),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].asof([T0], tolerance=np.timedelta64(2**62, "us"))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].asof([T0], tolerance="300000 days")),
        ("VEL_E_ILLEGAL_TYPE", lambda: o["v"].read("0", 3)),  # a WrongType, also a TypeError
        ("VEL_E_ILLEGAL_TYPE", lambda: tx.open("q", "1")),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["v"].read(0, 10, out=np.broadcast_to(i32, 10))),
        ("VEL_E_SEQ_LENGTH_MISMATCH", lambda: o["v"].read(0, 5, out=np.empty(4, np.int32))),
        ("VEL_E_ILLEGAL_PARAM", lambda: o["ts"].asof(np.array([T0]), direction="sideways")),
        ("VEL_E_ILLEGAL_PARAM", lambda: o.resample("ts", "px", "0s")),
        ("VEL_E_ILLEGAL_TYPE", lambda: db.define("bad", s=velseq.seq("U4"))),
        ("VEL_E_HOST_BUSY", db.close),
        ("VEL_E_HOST_BUSY", db.write),  # would wait for this thread's own writer
        ("VEL_E_HOST_BUSY", lambda: pool.submit(o["v"].append, i32[:3]).result()),  # not its tx
    ]
    for huge in (np.inf, 1e30):  # beyond any distance: no limit
        np.testing.assert_array_equal(o["px"].asof([-1.0, 50.0], tolerance=huge).filled(-1),
                                      [-1, 9])
    fields = ("ts", "px", "v", "c")
    before = [o[f].read() for f in fields]
    for code, call in cases:
        raises(code, call)
        for f, b in zip(fields, before):
            np.testing.assert_array_equal(o[f].read(), b)
    tx.commit()
    pool.shutdown()

    # after the transaction, after close
    raises("VEL_E_HOST_TRANS_CLOSED", lambda: len(o["v"]))
    t = pd.DatetimeIndex([T0 + 1, T0], name="t")
    for code, df, cls in [  # refused tables define no class and make no object
            ("VEL_E_SEQ_OUT_OF_ORDER", pd.DataFrame({"x": [1.0, 2.0]}, index=t), "u"),
            ("VEL_E_SEQ_NULL_VALUE", pd.DataFrame({"x": [1, 2]}, index=t.insert(0, pd.NaT)[:2]), "u"),
            ("VEL_E_ILLEGAL_PARAM", pd.DataFrame({"x": ["é" * 17, None]}, index=t[::-1]), "u"),
            ("VEL_E_ILLEGAL_TYPE", pd.DataFrame({"x": ["a", 1]}, index=t[::-1]), "u"),
            ("VEL_E_HOST_WRONG_FIELD", pd.DataFrame({"ts": [T0], "px": [1.0], "v": [1]}), "q")]:
        raises(code, db.from_pandas, df, cls)
    with pytest.raises(ZeroDivisionError), db.write() as w:
        w.open("q", o.oid)["v"].append(i32[:3])
        1 / 0
    assert db.classes() == ["q"]
    with db.read() as r:
        assert r.count("q") == 1
        np.testing.assert_array_equal(r.open("q", o.oid)["v"].read(), i32)
    db.close()
    raises("VEL_E_HOST_BAD_ARG", db.read)


def test_no_leak_over_many_calls(quotes):
    """Calls, refused ones included, leave Python's blocks and the C heap as
    they were: a leak of one object or 16 bytes a call grows both of two
    windows of 5 * 4000 calls, where caches and free lists settle in one."""
    db, oid, _ = quotes
    probes, bad = np.array(["2024-01-02T00:10:00"], "datetime64[s]"), np.arange(3, dtype=np.int8)

    class MallInfo2(ctypes.Structure):  # glibc's: heap bytes in use, not the resident size
        _fields_ = [(f, ctypes.c_size_t) for f in ("arena", "ordblks", "smblks", "hblks",
                    "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost")]
    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = MallInfo2

    def calls(k):  # Python's blocks and the heap's bytes in use after k rounds
        with db.read() as tx:
            o = tx.open("q", oid)
            for _ in range(k):
                o["px"].read(100, 400)
                o["px"].aggregate(0, 2000)
                o["px"].gather(o["ts"].asof(probes))
                with pytest.raises(velseq.Error):
                    o["n"].append(bad)
        m = mallinfo2()
        return np.array([sys.getallocatedblocks(), m.uordblks + m.hblkhd])

    a = calls(1000)
    b = calls(4000)
    grown = np.minimum(b - a, calls(4000) - b)
    assert grown[0] < 1000 and grown[1] < 32 * 1024, grown


def test_threads_and_close(tmp_path):
    """Readers checking every snapshot, a writer, saves and close() attempts
    from several threads: each snapshot is a prefix of what was written,
    close() is refused (VEL_E_HOST_BUSY) while a transaction or a save runs,
    and after it every call says the database is closed.  A transaction
    stays its thread's even when a new thread gets an ended one's id; once
    that thread has ended, any thread may roll it back."""
    db = velseq.Database()
    db.define("t", v=velseq.seq("int64"))
    with db.write() as tx:
        tx.create("t")["v"].append(np.arange(10**5))  # an image larger than a pipe holds
        oid = tx.create("t").oid
    tx = db.write()
    with ThreadPoolExecutor(1) as p:  # a writer waiting for tx counts as open
        waiter = p.submit(lambda: db.write().rollback())
        assert wait([waiter], 0.2).not_done
        tx.commit()
        raises("VEL_E_HOST_BUSY", db.close)
        waiter.result()
    # A save held inside its writes: its temporary file is a FIFO nobody reads.
    fifo = tmp_path / f"held.img.tmp.{os.getpid()}"
    os.mkfifo(fifo)
    r = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
    with ThreadPoolExecutor(1) as p:
        saving = p.submit(db.save, tmp_path / "held.img")
        try:
            assert select.select([r], [], [], 30)[0]  # the save is writing
            raises("VEL_E_HOST_BUSY", db.close, says="save")
        finally:
            os.set_blocking(r, True)
            while os.read(r, 1 << 16):
                pass
        raises("VEL_E_HOST_IO", saving.result)  # a FIFO cannot be flushed
    os.close(r)
    with ThreadPoolExecutor(1) as p:  # the thread ends with the pool, its transaction open
        tx = p.submit(db.write).result()
    time.sleep(0.05)  # join() returns before the thread exits and glibc caches its stack
    for _ in range(3):  # fresh threads, which glibc gives the ended thread's id
        with ThreadPoolExecutor(1) as p:
            raises("VEL_E_HOST_BUSY", lambda: p.submit(tx.create, "t").result(), says="ended")
    raises("VEL_E_HOST_BUSY", tx.commit, says="ended")
    tx.rollback()

    stop, closed, errors = False, [], []

    def run(body):
        try:
            while not stop and not closed:
                body()
        except velseq.Error as e:  # only the database closing under it may stop a thread
            if e.name != "VEL_E_HOST_BAD_ARG" or not closed:
                errors.append(e)
        except Exception as e:
            errors.append(e)

    def write():
        with db.write() as tx:
            v = tx.open("t", oid)["v"]
            v.append(np.arange(len(v), len(v) + 5000))

    def read():
        with db.read() as tx:
            v = tx.open("t", oid)["v"].read()
            np.testing.assert_array_equal(v, np.arange(len(v)))

    with ThreadPoolExecutor(4) as p:
        jobs = [p.submit(run, f) for f in (write, read, read,
                                           lambda: db.save(tmp_path / "a.img"))]
        for round in range(400):
            try:
                db.close()
                closed.append(round)
            except velseq.Error as e:
                assert e.name == "VEL_E_HOST_BUSY", e
            if closed or wait(jobs, 0.002).done:
                break
        stop = True
        wait(jobs)
    assert not errors, errors
    db.close()
    raises("VEL_E_HOST_BAD_ARG", db.read, says="closed")


def test_file_round_trip_every_dtype(tmp_path):
    """Every dtype with nulls through an image, a log replayed on it, a
    checkpoint and to_pandas; names and orders come back with the classes."""
    rng = np.random.default_rng(11)
    fields = {f"f{i}": dt for i, dt in enumerate(NUMERIC + ["datetime64[ns]", "S1", "S7", "S32"])}
    chunks = {f: [] for f in fields}  # (values, nulls) appended to each field

    def add(db, n, oid=None):
        with db.write() as tx:
            o = tx.create("c") if oid is None else tx.open("c", oid)
            for f, dt in fields.items():
                v = random_values(rng, dt, n)
                chunks[f].append((v, (rng.random(n) < 0.3) | (v != v)))  # NaN: null
                o[f].append(*chunks[f][-1])
            o["s"] = b"xyz"
            return o.oid

    img, log = tmp_path / "a.img", tmp_path / "a.log"
    with velseq.Database() as db:
        db.define("c", s=velseq.value("S5"), **{f: velseq.seq(dt) for f, dt in fields.items()})
        oid = add(db, 700)
        db.save(img)
    with velseq.Database.open(img, log=log, sync="none") as db:
        add(db, 300, oid)
        db.define("k", key=velseq.seq("S4", "descending"))
    with velseq.Database.open(img, log=log) as db:
        assert db.fields("k") == [("key", "seq", "S4", "descending")]
        add(db, 50, oid)
        db.checkpoint(img)
    for db_log in (None, log):  # one at a time: a writable open locks the image
        db = velseq.Database.open(img, log=db_log)
        df = db.to_pandas("c", oid)  # nulls as NA, NaT or None
        with db.read() as tx:
            o = tx.open("c", oid)
            assert o["s"] == b"xyz"
            for f, c in chunks.items():
                v, m = map(np.concatenate, zip(*c))
                same(o[f].read(), v, m)
                assert df[f].isna().tolist() == m.tolist()
        db.close()
        with velseq.Database() as again:  # bytes and None columns back to char fields
            pd.testing.assert_frame_equal(again.to_pandas("c", again.from_pandas(df, "c")), df)


def test_bad_read_only_and_recovered_files(tmp_path):
    """An image of an older package is refused; with an image and a log of
    four commits, a read-only open refuses writes and changes no byte; damage
    in the second record refuses the plain open, a recovering one keeps the
    first and warns."""
    img, log = tmp_path / "a.img", tmp_path / "a.log"
    with velseq.Database() as db:
        db.define("c", v="int64")
        db.save(img)
    with velseq.Database() as db:  # an image of the package before the host's catalogue
        db.define("velseq.catalog", **{"velseq.catalog": "S32"})
        db.save(tmp_path / "old.img")
    raises("VEL_E_HOST_BAD_IMAGE", velseq.Database.open, tmp_path / "old.img",
           says="older velseq Python package")
    with velseq.Database.open(img, log=log) as db:
        for n in range(4):
            with db.write() as tx:
                tx.create("c")["v"].append(np.arange(n + 1))
    good, at = log.read_bytes(), [64]  # the records' offsets (24-byte headers)
    for _ in range(3):
        at.append(at[-1] + 24 + int.from_bytes(good[at[-1] + 8:at[-1] + 16], "little"))
    log.write_bytes(good[:-5])  # a torn last record: cut, and said so
    with pytest.warns(velseq.LogWarning, match="torn tail of 1 record"):
        st = velseq.Database.open(img, log=log, read_only=True).open_stats
    assert [st[k] for k in ("log_replayed", "log_cut_records", "log_cut_bytes",
                            "log_damage_offset")] == [3, 1, len(good) - at[3] - 5, at[3]]
    log.write_bytes(good)
    with velseq.Database.open(img, log=log, read_only=True) as db:
        with pytest.raises(velseq.Error, match="VEL_E_HOST_READ_ONLY"), db.write() as tx:
            tx.create("c")
    assert log.read_bytes() == good
    at = at[1]  # damage in the second record
    log.write_bytes(good[:at + 30] + bytes([good[at + 30] ^ 1]) + good[at + 31:])
    raises("VEL_E_HOST_BAD_LOG", velseq.Database.open, img, log, says=str(at))
    with pytest.warns(velseq.LogWarning, match=f"a.log.damaged-{at}"):
        db = velseq.Database.open(img, log=log, recover=True)
    st = db.open_stats
    assert st["log_set_aside_bytes"] == len(good) - at and st["objects"] == 1
    assert Path(st["log_set_aside_path"]).read_bytes()[31:] == good[at + 31:]
    db.close()


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
        raises("VEL_E_ILLEGAL_PARAM", o["key"].append, np.array([b"\xff" * 5]),
               says="more than char")
        for _ in range(300):
            lo, hi = np.sort(random_values(rng, "S4", 2))
            lb, hb = rng.choice(["inclusive", "exclusive"], 2)
            first = np.searchsorted(keys, lo, "left" if lb == "inclusive" else "right")
            last = np.searchsorted(keys, hi, "right" if hb == "inclusive" else "left")
            got = o["key"].search(lo, hi, lb, hb)
            assert got == (first, last) if first < last else got[0] == got[1]
        np.testing.assert_array_equal(o["key"].read(), keys)

