#!/bin/bash
# Documents that are made from something are up to date. Usage: docs_test.sh SOURCE-DIRECTORY CASE [ARGUMENT]...
set -euo pipefail
source=$1 case=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

needs() { command -v "$1" >/dev/null || { echo "$1 is not installed"; exit 77; }; }

case_codes_are_up_to_date() { # PROGRAM
    "$1" markdown "$source" | diff "$source/docs/codes.md" - || { echo "run scripts/docs"; return 1; }
    "$1" mdoc "$source" | diff "$source/man/zt_pipe_codes.7" - || { echo "run scripts/docs"; return 1; }
}

case_picture_is_up_to_date() {
    local sum
    sum=$(sha256sum "$source/docs/life-of-a-pipe.dot" | cut -c1-64)
    grep -q "life-of-a-pipe.dot, sha256 $sum" "$source/docs/life-of-a-pipe.svg" || { echo "run scripts/docs"; return 1; }
}

case_headers_make_a_reference_without_warnings() {
    needs doxygen
    cd "$source"
    { cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $work"; } | doxygen -
    [ -s "$work/html/index.html" ]
}

case_pages_are_clean() {
    needs mandoc
    # Which pages of others this machine has is no matter of ours.
    # The two streams apart: what comes by one would cut the other's lines in two.
    local findings
    findings=$({ mandoc -Tlint -W style "$source"/man/*.[0-9] 2>/dev/null
                 mandoc -Tlint -W style "$source"/man/*.[0-9] 2>&1 >/dev/null; } |
        grep -v -e 'referenced manual not found' -e 'outdated mandoc.db' || true)
    [ -z "$findings" ] || { echo "$findings"; return 1; }
}

# Every page of ours that a page refers to is there, and every operation has one.
case_pages_name_what_they_refer_to() {
    local name section missing=0
    while read -r name section; do
        case $name in
            zt*) [ -f "$source/man/$name.$section" ] || { echo "no page $name($section)"; missing=1; } ;;
        esac
    done < <(sed -n 's/^\.Xr \([a-z_]*\) \([0-9]\).*/\1 \2/p' "$source"/man/*.[0-9])
    while read -r name; do
        [ -f "$source/man/$name.3" ] || { echo "no page $name(3)"; missing=1; }
    done < <(grep -oE '^ZT_API [a-z:_0-9]+ zt_[a-z_]+' "$source/zt/ztpipe.h" | awk '{ print $3 }' |
        grep -vE '^zt_pipe_(signal|cleanup)$')
    return $missing
}

# What a person on call sees in a trace must be found by searching the page for it: every fixed piece of a trace line.
case_trace_page_has_every_line() {
    needs mandoc
    local page piece missing=0
    page=$(mandoc -Tascii "$source/man/zt_pipe_trace.7" | sed 's/.\x08//g')
    while IFS= read -r piece; do
        [[ $page == *"$piece"* ]] || { echo "not on the page: '$piece'"; missing=1; }
    done < <(cat "$source"/zt/ztpipe/*.cpp | tr '\n' ' ' | grep -oE 'zt_trace_msg\( *"[^"]*"' | sed 's/^[^"]*"//; s/"$//' |
        sed -E 's/%[-0-9l]*[a-z]/\n/g' | grep -E '[a-z]{3}' | sed -E 's/^[],:) ]+//; s/[[:blank:]([]+$//' | sort -u)
    return $missing
}

case_guide_is_true() { # DIRECTORY-OF-ZTPIPE
    needs python3
    PATH=$1:$PATH python3 "$source/tests/docs/blocks.py" "$source" docs/guide.md
}

case_links_lead_somewhere() {
    local document link missing=0
    for document in "$source"/*.md "$source"/docs/*.md; do
        while read -r link; do
            [ -e "$(dirname "$document")/$link" ] || { echo "$document: $link"; missing=1; }
        done < <(grep -oE '\]\([^)#:]+' "$document" | sed 's/^](//')
    done
    return $missing
}

case_program_prints() { # PROGRAM FILE
    unset ZT_PIPE_DEBUG ZT_TRACE_FILE
    LC_ALL=C "$1" 2>&1 </dev/null | diff "$2" -
}

"case_$case" "$@"
