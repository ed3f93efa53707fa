#!/usr/bin/env python3
"""The session manager under load, as a chart and as tables.

Reads the reports `ovrin-sm demo --clients N --json` prints (one JSON object each) and writes an
SVG chart of two panels over the time since the session manager started serving, one line per
report: the messages it handled per second between consecutive samples of its timeline (from the
start of serving, when none had been handled, to the first sample, then sample to sample), and
its resident set size, the vertical axis from zero so that a flat line is seen as flat, with the
first and last tenth of each run shaded and the sizes the report gives for them dashed across,
since the run is judged on those two. Prints a Markdown table per report for
docs/performance.md.

    tools/plot_load.py [-o CHART.svg] REPORT.json...

Standard library only.
"""
import argparse
import json
import math
import sys
from xml.sax.saxutils import escape

from plot_memory import COLOURS, count_label, nice_step

WIDTH, PANEL = 760, 270
LEFT, RIGHT, TOP, BOTTOM = 64, 24, 28, 40


def field(report, *path):
    """report[path[0]][path[1]]..., None where any part is missing."""
    for key in path:
        if not isinstance(report, dict) or key not in report:
            return None
        report = report[key]
    return report


def label(report):
    faults = field(report, "faults") or []
    think = field(report, "think_us")
    pauses = "" if think is None else f", pauses of about {think / 1000:g} ms" if think else ", no pauses"
    return (f"{field(report, 'clients')} clients x {field(report, 'sessions_per_client')} sessions{pauses}"
            + (f", faults: {', '.join(faults)}" if faults else ""))


def tenths(report):
    """The resident set size, KiB, the report gives for the first and for the last tenth of the run."""
    return tuple(field(report, "manager", "rss_kib", k) for k in ("first_tenth", "last_tenth"))


def samples(report):
    """[(t, messages, rss_kib)] by time; entries lacking one of the three are left out."""
    return sorted((s["t"], s["messages"], s["rss_kib"]) for s in field(report, "timeline") or []
                  if isinstance(s, dict) and all(k in s for k in ("t", "messages", "rss_kib")))


def rates(timeline):
    """[(t0, t1, messages per second)] between consecutive points in time, skipping repeated times."""
    points = [(t, m) for t, m, _ in timeline]
    if points and points[0][0] > 0:
        points.insert(0, (0.0, 0))
    return [(t0, t1, (m1 - m0) / (t1 - t0)) for (t0, m0), (t1, m1) in zip(points, points[1:]) if t1 > t0]


def panel(y0, title, ylabel, xtop, xstep, ytop, ystep, ytick):
    """Axes, grid and title of one panel at height y0; returns the elements and the two scales."""
    pw, ph = WIDTH - LEFT - RIGHT, PANEL - TOP - BOTTOM

    def px(t):
        return LEFT + pw * t / xtop

    def py(v):
        return y0 + TOP + ph * (1 - v / ytop)

    out = [f'<text x="{LEFT}" y="{y0 + 16}" font-weight="bold">{escape(title)}</text>']
    for i in range(round(ytop / ystep) + 1):
        out.append(f'<line x1="{LEFT}" y1="{py(i * ystep):.1f}" x2="{LEFT + pw}" y2="{py(i * ystep):.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{LEFT - 6}" y="{py(i * ystep) + 4:.1f}" text-anchor="end">{ytick(i * ystep)}</text>')
    for i in range(int(xtop / xstep + 1e-9) + 1):
        x = px(i * xstep)
        out.append(f'<line x1="{x:.1f}" y1="{y0 + TOP + ph}" x2="{x:.1f}" y2="{y0 + TOP + ph + 4}" stroke="#333"/>')
        out.append(f'<text x="{x:.1f}" y="{y0 + TOP + ph + 17}" text-anchor="middle">{i * xstep:g}</text>')
    out.append(f'<rect x="{LEFT}" y="{y0 + TOP}" width="{pw}" height="{ph}" fill="none" stroke="#333"/>')
    out.append(f'<text x="{LEFT + pw / 2}" y="{y0 + PANEL - 6}" text-anchor="middle">seconds since serving began</text>')
    out.append(f'<text transform="translate(16,{y0 + TOP + ph / 2:.1f}) rotate(-90)" '
               f'text-anchor="middle">{escape(ylabel)}</text>')
    return out, px, py


def top_of(vmax):
    step = nice_step(vmax * 1.15)
    return step * max(1, math.ceil(vmax * 1.15 / step)), step


def note(out, y0, text):
    out.append(f'<text x="{LEFT + (WIDTH - LEFT - RIGHT) / 2}" y="{y0 + PANEL / 2}" text-anchor="middle" '
               f'fill="#888">{escape(text)}</text>')


def svg(reports):
    runs = [(name, r, samples(r), COLOURS[i % len(COLOURS)]) for i, (name, r) in enumerate(reports)]
    head = 40 + 30 * len(runs)
    out = ['<text x="16" y="22" font-weight="bold" font-size="14">ovrin-sm demo: the session manager under load</text>']
    kib = [v for _, r, tl, _ in runs for v in [s[2] for s in tl] + list(tenths(r)) if v is not None]
    scale, unit = (1024, "MiB") if max(kib, default=0) >= 8192 else (1, "KiB")
    for i, (name, r, tl, colour) in enumerate(runs):
        first, last = tenths(r)
        gate = f"; last - first tenth {(last - first) / scale:+.1f} {unit}" if first is not None and last is not None else ""
        count = {0: "no samples in the timeline", 1: "one sample only"}.get(len(tl), f"{len(tl)} samples")
        y = 40 + 30 * i
        out.append(f'<line x1="16" y1="{y - 4}" x2="34" y2="{y - 4}" stroke="{colour}" stroke-width="2"/>')
        out.append(f'<text x="40" y="{y}">{escape(label(r))}</text>')
        out.append(f'<text x="40" y="{y + 13}" font-size="11" fill="#555">{escape(f"{name}: {count}{gate}")}</text>')
    xmax = max((tl[-1][0] for _, _, tl, _ in runs if tl), default=0)
    xstep = nice_step(xmax * 1000) / 1000  # in milliseconds first, so that a short run gets ticks too
    xtop = xmax or 1

    lines = [(colour, rates(tl)) for _, _, tl, colour in runs]
    ytop, ystep = top_of(max((v for _, rs in lines for *_, v in rs), default=0))
    body, px, py = panel(head, "Messages the session manager handled per second, between samples",
                         "messages per second", xtop, xstep, ytop, ystep, lambda v: count_label(int(v)))
    for colour, rs in (line for line in lines if line[1]):
        points = " ".join(f"{px(t):.1f},{py(v):.1f}" for t0, t1, v in rs for t in (t0, t1))
        body.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.5"/>')
    if not any(rs for _, rs in lines):
        note(body, head, "fewer than two points in time: no throughput to draw")
    out += body

    y0 = head + PANEL
    ytop, ystep = top_of(max(kib, default=0) / scale)
    body, px, py = panel(y0, "Its resident set size (shaded: first and last tenth of each run; dashed: "
                         "their size as reported)", f"resident set size, {unit}", xtop, xstep, ytop, ystep,
                         lambda v: f"{v:g}")
    for _, r, tl, colour in (run for run in runs if run[2]):
        end = tl[-1][0]
        for (a, b), size in zip(((0, end / 10), (end * 0.9, end)), tenths(r)):
            body.insert(1, f'<rect x="{px(a):.1f}" y="{py(ytop):.1f}" width="{px(b) - px(a):.1f}" '
                        f'height="{py(0) - py(ytop):.1f}" fill="{colour}" fill-opacity="0.1"/>')
            if size is not None:
                body.append(f'<line x1="{px(a):.1f}" y1="{py(size / scale):.1f}" x2="{px(b):.1f}" '
                            f'y2="{py(size / scale):.1f}" stroke="{colour}" stroke-dasharray="5,3"/>')
        points = " ".join(f"{px(t):.1f},{py(rss / scale):.1f}" for t, _, rss in tl)
        body.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.5"/>')
        if len(tl) == 1:
            body.append(f'<circle cx="{px(tl[0][0]):.1f}" cy="{py(tl[0][2] / scale):.1f}" r="3" fill="{colour}"/>')
    if not any(tl for _, _, tl, _ in runs):
        note(body, y0, "no samples in the timeline")
    out += body

    height = y0 + PANEL
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
                      f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="12">',
                      f'<rect width="{WIDTH}" height="{height}" fill="white"/>', *out, "</svg>", ""])


def num(v, digits=0):
    return "-" if v is None else f"{v:,.{digits}f}"


def causes(counts):
    return "-" if counts is None else ", ".join(f"{k} {v:,}" for k, v in counts.items() if v) or "none"


def table(name, r):
    def g(*path):
        return field(r, *path)

    def slash(*path_ends, prefix=()):
        return " / ".join(num(g(*prefix, k)) for k in path_ends)

    first, last = tenths(r)
    growth = f" ({last - first:+,})" if first is not None and last is not None else ""
    reasons = "; ".join(g("reasons") or [])
    rows = [
        ("clients", num(g("clients"))),
        ("sessions", f"{num(g('sessions'))} ({num(g('sessions_per_client'))} per client)"),
        ("messages", num(g("messages"))),
        ("messages/s (wall)", f"{num(g('messages_per_second'))} over {num(g('seconds'), 1)} s"),
        ("messages per core-second, session manager",
         f"{num(g('manager', 'messages_per_core_second'))} ({num(g('manager', 'messages'))} messages "
         f"in {num(g('manager', 'cpu_seconds'), 2)} CPU s, {num(g('manager', 'system_seconds'), 2)} of them "
         f"in the kernel)"),
        ("latency p50 / p99 / max, us", f"{slash('p50', 'p99', 'max', prefix=('latency_us',))} "
                                        f"({num(g('latency_us', 'exchanges'))} exchanges)"),
        ("session manager's part p50 / p99 / max, us", slash("p50", "p99", "max", prefix=("service_us",))),
        ("RSS start / peak / end, KiB", slash("start", "peak", "end", prefix=("manager", "rss_kib"))),
        ("RSS first / last tenth, KiB", slash("first_tenth", "last_tenth", prefix=("manager", "rss_kib")) + growth),
        ("live allocations", num(g("manager", "live_allocations"))),
        ("descriptors start / end", slash("start", "end", prefix=("manager", "descriptors"))),
        ("drops", causes(g("drops"))),
        ("refused", causes(g("refused"))),
        ("verdict", (g("verdict") or "-") + (f": {reasons}" if reasons else "")),
    ]
    return "\n".join([f"| {label(r)} | {name} |", "|---|---|",
                      *(f"| {k} | {v} |" for k, v in rows), "", ""])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-o", "--output", help="the SVG chart to write")
    parser.add_argument("reports", nargs="+", help="files each holding one report of ovrin-sm demo --json")
    args = parser.parse_args()
    reports = []
    for path in args.reports:
        try:
            with open(path, encoding="utf-8") as f:
                report = json.load(f)
        except (OSError, ValueError) as e:
            sys.exit(f"plot_load.py: {path}: {e}")
        if not isinstance(report, dict):
            sys.exit(f"plot_load.py: {path}: not a JSON object")
        reports.append((path, report))
    if args.output:
        with open(args.output, "w", encoding="utf-8") as f:
            f.write(svg(reports))
    sys.stdout.write("".join(table(path, r) for path, r in reports))


if __name__ == "__main__":
    main()
