# SPDX-License-Identifier: Apache-2.0
"""What comes out of a run: the table, the JSON file and the plot. Keeps nothing but the rows."""

import json
import math
import statistics

COLOURS = ["#444", "#c33", "#e90", "#27b", "#393", "#84b", "#888"]


def quartiles(values):
    """Of the distance between the quartiles and the median, the first."""
    if len(values) < 4:
        return max(values) - min(values)
    low, _, high = statistics.quantiles(values, n=4)
    return high - low


def percentile(values, share):
    ordered = sorted(values)
    return ordered[int((len(ordered) - 1) * share)]


def text_of(value, unit):
    """A value for people, with its unit."""
    if value is None:
        return "-"
    if unit == "ns":
        for size, name in ((1e9, "s"), (1e6, "ms"), (1e3, "us")):
            if value >= size:
                value /= size
                return f"{value:.0f} {name}" if value >= 100 else f"{value:.3g} {name}"
        return f"{value:.3g} ns"
    if unit in ("/s", ""):
        return f"{value:,.0f} {unit}".strip()
    return f"{value:,.1f} {unit}"


class Report:
    def __init__(self, about):
        self.about = about
        self.rows = []

    def add(self, workload, peer, median, unit, *, p99=None, ratio=None, spread=None, **more):
        """`spread` is that of the ratio from round to round, where there is a ratio."""
        self.rows.append(dict(workload=workload, peer=peer, median=median, unit=unit, p99=p99,
                              ratio=ratio, spread=spread, **more))

    def table(self):
        lines = [f"{key}: {value}" for key, value in self.about.items()]
        lines += ["", f"{'':34}{'median':>14}{'p99':>11}{'x floor':>10}{'spread':>9}"]
        last = None
        for row in self.rows:
            if row["workload"] != last:
                last = row["workload"]
                lines.append(last)
            ratio = f"{row['ratio']:.3f}" if row["ratio"] is not None else "-"
            spread = f"{row['spread']:.3f}" if row["spread"] else "-"
            lines.append(f"  {row['peer']:32}{text_of(row['median'], row['unit']):>14}"
                         f"{text_of(row['p99'], row['unit']):>11}{ratio:>10}{spread:>9}")
        return "\n".join(lines) + "\n"

    def write(self, directory):
        (directory / "results.txt").write_text(self.table())
        (directory / "results.json").write_text(
            json.dumps({"about": self.about, "rows": self.rows}, indent=1) + "\n")
        (directory / "results.svg").write_text(plot(self.rows))


def plot(rows):
    """One panel for each workload: bars of the ratio to the floor. A logarithmic scale that ends at
    0.1 and 20, since some peers lie far apart; the line is the floor."""
    panels = {}
    for row in rows:
        if row["ratio"] is not None:
            panels.setdefault(row["workload"], []).append(row)
    width, bar, gap, left, right = 760, 15, 34, 330, 90
    body, y = [], 30
    low, high = 0.1, 20

    def place(ratio):
        ratio = min(max(ratio, low), high)
        share = math.log(ratio / low) / math.log(high / low)
        return left + (width - left - right) * share

    for workload, group in panels.items():
        body.append(f'<text x="10" y="{y}" font-weight="bold">{escape(workload)}</text>')
        y += 8
        top = y
        for number, row in enumerate(group):
            end = place(row["ratio"])
            start, length = min(end, place(1)), abs(end - place(1))
            colour = COLOURS[number % len(COLOURS)]
            body.append(f'<text x="{left - 130}" y="{y + 11}" text-anchor="end">'
                        f'{escape(row["peer"])}</text>')
            body.append(f'<text x="{left - 20}" y="{y + 11}" text-anchor="end">'
                        f'{escape(text_of(row["median"], row["unit"]))}</text>')
            body.append(f'<rect x="{start:.1f}" y="{y}" width="{max(length, 1):.1f}" '
                        f'height="{bar - 3}" fill="{colour}"/>')
            body.append(f'<text x="{max(end, place(1)) + 5:.1f}" y="{y + 11}">'
                        f'{row["ratio"]:.3f}</text>')
            y += bar
        body.append(f'<line x1="{place(1):.1f}" x2="{place(1):.1f}" y1="{top - 3}" y2="{y}" '
                    'stroke="#000"/>')
        y += gap
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{y}" '
            'font-family="sans-serif" font-size="11">\n'
            f'<rect width="{width}" height="{y}" fill="#fff"/>\n' + "\n".join(body) + "\n</svg>\n")


def escape(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
