#!/usr/bin/env bash
# Builds orv with a CMake preset and runs its whole test suite.
#   scripts/test.sh            the default preset (RelWithDebInfo)
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer
#   scripts/test.sh clang      built with clang++
# Installs missing Debian packages first.
set -euo pipefail

preset=${1:-default}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
jobs=$(nproc)
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$jobs"
ctest --preset "$preset" -j "$jobs"
