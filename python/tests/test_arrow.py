"""Arrow C streams out (read by DuckDB's C library and a ctypes reader) and in, Parquet."""

import ctypes as C
import os

import numpy as np
import pandas as pd
import pytest

import velseq

LIB = os.environ.get("VELSEQ_DUCKDB", "")
C.pythonapi.PyCapsule_GetPointer.restype = C.c_void_p
C.pythonapi.PyCapsule_GetPointer.argtypes = [C.py_object, C.c_char_p]
P, I64, FN = C.c_void_p, C.c_int64, C.CFUNCTYPE  # the Arrow C interfaces, self-pointers void *


Schema = type("Schema", (C.Structure,), {"_fields_": [
    ("format", C.c_char_p), ("name", C.c_char_p), ("metadata", P), ("flags", I64),
    ("n_children", I64), ("children", P), ("dictionary", P), ("release", FN(None, P)),
    ("private_data", P)]})
Array = type("Array", (C.Structure,), {"_fields_": [
    (n, I64) for n in ("length", "null_count", "offset", "n_buffers", "n_children")] + [
    ("buffers", C.POINTER(P)), ("children", P), ("dictionary", P), ("release", FN(None, P)),
    ("private_data", P)]})
Stream = type("Stream", (C.Structure,), {"_fields_": [
    ("get_schema", FN(C.c_int, P, P)), ("get_next", FN(C.c_int, P, P)),
    ("get_last_error", FN(C.c_char_p, P)), ("release", FN(None, P)), ("private_data", P)]})


def stream(capsule):
    return Stream.from_address(C.pythonapi.PyCapsule_GetPointer(capsule, b"arrow_array_stream"))


@pytest.fixture(scope="module")
def duck():
    """sql(query) -> rows of text cells; scan(name, capsule) copies a stream to table name_t."""
    if not os.path.isfile(LIB):
        pytest.skip(f"DuckDB's library is absent (VELSEQ_DUCKDB={LIB!r}): scripts/fetch-duckdb.sh")
    d = C.CDLL(LIB)
    d.duckdb_value_varchar.restype = d.duckdb_result_error.restype = P
    d.duckdb_row_count.restype = d.duckdb_column_count.restype = C.c_uint64
    db, con, r = P(), P(), (C.c_uint64 * 6)()  # duckdb_result: 48 bytes
    assert d.duckdb_open(None, C.byref(db)) == 0 and d.duckdb_connect(db, C.byref(con)) == 0

    def text(p):  # NULL for a null cell
        t = p and C.string_at(p).decode()
        d.duckdb_free(P(p))
        return t

    def sql(q):
        assert d.duckdb_query(con, q.encode(), r) == 0, C.string_at(d.duckdb_result_error(r))
        rows = [[text(d.duckdb_value_varchar(r, C.c_uint64(c), C.c_uint64(i)))
                 for c in range(d.duckdb_column_count(r))] for i in range(d.duckdb_row_count(r))]
        d.duckdb_destroy_result(r)
        return rows

    def scan(name, capsule):  # DuckDB reads the stream; the capsule releases it
        assert d.duckdb_arrow_scan(con, name.encode(), P(C.addressof(stream(capsule)))) == 0
        sql(f"CREATE OR REPLACE TABLE {name}_t AS SELECT * FROM {name}; DROP VIEW {name}")

    yield sql, scan
    d.duckdb_disconnect(C.byref(con))
    d.duckdb_close(C.byref(db))


@pytest.fixture
def db():
    rng = np.random.default_rng(7)
    db = velseq.Database()
    db.define("t", ts=velseq.seq("datetime64[ns]", "ascending"), px=velseq.seq("float64"),
              qty=velseq.seq("int32"), sym=velseq.seq("S6"), venue=velseq.value("uint16"))
    with db.write() as tx:
        for k, n in enumerate([3000, 1, 2500]):
            o = tx.create("t")
            o["ts"].append(np.datetime64("2024-01-30", "ns") + np.arange(n) * 10**12 * (k + 1))
            px = np.where(rng.random(n) < 0.1, np.nan, rng.normal(100, 5, n))  # NaN: a value
            o["px"].append(px, rng.random(n) < 0.2, nan_as_null=False)
            o["qty"].append(rng.integers(-9, 99, n, dtype="int32"), rng.random(n) < 0.3)
            o["sym"].append(np.array(["é", "ab", None, "xyz"], dtype=object)[rng.integers(0, 4, n)])
            o["venue"] = k + 7
    return db


def test_duckdb_reads_a_time_window(db, duck):
    sql, scan = duck
    t0, t1 = np.datetime64("2024-01-30T00:30"), "2024-01-30T06:00"
    scan("w", db.arrow("t", ["sym"], [3], start=t0, end=t1).__arrow_c_stream__())
    with db.read() as tx:
        sym = tx.open("t", 3)["sym"].read(*tx.open("t", 3)["ts"].search(t0, t1))
    assert sql("SELECT oid, sym FROM w_t") == [
        ["3", None if v is np.ma.masked else v.decode()] for v in sym]


@pytest.mark.parametrize("parts", ["arrow", (), ("object", "day"), "month"])
def test_round_trip(db, request, tmp_path, parts):
    back = velseq.Database()
    if parts == "arrow":
        assert back.from_arrow(db.arrow("t"), "t") == 5501
    else:
        request.getfixturevalue("duck")
        db.to_parquet("t", tmp_path / "p", partition_by=parts)
        files = [f.relative_to(tmp_path / "p") for f in (tmp_path / "p").rglob("*.parquet")]
        keys = {{"object": "oid"}.get(p, p) for p in ((parts,) if isinstance(parts, str) else parts)}
        assert {d.split("=")[0] for f in files for d in f.parent.parts} == keys
        assert len(files) > (parts != ())  # one file, or one per partition
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
    s = stream(cap := px.__arrow_c_stream__())
    assert s.get_schema(C.addressof(s), C.addressof(sc := Schema())) == 0
    assert (sc.format, sc.n_children) == (b"g", 0)  # a plain float64 array, no struct
    sc.release(C.addressof(sc))
    got, batches = [], []
    while s.get_next(C.addressof(s), C.addressof(b := Array())) == 0 and b.release:
        n, v = b.length, b.buffers[0]
        ok = np.unpackbits(np.frombuffer(C.string_at(v, (n + 7) // 8), "uint8"),
                           bitorder="little")[:n] if v else np.ones(n)
        got.append(np.ma.masked_array(np.frombuffer(C.string_at(b.buffers[1], 8 * n)), ok == 0))
        batches.append(b)
    got, want = np.ma.concatenate(got), px.read()
    np.testing.assert_array_equal(got.mask, want.mask)
    np.testing.assert_array_equal(got.filled(0), want.filled(0))
    del cap  # the stream goes, its batches stay: they hold the transaction
    for refused in (tx.commit, tx.rollback, lambda: px.append([1.0]), db.close):
        with pytest.raises(velseq.Error, match="still"):
            refused()
    for b in batches:
        b.release(C.addressof(b))
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

