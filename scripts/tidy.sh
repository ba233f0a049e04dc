#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy; any warning is an error.
#   tidy.sh               every source of src, pipeline and app
#   tidy.sh --since REV   the sources that differ from REV or include a header that does
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --with-all-checks
cmake --preset tidy >/dev/null
mapfile -t sources < <(git ls-files 'src/*.cpp' 'pipeline/*.cpp' 'app/*.cpp')
if [[ "${1:-}" == --since ]]; then
  changed=$(git diff --name-only --diff-filter=d "$2" -- 'src/*' 'pipeline/*' 'app/*')
  # A header is named by the end of its path in what includes it.
  headers=$(grep '\.h$' <<<"$changed" | sed 's|^src/||; s|^app/||; s|[.]|\\.|g' | paste -sd '|' || true)
  mapfile -t sources < <({
    grep '\.cpp$' <<<"$changed" || true
    [[ -z "$headers" ]] || grep -lE "#include \"($headers)\"" "${sources[@]}" || true
  } | sort -u)
fi
[[ ${#sources[@]} -gt 0 ]] || { echo "tidy: no source to look at"; exit 0; }

echo "tidy: ${#sources[@]} sources"
log=$(mktemp)
trap 'rm -f "$log" "$log.err"' EXIT
status=0
printf '%s\0' "${sources[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/tidy --quiet --warnings-as-errors='*' >"$log" 2>"$log.err" || status=$?
if [[ $status -ne 0 ]]; then
  grep -v '^$' "$log" | awk '!seen[$0]++' || true
  # Counts of warnings in system headers, which are not shown, are no news.
  grep -vE '^([0-9]+ warnings? (generated|treated)|Suppressed)' "$log.err" || true
  echo "tidy: $(grep -oE '^[^ ]+: (warning|error): .*' "$log" | sort -u | wc -l) warnings" >&2
  exit 1
fi
echo "tidy: no warnings"
