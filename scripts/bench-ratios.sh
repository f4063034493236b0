#!/usr/bin/env bash
# velseq against plain C++ on the same data (bench/ratios_bench.cpp): builds
# the release preset, runs every pair of cases with repetitions, and writes
#
#   $OUT/ratios-K.json   Google Benchmark's output of run K (medians among others)
#   $OUT/ratios.md       the table: median time per unit of each side, ratio
#   $PLOTS/*.png         the plots of docs/PERFORMANCE.md (gnuplot)
#
#   scripts/bench-ratios.sh                     # everything, 5 repetitions
#   REPS=3 FILTER='Join|Map' scripts/bench-ratios.sh
#   RUNS=3 scripts/bench-ratios.sh              # three processes: median ratio, and its range
#   PLOTS=docs scripts/bench-ratios.sh          # refresh the docs' plots
#
# Each ratio is taken within one run (one process), both sides on the same
# data.  A process can stay slower than the next for all its repetitions
# (a tile scan up to 1.5x its time in another, the plain side not), so
# RUNS > 1 gives the median over fresh processes of each run's ratio, with
# the lowest and highest.
# Installs libbenchmark-dev and gnuplot-nox (Debian) when missing.  The
# 10^8 cases need about 4 GiB of memory and a few minutes.  DuckDB's cases
# (1 and 2 threads, at 10^7) run when scripts/fetch-duckdb.sh has fetched its
# library first (DUCKDB=1 here does that), and are left out otherwise.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
cd "$ROOT"
REPS=${REPS:-5}
RUNS=${RUNS:-1}
FILTER=${FILTER:-.}
OUT=${OUT:-build/release/ratios}
PLOTS=${PLOTS:-$OUT}
JOBS=${VELSEQ_JOBS:-2}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
missing=()
for p in libbenchmark-dev gnuplot-nox python3; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    as_root apt-get update -q
    as_root apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

[ "${DUCKDB:-0}" = 1 ] && scripts/fetch-duckdb.sh
cmake --preset release >/dev/null
cmake --build --preset release -j"$JOBS" --target velseq_ratios
mkdir -p "$OUT"
rm -f "$OUT"/ratios-*.json
for k in $(seq 1 "$RUNS"); do
    build/release/bench/velseq_ratios --benchmark_filter="$FILTER" \
        --benchmark_repetitions="$REPS" --benchmark_report_aggregates_only=true \
        --benchmark_min_time=0.2 --benchmark_out="$OUT/ratios-$k.json" --benchmark_out_format=json
done

python3 - "$OUT" "$RUNS" <<'EOF'
import json, sys, os, statistics
out, n_runs = sys.argv[1], int(sys.argv[2])

def medians(data):
    med = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        parts = [x for x in b["run_name"].split("/") if x != "real_time"]
        if parts[0] != "Ratio":
            continue
        # Ratio/<Name>/<side>/<args...>; cpu_time is in the benchmark's unit.
        name, side, args = parts[1], parts[2], "/".join(parts[3:])
        if side.startswith("duckdb"):  # its last argument is the thread count
            args = "/".join(parts[3:-1])
        unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
        per_item = 1e9 / b["items_per_second"] if "items_per_second" in b else b["cpu_time"] * unit
        med[(name, args, side)] = per_item
    return med

runs = [json.load(open(os.path.join(out, f"ratios-{k}.json"))) for k in range(1, n_runs + 1)]
data = runs[0]
per_run = [medians(d) for d in runs]
med = {key: statistics.median(m[key] for m in per_run if key in m)
       for key in set().union(*per_run)}

rows = []
for (name, args, side), t in sorted(med.items()):
    if side != "velseq" or (name, args, "plain") not in med:
        continue
    p = med[(name, args, "plain")]
    # Each run's own ratio: both sides measured in the same process.
    rs = [m[(name, args, "velseq")] / m[(name, args, "plain")] for m in per_run
          if (name, args, "velseq") in m and (name, args, "plain") in m]
    r = f"{statistics.median(rs):.2f}"
    if len(rs) > 1:
        r += f" ({min(rs):.2f}–{max(rs):.2f})"
    rows.append((name, args, t, p, r))
duck = any(side.startswith("duckdb") for (_, _, side) in med)
with open(os.path.join(out, "ratios.md"), "w") as f:
    if duck:
        f.write("| workload | args | velseq ns/unit | plain ns/unit | DuckDB 1t / 2t ns/unit "
                "| velseq / plain | DuckDB 1t / 2t over velseq |\n")
        f.write("|---|---|---|---|---|---|---|\n")
    else:
        f.write("| workload | args | velseq ns/unit | plain ns/unit | velseq / plain |\n")
        f.write("|---|---|---|---|---|\n")
    for name, args, t, p, r in rows:
        if not duck:
            f.write(f"| {name} | {args} | {t:.3f} | {p:.3f} | {r} |\n")
            continue
        d = [med.get((name, args, f"duckdb{k}")) for k in (1, 2)]
        dt = " / ".join(f"{x:.3f}" if x else "-" for x in d)
        dr = " / ".join(f"{x / t:.2f}" if x else "-" for x in d)
        f.write(f"| {name} | {args} | {t:.3f} | {p:.3f} | {dt} | {r} | {dr} |\n")
    big = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name") == "median" and b["run_name"].startswith("Big/"):
            big[b["run_name"].split("/")[1]] = b
    keys = ["append_Mps", "bytes_per_value", "scan_Gps", "search_us", "join_ns_per_probe",
            "peak_pages_MiB", "max_rss_MiB"]
    if big:
        f.write("\n| 10^8 int8 | " + " | ".join(keys) + " |\n")
        f.write("|---" * (len(keys) + 1) + "|\n")
        for side, b in sorted(big.items(), reverse=True):
            f.write(f"| {side} | " + " | ".join(f"{b[k]:.3g}" if k in b else "-" for k in keys) + " |\n")
print(open(os.path.join(out, "ratios.md")).read())

# Plot data: append throughput by batch; join and map cost by length.
with open(os.path.join(out, "append.dat"), "w") as f:
    for (name, args, side), t in sorted(med.items(), key=lambda k: int(k[0][1].split("/")[-1])):
        if name == "Append" and side == "velseq" and ("Append", args, "plain") in med:
            batch = int(args.split("/")[1])
            f.write(f"{batch} {1e3 / t:.3f} {1e3 / med[('Append', args, 'plain')]:.3f}\n")
for kind in ("Join", "Map"):
    with open(os.path.join(out, kind.lower() + ".dat"), "w") as f:
        for lg in range(5, 9):
            args = f"{lg}/0"
            if (kind, args, "velseq") in med and (kind, args, "plain") in med:
                f.write(f"{10 ** lg} {med[(kind, args, 'velseq')]:.2f} {med[(kind, args, 'plain')]:.2f}\n")
EOF

gnuplot <<EOF
set terminal pngcairo size 720,440 font ",10" noenhanced
set grid
set key top left
set output "$PLOTS/append.png"
set title "Append: values per call against throughput (1M int4 per run)"
set logscale x 2
set logscale y 10
set xlabel "values per call"
set ylabel "million values per second"
plot "$OUT/append.dat" using 1:2 with linespoints title "velseq", \
     "$OUT/append.dat" using 1:3 with linespoints title "plain std::vector"
unset logscale
set logscale xy 10
set xlabel "sequence length"
set ylabel "ns per probe"
set output "$PLOTS/join.png"
set title "Join: 2^20 random probes, cost per probe against length"
plot "$OUT/join.dat" using 1:2 with linespoints title "velseq join", \
     "$OUT/join.dat" using 1:3 with linespoints title "std::lower_bound"
set output "$PLOTS/map.png"
set ylabel "ns per position"
set title "Map: 2^20 random positions, cost per position against length"
plot "$OUT/map.dat" using 1:2 with linespoints title "velseq map", \
     "$OUT/map.dat" using 1:3 with linespoints title "plain gather"
EOF
echo "bench-ratios: $OUT/ratios.md, plots in $PLOTS"
