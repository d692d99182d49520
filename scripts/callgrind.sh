#!/usr/bin/env bash
# callgrind.sh [CALLS]: user-space instructions per call of each tracing entry,
# counted by callgrind: the noise-free figure to compare between commits.
# Each scenario of varnix-bench runs CALLS times (5000 by default) in its
# --loop mode, which switches callgrind's collection on around the calls only;
# the count of the calling thread (callgrind's thread 1) divided by CALLS is
# the figure.  The kernel's share of a send is not in it: see scripts/bench.sh.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
calls="${1:-5000}"
dir="$root/build-bench"
"$root/scripts/deps.sh" libbenchmark-dev valgrind
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$dir" -j2 --target varnix-bench varnix-ipc-clean
bench="$dir/bench/varnix-bench"
out="$(mktemp -d /tmp/varnix-callgrind-XXXXXX)"
# A run killed half-way cannot remove its collector: varnix-ipc-clean removes
# the IPC objects that the manifests of dead kit processes list.
trap 'rm -rf "$out"; "$dir/tests/kit/varnix-ipc-clean" >/dev/null 2>&1 || true' EXIT

printf '%-14s %14s %8s %6s\n' entry instr/call records fail
status=0
while read -r name _; do
  log="$out/$name.log"
  if ! valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no --separate-threads=yes \
      --callgrind-out-file="$out/$name.%p" "$bench" --loop="$name" --iterations="$calls" >"$log" 2>&1; then
    printf '%-14s failed, log:\n' "$name"
    grep -v '^##' "$log" | tail -n 20
    status=1
    continue
  fi
  ir="$(sed -n 's/^totals: *//p' "$out/$name".*-01)"
  read -r records fail < <(sed -n 's/^loop .* records \([0-9.]*\), fail \([0-9]*\)$/\1 \2/p' "$log")
  awk -v n="$name" -v ir="$ir" -v c="$calls" -v r="$records" -v f="$fail" \
    'BEGIN { printf "%-14s %14.1f %8s %6s\n", n, ir / c, r, f }'
done < <("$bench" --list)
exit "$status"
