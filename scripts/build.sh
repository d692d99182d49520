#!/usr/bin/env bash
# build.sh BUILD_DIR [SANITIZERS]: configures and builds the project; a warning
# fails the build.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$1"
sanitize="${2:-}"
# A JVM does not load sanitized libraries cleanly, so a sanitizer build leaves
# the Java binding out; that keeps a build without it tested too.
java=ON
[ -z "$sanitize" ] || java=OFF
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNIX_WERROR=ON -DVARNIX_SANITIZE="$sanitize" \
  -DVARNIX_JAVA="$java" >/dev/null
cmake --build "$dir" -j"$(nproc)"
