#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test through ctest: once
# in a normal build and once under AddressSanitizer + UBSan.
# Exits non-zero on any failure.
set -euo pipefail
FERRY_TOP=$(cd "$(dirname "$0")/.." && pwd)
. "$FERRY_TOP/scripts/lib/deps.sh"

ferry_install_deps

jobs=$(nproc)
status=0
run_suite() {
    local dir=$1; shift
    echo "== build $dir"
    ferry_build "$FERRY_TOP/$dir" "$@" || return 1
    echo "== tests $dir"
    (cd "$FERRY_TOP/$dir" && ctest --output-on-failure -j "$jobs")
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo || status=1
if [ "${FERRY_SKIP_SANITIZE:-0}" != 1 ]; then
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DFERRY_SANITIZE=ON || status=1
fi
exit $status
