#!/usr/bin/env bash
# Builds the Debian binary packages of orv and checks them with lintian:
#   liborv1         the shared library and its SONAME link
#   liborv-dev      headers, the liborv.so link, orv.pc, the CMake package
#   liborv1-dbgsym  the library's debug info
#   scripts/package.sh          for the host (amd64)
#   scripts/package.sh armhf    for 32-bit ARM hard-float, cross-built against
#                               the armhf sysroot (scripts/setup-armhf.sh)
# The packages land in build/packages/. The build runs with debhelper in a
# copy of the sources, build/package-<arch>/src, so the tree itself stays
# clean; its debian/changelog is written here from the one project version
# (project(orv VERSION ...) in CMakeLists.txt). Installs missing Debian
# packages first.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:-$(dpkg --print-architecture)}
work=$root/build/package-$arch
src=$work/src
out=$root/build/packages

if [ "$arch" = armhf ]; then
  "$root/scripts/setup-armhf.sh"
elif [ "$arch" != "$(dpkg --print-architecture)" ]; then
  echo "usage: scripts/package.sh [armhf]" >&2
  exit 2
fi
"$root/scripts/install-deps.sh" packaging

version=$(sed -n 's/^project(orv VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
[ -n "$version" ] || { echo "no project version in CMakeLists.txt" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$src" "$out"
tar -C "$root" --anchored --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -xf -

# A native package: the package version is the library's version. The date
# is the last commit's, so that two builds of one commit are alike.
commit=$(git -C "$root" log -1 --format='%h %cD' 2>/dev/null || true)
date=${commit#* }
[ -n "$commit" ] || date=$(date -R)
cat > "$src/debian/changelog" <<EOF
orv ($version) stable; urgency=medium

  * liborv $version${commit:+, built from the tree at commit ${commit%% *}}.

 -- orv maintainers <orv@orv-speech.example>  $date
EOF

# The test suite runs from the source tree, not in the package build.
export DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)"
build=(dpkg-buildpackage -b -uc -us -d)
if [ "$arch" = armhf ]; then
  build+=(-aarmhf -Pcross,nocheck)
  export CC=arm-linux-gnueabihf-gcc CXX=arm-linux-gnueabihf-g++
  export ORV_ARMHF_SYSROOT=${ORV_ARMHF_SYSROOT:-$root/build/sysroot-armhf}
  # The sysroot's dpkg database, with file lists naming the paths under the
  # sysroot (see override_dh_shlibdeps in debian/rules).
  export ORV_SHLIBDEPS_ADMINDIR=$work/dpkg
  mkdir -p "$ORV_SHLIBDEPS_ADMINDIR/info"
  cp "$ORV_ARMHF_SYSROOT"/var/lib/dpkg/{status,arch} "$ORV_SHLIBDEPS_ADMINDIR/"
  for list in "$ORV_ARMHF_SYSROOT"/var/lib/dpkg/info/*.list; do
    sed "s|^|$ORV_ARMHF_SYSROOT|" "$list" > "$ORV_SHLIBDEPS_ADMINDIR/info/${list##*/}"
  done
  cp "$ORV_ARMHF_SYSROOT"/var/lib/dpkg/info/{format,*.shlibs,*.symbols} "$ORV_SHLIBDEPS_ADMINDIR/info/"
fi
(cd "$src" && "${build[@]}")

rm -f "$out"/*_"$arch".deb
mv "$work"/*_"$arch".deb "$out/"
lintian --fail-on error,warning "$out"/*_"$version"_"$arch".deb
echo "packages of orv $version for $arch in $out:"
ls -1 "$out"/*_"$version"_"$arch".deb
