"""Generates tables and curves from the figures in bench/data.

report.py [FILE...]: in each document, this program replaces the text between

    <!-- figures: NAME -->
    <!-- end of figures -->

NAME is one of
- a program (module, services, box_answers, box_waits, box_watch, box_many, fleet): all its figures and curves;
- machine: what the figures were measured on; machine fleet: the same of the program fleet, if that ran elsewhere;
- aims: every case that has an aim; worst: the largest ratios of all other cases;
- scale box, scale hosts, scale messages, scale fleet, scale brokers: the tables of docs/scale.md.

A case that was measured at three sizes or more is also a curve, in docs/PROGRAM-UNIT.svg. Without arguments, all
documents in docs/ are renewed.
"""

import collections
import json
import pathlib
import re
import sys

import scale
import tables
from curves import draw

ROOT = pathlib.Path(__file__).resolve().parents[1]
DATA = ROOT / "bench/data"
PROGRAMS = ("module", "services", "box_answers", "box_waits", "box_watch", "box_many", "fleet")
MARKED = re.compile(r"(<!-- figures: ([\w ]+) -->\n).*?(<!-- end of figures -->)", re.DOTALL)
SIZES_OF_A_CURVE = 3


def read(name):
    """The figures of a program; none if it has not run."""
    path = DATA / f"{name}.json"
    if not path.exists():
        print(f"report: no figures of {name}", file=sys.stderr)
        return []
    return json.loads(path.read_text())


def read_all():
    return [entry for name in PROGRAMS for entry in read(name)]


def cases_by_unit(entries):
    """The cases that have enough sizes for a curve: entries by unit and name."""
    works = collections.defaultdict(list)
    for entry in entries:
        works[entry["unit"], entry["work"]].append(entry)
    units = collections.defaultdict(dict)
    for (unit, work), of_work in works.items():
        if len({entry["n"] for entry in of_work}) >= SIZES_OF_A_CURVE:
            units[unit][work] = sorted(of_work, key=lambda entry: entry["n"])
    return units


def curves(name, entries):
    """Draws the curves of one program. Returns the lines that show them in a document."""
    lines = ""
    for unit, works in cases_by_unit(entries).items():
        picture = f"{name}-{unit}.svg"
        (ROOT / "docs" / picture).write_text(draw(works, unit))
        lines += f"\n![{name}, {unit}: each case by size, with its floor]({picture})\n"
    return lines


def machine(name="machine"):
    """One sentence: hardware, kernel and versions. Empty without the facts."""
    path = DATA / f"{name}.json"
    facts = json.loads(path.read_text()) if path.exists() else {}
    return f"Measured on: {', '.join(f'{what} {version}' for what, version in facts.items())}.\n" if facts else ""


def generated(name):
    """The text of one marked section."""
    if name in ("machine", "machine fleet"):
        return machine(name.replace(" ", "_"))
    if name == "aims":
        return tables.aims(read_all())
    if name == "worst":
        return tables.worst(read_all())
    if name.startswith("scale "):
        return scale.TABLES[name.removeprefix("scale ")](scale.Measured(read_all()))
    if name not in PROGRAMS:
        raise ValueError(f"'{name}' names no figures")
    entries = read(name)
    return tables.all_figures(entries) + curves(name, entries) if entries else ""


def section(found):
    """The new text of a marked section. A table that lacks figures stays as it is."""
    try:
        return found[1] + generated(found[2]) + found[3]
    except scale.NotMeasured as missing:
        print(f"report: section '{found[2]}' stays unchanged: {missing}", file=sys.stderr)
        return found[0]


def renew(document):
    text = document.read_text()
    renewed = MARKED.sub(section, text)
    if renewed != text:
        document.write_text(renewed)


def main():
    documents = [pathlib.Path(word) for word in sys.argv[1:]]
    for document in documents or sorted((ROOT / "docs").glob("*.md")):
        renew(document)


if __name__ == "__main__":
    main()
