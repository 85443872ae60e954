#!/bin/sh
# Installs the build into a staging prefix, builds a small caller against it through the CMake
# package and through pkg-config, and runs both on the sample device inside a device root.
#   install_test.sh SOURCE_DIR BUILD_DIR
set -eu
source_dir=$1
build_dir=$2
work=$build_dir/install-test
expected="C KV721 2.1/1.0/3.0"

rm -rf "$work"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

cmake -S "$source_dir/tests/install" -B "$work/cmake-caller" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-caller" >/dev/null

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
mkdir -p "$work/pkgconfig-caller"
# shellcheck disable=SC2046
c++ -std=c++17 -fPIC "$source_dir/tests/install/caller.cpp" -o "$work/pkgconfig-caller/caller" \
    $(pkg-config --cflags --libs rfSystemInfo) -Wl,-rpath,"$(pkg-config --variable=libdir rfSystemInfo)"

status=0
for caller in "$work/cmake-caller/caller" "$work/pkgconfig-caller/caller"; do
    output=$("$build_dir/deviceroot/rfsi-device-root" --tree "$source_dir/examples/device" --show "$work" -- "$caller")
    if [ "$output" = "$expected" ]; then
        echo "ok: $caller"
    else
        echo "FAIL: $caller printed '$output', expected '$expected'" >&2
        status=1
    fi
done
exit $status
