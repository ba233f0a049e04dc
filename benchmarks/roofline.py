#!/usr/bin/python3
"""Writes docs/performance.md: each step of a run against the rate at which this machine copies memory.

usage: roofline.py VRK [PAGE]      simulates series of 121 frames of 256, 512 and 1024 pixels and runs them in one thread
"""

import json
import os
import subprocess
import sys
import tempfile

SIZES = (256, 512, 1024)

INTRODUCTION = """# Where the time goes

Made by `benchmarks/roofline.py`; `vrk run --profile` prints the same for any series. The machine of these figures:
{processor}, {cores} cores, of which a run has one; load average before {load:.1f}. A plain copy of memory (`memcpy`, blocks
beyond the caches) reads and writes {rate:.1f} GB/s there.

What a step **had to** move is what comes in, read once, and what goes out, written once; what it **moves** is what its passes
over frames and volume add up to. **Of memcpy** is the share of the copy's rate that the first makes: at 100 % a step would cost no
more than the memory. Far below it the processor is what limits: preprocessing and integration compute on every pixel,
the search looks at every voxel once, cell search and indexing move next to nothing. What else a machine does lengthens steps
and copies, but not at the same moments: the load above says how far figures can be trusted.

"""


def profile_of(vrk, size, folder):
    series, result = os.path.join(folder, f"{size}.mrc"), os.path.join(folder, "result")
    subprocess.run([vrk, "simulate", "-o", series, "--cell", "7,9,12,90,90,90", "--size", str(size), "--write-axis", "--axis", "20"],
                   check=True, capture_output=True)
    text = subprocess.run([vrk, "run", series, "-o", result, "--no-pictures", "--jobs", "1", "--profile", "--json"], check=True,
                          capture_output=True, text=True).stdout
    os.remove(series)
    return json.loads(text)


def table(size, summary):
    lines = [f"## 121 frames of {size} x {size}\n", "| step | times | seconds | moves, MiB | had to, MiB | of memcpy | resident, MiB |",
             "|---|---|---|---|---|---|---|"]
    for step in summary["profile"]["steps"]:
        mib = [f"{step[key] / 2**20:.0f}" if step["needed_bytes"] else "" for key in ("moved_bytes", "needed_bytes")]
        share = f"{100 * step['share_of_copying']:.1f} %" if step["needed_bytes"] else ""
        lines.append(f"| {step['name'].replace('_', ' ')} | {step['times']} | {step['seconds']:.3f} | {mib[0]} | {mib[1]} | {share} | "
                     f"{step['resident_bytes'] / 2**20:.0f} |")
    lines.append(f"\nTotal {summary['seconds']['total']:.2f} s, at most {summary['peak_memory_mib']:.0f} MiB.\n")
    return "\n".join(lines)


def main():
    page = sys.argv[2] if len(sys.argv) > 2 else os.path.join(os.path.dirname(__file__), "../docs/performance.md")
    with open("/proc/cpuinfo") as file:
        processor = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), "unknown processor")
    load = os.getloadavg()[0]
    with tempfile.TemporaryDirectory() as folder:
        summaries = [profile_of(sys.argv[1], size, folder) for size in SIZES]
    rate = max(summary["profile"]["copy_bytes_per_second"] for summary in summaries) * 1e-9
    # What follows the tables is written by hand.
    kept = ""
    if os.path.exists(page):
        text = open(page).read()
        kept = text[text.index("\n## Cores"):] if "\n## Cores" in text else ""
    with open(page, "w") as file:
        file.write(INTRODUCTION.format(processor=processor, rate=rate, load=load, cores=os.cpu_count()))
        file.write("\n".join(table(size, summary) for size, summary in zip(SIZES, summaries)))
        file.write(kept)


if __name__ == "__main__":
    main()
