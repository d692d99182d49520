#!/usr/bin/env bash
# bench.sh [GOOGLE_BENCHMARK_FLAGS]: installs what is missing, builds a Release
# configuration into build-bench/ and runs varnix-bench, which prints one table:
# time per call of each tracing entry against a collector of its own whose
# queues a drainer thread keeps empty, the records per call, the refused sends
# ("fail": such a figure is too low), the ratio to a bare msgsnd, and per
# record the library's own time (measured with its msgsnd switched off) beside
# what the send cost.  Instructions per call: scripts/callgrind.sh.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$root/build-bench"
"$root/scripts/deps.sh" libbenchmark-dev valgrind
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$dir" -j2 --target varnix-bench varnix-ipc-clean
echo "machine: $(nproc) cores, $(grep -m1 '^model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
# The library prints its start banner on standard output; the table follows.
"$dir/bench/varnix-bench" "$@" | sed '/^##/d'
