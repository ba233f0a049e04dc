#!/usr/bin/env bash
# The checks that take longer than .ci/run may. Each is a flag; --all runs them one after another.
#   --clang      a build by Clang without warnings, and all tests
#   --coverage   the tests reach at least 90 % of the lines of src and pipeline; the report is build/coverage/lines.html
#   --tidy       clang-tidy over every source
#   --page       the page of the report works in a browser; its pictures are in build/report
#   --engines    batches by the local engine and by a Slurm on this machine: killed, resumed, the same table
#   --fuzz [N]   every fuzz target for N seconds (600), from where the last time ended
#   --faults     of 200 planted one-line faults the tests notice at least 85 %
#   --survive    no kill, fault or lack does harm to results: 100 accidents of each kind for each command (tests/faults)
#   --valgrind   a small run, import and verification under Valgrind: no error, nothing lost
#   --threads    ThreadSanitizer finds nothing in loops that threads share, nor in the tests of the run
#   --soak       2,000 runs in one process: memory and descriptors stay, results are the same, in two threads too
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

release() {
  cmake --preset release >/dev/null
  cmake --build --preset release --target "$@" -- --quiet
}

survive() {
  release vrk vrk_faults
  # A locale with a decimal comma, for those who may make one.
  locale -a | grep -qi '^de_DE.utf-\?8$' || localedef -i de_DE -f UTF-8 de_DE.UTF-8 2>/dev/null || true
  python3 tests/faults/faults.py build/release/app/vrk build/release/tests/faults/libvrk_faults.so \
    --count "${VRKCORE_ACCIDENTS:-100}" --seed "${VRKCORE_SEED:-1}"
}

valgrind() {
  release vrk
  local work vrk
  work=$(mktemp -d)
  vrk=$(realpath build/release/app/vrk)
  (
    cd "$work"
    small="--cell 5.2,6.1,4.6,90,105,90 --centring C --size 64 --dmin 1.2 --seed 4 --tilts -60:60:6 --axis 6 --write-axis"
    for line in "simulate -o series.mrc $small" "import series.mrc -o imported.mrc --sum 2" \
      "run series.mrc -o result --no-pictures --tilt-axis 6" "verify result --input series.mrc"; do
      echo "valgrind: vrk $line"
      # Memory that the libraries of others keep to the end is reachable still.
      # shellcheck disable=SC2086
      command valgrind --quiet --error-exitcode=9 --leak-check=full --errors-for-leak-kinds=definite --num-callers=20 \
        "$vrk" $line >/dev/null
    done
  )
  rm -rf "$work"
}

threads() {
  scripts/threads.sh
  cmake --preset thread >/dev/null
  cmake --build --preset thread --target test_run -- --quiet
  # The image library's own threads are not compiled for it.
  TSAN_OPTIONS="halt_on_error=1 ignore_noninstrumented_modules=1" ctest --preset thread -R '^run\.'
}

soak() {
  release soak
  build/release/tests/faults/soak 2000
}

checks=()
fuzz_seconds=600
while [[ $# -gt 0 ]]; do
  # With or without the dashes.
  check=${1#--}
  case "$check" in
    clang | coverage | tidy | threads | page | engines | fuzz | faults | survive | valgrind | soak) checks+=("$check") ;;
    all) checks=(clang coverage tidy threads page engines fuzz faults survive valgrind soak) ;;
    -h | help) usage 0 ;;
    *) usage 2 >&2 ;;
  esac
  if [[ "$check" == fuzz && "${2:-}" =~ ^[0-9]+$ ]]; then
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
