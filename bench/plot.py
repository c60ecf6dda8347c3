# SPDX-License-Identifier: Apache-2.0
"""Plots as SVG, two panels in a row. A panel has two logarithmic axes, size across and time upwards, unless it says other
ones."""
import dataclasses
import html
import math
import typing

COLOURS = ["#b2182b", "#2166ac", "#4d9221", "#762a83", "#e08214", "#1b9e9e", "#777777"]
WIDTH, HEIGHT = 500, 360
LEFT, RIGHT, TOP, BOTTOM = 64, 16, 34, 46
BEND = 0.15  # a rise of the exponent by this much is a bend,
RISE = 1.25  # where the time grows by this factor at least to the next size
UNITS = ((1e9, "s"), (1e6, "ms"), (1e3, "µs"), (1, "ns"))


def bends(points):
    """The sizes after which the time grows faster, as a power of the size, than before and by a quarter at least."""
    slopes = [math.log(t1 / t0) / math.log(n1 / n0) for (n0, t0), (n1, t1) in zip(points, points[1:])]
    return [points[i][0] for i in range(1, len(slopes))
            if slopes[i] - slopes[i - 1] > BEND and points[i + 1][1] > RISE * points[i][1]]


def duration(exponent):
    value = 10.0**exponent
    for size, unit in UNITS:
        if value >= size:
            return f"{value / size:g} {unit}"
    return f"{value:g} ns"


def count(exponent):
    value = 10**exponent
    for size, unit in ((1000000, " M"), (1000, " k")):
        if value >= size:
            return f"{value // size}{unit}"
    return str(value)


class Axis:
    """A range of values on a range of pixels, from whole power of ten to whole power of ten."""

    def __init__(self, values, first, last, label):
        self.low = math.floor(math.log10(min(values)) + 1e-9)
        self.high = max(math.ceil(math.log10(max(values)) - 1e-9), self.low + 1)
        self.first, self.last, self.label = first, last, label

    def at(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return round(self.first + part * (self.last - self.first), 1)

    def marks(self):
        """(value, text) of each line across the panel."""
        return [(10.0**power, self.label(power)) for power in range(self.low, self.high + 1)]


class Linear:
    """A range of values on a range of pixels, from 0 to a whole number of steps: about five, of 1, 2 or 5 times a power of
    ten. `room` is how much more than the highest value there has to be."""

    def __init__(self, values, first, last, room=1.0):
        most = max(max(values) * room, 1e-9)
        power = 10.0 ** math.floor(math.log10(most / 4))
        self.step = next(n * power for n in (1, 2, 5, 10) if n * power * 6 >= most)
        self.steps = math.ceil(most / self.step - 1e-9)
        self.first, self.last = first, last

    def at(self, value):
        return round(self.first + value / (self.steps * self.step) * (self.last - self.first), 1)

    def marks(self):
        return [(n * self.step, f"{n * self.step:g}") for n in range(self.steps + 1)]


def sizes(values, first, last):
    return Axis(values, first, last, count)


def times(values, first, last):
    return Axis(values, first, last, duration)


@dataclasses.dataclass
class Panel:
    title: str
    axis: str
    lines: dict  # title -> [(across, upwards)]: (size, nanoseconds) on the usual axes
    across: typing.Callable = sizes
    upwards: typing.Callable = times
    dots: bool = True  # at each point


def draw(panel, left, top):
    points = [point for line in panel.lines.values() for point in line]
    parts = [text(left + WIDTH / 2, top + 20, panel.title, "middle", "bold")]
    if not points:
        return parts + [text(left + WIDTH / 2, top + HEIGHT / 2, "not measured", "middle")]
    across = panel.across([x for x, _ in points], left + LEFT, left + WIDTH - RIGHT)
    upwards = panel.upwards([y for _, y in points], top + HEIGHT - BOTTOM, top + TOP)
    for value, label in across.marks():
        x = across.at(value)
        parts.append(segment(x, upwards.first, x, upwards.last))
        parts.append(text(x, upwards.first + 16, label, "middle"))
    for value, label in upwards.marks():
        y = upwards.at(value)
        parts.append(segment(across.first, y, across.last, y))
        parts.append(text(across.first - 6, y + 4, label, "end"))
    parts.append(text((across.first + across.last) / 2, upwards.first + 36, panel.axis, "middle"))
    for number, (title, line) in enumerate(panel.lines.items()):
        colour = COLOURS[number % len(COLOURS)]
        path = " ".join(f"{across.at(n)},{upwards.at(t)}" for n, t in line)
        parts.append(f'<polyline fill="none" stroke="{colour}" stroke-width="2" points="{path}"/>')
        if panel.dots:
            parts += [f'<circle cx="{across.at(n)}" cy="{upwards.at(t)}" r="2.5" fill="{colour}"/>' for n, t in line]
        y = top + TOP + 14 + 15 * number
        parts.append(f'<path d="M{left + LEFT + 8},{y - 4}h18" stroke="{colour}" stroke-width="2"/>')
        parts.append(text(left + LEFT + 30, y, title))
    return parts


def segment(x1, y1, x2, y2):
    return f'<path d="M{x1},{y1}L{x2},{y2}" stroke="#ddd"/>'


def text(x, y, content, anchor="start", weight="normal"):
    return (f'<text x="{x:g}" y="{y:g}" text-anchor="{anchor}" font-weight="{weight}">'
            f'{html.escape(content)}</text>')


def figure(panels):
    rows = (len(panels) + 1) // 2
    width, height = WIDTH * min(2, len(panels)), HEIGHT * rows
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
             '<rect width="100%" height="100%" fill="white"/>']
    for number, panel in enumerate(panels):
        parts += draw(panel, number % 2 * WIDTH, number // 2 * HEIGHT)
    return "\n".join(parts + ["</svg>"]) + "\n"
