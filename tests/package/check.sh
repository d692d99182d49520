#!/usr/bin/env bash
# check.sh BUILD_DIR WORK_DIR C_COMPILER LIBDIR JAVA [CFLAGS]: installs the
# build into WORK_DIR/prefix, checks what is in place (with JAVA 1 also the
# jar and its Maven pom), rates the installed systemd unit with
# systemd-analyze (exposure at most 4.0, no complaint by verify), then builds
# the consumer against that tree once with pkg-config and once with
# find_package(varnix) and runs both: each prints the header's version, which
# must be the pkg-config version.  CFLAGS carries the build's sanitizer flags.
# Exit 77 (a skip) when pkg-config is not installed.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$1" work="$2" cc="$3" libdir="$4" java="$5" cflags="${6:-}"
command -v pkg-config >/dev/null || { echo "pkg-config is not installed"; exit 77; }
prefix="$work/prefix"
rm -rf "$work"
cmake --install "$build" --prefix "$prefix" >/dev/null

version="$(sed -n 's/^#define VARNIX_VERSION_\(MAJOR\|MINOR\|PATCH\) //p' "$here/../../include/varnix.h" | paste -sd.)"
expected=(include/varnix.h include/varnix_collector.h "$libdir/libvarnix.so.1" "$libdir/pkgconfig/varnix.pc"
  "$libdir/cmake/varnix/varnixConfig.cmake" etc/varnix/varnix.cfg etc/logrotate.d/varnix-agent
  lib/systemd/system/varnix-agent.service share/man/man1/varnix-agent.1)
maven="share/maven-repo/com/tolvo/tran/varnix/$version"
if [ "$java" = 1 ]; then
  expected+=("share/java/varnix-$version.jar" share/java/varnix.jar "$maven/varnix-$version.pom" "$maven/varnix-$version.jar")
elif [ -e "$prefix/share/java" ]; then
  echo "installed without the Java binding: share/java"; exit 1
fi
for f in "${expected[@]}"; do
  [ -e "$prefix/$f" ] || { echo "not installed (or a dangling link): $f"; exit 1; }
done
if [ "$java" = 1 ]; then
  grep -q "<artifactId>varnix</artifactId>" "$prefix/$maven/varnix-$version.pom" &&
    grep -q "<version>$version</version>" "$prefix/$maven/varnix-$version.pom" || { echo "pom: wrong coordinates"; exit 1; }
fi
soname="$(objdump -p "$prefix/$libdir/libvarnix.so" | awk '$1 == "SONAME" {print $2}')"
[ "$soname" = libvarnix.so.1 ] || { echo "SONAME is '$soname'"; exit 1; }
# Only the agent is a program of the product; tests, tools and the kit stay in the build tree.
shopt -s nullglob
for f in "$prefix"/bin/* "$prefix/$libdir"/*.a; do
  if [ "$(basename "$f")" != varnix-agent ]; then echo "installed but internal: $f"; exit 1; fi
done

unit="$prefix/lib/systemd/system/varnix-agent.service"
systemd-analyze security --offline=true --threshold=40 --no-pager "$unit" | tail -1
complaints="$(systemd-analyze verify --man=no "$unit" 2>&1)"
[ -z "$complaints" ] || { echo "$complaints"; exit 1; }

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
modversion="$(pkg-config --modversion varnix)"
# shellcheck disable=SC2046,SC2086
"$cc" $cflags -o "$work/by_pkg_config" "$here/consumer.c" $(pkg-config --cflags --libs varnix) \
  -Wl,-rpath,"$(pkg-config --variable=libdir varnix)"
[ "$("$work/by_pkg_config")" = "libvarnix $modversion" ] || { echo "by pkg-config: not version $modversion"; exit 1; }

cmake -S "$here" -B "$work/by_find_package" -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/by_find_package" >/dev/null
[ "$("$work/by_find_package/consumer")" = "libvarnix $modversion" ] || { echo "by find_package: not $modversion"; exit 1; }
echo "installed libvarnix $modversion: both consumers built and ran"
