"""Tables and curves out of the figures in bench/data.

report.py [FILE...]: in each document, what stands between

    <!-- figures: NAME... -->
    <!-- end of figures -->

is replaced by a table of bench/data/NAME.json; figures that a program took at three sizes or more are curves as well, in
docs/NAME-UNIT.svg. Without arguments: all documents below docs/.
"""

import collections
import json
import pathlib
import re
import statistics
import sys

from curves import draw

ROOT = pathlib.Path(__file__).resolve().parents[1]
DATA = ROOT / "bench/data"
MARKED = re.compile(r"(<!-- figures: ([\w ]+) -->\n).*?(<!-- end of figures -->)", re.DOTALL)
HEAD = ("| Work | n | Ours | Floor | Ratio | Spread | Target | Reached |\n"
        "|---|---:|---:|---|---:|---|---|---|\n")
ENOUGH_FOR_A_CURVE = 3
SECONDS = ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (0, "ns"))
BYTES = ((1 << 30, "GiB"), (1 << 20, "MiB"), (1 << 10, "KiB"), (0, "B"))


def shown(value, unit):
    """Three digits, in the largest unit that leaves something before the point."""
    steps = {"s": SECONDS, "bytes": BYTES}.get(unit)
    if steps is None:
        return f"{value:,.0f}" if value == int(value) or value >= 100 else f"{value:.3g}"
    least, name = next(step for step in steps if abs(value) >= step[0])
    scaled = value / (least or {"s": 1e-9, "bytes": 1}[unit])
    return f"{scaled:,.0f} {name}" if abs(scaled) >= 100 else f"{scaled:.3g} {name}"


def ratios(entry):
    """Pair by pair; none where there is no floor, or the floor is nothing."""
    return [ours / floor for ours, floor in zip(entry["ours"], entry["floor"]) if floor > 0]


def verdict(entry, ratio):
    """The target in words, and whether it is reached."""
    unit, limit = entry["unit"], entry.get("limit")
    told, reached = [], []
    if entry["target"] is not None and ratio is not None:
        told.append(f"≤ {entry['target']:g}")
        reached.append(ratio <= entry["target"])
    if limit is not None:
        told.append(f"≤ {shown(limit, unit)}" if limit else "none")
        reached.append(max(entry["ours"]) <= limit)
    return " and ".join(told), "" if not told else "yes" if all(reached) else "no"


def row(entry):
    unit, each = entry["unit"], ratios(entry)
    ratio = statistics.median(each) if each else None
    spread = each or entry["ours"]
    ends = [f"{end:.2f}" if each else shown(end, unit) for end in (min(spread), max(spread))]
    floor = f"{shown(statistics.median(entry['floor']), unit)}: {entry['floor_name']}" if entry["floor"] else ""
    target, reached = verdict(entry, ratio)
    cells = [entry["work"], f"{entry['n']:,}", shown(statistics.median(entry["ours"]), unit), floor,
             f"{ratio:.2f}" if each else "", " to ".join(ends), target, reached]
    return f"| {' | '.join(cells)} |\n"


def families(entries):
    """Figures of the same work at several sizes, by unit."""
    works = collections.defaultdict(list)
    for entry in entries:
        works[entry["unit"], entry["work"]].append(entry)
    units = collections.defaultdict(dict)
    for (unit, work), of_work in works.items():
        if len({entry["n"] for entry in of_work}) >= ENOUGH_FOR_A_CURVE:
            units[unit][work] = sorted(of_work, key=lambda entry: entry["n"])
    return units


def curves(name, entries):
    """Draws the curves of one data file; the lines that show them in a document."""
    shows = ""
    for unit, works in families(entries).items():
        picture = f"{name}-{unit}.svg"
        (ROOT / "docs" / picture).write_text(draw(works, unit))
        shows += f"\n![{name}, {unit}: each work by its size, beside its floor]({picture})\n"
    return shows


def figures(names):
    text = ""
    for name in names.split():
        path = DATA / f"{name}.json"
        if not path.exists():
            print(f"report: no figures of {name}", file=sys.stderr)
            continue
        entries = json.loads(path.read_text())
        text += "\n" * bool(text) + tables(entries) + curves(name, entries)
    return text


def in_short(entries):
    """What a reader looks for first: times and what has a bound, each at its full size; and all the rest."""
    full = {}
    for entry in entries:
        key = entry["unit"], entry["work"], entry["floor_name"]
        full[key] = max(entry["n"], full.get(key, 0))
    first, rest = [], []
    for entry in entries:
        bounded = entry["target"] is not None or entry.get("limit") is not None
        whole = entry["n"] == full[entry["unit"], entry["work"], entry["floor_name"]]
        (first if whole and (bounded or entry["unit"] == "s") else rest).append(entry)
    return first, rest


def tables(entries):
    first, rest = in_short(entries)
    text = HEAD + "".join(map(row, first))
    if rest:
        text += f"\n<details><summary>Sizes, memory, counts</summary>\n\n{HEAD}{''.join(map(row, rest))}\n</details>\n"
    return text


def machine():
    """On what the figures were taken, in a sentence."""
    path = DATA / "machine.json"
    told = json.loads(path.read_text()) if path.exists() else {}
    return "".join(f"{'Taken with: ' if not at else ', '}{what} {version}"
                   for at, (what, version) in enumerate(told.items())) + "\n\n" * bool(told)


def renew(document):
    text = document.read_text()
    renewed = MARKED.sub(lambda found: found[1] + machine() + figures(found[2]) + found[3], text)
    if renewed != text:
        document.write_text(renewed)


def main():
    documents = [pathlib.Path(word) for word in sys.argv[1:]]
    for document in documents or sorted((ROOT / "docs").glob("*.md")):
        renew(document)


if __name__ == "__main__":
    main()
