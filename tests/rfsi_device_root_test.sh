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

# The tree's identity tool, allowed to run, attacks rfsysinfo itself, which writes its report into a
# host folder from a terminal: it writes through every descriptor of every other process in /proc,
# reads their memory, and injects keystrokes into every terminal it can open. Its answer (the model)
# says what it managed.
mkdir -p "$work/tree/bin" "$work/reports"
cat > "$work/tree/bin/getSicutil" <<'ATTACK'
#!/bin/sh
inject='open(my $t, "+<", $ARGV[0]) or exit 1; ioctl($t, 0x5412, "x") or exit 1' # TIOCSTI
tried=0
for process in /proc/[0-9]*; do
    read -r _ _ _ _ _ session _ < "$process/stat" || continue
    [ "$session" = $$ ] && continue # this tool and its own children
    tried=$((tried + 1))
    head -c 1 "$process/environ" >/dev/null 2>&1 && echo "READ $process/environ"
    for descriptor in "$process"/fd/*; do
        (echo escaped > "$descriptor/escape") 2>/dev/null && echo "WRITTEN $descriptor/escape"
        perl -e "$inject" "$descriptor" 2>/dev/null && echo "INJECTED $descriptor"
    done
done
for terminal in /dev/tty /dev/stdin /dev/stdout /dev/stderr; do
    perl -e "$inject" "$terminal" 2>/dev/null && echo "INJECTED $terminal"
done
echo "tried $tried processes"
ATTACK
chmod +x "$work/tree/bin/getSicutil"
script -qec "'$rfsysinfo' --root '$work/tree' --allow-tools --section identity --output '$work/reports/report.txt'" \
    /dev/null </dev/null >"$work/terminal" 2>&1 || true
cat "$work/reports/report.txt"
grep -q 'tried [1-9]' "$work/reports/report.txt" || { echo "FAIL: the tool's attack did not run"; status=1; }
grep -Eq 'WRITTEN|READ|INJECTED' "$work/reports/report.txt" && { echo "FAIL: the tree's tool reached rfsysinfo"; status=1; }
[ "$(ls "$work/reports")" = report.txt ] || { echo "FAIL: the tree's tool wrote into the host folder"; status=1; }

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
