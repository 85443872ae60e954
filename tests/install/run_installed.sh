#!/bin/sh
# Runs what is installed on the sample device, inside a device root: rfsysinfo --version, and a caller
# built against the installed development files through the CMake package and through pkg-config.
#   run_installed.sh SOURCE_DIR BUILD_DIR WORK_DIR [PREFIX]      without PREFIX: installed in /usr
set -eu
source_dir=$1 build_dir=$2 work=$3 prefix=${4:-}
expected=$(cat "$source_dir/tests/install/caller.expected")
# The version the packages are released as is the version the tool reports.
version=$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)

if [ -n "$prefix" ]; then
    tool=$prefix/bin/rfsysinfo
    set -- -DCMAKE_PREFIX_PATH="$prefix"
    export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
else
    tool=/usr/bin/rfsysinfo
    set --
fi
mkdir -p "$work"
cmake -S "$source_dir/tests/install" -B "$work/cmake-caller" -G Ninja "$@" >/dev/null
cmake --build "$work/cmake-caller" >/dev/null
# The README's line; a caller of a prefix outside the system's folders names the library's folder in
# its run path.
mkdir -p "$work/pkgconfig-caller"
cp "$source_dir/tests/install/caller.cpp" "$work/pkgconfig-caller/"
# shellcheck disable=SC2046
(cd "$work/pkgconfig-caller" && c++ -std=c++17 -fPIC caller.cpp -o caller $(pkg-config --cflags --libs rfSystemInfo) \
    ${prefix:+-Wl,-rpath,"$(pkg-config --variable=libdir rfSystemInfo)"})

in_device_root() {
    "$build_dir/deviceroot/rfsi-device-root" --tree "$source_dir/examples/device" --show "$work" ${prefix:+--show "$prefix"} \
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
for caller in "$work/cmake-caller/caller" "$work/pkgconfig-caller/caller"; do
    check "$caller" "$(in_device_root "$caller")" "$expected"
done
exit $status
