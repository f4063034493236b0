#!/usr/bin/env bash
# One field of int64 timestamps at 10^6, 10^7, 10^8 and 10^9 values
# (bench/scale_bench.cpp), velseq and a plain std::vector, each length in a
# process of its own; writes
#
#   $OUT/scale.txt   one line of figures per run
#   $OUT/scale.md    the table
#   $PLOTS/scale.png scan rate and cost per probe against length (gnuplot)
#
#   scripts/bench-scale.sh                     # 10^6..10^9 (about 17 GiB free needed)
#   LENGTHS="6 7 8" scripts/bench-scale.sh
#   PLOTS=docs scripts/bench-scale.sh          # refresh the docs' plot
#
# Opt-in: neither ./test.sh nor CI runs it.  BUILD picks the build
# directory (default build/release, the release preset).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
cd "$ROOT"
LENGTHS=${LENGTHS:-6 7 8 9}
BUILD=${BUILD:-build/release}
OUT=${OUT:-$BUILD/scale}
PLOTS=${PLOTS:-$OUT}
BATCH=${BATCH:-65536}

command -v gnuplot >/dev/null || {
    as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
    as_root apt-get install -y -q --no-install-recommends gnuplot-nox
}
if [ "$BUILD" = build/release ]; then
    cmake --preset release >/dev/null
fi
cmake --build "$BUILD" -j"${VELSEQ_JOBS:-2}" --target velseq_scale_bench
mkdir -p "$OUT" "$PLOTS"
: >"$OUT/scale.txt"
for lg in $LENGTHS; do
    for side in velseq plain; do
        "$BUILD/bench/velseq_scale_bench" "$lg" "$side" "$BATCH" | tee -a "$OUT/scale.txt"
    done
done

python3 - "$OUT" <<'PY'
import os, sys
out = sys.argv[1]
runs = [dict(kv.split("=") for kv in line.split()) for line in open(os.path.join(out, "scale.txt"))]
keys = ["bytes_per_value", "peak_pages_MiB", "max_rss_MiB", "append_Mps", "scan_Gps",
        "leaves_Gps", "search_us", "probe_ns"]
with open(os.path.join(out, "scale.md"), "w") as f:
    f.write("| values | side | " + " | ".join(keys) + " |\n" + "|---" * (len(keys) + 2) + "|\n")
    for r in runs:
        f.write(f"| {int(r['n']):.0e} | {r['side']} | " + " | ".join(r.get(k, "-") for k in keys) + " |\n")
with open(os.path.join(out, "scale.dat"), "w") as f:
    v = {r["n"]: r for r in runs if r["side"] == "velseq"}
    p = {r["n"]: r for r in runs if r["side"] == "plain"}
    for n in sorted(v, key=int):
        q = p.get(n, {})
        f.write(f"{n} {v[n]['scan_Gps']} {v[n]['leaves_Gps']} {q.get('scan_Gps', '?')} "
                f"{v[n]['probe_ns']} {q.get('probe_ns', '?')}\n")
print(open(os.path.join(out, "scale.md")).read())
PY

gnuplot <<GP
set terminal pngcairo size 960,400 font ",10" noenhanced
set output "$PLOTS/scale.png"
set datafile missing "?"
set multiplot layout 1,2
set grid
set logscale x 10
set xlabel "values in the field (int64 timestamps)"
set key bottom left
set ylabel "G values per second"
set yrange [0:*]
set title "Scan rate against length"
plot "$OUT/scale.dat" using 1:2 with linespoints title "velseq tiles (next)", \
     "$OUT/scale.dat" using 1:3 with linespoints title "velseq leaves in place", \
     "$OUT/scale.dat" using 1:4 with linespoints title "plain std::vector"
set logscale y 10
set yrange [*:*]
set key top left
set ylabel "ns per probe"
set title "2^20 random probes: cost per probe"
plot "$OUT/scale.dat" using 1:5 with linespoints title "velseq join", \
     "$OUT/scale.dat" using 1:6 with linespoints title "std::lower_bound"
unset multiplot
GP
echo "bench-scale: $OUT/scale.md, plot in $PLOTS/scale.png"
