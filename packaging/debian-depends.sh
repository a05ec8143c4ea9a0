#!/usr/bin/env bash
# Prints the Debian Depends line of the ELF files under a staged install:
#   debian-depends.sh STAGE SHLIBS
# SHLIBS holds the shlibs entries ("library version dependency") of the
# packages that provide the libraries, as dpkg-shlibdeps would find them in a
# package database; a cross build's sysroot has none, so this reads them from
# the file the sysroot's packages were listed into. Libraries the staged files
# provide themselves (libcsi) are no dependency.
set -euo pipefail
stage=$1
shlibs=$2
[ -r "$shlibs" ] || { echo "debian-depends.sh: no shlibs list at $shlibs" >&2; exit 1; }

elves=()
while IFS= read -r -d '' file; do
  [ "$(head -c4 "$file" | od -An -c | tr -d ' ')" = "177ELF" ] && elves+=("$file")
done < <(find "$stage" -type f -print0)
[ ${#elves[@]} -gt 0 ] || { echo "debian-depends.sh: no ELF file under $stage" >&2; exit 1; }

dynamic=$(for file in "${elves[@]}"; do readelf -d "$file"; done)
provided=$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' <<<"$dynamic")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort -u)

for soname in $needed; do
  grep -qxF "$soname" <<<"$provided" && continue
  # As dpkg names them: libfoo.so.1.2 is "libfoo 1.2", libfoo-1.2.so is "libfoo 1.2".
  case "$soname" in
    *.so.*) name=${soname%%.so.*} version=${soname#*.so.} ;;
    *-[0-9]*.so) base=${soname%.so} name=${base%-*} version=${base##*-} ;;
    *) echo "debian-depends.sh: $soname has no version to look up" >&2; exit 1 ;;
  esac
  entry=$(awk -v n="$name" -v v="$version" \
    '$1 == n && $2 == v { $1 = ""; $2 = ""; sub(/^ +/, ""); print; exit }' "$shlibs")
  [ -n "$entry" ] || { echo "debian-depends.sh: no package in $shlibs provides $soname" >&2; exit 1; }
  echo "$entry"
done | sort -u | paste -sd, - | sed 's/,/, /g'
