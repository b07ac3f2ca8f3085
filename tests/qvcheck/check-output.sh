#!/usr/bin/env bash
# Checks one run of qvcheck: a first line "qvcheck ...", then one line
# "PASS|FAIL|KNOWN <name>: <detail>" for each check `qvcheck --list` names, in
# that order, then the summary "N passed, 0 failed" (with ", N known Wine
# deviation(s)" after it when there are any) whose counts match the lines;
# printable ASCII only; exit status 0.
# Usage:
#   check-output.sh --run <emulator> <qvcheck.exe>     run qvcheck (--list, then the checks) and check it
#   check-output.sh --files <list> <output> <status>   check a recorded run (the checker's own test)
set -uo pipefail

fail() {
  echo "qvcheck output check: $*" >&2
  exit 1
}

# check <list file> <output file> <exit status>
check() {
  local listFile=$1 outputFile=$2 status=$3
  local -a names lines
  mapfile -t names < <(tr -d '\r' <"$listFile")
  mapfile -t lines < <(tr -d '\r' <"$outputFile")
  [ ${#names[@]} -gt 0 ] || fail "--list names no checks"
  if LC_ALL=C grep -q '[^ -~]' < <(tr -d '\r' <"$outputFile"); then
    fail "the output holds characters outside printable ASCII"
  fi
  local expected=$((${#names[@]} + 2))
  [ ${#lines[@]} -eq $expected ] ||
    fail "expected $expected lines (the header, one per check, the summary), got ${#lines[@]}"
  [[ ${lines[0]} == "qvcheck "* ]] || fail "the first line is not qvcheck's header: ${lines[0]}"

  local passed=0 failed=0 known=0 i line
  for i in "${!names[@]}"; do
    line=${lines[$((i + 1))]}
    [[ $line =~ ^(PASS|FAIL|KNOWN)\ ([a-z0-9-]+):\ (.+)$ ]] || fail "line $((i + 2)) is no check line: $line"
    [ "${BASH_REMATCH[2]}" = "${names[$i]}" ] ||
      fail "line $((i + 2)) is for ${BASH_REMATCH[2]}, expected ${names[$i]}"
    case ${BASH_REMATCH[1]} in
      PASS) passed=$((passed + 1)) ;;
      FAIL) failed=$((failed + 1)) ;;
      KNOWN) known=$((known + 1)) ;;
    esac
  done

  local summary=${lines[$((expected - 1))]}
  [[ $summary =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed(,\ ([1-9][0-9]*)\ known\ Wine\ deviations?)?$ ]] ||
    fail "no summary line: $summary"
  [ "${BASH_REMATCH[1]}" -eq $passed ] && [ "${BASH_REMATCH[2]}" -eq $failed ] &&
    [ "${BASH_REMATCH[4]:-0}" -eq $known ] ||
    fail "the summary ($summary) does not count the lines ($passed PASS, $failed FAIL, $known KNOWN)"
  [[ $summary =~ ^[0-9]+\ passed,\ 0\ failed ]] || fail "checks failed: $summary"
  [ "$status" -eq 0 ] || fail "exit status $status"
  echo "qvcheck output check: ${#names[@]} checks, $passed passed, $known known Wine deviations, exit status 0"
}

case ${1:-} in
  --run)
    emulator=${2:?emulator} exe=${3:?qvcheck.exe}
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    # From the program's folder, so that the emulator finds the build's prefix.
    cd "$(dirname "$exe")" || fail "no folder for $exe"
    "$emulator" "$(basename "$exe")" --list >"$work/list" 2>"$work/list.err" || fail "qvcheck --list failed"
    "$emulator" "$(basename "$exe")" >"$work/output" 2>"$work/errors"
    status=$?
    cat "$work/output"
    check "$work/list" "$work/output" "$status"
    ;;
  --files)
    check "${2:?list}" "${3:?output}" "${4:?status}"
    ;;
  *)
    echo "usage: $0 --run <emulator> <qvcheck.exe> | --files <list> <output> <status>" >&2
    exit 2
    ;;
esac
