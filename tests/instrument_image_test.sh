#!/bin/sh
# The packages as the instrument runs them: the arm64 image (scripts/instrument-image) booted under
# qemu-system, with nothing run on it by hand before the packaged timer has written the metrics.
#   - node_exporter on the instrument serves the sample device's metrics, scraped from here;
#   - over ssh: rfsysinfo --check passes on the instrument's own paths, none of our units failed,
#     systemd-analyze verify finds nothing to say of them (an unknown key is only a warning to
#     systemd), the service's journal holds no error, systemd rates its exposure 3.0 or less;
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
on_instrument rfsysinfo --metrics --root /usr/lib/instrument-standin/device --allow-tools >"$work/expected.prom"
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
    /lib/systemd/system/rfsysinfo-metrics.timer 2>&1) && [ -z "$said" ] || fail "systemd-analyze verify: $said"
errors=$(on_instrument journalctl --no-pager -q -p err -u rfsysinfo-metrics.service -u rfsysinfo-metrics.timer)
[ -z "$errors" ] || fail "errors in the service's journal: $errors"
on_instrument systemd-analyze security --threshold=30 rfsysinfo-metrics.service >"$work/security" ||
    fail "the service is exposed more than 3.0: $(tail -1 "$work/security")"
tail -1 "$work/security"

echo "== the README's report tool commands, in order, as shown"
awk '$0 == "```sh" { n++; on = n >= 3; next } /^```$/ { on = 0 } on' "$source_dir/README.md" | sed 's/ *#.*//' >"$work/commands"
[ "$(wc -l <"$work/commands")" -ge 10 ] || fail "the README's commands were not found"
while read -r command; do
    on_instrument "cd /storage && $command" </dev/null >/dev/null || fail "the README's command on the instrument: $command"
done <"$work/commands"

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
