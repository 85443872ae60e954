#!/bin/sh
# The tool's manual page and its bash completion know exactly the options that --help lists, the
# completion offers the section names, and man finds nothing wrong in the page.
#   tool_docs_test.sh SOURCE_DIR RFSYSINFO
set -eu
source_dir=$1 rfsysinfo=$2
page=$source_dir/docs/rfsysinfo.1
completion=$source_dir/tools/rfsysinfo/completion/rfsysinfo
fail() { echo "FAIL: $*" >&2; exit 1; }
options_in() { grep -o -- '--[a-z][a-z-]*' | sort -u; }

# Qt's --help-all lists Qt's own options, not the tool's.
help_options=$("$rfsysinfo" --help | options_in | grep -vx -- --help-all)
page_options=$(sed -n '/^\.SH OPTIONS/,/^\.SH EXIT STATUS/p' "$page" | sed 's/\\-/-/g' | options_in)
[ "$page_options" = "$help_options" ] ||
    fail "the manual page's options differ from --help: $(echo $page_options) / $(echo $help_options)"

# Every exit status is listed in --help and in the page's EXIT STATUS.
help_statuses=$("$rfsysinfo" --help | sed -n 's/^Exit status: //p' | grep -o '[0-9] ' | tr -d ' \n')
page_statuses=$(sed -n '/^\.SH EXIT STATUS/,/^\.SH MARKERS/p' "$page" | sed -n 's/^\.B \([0-9]\)$/\1/p' | tr -d '\n')
[ "$help_statuses" = 01234 ] && [ "$page_statuses" = 01234 ] ||
    fail "exit statuses: --help lists '$help_statuses', the manual page '$page_statuses'"

warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man warns about the page: $warnings"

# What the completion offers after "rfsysinfo -" and after "rfsysinfo --section ".
offered=$(bash -c '. /usr/share/bash-completion/bash_completion; . "$1"
    offer() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}; COMPREPLY=()
        _rfsysinfo rfsysinfo "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"; printf "%s\n" "${COMPREPLY[@]}"; }
    offer rfsysinfo -; echo ==; offer rfsysinfo --section ""' _ "$completion")
completion_options=$(printf '%s\n' "$offered" | sed '/^==$/,$d' | sort -u)
[ "$completion_options" = "$help_options" ] || fail "the completion's options differ from --help: $completion_options"
sections=$(printf '%s\n' "$offered" | sed '1,/^==$/d' | tr '\n' ' ')
for section in $("$rfsysinfo" --help | sed -n 's/^Sections: //p' | tr -d ','); do
    case " $sections" in *" $section "*) ;; *) fail "the completion does not offer the section $section" ;; esac
done
echo "ok: $(printf '%s\n' "$help_options" | wc -l) options in --help, the manual page and the completion"
