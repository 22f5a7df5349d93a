#!/usr/bin/env bash
# Builds the fuzz targets and lets each search for a while, from its corpus on. What it finds stays in build/fuzz: inputs
# worth keeping in found/NAME, failing ones as NAME-crash-... Usage: fuzz.sh SECONDS
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
cmake --build --preset fuzz --parallel --target fuzz_targets
failed=()
for program in build/fuzz/tests/fuzz/*_fuzz; do
    name=$(basename "$program" _fuzz)
    found=build/fuzz/found/$name
    mkdir -p "$found"
    echo "fuzz: $name, $1 seconds"
    "$program" -max_total_time="$1" -artifact_prefix="build/fuzz/$name-" -print_final_stats=1 "$found" \
        "tests/fuzz/corpus/$name" >"build/fuzz/$name.log" 2>&1 || failed+=("$name")
    grep -E '^stat::(number_of_executed_units|new_units_added)' "build/fuzz/$name.log" || true
done
[ ${#failed[@]} -eq 0 ] || { echo "fuzz: failed: ${failed[*]}; see build/fuzz/NAME.log" >&2; exit 1; }
echo "fuzz: nothing found"
