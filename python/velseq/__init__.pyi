# Typed stubs of the velseq package (the _velseq extension and __init__.py).
import datetime
import os
from typing import Any, Literal, Optional, Sequence as Seq, Tuple, TypedDict, Union

import numpy as np
import numpy.typing as npt
import pandas as pd

Order = Literal["none", "ascending", "descending"]
Bound = Literal["inclusive", "exclusive", "open"]
Direction = Literal["backward", "forward", "nearest"]
# An aggregate kernel, by the name every velseq front end uses: count, sum,
# mean, min, max, first, last, argmin, argmax (velseq.kernels lists them all,
# in the order defaults answer them).
Kernel = str
kernels: list[str]
DTypeLike = npt.DTypeLike
# An array of the field's dtype (either byte order; any datetime64 unit, or
# points in time, for datetime fields; text or bytes for char fields), a
# masked array (masked: null), or a list whose values convert exactly.
Values = Union[np.ndarray, np.ma.MaskedArray, Seq[Any]]
# What reads return: a plain array, or a masked one where nulls exist.
Read = Union[np.ndarray, np.ma.MaskedArray]
# A point in time: datetime64, pandas Timestamp, datetime, date or ISO-8601
# text (aware ones count in UTC); never a bare number.
TimeLike = Any
# A duration: Timedelta, timedelta64 of a fixed unit, timedelta or text such
# as "5min"; never a bare number.
TimedeltaLike = Union[str, pd.Timedelta, np.timedelta64, datetime.timedelta]

class Error(Exception):
    """A refused call; the data and the transaction are as they were."""
    code: int  # the module's or the host's code (velseq.h)
    name: str  # its name, e.g. "VEL_E_SEQ_OUT_OF_ORDER"

class BadInput(Error, ValueError):
    """A refusal of the call's values: wrong type, value, order, null, length
    or set of fields."""

class WrongType(Error, TypeError):
    """A refusal of an argument of a Python type the call does not take."""

class LogWarning(UserWarning):
    """Database.open cut a torn tail of the log or set its damaged rest aside."""

class OpenStats(TypedDict):
    classes: int
    objects: int
    image_pages: int
    log_replayed: int  # records applied
    log_cut_records: int  # a torn tail, cut
    log_cut_bytes: int
    log_set_aside_records: int  # recover=True: after the damage
    log_set_aside_bytes: int
    log_set_aside_path: Optional[str]  # LOG.damaged-OFFSET (None: nothing moved)
    log_damage_offset: int  # where the cut tail or the damage began

class seq:
    """A sequence field: dtype (int8..uint64, float32, float64, datetime64, or S1..S32:
    char(N) bytes, zero-padded, ordered bytewise) and order, kept in the host's
    catalogue (the velseq program and C++ programs see the same table)."""
    def __init__(self, dtype: DTypeLike, order: Order = "none") -> None: ...

class value:
    """A scalar field (one value per object)."""
    def __init__(self, dtype: DTypeLike) -> None: ...

class Aggregates(TypedDict, total=False):
    """The kernels asked for, under their names; nulls are skipped, and a
    kernel with no value to answer from is None (count and sum: 0)."""
    count: int  # values present
    sum: float | int  # numbers only
    mean: Optional[float]  # numbers only
    min: Any  # NaN passed over
    max: Any
    first: Any  # first value present
    last: Any
    argmin: Optional[int]  # position of the first smallest value
    argmax: Optional[int]

Sync = Literal["commit", "group", "none"]
Partition = Literal["object", "day", "month"]

class ArrowTable:
    """Rows of a table for Arrow consumers (Database.arrow)."""
    def __arrow_c_stream__(self, requested_schema: None = None) -> Any:
        """A PyCapsule "arrow_array_stream" of struct batches, reading the last
        commit as of this call; requested_schema other than None is refused."""

class Database:
    """A database in memory, new or opened from files; a context manager that closes it."""
    closed: bool
    open_stats: Optional[OpenStats]  # None unless made by open()
    def __init__(self, page_size: int = 0) -> None: ...
    @classmethod
    def open(cls, path: Optional[str] = None, log: Optional[str] = None,
             sync: Sync = "commit", group_ms: int = 0, *, read_only: bool = False,
             recover: bool = False) -> Database:
        """The database of image `path` (None: empty) with the commits of `log`
        replayed; later commits go to the log, flushed per `sync`.  read_only:
        writes, define and checkpoint raise VEL_E_HOST_READ_ONLY; recover: a
        log damaged before its end opens with the records before the damage
        (the rest moved to LOG.damaged-OFFSET).  LogWarning when anything was
        cut or set aside."""
    def save(self, path: str) -> None:
        """Writes an image of the last commit to `path`, replacing it whole."""
    def checkpoint(self, path: str) -> None:
        """Saves an image to `path` and starts the log afresh (needs a log)."""
    def define(self, name: str, **fields: Union[seq, value, DTypeLike]) -> None: ...
    def classes(self) -> list[str]: ...
    def fields(self, cls: str) -> list[Tuple[str, str, str, str]]:
        """(name, "seq" | "value", dtype, order) of each field of a class, from
        the host's catalogue."""
    def read(self) -> Transaction: ...
    def write(self) -> Transaction: ...
    def close(self) -> None:
        """Closes the database (Error VEL_E_HOST_BUSY while a transaction is open)."""
    def from_pandas(self, df: pd.DataFrame, cls: str, time: Optional[str] = None, *,
                    nan_as_null: bool = True) -> int:
        """One object of class `cls` (defined here if new), a field per column, in
        one transaction; NaN, NaT, None and NA are nulls; text as UTF-8.  A refused
        table defines nothing."""
    def to_pandas(self, cls: str, oid: int, index: Optional[str] = None,
                  text: bool = True) -> pd.DataFrame:
        """Nulls as NA, NaT or None; char fields as str (text=False: bytes)."""
    def arrow(self, cls: str, columns: Optional[Seq[str]] = None,
              oids: Optional[Seq[int]] = None, start: Optional[TimeLike] = None,
              end: Optional[TimeLike] = None, text: bool = True) -> ArrowTable:
        """An oid column (uint64), then `columns` (default: every field, a scalar
        repeated per row) of objects `oids` (default: all), rows with start <=
        time < end of the first ascending datetime field when either is given;
        timestamp[ns, UTC], char as utf8 (text=False: fixed_size_binary).
        close() is refused while a stream or batch of it is alive."""
    def to_parquet(self, cls: str, path: Union[str, os.PathLike[str]], *,
                   columns: Optional[Seq[str]] = None, oids: Optional[Seq[int]] = None,
                   start: Optional[TimeLike] = None, end: Optional[TimeLike] = None,
                   partition_by: Union[Partition, Seq[Partition]] = ("object", "month")) -> None:
        """The rows of arrow(cls, ...) as Parquet files under the new or empty
        folder `path`, a data.parquet per partition (oid=N/, day=YYYY-MM-DD/ or
        month=YYYY-MM/; day and month exclusive; (): one file).  Needs DuckDB's
        library ($VELSEQ_DUCKDB, else libduckdb.so): Error VELT_E_UNAVAILABLE."""
    def from_parquet(self, path: Union[str, os.PathLike[str]], cls: str, *,
                     time: Optional[str] = None, char_width: int = 0) -> int:
        """Appends every *.parquet file under `path` as from_arrow does, in path
        order; the rows imported.  Needs DuckDB, as to_parquet."""
    def from_arrow(self, obj: Any, cls: str, *, time: Optional[str] = None,
                   char_width: int = 0) -> int:
        """Appends the rows of an object with __arrow_c_stream__ to class `cls`
        (defined from the schema when new; `time` its ascending field; text
        columns without "velseq.width" metadata char(char_width)) in one write
        transaction: new objects, one per value of an `oid` column, else one.
        The rows imported; a refusal imports nothing."""
    def __enter__(self) -> Database: ...
    def __exit__(self, *exc: Any) -> bool: ...

class Transaction:
    """Bound to the thread that began it.  `with` commits a write transaction
    when the block ends normally and rolls back when an exception leaves it.
    While an Arrow stream of one of its objects or sequences (or a batch of
    it) is alive, commit, rollback and writes raise Error VEL_E_HOST_BUSY."""
    is_open: bool
    is_write: bool
    def commit(self) -> None: ...
    def rollback(self) -> None: ...
    def create(self, cls: str) -> Object: ...
    def open(self, cls: str, oid: int) -> Object: ...
    def count(self, cls: str) -> int: ...
    def objects(self, cls: str) -> list[int]:
        """The oids of the class's objects (a velseq program table holds one)."""
    def asof_join(self, cls: str, keys: str, probes: Values, columns: Seq[str], *, by: str,
                  groups: Values, direction: Direction = "backward", strict: bool = False,
                  tolerance: Optional[TimedeltaLike | float] = None,
                  fill_forward: bool = False) -> pd.DataFrame:
        """Object.asof_join within groups, as merge_asof(..., by=...): each
        object of `cls` is a group known by its scalar field `by`; probe i is
        matched in the object whose `by` is groups[i] (none: null values)."""
    def __enter__(self) -> Transaction: ...
    def __exit__(self, *exc: Any) -> bool: ...

class Object:
    oid: int
    cls: str
    def __getitem__(self, field: str) -> Any:
        """A Sequence for a sequence field, the value of a scalar field."""
    def __setitem__(self, field: str, value: Any) -> None: ...
    def delete(self) -> None: ...
    def __arrow_c_stream__(self, requested_schema: None = None) -> Any:
        """Its fields as a table (a scalar repeated per row), as its
        transaction sees them: a PyCapsule "arrow_array_stream"."""
    def resample(self, time: str, field: str, width: TimedeltaLike,
                 start: Optional[TimeLike] = None, end: Optional[TimeLike] = None,
                 origin: Optional[TimeLike] = None,
                 aggs: Optional[Seq[Kernel]] = None) -> pd.DataFrame:
        """A column per kernel of `aggs` (default: every one that applies), named
        as the kernel, indexed by bucket start; bars: ["first", "max", "min", "last"]."""
    def asof_join(self, keys: str, probes: Values, columns: Seq[str],
                  direction: Direction = "backward", strict: bool = False,
                  tolerance: Optional[TimedeltaLike | float] = None,
                  fill_forward: bool = False) -> pd.DataFrame: ...

class Sequence:
    name: str
    dtype: np.dtype
    order: Order
    def __len__(self) -> int: ...
    def __arrow_c_stream__(self, requested_schema: None = None) -> Any:
        """A stream of plain arrays of the field's type (not struct batches),
        as its transaction sees it."""
    # NaN in float values is a null unless nan_as_null=False.
    def append(self, values: Values, mask: Optional[npt.NDArray[np.bool_]] = None, *,
               nan_as_null: bool = True) -> None: ...
    def insert(self, pos: int, values: Values,
               mask: Optional[npt.NDArray[np.bool_]] = None, *,
               nan_as_null: bool = True) -> None: ...
    def delete(self, first: int, last: Optional[int] = None) -> None:
        """Removes positions [first, last) (last=None: the one at first)."""
    def truncate(self) -> None: ...
    def read(self, first: int = 0, last: Optional[int] = None,
             out: Optional[np.ndarray] = None) -> Read:
        """Positions [first, last), into a new array or into `out`."""
    def search(self, lo: Any, hi: Any, lo_bound: Bound = "inclusive",
               hi_bound: Bound = "exclusive") -> Tuple[int, int]:
        """Positions [first, last) of the values between lo and hi (None: open)."""
    def window(self, lo: Any, hi: Any, lo_bound: Bound = "inclusive",
               hi_bound: Bound = "exclusive") -> Read: ...
    def asof(self, probes: Values, direction: Direction = "backward", strict: bool = False,
             tolerance: Optional[TimedeltaLike | float] = None) -> np.ma.MaskedArray:
        """Positions of the as-of matches in this ascending field; masked: none.
        A NaN or NaT probe is refused."""
    def gather(self, positions: Union[np.ndarray, np.ma.MaskedArray]) -> Read: ...
    # Kernels are asked for by name (aggs; None: every one that applies):
    # an unknown name raises Error VEL_E_ILLEGAL_PARAM, sum or mean of a
    # datetime or char field VEL_E_ILLEGAL_TYPE.
    def aggregate(self, first: int = 0, last: Optional[int] = None,
                  aggs: Optional[Seq[Kernel]] = None) -> Aggregates:
        """The kernels of aggs over positions [first, last); by default every
        kernel that applies, then "nulls" (the rows that hold none)."""
    def aggregate_window(self, ts: Sequence, start: TimeLike, end: TimeLike,
                         aggs: Optional[Seq[Kernel]] = None) -> Aggregates:
        """The rows with start <= ts < end of this object's ascending datetime
        field ts; by default as aggregate, then "argmin_time" and
        "argmax_time" (ts at the extremes' rows)."""
    def resample_columns(self, ts: Sequence, width: TimedeltaLike, start: Any = None,
                         end: Any = None,
                         origin: Any = None,
                         aggs: Optional[Seq[Kernel]] = None) -> dict[str, Any]:
        """start (bucket starts) and a column per kernel, under its name."""
