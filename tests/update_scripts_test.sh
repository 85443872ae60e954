#!/bin/sh
# The update systems' pieces on the sample device and the cases' trees, with the exit statuses each
# update system reads: RAUC's pre-install handler, Mender's state script and inventory script, and
# SWUpdate's hardware revision; with --sanitize, no serial number in anything they write. (RAUC
# installing bundles and the boot's judgement deciding what is kept: instrument_image_test.sh.)
#   update_scripts_test.sh SOURCE_DIR BUILD_DIR RFSYSINFO
set -eu
source_dir=$1 build_dir=$2
export RFSYSINFO="$3"
update=$source_dir/tools/rfsysinfo/update cases=$source_dir/tests/devices
work=$(mktemp -d "$build_dir/update-test.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
fail() { echo "FAIL: $*" >&2; exit 1; }
sample="--root $source_dir/examples/device --allow-tools"
bank_changed="--root $cases/release-bank-and-image-changed/tree --allow-tools"

# check STATUS SCRIPT PROFILE OPTIONS [TEXT]: SCRIPT, its release profile a copy of PROFILE (- none),
# run with RFSYSINFO_OPTIONS, exits with STATUS and says TEXT (standard output and error together).
check() {
    status=0 script=$2
    rm -f "$work/bundle/release.json" "$work/release.json"
    mkdir -p "$work/bundle"
    [ "$3" = - ] || { cp "$cases/$3" "$work/bundle/release.json" && cp "$cases/$3" "$work/release.json"; }
    RFSYSINFO_OPTIONS=$4 RAUC_BUNDLE_MOUNT_POINT=$work/bundle RFSYSINFO_RELEASE_PROFILE=$work/release.json \
        "$update/$script" >"$work/said" 2>&1 || status=$?
    [ "$status" = "$1" ] || fail "$script ($3, $4) exited with $status, not $1: $(cat "$work/said")"
    [ $# -lt 5 ] || grep -qF -- "$5" "$work/said" || fail "$script ($3, $4) did not say '$5': $(cat "$work/said")"
}
release=profiles/kv721-release-2026.11.json other_board=profiles/kv721-more-images.json
refused=refused-profile-duplicate-key/profile.json

echo "== RAUC's pre-install handler: the bundle's hardware only"
check 0 rauc-pre-install "$release" "$sample" 'against the hardware of release KV721 release 2026.11: PASS'
# A unit running hot, with calibration missing, still takes a release that fits its hardware.
check 0 rauc-pre-install "$release" "--root $cases/check-hot-and-calibration-missing/tree --allow-tools" 'PASS, 0 errors'
check 1 rauc-pre-install "$other_board" "$sample" 'inventory DPB_Revision is C, release release.json expects A or B'
grep -qF 'rf mixer.revision is 1' "$work/said" || fail "the RF module revision was not judged: $(cat "$work/said")"
check 2 rauc-pre-install "$refused" "$sample" 'refused the release profile'
check 0 rauc-pre-install - "$sample" 'the bundle carries no release profile (release.json)'

echo "== Mender's ArtifactCommit_Enter script: 0 commit, 1 roll back"
check 0 ArtifactCommit_Enter_50_rfsysinfo "$release" "$sample" \
    'against release KV721 release 2026.11 in identity, inventory, rf, fpga, dsp, cpri, calibration: PASS'
check 1 ArtifactCommit_Enter_50_rfsysinfo "$release" "$bank_changed" 'fpga banks.FPGA_BANK_2_VER is 2.7.0'
check 1 ArtifactCommit_Enter_50_rfsysinfo "$refused" "$sample" 'refused the release profile'
# A unit running hot is judged in every section but the temperature: its missing calibration counts.
check 1 ArtifactCommit_Enter_50_rfsysinfo "$release" "--root $cases/check-hot-and-calibration-missing/tree --allow-tools" \
    'in identity, inventory, rf, fpga, dsp, cpri, calibration: FAIL, 1 error'
grep -F 'calibration files missing' "$work/said" || fail "the missing calibration was not judged: $(cat "$work/said")"
check 1 ArtifactCommit_Enter_50_rfsysinfo "$release" "--root $work/no-such-tree" 'cannot read'
check 0 ArtifactCommit_Enter_50_rfsysinfo - "$sample" 'no release profile at'

echo "== Mender's inventory script: name=value lines, at most 100 names"
check 0 mender-inventory-rfsysinfo - "$sample"
grep -v '^rfsi_temperature_' "$cases/sample-device/expected-name-value.txt" | diff -u - "$work/said" ||
    fail "the inventory is not the sample device's report (above)"
check 0 mender-inventory-rfsysinfo - "--root $cases/control-characters-in-text/tree" \
    'rfsi_inventory_DPB_Revision=C\x1b[2K\x1b[1Aforged'
! grep -v '^rfsi_[A-Za-z0-9_]*=' "$work/said" || fail "lines that are no name=value (above)"
[ "$(cut -d= -f1 "$work/said" | sort -u | wc -l)" -le 100 ] || fail "more than 100 names"

echo "== SWUpdate's hardware revision"
check 0 swupdate-hwrevision - "$sample"
[ "$(cat "$work/said")" = "KV721 C-2.1/1.0/3.0" ] || fail "the hardware revision is '$(cat "$work/said")'"
check 1 swupdate-hwrevision - "--root $cases/keys-missing/tree" "the unit's hardware is unknown"
check 1 swupdate-hwrevision - "--root $cases/missing-files/tree" "DPB revision NONE"

echo "== --sanitize: no serial number in what they write"
for script in rauc-pre-install ArtifactCommit_Enter_50_rfsysinfo mender-inventory-rfsysinfo swupdate-hwrevision; do
    check 0 "$script" "$release" "$sample --sanitize"
    ! grep -E 'KV721-24-0042|DPB7-24-03117' "$work/said" || fail "$script wrote a serial number with --sanitize"
done
echo "ok"
