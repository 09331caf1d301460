#!/bin/sh
# Run by CTest, as root: the amd64 packages as a user gets them. In a copy of
# the clean Debian 12 root (scripts/setup-debian-root.sh), apt installs them
# from their files and resolves what they depend on from the root's cache
# (with no network: nothing is downloaded here); then, inside the root, the outside consumers
# (pkg-config and find_package) and the Echo module, loaded by orv-demo, are
# built against the installed packages and run.
#   clean_root.sh ROOT PACKAGES SOURCE WORK
set -eu
base=$1 packages=$2 source=$3 work=$4
fail() { echo "FAIL: $*"; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root (chroot)"
[ -f "$base/.orv-root" ] || skip "no Debian 12 root in $base: run scripts/setup-debian-root.sh"
rt=$(ls "$packages"/liborv1_*_amd64.deb 2>/dev/null) && dev=$(ls "$packages"/liborv-dev_*_amd64.deb) ||
  skip "no amd64 packages: run scripts/package.sh"

rm -rf --one-file-system "$work"
trap 'rm -rf --one-file-system "$work"' EXIT
cp -a "$base" "$work"
mkdir "$work/orv"
cp "$rt" "$dev" "$work/orv/"
cp -r "$source/tests/install" "$source/examples" "$work/orv/"
in_root() { chroot "$work" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"; }
# apt in a network namespace of its own: it can take nothing but the cache.
install() { unshare --net chroot "$work" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
  apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends "$@"; }

install "/orv/${rt##*/}" "/orv/${dev##*/}"
# Everything the library loads came with it.
in_root ldd /usr/lib/x86_64-linux-gnu/liborv.so.1 > "$work/ldd"
! grep "not found" "$work/ldd" || fail "liborv.so.1 misses libraries on a clean system"
tools=$(sed 's/^[^:]*: //' "$base/.orv-root")
install $tools
[ "$(in_root dpkg-query -W -f '${Version}' liborv1)" = "$(in_root pkg-config --modversion orv)" ] ||
  fail "the package's version is not orv.pc's"

in_root sh -c 'g++ -std=c++17 -I/orv -DORV_DEMO_MODULE_DIR=\"/orv/modules/\" \
  -DORV_DEMO_SERVER_SCRIPT=\"/orv/examples/service/speech_service.py\" /orv/examples/host/orv_demo.cpp \
  $(pkg-config --cflags --libs orv libcurl libcrypto) -o /orv/orv-demo'
in_root cmake -DORV_PREFIX=/usr -DORV_SOURCE_DIR=/orv -DORV_CONSUMER_SOURCE=/orv/install/consumer \
  -DORV_WORK_DIR=/tmp/consumers -DORV_CXX=g++ -DORV_DEMO=/orv/orv-demo -DORV_NM=nm -P /orv/install/check_install.cmake
