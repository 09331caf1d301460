#!/usr/bin/env bash
# Prepares the clean Debian 12 root into which the package test
# (tests/package, label "package") installs the amd64 packages, as a user's
# machine would get them: build/debian12-root, made by debootstrap
# --variant=minbase, with its apt lists and, in its apt cache, every package
# the test installs there:
#   - the tools to build the consumers and the demo host (below);
#   - what the packages in build/packages depend on, when scripts/package.sh
#     has made them (run this again after it: that part is quick).
# Nothing is installed into the root here, and the test downloads nothing.
# Needs root and the network. A second run only adds what is missing.
#   ORV_DEBIAN_ROOT   where to put the root (default build/debian12-root)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
target=${ORV_DEBIAN_ROOT:-$root/build/debian12-root}
# Built against the packages by the test: the consumers with pkg-config and
# CMake, orv-demo (libcurl, OpenSSL) with its stand-in server (Python, openssl).
tools=(g++ make cmake pkg-config libcurl4-openssl-dev libssl-dev python3 openssl)
stamp_text="orv debian 12 root 1: ${tools[*]}"

"$root/scripts/install-deps.sh" packaging
in_root() { chroot "$target" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"; }
download() { in_root apt-get install --download-only -y -qq --no-install-recommends "$@"; }

if [ ! -f "$target/.orv-root" ] || [ "$(cat "$target/.orv-root")" != "$stamp_text" ]; then
  echo "making a Debian 12 root in $target"
  new=$target.new
  # --one-file-system: never into what a failed debootstrap left mounted.
  rm -rf --one-file-system "$target" "$new"
  # The host's Debian mirror when it names one, otherwise debootstrap's own.
  mirror=$(sed -n 's|^URIs: *\(.*/debian\)/*$|\1|p' /etc/apt/sources.list.d/debian.sources 2>/dev/null |
    head -n 1 || true)
  debootstrap --variant=minbase bookworm "$new" ${mirror:+"$mirror"}
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    # With the host's updates and security suites, as a user's system has them.
    rm -f "$new/etc/apt/sources.list"
    cp /etc/apt/sources.list.d/debian.sources "$new/etc/apt/sources.list.d/"
  fi
  cp -L /etc/resolv.conf "$new/etc/resolv.conf"
  # The test's installs need no crash safety.
  echo force-unsafe-io > "$new/etc/dpkg/dpkg.cfg.d/orv-unsafe-io"
  mv "$new" "$target"
  in_root apt-get update -qq
  download "${tools[@]}"
  echo "$stamp_text" > "$target/.orv-root"
fi

debs=("$root"/build/packages/liborv{1,-dev}_*_amd64.deb)
if [ -f "${debs[0]}" ] && [ -f "${debs[1]}" ]; then
  mkdir -p "$target/tmp/orv-packages"
  cp "${debs[@]}" "$target/tmp/orv-packages/"
  download "${debs[@]/#*\///tmp/orv-packages/}"
  rm -rf "$target/tmp/orv-packages"
fi
echo "Debian 12 root ready in $target"
