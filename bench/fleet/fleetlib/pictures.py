"""Pictures as SVG: lines over time. Readable at a width of 360 px and before a light or a dark ground, with a title and a
description for those who do not see them."""

import itertools
import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 480, 330
LEFT, RIGHT, TOP = 74, 14, 44
# Colours that differ in lightness, too; each has one for a light ground and one for a dark one. Dashes tell lines apart
# for those who see no colours.
COLOURS = (("#0b5cad", "#6cb6ff"), ("#b3420a", "#ff9e64"), ("#2d7a33", "#7ee787"), ("#7a3b96", "#d2a8ff"))
DASHES = ("", "8 4", "2 3", "10 3 2 3")
STYLE = """
  .ground { fill: #ffffff } text { fill: #1f2328; font: 14px "DejaVu Sans", Verdana, sans-serif }
  .title { font-size: 15px; font-weight: bold } .small { font-size: 13px }
  .grid { stroke: #d0d7de; stroke-width: 1 } .axis { stroke: #59636e; stroke-width: 1 }
  .band { fill: #59636e; fill-opacity: 0.16 } .line { fill: none; stroke-width: 2.4; stroke-linejoin: round }
"""


def style():
    light = "".join(f"  .c{at} {{ stroke: {pair[0]} }}\n" for at, pair in enumerate(COLOURS))
    dark = "".join(f" .c{at} {{ stroke: {pair[1]} }}" for at, pair in enumerate(COLOURS))
    return (STYLE + light + "  @media (prefers-color-scheme: dark) { .ground { fill: #0d1117 } text { fill: #e6edf3 } "
            ".grid { stroke: #30363d } .axis { stroke: #9198a1 } .band { fill: #9198a1; fill-opacity: 0.22 }" + dark + " }\n")


def number(value):
    """With a few digits, as people write it."""
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def ticks(most):
    """Round steps from 0 up to `most` or a little beyond."""
    if most <= 0:
        return [0, 1]
    power = 10.0 ** math.floor(math.log10(most / 4))
    step = next(factor * power for factor in (1, 2, 2.5, 5, 10) if factor * power >= most / 4)
    return [step * at for at in range(math.ceil(most / step) + 1)]


def hour_ticks(first, last):
    hours = (last - first) / 3600
    step = next(step for step in itertools.chain((1, 2, 3, 6, 12), itertools.count(24, 24)) if hours / step <= 8)
    at = -(-first // (step * 3600)) * step * 3600
    while at <= last:
        yield at, (f"day {at // 86400 + 1}" if step >= 24 else f"{at // 3600} h")
        at += step * 3600


def lines(path, title, description, unit, curves, bands=(), top=None, powers=False):
    """curves: [(label, [(second, value)])]; bands: [(from, until, label)]; unit: of the values, said above the axis. With
    powers each mark is ten times the one below, from 1 on; what is less lies on the axis."""
    first = min(points[0][0] for _, points in curves)
    last = max(points[-1][0] for _, points in curves)
    most = top or max(value for _, points in curves for _, value in points)
    marks = [10 ** power for power in range(math.ceil(math.log10(max(most, 10))) + 1)] if powers else ticks(most)
    height = HEIGHT + 8 + 21 * len(curves)
    bottom = HEIGHT - 40
    across = lambda second: LEFT + (second - first) / max(last - first, 1) * (WIDTH - LEFT - RIGHT)
    part = lambda value: math.log10(max(value, 1)) / math.log10(marks[-1]) if powers else value / marks[-1]
    up = lambda value: bottom - part(value) * (bottom - TOP - 16)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}" role="img" '
           f'aria-labelledby="title desc">', f'<title id="title">{escape(title)}</title>', f'<desc id="desc">{escape(description)}</desc>',
           f"<style>{style()}</style>", f'<rect class="ground" width="{WIDTH}" height="{height}"/>',
           f'<text class="title" x="{WIDTH / 2}" y="22" text-anchor="middle">{escape(title)}</text>',
           f'<text class="small" x="8" y="{TOP + 2}">{escape(unit)}</text>']
    for begin, end, label in bands:
        out.append(f'<rect class="band" x="{across(begin):.1f}" y="{up(marks[-1]):.1f}" width="{across(end) - across(begin):.1f}" '
                   f'height="{bottom - up(marks[-1]):.1f}"/>')
        out.append(f'<text class="small" x="{(across(begin) + across(end)) / 2:.1f}" y="{up(marks[-1]) + 16:.1f}" '
                   f'text-anchor="middle">{escape(label)}</text>')
    for mark in marks:
        out.append(f'<line class="grid" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{up(mark):.1f}" y2="{up(mark):.1f}"/>')
        out.append(f'<text class="small" x="{LEFT - 6}" y="{up(mark) + 5:.1f}" text-anchor="end">{number(mark)}</text>')
    out.append(f'<line class="axis" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{bottom}" y2="{bottom}"/>')
    for at, label in hour_ticks(first, last):
        out.append(f'<line class="axis" x1="{across(at):.1f}" x2="{across(at):.1f}" y1="{bottom}" y2="{bottom + 5}"/>')
        anchor = "middle" if across(at) < WIDTH - 30 else "end"
        out.append(f'<text class="small" x="{min(across(at), WIDTH - 4):.1f}" y="{bottom + 21}" text-anchor="{anchor}">{label}</text>')
    for at, (label, points) in enumerate(curves):
        dash = f' stroke-dasharray="{DASHES[at]}"' if DASHES[at] else ""
        way = " ".join(f"{across(second):.1f},{up(value):.1f}" for second, value in points)
        out.append(f'<polyline class="line c{at}"{dash} points="{way}"/>')
        y = HEIGHT + 8 + 21 * at
        out.append(f'<line class="line c{at}"{dash} x1="{LEFT - 50}" x2="{LEFT - 6}" y1="{y - 5}" y2="{y - 5}"/>')
        out.append(f'<text x="{LEFT}" y="{y}">{escape(label)}</text>')
    out.append("</svg>\n")
    path.write_text("\n".join(out))
