#!/usr/bin/env python3
"""Memory over a long run, as a chart and as tables.

Reads the memory lines that `ovrin-sm demo --memory-every N` and tests/soak_library print

    memory: client after 100000 sessions: rss 6668 KiB, peak 6668 KiB, live allocations 0
    memory: library after 100000 round trips: rss 4932 KiB, peak 4932 KiB, live allocations 0

from one or more log files (other lines are ignored), writes an SVG chart of the resident set
size of each process against sessions or round trips (one panel per unit, the vertical axis from
zero so that a flat line is seen as flat), and prints the Markdown tables of docs/performance.md.

    tools/plot_memory.py [-o CHART.svg] LOG...

Standard library only.
"""
import argparse
import re
import sys
from xml.sax.saxutils import escape

LINE = re.compile(r"^memory: (?P<who>.+?) after (?P<n>\d+) (?P<unit>sessions|round trips): "
                  r"rss (?P<rss>\d+) KiB, peak (?P<peak>\d+) KiB, live allocations (?P<live>\d+)$")

COLOURS = ["#1f77b4", "#d62728", "#2ca02c", "#9467bd"]


def read(paths):
    """{unit: {who: [(n, rss, peak, live), ...]}} in the order met."""
    panels = {}
    for path in paths:
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                m = LINE.match(line.rstrip("\n"))
                if m:
                    series = panels.setdefault(m["unit"], {}).setdefault(m["who"], [])
                    series.append((int(m["n"]), int(m["rss"]), int(m["peak"]), int(m["live"])))
    for series in panels.values():
        for samples in series.values():
            samples.sort()
    return panels


def nice_step(span, ticks=5):
    """A round step (1, 2 or 5 times a power of ten) giving about `ticks` intervals over span."""
    raw = span / ticks if span > 0 else 1
    power = 10 ** (len(str(int(raw))) - 1) if raw >= 1 else 1
    for m in (1, 2, 5, 10):
        if raw <= m * power:
            return m * power
    return 10 * power


def count_label(n):
    if n >= 1_000_000 and n % 100_000 == 0:
        return f"{n / 1_000_000:g}M"
    if n >= 1000 and n % 1000 == 0:
        return f"{n // 1000}k"
    return str(n)


def panel_svg(x0, y0, width, height, title, unit, series):
    """One chart panel at (x0, y0): axes, grid, a polyline and dots per series, a legend."""
    out = []
    left, right, top, bottom = 56, 24, 28, 40
    pw, ph = width - left - right, height - top - bottom
    xmax = max(n for samples in series.values() for n, *_ in samples)
    ymax_mib = max(rss for samples in series.values() for _, rss, *_ in samples) / 1024
    ystep = nice_step(ymax_mib * 1.25, 5)
    ytop = ystep * (int(ymax_mib * 1.25 / ystep) + 1)
    xstep = nice_step(xmax, 5)

    def px(n):
        return x0 + left + pw * n / xmax

    def py(mib):
        return y0 + top + ph * (1 - mib / ytop)

    out.append(f'<text x="{x0 + left}" y="{y0 + 16}" font-weight="bold">{escape(title)}</text>')
    y = 0
    while y <= ytop + 1e-9:
        out.append(f'<line x1="{x0 + left}" y1="{py(y):.1f}" x2="{x0 + left + pw}" y2="{py(y):.1f}" '
                   f'stroke="#ddd"/>')
        out.append(f'<text x="{x0 + left - 6}" y="{py(y) + 4:.1f}" text-anchor="end">{y:g}</text>')
        y += ystep
    x = 0
    while x <= xmax:
        out.append(f'<line x1="{px(x):.1f}" y1="{y0 + top + ph}" x2="{px(x):.1f}" y2="{y0 + top + ph + 4}" '
                   f'stroke="#333"/>')
        out.append(f'<text x="{px(x):.1f}" y="{y0 + top + ph + 17}" text-anchor="middle">{count_label(x)}</text>')
        x += xstep
    out.append(f'<rect x="{x0 + left}" y="{y0 + top}" width="{pw}" height="{ph}" fill="none" stroke="#333"/>')
    out.append(f'<text x="{x0 + left + pw / 2:.1f}" y="{y0 + height - 6}" text-anchor="middle">{escape(unit)}</text>')
    out.append(f'<text transform="translate({x0 + 14},{y0 + top + ph / 2:.1f}) rotate(-90)" '
               f'text-anchor="middle">resident set size, MiB</text>')
    for i, (who, samples) in enumerate(sorted(series.items())):
        colour = COLOURS[i % len(COLOURS)]
        points = " ".join(f"{px(n):.1f},{py(rss / 1024):.1f}" for n, rss, *_ in samples)
        out.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for n, rss, *_ in samples:
            out.append(f'<circle cx="{px(n):.1f}" cy="{py(rss / 1024):.1f}" r="2.5" fill="{colour}"/>')
        peak = max(p for _, _, p, _ in samples) / 1024
        ly = y0 + top + 16 + 16 * i
        out.append(f'<line x1="{x0 + left + 10}" y1="{ly - 4}" x2="{x0 + left + 28}" y2="{ly - 4}" '
                   f'stroke="{colour}" stroke-width="2"/>')
        out.append(f'<text x="{x0 + left + 34}" y="{ly}">{escape(who)} (peak {peak:.1f} MiB)</text>')
    return out


def svg(panels):
    width, height = 460, 300
    titles = {"sessions": "ovrin-sm demo: client and session manager", "round trips": "library alone, one handle"}
    body = []
    for i, (unit, series) in enumerate(panels.items()):
        body += panel_svg(i * width, 0, width, height, titles.get(unit, unit), unit, series)
    total = width * len(panels)
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{total}" height="{height}" '
        f'viewBox="0 0 {total} {height}" font-family="sans-serif" font-size="12">',
        f'<rect width="{total}" height="{height}" fill="white"/>',
        *body,
        "</svg>",
        "",
    ])


def tables(panels):
    lines = []
    for unit, series in panels.items():
        names = sorted(series)
        ns = sorted({n for samples in series.values() for n, *_ in samples})
        lines.append(f"| {unit} | " + " | ".join(f"{who} rss KiB" for who in names) + " |")
        lines.append("|---|" + "---|" * len(names))
        for n in ns:
            cells = []
            for who in names:
                rss = [r for m, r, _, _ in series[who] if m == n]
                cells.append(f"{rss[0]:,}" if rss else "")
            lines.append(f"| {n:,} | " + " | ".join(cells) + " |")
        lines.append("| peak | " + " | ".join(f"{max(p for _, _, p, _ in series[who]):,}" for who in names) + " |")
        growth = []
        for who in names:
            s = series[who]
            growth.append(f"{s[-1][1] - s[0][1]:+,}")
        lines.append(f"| last - first | " + " | ".join(growth) + " |")
        lines.append(f"| live allocations at every sample | " + " | ".join(
            "0" if all(live == 0 for *_, live in series[who]) else "NOT 0" for who in names) + " |")
        lines.append("")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-o", "--output", help="the SVG chart to write")
    parser.add_argument("logs", nargs="+", help="files holding the memory lines")
    args = parser.parse_args()
    panels = read(args.logs)
    if not panels:
        sys.exit("plot_memory.py: no memory lines in " + ", ".join(args.logs))
    if args.output:
        with open(args.output, "w", encoding="utf-8") as f:
            f.write(svg(panels))
    sys.stdout.write(tables(panels))


if __name__ == "__main__":
    main()
