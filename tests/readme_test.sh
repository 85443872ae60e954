#!/bin/sh
# The README's commands work as shown. Its caller and CMake project are the installed-library test's
# own (tests/install) and print what that test expects; its pkg-config line is the one that test runs;
# and scripts/run-report (in the plain build, whose folder it uses) prints the sample report. Its report
# tool commands run on the booted instrument (instrument_image_test.sh).
#   readme_test.sh SOURCE_DIR BUILD_DIR
set -eu
source_dir=$(realpath "$1") build_dir=$(realpath "$2")
readme=$source_dir/README.md
fail() { echo "FAIL: $*" >&2; exit 1; }
# The lines of the README's code blocks of KIND, from the Nth such block on (1: all).
blocks() { awk -v kind="$1" -v from="${2:-1}" '$0 == "```" kind { n++; on = n >= from; next } /^```$/ { on = 0 } on' "$readme"; }
without_comments() { grep -v '^#' "$1"; }

[ "$(blocks cpp)" = "$(cat "$source_dir/tests/install/caller.cpp")" ] || fail "the README's caller is not tests/install/caller.cpp"
[ "$(blocks cmake)" = "$(without_comments "$source_dir/tests/install/CMakeLists.txt")" ] ||
    fail "the README's CMake project is not tests/install/CMakeLists.txt"
grep -qF "it prints \`$(cat "$source_dir/tests/install/caller.expected")\`" "$readme" ||
    fail "the README says the caller prints something else than tests/install/caller.expected"
# The script runs it for each package name.
pkg_config_line=$(blocks sh 2 | head -1)
grep -qF "$(echo "$pkg_config_line" | sed 's/--libs rfSystemInfo)/--libs "$package")/')" "$source_dir/tests/install/run_installed.sh" ||
    fail "tests/install/run_installed.sh does not run the README's line: $pkg_config_line"

if [ "$build_dir" = "$source_dir/build" ]; then
    report=$(cd "$source_dir" && blocks sh 1 | sed 's/ *#.*//' | grep -x 'scripts/run-report' | sh)
    echo "$report" | grep -qx '  Serial number              KV721-24-0042' || fail "scripts/run-report printed: $report"
    echo "ok: scripts/run-report"
fi
echo "ok: the caller, its CMake project and its pkg-config line"
