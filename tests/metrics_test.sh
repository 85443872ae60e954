#!/bin/sh
# The metrics and the fleet pieces as Prometheus' and systemd's own tools take them: promtool checks the
# sample device's metrics and those of a tree with hostile label text; a node_exporter started here on a
# free loopback port serves them from its textfile folder without a scrape error, and is stopped; the
# alerting rules pass promtool's checks and unit tests; the units pass systemd-analyze verify and the
# service's exposure is rated 3.0 or less.
#   metrics_test.sh SOURCE_DIR BUILD_DIR RFSYSINFO
set -eu
source_dir=$1
build_dir=$2
rfsysinfo=$3
work=$(mktemp -d "$build_dir/metrics-test.XXXXXX")
exporter=""
cleanup() {
    if [ -n "$exporter" ]; then
        kill "$exporter" 2>/dev/null || true
        wait "$exporter" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT INT TERM
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

echo "== promtool check metrics: the sample device"
"$rfsysinfo" --metrics --root "$source_dir/examples/device" --allow-tools >"$work/sample.prom"
promtool check metrics <"$work/sample.prom" || fail "promtool rejects the sample device's metrics"

echo "== each finding a series with its id and severity; the critical temperature the check used"
cases=$source_dir/tests/devices
"$rfsysinfo" --metrics --root "$cases/check-hot-and-calibration-missing/tree" --allow-tools >"$work/hot.prom"
"$rfsysinfo" --metrics --critical-temperature 90 --root "$cases/check-blank-critical-temperature/tree" --allow-tools \
    >"$work/blank.prom"
for expected in 'hot rfsi_check_finding{id="temperature.critical",severity="error"} 1' \
    'hot rfsi_check_finding{id="calibration.missing",severity="error"} 1' 'hot rfsi_check_findings{severity="error"} 2' \
    'hot rfsi_check_findings{severity="warning"} 0' 'hot rfsi_critical_temperature_celsius{source="inventory"} 85' \
    'blank rfsi_critical_temperature_celsius{source="option"} 90' \
    'blank rfsi_check_finding{id="temperature.critical",severity="error"} 1' \
    'blank rfsi_check_finding{id="inventory.missing",severity="error"} 1'; do
    grep -qxF "${expected#* }" "$work/${expected%% *}.prom" || fail "${expected%% *}.prom lacks ${expected#* }"
done

echo "== the packaged service: a release profile in /etc/rfsysinfo is used when it is there"
write_metrics() {
    RFSYSINFO="$rfsysinfo" RFSYSINFO_TEXTFILE_FOLDER="$work" RFSYSINFO_RELEASE_PROFILE="$work/release.json" \
        "$source_dir/tools/rfsysinfo/systemd/write-metrics" --root "$cases/release-bank-and-image-changed/tree" \
        --allow-tools
}
said=$(write_metrics) && ! grep -q '^rfsi_release' "$work/rfsysinfo.prom" || fail "a release was judged without a profile"
[ "$said" = "metrics written to $work/rfsysinfo.prom" ] || fail "the service said: $said"
cp "$cases/profiles/kv721-release-2026.11.json" "$work/release.json"
said=$(write_metrics) || fail "the service failed with a release profile"
[ "$said" = "metrics written to $work/rfsysinfo.prom, judged against $work/release.json" ] ||
    fail "the service said: $said"
for expected in 'rfsi_release_conformant{profile="KV721 release 2026.11"} 0' \
    'rfsi_release_mismatches{profile="KV721 release 2026.11"} 3' \
    'rfsi_check_finding{id="release.mismatch",severity="error"} 3'; do
    grep -qxF "$expected" "$work/rfsysinfo.prom" || fail "the service's metrics lack $expected"
done
promtool check metrics <"$work/rfsysinfo.prom" || fail "promtool rejects the metrics of a unit off its release"
rm "$work/rfsysinfo.prom"

echo "== promtool check metrics: quotes, backslashes and line ends in the device's texts"
mkdir -p "$work/hostile/tmp" "$work/hostile/bin" "$work/hostile/Dsp"
printf '%s\n' 'DPB_HardwareSetName="quote \" backslash \\ line\nend"' 'DPB_Revision=a\\b' \
    >"$work/hostile/tmp/SystemInventoryInfo.info"
printf '%s\n' '{"FPGA_VER":{"FPGA_BANK_0_VER":"x\"y\\z\nw"}}' >"$work/hostile/bin/DpbJsonInfo.json"
printf '1\n%s\n' 'name "quoted" \ back' >"$work/hostile/Dsp/name.txt"
"$rfsysinfo" --metrics --root "$work/hostile" >"$work/hostile.prom"
promtool check metrics <"$work/hostile.prom" || fail "promtool rejects escaped label text"
grep -qF 'dpb_hardware_set_name="quote \" backslash \\ line\nend"' "$work/hostile.prom" ||
    fail "the inventory text is not escaped as the format requires"
grep -qF 'rfsi_dsp_image_info{index="0",name="name \"quoted\" \\ back",version="x\"y\\z\nw"} 1' "$work/hostile.prom" ||
    fail "the DSP name is not escaped as the format requires"
[ "$(grep -c '^rfsi_fpga_bank_info{' "$work/hostile.prom")" = 15 ] || fail "a line end broke a sample"

echo "== node_exporter's textfile collector on 127.0.0.1"
mkdir "$work/textfile"
"$rfsysinfo" --metrics --output "$work/textfile/rfsysinfo.prom" --root "$source_dir/examples/device" --allow-tools
# A free loopback port: one that nothing listens on.
port=$(while :; do p=$((20000 + $(od -An -N2 -tu2 /dev/urandom) % 40000)); [ -z "$(ss -Htln "sport = :$p")" ] && echo $p && break; done)
prometheus-node-exporter --web.listen-address="127.0.0.1:$port" --collector.disable-defaults \
    --collector.textfile --collector.textfile.directory="$work/textfile" 2>"$work/exporter.log" &
exporter=$!
for wait in 1 2 3 4 5 6 7 8 9 10; do
    curl -sf "http://127.0.0.1:$port/metrics" >"$work/scraped" 2>/dev/null && break
    sleep 0.3
done
[ -s "$work/scraped" ] || fail "node_exporter did not serve: $(cat "$work/exporter.log")"
grep -q '^node_textfile_scrape_error 0$' "$work/scraped" || fail "node_exporter reports a scrape error"
for family in $(sed -n 's/^# TYPE \(rfsi_[a-z_]*\) gauge$/\1/p' "$work/sample.prom"); do
    grep -q "^$family" "$work/scraped" || fail "node_exporter does not serve $family"
done
echo "node_exporter on 127.0.0.1:$port serves $(grep -c '^rfsi_' "$work/scraped") rfsi_ samples"

echo "== promtool: the alerting rules"
promtool check rules "$source_dir/examples/prometheus/rfsysinfo-rules.yml"
promtool test rules "$source_dir/examples/prometheus/rfsysinfo-rules-test.yml"

echo "== systemd-analyze verify: the units (the service pointed at this build's rfsysinfo)"
mkdir "$work/units"
sed "s|/usr/libexec/rfsysinfo/write-metrics|$(realpath "$source_dir")/tools/rfsysinfo/systemd/write-metrics|" \
    "$source_dir/tools/rfsysinfo/systemd/rfsysinfo-metrics.service" >"$work/units/rfsysinfo-metrics.service"
cp "$source_dir/tools/rfsysinfo/systemd/rfsysinfo-metrics.timer" "$work/units/"
# An unknown key is only a warning for systemd: any word from it fails the test.
messages=$(systemd-analyze verify --man=no "$work/units/rfsysinfo-metrics.service" \
    "$work/units/rfsysinfo-metrics.timer" 2>&1) || fail "systemd-analyze verify: $messages"
[ -z "$messages" ] || fail "systemd-analyze verify: $messages"
# The exposure systemd rates (0 to 10, shown with one decimal) stays at 3.0 or less.
rating=$(systemd-analyze security --offline=true --threshold=30 \
    "$source_dir/tools/rfsysinfo/systemd/rfsysinfo-metrics.service") || fail "the service is exposed more than 3.0"
echo "$rating" | tail -1
echo "ok"
