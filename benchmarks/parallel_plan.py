#!/usr/bin/python3
"""What a run would take on more cores, from what it measured on two: the work of a thread alone, and the items of the loops
that threads share, all in processor time, which other programs on the machine do not lengthen.

    vrk run series.mrc -o result --profile --jobs 2
    parallel_plan.py result/summary.json

A loop on n cores takes its work divided by n, but never less than its longest item, and on average half an item more than the
even share because its last items do not end together. A loop of one item is work that a second core does beside what is done
alone. Memory that all cores share and processes that draw plots are not in it.
"""

import json
import sys


def loop_seconds(loop, cores):
    lanes = min(cores, loop["items"])
    if lanes == 0:
        return 0.0
    mean = loop["seconds"] / loop["items"]
    even = loop["seconds"] / lanes
    return even if lanes == 1 else max(even + 0.5 * mean * (lanes - 1) / lanes, loop["longest_seconds"])


def main():
    profile = json.load(open(sys.argv[1]))["profile"]
    loops, alone = profile["loops"], profile["seconds_alone"]
    shared = sum(loop["seconds"] for loop in loops)
    beside = sum(loop["seconds"] for loop in loops if loop["items"] == 1)
    loops = [loop for loop in loops if loop["items"] != 1]
    print(f"alone {alone:.2f} s, shared {shared:.2f} s in {len(loops)} loops: {100 * shared / (alone + shared):.1f} % shared\n")
    print("| cores | seconds | times as fast |\n|---|---|---|")
    one = alone + shared
    for cores in (1, 2, 3, 4, 6, 8, 12, 16):
        seconds = alone + sum(loop_seconds(loop, cores) for loop in loops)
        seconds += beside if cores == 1 else max(beside - alone, 0.0)
        print(f"| {cores} | {seconds:.2f} | {one / seconds:.2f} |")


if __name__ == "__main__":
    main()
