"""velseq from Python against the C++ API and pandas, on 10^7 ticks.

    cmake -S . -B build/pyrel -DCMAKE_BUILD_TYPE=Release -DVELSEQ_PYTHON=ON \
          -DVELSEQ_TESTS=OFF -DVELSEQ_BENCH=ON
    cmake --build build/pyrel -j2 --target _velseq velseq_py_baseline
    PYTHONPATH=build/pyrel/python /usr/bin/python3 python/bench/bench_vs_pandas.py build/pyrel

Prints a Markdown table (best of 3 wall-clock runs per case)."""
import subprocess
import sys
import time

import numpy as np
import pandas as pd

import velseq

N, PROBES = 10_000_000, 1_000_000


def best(f, reps=3):
    t = []
    for _ in range(reps):
        s = time.perf_counter()
        f()
        t.append(time.perf_counter() - s)
    return min(t)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build/pyrel"
    base = dict(line.split() for line in subprocess.run(
        [f"{build}/python/velseq_py_baseline"], check=True, capture_output=True,
        text=True).stdout.splitlines())
    cxx_append, cxx_scan = float(base["append"]), float(base["scan"])

    rng = np.random.default_rng(1)
    ts = np.datetime64("2024-01-02", "ns") + (np.arange(N) * 10).astype("timedelta64[ms]")
    px = 100 + rng.integers(0, 10000, N) / 100.0
    probes = np.sort(ts[0] + rng.integers(0, N * 10, PROBES).astype("timedelta64[ms]"))
    probes += np.timedelta64(3, "ms")

    db = velseq.Database()
    db.define("ticks", ts=velseq.seq("datetime64[ns]", "ascending"), px=velseq.seq("float64"))
    rows = []

    def append():
        with db.write() as tx:
            tx.create("ticks")["px"].append(px)
            tx.rollback()

    t_append = best(append)
    rows.append(("append 10^7 float64 (one call)", t_append, "C++ API `append`", cxx_append))

    with db.write() as tx:
        o = tx.create("ticks")
        o["ts"].append(ts)
        o["px"].append(px)
        oid = o.oid
    with db.read() as tx:
        o = tx.open("ticks", oid)
        col = o["px"]
        t_read = best(col.read)
        rows.append(("read 10^7 float64 into NumPy", t_read, "C++ API full scan into a buffer",
                     cxx_scan))
        assert np.array_equal(col.read(), px)

        right = pd.DataFrame({"ts": ts, "px": px})
        left = pd.DataFrame({"ts": probes})
        t_pd = best(lambda: pd.merge_asof(left, right, on="ts"))
        t_pos = best(lambda: o["ts"].asof(probes))
        t_join = best(lambda: o.asof_join("ts", probes, ["px"]))
        got = o.asof_join("ts", probes, ["px"])["px"].to_numpy(float)
        assert np.array_equal(got, pd.merge_asof(left, right, on="ts")["px"].to_numpy(float))
        rows.append(("asof: 10^6 ascending probes, positions", t_pos, "pandas `merge_asof`", t_pd))
        rows.append(("asof_join: the same, prices into a DataFrame", t_join,
                     "pandas `merge_asof`", t_pd))

        s = right.set_index("ts")["px"]
        t_pdr = best(lambda: s.resample("1min").ohlc())
        t_res = best(lambda: o.resample("ts", "px", "1min", aggs=["first", "max", "min", "last"]))
        rows.append(("resample 10^7 rows to 1-minute bars (first max min last)", t_res,
                     "pandas `resample().ohlc()` (prices in memory)", t_pdr))

    print("| Case | velseq (Python) | Against | Its time | Ratio (their time / ours) |")
    print("|---|---|---|---|---|")
    for what, ours, other, theirs in rows:
        print(f"| {what} | {ours * 1e3:.1f} ms | {other} | {theirs * 1e3:.1f} ms "
              f"| {theirs / ours:.2f}× |")


if __name__ == "__main__":
    main()
