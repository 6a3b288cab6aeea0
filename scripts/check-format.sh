#!/usr/bin/env bash
# Fails when a C++ file of the repository is not formatted as .clang-format says (clang-format 14,
# Debian's). Prints the files and the first differences; `scripts/check-format.sh --fix` formats them.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v clang-format >/dev/null 2>&1; then
    echo "check-format: clang-format is not installed (bash scripts/install-deps.sh installs it)." >&2
    exit 2
fi

mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
    clang-format -i "${files[@]}"
    exit 0
fi

unformatted=()
for file in "${files[@]}"; do
    if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then
        unformatted+=("$file")
    fi
done
if [ ${#unformatted[@]} -ne 0 ]; then
    echo "check-format: ${#unformatted[@]} file(s) differ from .clang-format (run scripts/check-format.sh --fix):" >&2
    for file in "${unformatted[@]}"; do
        echo "  $file" >&2
        clang-format "$file" | diff -u "$file" - | sed -n '3,12p' >&2 || true
    done
    exit 1
fi
echo "check-format: ${#files[@]} files formatted as .clang-format says."
