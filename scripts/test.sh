#!/usr/bin/env bash
# Builds orv with a CMake preset and runs its whole test suite.
#   scripts/test.sh            the default preset (RelWithDebInfo)
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer
#   scripts/test.sh clang      built with clang++
#   scripts/test.sh armhf      cross-built for 32-bit ARM hard-float, tests
#                              run under qemu user-mode emulation
# Installs missing Debian packages first (for armhf: the cross toolchain,
# qemu and the armhf sysroot, through scripts/setup-armhf.sh).
set -euo pipefail

preset=${1:-default}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [ "$preset" = armhf ]; then
  scripts/setup-armhf.sh
else
  scripts/install-deps.sh
fi
jobs=$(nproc)
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$jobs"
ctest --preset "$preset" -j "$jobs"
