#!/bin/sh
# Installs the build into a staging prefix (outside the system's folders, so programs find the
# library through their run paths) and runs what it installed.
#   install_test.sh SOURCE_DIR BUILD_DIR
set -eu
source_dir=$1 build_dir=$2
work=$build_dir/install-test

rm -rf "$work"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
exec "$source_dir/tests/install/run_installed.sh" "$source_dir" "$build_dir" "$work" "$work/prefix"
