"""report.py RESULTS.json... [--plots DIR] [--document FILE.md]

Tables of what measure.py has written. In them every value is the median of its runs
and stands before its ratio to the road of the first column. --plots draws SVG files
with gnuplot. --document puts the tables between the marks of a document, from
"<!-- table NAME -->" to "<!-- end -->", in place of those that stand there.
"""
import argparse
import json
import pathlib
import re
import statistics
import sys

from testbed.plot import draw

# Name, which measures, which figures of them.
TABLES = [
    ("bulk", r"bulk ", r"MB/s"),
    ("requests", r"requests", r"requests/s|bulk MB/s"),
    ("delay", r"requests", r"median us|p99 us"),
    ("datagrams", r"datagrams", r"queries/s|median us"),
    ("answers", r"answers", r"median us|p99 us"),
    ("burst", r"\d+ connections|requests beside 100 connections", r".*"),
    ("processor time", r"bulk |datagrams", r".* (s/GB|us/query)"),
    ("memory", r"at rest|requests beside", r".* (resident KiB|B/connection)"),
    ("at rest", r"at rest", r".* ms/s at rest"),
    ("link", r"overhead", r".*"),
    ("slow link", r"slow link", r".*"),
    ("failures", r".*", r"failures"),
]
PLOTTED_ROADS = ["direct", "vantrel 5", "vantrel 20", "transparent proxy", "ssh tunnel"]


class Results:
    """Of several runs; each measure is that of the first run which has it, and so is
    what is told about the runs."""

    def __init__(self, paths):
        runs = [json.loads(path.read_text()) for path in paths]
        self.about = runs[0]
        self.medians = {(result["measure"], result["road"], result["figure"]):
                        statistics.median(result["values"])
                        for run in reversed(runs) for result in run["results"]}

    def rows(self, measures, figures):
        """{(measure, figure): {road: value}} of those that match."""
        rows = {}
        for (measure, road, figure), value in self.medians.items():
            if re.match(measures, measure) and re.fullmatch(figures, figure):
                rows.setdefault((measure, figure), {})[road] = value
        return rows


def number(value):
    if value >= 100 or value == int(value):
        return f"{value:,.0f}"
    return f"{value:.3g}" if value >= 0.001 else "0"


def cell(road, row, first):
    if road not in row:
        return ""
    text = number(row[road])
    if road != first and row.get(first):
        text += f" ({row[road] / row[first]:.2f})"
    return text


def table(rows, roads):
    """Lines of cells, the heading first; None when there are no rows. Failures stand
    only where there were any."""
    roads = [road for road in roads if any(road in row for row in rows.values())]
    lines = [["", "", *roads]]
    for (measure, figure), row in rows.items():
        if figure != "failures" or any(row.values()):
            lines.append([measure, figure, *(cell(road, row, roads[0]) for road in roads)])
    return lines if len(lines) > 1 else None


def compare_table(results):
    """Ours beside the other commit's, and the ratio of the two."""
    base = f" at {results.about['base']}"
    lines = [["", "", "ours", base.strip(), "ratio"]]
    for (measure, road, figure), value in results.medians.items():
        other = results.medians.get((measure, road + base, figure))
        if other:
            lines.append([f"{road}: {measure}", figure, number(value), number(other),
                          f"{value / other:.2f}"])
    return lines


def micro_table(results):
    rows = [(name, figure, f"{number(value)}") for (measure, name, figure), value
            in results.medians.items() if measure.startswith("micro ")]
    lines = {}
    for name, figure, value in rows:
        lines.setdefault(name, {})[figure] = value
    return [["", "ns", "MB/s"], *([name, figures.get("ns", ""), figures.get("MB/s", "")]
                                  for name, figures in lines.items())]


def tables(results):
    made = {name: table(results.rows(measures, figures), results.about["roads"])
            for name, measures, figures in TABLES}
    made["delay rates"] = delay_table(results)
    made["compare"] = compare_table(results)
    made["micro"] = micro_table(results)
    made["about"] = [["", ""], *([key, str(results.about.get(key, ""))] for key in (
        "when", "commit", "processors", "processor", "kernel", "load before", "seconds",
        "repeats", "minutes"))]
    return {name: lines for name, lines in made.items() if lines and len(lines) > 1}


def delay_rates(results):
    """{(direction, limit): [(ms, kB/s)]}."""
    lines = {}
    form = r"rate with delay, (\w+), ([^,]+), (\d+) ms"
    for (measure, _, _), value in results.medians.items():
        if found := re.match(form, measure):
            lines.setdefault((found[1], found[2]), []).append((int(found[3]), value))
    return lines


def delay_table(results):
    lines = delay_rates(results)
    delays = sorted({delay for points in lines.values() for delay, _ in points})
    return [["delay each way, ms", *(f"{direction}, {limit}" for direction, limit in lines)],
            *([str(delay), *(number(dict(points)[delay]) if delay in dict(points) else ""
                             for points in lines.values())] for delay in delays)]


def as_text(lines):
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    return "\n".join("  ".join(
        text.ljust(width) if i < 2 else text.rjust(width)
        for i, (text, width) in enumerate(zip(line, widths))).rstrip() for line in lines)


def as_markdown(lines):
    heading, *rest = ["| " + " | ".join(line) + " |" for line in lines]
    return "\n".join([heading, "|---|" + "---:|" * (len(lines[0]) - 1), *rest])


def write_document(path, made):
    text = path.read_text()
    names = re.findall(r"<!-- table (.*) -->", text)
    for name in names:
        if name not in made:
            print(f"report: no figures for the table {name!r}, left as it is", file=sys.stderr)
            continue
        text = re.sub(rf"(<!-- table {name} -->\n).*?(<!-- end -->)",
                      lambda found, name=name: found[1] + as_markdown(made[name]) + "\n" + found[2],
                      text, count=1, flags=re.S)
    path.write_text(text)


def draw_bulk(results, directory):
    rows = [(road, *(results.medians.get((f"bulk {direction}, 1 stream", road, "MB/s"), 0)
                     for direction in ("down", "up"))) for road in PLOTTED_ROADS
            if road in results.about["roads"]]
    if any(down for _, down, _ in rows):
        draw(directory / "bulk.svg", """set style data histograms
set style fill solid 0.8 border -1
set ylabel "MB/s, one stream"
set yrange [0:*]
plot $rates using 2:xtic(1) title "down", "" using 3 title "up\"""", {"rates": rows})


def draw_processor(results, directory):
    """A bar per road and direction, of the programs one upon the other."""
    bars = {}
    for (measure, road, figure), value in results.medians.items():
        found = re.fullmatch(r"bulk (\w+), 1 stream", measure)
        if found and figure.endswith(" s/GB") and road in PLOTTED_ROADS:
            bars.setdefault((road, found[1]), {})[figure.removesuffix(" s/GB")] = value
    roles = list(dict.fromkeys(role for bar in bars.values() for role in bar))
    rows = [(f"{road}, {direction}", *(bar.get(role, 0) for role in roles))
            for (road, direction), bar in sorted(bars.items())]
    if rows:
        plots = ", ".join(f'$bars using {i}:xtic(1) title "{role}"'
                          for i, role in enumerate(roles, 2))
        draw(directory / "processor.svg", f"""set style data histograms
set style histogram rowstacked
set style fill solid 0.8 border -1
set boxwidth 0.7
set xtics rotate by -25
set ylabel "processor time, s/GB"
set yrange [0:*]
plot {plots}""", {"bars": rows})


def draw_delay(results, directory):
    lines = delay_rates(results)
    if lines:
        plots = ", ".join(f'$line{i} with linespoints title "{direction}, {limit}"'
                          for i, (direction, limit) in enumerate(lines))
        draw(directory / "delay.svg", f"""set logscale xy
set grid
set xlabel "delay of the link each way, ms"
set ylabel "one stream, kB/s"
plot {plots}, 32768 / (2 * x) with lines dashtype 2 title "8 chunks in flight\"""",
             {f"line{i}": sorted(points) for i, points in enumerate(lines.values())})


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[1])
    parser.add_argument("results", type=pathlib.Path, nargs="+")
    parser.add_argument("--plots", type=pathlib.Path, metavar="DIR")
    parser.add_argument("--document", type=pathlib.Path, metavar="FILE.md")
    options = parser.parse_args()
    results = Results(options.results)
    made = tables(results)
    for name, lines in made.items():
        print(f"{name}\n{as_text(lines)}\n")
    if options.plots:
        options.plots.mkdir(parents=True, exist_ok=True)
        for plot in draw_bulk, draw_processor, draw_delay:
            plot(results, options.plots)
    if options.document:
        write_document(options.document, made)


if __name__ == "__main__":
    main()
