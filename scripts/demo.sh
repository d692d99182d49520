#!/usr/bin/env bash
# Runs the demo: installs what is missing, builds, starts a collector and a
# traced process against it and prints what happened.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
"$root/scripts/build.sh" "$root/build"
exec "$root/build/examples/varnix-demo"
