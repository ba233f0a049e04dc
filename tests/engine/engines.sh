#!/usr/bin/env bash
# A batch of forty small series by the local engine and by a Slurm on this machine alone, with everything that goes wrong
# in a night: jobs, engine and machine killed, a requeued task, a full disk, a job that runs into its limit of memory.
# Whatever happened, the same command goes on, and the table is that of an undisturbed run, byte for byte.
# usage: engines.sh VRK [local] [slurm]      root, for the small disk that fills up; without it that part is left out
set -euo pipefail
vrk=$(realpath "$1")
shift
parts=("${@:-local}")
[[ $# -gt 0 ]] || parts=(local slurm)
work=$(mktemp -d)
daemons=()
engine=
mounted=()

clean_up() {
  local status=$? pid folder
  # What waits for an array of a killed engine would wait for ever.
  for pid in $(pgrep -x sbatch); do [[ "$(readlink "/proc/$pid/cwd")" != "$work"/* ]] || kill "$pid" || true; done
  for pid in "${daemons[@]}" $engine; do kill "$pid" 2>/dev/null || true; done
  for pid in "${daemons[@]}"; do wait "$pid" 2>/dev/null || true; done
  for folder in "${mounted[@]}"; do umount "$folder" 2>/dev/null || true; done
  if [[ $status -eq 0 ]]; then rm -rf "$work"; else echo "engines: failed; the files are in $work" >&2; fi
}
trap clean_up EXIT
fail() {
  echo "engines: $*" >&2
  exit 1
}

# Forty series of two phases; the last one is large and needs memory.
make_series() {
  mkdir "$work/session"
  local i cell
  for i in $(seq -w 1 39); do
    cell=4,5,6,90,90,90
    [[ $((10#$i % 3)) -ne 0 ]] || cell=4.2,5.5,6.4,90,100,90
    "$vrk" simulate -o "$work/session/c $i.mrc" --size 64 --dmin 1.2 --tilts -60:60:4 --cell $cell --seed "$((10#$i))" \
      --axis 30 --write-axis >/dev/null
  done
  "$vrk" simulate -o "$work/session/large.mrc" --size 512 --dmin 1 --tilts -60:60:4 --cell 9,10,11,90,90,90 --axis 30 \
    --write-axis --peak 20000 >/dev/null
  # Records of truth are no series; time stands still for the table.
  rm "$work"/session/*.json
  touch -d 2026-01-01T12:00:00Z "$work"/session/*
}

options=(--no-pictures --no-integration)
outcomes() { cat "$1"/records/*.json 2>/dev/null | grep -c "\"outcome\": \"$2\"" || true; }

# Waits until so many jobs of a batch are done.
wait_done() {
  local i
  for i in $(seq 1 1200); do
    [[ $(outcomes "$1" done) -lt $2 ]] || return 0
    sleep 0.1
  done
  fail "$1: fewer than $2 jobs are done after two minutes"
}

# The processes of small jobs of a batch: "jobs" keep the records, "runs" are what these make of themselves for a run.
processes() {
  local pid parent kind
  for pid in $(pgrep -f -- '--job c_'); do
    [[ "/proc/$pid/exe" -ef "$vrk" && "/proc/$pid/cwd" -ef "$1" ]] || continue
    { read -r _ _ _ parent _ <"/proc/$pid/stat"; } 2>/dev/null || continue
    kind="jobs"
    if [[ "/proc/$parent/exe" -ef "$vrk" ]]; then kind="runs"; fi
    [[ "$kind" != "$2" ]] || echo "$pid"
  done
}

# Kills one of them when there is one.
kill_one() {
  local i pid
  for i in $(seq 1 600); do
    pid=$(processes "$1" "$2")
    pid=${pid%%$'\n'*}
    if [[ -n "$pid" ]] && kill -9 "$pid" 2>/dev/null; then return 0; fi
    sleep 0.02
  done
  fail "there were no $2 to be killed"
}

# A disk of a few blocks where the results of one job go.
fill_disk() {
  [[ $(id -u) -eq 0 ]] || { echo "  no small disk without root"; return; }
  mkdir -p "$1"
  mount -t tmpfs -o size=64k tmpfs "$1" || { echo "  no small disk here"; return; }
  mounted+=("$1")
}
free_disk() {
  [[ ${#mounted[@]} -gt 0 ]] || return 0
  umount "$1"
  mounted=()
}

# The batch goes on until all is done; the table is the reference's.
go_on_and_compare() {
  local out=$1 attempt
  shift
  for attempt in 1 2 3 4 5; do
    if "$vrk" batch -o "$out" "$@" >"$work/out.txt" 2>"$work/err.txt"; then break; fi
    echo "  attempt $attempt: $(grep -m 1 'have no result' "$work/err.txt" || tail -n 1 "$work/err.txt")"
  done
  [[ $(outcomes "$out" done) -eq 40 ]] || fail "$out: $(outcomes "$out" done) of 40 are done: $(cat "$work/err.txt")"
  for table in crystals.csv crystals.json instrument.json; do
    cmp "$work/reference/$table" "$out/$table" || fail "$table of $out is another"
  done
  echo "  40 done, the table is the same byte for byte"
}

local_engine() {
  local out=$work/local
  echo "engines: local, undisturbed"
  "$vrk" batch "$work/session" -o "$work/reference" --jobs 2 -- "${options[@]}" >"$work/out.txt" 2>"$work/err.txt" ||
    fail "$(cat "$work/err.txt")"
  [[ $(outcomes "$work/reference" done) -eq 40 ]] || fail "not all are done"
  echo "  40 done in $(awk -F, 'NR > 1 { s += $4 } END { printf "%.0f s of jobs", s }' "$work/reference/cost.csv")"

  echo "engines: local, a job, its process and the engine killed, a disk full, a job without memory"
  "$vrk" batch "$work/session" -o "$out" --plan-only -- "${options[@]}" >/dev/null
  fill_disk "$out/results/$(cd "$work/reference/results" && ls -d c_05*)"
  # Of the jobs only the large one needs more than this.
  (
    ulimit -v 400000
    exec "$vrk" batch -o "$out" --jobs 2 >/dev/null 2>&1
  ) &
  engine=$!
  wait_done "$out" 4
  kill_one "$out" runs
  kill_one "$out" jobs
  wait_done "$out" 10
  kill -9 $engine
  wait $engine 2>/dev/null || true
  engine=
  echo "  $(outcomes "$out" done) done when the engine was killed"
  (ulimit -v 400000; "$vrk" batch -o "$out" --jobs 2 >/dev/null 2>"$work/err.txt") || true
  grep -qE "large: (out of memory|.*could not be allocated)" "$work/err.txt" || fail "the large job did not run out of memory: $(cat "$work/err.txt")"
  if [[ ${#mounted[@]} -gt 0 ]]; then
    grep -qE "free space|disk full" "$work/err.txt" || fail "a full disk is not told: $(cat "$work/err.txt")"
    free_disk "$out"/results/c_05*
  fi
  go_on_and_compare "$out" --jobs 2
}

# A controller and a node of Slurm, on the loopback alone.
start_slurm() {
  local slurm=$work/slurm
  mkdir -p "$slurm/state" "$slurm/spool"
  cat >"$slurm/slurm.conf" <<EOF
ClusterName=tests
SlurmctldHost=localhost(127.0.0.1)
CommunicationParameters=NoCtldInAddrAny,NoInAddrAny
SlurmUser=$(id -un)
SlurmdUser=$(id -un)
SlurmctldPort=16817
SlurmdPort=16818
AuthType=auth/munge
AuthInfo=socket=$slurm/munge.socket
CredType=cred/munge
StateSaveLocation=$slurm/state
SlurmdSpoolDir=$slurm/spool
SlurmctldPidFile=$slurm/slurmctld.pid
SlurmdPidFile=$slurm/slurmd.pid
SlurmctldLogFile=$slurm/slurmctld.log
SlurmdLogFile=$slurm/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
MpiDefault=none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
JobAcctGatherType=jobacct_gather/linux
JobAcctGatherFrequency=1
JobAcctGatherParams=OverMemoryKill
SchedulerParameters=sched_interval=2,batch_sched_delay=0
KillWait=2
ReturnToService=2
NodeName=localhost NodeAddr=127.0.0.1 CPUs=2 RealMemory=8000 State=UNKNOWN
PartitionName=tests Nodes=ALL Default=YES MaxTime=INFINITE State=UP
EOF
  head -c 1024 /dev/urandom >"$slurm/munge.key"
  chmod 600 "$slurm/munge.key"
  munged --foreground --socket="$slurm/munge.socket" --key-file="$slurm/munge.key" --pid-file="$slurm/munge.pid" \
    --log-file="$slurm/munge.log" --seed-file="$slurm/munge.seed" --force >/dev/null 2>&1 &
  daemons+=($!)
  export SLURM_CONF=$slurm/slurm.conf
  sleep 1
  slurmctld -D >/dev/null 2>&1 &
  daemons+=($!)
  slurmd -D -N localhost >/dev/null 2>&1 &
  daemons+=($!)
  local i
  for i in $(seq 1 60); do
    sinfo -h -o %t 2>/dev/null | grep -q idle && return
    sleep 0.5
  done
  fail "Slurm did not start: $(tail -n 3 "$slurm"/*.log)"
}

slurm_engine() {
  local out=$work/cluster task
  start_slurm
  echo "engines: Slurm, undisturbed"
  "$vrk" batch "$work/session" -o "$work/calm" --slurm --partition tests -- "${options[@]}" >"$work/out.txt" \
    2>"$work/err.txt" || fail "$(cat "$work/err.txt")"
  if [[ -d "$work/reference" ]]; then
    cmp "$work/reference/crystals.csv" "$work/calm/crystals.csv" || fail "Slurm gives another table"
  else
    cp -r "$work/calm" "$work/reference"
  fi
  echo "  40 done in arrays of $(sed 's/.*"tasks": *"0-\([0-9]*\)".*/\1/; t; d' "$work/calm/workflow/settings.json" |
    awk '{ print $1 + 1 }' | paste -sd+) tasks"

  echo "engines: Slurm, a task requeued, a job, its process and the engine killed, a disk full, a limit of memory"
  "$vrk" batch "$work/session" -o "$out" --plan-only -- "${options[@]}" >/dev/null
  # A plan that takes the large series for a small one asks for too little.
  sed -i 's/"columns":512,"rows":512/"columns":16,"rows":16/' "$out/batch.json"
  fill_disk "$out/results/$(cd "$work/reference/results" && ls -d c_05*)"
  "$vrk" batch -o "$out" --slurm >/dev/null 2>&1 &
  engine=$!
  wait_done "$out" 3
  task=$(squeue -h -t RUNNING -o %A)
  task=${task%%$'\n'*}
  [[ -n "$task" ]] || fail "no task runs"
  scontrol requeue "$task"
  echo "  task $task requeued"
  kill_one "$out" runs
  kill_one "$out" jobs
  wait_done "$out" 12
  kill -9 $engine
  wait $engine 2>/dev/null || true
  engine=
  echo "  $(outcomes "$out" done) done when the engine was killed, $(squeue -h -r | grep -c .) tasks in the queue"
  # At once, while tasks of the first are under way; the disk is still full.
  "$vrk" batch -o "$out" --slurm --array-size 10 >/dev/null 2>"$work/err.txt" || true
  if [[ ${#mounted[@]} -gt 0 ]]; then
    grep -qE "free space|disk full" "$work/err.txt" || fail "a full disk is not told: $(cat "$work/err.txt")"
    free_disk "$out"/results/c_05*
  fi
  if [[ $(grep -l '"unended": [1-9]' "$out"/records/large.json) ]]; then
    echo "  the large job ended without a word $(sed -n 's/.*"unended": \([0-9]*\).*/\1/p' "$out/records/large.json") times"
  fi
  go_on_and_compare "$out" --slurm
  grep -q '"attempts": 1,' "$out/records/large.json" && fail "the large job did not run into its limit of memory"
  return 0
}

for program in snakemake $([[ " ${parts[*]} " != *" slurm "* ]] || echo sbatch slurmctld slurmd munged); do
  command -v "$program" >/dev/null || fail "$program is missing; scripts/setup.sh --with-engines installs it"
done
make_series
for part in "${parts[@]}"; do "${part}_engine"; done
echo "engines: good"
