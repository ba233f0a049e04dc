#!/usr/bin/env python3
"""What no accident may do to the results of vrk.

Kills and interrupts every command that writes, lets its calls of the system fail, and takes its files away while it
works. After each accident no file under a good name may be damaged, exit code and message must say what happened, and
the next run must succeed. Prints a table; the exit code is 1 when anything was wrong.

usage: faults.py VRK LIBRARY [--count N] [--seed N] [--exact] [--kinds A,B] [--commands A,B]
  LIBRARY   built of FaultInjection.cpp
  --count   accidents of each kind for each command [100]
  --seed    of what is random [1]
  --exact   the same accidents each time, however busy the machine is: they happen when the program has asked for memory
            so many times, and it works in one thread; else they happen at a time
  --kinds, --commands   these alone
"""

import argparse
import hashlib
import os
import random
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SERIES = ("simulate -o series.mrc --cell 5.2,6.1,4.6,90,105,90 --centring C --size 80 --dmin 1.1 --seed 4 "
          "--tilts -60:60:4 --axis 6 --write-axis")
# What commands read and how it is made, each of those before it.
INPUTS = {
    "series.mrc": SERIES,
    "clean.mrc": "preprocess series.mrc -o clean.mrc --rotate header",
    "volume.mrc": "reconstruct clean.mrc -o volume.mrc",
    "peaks.txt": "peaks volume.mrc -o peaks.txt --threshold 30 --zero-beam 8",
    "cell.txt": "cell peaks.txt -o cell.txt",
    "result": "run series.mrc -o result --no-pictures",
    "other.mrc": SERIES.replace("series.mrc", "other.mrc").replace("-60:60:4", "-58:62:4"),
    "other": "run other.mrc -o other --no-pictures",
}
# What writes, and what it writes; a folder is a result.
COMMANDS = {
    "run": ("run series.mrc -o out --no-pictures", ["out"]),
    "run with pictures": ("run series.mrc -o out", ["out"]),
    "report": ("report result -o page.html", ["page.html"]),
    "import": ("import series.mrc -o x.mrc --bin 2", ["x.mrc"]),
    "simulate": (SERIES.replace("series.mrc", "x.mrc"), ["x.mrc", "x.truth.json"]),
    "preprocess": ("preprocess series.mrc -o x.mrc --rotate header", ["x.mrc"]),
    "reconstruct": ("reconstruct clean.mrc -o x.mrc", ["x.mrc"]),
    "peaks": ("peaks volume.mrc -o x.txt --threshold 30 --zero-beam 8", ["x.txt"]),
    "cell": ("cell peaks.txt -o x.txt --report r.txt", ["x.txt", "r.txt", "r.json"]),
    "index": ("index peaks.txt cell.txt -o x.hkl --format shelx --voltage 200", ["x.hkl", "x.ins"]),
    "sections": ("sections volume.mrc cell.txt -o pictures", ["pictures/hk0.png", "pictures/h0l.png"]),
    "tilt-axis": ("tilt-axis clean.mrc -o axis --range 4 8 1 --preprocessed", []),
    "calibrate": ("calibrate series.mrc -o x.json", ["x.json"]),
    "info": ("info series.mrc --picture x.png", ["x.png"]),
    "merge": ("merge result other -o out --no-pictures", ["out"]),
    "batch": ("batch list.txt -o out --plan-only", ["out/batch.json", "out/jobs.txt"]),
}
# The dear ones take a part of the accidents.
SHARE = {"run with pictures": 0.2, "sections": 0.3, "tilt-axis": 0.3, "calibrate": 0.5}
# Seconds after which a command hangs.
PATIENCE = 600


class Trouble(Exception):
    pass


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class Bench:
    """A folder with what the commands read, and what they write when nothing happens."""

    def __init__(self, vrk, library, folder, commands, exact):
        self.vrk, self.library, self.folder, self.exact = vrk, library, folder, exact
        if exact:
            os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
        (folder / "list.txt").write_text("series.mrc\n")
        self.provide("series.mrc " + " ".join(COMMANDS[name][0] for name in commands))
        self.inputs = {entry.name: digest(entry) for entry in folder.iterdir() if entry.is_file()}
        self.whole, self.seconds, self.calls = {}, {}, {}

    def provide(self, line):
        """Makes what a command reads."""
        for word in line.split():
            if word in INPUTS and not (self.folder / word).exists():
                if word != "series.mrc":
                    self.provide(INPUTS[word].split(" -o ")[0])
                self.succeed(INPUTS[word])

    def start(self, line, faults=None, **more):
        environment = dict(os.environ, **{k: str(v) for k, v in (faults or {}).items()})
        if faults:
            environment["LD_PRELOAD"] = self.library
        return subprocess.Popen([self.vrk, *line.split()], cwd=self.folder, env=environment, stdin=subprocess.DEVNULL,
                                **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True,
                                   "errors": "replace", **more})

    def begin(self, name, part):
        """A command that has done a part of its work; let() lets it go on."""
        line, _ = COMMANDS[name]
        if not self.exact:
            process = self.start(line)
            time.sleep(part * self.seconds[name])
            return process
        process = self.start(line, {"VRK_FAULT_STOP": 1 + int(part * self.calls[name]["MALLOC"])})
        os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
        return process

    def let(self, process):
        """\returns what it said about errors, when it has ended"""
        if self.exact:
            process.send_signal(signal.SIGCONT)
        return process.communicate(timeout=PATIENCE)[1]

    def succeed(self, line, faults=None):
        process = self.start(line, faults)
        _, errors = process.communicate(timeout=PATIENCE)
        if process.returncode != 0:
            raise Trouble(f"vrk {line}: exit code {process.returncode}: {errors.strip()[-200:]}")

    def remember(self, name):
        """What the command writes, how long it takes and how often it asks the system, undisturbed."""
        if name in self.whole:
            return
        line, outputs = COMMANDS[name]
        self.clear()
        counts = self.folder / "counts"
        began = time.monotonic()
        self.succeed(line, {"VRK_FAULT_COUNT": counts})
        self.seconds[name] = time.monotonic() - began
        self.calls[name] = dict(zip(("MALLOC", "WRITE", "READ"), map(int, counts.read_text().split())))
        self.whole[name] = {output: self.state(output) for output in outputs}

    def state(self, output):
        """The bytes of a file; the files of a result, or whether it is one."""
        path = self.folder / output
        if path.name == "batch.json" and path.is_file():
            # A series whose header cannot be read at first is imported.
            return path.read_text().replace('"import":true', '"import":false')
        if path.is_file():
            return digest(path)
        if not (path / "summary.json").exists():
            return None
        lines = (path / "SHA256SUMS").read_text().splitlines()
        for line in lines:
            sum_, name = line[:64], line[66:]
            if not (path / name).is_file() or digest(path / name) != sum_:
                raise Trouble(f"{output}/{name} is not that of its summary")
        listed = {line[66:].split("/")[0] for line in lines} | {"SHA256SUMS", "unfinished", "earlier"}
        other = {entry.name for entry in path.iterdir()} - listed
        if other - {".vrk-lock"}:
            raise Trouble(f"{output} holds files of no result: {sorted(other)}")
        return "result"

    def clear(self):
        for entry in self.folder.iterdir():
            if entry.is_dir() and entry.name not in INPUTS:
                shutil.rmtree(entry)
            elif entry.is_file() and entry.name not in getattr(self, "inputs", {}):
                entry.unlink()

    def check(self, name, killed=False, code=None):
        """No file under a good name that is not whole; none missing after success."""
        for output, whole in self.whole[name].items():
            if (self.folder / output).exists() and self.state(output) not in (None, whole):
                raise Trouble(f"{output} is not whole")
        if not killed:
            parts = [str(p.relative_to(self.folder)) for p in self.folder.rglob("*.part*")]
            if parts:
                raise Trouble(f"left behind: {parts}")
        for file, sum_ in self.inputs.items():
            if digest(self.folder / file) != sum_:
                raise Trouble(f"the input {file} was changed")
        if code == 0:
            self.check_whole(name)

    def check_end(self, process, allowed, errors=None):
        if errors is None:
            errors = process.communicate(timeout=PATIENCE)[1]
        if process.returncode not in allowed:
            raise Trouble(f"exit code {process.returncode}: {errors.strip()[-300:]!r}")
        if process.returncode > 0 and not any(
                line.startswith("vrk: ") and "warning:" not in line for line in errors.splitlines()):
            raise Trouble(f"exit code {process.returncode} without a reason: {errors[-300:]!r}")
        return process.returncode

    def check_whole(self, name):
        for output, whole in self.whole[name].items():
            if self.state(output) != whole:
                raise Trouble(f"exit code 0, but {output} is not what it should be")


# Kinds of accidents: each does one to a command. They return what the exit code was.

def stopped(bench, name, rng, number):
    """Killed or asked to stop at a random time; an earlier result is in the folder every other time."""
    line, _ = COMMANDS[name]
    if rng.random() < 0.5:
        bench.succeed(line)
    process = bench.begin(name, rng.random() * 1.1)
    process.send_signal(number)
    errors = bench.let(process)
    # Before the program has begun it ends as any other does.
    allowed = (0, -number) if number == signal.SIGKILL else (0, 128 + number, -number)
    code = bench.check_end(process, allowed, errors)
    bench.check(name, killed=process.returncode == -number, code=code)
    bench.succeed(line)
    bench.check_whole(name)
    return code


def failing(bench, name, rng, call):
    """One call of the system fails: an allocation, a write or a read."""
    line, _ = COMMANDS[name]
    count = bench.calls[name][call]
    if count == 0:
        return None
    code = bench.check_end(bench.start(line, {f"VRK_FAULT_{call}": 1 + rng.randrange(count)}), (0, 1, 3))
    # An optional file that cannot be read is left out: the result is another one then.
    bench.check(name, code=code if call == "WRITE" else None)
    return code


def out_of_room(bench, name, rng):
    """No file may grow beyond a size: as a full disk is, for every way of writing."""
    line, outputs = COMMANDS[name]
    sizes = [f.stat().st_size for o in outputs for f in ([bench.folder / o] if (bench.folder / o).is_file() else
                                                         (bench.folder / o).rglob("*")) if f.is_file()] or [10000]
    most = rng.randrange(max(sizes) + 1)
    bench.clear()

    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (most, most))

    code = bench.check_end(bench.start(line, preexec_fn=limit), (0, 1, 3))
    bench.check(name, code=code)
    bench.succeed(line)
    return code


def bitwise(bench, name, rng, faults):
    """Short and interrupted reads and writes, or a clock that jumps, change nothing."""
    line, _ = COMMANDS[name]
    bench.clear()
    code = bench.check_end(bench.start(line, faults), (0,))
    bench.check_whole(name)
    return code


def taken_away(bench, name, rng, how):
    """The input is cut or replaced, or the folder removed, while the command works."""
    line, outputs = COMMANDS[name]
    source = bench.folder / line.split()[1]
    if how != "target" and not source.is_file():
        return None
    kept = source.read_bytes() if source.is_file() else b""
    process = bench.begin(name, rng.random())
    if how == "cut":
        os.truncate(source, len(kept) // 2)
    elif how == "replaced":
        (bench.folder / "new").write_bytes(kept[:-2] + b"\1\1")
        os.replace(bench.folder / "new", source)
    else:
        # At once: what is put there while files go one by one is no result, and none of ours.
        target = bench.folder / (outputs[0].split("/")[0] if outputs else "axis")
        if target.exists():
            target.rename(bench.folder / "gone")
        shutil.rmtree(bench.folder / "gone", ignore_errors=True)
    errors = bench.let(process)
    if source.parent.exists() and kept:
        source.write_bytes(kept)
    code = bench.check_end(process, (0, 1, 3), errors)
    if how == "target":
        bench.check(name)
    else:
        for output in outputs:
            bench.state(output)
    bench.clear()
    bench.succeed(line)
    bench.check_whole(name)
    return code


def without_streams(bench, name, rng):
    """Closed standard streams, and a reader that goes away."""
    line, _ = COMMANDS[name]
    bench.clear()
    which = rng.choice([(0,), (1,), (2,), (1, 2), (0, 1, 2), "pipe"])
    if which == "pipe":
        reading, writing = os.pipe()
        os.close(reading)
        process = bench.start(line, stdout=writing)
        os.close(writing)
    else:
        process = bench.start(line, preexec_fn=lambda: [os.close(stream) for stream in which])
    _, errors = process.communicate(timeout=PATIENCE)
    allowed = (0, 1, -signal.SIGPIPE) if which == "pipe" else (0, 1)
    if process.returncode not in allowed:
        raise Trouble(f"streams {which}: exit code {process.returncode}")
    bench.check(name, code=process.returncode)
    return process.returncode


def both(bench, name, rng):
    """Two at once into one place: each is whole or refused, nothing is mixed."""
    line, _ = COMMANDS[name]
    bench.clear()
    first = bench.begin(name, rng.random() * (1.0 if bench.exact else 0.2))
    second = bench.start(line)
    if bench.exact:
        second.wait(timeout=PATIENCE)
    codes = [bench.check_end(first, (0, 1), bench.let(first)), bench.check_end(second, (0, 1))]
    if 0 not in codes:
        raise Trouble("none of both succeeded")
    bench.check(name)
    bench.check_whole(name)
    return codes[1]


def decimal_comma(bench, name, rng):
    names = subprocess.run(["locale", "-a"], capture_output=True, text=True, check=False).stdout.split()
    german = [n for n in names if n.lower().replace("-", "").startswith("de_de.utf8")]
    if not german:
        return None
    return bitwise(bench, name, rng, {"LC_ALL": german[0]})


KINDS = {
    "SIGKILL": (1.0, lambda *a: stopped(*a, signal.SIGKILL)),
    "SIGTERM": (1.0, lambda *a: stopped(*a, signal.SIGTERM)),
    "SIGINT": (1.0, lambda *a: stopped(*a, signal.SIGINT)),
    "no memory": (1.0, lambda *a: failing(*a, "MALLOC")),
    "write fails": (1.0, lambda *a: failing(*a, "WRITE")),
    "read fails": (0.5, lambda *a: failing(*a, "READ")),
    "disk full": (0.5, out_of_room),
    "short calls": (0.03, lambda *a: bitwise(*a, {"VRK_FAULT_SHORT": 1})),
    "clock jumps": (0.02, lambda *a: bitwise(*a, {"VRK_FAULT_CLOCK": 1})),
    "decimal comma": (0.01, decimal_comma),
    "input cut": (0.1, lambda *a: taken_away(*a, "cut")),
    "input replaced": (0.1, lambda *a: taken_away(*a, "replaced")),
    "target removed": (0.1, lambda *a: taken_away(*a, "target")),
    "no streams": (0.1, without_streams),
    "two at once": (0.1, both),
}


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("vrk")
    parser.add_argument("library")
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--exact", action="store_true")
    parser.add_argument("--kinds", type=lambda text: text.split(","), default=list(KINDS))
    parser.add_argument("--commands", type=lambda text: text.split(","), default=list(COMMANDS))
    arguments = parser.parse_args()
    bad = 0
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(os.path.abspath(arguments.vrk), os.path.abspath(arguments.library), Path(folder),
                      arguments.commands, arguments.exact)
        for kind in arguments.kinds:
            share, accident = KINDS[kind]
            for name in arguments.commands:
                bench.remember(name)
                wanted = max(1, round(arguments.count * share * SHARE.get(name, 1.0)))
                rng = random.Random(f"{arguments.seed} {kind} {name}")
                codes, troubles = {}, []
                for _ in range(wanted):
                    try:
                        code = accident(bench, name, rng)
                        codes[code] = codes.get(code, 0) + 1
                    except (Trouble, subprocess.TimeoutExpired) as trouble:
                        troubles.append(str(trouble))
                        for part in bench.folder.rglob("*.part*"):
                            part.unlink()
                bench.clear()
                if set(codes) == {None}:
                    continue
                ends = ", ".join(f"{n} x {code}" for code, n in sorted(codes.items()))
                print(f"{kind:15} {name:18} {wanted:4}  exit codes {ends}", flush=True)
                for trouble in sorted(set(troubles)):
                    print(f"    {troubles.count(trouble)} x {trouble}", flush=True)
                bad += len(troubles)
    print(f"faults: {bad} accidents did harm" if bad else "faults: no accident did harm")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
