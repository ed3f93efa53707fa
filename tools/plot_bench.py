#!/usr/bin/env python3
"""The benchmark's JSON output as charts of ratios, and as the Markdown tables behind them.

Reads what `ovrin_sm_bench --benchmark_format=json` writes (with repetitions, the medians are
used; without, the mean of the runs of each benchmark) and writes two SVG charts:

  PREFIX-ratios.svg     per operation and message, the comparator's time over ours (above 1: ours
                        is faster), on a logarithmic axis with the 1x and 2x lines;
  PREFIX-per-entry.svg  per operation, the cost of one more entry of the bulk message as a share
                        of the whole one-entry message, ours and the comparator's (at most 1:
                        linear in the entries).

Only ratios are drawn: on a shared machine absolute times move between runs, ratios measured in
the same run much less.

    tools/plot_bench.py [-o PREFIX] BENCH.json

Standard library only.
"""
import argparse
import json
import math
import sys
from xml.sax.saxutils import escape

MESSAGES = ["small", "medium", "large", "bulk1", "bulk64"]
COLOURS = ["#1f77b4", "#ff7f0e", "#2ca02c", "#9467bd", "#d62728"]

# (label, our operations, the comparator's): a sum of operations is timed as the sum of their times.
PAIRS = [
    ("encode (marshal / serialize)", ["marshal"], ["serialize"]),
    ("length + encode", ["len", "marshal"], ["byte_size", "serialize"]),
    ("decode into new (/ parse)", ["unmarshal_new"], ["parse_new"]),
    ("decode into new (/ parse on arena)", ["unmarshal_new"], ["parse_arena"]),
    ("decode reusing (/ parse reusing)", ["unmarshal_reuse"], ["parse_reuse"]),
    ("clone (/ copy)", ["clone"], ["copy"]),
    ("compare (/ equals)", ["compare"], ["equals"]),
    ("to_xml (/ to_json)", ["to_xml"], ["to_json"]),
    ("from_xml (/ from_json)", ["from_xml"], ["from_json"]),
    ("to_json (/ to_json)", ["to_json"], ["to_json"]),
    ("from_json (/ from_json)", ["from_json"], ["from_json"]),
    ("print (/ debug_string)", ["print"], ["debug_string"]),
    ("build (/ build)", ["build"], ["build"]),
]

# Operations of the bulk message whose cost per entry is drawn, with the comparator's counterpart.
PER_ENTRY = [("len", "byte_size"), ("marshal", "serialize"), ("unmarshal_new", "parse_new"),
             ("unmarshal_reuse", "parse_reuse"), ("clone", "copy"), ("compare", "equals"), ("hash", None),
             ("to_xml", "to_json"), ("from_xml", "from_json"), ("to_json", "to_json"), ("from_json", "from_json"),
             ("print", "debug_string"), ("build", "build")]

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def read(path):
    """{benchmark name: CPU nanoseconds per operation}."""
    with open(path, encoding="utf-8") as f:
        data = json.load(f)
    medians, runs = {}, {}
    for b in data.get("benchmarks", []):
        if b.get("error_occurred"):
            continue
        name = b.get("run_name", b["name"])
        ns = b["cpu_time"] * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                medians[name] = ns
        else:
            runs.setdefault(name, []).append(ns)
    times = {name: sum(v) / len(v) for name, v in runs.items()}
    times.update(medians)
    return times


def total(times, side, message, ops):
    values = [times.get(f"{side}/{message}/{op}") for op in ops]
    return None if any(v is None for v in values) else sum(values)


def ratios(times):
    """[(label, {message: comparator time / ours})], the pairs measured."""
    out = []
    for label, ours, theirs in PAIRS:
        row = {}
        for m in MESSAGES:
            a, b = total(times, "ours", m, ours), total(times, "pb", m, theirs)
            if a and b:
                row[m] = b / a
        if row:
            out.append((label, row))
    return out


def per_entry(times):
    """[(op, ours, comparator's)]: (bulk64 - bulk1) / 63 over bulk1, None where not measured."""
    def share(side, op):
        if op is None:
            return None
        one, many = times.get(f"{side}/bulk1/{op}"), times.get(f"{side}/bulk64/{op}")
        return (many - one) / 63 / one if one and many else None
    return [(ours, share("ours", ours), share("pb", theirs)) for ours, theirs in PER_ENTRY
            if share("ours", ours) is not None]


def svg_document(width, height, body):
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
        *body,
        "</svg>",
        "",
    ])


def legend(x, y, entries):
    out = []
    for i, (label, colour) in enumerate(entries):
        out.append(f'<rect x="{x}" y="{y + 16 * i - 9}" width="12" height="10" fill="{colour}"/>')
        out.append(f'<text x="{x + 18}" y="{y + 16 * i}">{escape(label)}</text>')
    return out


def bars_svg(title, rows, series, colours, scale, ticks, tick_label, marks, axis_label, origin):
    """Horizontal grouped bars from `origin`: rows of (label, {series: value}); scale maps a value
    to 0..1 of the axis."""
    left, right, top, bottom = 250, 150, 48, 44
    bar, gap = 9, 10
    group = bar * len(series) + gap
    plot_w = 520
    plot_h = group * len(rows)
    width, height = left + plot_w + right, top + plot_h + bottom

    def px(v):
        return left + plot_w * min(max(scale(v), 0.0), 1.0)

    out = [f'<text x="{left}" y="20" font-weight="bold">{escape(title)}</text>']
    for t in ticks:
        out.append(f'<line x1="{px(t):.1f}" y1="{top}" x2="{px(t):.1f}" y2="{top + plot_h}" stroke="#ddd"/>')
        out.append(f'<text x="{px(t):.1f}" y="{top + plot_h + 16}" text-anchor="middle">{tick_label(t)}</text>')
    for value, label, dash in marks:
        style = ' stroke-dasharray="5,4"' if dash else ""
        out.append(f'<line x1="{px(value):.1f}" y1="{top - 6}" x2="{px(value):.1f}" y2="{top + plot_h}" '
                   f'stroke="#333" stroke-width="1.5"{style}/>')
        out.append(f'<text x="{px(value) + 4:.1f}" y="{top - 8}" font-size="11">{escape(label)}</text>')
    base = px(origin)
    for r, (label, values) in enumerate(rows):
        y = top + r * group + gap / 2
        out.append(f'<text x="{left - 8}" y="{y + bar * len(series) / 2 + 4:.1f}" '
                   f'text-anchor="end">{escape(label)}</text>')
        for s, name in enumerate(series):
            v = values.get(name)
            if v is None:
                continue
            x = px(v)
            x0, w = (base, x - base) if x >= base else (x, base - x)
            out.append(f'<rect x="{x0:.1f}" y="{y + s * bar:.1f}" width="{max(w, 1):.1f}" height="{bar - 1}" '
                       f'fill="{colours[s]}"><title>{escape(name)}: {v:.3g}</title></rect>')
    out.append(f'<rect x="{left}" y="{top}" width="{plot_w}" height="{plot_h}" fill="none" stroke="#333"/>')
    out.append(f'<text x="{left + plot_w / 2}" y="{height - 8}" text-anchor="middle">{escape(axis_label)}</text>')
    out += legend(left + plot_w + 16, top + 10, list(zip(series, colours)))
    return svg_document(width, height, out)


def ratio_chart(rows):
    values = [v for _, row in rows for v in row.values()]
    low = 10 ** math.floor(math.log10(min(values + [0.5])))
    high = 10 ** math.ceil(math.log10(max(values + [2.0])))
    span = math.log10(high) - math.log10(low)
    ticks = [10 ** e for e in range(round(math.log10(low)), round(math.log10(high)) + 1)]
    return bars_svg("Comparator's time over ours, per operation and message (above 1: ours is faster)",
                    rows, MESSAGES, COLOURS, lambda v: (math.log10(v) - math.log10(low)) / span, ticks,
                    lambda t: f"{t:g}x", [(1, "1x", False), (2, "2x", True)],
                    "ratio, logarithmic; bars grow from 1x: to the right ours is faster, to the left slower", 1)


def per_entry_chart(rows):
    table = [(op, {"ours": a, **({"comparator": b} if b is not None else {})}) for op, a, b in rows]
    top = max([1.25] + [v for _, a, b in rows for v in (a, b) if v is not None])
    step = 0.25 if top <= 2 else 0.5
    ticks = [i * step for i in range(int(top / step) + 2)]
    return bars_svg("Cost of one more bulk entry, as a share of the whole one-entry message",
                    table, ["ours", "comparator"], [COLOURS[0], COLOURS[1]], lambda v: v / ticks[-1], ticks,
                    lambda t: f"{t:g}", [(1, "linear bound", True)], "(bulk64 - bulk1) / 63 / bulk1", 0)


def tables(ratio_rows, entry_rows):
    lines = ["| operation | " + " | ".join(MESSAGES) + " |", "|---|" + "---|" * len(MESSAGES)]
    for label, row in ratio_rows:
        lines.append(f"| {label} | " + " | ".join(f"{row[m]:.2f}" if m in row else "-" for m in MESSAGES) + " |")
    lines += ["", "| op | ours per entry / bulk1 | comparator per entry / bulk1 |", "|---|---|---|"]
    for op, a, b in entry_rows:
        lines.append(f"| {op} | {a:.2f} | {'-' if b is None else f'{b:.2f}'} |")
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-o", "--output", help="write PREFIX-ratios.svg and PREFIX-per-entry.svg")
    parser.add_argument("json", help="the benchmark's --benchmark_format=json output")
    args = parser.parse_args()
    times = read(args.json)
    ratio_rows, entry_rows = ratios(times), per_entry(times)
    if not ratio_rows and not entry_rows:
        sys.exit(f"plot_bench.py: no benchmark of ours with its comparator in {args.json}")
    if args.output:
        for suffix, chart, rows in (("ratios", ratio_chart, ratio_rows), ("per-entry", per_entry_chart, entry_rows)):
            if rows:
                with open(f"{args.output}-{suffix}.svg", "w", encoding="utf-8") as f:
                    f.write(chart(rows))
    sys.stdout.write(tables(ratio_rows, entry_rows))


if __name__ == "__main__":
    main()
