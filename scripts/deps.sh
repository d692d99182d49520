#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing;
# further packages may be named as arguments.
set -euo pipefail

packages=(cmake make g++ binutils libgtest-dev pkg-config nlohmann-json3-dev openjdk-17-jdk-headless junit5 systemd
  protobuf-compiler libprotobuf-dev libcurl4-openssl-dev "$@")
# The tests' OTLP receiver runs on Node.js with npm: Debian's, unless a Node.js is installed already.
command -v node >/dev/null && command -v npm >/dev/null || packages+=(nodejs npm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
