#!/bin/bash
# Every case under tests/devices (its README says what a case holds): the report tool on the case's
# tree, and on a capture made of it (a case that is a capture: on it, and on a capture of its replay),
# must give the expected report, and each judgement and text the case expects. jq puts the case's
# expectation over missing-files' and sorts both sides; diff shows what differs.
#   device_cases_test.sh SOURCE_DIR WORK_DIR RFSYSINFO
set -u
cases=$1/tests/devices work=$2 rfsysinfo=$3
count=0 failures=0
rm -rf "$work" && mkdir -p "$work"
fail() { echo "FAIL: $case: $*" >&2; failures=$((failures + 1)); }

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
}
# A case file that names a file below the cases' folder, and perhaps options to go with it.
named() { read -r file options <"$folder/$1" && named=("$cases/$file" $options); }
# The case's tree copied (links as links), with what its "nodes" file lists: git keeps no FIFO, empty
# folder or socket.
prepared_tree() {
    local tree=$work/cases/$case kind path
    mkdir -p "$tree" && cp -a "$folder/tree/." "$tree/"
    [ -f "$folder/nodes" ] && while read -r kind path; do
        mkdir -p "$(dirname "$tree$path")"
        case $kind in
        fifo) mkfifo "$tree$path" ;;
        folder) mkdir "$tree$path" ;;
        socket) perl -MSocket -e 'socket(S, PF_UNIX, SOCK_STREAM, 0) && bind(S, pack_sockaddr_un($ARGV[0])) || die' \
            "$tree$path" ;;
        esac
    done <"$folder/nodes"
    echo "$tree"
}

for folder in "$cases"/*; do
    case=${folder##*/}
    [ -f "$folder/expected.json" ] || continue
    count=$((count + 1))
    jq -s '.[0] * .[1]' "$cases/missing-files/expected.json" "$folder/expected.json" >"$work/expected.json"
    if [ -f "$folder/capture.tgz" ]; then
        given=(--root "$folder/capture.tgz")
    else
        # shellcheck disable=SC2046 # the arguments are words
        given=(--root "$(prepared_tree)" $(cat "$folder/arguments" 2>/dev/null))
    fi
    "$rfsysinfo" --capture "$work/capture.tgz" "${given[@]}" 2>"$work/said" || { fail "no capture: $(cat "$work/said")"; continue; }
    for replayed in false true; do
        source=("${given[@]}")
        $replayed && source=(--root "$work/capture.tgz")
        expect "$work/expected.json" 'del(.tool, .version, .deviceTree, .sanitized, .capture)' "${source[@]}"
        [ -f "$folder/expected-check.json" ] && expect "$folder/expected-check.json" .check --check "${source[@]}"
        named profile 2>/dev/null &&
            expect "$folder/expected-release.json" .check --check --expect "${named[@]}" "${source[@]}"
        if named diff-before 2>/dev/null; then
            expect "$folder/expected-diff.json" .diff.differences --diff "${named[@]}" "${source[@]}"
            # The text: a line a difference, "(absent)" for a value on one side only, and the count.
            "$rfsysinfo" --diff "${named[@]}" "${source[@]}" >"$work/text"
            absent=$(grep -q ' (absent)' "$work/text" && echo true || echo false)
            [ "$(wc -l <"$work/text") $absent" = "$(jq '"\(length + 1) \(any(..; . == null))"' -r "$folder/expected-diff.json")" ] ||
                fail "--diff ${named[*]} ${source[*]} printed: $(cat "$work/text")"
        fi
        # The text report, where the case gives it whole: below its header, which names the source.
        [ -f "$folder/expected.txt" ] && ! "$rfsysinfo" "${source[@]}" | sed '1,/^$/d' | diff -u "$folder/expected.txt" - >&2 &&
            fail "${source[*]}: the text report differs from expected.txt (above)"
    done
done
echo "$count cases, $failures failures"
[ "$count" -ge 30 ] && [ "$failures" -eq 0 ]
