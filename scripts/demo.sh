#!/usr/bin/env bash
# Builds the libraries and the nuvek tool, then runs its demo: a synthetic brightfield slide is made
# and written as a tiled TIFF, and a nuclei-finding filter chain is run over it tile by tile.
#   scripts/demo.sh [DIR] [nuvek demo options, e.g. --size 8192]    (DIR defaults to ./nuvek-demo)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
build=build/demo
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DNUVEK_BUILD_TESTS=OFF -DNUVEK_BUILD_PYTHON=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target nuvek
"$build"/tools/nuvek/nuvek demo "$@"
