#!/usr/bin/env bash
# Builds orv with the default preset and runs orv-assistant: the Wakeup, Asr
# and Tts speech modules loaded from their shared libraries, a synthesised
# "listen robot, turn on the kitchen light" fed in real time, recognition
# against the embedded speech service from the wake-up point on, and the
# reply spoken into reply.wav, with a timeline of every step and the figures.
#   scripts/demo.sh [orv-assistant options]   (scripts/demo.sh --help lists them)
# The smallest example, orv-demo (the Echo module), is built alongside:
# build/default/bin/orv-demo.
# Installs missing Debian packages first. Run as root (or with sudo).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target orv-assistant orv-demo
exec build/default/bin/orv-assistant "$@"
