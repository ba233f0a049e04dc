"""Plants one-line faults in a scratch copy of the sources, builds, runs the tests and reports the survivors.

A fault that no test notices is a line that could be wrong without anybody knowing. Faults are drawn at random, the same
ones for the same seed: another operator, another constant, a condition turned round, a dropped statement, two exchanged
arguments. Faults that do not compile are replaced by others.
"""

import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import time
from collections import defaultdict
from pathlib import Path

ROOTS = ("src", "pipeline", "app")

# clang-format puts spaces around binary operators and nowhere else, so templates and pointers do not look like them.
OPERATORS = {
    " < ": (" <= ", " > "), " <= ": (" < ",), " > ": (" >= ", " < "), " >= ": (" > ",),
    " == ": (" != ",), " != ": (" == ",), " + ": (" - ",), " - ": (" + ",), " * ": (" / ",), " / ": (" * ",),
    " && ": (" || ",), " || ": (" && ",), " += ": (" -= ",), " -= ": (" += ",), " *= ": (" /= ",), " % ": (" * ",),
}
NUMBER = re.compile(r"(?<![\w.\"'])(\d+\.\d*(?:e[+-]?\d+)?|\d+e[+-]?\d+|\d+)(?![\w.\"'])")
TRUTH = re.compile(r"\b(true|false)\b")
IF = re.compile(r"\bif \((?!const |auto )")
STATEMENT = re.compile(r"^(\s+)((?:[\w:.\->\[\]*]+\([^;{}]*\)|[\w.\->\[\]*()]+ [-+*/|&]?= [^;{}]*));$")
CALL = re.compile(r"\w\(([^(),]+), ([^(),]+)\)")
SKIPPED = re.compile(r"^\s*(#|//|/\*|\*|using |template|static_assert|namespace|enum |class |struct |friend |extern )")


def blanked(line):
    """The line with the insides of texts and its comment replaced by blanks of the same length."""
    line = re.sub(r'"(?:\\.|[^"\\])*"', lambda m: '"' + "\0" * (len(m.group()) - 2) + '"', line)
    line = re.sub(r"'(?:\\.|[^'\\])+'", lambda m: "'" + "\0" * (len(m.group()) - 2) + "'", line)
    cut = line.find("//")
    return line if cut < 0 else line[:cut] + "\0" * (len(line) - cut)


def closing(text, start):
    """Position of the bracket that closes the one at start, or -1."""
    depth = 0
    for i in range(start, len(text)):
        depth += {"(": 1, ")": -1}.get(text[i], 0)
        if depth == 0:
            return i
    return -1


def other_number(text):
    """A number that is wrong, but no more than a slip of the keyboard would make it."""
    if re.fullmatch(r"\d+", text):
        return str(int(text) + 1)
    return "1.0" if float(text) == 0 else repr(float(text) * 1.5)


def faults_of(line):
    """Every (kind, faulty line) of a line."""
    if SKIPPED.match(line):
        return []
    code = blanked(line)
    found = []

    def replace(kind, start, end, text):
        found.append((kind, line[:start] + text + line[end:]))

    for operator, others in OPERATORS.items():
        for match in re.finditer(re.escape(operator), code):
            for other in others:
                replace("operator", match.start(), match.end(), other)
    for match in NUMBER.finditer(code):
        replace("constant", match.start(), match.end(), other_number(match.group()))
    for match in TRUTH.finditer(code):
        replace("constant", match.start(), match.end(), "false" if match.group() == "true" else "true")
    for match in IF.finditer(code):
        start = match.end() - 1
        end = closing(code, start)
        if end > 0 and ";" not in code[start:end]:
            replace("condition", start, end + 1, "(!" + line[start:end + 1] + ")")
    match = STATEMENT.match(code)
    if match and not match.group(2).startswith(("return", "throw", "delete ", "else")):
        replace("dropped", match.start(2), match.end(2), "")
    for match in CALL.finditer(code):
        if match.group(1).strip() != match.group(2).strip() and "\0" not in match.group():
            replace("swapped", match.start(1), match.end(2), line[match.start(2):match.end(2)] + ", " +
                    line[match.start(1):match.end(1)])
    return found


def subsystem_of(path):
    """src/VoxCore/IO/detail/X.cpp -> src/VoxCore/IO"""
    parts = [part for part in Path(path).parent.parts if part != "detail"]
    return "/".join(parts[:3] if parts[:2] == ["src", "VoxCore"] else parts[:2])


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)


def git(*arguments):
    return subprocess.run(["git", *arguments], check=True, stdout=subprocess.PIPE, text=True).stdout


def changed_lines(revision):
    """The lines that differ from a revision, by file."""
    lines = defaultdict(set)
    path = None
    for line in git("diff", "-U0", "--no-prefix", revision, "--", *ROOTS).splitlines():
        if line.startswith("+++ "):
            path = line[4:]
        elif line.startswith("@@"):
            start, _, count = line.split("+")[1].split(" ")[0].partition(",")
            lines[path].update(range(int(start), int(start) + int(count or 1)))
    return lines


class Copy:
    """The scratch copy: the tracked files as they are in the tree, and a build beside them."""

    def __init__(self, folder, jobs):
        self.folder = folder
        self.build = folder / "build" / "mutate"
        self.jobs = str(jobs)
        wanted = set(git("ls-files", "--cached", "--others", "--exclude-standard").splitlines())
        for name in wanted:
            source, target = Path(name), folder / name
            if source.is_file() and not (target.is_file() and target.read_bytes() == source.read_bytes()):
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)
        for root in ROOTS + ("tests",):
            for file in (folder / root).rglob("*"):
                if file.is_file() and str(file.relative_to(folder)) not in wanted:
                    file.unlink()
        result = run(["cmake", "-S", str(folder), "-B", str(self.build), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                      "-DCMAKE_CXX_FLAGS_RELEASE=-O1", "-DVRKCORE_BUILD_BENCHMARKS=OFF",
                      "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"])
        if result.returncode != 0:
            sys.exit(result.stdout + "mutate: configuring the scratch copy failed")

    def make(self, targets=()):
        """Output of the build, or nothing when it succeeded."""
        result = run(["ninja", "-C", str(self.build), "-j", self.jobs, *targets])
        return result.stdout if result.returncode != 0 else None

    def test(self, choice, limit):
        """True when all chosen tests pass within their time."""
        command = ["ctest", "--test-dir", str(self.build), "-j", self.jobs, "--timeout", str(limit),
                   "--stop-on-failure", "--no-tests=error", *choice]
        return run(command).returncode == 0

    def groups(self):
        """The groups of tests: what stands before the first dot of their names."""
        listed = run(["ctest", "--test-dir", str(self.build), "-N"]).stdout
        return set(re.findall(r"Test +#\d+: (\w+)\.", listed))


# Groups that test a subsystem beside its own.
ELSEWHERE = {
    "pipeline/base": ("threads", "frames", "batch", "report", "run"),
    "pipeline/geometry": ("tiltaxis", "run"),
    "pipeline/simulation": ("app", "integration"),
    "src/foundation": ("threads", "processing"),
    "src/VoxCore": ("voxcore_datamodel", "voxcore_io"),
}


def related(subsystem, groups):
    """The groups of tests that belong to a subsystem; the program's own where there are none."""
    parts = subsystem.lower().split("/")
    own = next((name for name in ("_".join(parts[1:]), parts[-1]) if name in groups), None)
    others = [name for prefix, names in ELSEWHERE.items() if subsystem.startswith(prefix) for name in names]
    return [name for name in dict.fromkeys([own, *others]) if name in groups] or ["app"]


def sites(options):
    """Every fault that may be planted, by subsystem: (path, line number, kind, faulty line)."""
    only = changed_lines(options.changed_since) if options.changed_since else None
    found = defaultdict(list)
    for path in git("ls-files", *ROOTS).splitlines():
        subsystem = subsystem_of(path)
        if not path.endswith((".cpp", ".h")) or not Path(path).is_file():
            continue
        if options.subsystem and not any(subsystem.startswith(name.rstrip("/")) for name in options.subsystem):
            continue
        for number, line in enumerate(Path(path).read_text().splitlines(), 1):
            if only is None or number in only.get(path, ()):
                found[subsystem] += [(path, number, kind, faulty) for kind, faulty in faults_of(line)]
    return found


def drawn(found, seed):
    """All faults in the order in which they are tried: the subsystems take turns."""
    generator = random.Random(seed)
    queues = []
    for subsystem in sorted(found):
        generator.shuffle(found[subsystem])
        queues.append([(subsystem, fault) for fault in found[subsystem]])
    generator.shuffle(queues)
    while queues:
        for queue in queues:
            yield queue.pop()
        queues = [queue for queue in queues if queue]


def outcome(copy, subsystem, fault, groups, options):
    """ "killed", "survived" or "invalid"."""
    path, number, _, faulty = fault
    target = copy.folder / path
    original = target.read_text()
    lines = original.split("\n")
    lines[number - 1] = faulty
    target.write_text("\n".join(lines))
    try:
        near = related(subsystem, groups)
        names = "|".join(near)
        for targets, choice in (([f"test_{group}" for group in near], ["-R", rf"^({names})\."]),
                                ([], ["-E", rf"^({names}|package)\."])):
            failure = copy.make(targets)
            if failure:
                return "invalid" if "error:" in failure else "killed"
            if not copy.test(choice, options.timeout):
                return "killed"
            if options.related_only:
                break
        return "survived"
    finally:
        target.write_text(original)


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=40, help="faults to plant [40]")
    parser.add_argument("--seed", type=int, default=1, help="seed of the choice [1]")
    parser.add_argument("--subsystem", action="append", help="plant faults here alone, for instance src/reflections")
    parser.add_argument("--changed-since", metavar="REV", help="plant faults in lines that differ from this revision")
    parser.add_argument("--related-only", action="store_true", help="run the subsystem's own tests alone")
    parser.add_argument("--at-least", type=float, default=0, metavar="PERCENT", help="fail when fewer are noticed")
    parser.add_argument("--timeout", type=int, default=300, help="seconds for one test [300]")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="processes [all cores]")
    parser.add_argument("--scratch", type=Path, default=Path(os.environ.get("TMPDIR", "/tmp")) / "vrk-mutate",
                        help="folder of the copy; kept, so that the next build is short [TMPDIR/vrk-mutate]")
    parser.add_argument("--list", action="store_true", help="print the faults and plant none")
    options = parser.parse_args()

    faults = drawn(sites(options), options.seed)
    if options.list:
        for _, (_, fault) in zip(range(options.count), faults):
            print("%s:%d: %s\n    %s" % (*fault[:3], fault[3].strip()))
        return

    copy = Copy(options.scratch.resolve(), options.jobs)
    print("mutate: building the copy and running its tests without a fault", flush=True)
    failure = copy.make()
    if failure or not copy.test(["-E", r"^package\."], options.timeout):
        sys.exit((failure or "") + "mutate: the tests fail without a fault; nothing to measure")
    groups = copy.groups()

    tally = defaultdict(lambda: [0, 0])
    survivors = defaultdict(list)
    planted = 0
    for subsystem, fault in faults:
        if planted == options.count:
            break
        start = time.monotonic()
        result = outcome(copy, subsystem, fault, groups, options)
        if result == "invalid":
            continue
        planted += 1
        tally[subsystem][0] += result == "killed"
        tally[subsystem][1] += 1
        if result == "survived":
            survivors[subsystem].append(fault)
        print("%3d %-8s %s:%d %s (%.0f s)" % (planted, result, *fault[:3], time.monotonic() - start), flush=True)

    for subsystem in sorted(survivors):
        print("\n" + subsystem)
        for path, number, kind, faulty in survivors[subsystem]:
            print("  %s:%d: %s\n    -%s\n    +%s" % (path, number, kind,
                                                     Path(path).read_text().splitlines()[number - 1].strip(),
                                                     faulty.strip()))
    print("\nnoticed")
    for subsystem, (killed, total) in sorted(tally.items()):
        print("  %-28s %3d of %3d" % (subsystem, killed, total))
    killed = sum(pair[0] for pair in tally.values())
    share = 100 * killed / planted if planted else 100
    print("mutate: %d of %d faults noticed (%.0f %%), seed %d" % (killed, planted, share, options.seed))
    sys.exit(share < options.at_least)


if __name__ == "__main__":
    main()
