#!/usr/bin/env bash
# The output checker's own test: it accepts well-formed runs and rejects
# each way a run can be wrong. Fails if any case is judged the other way.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'a-one\nb-two\nc-three\n' >"$work/list"

mistakes=0
# expect <accept|reject> <case name> <exit status>; the output comes on stdin.
expect() {
  local want=$1 name=$2 status=$3
  cat >"$work/output"
  if bash "$here/check-output.sh" --files "$work/list" "$work/output" "$status" >/dev/null 2>&1; then
    got=accept
  else
    got=reject
  fi
  if [ "$got" = "$want" ]; then
    echo "ok: $name ($got)"
  else
    echo "WRONG: $name was ${got}ed, expected to be ${want}ed"
    mistakes=$((mistakes + 1))
  fi
}

expect accept "all passed" 0 <<'OUT'
qvcheck 1.0.0 on Windows 10.0.19045, x64 process
PASS a-one: fine
PASS b-two: fine
PASS c-three: fine
3 passed, 0 failed
OUT
expect accept "a known Wine deviation" 0 <<'OUT'
qvcheck 1.0.0 on Windows 6.1.7601, x64 process (Wine 8.0)
PASS a-one: fine
KNOWN b-two: differs (Wine: as documented)
PASS c-three: fine
2 passed, 0 failed, 1 known Wine deviation
OUT
printf 'qvcheck 1.0.0 on Windows\r\nPASS a-one: x\r\nPASS b-two: x\r\nPASS c-three: x\r\n3 passed, 0 failed\r\n' |
  expect accept "CRLF line ends" 0
expect reject "a failed check" 1 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
FAIL b-two: broken
PASS c-three: fine
2 passed, 1 failed
OUT
expect reject "a failed check the summary does not count" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
FAIL b-two: broken
PASS c-three: fine
3 passed, 0 failed
OUT
expect reject "a missing check line" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
PASS c-three: fine
2 passed, 0 failed
OUT
expect reject "check lines out of order" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS b-two: fine
PASS a-one: fine
PASS c-three: fine
3 passed, 0 failed
OUT
expect reject "an extra line" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
PASS b-two: fine
PASS c-three: fine
PASS d-four: fine
4 passed, 0 failed
OUT
expect reject "no header" 0 <<'OUT'
PASS a-one: fine
PASS b-two: fine
PASS c-three: fine
3 passed, 0 failed
OUT
expect reject "a check line without detail" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one:
PASS b-two: fine
PASS c-three: fine
3 passed, 0 failed
OUT
expect reject "a summary in other words" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
PASS b-two: fine
PASS c-three: fine
3 passed, 0 failures
OUT
expect reject "known deviations the summary leaves out" 0 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
KNOWN b-two: differs (Wine: x)
PASS c-three: fine
2 passed, 0 failed
OUT
printf 'qvcheck 1.0.0 on Windows\nPASS a-one: caf\xc3\xa9\nPASS b-two: x\nPASS c-three: x\n3 passed, 0 failed\n' |
  expect reject "non-ASCII text" 0
expect reject "a failing exit status" 1 <<'OUT'
qvcheck 1.0.0 on Windows
PASS a-one: fine
PASS b-two: fine
PASS c-three: fine
3 passed, 0 failed
OUT

if [ $mistakes -ne 0 ]; then
  echo "$mistakes case(s) judged wrongly"
  exit 1
fi
echo "every case judged as expected"
