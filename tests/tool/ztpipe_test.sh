#!/bin/bash
# What `ztpipe --help` promises, on real programs. Usage: ztpipe_test.sh CASE; a case is a function test_CASE.
# Expects ztpipe and the child programs of the tests on the PATH.
set -uo pipefail
export LC_ALL=C
unset ZT_PIPE_DEBUG ZT_TRACE_FILE

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

# run COMMAND...: keeps exit status, standard output and standard error.
run() {
    status=0
    "$@" >out 2>err || status=$?
}
fail() {
    echo "line ${BASH_LINENO[1]}: $1" >&2
    failures=$((failures + 1))
}
status_is() { [ "$status" -eq "$1" ] || fail "exit status $status, not $1; standard error: $(cat err)"; }
out_is() { printf "$1" | cmp -s - out || fail "standard output is '$(cat -v out)', not '$1'"; }
err_is_empty() { [ ! -s err ] || fail "standard error is '$(cat err)', not empty"; }
err_has() { grep -qF -e "$1" err || fail "standard error is '$(cat err)', without '$1'"; }
# until_true COMMAND...: polls; gives up after 20 s.
until_true() {
    local tries=0
    until "$@"; do
        tries=$((tries + 1))
        [ $tries -lt 2000 ] || { fail "never came true: $*"; return 1; }
        sleep 0.01
    done
}

# child_of PID: the process id of its child; fails while there is none.
child_of() { pgrep -P "$1"; }

test_prints_the_reply_to_each_line() {
    run ztpipe bc <<<$'6*7\n2^100'
    status_is 0; out_is '42\n1267650600228229401496703205376\n'; err_is_empty
}
test_sends_a_newline_behind_the_last_line_too() {
    run ztpipe echo_upper < <(printf 'one\ntwo')
    status_is 0; out_is 'ONE\nTWO\n'
}
test_passes_arguments_as_they_are() {
    run ztpipe -d 'end|\n' prints_words 'a  b' '$HOME' '*' --report end <<<go
    status_is 0
    tail -n +2 out >words; mv words out
    out_is '|a  b|\n|$HOME|\n|*|\n|--report|\n|end|\n'
}
test_prints_binary_replies_whole() {
    run ztpipe cat < <(printf 'a\0b\n\0\n')
    out_is 'a\0b\n\0\n'
}
test_prints_replies_longer_than_any_buffer() {
    run ztpipe sh -c 'read line; head -c 1000000 /dev/zero | tr "\0" x; echo' <<<go
    status_is 0
    [ "$(wc -c <out)" -eq 1000001 ] || fail "$(wc -c <out) bytes"
}
test_reads_a_reply_up_to_the_delimiter() {
    run ztpipe -d 'END\n' sh -c 'while read line; do echo "$line 1"; echo "$line 2"; echo END; done' <<<$'a\nb'
    out_is 'a 1\na 2\nEND\nb 1\nb 2\nEND\n'
}
test_understands_escapes_in_the_delimiter() {
    run ztpipe -d '\x01\t\\\101' sh -c 'read line; printf "x\001\t\\\\A"; exit 0' <<<go
    status_is 0; out_is 'x\001\t\\A'
}
test_refuses_a_delimiter_with_nul_or_an_unknown_escape() {
    for delimiter in '\0' '\x00' 'a\q' '\' '\777'; do
        run ztpipe -d "$delimiter" cat </dev/null
        status_is 64; err_has 'a delimiter cannot be'
    done
}
test_greets_a_program_that_prompts() {
    run ztpipe -g -d '>>> ' python3 -i -q <<<$'print(6*7)\nexit()'
    status_is 0; out_is '>>> 42\n>>> '
}
test_talks_with_a_database() {
    run ztpipe -g -d 'sqlite> ' sqlite3 -interactive <<<$'create table t(a);\ninsert into t values(7);\nselect a+1 from t;\n.quit'
    status_is 0
    tail -n 1 out | grep -q '^sqlite> ' || fail "last line: $(tail -n 1 out)"
    grep -qx 8 out || fail "no answer: $(cat out)"
}
test_ends_with_the_childs_own_code() {
    run ztpipe sh -c 'read line; echo "$line"; exit 7' <<<$'hello\nmore'
    status_is 7; out_is 'hello\n'; err_is_empty
}
test_ends_with_128_and_the_signal_that_ended_the_child() {
    run ztpipe sh -c 'read line; kill -KILL $$' <<<go
    status_is 137
    run ztpipe raises 11 <<<go
    status_is 139
    run ztpipe -c 'exec raises 15'
    status_is 143
}
test_prints_the_last_words_of_a_child_that_did_not_read() {
    mkfifo go
    ztpipe sh -c 'echo cannot; exit 6' <go >out 2>err &
    local tool=$!
    exec 9>go
    # The line comes only when the child is gone: it has no descendant left but the tool's own zombie.
    until_true grep -qs '^State:.Z' $(printf '/proc/%s/status' "$(until_true child_of "$tool")")
    echo hello >&9
    exec 9>&-
    status=0
    wait "$tool" || status=$?
    status_is 6; out_is 'cannot\n'; err_is_empty
}
test_shows_127_for_a_program_that_does_not_exist() {
    run ztpipe no-such-program <<<hello
    status_is 127
    run ztpipe -c 'no-such-program 2>/dev/null'
    status_is 127
}
test_waits_for_a_child_that_ends_with_its_input() {
    run ztpipe --report sh -c 'while read line; do echo "$line"; done; exit 5' <<<a
    status_is 5; err_has 'ended with an error (exit code 5)'
}
test_ends_the_child_at_once_when_the_close_says_so() {
    run ztpipe --close '' --report sh -c 'read line; echo "$line"; exec sleep 1000' <<<a
    status_is 143; out_is 'a\n'; err_has 'abnormally (signal 15, Terminated)'
}
test_leaves_the_child_alone_when_the_close_says_so() {
    run ztpipe --close 'nokill, nowait' --report echo_lines <<<a
    status_is 0; err_has 'echo_lines was not waited for'
}
test_sets_variables_for_the_child() {
    export ZT_A=0 ZT_C=3
    run ztpipe -e ZT_A=1 -e 'ZT_B=two words' sh -c 'read l; echo "$ZT_A,$ZT_B,$ZT_C"' <<<go
    out_is '1,two words,3\n'
    run ztpipe -e ZT_A=1 -c 'echo $ZT_A'
    out_is '1\n'
    run ztpipe -e ZT_A cat </dev/null
    status_is 64; err_has 'NAME=VALUE'
}
test_hands_options_on() {
    run ztpipe -o stderr=discard -d 'out\n' writes_both <<<go
    out_is 'out\n'
    run ztpipe -o 'KORN STDERR=IGNORE' -c 'echo ${.sh.version%% *}; echo err >&2'
    [ -s out ] || fail 'no Korn shell'
    err_has err
}
test_reports_a_wrong_option_of_the_pipe() {
    run ztpipe -o NONSENSE cat </dev/null
    status_is 125; err_has 'ztpipe: ZT_OPTION_E_UNKNOWN (11201)'; err_has NONSENSE
    run ztpipe --close NONSENSE cat </dev/null
    status_is 125; err_has NONSENSE
    run ztpipe --trace NONSENSE cat </dev/null
    status_is 125; err_has NONSENSE
    run ztpipe '' </dev/null
    status_is 125; err_has ZT_PIPE_E_NOPROGRAM
}
test_says_how_much_and_how_long() {
    run ztpipe --report cat <<<hello
    err_has 'ztpipe: cat ended normally (exit code 0); 6 bytes sent, 6 received, '
    grep -Eq ', [0-9]+\.[0-9]{3} s$' err || fail "no time: $(cat err)"
}
test_traces_on_standard_error() {
    run ztpipe --trace PARMS cat <<<hello
    status_is 0; out_is 'hello\n'
    err_has '-> zt_ipipe_open: [cat] [PROGRAM ] [] []'
    err_has '<- zt_ipipe_close:'
}
test_prints_the_output_of_a_command() {
    run ztpipe -c 'echo one; printf two; exit 3'
    status_is 3; out_is 'one\ntwo'
}
test_prints_a_line_of_a_command_as_soon_as_it_is_there() {
    mkfifo go
    ztpipe -c 'echo first; read x <go; echo second' >out 2>err &
    local tool=$!
    until_true grep -q first out && echo >go
    wait "$tool"
    out_is 'first\nsecond\n'
}
test_prints_each_byte_of_a_command_as_it_comes() {
    mkfifo go
    ztpipe -d '' -c 'printf .; read x <go; printf .' >out 2>err &
    local tool=$!
    until_true grep -q . out && echo >go
    wait "$tool"
    out_is '..'
}
test_copies_much_output() {
    run ztpipe -o READSIZE=65536 -d '' -c 'head -c 5000000 /dev/urandom | tee copy'
    status_is 0
    cmp out copy || fail 'the copy differs'
}
test_feeds_a_command() {
    run ztpipe -c -w --report 'sort; exit 4' <<<$'b\na'
    status_is 4; out_is 'a\nb\n'; err_has '; 4 bytes sent, 0 received'
    run ztpipe -cw 'gzip -c | gzip -dc' < <(head -c 300000 /dev/zero)
    status_is 0
    [ "$(wc -c <out)" -eq 300000 ] || fail "$(wc -c <out) bytes"
}
test_ends_quietly_when_standard_output_is_closed() {
    local codes
    ztpipe -c 'yes' 2>err | head -n 1 >out
    codes=${PIPESTATUS[*]}
    [ "$codes" = '141 0' ] || fail "exit status $codes"
    out_is 'y\n'; err_is_empty
}
test_says_when_standard_output_is_full() {
    status=0
    ztpipe echo_lines <<<hello >/dev/full 2>err || status=$?
    status_is 125; err_has 'standard output: No space left'
}
# Ctrl-C reaches the tool and its child alike: a signal to a process group of their own. `set -m` makes one.
interrupt_group_of() {
    until_true grep -q ready out
    kill -INT -- "-$1"
    status=0
    wait "$1" || status=$?
}
test_ends_with_130_after_an_interrupt_while_waiting_for_output() {
    set -m
    ztpipe -c 'echo ready; exec sleep 1000' >out 2>err &
    set +m
    interrupt_group_of $!
    status_is 130; err_is_empty
}
test_ends_with_130_after_an_interrupt_while_waiting_for_a_reply() {
    set -m
    ztpipe sh -c 'read a; echo ready; read b; exec sleep 1000' >out 2>err < <(printf 'a\nb\n') &
    set +m
    interrupt_group_of $!
    status_is 130; err_is_empty
}
test_dies_of_an_interrupt_while_waiting_for_input() {
    mkfifo input
    set -m
    ztpipe sh -c 'read a; echo ready; read b' <input >out 2>err &
    local tool=$!
    set +m
    exec 9>input
    echo a >&9
    interrupt_group_of $tool
    exec 9>&-
    status_is 130
}
test_refuses_wrong_usage() {
    for words in '' '-c' '-w cat' '-g -c cat' '-c cat dog' '--nonsense cat' '-Q cat' '-d' '--close'; do
        # shellcheck disable=SC2086  # words
        run ztpipe $words </dev/null
        status_is 64; out_is ''; err_has 'ztpipe --help'
    done
}
test_ends_its_options_at_two_dashes() {
    run ztpipe --report -- cat <<<a
    status_is 0; out_is 'a\n'
}
test_shows_help_and_version() {
    run ztpipe --help
    status_is 0; grep -q '^Usage: ztpipe' out || fail 'no usage'
    run ztpipe --version
    status_is 0; out_is 'ztpipe 1.0.0\n'
}

"test_$1"
exit $((failures > 0))
