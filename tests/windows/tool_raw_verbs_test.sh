#!/usr/bin/env bash
# The tool's raw verbs as Windows runs them (under wine): every golden file expands, and compressing
# what it expands to gives the golden bytes again (16-bit files written without word-size reduction
# excepted: the tool reduces where the values allow, so those make a round trip instead); standard
# input and output carry raw bytes untranslated; bad data and bad usage end with their statuses.
# Arguments: the emulator, the tool, the golden folder.
set -euo pipefail
wine=$1
tool=$2
golden=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WINEDEBUG=-all
# The tool says why on standard error whenever it fails. Under load, wine now and then fails to
# start a program at all: a status with no message, which is tried again (twice at most).
run() {
    local status
    for attempt in 1 2 3; do
        status=0
        "$wine" "$tool" "$@" 2>"$work/run.err" || status=$?
        cat "$work/run.err" >&2
        if [ $status -eq 0 ] || [ -s "$work/run.err" ]; then
            return $status
        fi
        echo "note: wine gave status $status and no message for: $*" >&2
    done
    return $status
}

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

for file in "$golden"/*.mtx; do
    name=$(basename "$file" .mtx)
    bits=${name%%-*}
    bits=${bits#u}
    cell=$((bits / 8))
    level=${name#*-level}
    level=${level%%-*}
    run expand --cell "$cell" "$file" "$work/raw" || { fail "$name: expand, status $?"; continue; }
    run compress --cell "$cell" --level "$level" "$work/raw" "$work/again.mtx" || { fail "$name: compress, status $?"; continue; }
    if [[ $name == *-plain-* ]]; then
        run expand --cell "$cell" "$work/again.mtx" "$work/raw2" && cmp -s "$work/raw" "$work/raw2" ||
            fail "$name: round trip"
    else
        cmp -s "$file" "$work/again.mtx" || fail "$name: not the golden bytes"
    fi
done

# Standard input and output in binary mode: the streams hold CR, LF and Ctrl-Z bytes.
stream="$golden/u16-level4-reduced-low-counts.mtx"
run expand --cell 2 "$stream" "$work/by_file"
run expand --cell 2 - - <"$stream" >"$work/by_pipe"
cmp -s "$work/by_file" "$work/by_pipe" || fail "expand through standard input and output"
run compress --cell 2 --level 4 - - <"$work/by_file" >"$work/by_pipe.mtx"
cmp -s "$stream" "$work/by_pipe.mtx" || fail "compress through standard input and output"

# A file cut short is bad data (1), a cell size of 3 bad usage (2); each says why on one line.
head -c 100 "$stream" >"$work/cut.mtx"
status=0
run expand --cell 2 "$work/cut.mtx" "$work/out" 2>"$work/err" || status=$?
[ $status -eq 1 ] && grep -q "^mertax: .*cut.mtx: " "$work/err" || fail "cut stream: status $status, $(cat "$work/err")"
[ ! -e "$work/out" ] || fail "a failed expansion left an output file"
status=0
run compress --cell 3 "$stream" "$work/out" 2>"$work/err" || status=$?
[ $status -eq 2 ] || fail "cell size 3: status $status"

# An existing output is replaced whole.
head -c 100000 /dev/zero >"$work/big"
run expand --cell 2 "$stream" "$work/big"
cmp -s "$work/by_file" "$work/big" || fail "an existing file replaced"

[ $failures -eq 0 ] && echo "tool raw verbs under wine: all checks passed"
exit $((failures > 0))
