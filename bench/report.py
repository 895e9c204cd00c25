#!/usr/bin/env python3
"""Makes one table of the figures that bench_parts and whole_runs.py wrote, each goal with "met" or "not met".

usage: report.py PARTS.json WHOLE.json [--write-docs]
With --write-docs the table and the plot also go into docs/performance.md and docs/performance.svg.
"""
import json
import re
import statistics
import sys

MODES = ("domain-ip", "domain-name")


def verdict(value, limit):
    return "met" if value <= limit else "not met"


def whole_run_table(rows):
    lines = ["| mode | domains | pairs | program wall s | floor wall s | wall ratio (low to high) | best/best |"
             " CPU ratio (low to high) | best/best | fork's CPU ratio | agreed launch's CPU ratio | shell loop wall s |"
             " text edit wall s |",
             "|---|---:|---:|---:|---:|---|---:|---|---:|---:|---:|---:|---:|"]
    for row in rows:
        wall, cpu = row["wall"], row["cpu"]
        others = " | ".join(f"{wall[name]:.2f}" if name in wall else "-" for name in ("loop", "edit"))
        lines.append(f"| {row['mode']} | {row['domains']} | {row['pairs']} | {wall['program']:.2f} |"
                     f" {wall['floor']:.2f} | {wall['ratio']:.3f} ({wall['low']:.3f} to {wall['high']:.3f}) |"
                     f" {wall['best']:.3f} | {cpu['ratio']:.3f} ({cpu['low']:.3f} to {cpu['high']:.3f}) |"
                     f" {cpu['best']:.3f} | {cpu['fork']:.3f} | {cpu['agreed']:.3f} | {others} |")
    return lines


def launch_table(rows, whole):
    """What each way of launching costs above the floor, without the tool, and how much that is of a real domain."""
    lines = ["| mode | domains | rounds | floor µs | fork above it | agreed launch above it | program above it |"
             " program above it, of the floor's domain with the real tool |",
             "|---|---:|---:|---:|---:|---:|---:|---:|"]
    real = {(row["mode"], row["domains"]): row["cpu"]["floor"] / row["domains"] * 1e6 for row in whole}
    for row in rows:
        above = {name: row[name] - row["floor"] for name in ("fork", "agreed", "program")}
        lines.append(f"| {row['mode']} | {row['domains']} | {row['rounds']} | {row['floor']:.0f} | {above['fork']:.0f} |"
                     f" {above['agreed']:.0f} | {above['program']:.0f} |"
                     f" {100 * above['program'] / real[(row['mode'], row['domains'])]:.1f} % |")
    return lines


def medians(parts):
    """Median CPU time (real time for what runs in other processes) in nanoseconds over the repetitions, by name."""
    times = {}
    for run in parts["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        name = run["run_name"].replace("/real_time", "").replace("/manual_time", "")
        real = name != run["run_name"]
        times.setdefault(name, []).append((run["real_time" if real else "cpu_time"],
                                           run.get("bytes_per_second", 0)))
    return {name: (statistics.median(t for t, _ in runs), statistics.median(b for _, b in runs),
                   min(t for t, _ in runs)) for name, runs in times.items()}


def part_table(parts):
    def order(name):
        return name.split("/")[0], int((name.split("/") + ["0"])[1])

    lines = ["| part | median | speed |", "|---|---:|---:|"]
    for name in sorted(parts, key=order):
        time, speed, _ = parts[name]
        text = f"{time / 1000:.1f} µs" if time < 1e6 else f"{time / 1e6:.2f} ms"
        lines.append(f"| {name} | {text} | {f'{speed / 1e6:.0f} MB/s' if speed else '-'} |")
    return lines


def per_domain(counts, mode, what):
    """Growth per domain between neighbouring sizes."""
    sizes = sorted(int(key.split()[1]) for key in counts if key.startswith(mode + " "))
    at = {size: counts[f"{mode} {size}"][what] for size in sizes}
    return [(a, b, (at[b] - at[a]) / (b - a)) for a, b in zip(sizes, sizes[1:])]


def count_table(counts):
    lines = ["| mode | between | instructions per domain | system calls per domain |", "|---|---|---:|---:|"]
    for mode in MODES:
        for (a, b, instructions), (_, _, calls) in zip(per_domain(counts, mode, "instructions"),
                                                       per_domain(counts, mode, "syscalls")):
            lines.append(f"| {mode} | {a} and {b} domains | {instructions:.0f} | {calls:.0f} |")
    return lines


def goals(parts, whole):
    rows = {(row["mode"], row["domains"]): row for row in whole["whole"]}
    size = 1000 if ("domain-ip", 1000) in rows else max(count for _, count in rows)
    result = []
    for mode, limit in (("domain-ip", 1.05), ("domain-name", 1.15)):
        for what in ("wall", "cpu"):
            value = rows[(mode, size)][what]["ratio"]
            result.append((f"{mode}, {size} domains, {what} against the floor, median of paired ratios",
                           f"{value:.3f}", f"at most {limit}", verdict(value, limit)))
    growth = [value for _, _, value in per_domain(whole["counts"], "domain-ip", "instructions")]
    if len(growth) > 1:
        result.append(("domain-ip: own instructions per domain, larger sizes against smaller",
                       f"{growth[-1] / growth[0]:.3f}", "does not grow (at most 1.02)",
                       verdict(growth[-1] / growth[0], 1.02)))

    def ratio(one, other, column=0):
        return parts[one][column] / parts[other][column]

    for size in (100, 1000, 10000):
        value = ratio(f"JsonReader/{size}", f"JsonRequestRapid/{size}")
        result.append((f"JSON reader against RapidJSON in situ, {size} domains", f"{value:.2f}", "at most 1",
                       verdict(value, 1)))
    value = ratio("JsonStrings/10000", "JsonStringsRapid/10000")
    result.append(("JSON reader against RapidJSON in situ, long strings", f"{value:.2f}", "at most 1",
                   verdict(value, 1)))
    value = ratio("JsonReader/100000", "JsonReader/1000") / 100
    result.append(("JSON reader, time per byte at 100000 domains against 1000", f"{value:.2f}",
                   "linear (at most 1.3)", verdict(value, 1.3)))
    value = ratio("MasterCfLoad/100000", "MasterCfLoad/1000") / 100
    result.append(("master.cf parser, time per service at 100000 services against 1000", f"{value:.2f}",
                   "linear (at most 1.3)", verdict(value, 1.3)))
    value = ratio("LaunchPipe", "LaunchBare")
    result.append(("launch of /bin/true through Pipe against bare fork and exec", f"{value:.2f}", "at most 1.3",
                   verdict(value, 1.3)))
    value = whole["start_cpu"] * 1000
    result.append(("start to the end of a first tool run, CPU", f"{value:.1f} ms", "under 10 ms", verdict(value, 10)))
    value = whole["memory"]["kib"] / 1024
    result.append((f"peak memory at {whole['memory']['domains']} domains, largest process of the run",
                   f"{value:.1f} MiB", "under 64 MiB", verdict(value, 64)))
    return result


def table_of(parts, whole):
    wait = whole["wait"]
    lines = ["Whole runs, Postfix's own wait taken out on both sides:", ""]
    lines += whole_run_table(whole["whole"])
    lines += ["", "A domain with a stand-in for postmap that only reads its input, CPU time, medians:", ""]
    lines += launch_table(whole["launches"], whole["whole"])
    lines += ["", f"With that wait, 10 domains: program {wait['program']:.2f} s, floor {wait['floor']:.2f} s.", "",
              "Parts of the program (the number behind a name: domains, strings or services):", ""]
    lines += part_table(parts)
    lines += ["", "The program's own counts, without its tools:", ""]
    lines += count_table(whole["counts"])
    lines += ["", "| goal | figure | wanted | |", "|---|---:|---|---|"]
    lines += [f"| {what} | {figure} | {wanted} | {state} |" for what, figure, wanted, state in goals(parts, whole)]
    return lines


def plot(rows):
    """Wall time over the number of domains, both axes logarithmic, as SVG."""
    import math
    width, height, left, bottom = 640, 400, 60, 350
    colours = {"domain-ip": "#1f77b4", "domain-name": "#d62728"}
    counts = [row["domains"] for row in rows]
    times = [row["wall"][side] for row in rows for side in ("program", "floor")]
    low_x, high_x = math.log10(min(counts)) - .1, math.log10(max(counts)) + .1
    low_y, high_y = math.floor(math.log10(min(times))), math.ceil(math.log10(max(times)))

    def at(count, seconds):
        x = left + (math.log10(count) - low_x) / (high_x - low_x) * (width - left - 150)
        y = bottom - (math.log10(seconds) - low_y) / (high_y - low_y) * (bottom - 30)
        return f"{x:.1f},{y:.1f}"

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" font-family="sans-serif"'
           ' font-size="12">', '<rect width="100%" height="100%" fill="white"/>']
    for power in range(low_y, high_y + 1):
        y = at(min(counts), 10 ** power).split(",")[1]
        out.append(f'<line x1="{left}" y1="{y}" x2="{width - 150}" y2="{y}" stroke="#ddd"/>'
                   f'<text x="{left - 8}" y="{y}" text-anchor="end">{10 ** power:g} s</text>')
    for count in sorted(set(counts)):
        x = at(count, 10 ** low_y).split(",")[0]
        out.append(f'<line x1="{x}" y1="30" x2="{x}" y2="{bottom}" stroke="#ddd"/>'
                   f'<text x="{x}" y="{bottom + 18}" text-anchor="middle">{count}</text>')
    out.append(f'<text x="{(left + width - 150) / 2}" y="{height - 8}" text-anchor="middle">domains</text>')
    legend = 50
    for mode in MODES:
        for side, dash in (("program", ""), ("floor", ' stroke-dasharray="5 4"')):
            points = " ".join(at(row["domains"], row["wall"][side]) for row in rows if row["mode"] == mode)
            out.append(f'<polyline points="{points}" fill="none" stroke="{colours[mode]}" stroke-width="2"{dash}/>')
            out.append(f'<line x1="{width - 140}" y1="{legend}" x2="{width - 110}" y2="{legend}"'
                       f' stroke="{colours[mode]}" stroke-width="2"{dash}/>'
                       f'<text x="{width - 104}" y="{legend + 4}">{mode}{", floor" if dash else ""}</text>')
            legend += 22
    return "\n".join(out + ["</svg>", ""])


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        parts = medians(json.load(file))
    with open(sys.argv[2], encoding="utf-8") as file:
        whole = json.load(file)
    table = "\n".join(table_of(parts, whole))
    print(table)
    if "--write-docs" in sys.argv[3:]:
        with open("docs/performance.svg", "w", encoding="utf-8") as file:
            file.write(plot(whole["whole"]))
        with open("docs/performance.md", encoding="utf-8") as file:
            text = file.read()
        text = re.sub(r"(<!-- figures -->\n).*(<!-- end of figures -->)",
                      lambda found: found[1] + "\n" + table + "\n\n" + found[2], text, flags=re.S)
        with open("docs/performance.md", "w", encoding="utf-8") as file:
            file.write(text)


main()
