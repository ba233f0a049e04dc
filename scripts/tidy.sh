#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy over every source of src, pipeline and app; any warning is an error.
# The sources of a folder are read as one, so that what they include is read once.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --with-tidy
cmake --preset tidy >/dev/null
mapfile -t units < <(python3 -c '
import json
from pathlib import Path
for command in json.loads(Path("build/tidy/compile_commands.json").read_text()):
    unit = Path(command["file"])
    # What the build writes is no source.
    if unit.suffix != ".cxx" or "/build/tidy/" not in unit.read_text():
        print(unit)')

echo "tidy: ${#units[@]} units"
log=$(mktemp)
trap 'rm -f "$log" "$log.err"' EXIT
status=0
# The file that puts sources together includes sources.
printf '%s\0' "${units[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/tidy --quiet --checks=-bugprone-suspicious-include \
    --warnings-as-errors='*' >"$log" 2>"$log.err" || status=$?
if [[ $status -ne 0 ]]; then
  grep -v '^$' "$log" | awk '!seen[$0]++' || true
  # Counts of warnings in system headers, which are not shown, are no news.
  grep -vE '^([0-9]+ warnings? (generated|treated)|Suppressed)' "$log.err" || true
  echo "tidy: $(grep -oE '^[^ ]+: (warning|error): .*' "$log" | sort -u | wc -l) warnings" >&2
  exit 1
fi
echo "tidy: no warnings"
