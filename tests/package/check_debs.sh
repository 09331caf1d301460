#!/bin/sh
# Run by CTest: the packages of one architecture as dpkg-deb shows them: the
# architecture, one version everywhere, the computed dependencies, the
# contents. Given an armhf sysroot, also unpacks them and builds the outside
# consumers against them, run under qemu.
#   check_debs.sh ARCH PACKAGES SOURCE WORK [SYSROOT]
set -eu
arch=$1 packages=$2 source=$3 work=$4 sysroot=${5:-}
fail() { echo "FAIL: $*"; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
rt=$(ls "$packages"/liborv1_*_"$arch".deb 2>/dev/null) && dev=$(ls "$packages"/liborv-dev_*_"$arch".deb) ||
  skip "no $arch packages: run scripts/package.sh $arch"
ma=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
version=$(dpkg-deb --fsys-tarfile "$dev" | tar -xOf - "./usr/lib/$ma/pkgconfig/orv.pc" | sed -n 's/^Version: //p')
major=${version%%.*}
rm -rf "$work"
mkdir -p "$work/root"

# want DEB REGEX...: each matches a line of the package's fields or file list
want() {
  deb=$1
  shift
  { dpkg-deb -f "$deb"; dpkg-deb -c "$deb" | awk '{ print $6 ($7 ? " " $7 " " $8 : "") }'; } > "$work/lines"
  for regex; do
    grep -Eq -- "$regex" "$work/lines" || fail "${deb##*/}: nothing matches $regex"
  done
}
for deb in "$rt" "$dev"; do
  want "$deb" "^Architecture: $arch$" "^Version: $version$" \
    "^\./usr/share/doc/liborv(1|-dev)/copyright$" "^\./usr/share/doc/liborv(1|-dev)/changelog\.gz$"
done
for lib in libc6 'libstdc\+\+6' libgcc-s1 libcurl4 libuuid1 libcjson1; do
  want "$rt" "^Depends: (.*, )?$lib \(>= [^)]+\)(,|$)"
done
want "$rt" "^\./usr/lib/$ma/liborv\.so\.$version$" "^\./usr/lib/$ma/liborv\.so\.$major -> liborv\.so\.$version$"
want "$dev" "^Depends: liborv1 \(= $version\), libcjson-dev, pkg-config$" \
  "^\./usr/lib/$ma/liborv\.so -> liborv\.so\.$major$" "^\./usr/include/orv/(orv|version)\.h$" \
  "^\./usr/lib/$ma/cmake/orv/orvConfigVersion\.cmake$"
[ -n "$sysroot" ] || exit 0

[ -f "$sysroot/.orv-sysroot" ] && command -v arm-linux-gnueabihf-g++ >/dev/null ||
  skip "no armhf sysroot or cross compiler: run scripts/setup-armhf.sh"
dpkg-deb -x "$rt" "$work/root"
dpkg-deb -x "$dev" "$work/root"
cmake -DREADELF=arm-linux-gnueabihf-readelf -DLIBRARY="$work/root/usr/lib/$ma/liborv.so.$version" \
  -P "$source/tests/abi/check_hard_float.cmake"
cmake -DORV_PREFIX="$work/root/usr" -DORV_CONSUMER_SOURCE="$source/tests/install/consumer" \
  -DORV_WORK_DIR="$work/consumers" -DORV_CXX=arm-linux-gnueabihf-g++ \
  -DORV_TOOLCHAIN="$source/cmake/toolchain-armhf.cmake" -DORV_SYSROOT="$sysroot" \
  "-DORV_EMULATOR=$(command -v qemu-arm-static) -L $sysroot" -P "$source/tests/install/check_install.cmake"
