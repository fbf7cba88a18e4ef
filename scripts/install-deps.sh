#!/usr/bin/env bash
# Installs the Debian packages the build needs, and only those that are missing.
# Idempotent: a machine that has everything runs no apt-get at all.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libtbb-dev libopencv-dev libopencv-contrib-dev zlib1g-dev
  libmagick++-dev liblcms2-dev fonts-dejavu-core
  libgtest-dev libgmock-dev libbenchmark-dev
)
# Fuzzing needs clang and its libFuzzer runtime; only `make fuzz` asks for them.
if [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
