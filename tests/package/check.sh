#!/usr/bin/env bash
# check.sh BUILD_DIR WORK_DIR C_COMPILER LIBDIR [CFLAGS]: installs the build
# into WORK_DIR/prefix, checks what is in place, then builds the consumer
# against that tree once with pkg-config and once with find_package(varnix)
# and runs both.  CFLAGS carries the build's sanitizer flags.  Exit 77 (a
# skip) when pkg-config is not installed.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$1" work="$2" cc="$3" libdir="$4" cflags="${5:-}"
command -v pkg-config >/dev/null || { echo "pkg-config is not installed"; exit 77; }
prefix="$work/prefix"
rm -rf "$work"
cmake --install "$build" --prefix "$prefix" >/dev/null

for f in include/varnix.h include/varnix_collector.h "$libdir/libvarnix.so.1" "$libdir/pkgconfig/varnix.pc" \
    "$libdir/cmake/varnix/varnixConfig.cmake" etc/varnix/varnix.cfg lib/systemd/system/varnix-agent.service; do
  [ -e "$prefix/$f" ] || { echo "not installed: $f"; exit 1; }
done
soname="$(objdump -p "$prefix/$libdir/libvarnix.so" | awk '$1 == "SONAME" {print $2}')"
[ "$soname" = libvarnix.so.1 ] || { echo "SONAME is '$soname'"; exit 1; }
# Only the agent is a program of the product; tests, tools and the kit stay in the build tree.
shopt -s nullglob
for f in "$prefix"/bin/* "$prefix/$libdir"/*.a; do
  if [ "$(basename "$f")" != varnix-agent ]; then echo "installed but internal: $f"; exit 1; fi
done

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086
"$cc" $cflags -o "$work/by_pkg_config" "$here/consumer.c" $(pkg-config --cflags --libs varnix) \
  -Wl,-rpath,"$(pkg-config --variable=libdir varnix)"
"$work/by_pkg_config"

cmake -S "$here" -B "$work/by_find_package" -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/by_find_package" >/dev/null
"$work/by_find_package/consumer"
