#!/usr/bin/env bash
# Runs the commands after a "$ " in the code blocks of pages and writes what they print below them, without the seconds.
# usage: outputs.sh [FRAMES]   FRAMES: the folder of the tutorial's frames; without it the user's guide alone
# The program is that of the release build unless VRK names another.
set -euo pipefail
cd "$(dirname "$0")/.."
vrk=$(realpath "${VRK:-build/release/app/vrk}")
pages=$(realpath docs)
frames=$(realpath "${1:-.}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
ln -s "$vrk" "$work/bin/vrk"
export PATH=$work/bin:$PATH
cd "$work"
[[ $# -eq 0 ]] || ln -s "$frames" frames

refresh() {
  local inside=false answered=false line
  while IFS= read -r line; do
    if [[ "$line" == '```'* ]]; then
      if $inside; then inside=false; else inside=true; fi
      answered=false
    elif $inside && [[ "$line" == '$ '* ]]; then
      echo "$line"
      bash -c "${line#\$ }" 2>>messages.txt </dev/null | sed '/^seconds /d'
      answered=true
      continue
    elif $answered; then
      continue
    fi
    echo "$line"
  done <"$pages/$1" >"$work/page"
  cp "$work/page" "$pages/$1"
}

vrk demo -o vrk-demo >demo.txt 2>&1
refresh users-guide.md
[[ $# -eq 0 ]] || refresh tutorial-garnet.md
