"""Compares two builds in one run.

against.py THIS_BUILD OTHER_BUILD [--quick] [--rounds N] [PROGRAM...]

Each program runs with both builds alternately: this, other, this, other, if there are two rounds. module and services
are the programs bench_module and bench_services of each build. All others are the scripts of this tree;
they run with the agent, the tool and the module of each build.

The output has one line for each case: the median of each build, the ratio of each to its floor, and the quotient of
the two ratios, or of the two medians if there is no floor. A quotient above 1 means that this build is slower or needs
more. "higher" or "lower" at the end of a line means that the ranges of the two builds do not overlap. With few rounds
some cases show that by chance, above all if other programs run: repeat them with more rounds.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

from tables import ratios, shown

ROOT = pathlib.Path(__file__).resolve().parents[1]
PROGRAMS = ("module", "services", "box_answers", "box_waits", "box_watch", "box_many", "fleet")
BUILT = ("bench_module", "bench_services", "libvqAdvancedDns.so", "vqagent", "vqctl")
BUILT_FOR_FLEET = ("bench_fleet_boxes", "vqfleet", "vqlink")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# Cases of several seconds whose work other cases contain; the quick form leaves them out.
LONG_CASES = "^(translation/9472|(message by size|translation of proxy domains)/(1000|8192))/"
# Cases that earlier builds know by another name.
FORMER_NAMES = {"record to text, beside formatting too": "record to text, addresses formatted",
                "text to record, beside looking up too": "text to record, members looked up"}


def scripted(name, quick, out):
    return ["/usr/bin/python3", "-B", str(ROOT / f"bench/{name}.py"), "--out", str(out), *["--brief"] * quick]


def command(name, build, quick, out):
    if name == "services":
        return [str(build / "bench_services"), "--out", str(out), *["--pairs", "2"] * quick]
    if name != "module":
        return scripted(name, quick, out)
    if not quick:
        return [str(build / "bench_module"), "--out", str(out)]
    return [str(build / "bench_module"), f"--benchmark_out={out}", "--benchmark_out_format=json",
            f"--benchmark_filter=-{LONG_CASES}", "--benchmark_min_time=0.02", "--benchmark_repetitions=2",
            "--benchmark_enable_random_interleaving=true"]


def from_benchmark_library(report):
    """The figures in a report of the benchmark library. Its names are CASE/N/ours and CASE/N/floor, in random order."""
    entries = {}
    for run in report["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        work, n, side = re.match(r"(.+)/(\d+)/(ours|floor)", run["name"]).groups()
        entry = entries.setdefault((work, n), {"work": work, "n": int(n), "unit": "s", "ours": [], "floor": []})
        entry[side].append(run["cpu_time"] * NANOSECONDS[run["time_unit"]] / 1e9)
    return sorted(entries.values(), key=lambda entry: (entry["work"], entry["n"]))


def measure(name, build, quick):
    """One run of a program with one build; throws if it fails."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "figures.json"
        done = subprocess.run([str(ROOT / "scripts/private"), *command(name, build, quick, out)],
                              env={**os.environ, "KAVEL_BUILD": str(build)}, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            sys.exit(f"{done.stdout}against: {name} of {build} failed with status {done.returncode}")
        figures = json.loads(out.read_text())
    return from_benchmark_library(figures) if isinstance(figures, dict) else figures


def current_name(work):
    for former, current in FORMER_NAMES.items():
        if work.startswith(former):
            return current + work.removeprefix(former)
    return work


class Build:
    """The figures of one build, from all rounds. Two cases of a program can have the same name and size and differ in
    their floors; their order is the same in every run."""

    def __init__(self, path):
        self.path = path
        self.cases = {}

    def add_run(self, name, figures):
        seen = collections.Counter()
        for entry in figures:
            same = (name, current_name(entry["work"]), entry["n"], entry["unit"])
            case = self.cases.setdefault((*same, seen[same]), {"ours": [], "floor": []})
            seen[same] += 1
            case["ours"] += entry["ours"]
            case["floor"] += entry["floor"]


def quotient(this, other):
    """The formatted quotient of two medians."""
    mine, others = statistics.median(this), statistics.median(other)
    if others == 0:
        return "1.00" if mine == 0 else "-"
    return f"{mine / others:.2f}"


def verdict(this, other):
    """Empty if the ranges overlap."""
    if min(this) > max(other):
        return "higher"
    return "lower" if max(this) < min(other) else ""


def row(name, cells):
    return " ".join((name.ljust(80), *(cell.rjust(10) for cell in cells)))


def compared(case, this, other):
    """The line of one case, and its verdict."""
    _, work, n, unit, _ = case
    mine, others = ratios(this), ratios(other)
    told = [f"{statistics.median(each):.2f}" if mine and others else "-" for each in (mine, others)]
    if not (mine and others):
        mine, others = this["ours"], other["ours"]
    values = [shown(statistics.median(each["ours"]), unit) for each in (this, other)]
    result = verdict(mine, others)
    cells = (*values, *told, quotient(mine, others))
    return f"{row(f'{work} [{n:,}]', cells)} {result}".rstrip(), result


def report(this, other):
    print(row("case [n]", ("this", "other", "ratio", "ratio", "quotient")))
    results = collections.Counter()
    for case in this.cases:
        if case in other.cases:
            line, result = compared(case, this.cases[case], other.cases[case])
            print(line)
            results[result] += 1
    for build, rest in ((this, other), (other, this)):
        for case in build.cases.keys() - rest.cases.keys():
            print(f"only in {build.path}: {case[1]} [{case[2]:,}]")
    print(f"against: {sum(results.values())} cases, {results['higher']} higher and {results['lower']} lower than in "
          f"{other.path} without overlap")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("this_build", type=pathlib.Path)
    parser.add_argument("other_build", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="measure less, about five minutes for all programs")
    parser.add_argument("--rounds", type=int, default=2, help="runs of each program with each build")
    parser.add_argument("programs", nargs="*", metavar="PROGRAM", help=f"any of {', '.join(PROGRAMS)}; default: all")
    options = parser.parse_intermixed_args()
    unknown = set(options.programs) - set(PROGRAMS)
    if unknown:
        parser.error(f"no program named {', '.join(sorted(unknown))}")
    if options.rounds < 1:
        parser.error("--rounds must be at least 1")
    needed = BUILT + BUILT_FOR_FLEET * ("fleet" in (options.programs or PROGRAMS))
    for build in (options.this_build, options.other_build):
        missing = [name for name in needed if not (build / name).is_file()]
        if missing:
            parser.error(f"{build} lacks {', '.join(missing)}")
    return options


def main():
    options = arguments()
    this, other = Build(options.this_build.resolve()), Build(options.other_build.resolve())
    for name in options.programs or PROGRAMS:
        for number in range(options.rounds):
            for build in (this, other):
                print(f"against: {name}, round {number + 1} of {options.rounds}: {build.path}", file=sys.stderr,
                      flush=True)
                build.add_run(name, measure(name, build.path, options.quick))
    report(this, other)


if __name__ == "__main__":
    main()
