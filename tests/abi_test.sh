#!/bin/sh
# The library's binary interface against the one it was first released with (abi/<SONAME>.abi, written
# by abidw; the Qt 5 and the Qt 6 library each have their own): any change to what callers are linked
# against fails; added symbols are allowed and listed.
#   abi_test.sh SOURCE_DIR LIBRARY
set -eu
source_dir=$1 library=$2
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
baseline=$source_dir/abi/$soname.abi
[ -f "$baseline" ] || { echo "FAIL: no baseline $baseline for $library" >&2; exit 1; }
status=0
abidiff --no-added-syms --headers-dir2 "$source_dir/rfSystemInfo" "$baseline" "$library" || status=$?
[ "$status" -eq 0 ] ||
    { echo "FAIL: the binary interface differs from $soname as released (abidiff exit $status)" >&2; exit 1; }
added=$(abidiff --headers-dir2 "$source_dir/rfSystemInfo" "$baseline" "$library" | sed -n '/Added function/,$p' || true)
[ -z "$added" ] || printf 'symbols added since 1.0.0 (allowed):\n%s\n' "$added"
echo "ok: $soname keeps the binary interface it was released with"
