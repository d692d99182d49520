#!/usr/bin/env bash
# package.sh [OUT_DIR]: builds the Debian packages libvarnix1, libvarnix-dev,
# varnix-agent and libvarnix-java with debhelper (dist/debian/) into OUT_DIR
# (build-deb/), from a copy of the working tree, and checks them with lintian
# and systemd-analyze (tests/package/check_deb.sh).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${1:-$root/build-deb}"
"$root/scripts/deps.sh" debhelper dpkg-dev lintian systemd
rm -rf "$out"
mkdir -p "$out/src"
# Tracked and new files, not the build trees; dpkg-buildpackage writes the
# packages next to the tree it builds.
git -C "$root" ls-files -z --cached --others --exclude-standard |
  while IFS= read -r -d '' f; do [ ! -e "$root/$f" ] || printf '%s\0' "$f"; done |
  (cd "$root" && xargs -0 cp -P --parents -t "$out/src")
cp -r "$root/dist/debian" "$out/src/debian"
(cd "$out/src" && dpkg-buildpackage --build=binary --no-sign -j"$(nproc)") >"$out/build.log" 2>&1 ||
  { tail -40 "$out/build.log"; exit 1; }
"$root/tests/package/check_deb.sh" "$out"
