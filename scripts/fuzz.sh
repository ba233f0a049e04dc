#!/usr/bin/env bash
# Builds the fuzz targets of tests/fuzz (preset fuzz: Clang's libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) and
# runs them: first every input of their corpora, then new ones. Stops at the first target that fails; the input lies in
# build/fuzz/found. Ends with a table: executions, executions a second, the slowest input and the peak of the memory.
#   scripts/fuzz.sh [--seconds N] [--jobs N] [--build-only] [TARGET...]
#   --seconds N   for each target (60); 0: the corpora alone
#   --jobs N      targets at a time (1)
#   --ci          20 seconds each, two at a time
#   --list        the names of the targets
# An input may take 30 seconds on the clock, for the machine may be busy: the table tells the slowest, which should be below 5
# here, about one in an optimised build. It may take no more than 256 MiB in one piece.
# `build/fuzz/tests/fuzz/fuzz_TARGET FILE` runs one input again.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
jobs=1
action=run
targets=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --seconds) seconds=$2; shift ;;
    --jobs) jobs=$2; shift ;;
    --ci) seconds=20; jobs=2 ;;
    --build-only) action=build ;;
    --list) action=list ;;
    -h | --help) sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
    -*) echo "fuzz: unknown argument $1" >&2; exit 2 ;;
    *) targets+=("$1") ;;
  esac
  shift
done

mapfile -t all < <(ls tests/fuzz/corpus)
[[ ${#targets[@]} -gt 0 ]] || targets=("${all[@]}")
if [[ "$action" == list ]]; then
  printf '%s\n' "${all[@]}"
  exit 0
fi

cmake --preset fuzz >/dev/null
# shellcheck disable=SC2086
cmake --build --preset fuzz ${VRKCORE_BUILD_ARGS:-} --target "${targets[@]/#/fuzz_}" -- --quiet
[[ "$action" == run ]] || exit 0

# The sanitizers keep freed memory and may map more than they use; what the target asks for is limited apart from that.
export ASAN_OPTIONS=quarantine_size_mb=8:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
limits=(-timeout=30 -malloc_limit_mb=256 -rss_limit_mb=600 -print_final_stats=1 -verbosity=1)
mkdir -p build/fuzz/found

run_target() {
  local target=$1 log=build/fuzz/found/$1.log grown=build/fuzz/grown/$1 longest=65536
  local program=build/fuzz/tests/fuzz/fuzz_$target dictionary=tests/fuzz/dictionaries/$target.dict
  local options=("${limits[@]}" "-artifact_prefix=build/fuzz/found/$target-")
  [[ -f "$dictionary" ]] && options+=("-dict=$dictionary")
  # Longer input of these is only more of the same.
  case "$target" in
    reduction | symmetry | clustering | refinement | cell_search | run) longest=2000 ;;
  esac
  mkdir -p "$grown"
  if ! "$program" "${options[@]}" -runs=0 "tests/fuzz/corpus/$target" >"$log" 2>&1 ||
     { [[ "$seconds" -gt 0 ]] && ! "$program" "${options[@]}" "-max_len=$longest" "-max_total_time=$seconds" \
         "$grown" "tests/fuzz/corpus/$target" >"$log" 2>&1; }; then
    echo "fuzz: $target fails:" >&2
    tail -n 60 "$log" >&2
    return 1
  fi
  awk -v target="$target" '
    /^stat::number_of_executed_units/ { runs = $2 }
    /^stat::average_exec_per_sec/ { rate = $2 }
    /^stat::slowest_unit_time_sec/ { slowest = $2 }
    /^stat::peak_rss_mb/ { peak = $2 }
    END { printf "fuzz: %-18s %12d runs %8d per second, slowest %d s, peak %d MiB\n", target, runs, rate, slowest, peak }
  ' "$log"
}

# Every job takes the targets of its turn; a failure ends them all.
job() {
  local i
  for ((i = $1; i < ${#targets[@]}; i += jobs)); do
    [[ ! -e build/fuzz/found/failed ]] || return 1
    run_target "${targets[i]}" || { touch build/fuzz/found/failed; return 1; }
  done
}

rm -f build/fuzz/found/failed
pids=()
for ((n = 0; n < jobs; n++)); do
  job "$n" &
  pids+=($!)
done
status=0
for pid in "${pids[@]}"; do
  wait "$pid" || status=1
done
[[ "$status" -eq 0 ]] && echo "fuzz: ${#targets[@]} targets, nothing found"
exit "$status"
