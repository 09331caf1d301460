#!/usr/bin/env bash
# The ABI guard of liborv: compares the exported binary interface of the
# library that scripts/package.sh built (build/package-ARCH, with debug info)
# with its record in abi/liborv-ARCH.abi, made by libabigail's abidw.
#   scripts/abi.sh [check] [ARCH...]   compare (default: amd64 armhf). Fails on
#                                      a change that breaks binary
#                                      compatibility (a removed or changed
#                                      exported function or variable, a changed
#                                      class layout or virtual table) unless
#                                      the SONAME changed with it; additions
#                                      pass and are listed.
#   scripts/abi.sh update [ARCH...]    build the packages anew and rewrite the
#                                      records from them: after an intended
#                                      addition, or with a new SONAME.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
mode=check
case ${1:-} in check | update) mode=$1; shift ;; esac
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(amd64 armhf)
"$root/scripts/install-deps.sh" packaging
mkdir -p "$root/build/abi"

soname() { sed -n "1s/.* soname='\([^']*\)'.*/\1/p" "$1"; }

for arch in "${arches[@]}"; do
  src=$root/build/package-$arch/src
  record=$root/abi/liborv-$arch.abi
  current=$root/build/abi/liborv-$arch.abi
  [ "$mode" = check ] || "$root/scripts/package.sh" "$arch"
  if [ ! -e "$src/_build/core/liborv.so" ]; then
    echo "no package build for $arch: run scripts/package.sh $arch first" >&2
    exit 1
  fi
  # Only what the installed headers declare counts: types of theirs that
  # the exported functions and variables reach. Type ids are hashes, so a
  # new record differs from the old one where the interface does.
  abidw --exported-interfaces-only --drop-private-types \
    --headers-dir "$src/debian/tmp/usr/include/orv" --type-id-style hash \
    --no-corpus-path --no-comp-dir-path \
    --out-file "$current" "$(readlink -f "$src/_build/core/liborv.so")"
  if [ "$mode" = update ]; then
    cp "$current" "$record"
    echo "abi/liborv-$arch.abi: the interface of $(soname "$record") recorded"
    continue
  fi

  # abidiff's status is a bit set: 1 and 2 its own errors, 4 a change, 8 a
  # change known to be incompatible. Without the additions, any change
  # breaks binary compatibility (a changed layout is "only" a change).
  compare=(abidiff --suppressions "$root/abi/liborv.suppr" "$record" "$current")
  status=0
  "${compare[@]}" --no-added-syms > "$root/build/abi/$arch.diff" || status=$?
  [ "$status" -eq 0 ] || cat "$root/build/abi/$arch.diff"
  if [ $((status & 3)) -ne 0 ]; then
    echo "abidiff failed ($status) on $arch" >&2
    exit 1
  elif [ "$status" -ne 0 ] && [ "$(soname "$record")" = "$(soname "$current")" ]; then
    echo "ABI of $(soname "$current") ($arch) broken: see above" >&2
    exit 1
  elif [ "$status" -ne 0 ]; then
    echo "ABI of $arch changed with the SONAME ($(soname "$record") -> $(soname "$current")):" \
      "record it with scripts/abi.sh update"
    continue
  fi
  status=0
  "${compare[@]}" > "$root/build/abi/$arch.diff" || status=$?
  if [ "$status" -eq 0 ]; then
    echo "ABI of $(soname "$current") ($arch): same as abi/liborv-$arch.abi"
  elif [ "$status" -eq 4 ]; then
    cat "$root/build/abi/$arch.diff"
    echo "ABI of $(soname "$current") ($arch): additions only, compatible" \
      "(to record them: scripts/abi.sh update)"
  else
    echo "abidiff failed ($status) on $arch" >&2
    exit 1
  fi
done
