#!/bin/sh
# rfsi-device-root as service engineers use it, and as an attacker would try it.
#   rfsi_device_root_test.sh RFSI_DEVICE_ROOT BUILD_FOLDER CALLER CAPTURE WORK_FOLDER RFSYSINFO
set -eu
device_root=$1 build=$2 caller=$3 capture=$4 work=$5 rfsysinfo=$6
status=0

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

# A copied tree's program reaches for a host file from inside (tests/devices/attacker-reaches-for-the-host),
# under rfsi-device-root and as the tree's identity tool under rfsysinfo, which writes its report into a
# host folder from a terminal. Every try must fail and the host's file stay as it was.
rm -rf "$work"
mkdir -p "$work/reports"
cp -a "$(dirname "$0")/devices/attacker-reaches-for-the-host/tree" "$work/tree"
export RFSI_HOST_FILE="$work/host-file"
echo untouched > "$RFSI_HOST_FILE"
mkdir "$work/tree/storage"
ln -s "$RFSI_HOST_FILE" "$work/tree/storage/absolute-link"
ln -s "../../../../../../../../..$RFSI_HOST_FILE" "$work/tree/storage/relative-link"
"$device_root" --tree "$work/tree" -- /bin/getSicutil > "$work/tries" 2>&1 || true
script -qec "'$rfsysinfo' --root '$work/tree' --allow-tools --section identity --output '$work/reports/report.txt'" \
    /dev/null </dev/null >"$work/terminal" 2>&1 || true
cat "$work/tries" "$work/reports/report.txt"
grep -q '^refused /proc/1/root' "$work/tries" || { echo "FAIL: /proc/1/root was not tried"; status=1; }
grep -q 'refused /proc/[0-9]*/fd/[0-9]*/escape' "$work/reports/report.txt" ||
    { echo "FAIL: rfsysinfo's descriptors were not tried"; status=1; }
grep -Eq 'WRITTEN|READ|INJECTED' "$work/tries" "$work/reports/report.txt" &&
    { echo "FAIL: a try reached what it must not"; status=1; }
[ "$(cat "$RFSI_HOST_FILE")" = untouched ] || { echo "FAIL: the host's file was changed"; status=1; }
[ "$(ls "$work/reports")" = report.txt ] || { echo "FAIL: the tree's tool wrote into the host folder"; status=1; }

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
exit $status
