#!/usr/bin/env bash
# Builds VRKCore and shows what it does.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
echo "demo: building (preset release)"
cmake --preset release -DVRKCORE_BUILD_TESTS=OFF -DVRKCORE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset release --target vrk -- --quiet
build/release/app/vrk --version
