#!/usr/bin/env bash
# Builds the page that vrk writes as report.html: report/dist/report.html from report/src.
#   --check   builds it aside and fails when the one in the repository is another
#   --test    tries pages of simulated series in a browser; their pictures go to build/report, to be looked at.
#             The program is that of the release build unless VRK names another.
set -euo pipefail
cd "$(dirname "$0")/.."

install() {
  scripts/setup.sh "$1"
  (
    cd report
    # What the lock file names and nothing else; kept while the file stays as it is.
    if ! cmp -s package-lock.json node_modules/.installed; then
      npm ci --silent
      cp package-lock.json node_modules/.installed
    fi
  )
}

case "${1:-}" in
  "")
    install --with-report
    (cd report && node_modules/.bin/tsc && node build.mjs)
    ;;
  --check)
    install --with-report
    made=$(mktemp -d)
    trap 'rm -rf "$made"' EXIT
    (cd report && node_modules/.bin/tsc && node build.mjs "$made")
    if ! cmp "$made/report.html" report/dist/report.html; then
      echo "report: report/dist/report.html is not what report/src makes; run scripts/report.sh and commit it" >&2
      exit 1
    fi
    ;;
  --test)
    install --with-browser
    VRK=$(realpath "${VRK:-build/release/app/vrk}") PICTURES=$(realpath -m build/report) \
      node --test --test-reporter=spec report/test/page.test.mjs
    ;;
  *)
    sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0" >&2
    exit 2
    ;;
esac
