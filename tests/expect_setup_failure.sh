#!/bin/sh
# Runs a test binary where it may not create namespaces (inside a user namespace that maps no user)
# and expects it to stop with a reason instead of running tests against the host's paths.
set -u
if ! unshare --user true 2>/dev/null; then
    echo "cannot create a user namespace here to stage the failure; skipped"
    exit 77
fi
output=$(unshare --user "$1" 2>&1) && status=0 || status=$?
echo "$output"
case "$status $output" in
"0 "*) echo "FAIL: the tests ran although no device root could be set up" >&2 ;;
*"[ RUN      ]"*) echo "FAIL: a test ran outside a device root" >&2 ;;
*"cannot set up the private device root: "*) echo "refused with a reason, as expected" && exit 0 ;;
*) echo "FAIL: no reason given" >&2 ;;
esac
exit 1
