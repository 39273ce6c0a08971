#!/usr/bin/env python3
"""Measures everything and says which goals are reached. Usage: run.py BUILD_DIR [--quick] [--disk DIR] [--docs DIR] [PART...]

Runs the benchmark programs of the build on the memory file system and in DIR on a disk, prints a table, and leaves
table.md, result.json and the curves as SVG in BUILD_DIR/bench; --docs copies the curves.
"""
import argparse
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import live  # noqa: E402
from figures import HEADINGS, Figure, table, write_json  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parent
MEMORY = "/dev/shm"
RANGES = 2000
PARTS = ["refresh", "oneshot", "client", "web", "mqtt", "logon", "first_build", "running", "alternatives", "wear"]
EMPTY_LIST_WAIT_MS = 50  # what a turn of the service waits on top of its pause, unless a request comes
LONGEST = 125  # registers that Modbus moves in one request
TARGET_MS = 100  # a refresh of all registers, for the service and what stands beside it
KEPT_OPEN, OPENS_AND_LOCKS = "bare loop, files kept open, no locks", "bare loop, the service's opens and locks"
PAUSED = {f"{KEPT_OPEN}, same pause": "open", f"{OPENS_AND_LOCKS}, same pause": "locks"}  # as the service, behind each read


class Bench:
    def __init__(self, arguments):
        self.build = arguments.build.resolve()
        self.out = self.build / "bench"
        self.out.mkdir(exist_ok=True)
        self.quick = arguments.quick
        self.disk = arguments.disk
        self.figures, self.rows, self.curves, self.notes = [], [], {}, []
        self.missing = []  # what could not be measured
        if not self.disk:
            self.missing.append("everything on disk: no folder given")

    def samples(self, usual, quick=1):
        return quick if self.quick else usual

    def program(self, name, *arguments):
        """The JSON lines of a benchmark program."""
        print(f"  {name} {' '.join(str(a) for a in arguments)}", file=sys.stderr, flush=True)
        done = subprocess.run([self.build / f"bin/bench_{name}", *(str(a) for a in arguments)], text=True,
                              stdout=subprocess.PIPE)
        if done.returncode != 0:
            sys.exit(f"bench_{name} ended with {done.returncode}")
        return [json.loads(line) for line in done.stdout.splitlines()]

    def add(self, name, unit, line, goal=None, scale=1.0):
        self.figures.append(Figure(name, unit, line["service"], line["floor"], goal, scale))

    def places(self):
        return [("memory", MEMORY)] + ([("disk", self.disk)] if self.disk else [])

    # Packed refresh

    def refresh(self):
        sim, modbus = self.build / "drivers/sim.so", self.build / "drivers/modbus_tcp.so"
        goal, modbus_goal = ("ratio", "<=", 1.3), ("ratio", "<=", 1.1)
        for where, folder in self.places():
            # On the disk one driver read of 64 ranges at a time.
            whole = where == "memory"
            passes, what = (0, "2,000 ranges") if whole else (1, "64 ranges")
            count = self.samples(51, 5)
            [line] = self.program("refresh", folder, RANGES if whole else 64, passes, count, sim)
            self.add(f"packed refresh of {what}, sim driver, {where}", "ms", line, goal, 1e-3)
            if not whole:
                [same] = self.program("refresh", MEMORY, 64, 1, count, sim)
                syncs = 2 * statistics.median(self.syncs_us(count))
                line["floor"] = [1.5 * statistics.median(same["service"]) + syncs]
                self.add("the same (floor: 1.5 × the same in memory, and two syncs)", "ms", line, ("ratio", "<=", 1), 1e-3)
            for delay_us in (0, 5000):
                with live.Place(self.build) as place:
                    place.plc(delay_us)
                    few = self.samples(count if delay_us == 0 else 11, 3)
                    [line] = self.program("refresh", folder, RANGES if whole else 64, passes, few, modbus,
                                          place.plc_port)
                delay = ", PLC delay 5 ms" if delay_us else ""
                self.add(f"packed refresh of {what}, Modbus TCP{delay}, {where}", "ms", line, modbus_goal, 1e-3)
        for line in self.program("reads"):
            self.add(f"driver reads of one refresh, 2,000 ranges, {line['figure']} (floor: the fewest possible)", "",
                     line, ("ratio", "<=", 1))

    def syncs_us(self, count):
        """What it takes to force some bytes in the middle of a file to the disk."""
        times = []
        with tempfile.TemporaryFile(dir=self.disk) as file:
            os.pwrite(file.fileno(), bytes(8192), 0)
            for i in range(count + 1):
                os.pwrite(file.fileno(), i.to_bytes(8, "big") * 448, 100)
                start = time.perf_counter()
                os.fsync(file.fileno())
                times.append(1e6 * (time.perf_counter() - start))
        return times[1:]

    # One-shot requests

    def oneshot(self):
        lines = self.program("oneshot", *(["quick"] if self.quick else []))
        by_name = {line["figure"]: line for line in lines}
        goals = {"one-shot median": ("value", "<=", 2.5), "one-shot 99%": ("value", "<=", 4),
                 "one-shot unsubscribed median": ("value", "<=", 5), "one-shot unsubscribed 99%": ("value", "<=", 6),
                 "one-shots in flight": ("ratio", ">=", 0.9), "one-shots in flight, idle port": ("ratio", ">=", 0.9),
                 "requests for each packed read": ("value", ">=", 8),
                 "packed one-shots": ("ratio", ">=", 5), "polling reads, 900 one-shots in flight": ("ratio", ">=", 0.5),
                 "polling reads, one-shots without a pause": ("ratio", ">=", 0.5)}
        names = {"one-shot median": "one-shot read, one subscription, pause 1 ms: median",
                 "one-shot 99%": "the same: 99th percentile", "one-shot turn": "the same: a turn",
                 "one-shot unsubscribed median": "one-shot read, idle port, pause 1 ms: median",
                 "one-shot unsubscribed 99%": "the same: 99th percentile",
                 "one-shots in flight": "one-shots, 200 in flight, one subscription (floor: on paper)",
                 "one-shots in flight, idle port": "one-shots, 200 in flight, idle port (floor: on paper)",
                 "packed one-shots": "1,000 neighbouring reads in flight (floor: unpacked)",
                 "polling reads, 900 one-shots in flight": "polling reads, 900 one-shots in flight (floor: on paper)",
                 "polling reads, one-shots without a pause":
                     "polling reads, one-shots without a pause (floor: on paper)"}
        for name, line in by_name.items():
            self.add(names.get(name, name), line["unit"], line, goals.get(name))

    # The client library

    def client(self):
        by_name = {line["figure"]: line for line in self.program("client", *(["quick"] if self.quick else []))}
        told = by_name["client told"]
        # A change comes anywhere between two polls, and waits for the next: one turn at the most.
        limit = statistics.median(by_name["client turn"]["service"]) + 5
        self.add("client library: CPU of a program that reads 300 ranges ten times a second", "%",
                 by_name["client following"], ("value", "<=", 1))
        self.add("client library: a change told to a waiting program, one subscription", "ms", told, ("value", "<=", limit))
        self.add("the same: a turn", "ms", by_name["client turn"])
        self.add(f"client library: growth by {by_name['client growth']['size']:,} times opening and closing", "kB",
                 by_name["client growth"], ("value", "<=", 64))
        self.add("client library, Python: 300 values", "ms", by_name["client python"], ("value", "<=", 5))

    def web(self):
        os.environ["VOQ_BUILD"] = str(self.build)
        import web  # behind the environment, which its helpers read
        samples = web.measure(self.samples(60, 8), lambda *what: print("  web", *what, file=sys.stderr, flush=True))
        load = f"{web.RANGES} ranges, {web.READERS} readers"
        self.figures.append(Figure(f"voq-web: CPU of {load}", "% of a core", samples["cpu"], goal=("value", "<=", 3)))
        self.figures.append(Figure(f"voq-web: memory of its own, {load}", "MiB", samples["memory"],
                                   goal=("value", "<=", 6), scale=1 / 1024))
        if not samples["first"]:
            self.missing.append("first view of voq-web's page: there is no chromedriver")
            return
        self.figures.append(Figure("voq-web: first view", "ms", samples["next"], goal=("value", "<=", 300)))
        self.figures.append(Figure("the same, of a browser that has just started", "ms", samples["first"]))

    def mqtt(self):
        os.environ["VOQ_BUILD"] = str(self.build)
        import mqtt
        samples = mqtt.measure(self.samples(60, 8), self.samples(600, 10), self.samples(200, 5),
                               lambda *what: print("  mqtt", *what, file=sys.stderr, flush=True))
        load = f"{mqtt.RANGES} ranges that change once a second"

        def add(name, unit, values, goal=None, scale=1.0):
            self.figures.append(Figure(f"voq-mqtt: {name}", unit, values, goal=goal and ("value", "<=", goal), scale=scale))
        add(f"CPU of {load}", "% of a core", samples["cpu"], 3)
        add("the same as Sparkplug", "% of a core", samples["sparkplug"], 3)
        add(f"memory of its own, {load}", "MiB", samples["memory"], 8, 1 / 1024)
        add("from a reading to a subscriber, 99th percentile", "ms", samples["late"], 50)
        self.figures.append(Figure("voq-mqtt: values lost or out of order, broker away for ten minutes", "",
                                   [samples["lost"] + samples["disordered"]], goal=("value", "<=", 0)))
        add("oldest present value from a second after the connection on", "s", [samples["live"]], 1)
        add("the spool told", "s", [samples["emptied"]])
        boxes = f"{samples['boxes']} boxes of {mqtt.OF_A_BOX} ranges at one mosquitto"
        add(f"{boxes}: messages a second", "1/s", [samples["rate"]])
        add("the same: CPU of the broker", "% of a core", [samples["share"]])

    # Growth

    def logon(self):
        goal = ("ratio", "<=", 1.2)
        for where, folder in self.places():
            sizes = [100, 1000, 2000]
            shown = [10, 30, 100, 300, 1000, 2000] if where == "memory" and not self.quick else sizes
            if self.quick and where == "disk":
                shown = [100]
            count = self.samples(31 if where == "memory" else 5, 2)
            lines = self.program("logon", folder, count, *shown)
            self.curves[f"logon {where}"] = lines
            for line in lines:
                if line["size"] in sizes:
                    self.add(f"log-on into a group of {line['size']:,}, {where}", "ms", line, goal, 1e-3)
            if where == "disk" and lines[-1]["size"] == 2000:
                self.figures.append(Figure("the same", "ms", lines[-1]["service"], goal=("value", "<=", 10), scale=1e-3))

    def first_build(self):
        layouts = [("one group", "ascending", 1), ("500 groups", "ascending", 500),
                   ("one group, in no order", "shuffled", 1)]
        for layout, order, groups in layouts:
            sizes = [1000, 10000] if self.quick or order == "shuffled" else [1000, 3000, 10000, 30000, 50000]
            lines = self.program("build", "whole", MEMORY, self.samples(5), order, groups, *sizes)
            self.curves[f"build {layout}"] = lines
            in_memory = {line["size"]: line["service"] for line in lines}
            for line in lines:
                if line["size"] == 10000:
                    self.add(f"first build, 10,000 registers, {layout}, memory", "s", line, ("value", "<=", 3), 1e-6)
            if self.disk:
                self.build_on_disk(layout, order, groups)
                if layout == "one group" and not self.quick:
                    [line] = self.program("build", "whole", self.disk, self.samples(3), order, groups, 10000)
                    line["floor"] = in_memory[10000]
                    self.add("first build, 10,000 registers, one group, disk (floor: the same in memory)", "s", line,
                             ("ratio", "<=", 2), 1e-6)

    def build_on_disk(self, layout, order, groups):
        goal = ("ratio", "<=", 1.2)
        if order != "shuffled":
            [line] = self.program("build", "whole", self.disk, self.samples(3), order, groups, 1000)
            self.add(f"first build, 1,000 registers, {layout}, disk", "s", line, goal, 1e-6)
        for size in [1000] if self.quick else [1000, 10000, 50000] if order != "shuffled" else [10000]:
            [line] = self.program("build", "step", self.disk, self.samples(101, 11), order, groups, size)
            self.add(f"one registration at {size:,}, {layout}, disk", "ms", line, goal, 1e-3)

    # Cost of running

    def running(self):
        windows, seconds = self.samples(7, 2), self.samples(3, 1)
        for layout, groups in (("one group", 1), ("500 groups", 500)):
            with live.Place(self.build) as place:
                place.stop(place.service(10000, 10, groups=groups))
                place.mark_all_read()
                service = place.service(10000, 10, groups=groups)
                shares = live.cpu_share(service, windows, seconds)
                floor = place.start(self.build / "bin/bench_loop", "wait", 10)
                self.share(f"10,000 records all read, nothing subscribed, pause 10 ms, {layout}", shares,
                           live.cpu_share(floor, windows, seconds), ("ratio", "<=", 1.3))
        with live.Place(self.build) as place:
            shares = live.cpu_share(place.service(0, 10), windows, seconds)
            floor = place.start(self.build / "bin/bench_loop", "wait", 10, EMPTY_LIST_WAIT_MS)
            self.share("empty list, pause 10 ms", shares, live.cpu_share(floor, windows, seconds), ("value", "<=", 0.1))
        with live.Place(self.build) as place:
            sim = place.sim(5000)
            service = place.service(RANGES, 1, **sim)
            place.subscribe(RANGES)
            shares = live.cpu_share(service, windows, seconds)
            place.stop(service)
            floor = self.loop(place, live.TRANSFER, 0, 1, "locks", self.build / "drivers/sim.so", **sim)
            self.share("polling 2,000 ranges, sim delay 5 ms, pause 1 ms", shares,
                       live.cpu_share(floor, windows, seconds), ("value", "<=", 8))
        sizes = []
        for _ in range(self.samples(3)):
            with live.Place(self.build) as place:
                service = place.service(10000, 1)
                place.subscribe(RANGES)
                live.wait_for(lambda: set(place.states()) == {1}, "values of all registers")
                sizes.append(live.status(service, "VmRSS") / 1024)
        self.figures.append(Figure("resident memory, 2,000 subscriptions, 10,000 records", "MiB", sizes, [],
                                   ("value", "<=", 6)))

    def share(self, name, service, floor, goal):
        self.figures.append(Figure(f"CPU, {name}", "%", service[0], floor[0], goal))
        self.figures.append(Figure("the same: waits of the main loop", "1/s", service[1], floor[1]))

    def loop(self, place, limit, period_ms, pause_ms, files, source, **environment):
        return place.start(self.build / "bin/bench_loop", "poll", f"{place.port}/", RANGES, limit, period_ms, pause_ms,
                           files, source, **environment)

    # What a user would pick instead

    def alternatives(self):
        modules = self.node_modules()
        for changing, delay_us in ((True, 0), (False, 0), (True, 5000)):
            with live.Place(self.build) as place:
                place.plc(delay_us, changing)
                what = ("changing" if changing else "constant") + (", PLC delay 5 ms" if delay_us else "")
                # All that stands beside the service begins a refresh each time the target has passed, or late at once.
                # Its 32 driver reads come close to the target with the pause, and behind a slow PLC beyond it.
                pause = 2 if delay_us == 0 else 0
                for transfer in (LONGEST, live.TRANSFER):
                    service = place.service(RANGES, pause, modbus=True, transfer=transfer)
                    place.subscribe(RANGES)
                    self.beside(f"the service, {transfer} in a request", what, place, [service])
                    if pause:
                        for name, files in PAUSED.items():
                            self.beside(f"{name}, {transfer} in a request", what, place,
                                        [self.loop(place, transfer, 0, pause, files, place.plc_port)])
                beside = [(KEPT_OPEN, live.TRANSFER, "open")]
                if changing:
                    beside.append((OPENS_AND_LOCKS, live.TRANSFER, "locks"))
                    beside.append(("bare loop, a request for each range", 1, "open"))
                for name, limit, files in beside:
                    self.beside(name, what, place, [self.loop(place, limit, TARGET_MS, 0, files, place.plc_port)])
                for name, mode in (("node, same file changes, no locks", "changes"), ("node, values to a file", "values")):
                    if modules and changing:
                        self.beside(name, what, place,
                                    [place.start("node", SOURCE / "node/poll.js", modules, place.plc_port, RANGES,
                                                 live.TRANSFER, TARGET_MS, place.port, mode)])
                if changing and shutil.which("mbpoll"):
                    self.beside("mbpoll, 16 processes, text to files", what, place, self.mbpoll(place))
                elif changing and delay_us == 0:
                    self.missing.append("mbpoll: not installed")
        self.compare()
        self.rarely_due()

    def rarely_due(self):
        """500 subscriptions that are due every two seconds, against the waits of the turns and what so many values cost
        when they are polled without a pause between."""
        windows, seconds = self.samples(7, 2), self.samples(4, 2)
        with live.Place(self.build) as place:
            place.plc(0, True)
            service = place.service(500, 1, modbus=True, priority=10)
            place.subscribe(500)
            shares = live.cpu_share(service, windows, seconds)
            place.stop(service)
            floor, waits = live.cpu_share(place.start(self.build / "bin/bench_loop", "wait", 1), windows, seconds)
        cost = statistics.median(self.row(f"the service, {live.TRANSFER} in a request", "changing")["values_per_cpu_s"])
        self.share("500 subscriptions of priority 10, pause 1 ms", shares,
                   ([share + 100 * 250 / cost for share in floor], waits), ("ratio", "<=", 1.3))

    def row(self, name, what):
        return next(row for row in self.rows if (row["name"], row["what"]) == (name, what))

    def node_modules(self):
        """Where the node client's library lies; installed once into the build directory."""
        folder = self.out / "node"
        if not (folder / "node_modules/modbus-serial").exists():
            folder.mkdir(exist_ok=True)
            shutil.copy(SOURCE / "node/package.json", folder)
            install = ["npm", "install", "--omit=optional", "--ignore-scripts", "--no-audit", "--no-fund"]
            try:
                subprocess.run(install, cwd=folder, check=True, stdout=subprocess.DEVNULL, timeout=300)
            except (OSError, subprocess.SubprocessError) as error:
                self.missing.append(f"the node client: npm gives no modbus-serial: {error}")
                return None
        return folder / "node_modules"

    @staticmethod
    def mbpoll(place):
        step = 125  # most that it reads
        return [place.start("mbpoll", "-m", "tcp", "-p", place.plc_port, "-a", 1, "-t", 4, "-r", first + 1, "-c", step,
                            "-l", TARGET_MS, "127.0.0.1", output=f"mbpoll{first}") for first in range(0, RANGES, step)]

    def beside(self, name, what, place, processes):
        """Values that the PLC served, and the CPU time that it took to fetch and keep them."""
        rates, shares, worth = [], [], []
        live.time.sleep(1)
        for _ in range(self.samples(5, 1)):
            used, served, start = self.cpu(processes), place.registers_served(), live.time.monotonic()
            live.time.sleep(self.samples(3, 1))
            used, served = self.cpu(processes) - used, place.registers_served() - served
            seconds = live.time.monotonic() - start
            if served == 0 or any(process.poll() is not None for process in processes):
                sys.exit(f"{name} does not poll")
            rates.append(served / seconds)
            shares.append(100 * used / seconds)
            worth.append(served / used)
        self.rows.append({"name": name, "what": what, "values_per_s": rates, "cpu_percent": shares,
                          "values_per_cpu_s": worth})
        for process in processes:
            place.stop(process)

    @staticmethod
    def cpu(processes):
        return sum(live.cpu_seconds(process) for process in processes)

    def compare(self):
        """The service against its goals, and against what makes the same file changes."""
        def figure(service, what, floor, goal):
            self.figures.append(Figure(f"values per CPU second, {what}, {service} in a request (floor: {floor})", "k/s",
                                       self.row(f"the service, {service} in a request", what)["values_per_cpu_s"],
                                       self.row(floor, what)["values_per_cpu_s"], goal, 1e-3))

        for what, least in (("changing", 500), ("constant", 1000)):
            for transfer in (live.TRANSFER, LONGEST):
                figure(transfer, what, f"{OPENS_AND_LOCKS}, same pause, {transfer} in a request", ("value", ">=", least))
        self.statistics_share()
        for what in ("changing", "changing, PLC delay 5 ms"):
            for floor, goal in ((KEPT_OPEN, ("ratio", ">=", 1)), (OPENS_AND_LOCKS, None),
                                ("bare loop, a request for each range", ("ratio", ">=", 1)),
                                ("node, same file changes, no locks", ("ratio", ">=", 1))):
                if any(row["name"] == floor for row in self.rows):
                    figure(live.TRANSFER, what, floor, goal)

    def statistics_share(self):
        """What counting takes of the processor time in which the service polls."""
        [line] = self.program("stats", RANGES, self.samples(101, 11), self.build / "drivers/sim.so")
        polled = statistics.median(self.row(f"the service, {live.TRANSFER} in a request", "changing")["values_per_cpu_s"])
        line["service"] = [100 * us * 1e-6 * polled / RANGES for us in line["service"]]
        self.add("statistics, share of the CPU of polling 2,000 ranges over Modbus TCP", "%", line, ("value", "<=", 2))

    # What a disk has to bear

    def wear(self):
        """300 ranges once a second, all changing, with the port directory on the disk; nothing else may write there."""
        if not self.disk:
            return
        seconds = self.samples(30, 10)
        with live.Place(self.build, self.disk) as place:
            place.plc(0, True)
            service = place.service(300, 198, modbus=True)  # five reads, each in a turn of its own
            place.subscribe(300)
            self.written(5)  # what the start has left
            served = place.registers_served()
            busy = [self.written(seconds) for _ in range(3)]
            served = place.registers_served() - served
            place.stop(service)
            self.written(5)
            quiet = [self.written(seconds) for _ in range(3)]
        self.notes.append(f"Disk: windows of {seconds} s, multiplied; {served / 3 / seconds:.0f} values a second.")
        for i, (name, unit, scale) in enumerate((("MB written to the disk", "MB", 1e-6), ("flushes of the disk", "", 1))):
            others = statistics.median(each[i] for each in quiet)
            self.figures.append(Figure(f"{name} in an hour, 300 ranges once a second", unit,
                                       [(each[i] - others) * 3600 / seconds for each in busy], scale=scale))

    def written(self, seconds):
        before = live.block_device(self.disk)
        time.sleep(seconds)
        return [now - then for now, then in zip(live.block_device(self.disk), before)]

    # Output

    def draw(self):
        curves = {"bench-logon.svg": ("Log-on of a new range", "ranges in its group",
                                      [(f"{who}, {where}", f"logon {where}", who) for where in ("memory", "disk")
                                       for who in ("service", "floor")]),
                  "bench-build.svg": ("First build, memory file system", "project registers",
                                      [(f"{who}, {layout}", f"build {layout}", who)
                                       for layout in ("one group", "500 groups", "one group, in no order")
                                       for who in ("service", "floor")])}
        for file, (title, axis, series) in curves.items():
            series = [entry for entry in series if len(self.curves.get(entry[1], [])) > 1]
            script = [f"set terminal svg size 760,480 background rgb 'white' font 'sans,12'\nset output '{file}'",
                      f"set title '{title}'\nset xlabel '{axis}'\nset ylabel 'milliseconds'",
                      "set logscale xy\nset key left top\nset grid"]
            plots = []
            for number, (label, curve, who) in enumerate(series):
                points = "\n".join(f"{line['size']} {statistics.median(line[who]) / 1000}"
                                   for line in self.curves[curve])
                script.append(f"$s{number} << EOD\n{points}\nEOD")
                style = f"lc {number // 2 + 1} " + ("dt 1 lw 2" if who == "service" else "dt 2")
                plots.append(f"$s{number} with linespoints {style} title '{label}'")
            if plots:
                subprocess.run(["gnuplot"], input="\n".join(script) + "\nplot " + ", ".join(plots) + "\n", text=True,
                               check=True, cwd=self.out)

    def show(self):
        rows = self.rows
        text = table([figure.cells() for figure in self.figures], HEADINGS)
        if rows:
            text += "\n" + table([[row["name"], row["what"],
                                   *(f"{statistics.median(row[key]):,.{digits}f}".replace(",", " ")
                                     for key, digits in (("values_per_s", 0), ("cpu_percent", 1),
                                                         ("values_per_cpu_s", 0)))] for row in rows],
                                 ["polling 2,000 registers over Modbus TCP", "values", "values/s", "CPU %",
                                  "values per CPU second"])
        text += "".join(f"\n{note}\n" for note in self.notes)
        text += "".join(f"\n**Not measured**: {what}\n" for what in self.missing)
        print(text)
        (self.out / "table.md").write_text(text)
        write_json(self.out / "result.json", self.figures, alternatives=rows, curves=self.curves, notes=self.notes,
                   missing=self.missing)
        return not self.missing and all(figure.reached() is not False for figure in self.figures)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="few samples, small sizes: does everything still run")
    parser.add_argument("--disk", help="a short folder name on a disk; without it nothing is measured on disk")
    parser.add_argument("--docs", type=pathlib.Path, help="copy the curves here")
    parser.add_argument("parts", nargs="*", metavar="PART", help=f"all when none is named: {', '.join(PARTS)}")
    arguments = parser.parse_intermixed_args()
    bench = Bench(arguments)
    try:
        os.setpriority(os.PRIO_PROCESS, 0, -20)
    except PermissionError:
        bench.notes.append("No right to a higher priority: the machine's other load shows.")
    for part in arguments.parts or PARTS:
        getattr(bench, part)()
    reached = bench.show()
    bench.draw()
    if arguments.docs:
        for file in bench.out.glob("*.svg"):
            shutil.copy(file, arguments.docs)
    sys.exit(0 if reached else 1)


main()
