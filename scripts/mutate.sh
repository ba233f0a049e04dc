#!/usr/bin/env bash
# Plants faults of one line in a scratch copy and tells which of them no test notices. See scripts/mutate.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 scripts/mutate.py "$@"
