#!/usr/bin/env bash
# The threads of the pipeline under ThreadSanitizer: builds the core and the one test of shared loops, and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset thread >/dev/null
cmake --build --preset thread --target test_threads -- --quiet
# OpenCV is not built for it; the loops use it from one thread at a time.
TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/threads/suppressions.txt" build/thread/tests/threads/test_threads
