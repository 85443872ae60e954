#!/bin/sh
# Runs a test binary as an unprivileged user, where the device root needs a user namespace.
set -u
test_binary=$1
[ "$(id -u)" -eq 0 ] || exec "$test_binary"
user=nobody
run_as() { setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; }
if ! run_as test -x "$test_binary" 2>/dev/null; then
    echo "$user cannot reach $test_binary (build tree not readable by others); skipped"
    exit 77
fi
if ! run_as unshare --user --map-root-user true 2>/dev/null; then
    echo "this kernel does not let unprivileged users create user namespaces; skipped"
    exit 77
fi
cd /
exec setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$test_binary"
