#!/usr/bin/env python3
"""Times whole runs of the program against the baseline, counts its instructions and measures its memory.

Runs inside scripts/sandbox, as root, called by scripts/bench:
    whole_runs.py BUILD_DIR OUTPUT.json [--quick] [--against PROGRAM]
The sides of a comparison take turns in each round, so that a busy machine disturbs all alike. The tools are the
real postconf and postmap. Postfix's tools wait up to two seconds when main.cf was changed just before; on every
side its time stamp is therefore put back after each postconf.
"""
import argparse
import ctypes
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import time

MASTER_CF = "/etc/postfix/master.cf"
MAIN_CF = "/etc/postfix/main.cf"
POSTCONF = "/usr/sbin/postconf"
POSTMAP = "/usr/sbin/postmap"
SERVICE_SCRIPT = "/usr/local/maru/admin/sbin/zorvorc"
TABLE_SOURCE = "/var/spool/postfix/zorvo/sdd_transport_maps"
TABLE = "hash:" + TABLE_SOURCE
WORK = "/run/sandbox"
LIBC = ctypes.CDLL(None, use_errno=True)
MS_BIND = 4096


def bind(source, target):
    if LIBC.mount(source.encode(), target.encode(), None, MS_BIND, None) != 0:
        raise OSError(ctypes.get_errno(), f"mount {source} on {target}")


def unbind(target):
    LIBC.umount(target.encode())


def write(path, text, mode=0o644):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    os.chmod(path, mode)


def fake_queue_manager():
    """Postfix is not started here; the program looks for a child "qmgr" of the master's pid."""
    if os.fork() == 0:
        LIBC.prctl(15, b"qmgr")  # PR_SET_NAME
        LIBC.prctl(1, 9)  # PR_SET_PDEATHSIG: ends with this script
        time.sleep(100000)
        os._exit(0)
    write("/var/spool/postfix/pid/master.pid", f"{os.getpid()}\n")


def write_inputs(count, mode):
    """The same domains as a request and as the baseline's list. In domain-ip mode four address pairs are shared."""
    entries = []
    for i in range(count):
        last = i % 4 + 1 if mode == "domain-ip" else i % 250 + 1
        entries.append((f"customer-{i}.example.com", f"192.0.2.{last}", f"2001:db8::{last}"))
    document = {"domains": [{"domain": d, "ip4_addr": a, "ip6_addr": b} for d, a, b in entries]}
    write(f"{WORK}/request.json", json.dumps(document))
    write(f"{WORK}/list", "".join(f"{d} {a} {b}\n" for d, a, b in entries))


def run(argv):
    """Wall time in seconds, and the greatest resident size in the process tree in KiB. The request is the input."""
    with open(f"{WORK}/request.json", "rb") as request:
        start = time.perf_counter()
        child = subprocess.Popen(argv, stdin=request, stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        wall = time.perf_counter() - start
    child.returncode = status
    if status != 0:
        raise RuntimeError(f"{argv} ended with wait status {status}")
    return wall, usage.ru_maxrss


class Bench:
    def __init__(self, build, quick, against):
        self.program = f"{build}/zorvo-smtp-bind"
        self.baseline = f"{build}/bench/bench_baseline"
        self.sides = {"program": self.program, "baseline": self.baseline}
        if against:
            self.sides["other"] = against
        self.quick = quick
        with open(MASTER_CF, encoding="ascii") as file:
            self.stock = file.read()

    def reset(self):
        write(MASTER_CF, self.stock)
        write(TABLE_SOURCE, "")
        os.utime(MAIN_CF, (1000000000, 1000000000))
        subprocess.run([POSTMAP, "-r", TABLE], check=True)
        os.unlink(TABLE_SOURCE)

    def time_of(self, side, mode):
        self.reset()
        arguments = [mode, f"{WORK}/list"] if side == "baseline" else ["-t", mode]
        return run([self.sides[side], *arguments])[0]

    def compare(self, mode, count, rounds):
        write_inputs(count, mode)
        self.time_of("baseline", mode)  # warms the caches
        names = list(self.sides)
        times = {name: [] for name in names}
        for turn in range(rounds):
            first = turn % len(names)
            for name in names[first:] + names[:first]:
                times[name].append(self.time_of(name, mode))
        row = {"mode": mode, "domains": count, "rounds": rounds}
        for name in names:
            ratios = [a / b for a, b in zip(times[name], times["baseline"])]
            row[name] = {"seconds": statistics.median(times[name]), "ratio": statistics.median(ratios),
                         "low": min(ratios), "high": max(ratios)}
        print(f"# {mode}, {count} domains: {row['program']['ratio']:.3f} of the baseline", file=sys.stderr)
        return row

    def whole_runs(self):
        # The narrower goal, that of domain-ip, gets more rounds.
        rounds_of = {"domain-ip": {100: 16, 1000: 32}, "domain-name": {100: 16, 1000: 24}}
        quick = {50: 3, 100: 3}
        return [self.compare(mode, count, rounds) for mode, sizes in rounds_of.items()
                for count, rounds in (quick if self.quick else sizes).items()]

    def with_quick_tools(self, action):
        """The program's instructions and memory do not depend on what the tools do."""
        write(f"{WORK}/swallow", "#!/bin/sh\nexec cat >/dev/null\n", 0o755)
        write(f"{WORK}/answer", "#!/bin/sh\n[ \"$1\" != -h ] || echo /etc/postfix\n", 0o755)
        bind(f"{WORK}/swallow", POSTMAP)
        bind(f"{WORK}/answer", POSTCONF)
        try:
            return action()
        finally:
            unbind(POSTCONF)
            unbind(POSTMAP)

    def instructions(self):
        """The program's own instructions in a domain-ip run, by number of domains."""
        result = {}
        for count in (20, 40, 80) if self.quick else (100, 300, 1000):
            write(MASTER_CF, self.stock)
            write_inputs(count, "domain-ip")
            with open(f"{WORK}/request.json", "rb") as request:
                done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                                       "--trace-children=no", self.program, "-t", "domain-ip"],
                                      stdin=request, capture_output=True, check=True)
            # Children print theirs if exec fails; the program's own line is the last.
            result[count] = int(re.findall(r"Collected : (\d+)", done.stderr.decode())[-1])
        return result

    def memory(self):
        write(MASTER_CF, self.stock)
        count = 500 if self.quick else 10000
        write_inputs(count, "domain-name")
        return {"domains": count, "kib": run([self.program, "-t", "domain-name"])[1]}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("output")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--against")
    arguments = parser.parse_args()
    bench = Bench(arguments.build, arguments.quick, arguments.against)
    fake_queue_manager()
    write(f"{WORK}/script", "#!/bin/sh\nexit 0\n", 0o755)
    bind(f"{WORK}/script", SERVICE_SCRIPT)
    shutil.copy2(POSTCONF, f"{WORK}/real-postconf")
    bind(f"{arguments.build}/bench/bench_postconf", POSTCONF)
    result = {"whole": bench.whole_runs(),
              "instructions": bench.with_quick_tools(bench.instructions),
              "memory": bench.with_quick_tools(bench.memory)}
    with open(arguments.output, "w", encoding="ascii") as file:
        json.dump(result, file, indent=1)


main()
