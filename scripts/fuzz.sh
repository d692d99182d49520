#!/usr/bin/env bash
# fuzz.sh [SECONDS_PER_TARGET]: builds the libFuzzer targets with clang-14,
# ASan and UBSan into build-fuzz/ and runs each on a copy of its seed corpus
# (fuzz/corpus/<target>/) for the given time, 20 s by default (fuzz_tmsg,
# whose inputs are whole telegrams, half as long again).  Fails on a
# crash, leak, time-out, memory blow-up or sanitizer report; the input that
# caused it is kept in build-fuzz/findings/<target>/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-20}"
dir="$root/build-fuzz"
targets=(fuzz_api fuzz_tmsg fuzz_readcfg fuzz_hcut)

"$root/scripts/deps.sh" clang-14 libclang-rt-14-dev
cmake -S "$root" -B "$dir" -DVARNIX_FUZZ=ON -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNIX_WERROR=ON >/dev/null
cmake --build "$dir" -j2

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
failed=()
for t in "${targets[@]}"; do
  corpus="$dir/corpus/$t" findings="$dir/findings/$t" log="$dir/$t.log"
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings"
  cp "$root/fuzz/corpus/$t/"* "$corpus/"
  t_seconds="$seconds"
  [[ $t == fuzz_tmsg ]] && t_seconds=$((seconds * 3 / 2))
  echo "== $t: ${t_seconds} s"
  # The process-thread table alone is 603 MB of the collector's shared
  # memory, counted in the target's RSS.  -close_fd_mask=3 silences what the
  # code under test prints; libFuzzer and the sanitizers still report.
  if "$dir/fuzz/$t" "$corpus" -max_total_time="$t_seconds" -timeout=10 -rss_limit_mb=3072 -close_fd_mask=3 \
      -entropic_scale_per_exec_time=1 -artifact_prefix="$findings/" -print_final_stats=1 >"$log" 2>&1 &&
      ! grep -q -e '^SUMMARY: ' -e 'runtime error:' "$log"; then
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
  else
    tail -n 60 "$log"
    echo "== $t FAILED: log $log, input in $findings/"
    failed+=("$t")
  fi
done
# A target killed by a finding cannot remove its collector; this removes the
# IPC objects that the manifests of dead kit processes list.
"$dir/tests/kit/varnix-ipc-clean" || true
if ((${#failed[@]})); then
  echo "fuzzing found problems in: ${failed[*]}"
  exit 1
fi
echo "fuzzing: no findings"
