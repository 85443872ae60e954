#!/bin/sh
# Records, or compares with a record, the state of the instrument's fixed paths on this host, so that a
# test run can show it wrote nothing there.
#   host_paths.sh snapshot FILE | compare FILE
set -eu
paths="/tmp/SystemInventoryInfo.info /storage /Dsp /DspCpri /bin/DpbJsonInfo.json /bin/getSicutil /usr/bin/sicutil
$(ls -d /bin/*.csv /bin/*.dat 2>/dev/null || true) /.deviceroot /tmp/.deviceroot"

state() {
    for path in $paths; do
        if [ -e "$path" ] || [ -L "$path" ]; then
            find "$path" -printf '%p %y %s %T@\n' 2>/dev/null | sort
        else
            echo "$path absent"
        fi
    done
}

case "${1:-}" in
snapshot) state >"$2" ;;
compare)
    state | diff -u "$2" - || { echo "the test run changed the host's instrument paths (above)" >&2; exit 1; }
    echo "host instrument paths unchanged"
    ;;
*) echo "usage: $0 snapshot|compare FILE" >&2; exit 2 ;;
esac
