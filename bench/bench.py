#!/usr/bin/python3
"""Measures the archive beside its rivals, and what growth costs; writes the tables and the plots.

All figures of one row come from one run on one machine, with the rounds interleaved: a machine that
grows slower favours nobody. Compare figures of one run only.
"""
import contextlib
import os
import pathlib
import statistics
import struct
import subprocess
import sys
import tempfile
import time
import zlib

import plot
import servers
from servers import ROOT, SINK_PORT, UNTUNED

LOAD = ROOT / "build/release/bench_load"
SMALL, LARGE, TINY = 128 * 128 * 2, 512 * 512 * 2, 32  # bytes of pixels
STUDY_ROOT_UID = "1.2.826.0.1.3680043.10.999.1"
TARVOS = ("Tarvo", "Tarvo no sync")
ARCHIVES = ("dcmqrscp", "Orthanc", "Orthanc no sync", *TARVOS)
EVERYBODY = ("storescp", *ARCHIVES)


def load(*arguments):
    """Runs the load generator; gives the figures that it prints."""
    done = subprocess.run([LOAD, *map(str, arguments)], stdout=subprocess.PIPE, check=True,
                          text=True, timeout=300)
    return {name: float(value) for name, value in map(str.split, done.stdout.splitlines())}


def store(server, first, count, size, per_study=0, clients=1):
    """Images a second."""
    return count / load("store", server.port, first, count, size, per_study,
                        clients)["seconds"]


@contextlib.contextmanager
def background(*command, ready):
    """A process that says `ready`, or (a number) listens on that port, and ends with the block."""
    process = subprocess.Popen([str(part) for part in command], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, text=True)
    try:
        if isinstance(ready, int):
            servers.harness.wait_until(lambda: servers.harness.is_listening(process.pid, ready))
        else:
            assert process.stdout.readline().strip() == ready
        yield
    finally:
        process.stdin.close()
        if isinstance(ready, int):
            process.terminate()
        process.wait(60)


class Bench:
    """The workloads. Each is given a running server and its name and returns {row: figure}."""

    def __init__(self, workspace, quick):
        self.workspace, self.quick, self.counter = workspace, quick, 0
        self.rounds = 1 if quick else 3
        self.results = {}  # row: {server: median}

    def count(self, full):
        return full // 10 if self.quick else full

    def settle(self):
        """Where files were deleted in the last minute ext4 takes up to ten times as long to make new
        ones: it passes over every inode that has just become free."""
        if not self.quick:
            os.sync()
            time.sleep(65)

    def fresh(self):
        """A new name. Nothing is deleted before the end: somebody else would pay for it."""
        self.counter += 1
        return self.workspace / f"run{self.counter}"

    def folder(self):
        made = self.fresh()
        made.mkdir()
        return made

    def measure(self, work, names, parallel=0, rounds=None):
        """Runs `work` on a fresh server of each name in turn, and keeps the medians."""
        print(f"{work.__name__.replace('_', ' ')} ...", flush=True)
        found = {}
        for _ in range(rounds or self.rounds):
            for name in filter(self.names.__contains__, names):
                directory = self.fresh()
                with servers.ALL[name][parallel](directory) as server:
                    for row, value in self.figures_of(work, server, name).items():
                        found.setdefault(row, {}).setdefault(name, []).append(value)
        for row, values in found.items():
            self.results[row] = {name: statistics.median(all_) for name, all_ in values.items()}

    @staticmethod
    def figures_of(work, server, name):
        try:
            return work(server, name)
        except subprocess.CalledProcessError:
            if name in TARVOS:
                raise
            print(f"{name} cannot do that")
            return {}

    # ---- storing ----

    def stock_clients(self, server, name):
        figures = {}
        count = self.count(500) if name in TARVOS else self.count(40)
        for client in ("dcmsend", "storescu"):
            folder = self.folder()
            load("write", folder, count if client == "dcmsend" else 1000 + count, count, SMALL, 0)
            start = time.perf_counter()
            subprocess.run([client, "-aec", "ARCHIVE", "--scan-directories", "127.0.0.1",
                            str(server.port), str(folder)], env=UNTUNED, check=True, timeout=300,
                           stdout=subprocess.DEVNULL)
            figures[client] = count / (time.perf_counter() - start)
        return figures

    def small_images(self, server, name):
        count = self.count(500 if name == "dcmqrscp" else 2000)  # it slows down as it fills
        return {"small": store(server, 0, count, SMALL)}

    def large_images(self, server, name):
        return {"large": store(server, 0, self.count(500), LARGE)}

    def four_associations(self, server, name):
        count = self.count(500) // 4 * 4
        rate = store(server, 0, count, LARGE, 0, 4)
        return {"four": rate, "lost": max(0, count - server.images_of(LARGE))}

    def long_series(self, server, name):
        times = load("store", server.port, 0, self.count(10000), TINY, 0, 1)
        return {"series": times["last"] / times["first"], "series last": times["last"]}

    # ---- finding and moving ----

    def queries(self, server, name):
        studies = 500 if name == "dcmqrscp" else self.count(10000)
        store(server, 0, studies, TINY, per_study=1)
        asked = {"find uid": (1, "uid", f"{STUDY_ROOT_UID}.8"), "find none": (0, "date", "19990101"),
                 "find date": (studies // 100, "date", "20260102-20260103"),
                 "find id": (1, "id", "P7"), "find name": (studies // 100, "name", "SMI*"),
                 "find all": (studies, "id", "")}
        figures = {row: load("find", server.port, 9, *query)["median_ms"]
                   for row, query in asked.items()}
        slope = (figures["find all"] - figures["find none"]) / studies * 1000
        return {**figures, "find slope": slope}

    def moves(self, server, name):
        count = self.count(500)
        store(server, 0, count, LARGE)
        with background(LOAD, "sink", SINK_PORT, ready=SINK_PORT):
            return {"move": statistics.median(
                count / load("move", server.port, "SINK", count)["seconds"]
                for _ in range(self.rounds))}

    # ---- associations ----

    def associations(self, server, name):
        count = self.count(1000) if name in (*TARVOS, "Orthanc") else self.count(300)
        return {"associations": count / load("echo", server.port, count, 1)["seconds"]}

    def many_clients(self, server, name):
        count = self.count(1600) if name in (*TARVOS, "Orthanc") else self.count(480)
        return {"clients": count // 16 * 16 / load("echo", server.port, count, 16)["seconds"]}

    def held_open(self, server, name):
        load("echo", server.port, 5, 1)
        figures = {"memory": server.memory()}
        with background(LOAD, "hold", server.port, 16, ready="held"):
            figures["memory 16"] = server.memory()
            figures["echo 16"] = load("echo", server.port, 21, 1)["median_ms"]
        return figures

    # ---- the machine ----

    def bounds(self):
        for label, size in (("33 KB", SMALL), ("525 KB", LARGE)):
            count = self.count(500)
            runs = [load("bounds", self.folder(), size, count) for _ in range(self.rounds)]
            for name in runs[0]:
                rate = statistics.median(count / run[name] for run in runs)
                self.results.setdefault(f"bound {name}", {})[label] = rate
        with background(LOAD, "sink", SINK_PORT, ready=SINK_PORT):
            sink = servers.Running(0, SINK_PORT, None)
            count = self.count(500)
            rate = statistics.median(store(sink, 0, count, LARGE) for _ in range(self.rounds))
            self.results["bound sink"] = {"525 KB": rate}

    def run_all(self):
        self.names = servers.installed()
        self.settle()
        self.bounds()
        self.measure(self.stock_clients, EVERYBODY)
        short_rounds = 1 if self.quick else 5  # half a second each, and the disk has its moods
        self.measure(self.small_images, EVERYBODY, rounds=short_rounds)
        self.measure(self.large_images, EVERYBODY, rounds=short_rounds)
        self.measure(self.four_associations, EVERYBODY, parallel=1, rounds=short_rounds)
        if not self.quick:  # it takes 10,000 images to see something
            self.measure(self.long_series, ("storescp", *TARVOS))
        self.measure(self.queries, ("dcmqrscp", "Orthanc no sync", "Tarvo no sync"))
        self.measure(self.moves, ("dcmqrscp", "Orthanc no sync", "Tarvo"), rounds=1)
        self.measure(self.associations, ("storescp", "dcmqrscp", "Orthanc", "Tarvo"))
        self.measure(self.many_clients, ("storescp", "dcmqrscp", "Orthanc", "Tarvo"), parallel=1)
        self.measure(self.held_open, ("storescp", "dcmqrscp", "Orthanc", "Tarvo"), parallel=1)


# ---- what growth costs ----

def write_index(folder, count):
    """The study index files of `count` studies, as the server would have written them."""
    (folder / "uid").mkdir(parents=True)
    letters = sum(1 << (ord(letter) - ord("a") + 1) for letter in "person")
    with (folder / "uid/STUDYINDEX.hash").open("wb") as words, \
            (folder / "uid/STUDYINDEX.dat").open("wb") as records:
        for number in range(count):
            uid = f"1.2.3.{number}".encode()
            date = 20260102 if number % 10000 == 0 else 20250607
            words.write(struct.pack("<7L", letters | 1 << 30, 0, 0, 0, date, 1, zlib.crc32(uid)))
            texts = uid.ljust(64, b"\0") + f"Person^{number}".encode().ljust(64, b"\0")
            texts = (texts + f"P{number}".encode()).ljust(408, b"\0") + str(date).encode()
            records.write(texts.ljust(512, b"\0"))


def growth_of_studies(bench):
    table = []
    for count in (1000, 10000, 100000, *([] if bench.quick else [1000000])):
        start = 0

        def prepare(store):
            nonlocal start
            write_index(store, count)
            start = time.perf_counter()

        with servers.tarvo(bench.fresh(), prepare=prepare) as server:
            started = (time.perf_counter() - start) * 1000
            found = [load("find", server.port, 9, *query)["median_ms"]
                     for query in ((-(-count // 10000), "date", "20260102"), (1, "uid", "1.2.3.7"))]
            echo = load("echo", server.port, 21, 1)["median_ms"]
            alone = server.memory()
            with background(LOAD, "hold", server.port, 1, ready="held"):
                both = server.memory()
        table.append((count, started, echo, *found, alone, max(both - alone, 0.01)))
    return ("studies", ("start, ms", "association, ms", "1 in 10,000, ms", "one UID, ms",
                        "listener, MB", "and a worker, MB"), table)


def growth_of_series(bench):
    table, stored = [], 0
    with servers.tarvo(bench.fresh(), wait_for_disk=False) as server:
        for count in (10, 100, 1000, 10000, *([] if bench.quick else [100000])):
            store(server, stored, count - stored, TINY)
            first = 1000 / store(server, count, 1, TINY)
            more = min(count, 500)
            rest = load("store", server.port, count + 1, more, TINY, 0, 1)["rest"]
            table.append((count, first, rest / (more - 1) * 1000))
            stored = count + 1 + more
    return "images", ("first of an association, ms", "each of the next 500, ms"), table


def growth_of_associations(bench):
    table = []
    with servers.tarvo(bench.fresh(), "-M", "200", wait_for_disk=False) as server:
        for count in (1, 4, 16, 64, 100):
            with background(LOAD, "hold", server.port, count, ready="held"):
                memory = server.memory()
                echo = load("echo", server.port, 21, 1)["median_ms"]
            images = 400 // count * count
            rate = store(server, 1000 * count, images, SMALL, 0, count)
            servers.harness.wait_until(lambda: server.memory() < memory or count == 1)
            table.append((count, memory, echo, rate))
    return "associations", ("all processes, MB", "one more, ms", "images/s of 33 KB"), table


GROWTH = {"studies": growth_of_studies, "series": growth_of_series,
          "associations": growth_of_associations}


# ---- the tables ----

def at_least(factor, server, other=None):
    """A check: the figure of `server` is `factor` times that of `other`, or `factor`."""
    return lambda row: row[server] >= factor * (row[other] if other else 1)


def at_most(limit, server):
    return lambda row: row[server] <= limit


# row of the results, title, unit, target, checks
ROWS = [
    ("dcmsend", "stock `dcmsend`, 33 KB images", "img/s", "500", [at_least(500, "Tarvo")]),
    ("storescu", "stock `storescu`, 33 KB images", "img/s", "500", [at_least(500, "Tarvo")]),
    ("small", "2,000 images of 33 KB", "img/s", "0.7 x storescp without sync, 2 x Orthanc with",
     [at_least(0.7, "Tarvo no sync", "storescp"), at_least(2, "Tarvo", "Orthanc")]),
    ("large", "500 images of 525 KB", "img/s", "0.9 x storescp without sync, 2 x Orthanc with",
     [at_least(0.9, "Tarvo no sync", "storescp"), at_least(2, "Tarvo", "Orthanc")]),
    ("four", "4 associations, 125 images of 525 KB each", "img/s", "0.8 x storescp without sync",
     [at_least(0.8, "Tarvo no sync", "storescp")]),
    ("lost", "images lost by these", "", "0", [at_most(0, "Tarvo"), at_most(0, "Tarvo no sync")]),
    ("series", "10,000 tiny images, one series: last 1,000 / first 1,000", "", "1.3 without sync",
     [at_most(1.3, "Tarvo no sync")]),
    ("series last", "the last 1,000 of these", "s", "0.6 without sync",
     [at_most(0.6, "Tarvo no sync")]),
    ("find uid", "C-FIND among 10,000 studies: one UID", "ms", "0.33",
     [at_most(0.33, "Tarvo no sync")]),
    ("find date", "a date range, 100 matches", "ms", "3.3", [at_most(3.3, "Tarvo no sync")]),
    ("find none", "no match", "ms", "0.3", [at_most(0.3, "Tarvo no sync")]),
    ("find id", "Patient ID", "ms", "1.5", [at_most(1.5, "Tarvo no sync")]),
    ("find name", "name `SMI*`, 100 matches", "ms", "4", [at_most(4, "Tarvo no sync")]),
    ("find all", "everything", "ms", "300", [at_most(300, "Tarvo no sync")]),
    ("find slope", "and each match of it", "µs", "30", [at_most(30, "Tarvo no sync")]),
    ("move", "C-MOVE of 500 images of 525 KB", "img/s", "1,800", [at_least(1800, "Tarvo")]),
    ("associations", "open, echo, release: one client", "/s", "1,200", [at_least(1200, "Tarvo")]),
    ("clients", "16 clients", "/s", "2,200", [at_least(2200, "Tarvo")]),
    ("memory", "memory when idle (PSS)", "MB", "7", [at_most(7, "Tarvo")]),
    ("memory 16", "with 16 associations open", "MB", "11", [at_most(11, "Tarvo")]),
    ("echo 16", "open, echo, release beside these", "ms", "2", [at_most(2, "Tarvo")]),
]
BOUNDS = [("bound tcp", "copy over TCP"), ("bound write", "write to a file"),
          ("bound fsync", "write and fsync"),
          ("bound durable", "the same, a record in an index, and a name"),
          ("bound sink", "store to the discarding sink"),
          ("bound fork", "fork, exit, wait")]


def shown(value):
    return "" if value is None else f"{value:,.0f}" if value >= 100 or value == int(value) \
        else f"{value:.3g}"


def markdown(head, rows):
    lines = [head, ["---", *["--:"] * (len(head) - 1)], *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def verdict(row, checks):
    try:
        return "met" if all(check(row) for check in checks) else "**not met**"
    except KeyError:
        return "a rival is missing"


def main_table(results):
    rows = []
    for key, title, unit, target, checks in ROWS:
        if key in results:
            row = results[key]
            rows.append([f"{title}{unit and ', ' + unit}", *(shown(row.get(name)) for name in
                                                            EVERYBODY), target, verdict(row, checks)])
    return markdown(["work", *EVERYBODY, "target", ""], rows)


def bounds_table(results):
    return markdown(["what this machine can do, a second", "33 KB", "525 KB"],
                    [[title, *(shown(results[key].get(size)) for size in ("33 KB", "525 KB"))]
                     for key, title in BOUNDS])


def growth_table(table):
    what, columns, lines = table
    return markdown([what, *columns], [list(map(shown, line)) for line in lines])


def insert(path, name, text):
    """Replaces what stands between the markers of that name, if the file has them."""
    begin, end = f"<!-- bench:{name} -->", f"<!-- bench:{name} end -->"
    before, found, rest = path.read_text().partition(begin)
    if found:
        after = rest.partition(end)[2]
        path.write_text(f"{before}{begin}\n{text}{end}{after}")


def publish(texts, growth):
    for path in (ROOT / "README.md", ROOT / "docs/performance.md"):
        for name, text in texts.items():
            insert(path, name, text)
    for name, (what, columns, lines) in growth.items():
        plot.write(ROOT / f"docs/growth-{name}.svg", f"What {what} cost", what,
                   {column: [(line[0], line[number]) for line in lines]
                    for number, column in enumerate(columns, 1)})


def main():
    quick = "quick" in sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="tarvo-bench-") as folder:
        bench = Bench(pathlib.Path(folder), quick)
        bench.run_all()
        growth = {name: measure(bench) for name, measure in GROWTH.items()}
    texts = {"table": main_table(bench.results), "bounds": bounds_table(bench.results),
             **{name: growth_table(table) for name, table in growth.items()}}
    print("\n".join(texts.values()))
    if not quick:
        publish(texts, growth)


if __name__ == "__main__":
    main()
