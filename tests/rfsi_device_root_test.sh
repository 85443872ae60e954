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

# A copied tree's program tries to reach the host from inside the device root: through every /proc
# path, every writable mount, the kernel's settings, device nodes, remounts and links in the tree that
# point out of it. Every try must fail and the host's file stay as it was.
rm -rf "$work"
mkdir -p "$work/tree/storage" "$work/tree/sys/class/thermal"
host_file=$work/host-file
echo untouched > "$host_file"
ln -s "$host_file" "$work/tree/storage/absolute-link"
ln -s "../../../../../../../../..$host_file" "$work/tree/storage/relative-link"
cat > "$work/tree/storage/attack" <<'ATTACK'
#!/bin/sh
host_file=$1
try() { # try PATH: write through PATH; says whether it was written
    if reason=$( (echo escaped > "$1") 2>&1); then echo "WRITTEN $1"; else echo "refused $1: ${reason##*: }"; fi
}
try "$host_file"
for process in /proc/[0-9]*; do
    try "$process/root$host_file"
    try "$process/cwd$host_file"
    for descriptor in "$process"/fd/*; do try "$descriptor$host_file"; done
done
while read -r _ _ _ _ point options _; do
    case ",$options," in *,rw,*) try "$point$host_file" ;; esac
done < /proc/self/mountinfo
try /storage/absolute-link
try /storage/relative-link
try /proc/sys/kernel/hostname
try /proc/sysrq-trigger
try /sys/kernel-probe
try /dev/probe
mount -o remount,rw /etc 2>/dev/null && echo "WRITTEN remount of /etc" || echo "refused remount of /etc"
mount -t proc proc /storage 2>/dev/null && echo "WRITTEN a mount of the host's /proc" || echo "refused mount of a proc"
mknod /tmp/disk b 8 0 2>/dev/null && echo "WRITTEN a block device node" || echo "refused mknod of a disk"
echo "processes visible: $(ls -d /proc/[0-9]* | wc -l); devices: $(ls /dev | tr '\n' ' ')"
ATTACK
chmod +x "$work/tree/storage/attack"

"$device_root" --tree "$work/tree" -- /storage/attack "$host_file" > "$work/tries" 2>&1 || true
cat "$work/tries"
grep -q '^refused /proc/1/root' "$work/tries" || { echo "FAIL: /proc/1/root was not tried"; status=1; }
grep -q '^WRITTEN' "$work/tries" && { echo "FAIL: a write reached a path it must not"; status=1; }
[ "$(cat "$host_file")" = untouched ] || { echo "FAIL: the host's file was changed"; status=1; }
exit $status
