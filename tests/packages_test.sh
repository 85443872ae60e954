#!/bin/sh
# Builds the Debian packages and checks what each one holds.
#   packages_test.sh BUILD_DIR
set -eu
build_dir=$1
out=$build_dir/packages-test
rm -rf "$out"
cpack --config "$build_dir/CPackConfig.cmake" -B "$out" >/dev/null

contains() {
    package=$(ls "$out"/"$1"_*.deb)
    listing=$(dpkg-deb --contents "$package")
    case "$listing" in
    *"$2"*) ;;
    *) echo "FAIL: $package lacks $2" >&2; exit 1 ;;
    esac
}
contains librfsysteminfo1 "./usr/lib/librfSystemInfo.so.1.0.0"
contains librfsysteminfo1 "./usr/lib/librfSystemInfo.so.1 -> "
contains librfsysteminfo1 "./usr/lib/librfPlatformStandins.so.1.0.0"
contains librfsysteminfo-dev "./usr/include/rfSystemInfo/rfSystem_Info.h"
contains librfsysteminfo-dev "./usr/lib/cmake/rfSystemInfo/rfSystemInfoConfigVersion.cmake"
contains librfsysteminfo-dev "./usr/lib/pkgconfig/rfSystemInfo.pc"
contains rfsysinfo "./usr/bin/rfsysinfo"
contains rfsysinfo "./usr/lib/systemd/system/rfsysinfo-metrics.timer"
contains rfsysinfo "./usr/share/man/man1/rfsysinfo.1"
contains rfsysinfo "./usr/share/bash-completion/completions/rfsysinfo"
contains rfsysinfo "./usr/share/doc/rfsysinfo/prometheus/rfsysinfo-rules.yml"
case "$(dpkg-deb --field "$(ls "$out"/rfsysinfo_*.deb)" Depends)" in
*librfsysteminfo1*) ;;
*) echo "FAIL: rfsysinfo does not depend on the library package" >&2; exit 1 ;;
esac
for package in "$out"/*.deb; do
    echo "$(basename "$package"): $(dpkg-deb --field "$package" Depends)"
done
