#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and runs
# each for a bounded time on a copy of the seed corpus in fuzz/corpus. Fails on any finding; a
# finding's input is left in build/fuzz/findings (fix the fault, then add the input to the seed corpus).
#   scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"

bash scripts/install-deps.sh

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DNUVEK_SANITIZE=address,undefined -DNUVEK_BUILD_FUZZERS=ON -DNUVEK_BUILD_EXAMPLES=OFF \
    -DNUVEK_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz_chains fuzz_tiff_image fuzz_metadata fuzz_zarr_image

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
mkdir -p "$build/findings"
status=0
for target in chains tiff_image metadata zarr_image; do
    case $target in
        chains) corpus=tests/reliability/fuzz/corpus; binary="$build/tests/reliability/fuzz/fuzz_chains" ;;
        tiff_image) corpus=tests/io/fuzz/corpus; binary="$build/tests/io/fuzz/fuzz_tiff_image" ;;
        metadata) corpus=tests/io/fuzz/metadata-corpus; binary="$build/tests/io/fuzz/fuzz_metadata" ;;
        zarr_image) corpus=tests/io/fuzz/zarr-corpus; binary="$build/tests/io/fuzz/fuzz_zarr_image" ;;
    esac
    work="$build/corpus-$target"
    rm -rf "$work" && mkdir -p "$work"
    log="$build/fuzz-$target.log"
    if ! "$binary" -max_total_time="$seconds" -print_final_stats=1 -timeout=20 \
        -artifact_prefix="$build/findings/$target-" "$work" "$corpus" >"$log" 2>&1; then
        echo "fuzz_$target found a problem:"
        tail -n 40 "$log"
        status=1
    fi
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "fuzz_$target: $runs executions in ${seconds}s, corpus $(ls "$work" | wc -l) inputs"
done
exit $status
