#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
#   scripts/deps.sh          the default and asan builds (gobgpd: the BGP speakers of the live
#                            path's lab and test)
#   scripts/deps.sh fuzz     and clang with libFuzzer, for the fuzz preset
set -euo pipefail
packages=(cmake ninja-build g++ clang-format libgtest-dev libgmock-dev libbenchmark-dev libyaml-cpp-dev graphviz
          nlohmann-json3-dev gobgpd)
if [ "${1:-}" = fuzz ]; then
  # libFuzzer ships with clang's runtime libraries (libclang_rt.fuzzer), in a package of their
  # own: that of Debian 12's clang, 14.
  packages+=(clang libclang-rt-14-dev)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -q "${missing[@]}"
fi
