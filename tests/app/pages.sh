#!/usr/bin/env bash
# Runs the commands of a page, as they stand there, on small simulated data with the names of the page.
# usage: pages.sh VRK PAGE
# A line of a code block is a command when it begins with vrk, with or without the path of the build and a prompt;
# three dots stand for what a user has.
set -euo pipefail
vrk=$(realpath "$1")
page=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p build/release/app bin .local/share/bash-completion/completions
export HOME=$work

# Where the page shows the size of a real data set, a smaller one does.
cat >bin/vrk <<EOF
#!/usr/bin/env bash
case "\$1" in
  demo) set -- "\$@" --size 160 --step 2 --cell 7,8,9,90,90,90 --centring P ;;
  simulate) set -- "\$@" --size 64 ;;
esac
exec "$vrk" "\$@"
EOF
chmod +x bin/vrk
ln -s "$work/bin/vrk" build/release/app/vrk
export PATH=$work/bin:$PATH

# A series of 81 frames that finds its cell in no time; files are recognised by their content, not by their names.
"$vrk" simulate -o series.mrc --cell 6.1,6.1,6.1,90,90,90 --centring I --size 80 --dmin 0.95 --tilts -60:60:1.5 --axis 49 --write-axis --peak 20000 >log.txt
"$vrk" simulate -o garnet.mrc --cell 11.95,11.95,11.95,90,90,90 --centring I --size 112 --dmin 1.7 --tilts -60:60:3 --peak 20000 >log.txt
"$vrk" run series.mrc -o result3 --no-pictures --no-integration >log.txt
for name in one two unknown; do cp series.mrc $name.mrc; done
mkdir frames vrk-demo
cp series.mrc frames/Frame_0001.img
cp series.mrc vrk-demo/series.mrc
for name in stack.mrc movie.tif; do cp series.mrc "$name"; done
for tilt in $(seq -60 1.5 60); do echo "$tilt"; done >stack.rawtlt
cp stack.rawtlt movie.rawtlt
echo "1.6e8 1.61e8" >calibration.txt

commands=$(awk '
  /^```/ { inside = !inside; next }
  inside && !/[.][.][.] / && /^(\$ )?(build\/release\/app\/)?vrk / { sub(/^\$ /, ""); sub(/[ \t]+#.*/, ""); print }
  ' "$page" | awk '!seen[$0]++')
[[ -n "$commands" ]] || { echo "$page has no commands" >&2; exit 1; }
count=0
while IFS= read -r command; do
  if ! bash -c "$command" >out.txt 2>err.txt </dev/null; then
    echo "$(basename "$page"): this command fails:" >&2
    echo "  $command" >&2
    cat err.txt >&2
    exit 1
  fi
  count=$((count + 1))
done <<<"$commands"
echo "$count commands of $(basename "$page") work"
