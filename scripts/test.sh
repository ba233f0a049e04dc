#!/usr/bin/env bash
# Builds VRKCore and runs all its tests. An argument names another preset: test.sh sanitize
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

scripts/setup.sh
echo "test: building (preset $preset)"
cmake --preset "$preset" ${VRKCORE_CMAKE_ARGS:-} >/dev/null
cmake --build --preset "$preset" -- --quiet
echo "test: running the tests"
ctest --preset "$preset"
