# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks and writes results.txt, results.json and results.svg; scripts/bench.sh sets
up what this needs.

    run.py --build DIRECTORY --output DIRECTORY [--quick] [WORKLOAD...]

Workloads, all of them unless named:
    call      one call over a fresh connection: wall time with every process on one core and with
              the processes wherever the kernel puts them; the client's processor time; the same by
              dbus-send and busctl as processes
    where     system calls, bus round trips, heap allocations and instructions of one call; and that
              the floor holds the very conversation that the library holds
    threads   calls a second from 1, 2, 8, 32 and 128 threads
    growth    argument text from nothing to 16 MiB: wall time, the same when the allocator gives
              nothing back to the system, and what is taken from the heap
    soak      100,000 calls: descriptors and resident memory before and after
    loop      one loop iteration with 1 to 4096 descriptors, of which the first, the last or all are
              ready; and all, registered in no order of their numbers
    drain     a dispatch queue of 1 to 1024 connections
    serving   calls a second that a server answers with 64 in flight, and the server's processor
              time and instructions
    parts     the parts of a call that need no bus, by Google Benchmark

The peers are interleaved round by round in one run. A ratio is the median over the rounds of the
peer's median divided by the floor's of the same round; its spread is the distance between the
quartiles of these quotients. p99 is over all calls.
"""

import argparse
import collections
import json
import os
import pathlib
import platform
import random
import re
import statistics
import subprocess
import sys
import tempfile
import threading
import time

from processes import Bus, Process
from report import Report, percentile, quartiles

CALL_PEERS = {"call_floor": "floor", "call_sentrel_dropped": "sentrel",
              "call_sentrel_syslog": "sentrel, syslog", "call_sdbus": "sd-bus",
              "call_gdbus": "GDBus", "call_sdbuscpp": "sdbus-c++"}
QUIET_CALL_PEERS = [peer for peer in CALL_PEERS if peer != "call_sentrel_syslog"]
LOOP_PEERS = ["loop_poll", "loop_sentrel", "loop_sdevent", "loop_glib", "loop_libuv",
              "loop_libevent"]
SERVERS = {"floor": "serve_floor", "sentrel": "serve_sentrel", "sd-bus": "serve_sdbus",
           "GDBus": "serve_gdbus", "sdbus-c++": "serve_sdbuscpp"}
# Whether the allocator gives a large block back after a call, to fetch it page by page in the next,
# hangs on the sizes that the process has had before. It does so with every peer or with none here.
KEPT_HEAP = {"GLIBC_TUNABLES": "glibc.malloc.trim_threshold=1073741824:"
                               "glibc.malloc.mmap_threshold=1073741824"}
ONE_CORE, ANYWHERE = "every process on one core", "processes anywhere"


def first_line(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.split("\n")[0]


def cache_value(build, name):
    match = re.search(rf"^{name}:\w+=(.*)$", (build / "CMakeCache.txt").read_text(), re.M)
    return match.group(1) if match else ""


def describe(build):
    processor = re.search(r"model name\s*:\s*(.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())
    kind = cache_value(build, "CMAKE_BUILD_TYPE")
    if kind not in ("Release", "RelWithDebInfo"):
        print(f"warning: the build is {kind or 'unoptimised'}; its figures mean little",
              file=sys.stderr)
    load = os.getloadavg()[0]
    if load > 0.5 * len(os.sched_getaffinity(0)):
        print(f"warning: the machine is busy (load {load:.1f}); trust the ratios and the counts",
              file=sys.stderr)
    return {
        "processor": f"{processor.group(1) if processor else platform.machine()}, "
                     f"{len(os.sched_getaffinity(0))} cores",
        "memory": f"{int(memory.group(1)) // 1024} MiB",
        "kernel": f"{platform.system()} {platform.release()}",
        "compiler": first_line(cache_value(build, "CMAKE_CXX_COMPILER"), "--version"),
        "build": kind,
        "libdbus": first_line("pkg-config", "--modversion", "dbus-1"),
        "bus": first_line("dbus-daemon", "--version"),
        "load at start": f"{load:.1f}",
    }


class Run:
    def __init__(self, build, quick, report, directory, output, log):
        self.programs = build / "bench"
        self.quick = quick
        self.report = report
        self.directory = directory  # for what is not kept
        self.output = output
        self.log = log  # the reader of /dev/log, or None
        self.random = random.Random(1)

    def few(self, usual):
        return max(3, usual // 8) if self.quick else usual

    def bus(self):
        return Bus(self.programs, self.directory)

    def peers(self, names):
        return [name for name in names if name != "call_sentrel_syslog" or self.log]

    def places(self):
        """One after the other; meanwhile all that is started runs there, and so does the log."""
        allowed = os.sched_getaffinity(0)
        processes = [0] + ([self.log.pid] if self.log else [])
        try:
            for place, cores in ((ONE_CORE, {max(allowed)}), (ANYWHERE, allowed)):
                for process in processes:
                    os.sched_setaffinity(process, cores)
                yield place
        finally:
            for process in processes:
                os.sched_setaffinity(process, allowed)

    def interleave(self, started, rounds):
        """`started`: from a name to a process and the line to ask it. All answers, by name."""
        answers = collections.OrderedDict((name, []) for name in started)
        order = list(started)
        for _ in range(rounds):
            self.random.shuffle(order)
            for name in order:
                process, line = started[name]
                answers[name].append(process.ask(line))
        return answers

    def compare(self, workload, answers, value, unit="ns", *, samples=True, inverse=False):
        """Adds a row for each peer; the first is the floor. With `inverse`, the row tells rates."""
        floor = [value(answer) for answer in next(iter(answers.values()))]
        for given in answers.values():
            own = [value(answer) for answer in given]
            quotients = [a / b for a, b in zip(own, floor)]
            p99 = None
            if samples and "samples" in given[0]:
                p99 = percentile([one for answer in given for one in answer["samples"]], 0.99)
            self.report.add(workload, given[0]["peer"], statistics.median(own), unit, p99=p99,
                            ratio=statistics.median(quotients), spread=quartiles(quotients),
                            minimum=min(own), maximum=max(own), rounds=len(own))

    # One call.

    def call(self):
        for place in self.places():
            self.call_once(place)

    def call_once(self, place):
        with self.bus() as bus:
            started = {name: (bus.start(self.programs / name, "--rounds", "--warm", "100"),
                              "11 1 27") for name in self.peers(CALL_PEERS)}
            answers = self.interleave(started, self.few(250))
            self.compare(f"one call, wall time, {place}", answers, lambda a: a["median_ns"])
            self.compare(f"one call, client's processor time, {place}", answers,
                         lambda a: a["cpu_ns"] / a["calls"], samples=False)
            for process, _ in started.values():
                process.close()
            started = {name: (bus.start(self.programs / name, "--rounds", "--warm", "3"), "3 1 27")
                       for name in ("call_floor", "call_dbus_send", "call_busctl")}
            answers = self.interleave(started, self.few(16))
            self.compare(f"one call by a process, wall time, {place}", answers,
                         lambda a: a["median_ns"])
            for process, _ in started.values():
                process.close()

    # Where the time goes.

    def where(self):
        with self.bus() as bus:
            names = self.peers(CALL_PEERS)
            self.round_trips(bus, names)
            self.system_calls(bus, names)
            self.allocations(bus, names)
            self.instructions(bus, self.peers(["call_floor", "call_sentrel_dropped",
                                               "call_sentrel_syslog"]))

    def counted(self, workload, found):
        """`found`: from a peer's name to a count; the first is the floor."""
        floor = next(iter(found.values()))
        for peer, count in found.items():
            self.report.add(workload, peer, count, "a call", ratio=count / floor)

    def conversation(self, bus, name, calls):
        """What the bus sees of some calls: type, destination, path, interface and member of each
        message to the bus or the agent, in order, with the arguments."""
        monitor = Process("dbus-monitor", "--address", bus.environment["DBUS_SYSTEM_BUS_ADDRESS"])
        try:
            while "member=NameLost" not in monitor.line():  # from now on it sees everything
                pass
            bus.run(self.programs / name, "--calls", calls, "--warm", 0)
            bus.run("dbus-send", "--system", "--type=signal", "/bench", "sentrel.bench.End")
            lines = []
            while not lines or "member=End" not in lines[-1]:
                lines.append(monitor.line())
        finally:
            monitor.close()
        peers = []
        for line in lines:  # the senders of the calls, in order of their coming
            match = re.search(r"method call .* sender=(\S+) .*member=Hello", line)
            if match:
                peers.append(match.group(1))
        peers = peers[:-1]  # without the sender of the end
        said, own = [], False
        for line in lines:
            if not line.startswith("   "):
                own = any(f"sender={peer} " in line for peer in peers)
                line = re.sub(r"(time|serial|sender|reply_serial)=\S+ ?", "", line)
            if own:
                said.append(line)
        return said, len(peers)

    def round_trips(self, bus, names):
        found, heard = collections.OrderedDict(), {}
        for name in names:
            said, peers = self.conversation(bus, name, 4)
            if peers != 4:
                raise RuntimeError(f"the monitor saw {peers} connections of {name} instead of 4")
            heard[name] = said
            found[CALL_PEERS[name]] = sum(
                line.startswith("method call") for line in said) / 4
        (self.output / "conversation.txt").write_text(
            "\n\n".join("\n".join([name] + heard[name]) for name in heard) + "\n")
        if heard["call_floor"] != heard["call_sentrel_dropped"]:
            raise RuntimeError("floor and library hold different conversations: "
                               "see conversation.txt")
        self.counted("one call, method calls on the bus", found)

    def system_calls(self, bus, names):
        found, lists = collections.OrderedDict(), {}
        calls = 50
        for name in names:
            few, many = (self.traced(bus, name, number) for number in (calls, 2 * calls))
            found[CALL_PEERS[name]] = (few_total(many) - few_total(few)) / calls
            lists[name] = {kind: (many[kind] - few[kind]) / calls for kind in sorted(many)
                           if many[kind] != few[kind]}
        self.counted("one call, system calls", found)
        (self.output / "system-calls.json").write_text(json.dumps(lists, indent=1) + "\n")

    def traced(self, bus, name, calls):
        table = self.directory / "strace"
        bus.run("strace", "-f", "-c", "-o", table, self.programs / name, "--calls", calls,
                "--warm", 0)
        counts = collections.Counter()
        for line in table.read_text().splitlines():
            match = re.match(r"\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)$", line)
            if match and match.group(2) != "total":
                counts[match.group(2)] = int(match.group(1))
        return counts

    def allocations(self, bus, names):
        count, size = collections.OrderedDict(), collections.OrderedDict()
        for name in names:
            answer = self.heap(bus, name, 200, 27)
            count[CALL_PEERS[name]] = answer["allocations_per_call"]
            size[CALL_PEERS[name]] = answer["heap_bytes_per_call"]
        self.counted("one call, heap allocations", count)
        self.counted("one call, bytes asked of the heap", size)

    def heap(self, bus, name, calls, size):
        done = bus.run(self.programs / name, "--calls", calls, "--bytes", size, "--warm", 20,
                       environment={"LD_PRELOAD": str(self.programs / "alloc_count.so")})
        return json.loads(done.stdout)

    def instructions(self, bus, names):
        calls, found = 20, collections.OrderedDict()
        for name in names:
            totals, functions, objects = [], [], []
            for number in (calls, 2 * calls):
                out = self.directory / f"callgrind.{name}.{number}"
                done = bus.run("valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                               self.programs / name, "--calls", number, "--warm", 5)
                totals.append(int(re.search(r"Collected : (\d+)", done.stderr).group(1)))
                functions.append(annotated(out, "yes"))
                objects.append(by_object(annotated(out, "no")))
            found[CALL_PEERS[name]] = (totals[1] - totals[0]) / calls
            (self.output / f"instructions-{name.removeprefix('call_')}.txt").write_text(
                "instructions of one call, by object file\n" + difference(objects, calls) +
                "\nby function, with what it calls\n" + difference(functions, calls))
        self.counted("one call, client's instructions", found)

    # More callers, longer texts, many calls.

    def threads(self):
        with self.bus() as bus:
            started = {name: bus.start(self.programs / name, "--rounds")
                       for name in QUIET_CALL_PEERS}
            for threads in (1, 2, 8, 32, 128):
                calls = max(256, threads * 4)
                answers = self.interleave(
                    {name: (process, f"{calls} {threads} 27") for name, process in started.items()},
                    self.few(24))
                self.compare(f"calls a second from {threads} threads", answers,
                             lambda a: a["calls"] / a["wall_ns"] * 1e9, "/s", samples=False)
            for process in started.values():
                process.close()

    def growth(self):
        large = {1 << 16: (20, 40), 1 << 20: (6, 24), 1 << 24: (2, 10)}
        self.grow({0: (20, 40), 1 << 10: (20, 40), **large}, "", {})
        self.grow(large, ", the heap kept", KEPT_HEAP)
        with self.bus() as bus:
            for size in (1 << 16, 1 << 20, 1 << 24):
                asked, peak = collections.OrderedDict(), collections.OrderedDict()
                for name in QUIET_CALL_PEERS:
                    answer = self.heap(bus, name, 4, size)
                    asked[CALL_PEERS[name]] = answer["heap_bytes_per_call"] / size
                    peak[CALL_PEERS[name]] = answer["heap_peak"] / size
                for what, found in (("asked of the heap", asked), ("held at most", peak)):
                    floor = found["floor"]
                    for peer, value in found.items():
                        self.report.add(f"copies of a text of {size:,} bytes, {what}", peer, value,
                                        "texts", ratio=value / floor)

    def grow(self, sizes, how, environment):
        with self.bus() as bus:
            started = {name: bus.start(self.programs / name, "--rounds", environment=environment)
                       for name in QUIET_CALL_PEERS}
            for size, (calls, rounds) in sizes.items():
                answers = self.interleave({name: (process, f"{calls} 1 {size}")
                                           for name, process in started.items()}, self.few(rounds))
                self.compare(f"one call with {size:,} bytes of argument text{how}", answers,
                             lambda a: a["median_ns"])
            for process in started.values():
                process.close()

    def soak(self):
        calls = 2000 if self.quick else 100000
        answers = []
        with self.bus() as bus:
            for name in ("call_floor", "call_sentrel_dropped"):
                process = bus.start(self.programs / name, "--rounds", "--warm", "1000")
                answers.append(process.ask(f"{calls} 1 27"))
                process.close()
        for key, what, unit, size in (
                ("descriptors", "descriptors left open", "", 1),
                ("resident", "resident memory grown by", "KiB", 1024),
                ("own", "resident memory grown by, without pages of files", "KiB", 1024)):
            for answer in answers:
                before, after = answer[key]
                self.report.add(f"{calls:,} calls, {what}", answer["peer"], (after - before) / size,
                                unit, before=before, after=after)

    # The loop, the queue and the serving half.

    def loop(self):
        plan = {(1, "all"): 5000, (16, "first"): 5000, (256, "first"): 1000, (4096, "first"): 100,
                (16, "last"): 5000, (256, "last"): 1000, (4096, "last"): 100,
                (16, "all"): 3000, (256, "all"): 300, (4096, "all"): 20, (4096, "mixed"): 20}
        for (watched, ready), iterations in plan.items():
            started = collections.OrderedDict()
            for name in LOOP_PEERS if ready != "mixed" else LOOP_PEERS[:2]:
                # These two take seconds for all of many.
                slow = name in ("loop_sdevent", "loop_glib") and ready == "all" and watched > 1
                started[name] = (Process(self.programs / name, "--rounds", "--watched", watched,
                                         "--ready", ready),
                                 max(1, iterations // 20) if slow else iterations)
            endless = collections.OrderedDict()
            if (watched, ready) == (4096, "all"):
                endless["loop_sdevent"] = started.pop("loop_sdevent")
            answers = self.interleave(started, self.few(24))
            answers.update(self.interleave(endless, 1))
            which = {"all": "all", "first": "the first", "last": "the last", "mixed": "all"}[ready]
            order = ", in no order" if ready == "mixed" else ""
            self.compare(f"one loop iteration, {which} of {watched} ready{order}", answers,
                         lambda a: a["median_ns"], samples=False)
            for process, _ in list(started.values()) + list(endless.values()):
                process.close()

    def drain(self):
        """The floor here is the queue of 16, and the ratio that of one connection's share."""
        shares = {}
        with self.bus() as bus:
            for connections, rounds in ((1, 64), (16, 64), (256, 24), (1024, 12)):
                rounds = self.few(rounds)
                done = bus.run(self.programs / "drain", "--connections", connections,
                               "--rounds-of", rounds)
                answer = json.loads(done.stdout)
                shares[connections] = (answer["median_ns"] / connections,
                                       answer["p99_ns"] / connections)
        for connections, (median, p99) in shares.items():
            self.report.add("a dispatch queue drained, each connection's share",
                            f"queue of {connections}", median, "ns", p99=p99,
                            ratio=median / shares[16][0])

    def serving(self):
        for place in self.places():
            self.serving_once(place)
        self.serving_instructions()

    def serving_once(self, place):
        with self.bus() as bus:
            load = bus.start(self.programs / "serve_load")
            started, servers = collections.OrderedDict(), []
            for number, (peer, program) in enumerate(SERVERS.items()):
                name = f"org.sentrel.bench{number}"
                servers.append(bus.start(self.programs / program, name).expect("ready"))
                started[peer] = (load, f"{peer} {name} {servers[-1].pid} 2000 64")
            answers = self.interleave(started, self.few(40))
            self.compare(f"serving, calls a second, 64 in flight, {place}", answers,
                         lambda a: a["calls"] / a["wall_ns"] * 1e9, "/s")
            self.compare(f"serving, server's processor time for a call, {place}", answers,
                         lambda a: a["server_cpu_ns"] / a["calls"])
            for process in servers + [load]:
                process.close()

    def serving_instructions(self):
        """From the difference of two servers' lives, one with twice the calls of the other."""
        found, calls = collections.OrderedDict(), 1000
        with self.bus() as bus:
            for number, (peer, program) in enumerate(SERVERS.items()):
                lives = [self.server_life(bus, program, f"org.sentrel.bench{number}", count)
                         for count in (calls, 2 * calls)]
                found[peer] = (lives[1] - lives[0]) / calls
        self.counted("serving, server's instructions", found)

    def server_life(self, bus, program, name, calls):
        log = self.directory / "valgrind.log"
        server = bus.start("valgrind", "--tool=callgrind", f"--log-file={log}",
                           f"--callgrind-out-file={self.directory / 'callgrind.server'}",
                           self.programs / program, name).expect("ready")
        load = bus.start(self.programs / "serve_load")
        load.ask(f"{program} {name} {server.pid} {calls} 64")
        load.close()
        server.close()
        return int(re.search(r"Collected : (\d+)", log.read_text()).group(1))

    def parts(self):
        done = subprocess.run([self.programs / "parts", "--benchmark_format=json",
                               "--benchmark_repetitions=" + ("3" if self.quick else "9")],
                              check=True, capture_output=True, text=True)
        for entry in json.loads(done.stdout)["benchmarks"]:
            if entry.get("aggregate_name") == "median":
                self.report.add("parts of a call", entry["run_name"], entry["cpu_time"], "ns")


def few_total(counts):
    return sum(counts.values())


def annotated(path, inclusive):
    """Instructions of each function, with or without what it calls, from a callgrind file."""
    done = subprocess.run(["callgrind_annotate", f"--inclusive={inclusive}", "--threshold=100",
                           "--auto=no", str(path)], check=True, capture_output=True, text=True)
    counts = collections.Counter()
    for line in done.stdout.splitlines():
        match = re.match(r"\s*([\d,]+) \([^)]*\)\s+(\S.*)$", line)
        if match and ":" in match.group(2):
            function = re.sub(r"^[^:]*:", "", match.group(2), count=1)
            function = re.sub(r" \[.*/([^/]*)\]$", r" [\1]", function)
            counts[function] += int(match.group(1).replace(",", ""))
    return counts


def by_object(functions):
    counts = collections.Counter()
    for function, count in functions.items():
        match = re.search(r"\[([^]]*)\]$", function)
        counts[match.group(1) if match else "elsewhere"] += count
    return counts


def difference(counts, calls):
    """What one call adds, from the counts of `calls` and of twice as many; named functions only."""
    few, many = counts
    each = {name: (many[name] - few[name]) / calls for name in many if not name.startswith("0x")}
    return "".join(f"{count:12,.0f}  {name}\n" for name, count in
                   sorted(each.items(), key=lambda entry: -entry[1]) if count >= 100)


WORKLOADS = ["call", "where", "threads", "growth", "soak", "loop", "drain", "serving", "parts"]


class Progress:
    """Says on standard error which workload runs: a bar on a terminal, elsewhere a line every ten
    seconds."""

    def __init__(self, names):
        self.names = names
        self.start = time.monotonic()
        self.terminal = sys.stderr.isatty()

    def say(self, number, over):
        while not over.wait(1 if self.terminal else 10):
            text = (f"{self.names[number]}: workload {number + 1} of {len(self.names)}, "
                    f"{time.monotonic() - self.start:.0f} s")
            if self.terminal:
                bar = "#" * (20 * number // len(self.names))
                print(f"\r{f'   [{bar:<20}] {text}':<79}", end="", file=sys.stderr, flush=True)
            else:
                print(f"   {text}", file=sys.stderr, flush=True)
        if self.terminal:
            print(f"\r{'':<79}\r", end="", file=sys.stderr, flush=True)

    def during(self, number, work):
        print(f"{self.names[number]} ...", file=sys.stderr, flush=True)
        over = threading.Event()
        teller = threading.Thread(target=self.say, args=(number, over))
        teller.start()
        try:
            work()
        finally:
            over.set()
            teller.join()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true", help="an eighth of the rounds")
    parser.add_argument("--private-dev", action="store_true",
                        help="/dev is this run's own: make a log there")
    parser.add_argument("workloads", nargs="*", metavar="WORKLOAD")
    options = parser.parse_args()
    unknown = [name for name in options.workloads if name not in WORKLOADS]
    if unknown:
        parser.error(f"no workload {unknown[0]}; there are {', '.join(WORKLOADS)}")
    build = options.build.resolve()
    options.output.mkdir(parents=True, exist_ok=True)
    report = Report(describe(build))
    print("\n".join(f"{key}: {value}" for key, value in report.about.items()), flush=True)
    log = None
    if options.private_dev:
        log = Process(build / "bench" / "log_sink", "/dev/log").expect("ready")
    else:
        print("no private log here: the library's log lines to syslog are left out",
              file=sys.stderr)
    with tempfile.TemporaryDirectory(prefix="sentrel-bench-") as directory:
        run = Run(build, options.quick, report, pathlib.Path(directory), options.output,
                  log)
        names = list(options.workloads or WORKLOADS)
        progress = Progress(names)
        for number, name in enumerate(names):
            progress.during(number, getattr(run, name))
            report.write(options.output)
    if log is not None:
        log.close()
    print(report.table().rstrip())
    print(f"{', '.join(names)}: written to {options.output}")


if __name__ == "__main__":
    main()
