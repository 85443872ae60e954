#!/bin/sh
# The metrics and the fleet pieces as Prometheus' own tools take them: promtool checks the sample
# device's metrics and those of a tree with hostile label text; the packaged service's script judges
# against a release profile when there is one; the alerting rules pass promtool's checks and unit tests.
# (node_exporter serving them, and systemd's verdict on the units, are checked on the booted instrument:
# instrument_image_test.sh.)
#   metrics_test.sh SOURCE_DIR BUILD_DIR RFSYSINFO
set -eu
source_dir=$1 build_dir=$2 rfsysinfo=$3
work=$(mktemp -d "$build_dir/metrics-test.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
fail() { echo "FAIL: $*" >&2; exit 1; }

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
    'blank rfsi_check_finding{id="inventory.missing",severity="error"} 1' \
    'sample rfsi_identity_info{firmware_version="1.0.0",model="KV721",rf_serial="RFSERIAL",serial_number="KV721-24-0042",ui_version="5.010.005a"} 1'; do
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
"$rfsysinfo" --metrics --root "$cases/metrics-label-escapes/tree" >"$work/hostile.prom"
promtool check metrics <"$work/hostile.prom" || fail "promtool rejects escaped label text"
grep -qF 'dpb_hardware_set_name="quote \" backslash \\ line\nend"' "$work/hostile.prom" ||
    fail "the inventory text is not escaped as the format requires"
grep -qF 'rfsi_dsp_image_info{index="0",name="name \"quoted\" \\ back",version="x\"y\\z\nw"} 1' "$work/hostile.prom" ||
    fail "the DSP name is not escaped as the format requires"
[ "$(grep -c '^rfsi_fpga_bank_info{' "$work/hostile.prom")" = 15 ] || fail "a line end broke a sample"

echo "== promtool: the alerting rules"
promtool check rules "$source_dir/examples/prometheus/rfsysinfo-rules.yml"
promtool test rules "$source_dir/examples/prometheus/rfsysinfo-rules-test.yml"

echo "ok"
