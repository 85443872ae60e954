#!/bin/sh
# rfsi-device-root as service engineers use it, and as an attacker would try it: as root, then the
# attack again as an ordinary user (--attack-only), where the kernel lets one make user namespaces.
#   rfsi_device_root_test.sh RFSI_DEVICE_ROOT BUILD_FOLDER CALLER CAPTURE WORK_FOLDER RFSYSINFO [--attack-only]
set -eu
device_root=$1 build=$2 caller=$3 capture=$4 work=$5 rfsysinfo=$6 only=${7:-}
status=0
if [ "$only" != --attack-only ]; then

# The instrument's programs against a customer's capture: its files and its identity tools' answers.
"$device_root" --tree "$capture" --show "$build" -- "$caller" > "$work.caller" 2>&1 || true
for line in "Product name     KV721" "DPB serial       DPB7-24-03117"; do
    grep -qx "$line" "$work.caller" || { echo "FAIL: the caller on the capture did not print '$line':"; cat "$work.caller"; status=1; }
done

# A folder that holds nothing of a device is reported, and warned about by name.
mkdir -p "$work.empty"
"$rfsysinfo" --root "$work.empty" > /dev/null 2> "$work.warning" || { echo "FAIL: no report for an empty tree"; status=1; }
grep -qx "rfsysinfo: warning: $work.empty holds none of the files the library reads" "$work.warning" ||
    { echo "FAIL: no warning for an empty tree:"; cat "$work.warning"; status=1; }

fi

# A copied tree's program reaches for a host file from inside (tests/devices/attacker-reaches-for-the-host),
# under rfsi-device-root and as the tree's identity tool under rfsysinfo, which writes its report into a
# host folder from a terminal. Every try must fail and the host's file stay as it was. The tree's links
# lead to it every way a link can; as root, the tree holds device nodes of a major no driver has.
chmod -R u+rwx "$work" 2>/dev/null || true # a locked folder of the last run
rm -rf "$work"
mkdir -p "$work/reports"
cp -a "$(dirname "$0")/devices/attacker-reaches-for-the-host/tree" "$work/tree"
mkdir "$work/host" # shown inside the root read-only, so that a link out of the tree could reach it
export RFSI_HOST_FILE="$work/host/host-file"
echo untouched > "$RFSI_HOST_FILE"
mkdir -p "$work/tree/storage" "$work/tree/opt/shown"
ln -s "$RFSI_HOST_FILE" "$work/tree/storage/absolute-link"
ln -s "../../../../../../../../..$RFSI_HOST_FILE" "$work/tree/storage/relative-link"
ln -s "/chain" "$work/tree/storage/chained-link" && ln -s "$RFSI_HOST_FILE" "$work/tree/chain"
ln -s "/proc/self/root$RFSI_HOST_FILE" "$work/tree/storage/proc-link"
ln -s /chain "$work/tree/storage/RFHW_Revision.info"
ln -s "../../../../../../../../..$RFSI_HOST_FILE" "$work/tree/opt/shown/relative-link"
mkdir -p "$work/tree/usr/bin" && echo "the tree's notes" > "$work/tree/opt/shown/notes"
# A folder nobody may search, with a link to the host file: passed over by an ordinary user's root.
mkdir "$work/tree/locked" && ln -s "$RFSI_HOST_FILE" "$work/tree/locked/host-link" && chmod 000 "$work/tree/locked"
for program in bin/cat usr/bin/cat; do
    printf '#!/bin/sh\necho "the tree'"'"'s cat"\n' > "$work/tree/$program" && chmod +x "$work/tree/$program"
done
nodes=""
if [ "$(id -u)" = 0 ]; then
    for node in storage/device-node opt/device-node; do mknod "$work/tree/$node" c 4000 0; done
    nodes="/storage/device-node /opt/device-node /.deviceroot/tree/storage/device-node"
fi
export RFSI_DEVICE_NODES="$nodes"
# In a terminal, through the host's shell (rfsi-device-root runs the host's programs, never the tree's).
script -qec "'$device_root' --tree '$work/tree' --show '$work/host' -- sh -c 'exec /bin/getSicutil'" /dev/null </dev/null |
    tr -d '\r' > "$work/tries" || true
script -qec "'$rfsysinfo' --root '$work/tree' --allow-tools --section identity --output '$work/reports/report.txt'" \
    /dev/null </dev/null >"$work/terminal" 2>&1 || true
cat "$work/tries" "$work/reports/report.txt"
grep -q '^refused /proc/1/root' "$work/tries" || { echo "FAIL: /proc/1/root was not tried"; status=1; }
# rfsysinfo confines the tree's tool: it sees no process of the root, runs as another user than the
# host's root, in a network of its own, with nothing of the caller's environment.
for seen in 'processes visible: 0;' "confined as user $( [ "$(id -u)" = 0 ] && echo 65534 || id -u ), limits 64/32768, network links 1, environment LANG=C.UTF-8 PATH=/usr/bin:/bin " 'refused a user namespace'; do
    grep -qF "$seen" "$work/reports/report.txt" || { echo "FAIL: the tree's tool under rfsysinfo did not say '$seen'"; status=1; }
done
# Where a tree's program cannot be confined (here: a root that may not set up the sandbox's user), none
# runs: --allow-tools is refused with the reason.
if unshare --user --map-root-user true 2>/dev/null; then
    unshare --user --map-root-user "$rfsysinfo" --root "$work/tree" --allow-tools > "$work/unconfined" 2>&1 && status=1
    grep -q "rfsysinfo: this machine cannot confine the tree's programs" "$work/unconfined" && ! grep -q Model "$work/unconfined" ||
        { echo "FAIL: a tree's tool ran unconfined: $(cat "$work/unconfined")"; status=1; }
fi
sleep 1
pgrep -f rfsi-left-behind >/dev/null && { echo "FAIL: a process of the tree's tool outlived rfsysinfo"; status=1; }
grep -Eq 'ESCAPED' "$work/reports/report.txt" && { echo "FAIL: the tree's tool made a user namespace"; status=1; }
grep -Eq 'WRITTEN|READ|INJECTED' "$work/tries" "$work/reports/report.txt" &&
    { echo "FAIL: a try reached what it must not"; status=1; }
[ "$(cat "$RFSI_HOST_FILE")" = untouched ] || { echo "FAIL: the host's file was changed"; status=1; }
[ "$(ls "$work/reports")" = report.txt ] || { echo "FAIL: the tree's tool wrote into the host folder"; status=1; }
[ "$("$device_root" --tree "$work/tree" -- cat /opt/shown/notes 2>&1)" = "the tree's notes" ] ||
    { echo "FAIL: rfsi-device-root ran something but the host's cat"; status=1; }
for node in $nodes; do
    grep -qx "refused $node: Permission denied" "$work/tries" ||
        { echo "FAIL: the tree's device node $node was not refused as on a nodev mount"; status=1; }
done
# Every mount made from the tree carries nodev and nosuid; where no tree program is to run, noexec.
grep -c '^mount ' "$work/tries" | grep -qx 5 || { echo "FAIL: the tree's mounts were not all listed"; status=1; }
grep '^mount ' "$work/tries" | grep -Ev ',nosuid,nodev|,nodev,nosuid|nosuid,nodev' &&
    { echo "FAIL: a mount of the tree lets device nodes or set-user-ID programs work"; status=1; }
# The tree itself, and its folders shown at their own paths, are read-only mounts.
grep -E '^mount (/.deviceroot/tree|/opt) ' "$work/tries" | grep -v ' ro,' &&
    { echo "FAIL: a folder of the tree is shown writable"; status=1; }
# A program that rfsi-device-root runs cannot gain privileges (set-user-ID, file capabilities).
grep -qx 'no new privileges: 1' "$work/tries" || { echo "FAIL: a program in the root may gain privileges"; status=1; }
"$rfsysinfo" --root "$work/tree" --capture "$work/tree-capture.tgz" > /dev/null 2>&1 &&
    tar -xOzf "$work/tree-capture.tgz" | grep -q untouched &&
    { echo "FAIL: a capture of the tree holds the host's file"; status=1; }

# As an ordinary user, the attack is all.
[ "$only" = --attack-only ] && exit $status

# A ".." resolved while files are renamed elsewhere on the system (as device roots being made do): the
# kernel asks for the walk again (EAGAIN), and every link still leads where it leads.
mkdir -p "$work/updir/links" "$work/renamed" && touch "$work/renamed/a"
for i in $(seq 300); do ln -s .. "$work/updir/links/l$i"; done
(cd "$work/renamed" && exec perl -e 'while (1) { rename "a", "b"; rename "b", "a" }') & renaming=$!
lost=$("$device_root" --tree "$work/updir" -- sh -c 'for l in /links/*; do [ -d "$l" ] || echo "$l"; done' | wc -l)
kill $renaming
[ "$lost" = 0 ] || { echo "FAIL: $lost links with .. led nowhere while files were renamed"; status=1; }

# While a tree's program runs, no process of rfsysinfo holds anything of the output's folder open.
mkdir -p "$work/slow/bin" "$work/out"
printf '#!/bin/sh\nsleep 2\n' > "$work/slow/bin/getSicutil" && chmod +x "$work/slow/bin/getSicutil"
"$rfsysinfo" --root "$work/slow" --allow-tools --section identity --output "$work/out/report.txt" & run=$!
sleep 1
held=$(for p in $(pgrep -x rfsysinfo); do ls -l "/proc/$p/fd" 2>/dev/null; done | grep -F "$work/out" || true)
wait $run || true
[ -z "$held" ] && [ -s "$work/out/report.txt" ] || { echo "FAIL: the output's folder was held open: $held"; status=1; }
# Names the kernel's mount options would split at (':' ',' '\\', spaces, a line end): the tree's Dsp
# leads to its folder "x:$work/secret", which a text option would read as the tree's "x" and the
# host's $work/secret; a tree at such a path is read like any other.
mkdir -p "$work/secret" "$work/colon/x" "$work/colon/x:$work/secret"
printf '1\nSECRET\n' > "$work/secret/name.txt"
printf '1\nTREE\n' > "$work/colon/x:$work/secret/name.txt"
ln -s "x:$work/secret" "$work/colon/Dsp"
odd="$work/unit 7, bench:old\\
line"
cp -a "$work/colon" "$odd"
for tree in "$work/colon" "$odd"; do
    "$rfsysinfo" --root "$tree" --section dsp > "$work/dsp" 2>&1 || true
    grep -q '^  DSP 0 *TREE,' "$work/dsp" || { echo "FAIL: the DSP of $tree is not the tree's own:"; cat "$work/dsp"; status=1; }
done

# The attack once more as an ordinary user, whose device root is made in a user namespace.
if [ "$(id -u)" = 0 ] && setpriv --reuid=nobody --regid=nogroup --clear-groups unshare --user true 2>/dev/null; then
    mkdir -p "$work-user" && chown nobody "$work-user"
    setpriv --reuid=nobody --regid=nogroup --clear-groups "$0" "$device_root" "$build" "$caller" "$capture" \
        "$work-user/run" "$rfsysinfo" --attack-only || { echo "FAIL: the attack as an ordinary user (above)"; status=1; }
fi
exit $status
