"""Measures a case and its floor alternately, and writes the figures."""

import argparse
import json
import pathlib
import statistics
import sys
import time

PAIRS = 5
BRIEF_PAIRS = 2


def arguments(description):
    """The command line of a benchmark program."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--out", type=pathlib.Path, required=True, help="file for the figures, JSON")
    effort = parser.add_mutually_exclusive_group()
    effort.add_argument("--quick", action="store_true", help="fewer repetitions, at most 100 VPNs")
    effort.add_argument("--brief", action="store_true",
                        help="for comparing builds: the fewest repetitions, at most 10 VPNs, only cases of the agent")
    return parser.parse_args()


def seconds(work):
    """How long `work` takes."""
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def interleaved(pairs, ours, floor):
    """The values that both functions return, measured alternately. Every other pair starts with the floor, so that
    neither always finds warm caches."""
    our_values, floor_values = [], []
    for pair in range(pairs):
        turns = [(ours, our_values), (floor, floor_values)]
        for measure, values in turns if pair % 2 == 0 else reversed(turns):
            values.append(measure())
    return our_values, floor_values


class Figures:
    """What a program measured. `target` bounds the ratio to the floor, `limit` the value itself, in its unit."""

    def __init__(self, options):
        self.path = options.out
        self.pairs = BRIEF_PAIRS if options.brief else PAIRS
        self.entries = []

    def add(self, work, n, unit, ours, floor=(), floor_name="", target=None, limit=None):
        self.entries.append({"work": work, "n": n, "unit": unit, "ours": list(ours), "floor_name": floor_name,
                             "floor": list(floor), "target": target, "limit": limit})
        beside = f", floor {statistics.median(floor):.6g}" if floor else ""
        print(f"{work} [{n}]: {statistics.median(ours):.6g}{beside} {unit}", file=sys.stderr, flush=True)

    def write(self):
        """Replaces the file atomically: after an interrupted run it still holds the figures of the run before."""
        fresh = self.path.with_suffix(".new")
        fresh.write_text(json.dumps(self.entries, indent=1) + "\n")
        fresh.replace(self.path)
