#!/usr/bin/env bash
# Prepares cross builds of orv for 32-bit ARM hard-float (arm-linux-gnueabihf)
# on a Debian 12 host, and test runs under qemu user-mode emulation:
#   - host tools: the cross toolchain and qemu-arm-static, through
#     scripts/install-deps.sh armhf;
#   - a sysroot, build/sysroot-armhf: Debian's armhf builds of the C/C++
#     runtime and of the libraries orv and its tests use, with every package
#     they depend on, unpacked with dpkg-deb -x, and a dpkg database of them
#     in the sysroot's var/lib/dpkg (their control, shlibs and symbols files
#     and file lists), which the armhf package build reads to compute its
#     dependencies (scripts/package.sh).
# Nothing armhf is installed into the host. apt resolves and downloads the
# armhf packages with a private state, cache and source list under
# build/apt-armhf (the lists are still checked against the Debian archive
# keyring), so host packages are never added, removed or downgraded and the
# host's own apt lists do not change.
# Quick when the sysroot is already complete for the package list below.
#   ORV_ARMHF_SYSROOT   where to put the sysroot (default build/sysroot-armhf)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${ORV_ARMHF_SYSROOT:-$root/build/sysroot-armhf}
apt_dir=$root/build/apt-armhf

# The C/C++ runtime and the -dev packages; apt adds their dependencies.
packages=(
  libc6-dev libstdc++-12-dev libgcc-12-dev
  libcurl4-openssl-dev libssl-dev uuid-dev libcjson-dev
  libgtest-dev libgmock-dev
  libpocketsphinx-dev libespeak-ng-dev pocketsphinx-en-us
)
stamp_text="orv armhf sysroot 2: ${packages[*]}"

"$root/scripts/install-deps.sh" armhf

if [ -f "$sysroot/.orv-sysroot" ] && [ "$(cat "$sysroot/.orv-sysroot")" = "$stamp_text" ]; then
  exit 0
fi

echo "building the armhf sysroot in $sysroot"
mkdir -p "$apt_dir"/{state/lists/partial,cache/archives/partial,etc/sources.list.d,etc/preferences.d}
: > "$apt_dir/state/status"          # an empty dpkg database: nothing counts as installed
: > "$apt_dir/etc/sources.list"

# The host's Debian sources, without any architecture restriction.
if [ -f /etc/apt/sources.list.d/debian.sources ]; then
  grep -v '^Architectures:' /etc/apt/sources.list.d/debian.sources \
    > "$apt_dir/etc/sources.list.d/debian.sources"
else
  cat > "$apt_dir/etc/sources.list.d/debian.sources" <<'EOF'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg

Types: deb
URIs: http://deb.debian.org/debian-security
Suites: bookworm-security
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOF
fi

apt_opts=(
  -o APT::Architecture=armhf
  -o APT::Architectures::=armhf
  -o Dir::State="$apt_dir/state"
  -o Dir::State::status="$apt_dir/state/status"
  -o Dir::Cache="$apt_dir/cache"
  -o Dir::Etc::SourceList="$apt_dir/etc/sources.list"
  -o Dir::Etc::SourceParts="$apt_dir/etc/sources.list.d"
  -o Dir::Etc::Preferences="$apt_dir/etc/preferences"
  -o Dir::Etc::PreferencesParts="$apt_dir/etc/preferences.d"
  -o Debug::NoLocking=true
  -o APT::Install-Recommends=false
  -o APT::Install-Suggests=false
  -o Acquire::Languages=none
)

# A list that fails to download is reported and skipped: what the packages
# need comes from the main archive, and a missing package fails below.
if ! apt-get "${apt_opts[@]}" update -qq; then
  echo "warning: some armhf package lists could not be fetched; going on with the others" >&2
fi

archives=$apt_dir/cache/archives
rm -f "$archives"/*.deb
# With an empty package database apt downloads the whole dependency closure.
apt-get "${apt_opts[@]}" install --download-only -y -qq "${packages[@]}"

new=$sysroot.new
rm -rf "$new"
mkdir -p "$new"
admin=$new/var/lib/dpkg
mkdir -p "$admin/info"
: > "$admin/status"
count=0
for deb in "$archives"/*.deb; do
  dpkg-deb -x "$deb" "$new"
  # As dpkg names them: a Multi-Arch: same package's files carry its arch.
  name=$(dpkg-deb -f "$deb" Package)
  [ "$(dpkg-deb -f "$deb" Multi-Arch)" != same ] || name=$name:armhf
  rm -rf "$apt_dir/control" && dpkg-deb -e "$deb" "$apt_dir/control"
  for file in shlibs symbols; do
    [ ! -f "$apt_dir/control/$file" ] || cp "$apt_dir/control/$file" "$admin/info/$name.$file"
  done
  dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -e 's|^\./|/|' -e 's|/$||' -e '/^$/d' \
    > "$admin/info/$name.list"
  { cat "$apt_dir/control/control"; echo "Status: install ok installed"; echo; } >> "$admin/status"
  count=$((count + 1))
done
echo armhf > "$admin/arch"
echo 1 > "$admin/info/format"   # the multiarch layout: info/PACKAGE:ARCH.*
rm -f "$archives"/*.deb

# Absolute links would point into the host once the tree is used as a sysroot.
find "$new" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$new$target")" "$link"
done

# What the maintainer scripts would have chosen through the alternatives
# system: the reference BLAS and LAPACK (PocketSphinx's sphinxbase needs them).
for lib in blas/libblas.so.3 lapack/liblapack.so.3; do
  if [ -e "$new/usr/lib/arm-linux-gnueabihf/$lib" ]; then
    ln -sfn "$lib" "$new/usr/lib/arm-linux-gnueabihf/$(basename "$lib")"
  fi
done

echo "$stamp_text" > "$new/.orv-sysroot"
rm -rf "$sysroot"
mv "$new" "$sysroot"
echo "armhf sysroot ready: $count packages in $sysroot"
