"""Markdown tables of the figures that the programs measured."""

import collections
import statistics

HEAD = ("| Case | n | Measured | Floor | Ratio | Spread | Aim | Reached |\n"
        "|---|---:|---:|---|---:|---|---|---|\n")
AIMS_HEAD = "| Case | n | Aim | Measured | Reached |\n|---|---:|---|---:|---|\n"
WORST_HEAD = "| Case | n | Measured | Floor | Ratio |\n|---|---:|---:|---|---:|\n"
WORST_SHOWN = 10
SECONDS = ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (0, "ns"))
BYTES = ((1 << 30, "GiB"), (1 << 20, "MiB"), (1 << 10, "KiB"), (0, "B"))


def shown(value, unit):
    """The value with three digits, in the largest unit that leaves something before the point."""
    steps = {"s": SECONDS, "bytes": BYTES}.get(unit)
    if steps is None:
        return f"{value:,.0f}" if value == int(value) or value >= 100 else f"{value:.3g}"
    least, name = next(step for step in steps if abs(value) >= step[0])
    scaled = value / (least or {"s": 1e-9, "bytes": 1}[unit])
    return f"{scaled:,.0f} {name}" if abs(scaled) >= 100 else f"{scaled:.3g} {name}"


def ratios(entry):
    """The ratio of each pair; none if there is no floor or the floor is 0."""
    return [ours / floor for ours, floor in zip(entry["ours"], entry["floor"]) if floor > 0]


def median_ratio(entry):
    """None if the entry has no ratios."""
    each = ratios(entry)
    return statistics.median(each) if each else None


def median(entry):
    return shown(statistics.median(entry["ours"]), entry["unit"])


def median_floor(entry):
    return f"{shown(statistics.median(entry['floor']), entry['unit'])}: {entry['floor_name']}"


def bounded_ratio(entry):
    return entry["target"] is not None and median_ratio(entry) is not None


def bounded_value(entry):
    return entry.get("limit") is not None


def has_aim(entry):
    return bounded_ratio(entry) or bounded_value(entry)


def aim(entry):
    """The aim in words; empty without one."""
    told = [f"≤ {entry['target']:g}"] if bounded_ratio(entry) else []
    if bounded_value(entry):
        told.append(f"≤ {shown(entry['limit'], entry['unit'])}" if entry["limit"] else "none")
    return " and ".join(told)


def reached(entry):
    """A ratio counts with its median, a value with its largest."""
    return ((not bounded_ratio(entry) or median_ratio(entry) <= entry["target"])
            and (not bounded_value(entry) or max(entry["ours"]) <= entry["limit"]))


def line(cells):
    return f"| {' | '.join(cells)} |\n"


def row(entry):
    each = ratios(entry)
    spread = each or entry["ours"]
    ends = [f"{end:.2f}" if each else shown(end, entry["unit"]) for end in (min(spread), max(spread))]
    verdict = ("yes" if reached(entry) else "no") if has_aim(entry) else ""
    return line([entry["work"], f"{entry['n']:,}", median(entry), median_floor(entry) if entry["floor"] else "",
                 f"{median_ratio(entry):.2f}" if each else "", " to ".join(ends), aim(entry), verdict])


def cases(entries):
    """The entries of each case, which has one entry for each size, by size."""
    found = collections.defaultdict(list)
    for entry in entries:
        found[entry["unit"], entry["work"], entry["floor_name"]].append(entry)
    return [sorted(case, key=lambda entry: entry["n"]) for case in found.values()]


def all_figures(entries):
    """First the times and the aims at their largest size, then everything else."""
    largest = {id(case[-1]) for case in cases(entries)}
    first, rest = [], []
    for entry in entries:
        important = id(entry) in largest and (has_aim(entry) or entry["unit"] == "s")
        (first if important else rest).append(entry)
    text = HEAD + "".join(map(row, first))
    if rest:
        text += f"\n<details><summary>Sizes, memory, counts</summary>\n\n{HEAD}{''.join(map(row, rest))}\n</details>\n"
    return text


def aim_row(case):
    """A case with its largest size. The aim is reached if every size reaches it."""
    entry = case[-1]
    wanted = aim(entry) + (f" of: {entry['floor_name']}" if bounded_ratio(entry) else "")
    told = f"{median_ratio(entry):.2f}" if bounded_ratio(entry) else median(entry)
    missed = [f"{each['n']:,}" for each in case if has_aim(each) and not reached(each)]
    verdict = "yes"
    if missed:
        verdict = "**no**" if len(case) == 1 else f"**no**, n = {', '.join(missed)}"
    return line([entry["work"], f"{entry['n']:,}", wanted, told, verdict])


def aims(entries):
    return AIMS_HEAD + "".join(aim_row(case) for case in cases(entries) if has_aim(case[-1]))


def worst(entries):
    """The largest ratios of the cases without an aim; of each case the size with the largest one."""
    found = [max(case, key=median_ratio) for case in cases([entry for entry in entries if ratios(entry)])
             if not any(map(has_aim, case))]
    found.sort(key=median_ratio, reverse=True)
    return WORST_HEAD + "".join(
        line([entry["work"], f"{entry['n']:,}", median(entry), median_floor(entry), f"{median_ratio(entry):.2f}"])
        for entry in found[:WORST_SHOWN])
