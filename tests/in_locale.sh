#!/bin/sh
# Runs a program in a locale made for the run with localedef in a private folder (LOCPATH); nothing
# is installed on the machine.   in_locale.sh LOCALE FOLDER PROGRAM [ARGUMENT]...
set -eu
locale=$1 folder=$2
shift 2
mkdir -p "$folder"
# localedef warns (exit 1) about characters it cannot map, yet writes the locale.
localedef -i "${locale%.*}" -f "${locale#*.}" "$folder/$locale" || [ -f "$folder/$locale/LC_CTYPE" ]
export LOCPATH="$folder" LC_ALL="$locale"
# A locale that does not load leaves the run in the C locale, which would prove nothing.
! locale 2>&1 >/dev/null | grep . || { echo "FAIL: $locale does not load from $folder" >&2; exit 1; }
exec "$@"
