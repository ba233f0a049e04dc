#!/usr/bin/env bash
# Runs the commands of a page, as they stand there, on small simulated data with the names of the page.
# usage: pages.sh VRK PAGE
# A line of a code block is a command when it begins with vrk, with or without the path of the build and a prompt;
# three dots stand for what a user has. So is what stands between backticks in tables and sentences, on the files as
# they were at first; where that names no file, its options must exist. Words in capitals stand for others.
set -euo pipefail
vrk=$(realpath "$1")
page=$(realpath "$2")
data=$(realpath "$(dirname "$0")/../frames/data")
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
if grep -q garnet "$page"; then
  "$vrk" simulate -o garnet.mrc --cell 11.95,11.95,11.95,90,90,90 --centring I --size 112 --dmin 1.7 --tilts -60:60:3 --peak 20000 >log.txt
fi
if grep -q result3 "$page"; then "$vrk" run series.mrc -o result3 --no-pictures --no-integration >log.txt; fi
for name in one two unknown; do cp series.mrc $name.mrc; done
mkdir frames vrk-demo session
cp series.mrc session
cp series.mrc frames/Frame_0001.img
cp series.mrc vrk-demo/series.mrc
for name in stack.mrc movie.tif; do cp series.mrc "$name"; done
for tilt in $(seq -60 1.5 60); do echo "$tilt"; done >stack.rawtlt
cp stack.rawtlt movie.rawtlt
echo "1.6e8 1.61e8" >calibration.txt

# What collection programs leave beside frames.
for tilt in 0 1 2; do
  "$vrk" simulate -o "$tilt.mrc" --cell 6.1,6.1,6.1,90,90,90 --size 64 --tilts "$tilt:$tilt:1" >log.txt
done
printf 'WAVELENGTH 0.0251\nROTATIONAXIS 139\nCCDPIXELSIZE 0.004\nFILELIST\nFILE 0.mrc 0 0 0\nFILE 1.mrc 1 0 1\nFILE 2.mrc 2 0 2\nENDFILELIST\n' >1.ed3d
printf 'lambda 0.0251\naperpixel 0.004\nomega 221\nimagelist\n0.mrc 0 0\n1.mrc 1 0\n2.mrc 2 0\nendimagelist\n' >series.pts
printf 'OSCILLATION_RANGE= 1.5\nSTARTING_ANGLE= -60.75\nDATA_RANGE= 1 81\nROTATION_AXIS= -0.75 0.66 0\n' >XDS.INP
printf 'Starting angle: -60.75\nEnding angle: 60.75\nOscillation angle: 1.5\nNumber of frames: 81\n' >cRED_log.txt
cp "$data"/nexus_data_00000?.h5 .
cp "$data/nexus_master.h5" scan_master.h5
cp "$data/plain.h5" scan.h5
cp series.mrc kept.mrc

commands=$(awk '
  /^```/ { inside = !inside; next }
  inside && !/[.][.][.] / && /^(\$ )?(build\/release\/app\/)?vrk / { sub(/^\$ /, ""); sub(/[ \t]+#.*/, ""); print }
  ' "$page" | awk '!seen[$0]++')
mentioned=$(grep -oE '`vrk [^`]+`' "$page" | tr -d '`' | grep -vE '[.][.][.]|[A-Z]{4}[A-Z]* ?$|[A-Z]{4}[.]' | sort -u) || true
[[ -n "$commands$mentioned" ]] || { echo "$page has no commands" >&2; exit 1; }

run() {
  if ! bash -c "$1" >out.txt 2>err.txt </dev/null; then
    echo "$(basename "$page"): this command fails:" >&2
    echo "  $1" >&2
    cat err.txt >&2
    exit 1
  fi
}

count=0
while IFS= read -r command; do
  [[ -n "$command" ]] || continue
  run "$command"
  count=$((count + 1))
done <<<"$commands"
while read -r program name rest; do
  [[ -n "$name" ]] || continue
  if [[ -n "$rest" && "$rest" != -* ]]; then
    cp kept.mrc series.mrc
    run "$program $name $rest"
  else
    run "$program help $name"
    for word in $rest; do
      [[ "$word" != --* ]] || grep -qwe "$word" out.txt ||
        { echo "$(basename "$page"): $name has no $word" >&2; exit 1; }
    done
  fi
  count=$((count + 1))
done <<<"$mentioned"
echo "$count commands of $(basename "$page") work"
