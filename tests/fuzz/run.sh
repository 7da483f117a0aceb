#!/usr/bin/env bash
# Builds the fuzz preset (clang, libFuzzer, ASan + UBSan) and runs every harness for the given
# number of seconds (default 60), starting from its committed seeds in tests/fuzz/corpus/<name>/.
# New inputs found go to a scratch folder, so the committed seeds stay as they are; a crashing
# input is kept in build/fuzz/artifacts/<name>/. Exits non-zero when any harness failed.
#
#   tests/fuzz/run.sh [seconds]
set -uo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}

cmake --preset fuzz >/dev/null && cmake --build --preset fuzz || exit 1

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=()
for harness in build/fuzz/tests/fuzz/fuzz_*; do
    name=${harness##*/fuzz_}
    seeds=tests/fuzz/corpus/$name
    artifacts=build/fuzz/artifacts/$name
    mkdir -p "$scratch/$name" "$seeds" "$artifacts"
    echo "== fuzz $name for ${seconds}s"
    if ! "$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$artifacts/" -print_final_stats=1 "$scratch/$name" "$seeds" \
        2>"$scratch/$name.log"; then
        tail -n 60 "$scratch/$name.log"
        failed+=("$name")
    else
        grep -E "^(Done|stat::number_of_executed_units|stat::peak_rss_mb)" "$scratch/$name.log"
    fi
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "== fuzzing found faults in: ${failed[*]} (inputs in build/fuzz/artifacts/)"
    exit 1
fi
echo "== fuzzing found nothing"
