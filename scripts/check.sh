#!/usr/bin/env bash
# The checks that take longer than .ci/run may. Each is a flag; --all runs them one after another.
#   --clang      a build by Clang without warnings, and all tests
#   --coverage   the tests reach at least 90 % of the lines of src and pipeline; the report is build/coverage/lines.html
#   --tidy       clang-tidy over every source
#   --threads    ThreadSanitizer finds nothing in loops that threads share
#   --page       the page of the report works in a browser; its pictures are in build/report
#   --engines    batches by the local engine and by a Slurm on this machine: killed, resumed, the same table
#   --fuzz [N]   every fuzz target for N seconds (600), from where the last time ended
#   --faults     of 200 planted one-line faults the tests notice at least 85 %
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0"
  exit "$1"
}

clang() {
  local log
  log=$(mktemp)
  cmake --preset clang >/dev/null
  cmake --build --preset clang 2>&1 | tee "$log" | grep -E '(warning|error):' || true
  local warnings
  warnings=$(grep -c 'warning:' "$log" || true)
  rm -f "$log"
  cmake --build --preset clang -- --quiet
  [[ "$warnings" -eq 0 ]] || { echo "check: $warnings warnings of Clang" >&2; return 1; }
  ctest --preset clang
}

coverage() {
  cmake --preset coverage >/dev/null
  cmake --build --preset coverage -- --quiet
  find build/coverage -name '*.gcda' -delete
  ctest --preset coverage
  # A branch that throws away what a destructor never sees is no line of ours.
  gcovr --root . --object-directory build/coverage --filter 'src/' --filter 'pipeline/' --exclude-throw-branches \
    --gcov-ignore-parse-errors --sort-percentage --html build/coverage/lines.html --print-summary --fail-under-line 90
}

tidy() { scripts/tidy.sh; }

threads() { scripts/threads.sh; }

page() {
  cmake --preset release >/dev/null
  cmake --build --preset release --target vrk -- --quiet
  scripts/report.sh --test
}

engines() {
  scripts/setup.sh --with-engines
  cmake --preset release >/dev/null
  cmake --build --preset release --target vrk -- --quiet
  nice -n 10 tests/engine/engines.sh build/release/app/vrk local slurm
}

fuzz() { scripts/fuzz.sh --seconds "$fuzz_seconds"; }

faults() { scripts/mutate.sh --count 200 --seed "${VRKCORE_SEED:-1}" --at-least 85; }

checks=()
fuzz_seconds=600
while [[ $# -gt 0 ]]; do
  case "$1" in
    --clang | --coverage | --tidy | --threads | --page | --engines | --fuzz | --faults) checks+=("${1#--}") ;;
    --all) checks=(clang coverage tidy threads page engines fuzz faults) ;;
    -h | --help) usage 0 ;;
    *) usage 2 >&2 ;;
  esac
  if [[ "$1" == --fuzz && "${2:-}" =~ ^[0-9]+$ ]]; then
    fuzz_seconds=$2
    shift
  fi
  shift
done
[[ ${#checks[@]} -gt 0 ]] || usage 2 >&2

scripts/setup.sh --with-all-checks
for check in "${checks[@]}"; do
  echo "check: $check"
  "$check"
done
echo "check: ${checks[*]}: good"
