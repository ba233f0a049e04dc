#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running VRKCore need and that are missing.
# Says nothing when all are there.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libopencv-core-dev libopencv-imgproc-dev libpng-dev
  libeigen3-dev libcli11-dev nlohmann-json3-dev gemmi-dev tao-pegtl-dev
  libtiff-dev zlib1g-dev libbz2-dev nettle-dev libhdf5-dev bitshuffle hdf5-filter-plugin
  libgtest-dev librapidcheck-dev libopencv-imgcodecs-dev libsymspg-dev libbenchmark-dev
  gnuplot-nox
)
# Node.js may come from elsewhere.
node=()
command -v node >/dev/null && command -v npm >/dev/null || node=(nodejs npm)

for argument in "$@"; do
  case "$argument" in
    # What .ci/run uses beyond building and testing.
    --with-checks) packages+=(clang-format doxygen git) ;;
    --with-tidy) packages+=(clang clang-tidy python3) ;;
    # What scripts/check.sh uses.
    --with-all-checks)
      packages+=(clang-format doxygen git clang libclang-rt-14-dev clang-tidy gcovr python3 valgrind locales)
      ;;
    # What the Python module is built and tested with.
    --with-python)
      packages+=(python3 python3-dev python3-pip python3-venv pybind11-dev python3-numpy python3-gemmi
        python3-pytest python3-hypothesis python3-tqdm python3-pandas) ;;
    # What runs batches: the local engine, and Slurm for scripts/check.sh --engines.
    --with-engines) packages+=(snakemake slurm-wlm munge python3) ;;
    # What scripts/report.sh builds the page with, alone, and the browser that it is tried in.
    --with-report) packages=("${node[@]}") ;;
    --with-browser) packages=("${node[@]}" chromium fonts-dejavu-core) ;;
    *) echo "setup: unknown argument $argument" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [[ "$status" == installed ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -eq 0 ]]; then
  sudo=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  sudo=(sudo -n)
else
  echo "setup: these packages are missing and may not be installed from this account: ${missing[*]}" >&2
  echo "setup: run once as root: apt-get install ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${sudo[@]}" apt-get update && "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
       apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "setup: installing failed; the lines above say why" >&2
  exit 1
fi
