#!/bin/sh
# Fails when a C++ source differs from the checked-in .clang-format style.
set -eu
clang_format=$1
files=$(git ls-files --cached --others --exclude-standard '*.cpp' '*.h')
[ -n "$files" ] || { echo "no C++ sources found to check" >&2; exit 1; }
echo "$files" | xargs "$clang_format" --dry-run --Werror
echo "$(echo "$files" | wc -l) files follow .clang-format"
