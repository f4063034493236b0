"""velseq's as-of join from Python against pandas' merge_asof over the shapes
users run: probes:keys of 10:1, 1:1, 1:10 and 1:1000 (10^6 keys of random
sorted nanosecond times), ascending and random probes, positions alone and
1 or 4 gathered float64 columns, backward.  merge_asof needs sorted probes:
for random ones its time includes sorting them and putting the answers
back in probe order, which velseq does inside the join.  Every answer is
checked equal to pandas' before any time is printed.

    cmake -S . -B build/pyrel -DCMAKE_BUILD_TYPE=Release -DVELSEQ_PYTHON=ON \\
          -DVELSEQ_TESTS=OFF -DVELSEQ_BENCH=ON
    cmake --build build/pyrel -j2 --target _velseq
    PYTHONPATH=build/pyrel/python /usr/bin/python3 python/bench/asof_bench.py [keys]

Prints a Markdown table (best of 3 wall-clock runs per case, seconds)."""
import sys

import numpy as np
import pandas as pd

import velseq
from bench_vs_pandas import best  # best of 3 wall-clock runs


def pandas_join(left, right, cols, ordered):
    """merge_asof's answer in probe order: sorted first when the probes are not."""
    if ordered:
        return pd.merge_asof(left, right, on="ts")[cols]
    s = left.sort_values("ts", kind="stable")
    got = pd.merge_asof(s, right, on="ts")[cols]
    got.index = s.index
    return got.sort_index()


def main():
    nkeys = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
    rng = np.random.default_rng(42)
    t0 = np.datetime64("2024-01-02", "ns")
    ts = t0 + np.cumsum(rng.integers(1, 2_000_000, nkeys)).astype("timedelta64[ns]")
    cols = [f"px{i}" for i in range(4)]
    vals = {c: rng.integers(0, 100_000, nkeys) / 100 for c in cols}
    right = pd.DataFrame({"ts": ts, **vals})
    db = velseq.Database()
    oid = db.from_pandas(right, "ticks", time="ts")

    print(f"| probes:keys | order | probes | positions velseq / pandas | 1 column | 4 columns |")
    print("|---|---|---|---|---|---|")
    span = (ts[-1] - ts[0]).astype(np.int64) + 2_000_000
    with db.read() as tx:
        o = tx.open("ticks", oid)
        for num, den in [(10, 1), (1, 1), (1, 10), (1, 1000)]:
            for ordered in (True, False):
                n = nkeys * num // den
                probes = ts[0] - 1_000_000 + rng.integers(0, span, n).astype("timedelta64[ns]")
                if ordered:
                    probes.sort()
                left = pd.DataFrame({"ts": probes})
                want1 = pandas_join(left, right, ["px0"], ordered)
                want4 = pandas_join(left, right, cols, ordered)
                pos = o["ts"].asof(probes)
                got4 = o.asof_join("ts", probes, cols)
                wantpos = np.searchsorted(ts, probes, side="right") - 1
                assert np.array_equal(np.ma.filled(pos, -1), wantpos), "positions"
                for c in cols:
                    assert np.array_equal(got4[c].to_numpy(float, na_value=np.nan),
                                          want4[c].to_numpy(float), equal_nan=True), c
                cells = []
                for k, want in ((0, None), (1, ["px0"]), (4, cols)):
                    if k == 0:
                        v = best(lambda: o["ts"].asof(probes))
                        p = best(lambda: pandas_join(left, right[["ts"]], [], ordered))
                    else:
                        v = best(lambda: o.asof_join("ts", probes, want))
                        p = best(lambda: pandas_join(left, right[["ts"] + want], want, ordered))
                    cells.append(f"{v:.3f} / {p:.3f} ({p / v:.1f}×)")
                print(f"| {num}:{den} | {'ascending' if ordered else 'random'} | {n} | "
                      + " | ".join(cells) + " |")


if __name__ == "__main__":
    main()
