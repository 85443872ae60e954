#!/bin/sh
# piuparts, Debian's package installation tester, on this machine's packages (made by the test
# debian_packages in BUILD_DIR/debian-packages): installed, removed and purged together in a clean
# Debian 12 chroot, made with mmdebstrap from the machine's apt sources, with nothing left behind.
#   piuparts_test.sh BUILD_DIR
set -eu
build_dir=$(realpath "$1")
arch=$(dpkg --print-architecture)
packages=$build_dir/debian-packages
work=$build_dir/piuparts
sources=/etc/apt/sources.list.d/debian.sources
[ -f "$sources" ] || sources=/etc/apt/sources.list
set -- "$packages"/librfsysteminfo1_*_"$arch".deb "$packages"/librfsysteminfo-dev_*_"$arch".deb \
    "$packages"/librfsysteminfo-qt6-1_*_"$arch".deb "$packages"/librfsysteminfo-qt6-dev_*_"$arch".deb \
    "$packages"/rfsysinfo_*_"$arch".deb
for deb in "$@"; do
    [ -f "$deb" ] || { echo "FAIL: no $deb (the test debian_packages makes it)" >&2; exit 1; }
done
rm -rf "$work" && mkdir -p "$work"
mmdebstrap --variant=minbase bookworm "$work/bookworm.tar.gz" "$sources" >"$work/mmdebstrap.log" 2>&1 ||
    { tail -20 "$work/mmdebstrap.log"; echo "FAIL: cannot make the chroot" >&2; exit 1; }
# The chroot keeps the sources mmdebstrap gave it: the machine's.
status=0
piuparts --basetgz "$work/bookworm.tar.gz" --distribution bookworm --keep-sources-list \
    --log-file "$work/piuparts.log" "$@" >/dev/null 2>&1 || status=$?
grep -E '(INFO|ERROR|FAIL): ' "$work/piuparts.log" | grep -vE 'converted to .* by /usr merge|INFO: (-{10}|To quickly|FAQ|The FAQ|Running on|Command line)' |
    sed 's/^ *[0-9hms.]* //'
[ "$status" -eq 0 ] || { echo "FAIL: piuparts (log: $work/piuparts.log)" >&2; exit 1; }
