#!/usr/bin/env bash
# Compares two commits by the instructions that a run of a small simulated series executes, by stage: noise of the
# machine does not touch them. Builds each commit in a worktree of its own under build/instructions.
#   scripts/instructions.sh COMMIT [COMMIT]     the second is the working tree's HEAD unless it is given
# Ends with 1 when the second needs more than 2 % more (VRKCORE_LIMIT, percent).
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ $# -lt 1 || $# -gt 2 || "$1" == -* ]]; then
  sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0"
  exit 2
fi
before=$(git rev-parse --verify "$1^{commit}")
after=$(git rev-parse --verify "${2:-HEAD}^{commit}")
limit=${VRKCORE_LIMIT:-2}
command -v valgrind >/dev/null || { echo "instructions: valgrind is not installed (apt-get install valgrind)" >&2; exit 2; }
root=$PWD/build/instructions
mkdir -p "$root"
series=$root/series.mrc

# build COMMIT: the program of a commit.
build() {
  local tree=$root/$1
  [[ -d "$tree" ]] || git worktree add --detach --force "$tree" "$1" >/dev/null 2>&1
  (
    cd "$tree"
    cmake --preset release -DVRKCORE_BUILD_TESTS=OFF -DVRKCORE_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build --preset release --target vrk -- --quiet
  ) >&2
}

# count COMMIT: total and the functions that need most, in one thread where the commit has threads.
count() {
  local program=$root/$1/build/release/app/vrk out=$root/$1.callgrind jobs=()
  "$program" run --help | grep -q -- '--jobs .*[Tt]hread' && jobs=(--jobs 1)
  valgrind --tool=callgrind --callgrind-out-file="$out" "$program" run "$series" -o "$root/result" --no-pictures \
    "${jobs[@]}" >/dev/null 2>"$root/$1.log" || { cat "$root/$1.log" >&2; exit 1; }
  callgrind_annotate "$out" 2>/dev/null >"$root/$1.txt"
  sed -n 's/^ *\([0-9,]*\) .*PROGRAM TOTALS.*/\1/p' "$root/$1.txt" | tr -d ,
}

build "$before"
build "$after"
"$root/$before/build/release/app/vrk" simulate -o "$series" --cell 7,9,12,90,90,90 --size 128 --tilts=-40:40:2 \
  --write-axis --axis 20 --seed 1 >/dev/null
old=$(count "$before")
new=$(count "$after")
echo "instructions of a run of 41 frames of 128 x 128"
printf '%-12s %15s\n' "${before:0:10}" "$old" "${after:0:10}" "$new"
for commit in "$before" "$after"; do
  echo
  echo "most in ${commit:0:10}:"
  awk '/^ *[0-9,]+ \(/ && !/TOTALS/ && ++lines <= 12 { print substr($0, 1, 150) }' "$root/$commit.txt"
done
awk -v old="$old" -v new="$new" -v limit="$limit" 'BEGIN {
  change = 100 * (new / old - 1)
  printf "\nchange %+.2f %%\n", change
  exit change > limit ? 1 : 0
}'
