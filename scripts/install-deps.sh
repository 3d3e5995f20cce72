#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests, the fuzzers and the
# benchmarks need; installs only what is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev binutils pkgconf
  libgtest-dev libbenchmark-dev
  lzma-dev liblz4-dev xz-utils
  librabbitmq-dev rabbitmq-server openssl libzmq3-dev
  libcli11-dev nlohmann-json3-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
