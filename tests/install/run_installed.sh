#!/bin/sh
# Runs what is installed on the sample device, inside a device root: rfsysinfo --version, and a caller
# built against the installed development files of each PACKAGE (rfSystemInfo, rfSystemInfo-qt6; by
# default the one BUILD_DIR makes) through the CMake package and through pkg-config.
#   run_installed.sh SOURCE_DIR BUILD_DIR WORK_DIR [PREFIX [PACKAGE...]]      PREFIX "": installed in /usr
set -eu
source_dir=$1 build_dir=$2 work=$3 prefix=${4:-}
shift $(($# < 4 ? $# : 4))
qt=$(sed -n 's/^RFSI_QT_MAJOR_VERSION:STRING=//p' "$build_dir/CMakeCache.txt")
packages=${*:-rfSystemInfo$([ "$qt" != 6 ] || echo -qt6)}
expected=$(cat "$source_dir/tests/install/caller.expected")
# The version the packages are released as is the version the tool reports.
version=$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)

tool=${prefix:-/usr}/bin/rfsysinfo
[ -z "$prefix" ] || export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
callers=""
for package in $packages; do
    caller=$work/$package
    cmake -S "$source_dir/tests/install" -B "$caller/cmake" -G Ninja ${prefix:+-DCMAKE_PREFIX_PATH="$prefix"} \
        -DRFSYSTEMINFO_PACKAGE="$package" >/dev/null
    cmake --build "$caller/cmake" >/dev/null
    # The README's line; a caller of a prefix outside the system's folders names the library's folder
    # in its run path.
    mkdir -p "$caller/pkgconfig"
    cp "$source_dir/tests/install/caller.cpp" "$caller/pkgconfig/"
    # shellcheck disable=SC2046
    (cd "$caller/pkgconfig" && c++ -std=c++17 -fPIC caller.cpp -o caller $(pkg-config --cflags --libs "$package") \
        ${prefix:+-Wl,-rpath,"$(pkg-config --variable=libdir "$package")"})
    callers="$callers $caller/cmake/caller $caller/pkgconfig/caller"
done

in_device_root() {
    "$build_dir/tools/rfsi-device-root/rfsi-device-root" --tree "$source_dir/examples/device" --show "$work" ${prefix:+--show "$prefix"} \
        -- "$@"
}
status=0
check() {
    if [ "$2" = "$3" ]; then
        echo "ok: $1"
    else
        echo "FAIL: $1 printed '$2', expected '$3'" >&2
        status=1
    fi
}
check "$tool --version" "$(in_device_root "$tool" --version)" "rfsysinfo $version"
for caller in $callers; do
    check "$caller" "$(in_device_root "$caller")" "$expected"
    # Each caller runs on the library of its own Qt, and on no other.
    qt=$(ldd "$caller" | grep -o 'libQt[56]Core' | sort -u | tr '\n' ' ')
    case $caller in */rfSystemInfo-qt6/*) want="libQt6Core " ;; *) want="libQt5Core " ;; esac
    check "$caller's Qt" "$qt" "$want"
done
exit $status
