#!/usr/bin/env bash
# Builds the reference of the public headers, build/reference/html. Whatever Doxygen complains of is an error.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --with-checks
mkdir -p build/reference
doxygen docs/Doxyfile
echo "reference: build/reference/html/index.html"
