"""From ticks to bars: a notebook-style walk through the velseq package.

Generates a day of random ticks, stores them as one object, resamples the
prices to 5-minute bars (the first, max, min and last price of each bucket:
the aggregate kernels, under the names every velseq front end uses) and
plots them into a PNG (matplotlib, no
display needed).  Run: PYTHONPATH=build/debug/python python3 \
python/examples/ticks_to_bars.py bars.png
"""
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
import pandas as pd  # noqa: E402

import velseq  # noqa: E402

out = sys.argv[1] if len(sys.argv) > 1 else "bars.png"

# %% A day of ticks: random arrival times, a random walk of prices, and a few
# lost quotes (nulls in a nullable pandas column).
rng = np.random.default_rng(42)
n = 200_000
start = pd.Timestamp("2024-03-01 09:00")
gaps = rng.exponential(8 * 3600 / n, n)
ticks = pd.DataFrame(
    {
        "px": pd.array(100 + np.cumsum(rng.normal(0, 0.02, n)), dtype="Float64"),
        "qty": rng.integers(1, 500, n).astype(np.uint32),
    },
    index=pd.DatetimeIndex(start + pd.to_timedelta(np.cumsum(gaps), unit="s"), name="ts"),
)
ticks.loc[rng.random(n) < 0.01, "px"] = pd.NA

# %% Into the database: one object, a field per column, the index as an
# ascending datetime field.
db = velseq.Database()
oid = db.from_pandas(ticks, "ticks")

# %% Bars, a window aggregate and an as-of lookup, in one read transaction.
with db.read() as tx:
    t = tx.open("ticks", oid)
    bars = t.resample("ts", "px", "5min", aggs=["first", "max", "min", "last", "count"])
    noon = t["px"].aggregate_window(t["ts"], "2024-03-01T12:00Z", "2024-03-01T13:00Z")
    looks = np.array(["2024-03-01T10:30", "2024-03-01T15:00"], "datetime64[s]")
    quotes = t.asof_join("ts", looks, ["px", "qty"], tolerance="1min")
print(bars.head())
print(f"12:00-13:00: {noon['count']} quotes, mean {noon['mean']:.3f}")
print(quotes)

# The bars agree with pandas' own resample of the same ticks.
kernels = ["first", "max", "min", "last"]
theirs = ticks["px"].resample("5min", origin="epoch").agg(kernels)
assert np.allclose(theirs.dropna().to_numpy(float), bars[kernels].to_numpy(float))

# %% Plot: a candle per bar (body from first to last, wick from min to max).
fig, ax = plt.subplots(figsize=(10, 4))
x = np.arange(len(bars))
up = (bars["last"] >= bars["first"]).to_numpy(bool)
ax.vlines(x, bars["min"].to_numpy(float), bars["max"].to_numpy(float), color="black", lw=0.6)
for sel, color in ((up, "tab:green"), (~up, "tab:red")):
    o, c = bars["first"].to_numpy(float)[sel], bars["last"].to_numpy(float)[sel]
    ax.bar(x[sel], c - o, bottom=o, color=color, width=0.7)
ticks_at = x[:: max(1, len(x) // 8)]
ax.set_xticks(ticks_at, [bars.index[i].strftime("%H:%M") for i in ticks_at])
ax.set_title("5-minute bars from velseq")
ax.set_ylabel("price")
fig.tight_layout()
fig.savefig(out, dpi=80)
with open(out, "rb") as f:
    assert f.read(8) == b"\x89PNG\r\n\x1a\n", "not a PNG"
print(f"wrote {out}")
