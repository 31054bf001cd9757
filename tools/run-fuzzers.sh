#!/usr/bin/env bash
# Builds the fuzz targets (the `fuzz` preset, build-fuzz/) and runs each for
# SECONDS (default 60) in a sandbox of its own, starting from its seeds in
# fuzz/corpus/<target>/. Exits non-zero when any target crashes, leaks, times
# out, runs out of memory or cannot run at all.
#
#   tools/run-fuzzers.sh [SECONDS] [TARGET...]
#
# TARGET is one of hdc, event, version-info, env-script (default: all). The
# working corpus, the findings and each target's output go to a temporary
# directory (ORV_FUZZ_WORK overrides it), never into the repository; a
# crashing input is reported with its path.
set -uo pipefail

cd "$(dirname "$0")/.."
seconds=${1:-60}
shift $(($# > 0 ? 1 : 0))
if ! [[ $seconds =~ ^[0-9]+$ ]] || [[ $seconds -lt 1 ]]; then
    echo "usage: tools/run-fuzzers.sh [SECONDS] [TARGET...]" >&2
    exit 2
fi
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=(hdc event version-info env-script)

# Per target: time-out for one input (s), memory limit (MB), largest input.
# The daemon's own waits (a sub-process's close, a fork task) take up to
# about 6 s each, and one input may meet several.
declare -A timeout=([hdc]=60 [event]=60 [version-info]=10 [env-script]=10)
declare -A rss=([hdc]=2048 [event]=2048 [version-info]=2048 [env-script]=2048)
declare -A maxlen=([hdc]=4096 [event]=1024 [version-info]=4096 [env-script]=4096)
for target in "${targets[@]}"; do
    if [[ ! -v "timeout[$target]" ]]; then
        echo "run-fuzzers: unknown target '$target' (hdc, event, version-info, env-script)" >&2
        exit 2
    fi
done

cmake --preset fuzz >/dev/null || exit 1
cmake --build --preset fuzz || exit 1

work=${ORV_FUZZ_WORK:-$(mktemp -d /tmp/orv-fuzz.XXXXXX)}
echo "run-fuzzers: ${#targets[@]} target(s), ${seconds} s each; work directory $work"

failed=()
for target in "${targets[@]}"; do
    dir=$work/$target
    mkdir -p "$dir/corpus" "$dir/artifacts"
    log=$dir/fuzzer.log
    # Start-up, shutdown (the daemon's waits out one heartbeat period) and
    # the last input's time-out on top of the fuzzing time.
    wall=$((seconds + ${timeout[$target]} + 120))
    timeout --kill-after=30 "$wall" build-fuzz/bin/orv-sandbox --state-tmp -- \
        "$PWD/build-fuzz/bin/orv-fuzz-$target" \
        -max_total_time="$seconds" -timeout="${timeout[$target]}" -rss_limit_mb="${rss[$target]}" \
        -max_len="${maxlen[$target]}" -artifact_prefix="$dir/artifacts/" -print_final_stats=1 \
        "$dir/corpus" "$PWD/fuzz/corpus/$target" >"$log" 2>&1
    status=$?
    stats=$(grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added)' "$log" |
            sed 's/^stat:://; s/: */=/' | tr '\n' ' ')
    coverage=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
    if [[ $status -eq 0 ]]; then
        echo "run-fuzzers: $target passed: $coverage $stats"
        continue
    fi
    failed+=("$target")
    echo "run-fuzzers: $target FAILED (exit status $status); output in $log"
    grep -E '^(==[0-9]+==ERROR|SUMMARY|orv-fuzz:)|runtime error' "$log" | head -5 | sed 's/^/    /'
    for artifact in "$dir"/artifacts/*; do
        [[ -e $artifact ]] && echo "    input saved as $artifact"
    done
    [[ $status -eq 124 || $status -eq 137 ]] && echo "    the run did not end within ${wall} s"
done

if [[ ${#failed[@]} -gt 0 ]]; then
    echo "run-fuzzers: failed: ${failed[*]}; reproduce one input with" \
         "build-fuzz/bin/orv-sandbox --state-tmp -- build-fuzz/bin/orv-fuzz-TARGET INPUT"
    exit 1
fi
echo "run-fuzzers: all passed"
