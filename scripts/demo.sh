#!/usr/bin/env bash
# Builds the libraries and runs the example chain on an image it makes itself.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
build=build/demo
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DNUVEK_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target nuvek_chain_example
"$build"/examples/nuvek_chain_example
