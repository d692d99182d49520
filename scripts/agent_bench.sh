#!/usr/bin/env bash
# agent_bench.sh [ROUNDS]: how fast varnix-agent drains its queues, against a
# plain msgrcv loop draining the same records in the same run (bench/
# agent_drain.cpp), with JSON output, then with JSON and OTLP export to a
# local HTTP server on 127.0.0.1 that takes every request and answers 200
# without decoding it (the tests' receiver decodes).  Builds a Release
# configuration into build-bench/.  As root it runs in a private IPC
# namespace whose kernel.msgmnb it raises to 4 MiB, so the queues hold about
# 5,000 records each without touching the host's setting.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$root/build-bench"
rounds="${1:-3}"
"$root/scripts/deps.sh"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$dir" -j2 --target varnix-agent varnix-agent-bench
echo "machine: $(nproc) cores, $(grep -m1 '^model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), load $(cut -d' ' -f1-3 /proc/loadavg)"

receiver_pid=""
work="$(mktemp -d /tmp/varnix-agent-bench-run-XXXXXX)"
cleanup() {
  if [ -n "$receiver_pid" ]; then kill "$receiver_pid" 2>/dev/null || true; wait "$receiver_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
node -e '
  const server = require("http").createServer((req, res) => {
    req.resume();
    req.on("end", () => { res.writeHead(200); res.end(); });
  });
  server.listen(0, "127.0.0.1", () => require("fs").writeFileSync(process.argv[1], String(server.address().port)));
  setTimeout(() => process.exit(0), 3600 * 1000);' "$work/port" &
receiver_pid=$!
for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.1; done

run() {
  if [ "$(id -u)" -eq 0 ] && unshare --ipc true 2>/dev/null; then
    unshare --ipc sh -c 'echo 4194304 > /proc/sys/kernel/msgmnb && exec "$@"' sh "$@"
  else
    echo "not root: the queues keep kernel.msgmnb ($(cat /proc/sys/kernel/msgmnb) bytes); figures from small fills"
    "$@"
  fi
}
run "$dir/bench/varnix-agent-bench" "$dir/collector/varnix-agent" --rounds "$rounds" | sed '/^##/d'
run "$dir/bench/varnix-agent-bench" "$dir/collector/varnix-agent" --rounds "$rounds" \
  --otlp "http://127.0.0.1:$(cat "$work/port")" | sed '/^##/d'
