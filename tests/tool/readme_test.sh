#!/bin/bash
# The README shows what is really so. Usage: readme_test.sh SOURCE-DIRECTORY CASE
set -uo pipefail
export LC_ALL=C
unset ZT_PIPE_DEBUG ZT_TRACE_FILE

source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

test_shows_the_example_as_it_is() {
    sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | sed '1d;$d' | diff - "$source/examples/first.cpp"
}
test_tells_what_the_example_prints() {
    local said
    said=$(sed -n 's/^It prints `\(.*\)`\. .*/\1/p' "$source/README.md")
    [ -n "$said" ] && [ "$(example_first)" = "$said" ]
}
# Each "$ command" of the shell section, run as it stands there; only the time may differ.
test_shows_what_the_program_prints() {
    sed -n '/^## From a shell/,/^## Where/s/^    //p' "$source/README.md" >"$work/session"
    grep -q '^\$ ' "$work/session" || return 1
    sed -n 's/^\$ //p' "$work/session" >"$work/commands"
    while IFS= read -r command; do
        printf '$ %s\n' "$command"
        bash -c "$command" 2>&1 </dev/null
    done <"$work/commands" >"$work/result"
    diff <(sed -E 's/[0-9.]+ s$/TIME/' "$work/session") <(sed -E 's/[0-9.]+ s$/TIME/' "$work/result")
}

"test_$2"
