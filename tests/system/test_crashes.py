"""Workers and listeners killed under load, and a disk that is really full.

TARVO_SLOW=1 kills 500 times instead of 25.
"""
import contextlib
import os
import random
import signal
import subprocess
import threading
import time

import pytest

import harness
from archive_checker import Ledger, picture, problems
from query_retrieve import SUCCESS, client
from storage_provider import Provider
from upper_layer import Aborted, Rejected

SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
KILLS = 500 if os.environ.get("TARVO_SLOW") else 25
NO_RESOURCES = 0xA700
GONE = OSError, EOFError, Aborted, Rejected


class Storer(threading.Thread):
    """Stores, overwrites and deletes images of its own in studies that all share."""

    def __init__(self, server, name):
        super().__init__(daemon=True)
        self.server, self.name_number, self.draw = server, name, random.Random(f"{SEED} {name}")
        self.ledger, self.number, self.answers, self.error = Ledger(), 0, 0, None
        self.done = False

    def run(self):
        try:
            while not self.done:
                with contextlib.suppress(*GONE), client(self.server,
                                                        called="TarvoOverwrite") as association:
                    for _ in range(self.draw.randint(1, 60)):
                        self.work(association)
                time.sleep(0.002)
        except BaseException as error:
            self.error = error

    def work(self, association):
        kind, certain = self.draw.random(), sorted(self.ledger.certain())
        if kind < 0.12 and certain:
            self.ledger.delete(association, *self.draw.choice(certain))
            return
        uids = self.draw.choice(certain) if kind < 0.25 and certain else self.next_uids()
        data = picture(uids, self.draw.randrange(1000), self.draw.choice([2000, 2000, 600000]))
        status = self.ledger.store(association, uids, data)
        # Now and then a delete of others takes the folder away again and again.
        assert status in (SUCCESS, NO_RESOURCES), f"{uids}: {status:04X}"
        self.answers += status == SUCCESS

    def next_uids(self):
        """Now and then in a study of its own, which goes with its image."""
        self.number += 1
        own = f"{self.name_number}.{self.number}"
        study = f"2.{own}" if self.draw.random() < 0.1 else f"1.{self.draw.randrange(3)}"
        series = f"{study}.{self.draw.randrange(2)}"
        return study, series, f"{series}.{own}"


def kill_somebody(server, draw):
    """A worker or, one time in six, the listener, which is started again."""
    if draw.random() < 1 / 6:
        server.process.kill()
        server.process.wait()
        server.start()
        return "listener"
    workers = server.workers()
    if workers:
        with contextlib.suppress(ProcessLookupError):
            os.kill(draw.choice(workers), signal.SIGKILL)
            return "worker"
    return None


def test_kills_under_load_lose_nothing(servers, capsys):
    draw, killed = random.Random(SEED), {"listener": 0, "worker": 0, None: 0}
    with Provider("DEST") as provider:
        server = servers(peers=provider.map_line)
        server.expected_deaths = 1 << 20
        storers = [Storer(server, name) for name in range(3)]
        for storer in storers:
            storer.start()
        deadline = time.monotonic() + 10 + KILLS
        while killed["listener"] + killed["worker"] < KILLS:
            assert time.monotonic() < deadline
            before = [storer.answers for storer in storers]
            time.sleep(draw.uniform(0, 0.06))
            killed[kill_somebody(server, draw)] += 1
            if sum(killed.values()) % 10 == 0:  # none may be stuck
                harness.wait_until(lambda: all(
                    storer.answers > count or storer.error for storer, count
                    in zip(storers, before)), what="stores after a kill")
        for storer in storers:
            storer.done = True
        for storer in storers:
            storer.join(30)
            assert storer.error is None and not storer.is_alive(), storer.error
        server.wait_until_idle()
        ledger = Ledger()
        for storer in storers:
            ledger.images |= storer.ledger.images
        answers = sum(storer.answers for storer in storers)
        with capsys.disabled():
            print(f" TARVO_TEST_SEED={SEED} {killed} {answers} answers, "
                  f"{len(ledger.certain())} images", end="")
        assert answers > KILLS
        found = problems(server, ledger, provider)
    assert not found, f"TARVO_TEST_SEED={SEED}\n" + "\n".join(found[:40])


# ---- a full disk ----

@pytest.fixture
def small_disk(tmp_path):
    """Mounts disks in memory; in a namespace of our own, so that nobody else sees them."""
    mounted = []

    def mount(options):
        folder = tmp_path / f"disk{len(mounted)}"
        folder.mkdir()
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tarvo", folder],
                              capture_output=True, text=True)
        if done.returncode != 0:
            pytest.skip(f"nobody may mount anything here: {done.stderr.strip()}")
        mounted.append(folder)
        return folder
    yield mount
    for folder in mounted:
        subprocess.run(["umount", folder], check=True)


def fill(path, leave):
    """Takes all space but `leave` pages."""
    space = os.statvfs(path.parent)
    with path.open("wb") as filler, contextlib.suppress(OSError):
        for _ in range(max(space.f_bavail - leave, 0)):
            filler.write(bytes(space.f_frsize))
            filler.flush()


class Sender:
    def __init__(self, server):
        self.server, self.ledger, self.number = server, Ledger(), 0

    def send(self, where, size=2000):
        """One image, "new" or into a "known" study or series; returns the status."""
        self.number += 1
        study = f"1.{self.number}" if where == "new study" else "1.0"
        series = f"{study}.0" if where == "further image" else f"{study}.{self.number}"
        uids = study, series, f"{series}.{self.number}"
        with client(self.server) as association:
            return self.ledger.store(association, uids, picture(uids, self.number, size))


PLACES = "new study", "new series", "further image"


def test_a_full_disk_refuses_and_recovers(servers, small_disk):
    disk = small_disk("size=2m")
    with Provider("DEST") as provider:
        server = servers(store=disk, peers=provider.map_line)
        sender = Sender(server)
        for where in PLACES:
            assert sender.send(where) == SUCCESS
        for leave in range(12, -1, -1):  # with ever less room the stores fail at earlier steps
            fill(disk / "filler", leave)
            for where in PLACES * 3:
                status = sender.send(where, 20000)
                assert status == NO_RESOURCES or (leave and status == SUCCESS), (leave, where)
            found = problems(server, sender.ledger, provider)
            assert not found, (leave, found)
            (disk / "filler").unlink()
        for where in PLACES:
            assert sender.send(where) == SUCCESS
        assert not problems(server, sender.ledger, provider)


def test_a_disk_that_takes_no_more_files_refuses_and_recovers(servers, small_disk):
    with Provider("DEST") as provider:
        server = servers(store=small_disk("size=2m,nr_inodes=60"), peers=provider.map_line)
        sender = Sender(server)
        for where in PLACES:
            assert sender.send(where) == SUCCESS
        while sender.send("new study") == SUCCESS:
            assert sender.number < 60
        assert [sender.send(where) for where in PLACES * 2] == [NO_RESOURCES] * 6
        assert not problems(server, sender.ledger, provider)
        with client(server) as association:  # which needs no room
            assert sender.ledger.delete(association, "1.4") == (SUCCESS, 1)
        assert [sender.send(where) for where in ("further image", "new series")] == [SUCCESS] * 2
        assert not problems(server, sender.ledger, provider)
