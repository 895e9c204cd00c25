#!/usr/bin/env python3
"""Prints one table of the figures that bench_readers and whole_runs.py wrote, each goal with "met" or "not met".

usage: report.py READERS.json WHOLE.json [--write-docs]
With --write-docs the table also goes into docs/performance.md, between its two markers; another build's rows do not.
"""
import json
import re
import statistics
import sys

RATIO_GOALS = {"domain-ip": 1.10, "domain-name": 1.15}


def goal(what, value, limit, unit="", digits=2):
    """A row of the table for a figure that must not exceed `limit`."""
    verdict = "met" if value <= limit else "not met"
    return what, f"{value:.{digits}f}{unit}", f"at most {limit:.{2 if not unit else 0}f}{unit}", verdict


def ratio_label(run, side, name):
    return (f"{run['mode']}, {run['domains']} domains: {name} against the baseline, median of {run['rounds']} rounds "
            f"({run[side]['low']:.2f} to {run[side]['high']:.2f})")


def whole_run_rows(runs):
    """Times for every size; the ratio, with its goal, for the largest, where it means most."""
    rows = [(f"{run['mode']}, {run['domains']} domains: whole run", f"{run['program']['seconds']:.2f} s", "", "")
            for run in runs]
    return rows + [goal(ratio_label(run, "program", "whole run"), run["program"]["ratio"], RATIO_GOALS[run["mode"]],
                        digits=3) for run in largest(runs)]


def other_build_rows(runs):
    """The ratios of the program that was given with --against, if one was."""
    return [(ratio_label(run, "other", "the other build"), f"{run['other']['ratio']:.3f}", "", "")
            for run in largest(runs) if "other" in run]


def largest(runs):
    size = max(run["domains"] for run in runs)
    return [run for run in runs if run["domains"] == size]


def instruction_row(counts):
    """How the instructions for one more domain grow; constant is linear."""
    small, middle, large = sorted(int(count) for count in counts)
    at = {int(count): value for count, value in counts.items()}
    growth = ((at[large] - at[middle]) / (large - middle)) / ((at[middle] - at[small]) / (middle - small))
    return goal(f"domain-ip: instructions per domain, {middle} to {large} domains against {small} to {middle}",
                growth, 1.02)


def reader_row(readers, name, what):
    """Median time per item at 100000 against 1000. Loads of master.cf are timed by their own clock."""
    times = {}
    for run in readers["benchmarks"]:
        if run["run_type"] == "iteration":
            manual = run["run_name"].endswith("/manual_time")
            key = run["run_name"].replace("/manual_time", "")
            times.setdefault(key, []).append(run["real_time" if manual else "cpu_time"])
    ratio = statistics.median(times[f"{name}/100000"]) / statistics.median(times[f"{name}/1000"]) / 100
    return goal(what, ratio, 1.3)


def table(readers, whole):
    rows = whole_run_rows(whole["whole"])
    rows.append(instruction_row(whole["instructions"]))
    rows.append(reader_row(readers, "JsonRequest", "request reader: time per domain, 100000 domains against 1000"))
    rows.append(reader_row(readers, "MasterCfLoad", "master.cf reader: time per service, 100000 services against 1000"))
    memory = whole["memory"]
    rows.append(goal(f"domain-name, {memory['domains']} domains: peak memory of the largest process",
                     memory["kib"] / 1024, 64, " MiB", 1))
    return ["| what | figure | goal | |", "|---|---:|---:|---|"] + as_lines(rows)


def as_lines(rows):
    return [f"| {' | '.join(row)} |" for row in rows]


def write_docs(lines):
    with open("docs/performance.md", encoding="utf-8") as file:
        text = file.read()
    text = re.sub(r"(<!-- figures -->\n).*(<!-- end of figures -->)",
                  lambda found: found[1] + "\n" + "\n".join(lines) + "\n\n" + found[2], text, flags=re.S)
    with open("docs/performance.md", "w", encoding="utf-8") as file:
        file.write(text)


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        readers = json.load(file)
    with open(sys.argv[2], encoding="utf-8") as file:
        whole = json.load(file)
    lines = table(readers, whole)
    print("\n".join(lines + as_lines(other_build_rows(whole["whole"]))))
    if "--write-docs" in sys.argv[3:]:
        write_docs(lines)


main()
