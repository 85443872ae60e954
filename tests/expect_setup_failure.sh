#!/bin/sh
# Runs a test binary where it may not create namespaces (inside a user namespace that maps no user)
# and expects it to stop with a reason instead of running tests against the host's paths.
set -u
test_binary=$1
if ! unshare --user true 2>/dev/null; then
    echo "cannot create a user namespace here to stage the failure; skipped"
    exit 77
fi
output=$(unshare --user "$test_binary" 2>&1)
status=$?
echo "$output"
if [ "$status" -eq 0 ]; then
    echo "FAIL: the tests ran although no device root could be set up" >&2
    exit 1
fi
case "$output" in
*"cannot set up the private device root: "*) ;;
*) echo "FAIL: no reason given" >&2; exit 1 ;;
esac
case "$output" in
*"[ RUN      ]"*) echo "FAIL: a test ran outside a device root" >&2; exit 1 ;;
esac
echo "refused with a reason, as expected"
