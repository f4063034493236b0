"""Arrow C streams out (read by DuckDB's C library and a ctypes reader) and in, Parquet."""

import ctypes as C
import os
import subprocess
import sys

import numpy as np
import pandas as pd
import pytest

import velseq

LIB = os.environ.get("VELSEQ_DUCKDB", "")
C.pythonapi.PyCapsule_GetPointer.restype = C.c_void_p
C.pythonapi.PyCapsule_GetPointer.argtypes = [C.py_object, C.c_char_p]


class Schema(C.Structure):
    pass


class Array(C.Structure):
    pass


class Stream(C.Structure):
    pass


Schema._fields_ = [("format", C.c_char_p), ("name", C.c_char_p), ("metadata", C.c_void_p),
                   ("flags", C.c_int64), ("n_children", C.c_int64), ("children", C.c_void_p),
                   ("dictionary", C.c_void_p), ("release", C.CFUNCTYPE(None, C.POINTER(Schema))),
                   ("private_data", C.c_void_p)]
Array._fields_ = [(n, C.c_int64) for n in ("length", "null_count", "offset", "n_buffers",
                                           "n_children")] + [
    ("buffers", C.POINTER(C.c_void_p)), ("children", C.c_void_p), ("dictionary", C.c_void_p),
    ("release", C.CFUNCTYPE(None, C.POINTER(Array))), ("private_data", C.c_void_p)]
Stream._fields_ = [("get_schema", C.CFUNCTYPE(C.c_int, C.POINTER(Stream), C.POINTER(Schema))),
                   ("get_next", C.CFUNCTYPE(C.c_int, C.POINTER(Stream), C.POINTER(Array))),
                   ("get_last_error", C.CFUNCTYPE(C.c_char_p, C.POINTER(Stream))),
                   ("release", C.CFUNCTYPE(None, C.POINTER(Stream))), ("private_data", C.c_void_p)]


def pointer(capsule):
    return C.pythonapi.PyCapsule_GetPointer(capsule, b"arrow_array_stream")


@pytest.fixture(scope="module")
def duck():
    """sql(query) -> rows of text cells (None: null); scan(name, capsule)."""
    if not os.path.isfile(LIB):
        pytest.skip(f"DuckDB's library is absent (VELSEQ_DUCKDB={LIB!r}): scripts/fetch-duckdb.sh")
    d = C.CDLL(LIB)
    for f, res in [("duckdb_value_varchar", C.c_void_p), ("duckdb_result_error", C.c_char_p),
                   ("duckdb_row_count", C.c_uint64), ("duckdb_column_count", C.c_uint64),
                   ("duckdb_value_is_null", C.c_bool)]:
        getattr(d, f).restype = res
    db, con, r = C.c_void_p(), C.c_void_p(), (C.c_uint64 * 6)()  # duckdb_result: 48 bytes
    assert d.duckdb_open(None, C.byref(db)) == 0 and d.duckdb_connect(db, C.byref(con)) == 0

    def cell(c, i):
        if d.duckdb_value_is_null(r, C.c_uint64(c), C.c_uint64(i)):
            return None
        p = d.duckdb_value_varchar(r, C.c_uint64(c), C.c_uint64(i))
        text = C.string_at(p).decode()
        d.duckdb_free(C.c_void_p(p))
        return text

    def sql(q):
        ok = d.duckdb_query(con, q.encode(), r) == 0
        err = None if ok else d.duckdb_result_error(r)
        rows = [[cell(c, i) for c in range(d.duckdb_column_count(r))]
                for i in range(d.duckdb_row_count(r))]
        d.duckdb_destroy_result(r)
        assert ok, err
        return rows

    def scan(name, capsule):  # DuckDB copies the stream; the capsule releases it
        assert d.duckdb_arrow_scan(con, name.encode(), C.c_void_p(pointer(capsule))) == 0
        sql(f"CREATE OR REPLACE TABLE {name}_t AS SELECT * FROM {name}; DROP VIEW {name}")

    yield sql, scan
    d.duckdb_disconnect(C.byref(con))
    d.duckdb_close(C.byref(db))


@pytest.fixture
def db():
    rng = np.random.default_rng(7)
    db = velseq.Database(page_size=1024)  # many leaves: many batches
    db.define("t", ts=velseq.seq("datetime64[ns]", "ascending"), px=velseq.seq("float64"),
              qty=velseq.seq("int32"), sym=velseq.seq("S6"), venue=velseq.value("uint16"))
    with db.write() as tx:
        for k, n in enumerate([3000, 1, 2500]):
            o = tx.create("t")
            o["ts"].append(np.datetime64("2024-01-30", "ns") + np.arange(n) * 10**12 * (k + 1))
            px = rng.normal(100, 5, n)
            px[rng.random(n) < 0.1] = np.nan  # NaN kept a value here
            o["px"].append(px, rng.random(n) < 0.2, nan_as_null=False)
            o["qty"].append(np.ma.masked_array(rng.integers(-9, 99, n, dtype="int32"),
                                               rng.random(n) < 0.3))
            o["sym"].append(np.array(["é", "ab", None, "xyz"], dtype=object)[rng.integers(0, 4, n)])
            o["venue"] = k + 7
    return db


def test_duckdb_answers_as_aggregate(db, duck):
    sql, scan = duck
    scan("a", db.arrow("t").__arrow_c_stream__())
    with db.read() as tx:
        for oid in tx.objects("t"):
            o = tx.open("t", oid)
            scan("o", o.__arrow_c_stream__())  # in the transaction, no oid column
            for col in ("px", "qty"):
                want = o[col].aggregate(aggs=["count", "sum", "min", "max"])
                for table, where in (("a_t", f"oid = {oid}"), ("o_t", "true")):
                    num = f"({col}) FILTER (WHERE NOT isnan({col}))"  # DuckDB: NaN the largest
                    got = sql(f"SELECT count({col}), sum({col}), min{num}, max{num}, "
                              f"count(*), min(venue) FROM {table} WHERE {where}")[0]
                    assert int(got[0]) == want["count"] and int(got[4]) == len(o["ts"])
                    assert [float(x) for x in got[1:4]] == pytest.approx(
                        [want["sum"], want["min"], want["max"]], nan_ok=True)
                    assert int(got[5]) == o["venue"]
    t0, t1 = np.datetime64("2024-01-30T00:30"), "2024-01-30T01:00"
    scan("w", db.arrow("t", ["sym"], [3], start=t0, end=t1).__arrow_c_stream__())
    with db.read() as tx:
        ts, sym = tx.open("t", 3)["ts"], tx.open("t", 3)["sym"]
        first, last = ts.search(t0, t1)
        want = [None if v is np.ma.masked else v.decode() for v in sym.read(first, last)]
    assert sql("SELECT oid, sym FROM w_t") == [["3", s] for s in want]


@pytest.mark.parametrize("parts", ["arrow", (), ("object", "day"), "month"])
def test_round_trip(db, request, tmp_path, parts):
    if parts == "arrow":
        back = velseq.Database()
        assert back.from_arrow(db.arrow("t"), "t") == 5501
    else:
        request.getfixturevalue("duck")
        db.to_parquet("t", tmp_path / "p", partition_by=parts)
        back = velseq.Database()
        assert back.from_parquet(tmp_path / "p", "t") == 5501
    assert back.fields("t") == db.fields("t")
    with db.read() as tx, back.read() as bx:
        assert tx.objects("t") == bx.objects("t")
        for oid in tx.objects("t"):
            pd.testing.assert_frame_equal(db.to_pandas("t", oid), back.to_pandas("t", oid))
            assert tx.open("t", oid)["venue"] == bx.open("t", oid)["venue"]


def test_sequence_stream_and_lifetimes(db):
    tx = db.write()
    px = tx.open("t", 1)["px"]
    s = Stream.from_address(pointer(cap := px.__arrow_c_stream__()))
    schema = Schema()
    assert s.get_schema(s, schema) == 0 and schema.format == b"g" and schema.n_children == 0
    schema.release(schema)
    got, batches = [], []
    while s.get_next(s, b := Array()) == 0 and b.release:
        assert b.n_children == 0 and b.offset == 0
        v = np.frombuffer(C.string_at(b.buffers[1], 8 * b.length), "float64")
        ok = (np.unpackbits(np.frombuffer(C.string_at(b.buffers[0], (b.length + 7) // 8),
                                          "uint8"), bitorder="little")[:b.length]
              if b.buffers[0] else np.ones(b.length, "uint8"))
        got.append(np.ma.masked_array(v, ok == 0))
        batches.append(b)
    assert len(batches) > 1
    want = px.read()
    np.testing.assert_array_equal(np.ma.getmaskarray(np.ma.concatenate(got)), want.mask)
    np.testing.assert_array_equal(np.ma.concatenate(got).filled(0), want.filled(0))
    del cap  # the stream goes, its batches stay: they hold the transaction
    for refused in (tx.commit, tx.rollback, lambda: px.append([1.0]), db.close):
        with pytest.raises(velseq.Error, match="still"):
            refused()
    for b in batches:
        b.release(b)
    tx.rollback()
    tx = db.read()  # dropped in any order: the stream keeps what it reads
    cap, cap2 = tx.open("t", 3).__arrow_c_stream__(), db.arrow("t").__arrow_c_stream__()
    with pytest.raises(velseq.Error, match="requested_schema"):
        db.arrow("t").__arrow_c_stream__(cap)
    del tx
    with pytest.raises(velseq.Error, match="stream"):
        db.close()
    del cap, cap2
    db.close()


def test_without_duckdb(tmp_path):
    code = ("import velseq\ndb = velseq.Database()\ndb.define('t', x=velseq.seq('int8'))\n"
            "try:\n    db.to_parquet('t', 'p', partition_by=())\nexcept velseq.Error as e:\n"
            "    print(e.name, e.code, e)\n")
    env = dict(os.environ, VELSEQ_DUCKDB=str(tmp_path / "none.so"),
               PYTHONPATH=os.path.dirname(os.path.dirname(velseq.__file__)))
    out = subprocess.run([sys.executable, "-c", code], env=env, cwd=tmp_path,
                         capture_output=True, text=True, check=True).stdout
    assert out.startswith("VELT_E_UNAVAILABLE 930") and "fetch-duckdb.sh" in out
    assert not (tmp_path / "p").exists()
