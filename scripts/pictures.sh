#!/usr/bin/env bash
# Draws the pictures of docs/troubleshooting.md anew: a simulated crystal, right and with one thing wrong.
# The program is that of the release build unless VRK names another.
set -euo pipefail
cd "$(dirname "$0")/.."
vrk=$(realpath "${VRK:-build/release/app/vrk}")
images=$(realpath docs/images)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

crystal="--cell 5.6,6.4,7.2,90,90,90 --axis-along 1,2,0 --size 256 --dmin 0.9 --tilts -60:60:1 --seed 3 --axis 20"
simulate() { "$vrk" simulate -o "$1.mrc" $crystal "${@:2}" >simulate.txt; }
# Volume and pictures of a series: NAME SERIES ROTATION [OPTIONS OF preprocess]
draw() {
  "$vrk" preprocess "$2.mrc" -o clean.mrc --rotate "$3" "${@:4}" >preprocess.txt
  "$vrk" reconstruct clean.mrc -o "$1.volume.mrc" >reconstruct.txt
  if [[ ! -e cell.txt ]]; then
    "$vrk" peaks "$1.volume.mrc" -o peaks.txt --threshold 60 --zero-beam 12 >peaks-table.txt
    "$vrk" cell peaks.txt -o cell.txt >cell-table.txt
  fi
  "$vrk" sections "$1.volume.mrc" cell.txt -o "$1" --plane hk0 --size 384 --nodes >sections.txt
}

simulate right
simulate jumps --jump 12 --jumps 4
simulate second --second-crystal 0.6
draw right right 20
draw axis right 32
draw centre jumps 20 --no-centre
draw second second 20
for name in right axis centre; do cp "$name/projection_y.png" "$images/trouble-$name.png"; done
for name in right second; do cp "$name/hk0.png" "$images/trouble-$name-hk0.png"; done
