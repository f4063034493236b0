"""velseq from Python: sequences of scalars in database objects, in and out
of NumPy and pandas.

    import numpy as np, velseq
    db = velseq.Database()            # or velseq.Database.open("ticks.img", log="ticks.log")
    db.define("tick", ts=velseq.seq("datetime64[ns]", "ascending"),
              px=velseq.seq("float64"), venue=velseq.value("uint32"))
    with db.write() as tx:                  # commits; an exception rolls back
        t = tx.create("tick")
        t["ts"].append(times)               # datetime64 of any unit
        t["px"].append(prices)              # NaN, or masked: null
        oid = t.oid
    with db.read() as tx:
        t = tx.open("tick", oid)
        px = t["px"].read()                 # ndarray, masked where nulls exist
        bars = t.resample("ts", "px", "1min", aggs=["first", "max", "min", "last"])
    db.save("ticks.img")                    # an image of the last commit

The extension (_velseq) holds the database, transactions, objects and
sequences over the table layer; this file adds what returns or takes pandas
objects.  Classes, fields, types and orders are the host's catalogue, so a
database saved by the velseq program opens here and one saved here opens in
the program.  Aggregates answer under the kernel names every front end uses
(velseq.kernels: count, sum, mean, min, max, first, last, argmin, argmax).
As in pandas, NaN in float input is a null (nan_as_null=False keeps it a
value), and so is NaT.  Times and durations are never bare numbers: pass
datetime64, Timestamp, datetime or ISO-8601 text, and Timedelta,
timedelta64, timedelta or "5min".  Char fields take text (str, as UTF-8)
and bytes.  Every refused call raises velseq.Error (with .code and .name;
velseq.BadInput, also a ValueError, when the values were refused;
velseq.WrongType, also a TypeError, when an argument is of a Python type
the call does not take) and changes nothing.

Arrow: Database.arrow(cls), an Object and a Sequence give Arrow C streams
to any consumer (__arrow_c_stream__); Database.from_arrow takes any such
source; to_parquet and from_parquet go through DuckDB's shared library,
loaded at run time ($VELSEQ_DUCKDB, else libduckdb.so).
"""

import functools as _functools
import os as _os
import re as _re
import warnings as _warnings

import numpy as _np

from ._velseq import Database as _Database
from ._velseq import (ArrowTable, BadInput, Error, Object, Sequence, Transaction, WrongType,
                      _refuse, _wrong_type, kernels)

__all__ = ["ArrowTable", "BadInput", "Database", "Error", "LogWarning", "Object", "Sequence",
           "Transaction", "WrongType", "kernels", "seq", "time_from_fields", "value"]

_PARTITIONS = {"object": 1, "day": 2, "month": 4}


class LogWarning(UserWarning):
    """Database.open left records of the commit log out: a torn tail it cut,
    or (recover=True) the damaged rest it set aside.  Database.open_stats
    has the figures."""


class seq:
    """A sequence field of a class: its NumPy dtype and the order its values keep
    ("none", "ascending" or "descending"; ordered fields hold no nulls).
    Dtype S<N> (N in 1..32) is a char(N) field of fixed-width bytes: shorter
    values are padded with zero bytes, longer ones refused, and an ordered
    one compares bytewise; it reads back as S<N>, searches and gathers; its
    asof has no distance (no nearest, no tolerance) and its aggregates no
    sum or mean."""

    def __init__(self, dtype, order="none"):
        self.dtype, self.order = dtype, order


class value:
    """A scalar field of a class (one value per object)."""

    def __init__(self, dtype):
        self.dtype = dtype


class Database(_Database):
    """A database in memory.  `page_size` sets the bytes of a sequence page
    (0: the default).  Database.open() reads one from an image file and a
    commit log; save() and checkpoint() write images.  A commit whose log
    record cannot be written raises Error with the host's sentence (the
    file and the cause).  Usable as a context manager that closes it.

    open_stats: None for a database made in memory; after open() what the
    open read and what replay left out: a dict of classes, objects,
    image_pages, log_replayed (records applied), log_cut_records and
    log_cut_bytes (a torn tail cut), log_set_aside_records,
    log_set_aside_bytes and log_set_aside_path (recover=True: the damaged
    rest, moved to LOG.damaged-OFFSET, or None) and log_damage_offset (where
    the cut or the damage began)."""

    def __init__(self, page_size=0):
        super().__init__(page_size)

    @classmethod
    def open(cls, path=None, log=None, sync="commit", group_ms=0, *, read_only=False,
             recover=False):
        """The database of the image file `path` (None: an empty one) with the
        commits of `log` replayed on top; with a log, every later commit is
        appended to it, flushed per `sync`: "commit" (a commit that returned
        survives a machine crash), "group" (flushed every `group_ms`, default
        10) or "none" (when the OS likes).  Classes come back under the names,
        types and orders the host's catalogue keeps, whichever front end
        defined them (the velseq program's tables too).  A missing, foreign
        or damaged file raises Error (VEL_E_HOST_IO, _BAD_IMAGE, _BAD_LOG); a
        log another database holds, VEL_E_HOST_BUSY naming its process; an
        image of the Python package before it used the host's catalogue (it
        holds a class "velseq.catalog") VEL_E_HOST_BAD_IMAGE.

        read_only: the files are only read (others may read them too, no one
        may write them): write transactions, define and checkpoint raise
        VEL_E_HOST_READ_ONLY.  recover: a log damaged before its end opens
        with the records before the damage; the rest is moved aside to
        LOG.damaged-OFFSET (left in place when read_only).  A torn last
        record is left out in any case (and cut from the file unless
        read_only).  What was cut or set aside is in `open_stats` and
        raises a LogWarning."""
        db = cls()
        lost = db._open_file(None if path is None else _os.fspath(path),
                             None if log is None else _os.fspath(log), sync, group_ms,
                             read_only, recover)
        if lost:
            _warnings.warn(lost, LogWarning, stacklevel=2)
        return db

    def save(self, path):
        """Writes an image of the last commit to `path`, replacing the file
        whole (a crash leaves the old file or the new one)."""
        _Database.save(self, _os.fspath(path))

    def checkpoint(self, path):
        """Saves an image to `path`, then starts the log afresh: opening
        needs that image and the log.  Error VEL_E_HOST_BAD_ARG without a log,
        VEL_E_HOST_READ_ONLY when opened read-only."""
        _Database.checkpoint(self, _os.fspath(path))

    def define(self, name, **fields):
        """Defines class `name`: each keyword is a field, given as velseq.seq,
        velseq.value or a bare dtype (an unordered sequence)."""
        defs = []
        for fname, f in fields.items():
            if isinstance(f, seq):
                defs.append((fname, "seq", f.dtype, f.order))
            elif isinstance(f, value):
                defs.append((fname, "value", f.dtype, "none"))
            else:
                defs.append((fname, "seq", f, "none"))
        _Database.define(self, name, defs)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def from_pandas(self, df, cls, time=None, *, nan_as_null=True):
        """Stores a table as one object of class `cls` with a sequence field
        per column (defined here if the class is new), in one write
        transaction; returns the object's oid.  `time` names the column kept
        as an ascending datetime64 field; with time=None a DatetimeIndex is
        stored as such a field named after the index (or "time").  Nulls are
        pandas' missing values: NA of nullable columns, NaT, None, and NaN in
        float columns (nan_as_null=False keeps NaN a value).  Text (str) and
        bytes columns become char fields as wide as their longest value in
        UTF-8 (at most 32 bytes).  A refused table changes nothing: no class
        is defined, no object made.  (Classes are defined outside
        transactions: when the commit itself fails, e.g. its log record
        cannot be written, a new class stays defined with no object, and
        the same call made again stores the table in it.)"""
        import pandas as pd

        cols = []
        if time is None and isinstance(df.index, pd.DatetimeIndex):
            time = str(df.index.name or "time")
            cols.append((time, *_values_of(df.index.to_series(index=None))))
        for c, col in df.items():
            cols.append((str(c), *_values_of(col)))
        return self._store_table(cls, cols, time, nan_as_null)

    def to_pandas(self, cls, oid, index=None, text=True):
        """The sequence fields of object `oid` as a DataFrame, a column per
        field; `index` names the field to index by (default: the class's
        ascending datetime64 field, if it has exactly one).  Nulls come back
        as pandas' missing values (nullable Int64 and Float64 columns, NaT,
        None).  Char fields do not record whether they held text or bytes:
        with text=True a field comes back as str (decoded from UTF-8) unless
        it holds bytes that are not UTF-8, which stay bytes; text=False gives
        bytes."""
        import pandas as pd

        fields = [f for f in self.fields(cls) if f[1] == "seq"]
        if index is None:
            times = [f[0] for f in fields if f[2].startswith("datetime64") and f[3] == "ascending"]
            index = times[0] if len(times) == 1 else None
        if index is not None and index not in [f[0] for f in fields]:
            _refuse("VEL_E_HOST_NO_FIELD", f"to_pandas: {cls} has no sequence field {index!r}")
        with self.read() as tx:
            o = tx.open(cls, oid)
            data = {f[0]: _column(o[f[0]].read(), text) for f in fields}
        df = pd.DataFrame(data)
        return df.set_index(index) if index is not None else df


    def arrow(self, cls, columns=None, oids=None, start=None, end=None, text=True):
        """The rows of class `cls` for any Arrow consumer (an ArrowTable, whose
        __arrow_c_stream__ gives a PyCapsule of an Arrow C stream of struct
        batches): an `oid` column (uint64), then `columns` (default: every
        field; a scalar field repeated on its object's rows), objects `oids`
        in that order (default: all, in creation order), rows whose time
        (the first ascending datetime64 field) lies in [start, end) when
        either is given.  Datetimes are timestamp[ns, UTC], char fields utf8
        (text=False: fixed_size_binary).  Each stream reads the last commit
        as of its making; Database.close() is refused until every stream
        and batch is released."""
        return self._arrow(cls, _names(columns), _oids(oids), start, end, text)

    def to_parquet(self, cls, path, *, columns=None, oids=None, start=None, end=None,
                   partition_by=("object", "month")):
        """Writes the rows of Database.arrow(cls, ...) to the folder `path`
        (new or empty) as Parquet files, hive-style: a data.parquet per
        partition of `partition_by`, any of "object" (oid=N/), "day"
        (day=YYYY-MM-DD/) or "month" (month=YYYY-MM/), day and month of the
        time field in UTC and not both; () writes one file.  Needs DuckDB's
        shared library ($VELSEQ_DUCKDB, else libduckdb.so): without it Error
        VELT_E_UNAVAILABLE says how to get it."""
        parts = (partition_by,) if isinstance(partition_by, str) else tuple(partition_by)
        flags = 0
        for p in parts:
            if p not in _PARTITIONS:
                _refuse("VEL_E_ILLEGAL_PARAM",
                        f"to_parquet: partition_by takes 'object', 'day' and 'month', not {p!r}")
            flags |= _PARTITIONS[p]
        self._to_parquet(cls, _os.fspath(path), _names(columns), _oids(oids), start, end, flags)

    def from_parquet(self, path, cls, *, time=None, char_width=0):
        """Appends every *.parquet file under the folder `path` (or the file)
        to class `cls` as from_arrow does, files in path order, a file's
        object from its oid=N folder, else its oid column; returns the rows
        imported.  A table written by to_parquet comes back with its fields,
        types, orders and nulls.  Needs DuckDB, as to_parquet."""
        return self._from_parquet(_os.fspath(path), cls, time, char_width)

    def from_arrow(self, obj, cls, *, time=None, char_width=0):
        """Appends the rows of `obj` (anything with __arrow_c_stream__: an
        ArrowTable, a pyarrow Table, a polars DataFrame...) to class `cls`,
        defined from the stream's schema when new (`time`: its ascending
        field; default the first timestamp column), in one write
        transaction; an `oid` column sends rows to new objects, one per
        value, otherwise they make one new object.  A new class's char
        fields are as wide as the stream's "velseq.width" metadata says, else
        `char_width` (0: such a text column is refused).  Returns the rows
        imported; a refusal imports nothing (a class it defined stays)."""
        return self._from_arrow(obj, cls, time, char_width)


def _names(columns):
    """A list of field names, or None; one bare name is refused."""
    if isinstance(columns, (str, bytes)):
        _refuse("VEL_E_ILLEGAL_PARAM", f"columns is a list of field names, not {columns!r}")
    return None if columns is None else list(columns)


def _oids(oids):
    return None if oids is None else list(oids)


def _values_of(s):
    """(values, mask or None) of a pandas Series, in a dtype velseq stores;
    text and bytes as objects, None where null."""
    import pandas as pd

    if isinstance(s.dtype, pd.DatetimeTZDtype):
        s = s.dt.tz_convert("UTC").dt.tz_localize(None)
    if pd.api.types.is_extension_array_dtype(s.dtype) and hasattr(s.dtype, "numpy_dtype"):
        mask = s.isna().to_numpy()
        v = s.to_numpy(dtype=s.dtype.numpy_dtype, na_value=0)
        return v, (mask if mask.any() else None)
    if s.dtype.kind in "biufMS":
        return _np.ascontiguousarray(s.to_numpy()), None
    v = s.to_numpy(dtype=object, na_value=None)
    if pd.api.types.infer_dtype(v, skipna=True) == "string":  # text: encoded by NumPy at once
        mask = s.isna().to_numpy()
        v[mask] = ""
        try:
            return _np.char.encode(v.astype("U"), "utf-8"), (mask if mask.any() else None)
        except UnicodeEncodeError:  # lone surrogates: refused value by value, with their row
            v[mask] = None
    return v, None


def _column(a, text=True):
    """A read result as a pandas column: nulls as pandas' missing values
    (nullable integers and floats, NaT, None); char values as str when
    `text` and every one is UTF-8."""
    import pandas as pd

    m, d = _np.ma.getmaskarray(a), _np.ma.getdata(a)
    if d.dtype.kind == "S":
        d = d.astype(object)
        if text:
            try:
                d = _np.array([x.decode("utf-8") for x in d], dtype=object)
            except UnicodeDecodeError:  # bytes, not text: left as they are
                pass
        d[m] = None
        return d
    if not m.any():
        return d
    if d.dtype.kind in "iu":
        return pd.arrays.IntegerArray(d, m)
    if d.dtype.kind == "f":
        return pd.arrays.FloatingArray(d, m)
    d = d.copy()
    d[m] = _np.datetime64("NaT")
    return d


def _window(self, lo, hi, lo_bound="inclusive", hi_bound="exclusive"):
    """The values between lo and hi of an ordered field (search, then read)."""
    first, last = self.search(lo, hi, lo_bound, hi_bound)
    return self.read(first, last)


_WEEKDAYS = ["MON", "TUE", "WED", "THU", "FRI", "SAT", "SUN"]
# pandas' calendar rules: (count, rule, weekday); Tick rules ("D", "5min")
# are fixed widths and go to Timedelta as before.
_CALENDAR_RULE = _re.compile(r"^(\d*)(W(?:-(MON|TUE|WED|THU|FRI|SAT|SUN))?|MS|ME|M|QS(?:-JAN)?|"
                             r"QE(?:-DEC)?|Q(?:-DEC)?|[YA]S(?:-JAN)?|[YA]E?(?:-DEC)?)$")


def _calendar_of(width):
    """(the extension's calendar text, whether labels are the last day) of a
    pandas calendar rule, or None.  Start rules (MS, QS, YS) label a bucket
    by its first day, end rules (M/ME, Q/QE, Y/YE/A) by its last day, as
    pandas does; W-XXX is pandas' week ending on XXX (closed and labelled
    on the right), so it starts the day after XXX and is labelled XXX."""
    m = _CALENDAR_RULE.match(width) if isinstance(width, str) else None
    if m is None:
        return None
    n, rule, day = m.group(1) or "1", m.group(2), m.group(3) or "SUN"
    if rule.startswith("W"):
        return f"{n}W-{_WEEKDAYS[(_WEEKDAYS.index(day) + 1) % 7]}", True
    unit = {"M": "M", "Q": "Q", "Y": "Y", "A": "Y"}[rule[0]]
    return n + unit, not rule[1:].startswith("S")


def _resample(self, time, field, width, start=None, end=None, origin=None, aggs=None, *,
              utc_offset=None):
    """`field` in buckets of the ascending datetime field `time`, over start
    <= time < end (all rows by default): a DataFrame indexed by bucket with
    a column per kernel of `aggs` (default: every one that applies), named
    as the kernel (bars: aggs=["first", "max", "min", "last"]; nulls
    skipped).  Only buckets holding a row appear.

    `width` is a fixed width (Timedelta, timedelta64, "1min", "1D"), aligned
    on `origin` (the Unix epoch by default), or a pandas calendar rule with
    pandas' buckets and labels: "MS", "QS", "YS" (labelled by their first
    day), "M"/"ME", "Q"/"QE", "Y"/"YE"/"A" (by their last day), "W-MON" ..
    "W-SUN" and "W" (weeks ending on that day, labelled by it), with a
    count ("3MS"); multiples are counted from the bucket holding `origin`
    (pandas counts them from the first row's: pass origin=that time).
    `utc_offset` ("+01:00", "-05:00" or a Timedelta) puts the day boundary
    at local midnight; the index then holds the UTC instants of the local
    labels."""
    import pandas as pd

    cal = _calendar_of(width)
    if cal is None and isinstance(width, str) and width[:1].isalpha():
        width = "1" + width  # "D", "h": pandas' rules without a count; Timedelta needs one
    c = self[field].resample_columns(self[time], width, start, end, origin, aggs,
                                     calendar=None if cal is None else cal[0],
                                     utc_offset=utc_offset)
    start = c.pop("start")
    last_day = c.pop("last_day", None)
    labels = last_day if cal is not None and cal[1] else start
    return pd.DataFrame({k: _column(v) for k, v in c.items()},
                        index=pd.DatetimeIndex(labels, name=time))


def time_from_fields(year, quarter=None, month=None, day=None, *, utc_offset=None):
    """Points in time from calendar fields, as datetime64[ns]: the first day of
    each year, of each quarter of a year (quarter 1..4, or text "Q1".."Q4"),
    of each month of a year, or each day (year, month and day), at midnight
    UTC (or local midnight of `utc_offset`: "+01:00", "-05:00", a Timedelta).
    The fields are array-likes of one length (pandas columns, lists) or
    numbers; a day that is no calendar day, or lies outside 1677-09-22 ..
    2262-04-11, raises BadInput naming its row.  The calendar is the one
    every velseq front end uses (the program's --time year,quarter).

        df.index = velseq.time_from_fields(df["year"], quarter=df["quarter"])
    """
    import pandas as pd

    if quarter is not None and (month is not None or day is not None):
        _refuse("VEL_E_ILLEGAL_PARAM", "time_from_fields: give a quarter or a month (and day)")
    if day is not None and month is None:
        _refuse("VEL_E_ILLEGAL_PARAM", "time_from_fields: a day needs its month")

    def ints(x, what):
        a = _np.asarray(x.to_numpy() if isinstance(x, (pd.Series, pd.Index)) else x)
        if a.dtype.kind in "OUS" and what == "quarter":  # "Q1" .. "Q4"
            a = _np.array([str(q.decode() if isinstance(q, bytes) else q).strip().lstrip("Qq")
                           for q in a.ravel()], dtype=object).reshape(a.shape)
        try:
            i = a.astype(_np.int64)
        except (TypeError, ValueError) as e:
            _refuse("VEL_E_ILLEGAL_PARAM", f"time_from_fields: a {what} is not an integer ({e})")
        if a.dtype.kind == "f" and not _np.array_equal(i, a):
            _refuse("VEL_E_ILLEGAL_PARAM", f"time_from_fields: a {what} is not an integer")
        return _np.atleast_1d(i)

    y = ints(year, "year")
    one = _np.ones_like(y)
    if quarter is not None:
        q = ints(quarter, "quarter")
        if ((q < 1) | (q > 4)).any():
            _refuse("VEL_E_ILLEGAL_PARAM", "time_from_fields: a quarter lies in 1..4")
        m, d = 3 * q - 2, one
    else:
        m = one if month is None else ints(month, "month")
        d = one if day is None else ints(day, "day")
    y, m, d = _np.broadcast_arrays(y, m, d)
    ns = Sequence._civil_times(_np.ascontiguousarray(y), _np.ascontiguousarray(m),
                               _np.ascontiguousarray(d), utc_offset)
    return ns.view("datetime64[ns]")


def _asof_join(self, keys, probes, columns, direction="backward", strict=False,
               tolerance=None, fill_forward=False):
    """For each probe, the values of `columns` at its as-of match in the
    ascending field `keys` (see Sequence.asof): a DataFrame indexed by the
    probes, null where nothing matches.  fill_forward carries the last
    observation forward over nulls."""
    import pandas as pd

    got = self._asof_columns(keys, probes, list(columns), direction, strict, tolerance)
    data = {c: _column(got[c]) for c in columns}
    # The columns are new arrays: the frame takes them as they are.
    df = pd.DataFrame(data, index=pd.Index(_np.asarray(probes), name=keys), copy=False)
    return df.ffill() if fill_forward else df


def _tx_asof_join(self, cls, keys, probes, columns, *, by, groups, direction="backward",
                  strict=False, tolerance=None, fill_forward=False):
    """asof_join within groups, as pandas' merge_asof(..., by=...): each
    object of class `cls` is a group, known by its scalar field `by`; probe
    i is matched in the object whose `by` equals groups[i] (none, and so
    null values, when no object does).  A DataFrame indexed by the probes."""
    import pandas as pd

    got = self._asof_join_by(cls, keys, probes, list(columns), by, groups, direction, strict,
                             tolerance)
    data = {c: _column(got[c]) for c in columns}
    df = pd.DataFrame(data, index=pd.Index(_np.asarray(probes), name=keys))
    return df.ffill() if fill_forward else df


Sequence.window = _window
Object.resample = _resample
Object.asof_join = _asof_join
Transaction.asof_join = _tx_asof_join


def _typed(f):
    """f, raising WrongType where the extension's argument conversion raises
    a bare TypeError (an argument of a type the call does not take)."""

    @_functools.wraps(f)
    def call(*args, **kwargs):
        try:
            return f(*args, **kwargs)
        except TypeError as e:
            if isinstance(e, Error) or "incompatible" not in str(e):
                raise
            raise _wrong_type(str(e)) from None

    return call


for _cls in (_Database, Transaction, Object, Sequence):
    for _name, _f in list(vars(_cls).items()):
        if type(_f).__name__ == "instancemethod":  # the extension's methods
            setattr(_cls, _name, _typed(_f.__func__))
