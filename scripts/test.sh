#!/usr/bin/env bash
# Builds the project with warnings as errors and runs the whole test suite.
#   scripts/test.sh                              normal build in build/test
#   scripts/test.sh --sanitize address,undefined  sanitizer build in build/test-address-undefined
#   scripts/test.sh --sanitize thread             ThreadSanitizer build in build/test-thread
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
if [ "${1:-}" = "--sanitize" ]; then
    sanitize="${2:?--sanitize needs a list such as address,undefined}"
fi

bash scripts/install-deps.sh

jobs=$(nproc)
if [ -z "$sanitize" ]; then
    build=build/test
    # Debian's own interpreter, whose packages apt installs (another python3 may come first on PATH).
    options=(-DCMAKE_BUILD_TYPE=Release -DNUVEK_BUILD_BENCHMARKS=ON -DPython3_EXECUTABLE=/usr/bin/python3)
else
    build=build/test-${sanitize//,/-}
    # A sanitized Python extension cannot load into an uninstrumented python: the package is left out.
    options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DNUVEK_SANITIZE="$sanitize" -DNUVEK_BUILD_BENCHMARKS=OFF)
fi

cmake -S . -B "$build" -DNUVEK_WARNINGS_AS_ERRORS=ON "${options[@]}" >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan-suppressions.txt
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$build" -j "$jobs" --output-on-failure
