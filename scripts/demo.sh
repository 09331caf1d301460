#!/usr/bin/env bash
# Builds orv with the default preset and runs orv-demo: the Echo sample
# module loaded from its shared library, 3 s of tone streamed through it to
# the loopback stand-in of the speech service, an access token and the device
# identity, with a timeline of every step.
#   scripts/demo.sh [orv-demo options]     (scripts/demo.sh --help lists them)
# Installs missing Debian packages first. Run as root (or with sudo).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target orv-demo
exec build/default/bin/orv-demo "$@"
