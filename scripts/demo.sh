#!/usr/bin/env bash
# Builds VRKCore and shows what it does: simulates a tilt series, finds its cell and compares it with the truth.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
echo "demo: building (preset release)"
cmake --preset release >/dev/null
cmake --build --preset release --target vrk -- --quiet
echo "demo: simulating a tilt series and finding its cell"
build/release/app/vrk demo -o build/demo
