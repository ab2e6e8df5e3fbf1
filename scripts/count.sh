# shellcheck shell=bash
# SPDX-License-Identifier: MIT
#
# Runs suites of tests one after the other, in one line each while they pass, and counts
# single tests over all of them. To be sourced after setup.sh.

passed=0
failed=0
skipped=0

count_failure() {
  echo "FAILED: $1"
  failed=$((failed + 1))
}

# log_name <name of a suite>: "C++ tests" logs to cpp-tests.
log_name() {
  tr '[:upper:] ' '[:lower:]-' <<<"${1//+/p}"
}

# suite <name> <command...>: a command that writes a JUnit report of the same name,
# "C++ tests" that is build/log/cpp-tests.xml.
suite() {
  local name="$1" log counts ok=1
  log="build/log/$(log_name "$name")"
  shift
  rm -f "$log.xml"
  stage "$name" "$(log_name "$name")" "$@" || ok=0
  read -r -a counts <<<"$(.venv/bin/python scripts/count_tests.py "$log.xml")"
  passed=$((passed + counts[0]))
  failed=$((failed + counts[1]))
  skipped=$((skipped + counts[2]))
  if ((!ok || counts[1])); then
    echo "--- $name: the end of $log.log"
    tail -n 100 "$log.log"
    # A suite that breaks off, or finds no test, fails though no test of it did.
    ((counts[1])) || count_failure "$name"
  fi
}

# check <name> <command...>: a command that is one test as a whole.
check() {
  local name="$1" log
  log="$(log_name "$name")"
  shift
  if stage "$name" "$log" "$@"; then
    passed=$((passed + 1))
  else
    show_failure "$log" "$@"
    count_failure "$name"
  fi
}

# summary: prints the last line and ends the script.
summary() {
  local line="$passed passed, $failed failed"
  ((skipped == 0)) || line="$line, $skipped skipped"
  echo "$line"
  exit $((failed > 0))
}
