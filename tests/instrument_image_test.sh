#!/bin/sh
# The packages as the instrument runs them: the arm64 image (scripts/instrument-image) booted under
# qemu-system, with nothing run on it by hand before the packaged timer has written the metrics.
#   - node_exporter on the instrument serves the sample device's metrics, scraped from here;
#   - over ssh: rfsysinfo --check passes on the instrument's own paths, none of our units failed,
#     systemd-analyze verify finds nothing to say of them (an unknown key is only a warning to
#     systemd), the service's journal holds no error, systemd rates its exposure 3.0 or less and the
#     boot's judgement's no higher;
#   - updates with Debian's RAUC, real installs and reboots: a bundle that fits installs, boots, passes
#     and is marked good; one for another DPB revision is refused before anything is written, RAUC's
#     error naming the pre-install handler and its log the finding; one whose FPGA images do not load its versions is not marked good (the
#     bootloader's state shows it bad, the journal the finding) and the slot before boots and passes;
#   - the README's report tool commands (its third shell block on) work as shown, in order;
#   - without node_exporter the service does not fail and its journal says why nothing was written;
#     node_exporter installed again brings the metrics back;
#   - apt purge of our packages leaves no file of theirs behind, no unit at work, no metrics served.
#   instrument_image_test.sh SOURCE_DIR IMAGE_DIR
set -eu
source_dir=$(realpath "$1") dir=$2
image=$source_dir/scripts/instrument-image
work=$(mktemp -d)
trap '"$image" stop "$dir" || true; rm -rf "$work"' EXIT INT TERM
fail() { echo "FAIL: $*" >&2; exit 1; }
on_instrument() { "$image" ssh "$dir" "$@"; }
free_port() {
    while :; do
        port=$((20000 + $(od -An -N2 -tu2 /dev/urandom) % 40000))
        [ -z "$(ss -Htln "sport = :$port")" ] && echo "$port" && return
    done
}
# Waits up to SECONDS for node_exporter's scrape to hold LINE.
wait_for_scrape() {
    deadline=$(($(date +%s) + $1))
    until curl -sf "http://127.0.0.1:$port/metrics" >"$work/scraped" 2>/dev/null && grep -qxF "$2" "$work/scraped"; do
        [ "$(date +%s)" -lt "$deadline" ] || return 1
        sleep 3
    done
}
# The rfsi_ samples but the time, sorted, each number as printf's %.10g: node_exporter keeps the
# labels as rfsysinfo writes them (in name order), and writes large numbers with an exponent.
samples() {
    grep '^rfsi_' "$1" | grep -v '^rfsi_report_timestamp_seconds ' |
        awk '{ value = $NF; sub(/ [^ ]*$/, ""); printf "%s %.10g\n", $0, value }' | sort
}
"$image" build arm64 "$dir"
port=$(free_port)
ssh_port=$(free_port)
booted=$(date +%s)
"$image" boot "$dir" "$port" "$ssh_port" >/dev/null || fail "the image did not boot"
echo "== the packaged timer's metrics, scraped from node_exporter on the instrument"
# What was served and what the service said, when the metrics are not what they should be.
served() {
    echo "node_exporter served: $(grep -E '^rfsi_check' "$work/scraped" 2>/dev/null | tr '\n' ' ')"
    on_instrument journalctl --no-pager -q -n 8 -u rfsysinfo-metrics.service
}
wait_for_scrape 300 'rfsi_check_ok 1' || fail "no rfsi_check_ok 1 from node_exporter within 300 s; $(served)"
echo "first metrics $(($(date +%s) - booted)) s after the emulator started"
# The same package on the sample device's tree, read in a device root: what the instrument's own
# paths must answer.
on_instrument rfsysinfo --metrics --root /usr/lib/instrument-standin/device --allow-tools \
    --expect /etc/rfsysinfo/release.json >"$work/expected.prom"
samples "$work/expected.prom" >"$work/expected"
samples "$work/scraped" >"$work/served"
diff "$work/expected" "$work/served" || fail "the instrument's metrics are not the sample device's"
grep -qx 'node_textfile_scrape_error 0' "$work/scraped" || fail "node_exporter reports a textfile scrape error"
grep -E '^(rfsi_identity_info|rfsi_check_ok|rfsi_temperature_celsius|node_textfile_scrape_error)[{ ]' "$work/scraped"
echo "$(wc -l <"$work/served") rfsi_ samples as the sample device's"

echo "== over ssh: the check, the units, the journal, the exposure"
on_instrument rfsysinfo --check || fail "rfsysinfo --check on the instrument's own paths"
on_instrument systemctl --no-pager status rfsysinfo-metrics.timer rfsysinfo-metrics.service || true
failed=$(on_instrument systemctl --failed --plain --no-legend)
echo "$failed" | grep -E 'rfsysinfo|instrument-standin' && fail "failed units of ours: $failed"
said=$(on_instrument systemd-analyze verify --man=no /lib/systemd/system/rfsysinfo-metrics.service \
    /lib/systemd/system/rfsysinfo-metrics.timer /lib/systemd/system/rfsysinfo-boot-check.service 2>&1) &&
    [ -z "$said" ] || fail "systemd-analyze verify: $said"
errors=$(on_instrument journalctl --no-pager -q -p err -u rfsysinfo-metrics.service -u rfsysinfo-metrics.timer)
[ -z "$errors" ] || fail "errors in the service's journal: $errors"
exposure() { on_instrument systemd-analyze security "$1" | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) .*/\1/p'; }
metrics_exposure=$(exposure rfsysinfo-metrics.service) boot_check_exposure=$(exposure rfsysinfo-boot-check.service)
echo "exposure: rfsysinfo-metrics.service $metrics_exposure, rfsysinfo-boot-check.service $boot_check_exposure"
awk -v m="$metrics_exposure" 'BEGIN { exit !(m != "" && m <= 3.0) }' || fail "the service is exposed more than 3.0: $metrics_exposure"
awk -v m="$metrics_exposure" -v b="$boot_check_exposure" 'BEGIN { exit !(b != "" && b <= m) }' ||
    fail "the boot's judgement is exposed more than the metrics service: $boot_check_exposure"

echo "== the README's report tool commands, in order, as shown"
awk '$0 == "```sh" { n++; on = n >= 3; next } /^```$/ { on = 0 } on' "$source_dir/README.md" | sed 's/ *#.*//' >"$work/commands"
[ "$(wc -l <"$work/commands")" -ge 10 ] || fail "the README's commands were not found"
while read -r command; do
    on_instrument "cd /storage && $command" </dev/null >/dev/null || fail "the README's command on the instrument: $command"
done <"$work/commands"

echo "== updates with RAUC: the hardware judged before a bundle installs, the booted release before it is kept"
boot_judged() { on_instrument journalctl --no-pager -q -b -u rfsysinfo-boot-check.service; }
# expect_boot SLOT STATE BACKEND TEXT: the slot booted; boot-complete.target and mark-good both STATE
# (active: reached, inactive: not); each slot's state as RAUC's custom backend reads it; the journal's
# judgement. The boot's judgement leaves the temperature out.
judged=" in identity, inventory, rf, fpga, dsp, cpri, calibration"
expect_boot() {
    seen=$(on_instrument "sed -n 's/.*rauc\.slot=\([AB]\).*/\1/p' /proc/cmdline
        systemctl is-active boot-complete.target rauc-mark-good.service
        for slot in A B; do echo \$slot \$(/usr/lib/instrument-standin/bootloader-backend get-state \$slot); done" |
        tr '\n' ' ')
    [ "$seen" = "$1 $2 $2 $3 " ] || fail "booted, targets, backend: $seen (not $1 $2 $2 $3)"
    boot_judged | grep -F -- "$4" || fail "slot $1: the judgement in the journal is not '$4': $(boot_judged)"
}
expect_boot A active "A good B bad" "against release KV721 release 2026.11$judged: PASS"
# Without a profile the judgement is skipped, and says so.
on_instrument 'mv /etc/rfsysinfo/release.json /etc/rfsysinfo/away && systemctl restart rfsysinfo-boot-check.service;
    mv /etc/rfsysinfo/away /etc/rfsysinfo/release.json' || fail "the judgement failed without a profile"
boot_judged | grep -F 'skipped because of an unmet condition check (ConditionPathExists=/etc/rfsysinfo/release.json)' ||
    fail "the journal does not say why the judgement was skipped: $(boot_judged)"
[ "$(on_instrument systemctl show -P TimeoutStartUSec rfsysinfo-boot-check.service)" = 5min ] ||
    fail "the judgement's time is not bound"

# Bundles of the sample device's release, signed with a key made here that the instrument trusts.
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/key.pem" -out "$work/cert.pem" -days 1 \
    -subj "/O=rfsysinfo test/CN=release signing" 2>/dev/null
on_instrument 'cat >/etc/rauc/keyring.pem' <"$work/cert.pem"
# bundle NAME PROFILE_FILTER FPGA_FILTER: the release with its profile and its FPGA images' bank
# versions changed by jq filters, as /storage/NAME.raucb on the instrument.
bundle() {
    content=$work/$1 slot=$work/$1-slot
    "$source_dir/image/release-slot" "$source_dir/examples/device" "$source_dir/image/release.json" "$slot"
    jq "$2" "$slot/release.json" >"$work/changed" && mv "$work/changed" "$slot/release.json"
    jq "$3" "$slot/fpga.json" >"$work/changed" && mv "$work/changed" "$slot/fpga.json"
    mkdir -p "$content"
    cp "$slot/release.json" "$content/"
    mke2fs -q -t ext4 -L release -d "$slot" "$content/release.ext4" 8M
    printf '[update]\ncompatible=KV721 instrument\nversion=%s\n\n[image.release]\nfilename=release.ext4\n' "$1" \
        >"$content/manifest.raucm"
    rauc bundle --cert="$work/cert.pem" --key="$work/key.pem" "$content" "$work/$1.raucb" >"$work/rauc.log" 2>&1 ||
        fail "rauc bundle $1: $(cat "$work/rauc.log")"
    on_instrument "cat >/storage/$1.raucb" <"$work/$1.raucb"
}
bundle 2026.12 '.profile = "KV721 release 2026.12" | .fpga.banks.FPGA_BANK_13_VER = "1.1.1"' '.FPGA_BANK_13_VER = "1.1.1"'
bundle dpb-d '.profile = "KV721 release 2026.12 for DPB D" | .inventory.DPB_Revision = "D"' .
bundle 2027.01 '.profile = "KV721 release 2027.01" | .fpga.banks.FPGA_BANK_2_VER = "2.9.0"' .
rauc_install() { on_instrument rauc install "/storage/$1.raucb" >"$work/install.log" 2>&1; }

echo "-- a bundle that fits installs into B, boots, passes and is marked good"
rauc_install 2026.12 || fail "rauc install 2026.12: $(cat "$work/install.log")"
"$image" reboot "$dir" >/dev/null
expect_boot B active "A good B good" "against release KV721 release 2026.12$judged: PASS"
on_instrument rfsysinfo --json --section fpga | grep -F '"FPGA_BANK_13_VER": "1.1.1"' ||
    fail "slot B's FPGA images are not loaded"

echo "-- a bundle for another DPB revision is refused before anything is written"
sha256sum <"$dir/machine/release-a.img" >"$work/slot-a"
since=$(on_instrument date +%s)
rauc_install dpb-d && fail "rauc installed a bundle for DPB revision D: $(cat "$work/install.log")"
# RAUC 1.8's error names the handler; its log in the journal holds what the handler said.
grep -F 'LastError: Pre-install handler error: Child process exited with code 1' "$work/install.log" ||
    fail "RAUC's error is not the pre-install handler's: $(cat "$work/install.log")"
on_instrument journalctl --no-pager -q -u rauc.service --since "@$since" >"$work/rauc.log"
grep -F '# error   release.mismatch          inventory DPB_Revision is C, release KV721 release 2026.12 for DPB D expects D' \
    "$work/rauc.log" || fail "RAUC's log does not hold the finding: $(cat "$work/rauc.log")"
sha256sum <"$dir/machine/release-a.img" | cmp -s - "$work/slot-a" || fail "the refused bundle wrote slot A"
expect_boot B active "A good B good" "against release KV721 release 2026.12$judged: PASS"

echo "-- a bundle whose FPGA images do not load its versions installs, is not kept, and the slot before boots"
rauc_install 2027.01 || fail "rauc install 2027.01: $(cat "$work/install.log")"
"$image" reboot "$dir" >/dev/null
expect_boot A inactive "A bad B good" 'fpga banks.FPGA_BANK_2_VER is 2.8.0, release KV721 release 2027.01 expects 2.9.0'
"$image" reboot "$dir" >/dev/null
expect_boot B active "A bad B good" "against release KV721 release 2026.12$judged: PASS"
tr -d '\000' <"$dir/machine/bootenv.img" | grep -qx 'A=bad 0' || fail "the bootloader did not mark slot A bad"

echo "== without node_exporter, and with it again"
apt_on_instrument() { on_instrument "DEBIAN_FRONTEND=noninteractive apt-get -y -q $*" >"$work/apt.log" 2>&1; }
apt_on_instrument purge prometheus-node-exporter || fail "cannot purge prometheus-node-exporter: $(cat "$work/apt.log")"
on_instrument systemctl start rfsysinfo-metrics.service || fail "the service failed without node_exporter"
on_instrument journalctl --no-pager -q -u rfsysinfo-metrics.service -n 3 >"$work/journal"
grep -F 'unmet condition check (ConditionPathIsDirectory=/var/lib/prometheus/node-exporter)' "$work/journal" ||
    fail "the journal does not say why no metrics were written: $(cat "$work/journal")"
since=$(on_instrument date +%s)
apt_on_instrument install /var/cache/instrument-image/prometheus-node-exporter_*.deb ||
    fail "cannot install prometheus-node-exporter again: $(cat "$work/apt.log")"
wait_for_scrape 150 'rfsi_check_ok 1' || fail "no metrics from the timer after node_exporter came back; $(served)"
on_instrument journalctl --no-pager -q -u rfsysinfo-metrics.service --since "@$since" | grep -F 'metrics written to' ||
    fail "the journal does not say where the metrics went"

echo "== apt purge of our packages"
on_instrument dpkg -L librfsysteminfo1 librfsysteminfo-dev rfsysinfo >"$work/files"
apt_on_instrument purge librfsysteminfo1 librfsysteminfo-dev rfsysinfo || fail "cannot purge our packages: $(cat "$work/apt.log")"
left=$(on_instrument 'while read -r f; do if [ ! -d "$f" ] && { [ -e "$f" ] || [ -L "$f" ]; }; then echo "$f"; fi; done
    ls /var/lib/prometheus/node-exporter/rfsysinfo* /etc/systemd/system/*/rfsysinfo* 2>/dev/null; true' <"$work/files")
[ -z "$left" ] || fail "left behind by the purge: $left"
# systemd may keep a unit it has run in memory after its file is gone, but nothing of it active.
on_instrument systemctl list-units --all --plain --no-legend 'rfsysinfo*' | grep -v ' not-found inactive dead ' \
    >"$work/units" || true
[ ! -s "$work/units" ] || fail "our units are still there after the purge: $(cat "$work/units")"
curl -sf "http://127.0.0.1:$port/metrics" >"$work/scraped" || fail "node_exporter stopped answering"
! grep '^rfsi_' "$work/scraped" || fail "node_exporter still serves our metrics after the purge"
echo "$(grep -c . "$work/files") files installed, none left after the purge, nor the metrics or a unit at work"
echo "ok"
