#!/usr/bin/env bash
# The demo: installs what is missing, builds, starts an OTLP receiver on
# 127.0.0.1 (the tests' receiver, which decodes with OpenTelemetry's own
# code) and varnix-agent exporting to it, runs the traced banking server,
# shows a `top --once` view taken while the transfer runs and the records as
# JSON lines, stops the agent, shows the trace tree as the receiver decoded
# it and checks that no IPC object is left behind.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
"$root/scripts/build.sh" "$root/build" >/dev/null
agent="$root/build/collector/varnix-agent"
server="$root/build/examples/bank_server"

receiver_dir="$root/build/tests/otlp"
[ -d "$receiver_dir/node_modules/@opentelemetry" ] ||
  (cd "$receiver_dir" && npm install --no-audit --no-fund --loglevel=error >/dev/null)

home="$(mktemp -d /tmp/varnix-demo-XXXXXX)"
agent_pid=""
receiver_pid=""
cleanup() {
  if [ -n "$agent_pid" ]; then kill -TERM "$agent_pid" 2>/dev/null || true; wait "$agent_pid" || true; fi
  if [ -n "$receiver_pid" ]; then kill -TERM "$receiver_pid" 2>/dev/null || true; wait "$receiver_pid" || true; fi
  rm -rf "$home"
}
trap cleanup EXIT

# Keys in the project's own range, from this script's pid, as the kit derives them.
base=$((0x40000000 + ($$ % 4194304) * 32))
keys=("$base" $((base + 1)) $((base + 2)) $((base + 3)) $((base + 4)) $((base + 16)) $((base + 17)) $((base + 18)) $((base + 19)))
mkdir -p "$home/agt/log/proc/libvarnix" "$home/tong"
cat >"$home/agt/varnix.cfg" <<EOF
[COMMON]
LOG_HOME = log
TONG_LOG_HOME = $home/tong

[TRAN_LOGF]
LOG_INTERFACE = MQ
TR_SECTION = A
QUE_CNT = 4
MAX_QUE_CNT = 4
TRAN_LOG_FLAG_SET = SEVBCIXQ
FST_ERR_RC_SET = 1,1
SVC_FILTERING = 0
CALL_TRC_DEPTH = 10
CALL_TRC_LIMIT = 0
DBIO_TRC_LIMIT = 100000
SQL_TRC_LIMIT = 0
IDLE_THREAD_RELEASE = 30 60
INFINITE_LOOP_BASE_CNT = 1000
WRITE_QUE_IDX_GID_RNG = 0 30

[IPC_SHARED_MEMORY]
TRAN_LOGF_QUE_INFO_SHMKEY = ${keys[0]}
SVC_HASH_TBL_SHMKEY = ${keys[1]}
PTRC_HASH_TBL_SHMKEY = ${keys[3]}

[IPC_SEMAPHORE]
SVC_HASH_TBL_SEMKEY = ${keys[2]}
PTRC_HASH_TBL_SEMKEY = ${keys[4]}

[IPC_MESSAGE_QUE]
TRAN_LOGF_MSGQKEY = ${keys[5]}

[DATA_SIGNATURE]
DBIO_FUNC = 0 DBIO_

[SERVICE_HASH]
DEFAULT_TIMEOUT_SEC = 60
EOF
export TRAN_HOME="$home" TRAN_AGT_HOME="$home/agt" TRAN_AGT_CFG_FILE="$home/agt/varnix.cfg"

echo "=== OTLP receiver on 127.0.0.1 (at most 300 s)"
node "$receiver_dir/receiver.js" "$home/receiver.port" "$home/otlp.jsonl" 300 &
receiver_pid=$!
for _ in $(seq 100); do [ -s "$home/receiver.port" ] && break; sleep 0.1; done
otlp="http://127.0.0.1:$(cat "$home/receiver.port")"
echo "$otlp"

echo "=== varnix-agent start --otlp $otlp (configuration $TRAN_AGT_CFG_FILE)"
"$agent" start --out "$home/records.jsonl" --otlp "$otlp" 2>"$home/agent.err" &
agent_pid=$!
for _ in $(seq 100); do grep -q running "$home/agent.err" && break; sleep 0.1; done
cat "$home/agent.err"
echo "=== varnix-agent set capture=on"
"$agent" set capture=on

echo "=== bank_server: one transfer"
"$server" | grep -v '^##' &
server_pid=$!
sleep 1
echo "=== varnix-agent top --once, while the debit's UPDATE runs"
"$agent" top --once
wait "$server_pid"
sleep 0.5

echo "=== the records as JSON lines (a DBIO call below the 100 ms DBIO limit sends its SQL but no call record)"
cat "$home/records.jsonl"
echo "=== captured telegrams: 117-byte header (GID, time, host, S/F, length), the telegram (first 80 bytes here; runs of blanks shown as one, the host field's padding left out)"
for f in "$home"/tong/*; do echo "$(basename "$f"):"; cut -c1-197 "$f" | tr -d '\000' | tr -s ' '; done

echo "=== varnix-agent stops on SIGTERM"
kill -TERM "$agent_pid"
wait "$agent_pid"
agent_pid=""
tail -n +5 "$home/agent.err"
echo "=== the trace as the OTLP receiver decoded it"
node "$root/scripts/otlp_tree.js" "$home/otlp.jsonl"
left=0
for k in "${keys[@]}"; do
  for kind in shm sem msg; do
    awk -v k="$k" 'NR > 1 && $1 == k { found = 1 } END { exit !found }' "/proc/sysvipc/$kind" && left=$((left + 1))
  done
done
echo "IPC objects left behind: $left"
[ "$left" -eq 0 ]
