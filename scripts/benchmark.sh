#!/usr/bin/env bash
# Speed against rivals, measured in turns in one sitting, as a table: memcpy, plain reads and counts, spglib, scikit-learn
# (Debian's python3-sklearn, where it is installed), and a whole run on one thread and on all cores. Minutes on a quiet machine.
#   scripts/benchmark.sh [--rounds N] [--size PIXELS]
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ "${1:-}" == -h || "${1:-}" == --help ]]; then
  sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0"
  exit 0
fi
cmake --preset release >/dev/null
cmake --build --preset release --target vrk bench_reconstruction bench_find_reflexes bench_mrc_file bench_niggli \
  bench_cell_finding -- --quiet
echo "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(nproc) cores"
exec benchmarks/compare.py build/release "$@"
