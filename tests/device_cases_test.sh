#!/bin/bash
# Every case under tests/devices (its README says what a case holds): the report tool on the case's
# tree, and on a capture made of it (a case that is a capture: on it, and on a capture of its replay),
# must give the expected report, and each judgement and text the case expects. jq puts the case's
# expectation over missing-files' and sorts both sides; diff shows what differs. Then the inputs that
# cases hold for refusal, and the misuse of tests/misuse.tsv, are each refused at once.
#   device_cases_test.sh SOURCE_DIR BUILD_DIR WORK_DIR RFSYSINFO RFSI_DEVICE_ROOT
set -u
source_dir=$1 build_dir=$2 work=$3 rfsysinfo=$4 device_root=$5
cases=$source_dir/tests/devices count=0 failures=0 case=""
fail() { echo "FAIL: $case: $*" >&2; failures=$((failures + 1)); }

# refused STATUS BOUND_MS SAYS REASON ARGUMENT...: rfsysinfo ARGUMENT... exits with STATUS within
# BOUND_MS, prints nothing, and says "rfsysinfo: ", SAYS and REASON in one line.
refused() {
    local status=$1 bound=$2 says=$3 reason=$4 start got took
    shift 4
    start=$(date +%s%N)
    "$rfsysinfo" "$@" >"$work/output" 2>"$work/said"
    got=$? took=$((($(date +%s%N) - start) / 1000000))
    count=$((count + 1))
    [ "$got $(wc -l <"$work/said") $(head -c 11 "$work/said")" = "$status 1 rfsysinfo: " ] && [ "$took" -lt "$bound" ] &&
        [ ! -s "$work/output" ] && grep -qF -- "$says" "$work/said" && grep -qF -- "$reason" "$work/said" ||
        fail "$* exited with $got after $took ms, printing: $(cat "$work/output" "$work/said")"
}

# The refusals, inside a device root of their own (this script again): a run that was not refused
# reaches none of this machine's paths. An input is refused before any device is read: a capture (exit
# status 3, within 5 s), a release profile (2, within a second) and a profile that is no report either,
# as a side of --diff (3). Inputs that are no file to read are refused on the open descriptor.
if [ "$device_root" = --refusals ]; then
    sample=(--root "$source_dir/examples/device" --allow-tools)
    for folder in "$cases"/* "$work/huge"; do
        case=${folder##*/}
        [ -f "$folder/refusal" ] && refused 3 5000 "refused the capture $folder/capture.tgz: " "$(cat "$folder/refusal")" \
            --root "$folder/capture.tgz"
        [ -f "$folder/profile-refusal" ] && refused 2 1000 \
            "refused the release profile $folder/profile.json: " "$(cat "$folder/profile-refusal")" \
            --check --expect "$folder/profile.json" "${sample[@]}"
        [ -f "$folder/report-refusal" ] && refused 3 5000 \
            "refused the report $folder/profile.json: " "$(cat "$folder/report-refusal")" --diff "$folder/profile.json" "${sample[@]}"
    done
    case=misuse.tsv
    while IFS= read -r line; do
        line=${line//\$SAMPLE/$source_dir/examples/device} fields=()
        line=${line//\$WORK/$work} line=${line//\$CASES/$cases}
        while [[ $line == *$'\t'* ]]; do
            fields+=("${line%%$'\t'*}") line=${line#*$'\t'}
        done
        [ "${#fields[@]}" -ge 2 ] && refused "${fields[0]}" 5000 "${fields[1]}" "" "${fields[@]:2}" "$line"
    done <"$source_dir/tests/misuse.tsv"
    [ -e /storage/escaped ] && fail "a refused capture wrote /storage/escaped"
    echo "$count refusals, $failures failures"
    [ "$count" -ge 60 ] && [ "$failures" -eq 0 ]
    exit
fi

rm -rf "$work" && mkdir -p "$work/huge"

# expect EXPECTED PATH ARGUMENT...: the value at PATH of rfsysinfo --json ARGUMENT... is EXPECTED's, and
# the exit status follows it: 1 for a verdict other than "pass" or a list of differences, else 0.
expect() {
    local expected=$1 path=$2 status
    shift 2
    "$rfsysinfo" --json "$@" >"$work/output" 2>"$work/said"
    status=$?
    jq -S "$path" "$work/output" | diff -u <(jq -S . "$expected") - >&2 || fail "$* differs from $expected (above)"
    [ "$status" = "$(jq 'if type == "array" then length > 0 else (.verdict // "pass") != "pass" end
        | if . then 1 else 0 end' "$expected")" ] || fail "$* exited with $status: $(cat "$work/said")"
    # The tool's own lines only: Qt's warnings, or the library's lines without --verbose, are faults.
    ! grep -qv '^rfsysinfo: ' "$work/said" || fail "$* wrote to standard error: $(cat "$work/said")"
}
# A case file that names a file below the cases' folder, and perhaps options to go with it.
named() { read -r file options <"$folder/$1" && named=("$cases/$file" $options); }
# A socket's path may be longer than a socket address holds: it is bound from its folder.
make_socket() {
    (cd "${1%/*}" && perl -MSocket -e 'socket(S, PF_UNIX, SOCK_STREAM, 0) && bind(S, pack_sockaddr_un($ARGV[0])) || die' \
        "${1##*/}")
}
# The case's tree copied (links as links), with what its "nodes" file lists: git keeps no FIFO, empty
# folder, socket or file of gigabytes.
prepared_tree() {
    local tree=$work/cases/$case kind path
    mkdir -p "$tree" && { [ ! -d "$folder/tree" ] || cp -a "$folder/tree/." "$tree/"; }
    [ -f "$folder/nodes" ] && while read -r kind path size; do
        mkdir -p "$(dirname "$tree$path")"
        case $kind in
        fifo) mkfifo "$tree$path" ;;
        folder) mkdir -p "$tree$path" && chmod "${size:-755}" "$tree$path" ;;
        socket) make_socket "$tree$path" ;;
        sparse) truncate -s "$size" "$tree$path" ;;
        esac
    done <"$folder/nodes"
    echo "$tree"
}

for folder in "$cases"/*; do
    case=${folder##*/}
    [ -f "$folder/expected.json" ] || continue
    count=$((count + 1))
    jq -s '.[0] * .[1]' "$cases/missing-files/expected.json" "$folder/expected.json" >"$work/expected.json"
    arguments=$(cat "$folder/arguments" 2>/dev/null)
    if [ -f "$folder/capture.tgz" ]; then
        given=(--root "$folder/capture.tgz")
    else
        # shellcheck disable=SC2046 # the arguments are words
        given=(--root "$(prepared_tree)" $arguments)
    fi
    "$rfsysinfo" --capture "$work/capture.tgz" "${given[@]}" >"$work/said" 2>&1 || { fail "no capture: $(cat "$work/said")"; continue; }
    for replayed in false true; do
        source=("${given[@]}")
        # The replay with the case's options but --allow-tools, which a capture has no use for.
        # shellcheck disable=SC2086 # the options are words
        $replayed && source=(--root "$work/capture.tgz" ${arguments//--allow-tools/})
        expect "$work/expected.json" 'del(.tool, .version, .deviceTree, .sanitized, .capture)' "${source[@]}"
        [ -f "$folder/expected-check.json" ] && expect "$folder/expected-check.json" .check --check "${source[@]}"
        if named profile 2>/dev/null; then
            expect "$folder/expected-release.json" .check --check --expect "${named[@]}" "${source[@]}"
            [ -f "$folder/expected-hardware.json" ] &&
                expect "$folder/expected-hardware.json" .check --check --hardware-only --expect "${named[@]}" "${source[@]}"
        fi
        if named diff-before 2>/dev/null; then
            expect "$folder/expected-diff.json" .diff.differences --diff "${named[@]}" "${source[@]}"
            # The text: a line a difference, "(absent)" for a value on one side only, and the count.
            "$rfsysinfo" --diff "${named[@]}" "${source[@]}" >"$work/text" 2>/dev/null
            absent=$(grep -q ' (absent)' "$work/text" && echo true || echo false)
            [ "$(wc -l <"$work/text") $absent" = "$(jq '"\(length + 1) \(any(..; . == null))"' -r "$folder/expected-diff.json")" ] ||
                fail "--diff ${named[*]} ${source[*]} printed: $(cat "$work/text")"
            [ -f "$folder/expected-diff.txt" ] && ! sed '$d' "$work/text" | diff -u "$folder/expected-diff.txt" - >&2 &&
                fail "--diff ${named[*]} ${source[*]}: its lines differ from expected-diff.txt (above)"
        fi
        # The text report, where the case gives it whole: below its header, which names the source.
        [ -f "$folder/expected.txt" ] && ! "$rfsysinfo" "${source[@]}" 2>/dev/null | sed '1,/^$/d' | diff -u "$folder/expected.txt" - >&2 &&
            fail "${source[*]}: the text report differs from expected.txt (above)"
        [ -f "$folder/expected-name-value.txt" ] &&
            ! "$rfsysinfo" --name-value "${source[@]}" 2>/dev/null | diff -u "$folder/expected-name-value.txt" - >&2 &&
            fail "${source[*]}: the name=value lines differ from expected-name-value.txt (above)"
    done
done
echo "$count cases, $failures failures"
[ "$count" -ge 30 ] && [ "$failures" -eq 0 ] || exit 1

echo "it is larger than 1024 KiB" >"$work/huge/profile-refusal"
truncate -s 1G "$work/huge/profile.json" # sparse: a gigabyte of NUL bytes
mkfifo "$work/fifo"
make_socket "$work/socket"
exec "$device_root" --show "$source_dir" --show "$build_dir" --show-writable "$work" -- \
    "$0" "$source_dir" "$build_dir" "$work" "$rfsysinfo" --refusals
