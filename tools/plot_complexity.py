#!/usr/bin/env python3
"""The complexity benchmark's JSON output as a chart of growth, and the table of fitted orders.

Reads what `ovrin_sm_complexity --benchmark_out=FILE --benchmark_out_format=json` writes: for each
channel its CPU time at sizes N to 64N and Google Benchmark's fitted order (the `_BigO` entry).
Writes PREFIX.svg, two panels (the library's channels, the tool's), each channel a line of
time(size) / time(N) over size / N on logarithmic axes, beside the lines linear and quadratic
work would follow; and prints a Markdown table: per channel, the fitted order, the fit's RMS,
the growth over the last doubling (time(64N) / time(32N): about 2 for linear work, 4 for
quadratic) and the time at 64N.

    tools/plot_complexity.py [-o PREFIX] COMPLEXITY.json

Standard library only.
"""
import argparse
import json
import math
import re
import sys
from xml.sax.saxutils import escape

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
COLOURS = ["#1f77b4", "#ff7f0e", "#2ca02c", "#d62728", "#9467bd", "#8c564b", "#e377c2", "#7f7f7f",
           "#bcbd22", "#17becf", "#393b79", "#637939", "#8c6d31", "#843c39"]
ORDERS = {"N": "N", "NlgN": "N log N", "N^2": "N²", "N^3": "N³", "(1)": "1", "lgN": "log N"}


def read(path):
    """{channel: {"sizes": {n: cpu ns}, "order": str, "rms": float}} in the order first seen."""
    with open(path, encoding="utf-8") as f:
        data = json.load(f)
    channels = {}
    for b in data.get("benchmarks", []):
        name = b.get("run_name", b["name"])
        m = re.fullmatch(r"complexity/(.+?)(?:/(\d+))?", name)
        if not m:
            continue
        c = channels.setdefault(m.group(1), {"sizes": {}, "order": None, "rms": None})
        if b.get("error_occurred"):
            continue
        if b.get("aggregate_name") == "BigO":
            c["order"] = ORDERS.get(b.get("big_o"), b.get("big_o"))
        elif b.get("aggregate_name") == "RMS":
            c["rms"] = b.get("rms")
        elif m.group(2) and b.get("run_type") == "iteration":
            c["sizes"][int(m.group(2))] = b["cpu_time"] * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
    return {k: v for k, v in channels.items() if len(v["sizes"]) >= 2}


def last_doubling(sizes):
    ns = sorted(sizes)
    return sizes[ns[-1]] / sizes[ns[-2]] * (ns[-2] * 2 / ns[-1]) if len(ns) >= 2 else None


def panel(x0, y0, w, h, title, channels, top):
    """One log-log panel: x is log2(size / N) from 0 to 6, y is log2(time / time(N)) from 0 to top."""
    def px(x):
        return x0 + w * x / 6

    def py(y):
        return y0 + h - h * min(y, top) / top

    out = [f'<text x="{x0}" y="{y0 - 12}" font-weight="bold">{escape(title)}</text>']
    for t in range(0, 7):
        out.append(f'<line x1="{px(t):.1f}" y1="{y0}" x2="{px(t):.1f}" y2="{y0 + h}" stroke="#eee"/>')
        out.append(f'<text x="{px(t):.1f}" y="{y0 + h + 16}" text-anchor="middle">{2 ** t}N</text>')
    for t in range(0, top + 1, 2):
        out.append(f'<line x1="{x0}" y1="{py(t):.1f}" x2="{x0 + w}" y2="{py(t):.1f}" stroke="#eee"/>')
        out.append(f'<text x="{x0 - 6}" y="{py(t) + 4:.1f}" text-anchor="end">{2 ** t}x</text>')
    for slope, label in ((1, "linear"), (2, "quadratic")):
        end = min(6, top / slope)
        out.append(f'<line x1="{px(0):.1f}" y1="{py(0):.1f}" x2="{px(end):.1f}" y2="{py(slope * end):.1f}" '
                   f'stroke="#888" stroke-width="1.5" stroke-dasharray="6,4"/>')
        at = end * 0.75  # below the line, three quarters along, clear of the title and the ends
        out.append(f'<text x="{px(at) + 8:.1f}" y="{py(slope * at) + 16:.1f}" fill="#666">{label}</text>')
    for i, (name, c) in enumerate(channels):
        ns = sorted(c["sizes"])
        base_n, base_t = ns[0], c["sizes"][ns[0]]
        points = [(math.log2(n / base_n), math.log2(max(c["sizes"][n], 1e-9) / base_t)) for n in ns]
        colour = COLOURS[i % len(COLOURS)]
        path = " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in points)
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2">'
                   f'<title>{escape(name)}: {escape(str(c["order"]))}</title></polyline>')
        ly = y0 + 14 + 15 * i
        out.append(f'<rect x="{x0 + w + 14}" y="{ly - 9}" width="12" height="10" fill="{colour}"/>')
        out.append(f'<text x="{x0 + w + 32}" y="{ly}">{escape(name)} ({escape(str(c["order"]))})</text>')
    out.append(f'<rect x="{x0}" y="{y0}" width="{w}" height="{h}" fill="none" stroke="#333"/>')
    return out


def chart(channels):
    library = [(k, v) for k, v in channels.items() if not k.startswith("tool.")]
    tool = [(k, v) for k, v in channels.items() if k.startswith("tool.")]
    growth = [math.log2(max(c["sizes"][max(c["sizes"])] / c["sizes"][min(c["sizes"])], 1))
              for c in channels.values()]
    top = min(18, max(12, 2 * math.ceil(max(growth + [0]) / 2)))
    left, w, h, legend = 60, 420, 300, 250
    width = left + w + legend
    body, y = [], 60
    for title, rows in (("Library channels: time over the time at N (fitted order)", library),
                        ("Tool channels (ovrin-sm commands): time over the time at N", tool)):
        if rows:
            body += panel(left, y, w, h, title, rows, top)
            y += h + 80
    height = y - 30
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
        f'<text x="{left}" y="22" font-size="13">Growth with the input, N to 64N, logarithmic axes '
        f'(CPU time, Google Benchmark)</text>',
        *body, "</svg>", ""])


def table(channels):
    lines = ["| channel | fitted order | RMS | last doubling | time at 64N |", "|---|---|---|---|---|"]
    for name, c in channels.items():
        ns = sorted(c["sizes"])
        rms = "-" if c["rms"] is None else f"{100 * c['rms']:.0f} %"
        t = c["sizes"][ns[-1]]
        shown = f"{t / 1e6:.3g} ms" if t < 1e9 else f"{t / 1e9:.3g} s"
        lines.append(f"| {name} | {c['order'] or '-'} | {rms} | {last_doubling(c['sizes']):.2f} | {shown} (n = {ns[-1]}) |")
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-o", "--output", help="write PREFIX.svg")
    parser.add_argument("json", help="the complexity benchmark's JSON output")
    args = parser.parse_args()
    channels = read(args.json)
    if not channels:
        sys.exit(f"plot_complexity.py: no complexity benchmark in {args.json}")
    if args.output:
        with open(f"{args.output}.svg", "w", encoding="utf-8") as f:
            f.write(chart(channels))
    sys.stdout.write(table(channels))


if __name__ == "__main__":
    main()
