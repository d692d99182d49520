#!/usr/bin/env bash
# Runs every test: installs what is missing, builds, runs CTest.
#   scripts/test.sh                      plain build (build/)
#   scripts/test.sh --sanitize LIST      e.g. address,undefined (build-LIST/)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
sanitize=""
if [ "${1:-}" = "--sanitize" ]; then sanitize="$2"; fi
"$root/scripts/deps.sh"
dir="$root/build${sanitize:+-${sanitize//,/-}}"
"$root/scripts/build.sh" "$dir" "$sanitize"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
cd "$dir" && ctest --output-on-failure -j"$(nproc)"
