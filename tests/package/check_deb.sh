#!/usr/bin/env bash
# check_deb.sh DIR: checks the Debian packages scripts/package.sh built into
# DIR.  lintian reports no error and no warning (one accepted would be
# overridden in dist/debian/<package>.lintian-overrides, with the reason);
# every package holds exactly its files at the header's version; unpacked
# together, every link resolves, the JVM loads the Java class and its native
# library through the jni link, and systemd-analyze rates the agent's unit at
# most 4.0.
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
dir="$(cd "$1" && pwd)"
version="$(sed -n 's/^#define VARNIX_VERSION_\(MAJOR\|MINOR\|PATCH\) //p' "$here/../../include/varnix.h" | paste -sd.)"
ma="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
deb() { echo "$dir/$1_${version}_$(dpkg --print-architecture).deb"; }
passed=0 failed=0
check() {  # check NAME COMMAND...: one line per check, its output when it fails
  local name="$1" out
  shift
  if out="$("$@" 2>&1)"; then passed=$((passed + 1)); echo "ok: $name"
  else failed=$((failed + 1)); printf 'FAILED: %s\n%s\n' "$name" "$out"; fi
}

files_are() {  # files_are PACKAGE PATH...: the package's files and links, exactly, besides its copyright and changelog
  local pkg="$1"
  shift
  diff <(dpkg-deb -c "$(deb "$pkg")" | awk '$1 !~ /^d/ {sub(/^\.\//, "", $6); print $6}' | sort) \
       <(printf '%s\n' "$@" "usr/share/doc/$pkg/changelog.gz" "usr/share/doc/$pkg/copyright" | sort)
}

check "libvarnix1 files" files_are libvarnix1 "usr/lib/$ma/libvarnix.so.1" "usr/lib/$ma/libvarnix.so.$version"
check "libvarnix-dev files" files_are libvarnix-dev usr/include/varnix.h usr/include/varnix_collector.h \
  "usr/lib/$ma/libvarnix.so" "usr/lib/$ma/pkgconfig/varnix.pc" "usr/lib/$ma/cmake/varnix/varnixConfig.cmake" \
  "usr/lib/$ma/cmake/varnix/varnixConfigVersion.cmake" "usr/lib/$ma/cmake/varnix/varnixTargets.cmake" \
  "usr/lib/$ma/cmake/varnix/varnixTargets-none.cmake"
check "varnix-agent files" files_are varnix-agent usr/bin/varnix-agent etc/varnix/varnix.cfg \
  etc/logrotate.d/varnix-agent lib/systemd/system/varnix-agent.service usr/share/man/man1/varnix-agent.1.gz
maven="usr/share/maven-repo/com/tolvo/tran/varnix/$version"
check "libvarnix-java files" files_are libvarnix-java "usr/share/java/varnix-$version.jar" usr/share/java/varnix.jar \
  "$maven/varnix-$version.pom" "$maven/varnix-$version.jar" "usr/lib/$ma/jni/libvarnix.so"

versions() {
  for p in libvarnix1 libvarnix-dev varnix-agent libvarnix-java; do
    [ "$(dpkg-deb -f "$(deb $p)" Version)" = "$version" ] || { echo "$p is not $version"; return 1; }
  done
}
check "versions are the header's $version" versions
check "the agent's configuration and logrotate file are conffiles" \
  diff <(dpkg-deb -I "$(deb varnix-agent)" conffiles) <(printf '/etc/logrotate.d/varnix-agent\n/etc/varnix/varnix.cfg\n')
check "lintian: no error, no warning" \
  lintian --fail-on error,warning "$dir"/*_"$version"_*.deb

root="$(mktemp -d)"
trap 'rm -rf "$root"' EXIT
for f in "$dir"/*_"$version"_*.deb; do dpkg-deb -x "$f" "$root"; done
dangling() { (cd "$root" && find . -type l ! -exec test -e {} \; -print | grep .) && return 1 || return 0; }
check "every link resolves within the packages" dangling
pom_coordinates() {
  local pom="$root/$maven/varnix-$version.pom"
  grep -q "<groupId>com.tolvo.tran</groupId>" "$pom" && grep -q "<artifactId>varnix</artifactId>" "$pom" &&
    grep -q "<version>$version</version>" "$pom"
}
check "the pom's coordinates are its place in the Maven repository" pom_coordinates
cat >"$root/Load.java" <<'JAVA'
public class Load {
    public static void main(String[] args) throws Exception {
        Class.forName("com.tolvo.tran.api.TranApiAdapter");  // its static block loads libvarnix.so
        System.out.println("loaded");
    }
}
JAVA
check "the JVM loads the class and libvarnix.so through the jni link" \
  java -Djava.library.path="$root/usr/lib/$ma/jni" -cp "$root/$maven/varnix-$version.jar" "$root/Load.java"
unit="$root/lib/systemd/system/varnix-agent.service"
check "systemd-analyze: the unit's exposure is at most 4.0" \
  systemd-analyze security --offline=true --threshold=40 --no-pager "$unit"
systemd-analyze security --offline=true --no-pager "$unit" | tail -1
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
