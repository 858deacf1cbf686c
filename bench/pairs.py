"""Work and its floor measured in turns, and the figures that come of it."""

import argparse
import json
import pathlib
import statistics
import sys
import time

PAIRS = 5


def arguments(description):
    """The command line of a program that measures."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--out", type=pathlib.Path, required=True, help="file that takes the figures, JSON")
    parser.add_argument("--quick", action="store_true", help="fewer repetitions, at most 100 VPNs")
    return parser.parse_args()


def seconds(work):
    began = time.perf_counter()
    work()
    return time.perf_counter() - began


def interleaved(pairs, ours, floor):
    """The values that both return, taken in turns. Every other pair begins with the floor: neither is always the first
    to find warm caches."""
    mine, least = [], []
    for pair in range(pairs):
        turns = [(ours, mine), (floor, least)]
        for measure, values in turns if pair % 2 == 0 else reversed(turns):
            values.append(measure())
    return mine, least


class Figures:
    """What a program measured. `target` bounds the ratio to the floor, `limit` the value itself, in its unit."""

    def __init__(self, path):
        self.path = path
        self.entries = []

    def add(self, work, n, unit, ours, floor=(), floor_name="", target=None, limit=None):
        self.entries.append({"work": work, "n": n, "unit": unit, "ours": list(ours), "floor_name": floor_name,
                             "floor": list(floor), "target": target, "limit": limit})
        beside = f" beside {statistics.median(floor):.6g}" if floor else ""
        print(f"{work} [{n}]: {statistics.median(ours):.6g}{beside} {unit}", file=sys.stderr, flush=True)

    def write(self):
        """Whole or not at all: an interrupted run leaves the last one's figures."""
        fresh = self.path.with_suffix(".new")
        fresh.write_text(json.dumps(self.entries, indent=1) + "\n")
        fresh.replace(self.path)
