#!/bin/sh
# Runs a test as an unprivileged user, where the device root needs a user namespace; the folder
# given with --writable is made the user's own first.
#   run_unprivileged.sh [--writable FOLDER] COMMAND [ARGUMENT]...
set -u
writable=""
[ "$1" = --writable ] && { writable=$2; shift 2; }
[ "$(id -u)" -eq 0 ] || exec "$@"
user=nobody
run_as() { setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; }
if ! run_as test -x "$1" 2>/dev/null; then
    echo "$user cannot reach $1 (build tree not readable by others); skipped"
    exit 77
fi
if ! run_as unshare --user --map-root-user true 2>/dev/null; then
    echo "this kernel does not let unprivileged users create user namespaces; skipped"
    exit 77
fi
[ -z "$writable" ] || { rm -rf "$writable" && mkdir -p "$writable" && chown "$user" "$writable"; } || exit 1
cd /
exec setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"
