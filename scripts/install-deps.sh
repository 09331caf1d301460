#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking orv
# need. Quick when everything is there: apt-get update runs only when a
# package is missing. Run as root (or with sudo).
#   scripts/install-deps.sh          the native build
#   scripts/install-deps.sh armhf    also the 32-bit ARM cross toolchain and
#                                    qemu user-mode emulation (host packages;
#                                    the armhf libraries go into a sysroot,
#                                    see scripts/setup-armhf.sh)
#   scripts/install-deps.sh bench    also the peers the benchmarks compare
#                                    against (Boost.Asio, POCO, spdlog) and
#                                    gnuplot for the latency plot
#   scripts/install-deps.sh packaging  also what building and checking the
#                                    Debian packages needs (debhelper,
#                                    lintian, libabigail's tools, debootstrap)
# Profiles combine: scripts/install-deps.sh armhf packaging
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang libclang-rt-14-dev python3 openssl
  libcurl4-openssl-dev libssl-dev uuid-dev libcjson-dev
  libgtest-dev libgmock-dev libbenchmark-dev doxygen valgrind
  libpocketsphinx-dev pocketsphinx-en-us python3-pocketsphinx libespeak-ng-dev espeak-ng sox
)
for profile in "$@"; do
  case $profile in
    armhf) packages+=(crossbuild-essential-armhf qemu-user-static) ;;
    bench) packages+=(libboost-dev libpoco-dev libspdlog-dev gnuplot-nox) ;;
    packaging) packages+=(dpkg-dev debhelper lintian abigail-tools debootstrap) ;;
    *) echo "unknown profile: $profile" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
  "${missing[@]}"
