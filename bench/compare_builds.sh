#!/usr/bin/env bash
# Compares the pipe, monitor and console benchmarks of an older revision with the working tree,
# in one run on one machine:
#
#   bench/compare_builds.sh BASE_REV
#
# BASE_REV is checked out into a temporary git worktree and both sides are built with the release
# preset (the working tree in build/release). The benchmark programs of the two sides then run
# in turns, ROUNDS times (default 5), each round unpinned and pinned to CPU 0 with `taskset -c 0`;
# which side goes first alternates from round to round, so a change in the machine's load hits
# both. Each side runs its own revision's benchmark programs. The table printed at the end shows
# per benchmark the median time per iteration of each side and head/base (below 1: the working
# tree is faster). MIN_TIME (default 0.05 s) is passed as --benchmark_min_time; comm_pipe_bench
# sets its own times and repetitions and runs only its pipe measurements here. Timings swing with
# whatever else the machine runs, so the load average is printed with the table.
set -euo pipefail

if [ $# -lt 1 ]; then
    echo "usage: $0 BASE_REV   (environment: ROUNDS=5 MIN_TIME=0.05 PROGRAMS=...)" >&2
    exit 2
fi
base_rev=$1
rounds=${ROUNDS:-5}
min_time=${MIN_TIME:-0.05}
root=$(git rev-parse --show-toplevel)
command -v python3 >/dev/null || { echo "$0: python3 is needed for the table" >&2; exit 2; }
command -v taskset >/dev/null || { echo "$0: taskset (util-linux) is needed" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/dm-compare.XXXXXX")
cleanup() {
    git -C "$root" worktree remove --force "$work/base" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

# PROGRAMS (default: all five) picks some of them, e.g. PROGRAMS=monitor_print.
read -r -a programs <<<"${PROGRAMS:-comm_pipe_bench monitor_print console_print console_render console_cache}"
filter_of() {
    case $1 in
    comm_pipe_bench) echo '^pipe \|.*\| unpinned' ;;  # taskset does the pinning here
    *) echo '.' ;;
    esac
}

if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
build() {  # source folder
    echo "== building the benchmarks of $1" >&2
    (cd "$1" && cmake --preset release >/dev/null &&
        cmake --build --preset release --target "${programs[@]}" >/dev/null)
}

git -C "$root" worktree add --detach "$work/base" "$base_rev" >/dev/null
echo "base: $(git -C "$work/base" log -1 --format='%h %s')"
echo "head: working tree at $(git -C "$root" log -1 --format='%h'), $(git -C "$root" status --porcelain | wc -l) changed files"
CCACHE_BASEDIR="$work" build "$work/base"
build "$root"

run_side() {  # side (base|head) pinning (pinned|unpinned) round
    local side=$1 pinning=$2 round=$3 folder
    folder=$([ "$side" = base ] && echo "$work/base" || echo "$root")
    local out="$work/results/$side/$pinning"
    mkdir -p "$out"
    local pin=()
    [ "$pinning" = pinned ] && pin=(taskset -c 0)
    for program in "${programs[@]}"; do
        "${pin[@]}" "$folder/build/release/bench/$program" \
            --benchmark_filter="$(filter_of "$program")" --benchmark_min_time="$min_time" \
            --benchmark_out="$out/$program.$round.json" --benchmark_out_format=json \
            >/dev/null 2>"$out/$program.$round.log" ||
            echo "   $side $program ($pinning, round $round) failed: see the table's gaps" >&2
    done
}

load_start=$(cut -d' ' -f1-3 /proc/loadavg)
for round in $(seq 1 "$rounds"); do
    echo "== round $round of $rounds" >&2
    sides=(base head)
    [ $((round % 2)) -eq 0 ] && sides=(head base)
    for pinning in unpinned pinned; do
        for side in "${sides[@]}"; do
            run_side "$side" "$pinning" "$round"
        done
    done
done
echo "load average (1, 5, 15 min) at start: $load_start, at end: $(cut -d' ' -f1-3 /proc/loadavg)"

python3 - "$work/results" <<'EOF'
import json, pathlib, re, statistics, sys

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
results = pathlib.Path(sys.argv[1])
times = {}  # (program, benchmark, pinning) -> side -> [ns per iteration, one per run]
for path in sorted(results.glob("*/*/*.json")):
    side, pinning, program = path.parts[-3], path.parts[-2], path.name.split(".")[0]
    try:
        entries = json.loads(path.read_text())["benchmarks"]
    except (ValueError, KeyError):
        continue
    per_run = {}
    for entry in entries:
        if entry.get("error_occurred"):
            continue
        # Without the settings a program puts into its names, such as /min_time:0.200, and
        # without comm_pipe_bench's own "unpinned": taskset pins it or not.
        name = re.sub(r"/(min_time:[^/]*|repeats:[^/]*|real_time|manual_time)", "",
                      entry.get("run_name", entry["name"]))
        name = name.replace(" | unpinned", "")
        ns = entry["real_time"] * TO_NS[entry.get("time_unit", "ns")]
        # With repetitions the run's median stands for it; otherwise its single measurement.
        if entry.get("run_type") == "aggregate":
            if entry.get("aggregate_name") == "median":
                per_run[name] = ns
        else:
            per_run.setdefault(name, ns)
    for name, ns in per_run.items():
        times.setdefault((program, name, pinning), {}).setdefault(side, []).append(ns)

def shown(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.2f} {unit}"
    return f"{ns:.1f} ns"

def spread_of(runs):  # the runs' range as a share of their median, in per cent
    return f"{100 * (max(runs) - min(runs)) / statistics.median(runs):.0f}%"

width = max([len(f"{p}: {n} [{q}]") for p, n, q in times] + [9])
print(f"\n{'benchmark':<{width}} {'base median':>12} {'head median':>12} {'head/base':>9} {'spread b/h':>11}  runs")
for (program, name, pinning), sides in sorted(times.items()):
    base, head = sides.get("base", []), sides.get("head", [])
    label = f"{program}: {name} [{pinning}]"
    if not base or not head:
        print(f"{label:<{width}} {'-':>12} {'-':>12} {'-':>9}  {len(base)}/{len(head)}")
        continue
    b, h = statistics.median(base), statistics.median(head)
    spread = f"{spread_of(base)}/{spread_of(head)}"
    print(f"{label:<{width}} {shown(b):>12} {shown(h):>12} {h / b:>8.2f}x {spread:>11}  {len(base)}/{len(head)}")
print("\ntime per iteration (real time); head/base below 1: the working tree is faster;")
print("spread: (slowest - fastest run) / median of each side; a ratio inside it is not a finding")
EOF
