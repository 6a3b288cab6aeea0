#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need, if any is missing.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libgtest-dev libgmock-dev libbenchmark-dev
    libopencv-dev
    libtiff-dev libopenslide-dev libdeflate-dev zlib1g-dev libpng-dev libxml2-dev libopenjp2-7-dev
    libjpeg-dev libzstd-dev libblosc-dev nlohmann-json3-dev
    clang libclang-rt-14-dev clang-format
    pybind11-dev python3-dev python3-numpy python3-pytest python3-dask python3-distributed python3-zarr
    python3-tifffile python3-openslide
    libcpp-httplib-dev libturbojpeg0-dev chromium
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done

# Node.js with npm installs the browser assets below; a machine that already has one (Debian's or
# another vendor's) keeps it.
if ! command -v npm >/dev/null 2>&1; then
    missing+=(nodejs npm)
fi

if [ ${#missing[@]} -ne 0 ]; then
    echo "Installing: ${missing[*]}"
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        sudo="sudo"
    fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# nuvek view's deep-zoom viewer and its browser test's driver, from the npm registry, into the
# git-ignored build/web (never a browser download: the test drives Debian's chromium).
cd "$(dirname "$0")/.."
web=build/web
if ! cmp -s tools/nuvek/view/package-lock.json "$web/package-lock.json" || [ ! -d "$web/node_modules" ]; then
    mkdir -p "$web"
    cp tools/nuvek/view/package.json tools/nuvek/view/package-lock.json "$web/"
    npm ci --prefix "$web" --no-audit --no-fund --loglevel=error
fi
