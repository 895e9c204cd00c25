#!/usr/bin/env python3
"""Times whole runs of the program against the least they can cost and against other ways to the same end.

Runs inside scripts/sandbox, as root, called by scripts/bench:
    whole_runs.py BUILD_DIR OUTPUT.json [--quick]
The sides of a comparison take turns in one loop (A B A B); each figure is a median over the pairs. The tools are
the real postconf and postmap; main.cf's time stamp is put back after each postconf, on every side, because the
tools wait up to two seconds when main.cf was changed just before. One pair is timed with that wait.
"""
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
WORK = "/run/sandbox"
TABLE = "hash:/var/spool/postfix/zorvo/sdd_transport_maps"
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


def requests(count, mode):
    """(domain, ip4, ip6): in domain-ip mode four pairs are shared, as on a host with a few addresses."""
    for i in range(count):
        last = i % 4 + 1 if mode == "domain-ip" else i % 250 + 1
        yield f"customer-{i}.example.com", f"192.0.2.{last}", f"2001:db8::{last}"


def write_inputs(count, mode):
    entries = list(requests(count, mode))
    document = {"domains": [{"domain": d, "ip4_addr": a, "ip6_addr": b} for d, a, b in entries]}
    write(f"{WORK}/request.json", json.dumps(document))
    write(f"{WORK}/list", "".join(f"{d} {a} {b}\n" for d, a, b in entries))


def service(mode, domain, ip4, ip6):
    name = "zorvo-" + (domain + "-" if mode == "domain-name" else "") + ip4 + "-" + ip6
    options = (f"-o smtp_bind_address={ip4} -o smtp_bind_address6={ip6} -o smtp_address_preference=ipv4"
               + (f" -o smtp_helo_name={domain}" if mode == "domain-name" else ""))
    return name.replace(":", "-"), options


def shell_loop(count, mode):
    """What an administrator would type: postconf -M and postmap -i for each domain."""
    lines = ["set -e", "postconf -X smtp_bind_address", "postconf -X smtp_bind_address6",
             f": >{TABLE[5:]}; postmap -r {TABLE}; rm {TABLE[5:]}",
             "for s in $(postconf -M | awk '$2 == \"unix\" && /^zorvo-/ {print $1}'); do postconf -MX $s/unix; done"]
    for domain, ip4, ip6 in requests(count, mode):
        name, options = service(mode, domain, ip4, ip6)
        lines.append(f"postconf -M '{name}/unix={name} unix - - n - - smtp {options}'")
        lines.append(f"echo '@{domain} {name}:' | postmap -r -i {TABLE}")
    lines.append(f"{SERVICE_SCRIPT} postfix restart")
    write(f"{WORK}/loop.sh", "\n".join(lines) + "\n")


def text_edit(count, mode):
    """A script that edits master.cf as text and rebuilds the table once: less work, and nothing is atomic."""
    services = {}
    records = []
    for domain, ip4, ip6 in requests(count, mode):
        name, options = service(mode, domain, ip4, ip6)
        services[name] = f"{name} unix - - n - - smtp {options}\n"
        records.append(f"@{domain} {name}:\n")
    write(f"{WORK}/services", "".join(services.values()))
    write(f"{WORK}/records", "".join(records))
    write(f"{WORK}/edit.sh", f"""set -e
postconf -X smtp_bind_address
postconf -X smtp_bind_address6
sed -i '/^zorvo-/d' {MASTER_CF}
cat {WORK}/services >>{MASTER_CF}
cp {WORK}/records {TABLE[5:]}
postmap -r {TABLE}
rm {TABLE[5:]}
{SERVICE_SCRIPT} postfix restart
""")


class Usage:
    def __init__(self, wall, cpu, rss):
        self.wall, self.cpu, self.rss = wall, cpu, rss


def run(argv, stdin=None):
    """Wall time, CPU time of the whole process tree, greatest resident size in it."""
    with open(stdin or "/dev/null", "rb") as source, open("/dev/null", "wb") as sink:
        start = time.perf_counter()
        child = subprocess.Popen(argv, stdin=source, stdout=sink, stderr=sink)
        _, status, usage = os.wait4(child.pid, 0)
        wall = time.perf_counter() - start
    child.returncode = 0
    if status != 0:
        raise RuntimeError(f"{argv} ended with wait status {status}")
    return Usage(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss)


class Bench:
    def __init__(self, build, quick):
        self.program = f"{build}/zorvo-smtp-bind"
        self.floor = f"{build}/bench/bench_floor"
        self.wrapper = f"{build}/bench/bench_postconf"
        self.stand_in = f"{build}/bench/bench_stand_in"
        self.quick = quick
        self.stock = open(MASTER_CF, encoding="ascii").read()

    def reset(self):
        write(MASTER_CF, self.stock)
        write(TABLE[5:], "")
        os.utime(MAIN_CF, (1000000000, 1000000000))
        subprocess.run([POSTMAP, "-r", TABLE], check=True)
        os.unlink(TABLE[5:])

    def side(self, name, mode):
        self.reset()
        return self.once(name, mode)

    def once(self, name, mode):
        if name == "program":
            return run([self.program, "-t", mode], f"{WORK}/request.json")
        if name == "floor":
            return run([self.floor, mode, f"{WORK}/list"])
        if name in ("fork", "agreed"):
            return run([self.floor, mode, f"{WORK}/list", name])
        return run(["/bin/sh", f"{WORK}/{name}.sh"])

    def compare(self, mode, count, pairs, others):
        write_inputs(count, mode)
        shell_loop(count, mode)
        text_edit(count, mode)
        self.side("floor", mode)  # warms the caches
        sides = ["program", "floor", "fork", "agreed"]
        runs = {name: [] for name in sides + others}
        for pair in range(pairs):
            order = sides[pair % 4:] + sides[:pair % 4]
            for name in order + (others if pair == 0 else []):
                runs[name].append(self.side(name, mode))
        row = {"mode": mode, "domains": count, "pairs": pairs}
        for what in ("wall", "cpu"):
            ours = [getattr(u, what) for u in runs["program"]]
            least = [getattr(u, what) for u in runs["floor"]]
            ratios = [a / b for a, b in zip(ours, least)]
            row[what] = {"program": statistics.median(ours), "floor": statistics.median(least),
                         "ratio": statistics.median(ratios), "best": min(ours) / min(least),
                         "low": min(ratios), "high": max(ratios)}
            for name in ("fork", "agreed"):
                row[what][name] = statistics.median(getattr(u, what) / f for u, f in zip(runs[name], least))
            for name in others:
                row[what][name] = getattr(runs[name][0], what)
        return row

    def whole_runs(self):
        table = []
        # The narrowest goal, at 1000 domains in domain-ip mode, gets the most pairs.
        pairs_of = {"domain-ip": {100: 12, 300: 12, 1000: 32, 3000: 3},
                    "domain-name": {100: 12, 300: 12, 1000: 16, 3000: 3}}
        for mode, sizes in pairs_of.items():
            for count, pairs in {100: 3, 300: 3}.items() if self.quick else sizes.items():
                others = ["loop", "edit"] if count <= 1000 else ["edit"]
                table.append(self.compare(mode, count, pairs, others))
                print(f"# {mode} {count}: wall ratio {table[-1]['wall']['ratio']:.3f}", file=sys.stderr)
        return table

    def launches(self):
        """What a domain costs in each way of launching when postmap does nothing, in microseconds of CPU time."""
        count, rounds = (100, 3) if self.quick else (1000, 16)
        sides = ["program", "floor", "fork", "agreed"]
        table = []
        self.reset()
        bind(self.stand_in, POSTMAP)
        for mode in ("domain-ip", "domain-name"):
            write_inputs(count, mode)
            runs = {name: [] for name in sides}
            for turn in range(rounds):
                for name in sides[turn % 4:] + sides[:turn % 4]:
                    write(MASTER_CF, self.stock)
                    runs[name].append(self.once(name, mode).cpu / count * 1e6)
            row = {"mode": mode, "domains": count, "rounds": rounds}
            row.update({name: statistics.median(values) for name, values in runs.items()})
            table.append(row)
        unbind(POSTMAP)
        return table

    def tool_wait(self):
        """One pair as it is on a host: the tools wait for main.cf to settle."""
        unbind(POSTCONF)
        write_inputs(10, "domain-ip")
        result = {name: self.side(name, "domain-ip").wall for name in ("program", "floor")}
        bind(self.wrapper, POSTCONF)
        return result

    def start_cpu(self):
        """CPU time up to and with a first tool that fails at once: an upper bound of the start."""
        write(f"{WORK}/fail", "#!/bin/false\n", 0o755)
        bind("/bin/false", POSTCONF)
        write_inputs(1000, "domain-ip")
        times = []
        for _ in range(21):
            with open(f"{WORK}/request.json", "rb") as source, open("/dev/null", "wb") as sink:
                child = subprocess.Popen([self.program, "-t", "domain-ip"], stdin=source, stdout=sink, stderr=sink)
                _, _, usage = os.wait4(child.pid, 0)
                child.returncode = 0
            times.append(usage.ru_utime + usage.ru_stime)
        unbind(POSTCONF)
        return statistics.median(times)

    def with_quick_tools(self, action):
        """The program's own counts do not depend on what the tools do."""
        write(f"{WORK}/swallow", "#!/bin/sh\nexec cat >/dev/null\n", 0o755)
        bind(f"{WORK}/swallow", POSTMAP)
        write(f"{WORK}/answer", "#!/bin/sh\n[ \"$1\" != -h ] || echo /etc/postfix\n", 0o755)
        bind(f"{WORK}/answer", POSTCONF)
        try:
            return action()
        finally:
            unbind(POSTCONF)
            unbind(POSTMAP)

    def counts(self):
        result = {}
        for mode in ("domain-ip", "domain-name"):
            for count in (100, 300) if self.quick else (100, 300, 1000):
                write_inputs(count, mode)
                result[f"{mode} {count}"] = {"instructions": self.instructions(mode),
                                             "syscalls": self.syscalls(mode)}
        return result

    def instructions(self, mode):
        write(MASTER_CF, self.stock)
        with open(f"{WORK}/request.json", "rb") as source:
            out = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--trace-children=no",
                                  self.program, "-t", mode], stdin=source, capture_output=True, check=True)
        # The program's own line is the last; those of children that failed to exec would come before.
        return int(re.findall(r"Collected : (\d+)", out.stderr.decode())[-1])

    def syscalls(self, mode):
        write(MASTER_CF, self.stock)
        with open(f"{WORK}/request.json", "rb") as source:
            subprocess.run(["strace", "-c", "-o", f"{WORK}/strace", self.program, "-t", mode], stdin=source,
                           check=True)
        total = [line for line in open(f"{WORK}/strace", encoding="ascii") if line.rstrip().endswith("total")][-1]
        return int(total.split()[3 if len(total.split()) > 4 else 2])

    def memory(self):
        write(MASTER_CF, self.stock)
        count = 1000 if self.quick else 10000
        write_inputs(count, "domain-name")
        return {"domains": count, "kib": run([self.program, "-t", "domain-name"], f"{WORK}/request.json").rss}


def main():
    build, output = sys.argv[1:3]
    bench = Bench(build, "--quick" in sys.argv[3:])
    fake_queue_manager()
    write(f"{WORK}/script", "#!/bin/sh\nexit 0\n", 0o755)
    bind(f"{WORK}/script", SERVICE_SCRIPT)
    shutil.copy2(POSTCONF, f"{WORK}/real-postconf")
    bind(bench.wrapper, POSTCONF)
    os.environ["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin"
    result = {"launches": bench.launches(), "whole": bench.whole_runs(), "wait": bench.tool_wait(), "start_cpu": bench.start_cpu()}
    result["counts"] = bench.with_quick_tools(bench.counts)
    result["memory"] = bench.with_quick_tools(bench.memory)
    with open(output, "w", encoding="ascii") as file:
        json.dump(result, file, indent=1)


main()
