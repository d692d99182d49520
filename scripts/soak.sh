#!/usr/bin/env bash
# soak.sh [SECONDS]: builds a Release configuration into build-soak/ and runs
# varnix-soak for the given time (30 s by default): eight threads tracing at
# full rate against a collector of its own, one thread draining.  Fails when
# records went missing, a refused send was not counted, or memory grew.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-30}"
dir="$root/build-soak"
"$root/scripts/deps.sh"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$dir" -j2 --target varnix-soak
exec "$dir/bench/varnix-soak" "$seconds"
