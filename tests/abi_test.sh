#!/bin/sh
# The library's binary interface against the one released with 1.0.0 (abi/librfSystemInfo.so.1.abi,
# written by abidw): any change to what callers are linked against fails; added symbols are allowed
# and listed.
#   abi_test.sh SOURCE_DIR LIBRARY
set -eu
source_dir=$1 library=$2
baseline=$source_dir/abi/librfSystemInfo.so.1.abi
status=0
abidiff --no-added-syms --headers-dir2 "$source_dir/rfSystemInfo" "$baseline" "$library" || status=$?
[ "$status" -eq 0 ] ||
    { echo "FAIL: the binary interface differs from librfSystemInfo.so.1 as released (abidiff exit $status)" >&2; exit 1; }
added=$(abidiff --headers-dir2 "$source_dir/rfSystemInfo" "$baseline" "$library" | sed -n '/Added function/,$p' || true)
[ -z "$added" ] || printf 'symbols added since 1.0.0 (allowed):\n%s\n' "$added"
echo "ok: librfSystemInfo.so.1 keeps the binary interface it was released with"
