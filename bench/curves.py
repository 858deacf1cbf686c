"""Curves as SVG: one panel for each case, value over size, both axes logarithmic."""

import math
import statistics
from xml.sax.saxutils import escape

COLUMNS = 3
PANEL = (300, 220)  # width and height with its title and labels
PLOT = (56, 34, 230, 140)  # left, top, width, height within a panel
OURS, FLOOR, GRID, TEXT = "#0b5fa5", "#c2571a", "#d9d9d9", "#333333"
LONGEST_TITLE_LINE = 46


class Scale:
    """Maps whole decades around the values to a range of the picture."""

    def __init__(self, values, start, length):
        self.first = math.floor(math.log10(min(values)))
        self.last = max(math.ceil(math.log10(max(values))), self.first + 1)
        self.start, self.length = start, length

    def at(self, value):
        part = (math.log10(value) - self.first) / (self.last - self.first)
        return round(self.start + part * self.length, 1)

    def decades(self):
        step = 1 + (self.last - self.first) // 6
        return [10.0 ** exponent for exponent in range(self.first, self.last + 1, step)]


def text(x, y, words, anchor="middle", color=TEXT, extra=""):
    return f'<text x="{x}" y="{y}" text-anchor="{anchor}" fill="{color}"{extra}>{escape(words)}</text>'


def power(value):
    """The label of a tick: a plain number between 0.01 and 10,000, otherwise an exponent."""
    exponent = round(math.log10(value))
    return f"{value:g}" if -2 <= exponent <= 4 else f"1e{exponent}"


def points(entries, key):
    """Medians by size. Logarithmic axes cannot show values and sizes of 0."""
    found = [(entry["n"], statistics.median(entry[key])) for entry in entries if entry[key]]
    return [(size, value) for size, value in found if size > 0 and value > 0]


def line(values, across, up, color, dashes=""):
    path = " ".join(f"{across.at(size)},{up.at(value)}" for size, value in values)
    dots = "".join(f'<circle cx="{across.at(size)}" cy="{up.at(value)}" r="2.4" fill="{color}"/>'
                   for size, value in values)
    return f'<polyline points="{path}" fill="none" stroke="{color}" stroke-width="1.6"{dashes}/>{dots}'


def grid(across, up):
    left, top, width, height = PLOT
    marks = []
    for tick in across.decades():
        x = across.at(tick)
        marks.append(f'<line x1="{x}" y1="{top}" x2="{x}" y2="{top + height}" stroke="{GRID}"/>')
        marks.append(text(x, top + height + 14, power(tick)))
    for tick in up.decades():
        y = up.at(tick)
        marks.append(f'<line x1="{left}" y1="{y}" x2="{left + width}" y2="{y}" stroke="{GRID}"/>')
        marks.append(text(left - 5, y + 4, power(tick), "end"))
    return "".join(marks)


def title(work):
    """The name of the case, in two lines if it is long."""
    head, rest = work, ""
    if len(work) > LONGEST_TITLE_LINE:
        cut = work.rfind(" ", 0, LONGEST_TITLE_LINE)
        head, rest = work[:cut], work[cut + 1:]
    middle = PLOT[0] + PLOT[2] / 2
    return text(middle, 13, head) + text(middle, 26, rest)


def panel(work, entries, unit):
    left, top, width, height = PLOT
    ours, floor = points(entries, "ours"), points(entries, "floor")
    if not ours:
        return ""
    across = Scale([size for size, _ in ours], left, width)
    up = Scale([value for _, value in ours + floor], top + height, -height)
    parts = [title(work), grid(across, up), line(ours, across, up, OURS)]
    if floor:
        parts.append(line(floor, across, up, FLOOR, ' stroke-dasharray="5 3"'))
    parts.append(text(left + width / 2, top + height + 29, "n"))
    parts.append(text(12, top + height / 2, unit, extra=f' transform="rotate(-90 12 {top + height / 2})"'))
    return "".join(parts)


def legend(width):
    return (f'<g transform="translate({width / 2 - 78} 8)">'
            f'<line x1="0" y1="6" x2="24" y2="6" stroke="{OURS}" stroke-width="2"/>{text(30, 10, "measured", "start")}'
            f'<line x1="95" y1="6" x2="119" y2="6" stroke="{FLOOR}" stroke-width="2" stroke-dasharray="5 3"/>'
            f'{text(125, 10, "floor", "start")}</g>')


def draw(works, unit):
    """The picture of `works`: entries by the name of the case."""
    columns = min(COLUMNS, len(works))
    width, height = columns * PANEL[0], 20 + math.ceil(len(works) / columns) * PANEL[1]
    panels = [f'<g transform="translate({at % columns * PANEL[0]} {20 + at // columns * PANEL[1]})">'
              f"{panel(work, entries, unit)}</g>" for at, (work, entries) in enumerate(works.items())]
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
            f'height="{height}" font-family="sans-serif" font-size="10">\n'
            f'<rect width="{width}" height="{height}" fill="white"/>\n{legend(width)}\n'
            + "\n".join(panels) + "\n</svg>\n")
