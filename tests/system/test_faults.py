"""Every call that touches the disk fails once, or is the last of its process: what is kept then.

The everyday run takes a part of the points, another one each time; TARVO_SLOW=1 takes all.
"""
import contextlib
import errno
import os
import random
import shutil

import pytest

import harness
from archive_checker import Ledger, picture, problems, uids_of
from faults import (CHANGING, FAIL, FILL, HALVE, KILL_AFTER, KILL_BEFORE, Faults,
                    servers_in_memory)
from harness import SEED
from storage_provider import Provider
from upper_layer import ALREADY_THERE, GONE, NO_RESOURCES, SUCCESS

MOST_POINTS = 1000 if harness.SLOW else 4  # of a table

# name: (what happens at the nth call, number of the error, kinds of calls)
ACTIONS = {
    "ENOSPC": (FAIL, errno.ENOSPC, CHANGING),
    "EIO": (FAIL, errno.EIO, [*CHANGING, "read"]),
    "short count": (HALVE, 0, ["read", "write"]),
    "full disk from here on": (FILL, errno.ENOSPC, ["write", "allocate", "mkdir"]),
    "kill before": (KILL_BEFORE, 0, CHANGING),
    "kill after": (KILL_AFTER, 0, CHANGING),
}


class Bench:
    """A server under the shim, and a store that is put back to the same state for every case:
    study 1 with a series of two images, 2 with two series of one, 3 deleted, 4 with one image."""

    def __init__(self, servers, provider):
        self.server = servers.make(provider=provider, moves_clock=True)
        self.faults = Faults(self.server)
        self.server.start()
        self.provider, self.template = provider, self.server.directory / "template"
        self.ledger = self.origin = Ledger()
        for which in ((1, 1, 1), (1, 1, 2), (2, 1, 1), (2, 2, 1), (3, 1, 1), (4, 1, 1)):
            assert self.store(which) == SUCCESS
        assert self.delete((3,)) == (SUCCESS, 1)
        shutil.copytree(self.server.store, self.template)
        self.map_text = self.server.map_file.read_text()

    def restore(self):
        self.server.wait_until_idle()
        shutil.rmtree(self.server.store / "uid")
        shutil.copytree(self.template, self.server.store, dirs_exist_ok=True)
        self.ledger = Ledger(self.origin)

    def store(self, which, version=0, called="TARVO", arm=lambda: None):
        """Images of study 4 come without a name."""
        more = {"PatientName": None} if which[0] == 4 else {}
        with self.server.client(called=called) as association:
            arm()
            return self.ledger.store(association, picture(uids_of(*which), version, **more))

    def delete(self, what, arm=lambda: None):
        with self.server.client() as association:
            arm()
            return self.ledger.delete(association, *uids_of(*what)[:len(what)])

    def problems(self):
        learned = self.server.map_file.read_text().removeprefix(self.map_text)
        found = problems(self.server, self.ledger, self.provider)
        if learned not in ("", MapSave.LEARNED[0], "".join(MapSave.LEARNED)):
            found.append(f"the AE title map ends with {learned!r}")
        return found


class Store:
    """An image is stored; healed by sending it again."""
    in_listener = False

    def __init__(self, *which, **settings):
        self.which, self.settings = which, settings

    def run(self, bench, arm):
        bench.store(self.which, arm=arm, **self.settings)

    def heal(self, bench):
        status = bench.store(self.which, **self.settings)
        if status == ALREADY_THERE:
            bench.ledger.end_store(uids_of(*self.which))
        return status in (SUCCESS, ALREADY_THERE)


class Delete:
    """Healed by deleting until nothing is left to delete, and by storing anew what was deleted."""
    in_listener = False

    def __init__(self, *what, again):
        self.what, self.again = what, again

    def run(self, bench, arm):
        bench.delete(self.what, arm)

    def heal(self, bench):
        # A record without its file fails once more, and goes.
        is_done = (SUCCESS, 0) in (bench.delete(self.what) for _ in range(3))
        return is_done and Store(*self.again).heal(bench)


class Compaction:
    """Runs in the listener while it is idle; healed by the next one and a new study."""
    in_listener = True

    def run(self, bench, arm):
        bench.server.wait_until_idle()
        arm()
        bench.faults.let_pass(61)

    def heal(self, bench):
        self.run(bench, lambda: bench.faults.arm(0, FAIL))
        bench.faults.disarm()
        return bench.store((5, 1, 1)) == SUCCESS


class MapSave:
    """The listener learns a peer; healed by hearing of it again, and of another."""
    in_listener = True
    LEARNED = ["hostA\tNEW\ta:1\tF\n", "hostB\tOTHER\tb:1\tF\n"]
    NEW, OTHER = b"hostA 1 CONFIG ADD_AET NEW a:1 F\n", b"hostB 1 CONFIG ADD_AET OTHER b:1 F\n"

    def run(self, bench, arm):
        bench.server.kill()  # for it remembers whom it has learned
        bench.server.map_file.write_text(bench.map_text)
        bench.server.start()
        arm()
        harness.say(bench.server.port, self.NEW)
        bench.faults.let_pass(6)

    def heal(self, bench):
        harness.say(bench.server.port, self.NEW, self.OTHER)
        bench.server.let_pass(6)
        bench.server.turn()
        return bench.server.map_file.read_text() == bench.map_text + "".join(self.LEARNED)


SCENARIOS = {
    "new study": Store(9, 1, 1), "new series": Store(1, 9, 1), "further image": Store(1, 1, 9),
    "overwrite": Store(1, 1, 1, version=1, called="TarvoOverwrite"),
    "delete an image": Delete(1, 1, 1, again=(1, 1, 1)),
    "delete a series": Delete(2, 1, again=(2, 1, 1)),
    "delete a study": Delete(4, again=(4, 1, 1)),
    "compaction": Compaction(), "map save": MapSave(),
}


@pytest.fixture(scope="module")
def bench():
    with Provider("DEST") as provider, servers_in_memory() as servers:
        yield Bench(servers, provider)


def strike(bench, scenario, action, nth):
    """(number of calls, what is wrong when the nth was hit, and what is when that is healed)"""
    (kind, error, kinds), found = action, []
    kills = kind in (KILL_BEFORE, KILL_AFTER)
    bench.restore()
    try:
        scenario.run(bench, lambda: bench.faults.arm(nth, kind, error, kinds))
    except GONE as end:
        found += [] if kills else [repr(end)]
    count, struck = bench.faults.count, bench.faults.disarm()
    if struck and kills and scenario.in_listener:
        bench.server.process.wait(timeout=10)
        bench.server.start()
    bench.server.wait_until_idle()
    found += bench.problems()
    if not scenario.heal(bench):
        found.append("cannot be healed")
    found += [f"healed: {each}" for each in bench.problems()]
    return count, [f"{nth} {struck}: {each}" for each in found]


@pytest.mark.parametrize("action", ACTIONS)
@pytest.mark.parametrize("scenario", SCENARIOS)
def test_every_call_may_fail_or_be_the_last(bench, scenario, action):
    draw = random.Random(f"{SEED} {scenario} {action}")
    count, wrong = strike(bench, SCENARIOS[scenario], ACTIONS[action], 0)
    points = sorted(draw.sample(range(1, count + 1), min(count, MOST_POINTS)))
    for nth in points:
        wrong += strike(bench, SCENARIOS[scenario], ACTIONS[action], nth)[1]
    print(f"{len(points)} of {count}")
    assert count and not wrong, "\n".join(wrong)


# ---- a disk that is really full ----

PLACES = "new study", "new series", "further image"


@pytest.fixture
def full_disk(tmp_path, servers, provider):
    """full_disk(options): a Sender to a server on a small disk in memory; mounted in a namespace of
    our own, so that nobody else sees it."""
    disk = tmp_path / "disk"
    disk.mkdir()

    def mount(options):
        done = harness.run("mount", "-t", "tmpfs", "-o", options, "tarvo", str(disk))
        if done.returncode != 0:
            pytest.skip(f"nobody may mount anything here: {done.stderr}")
        return Sender(servers(store=disk, provider=provider), provider)
    yield mount
    harness.run("umount", str(disk))


class Sender:
    def __init__(self, server, provider):
        self.server, self.provider, self.ledger, self.number = server, provider, Ledger(), 0

    def send(self, where, size=2000):
        """One image, "new" or into a "known" study or series; returns the status."""
        self.number += 1
        study = self.number if where == "new study" else 0
        series = 0 if where == "further image" else self.number
        with self.server.client() as association:
            image = picture(uids_of(study, series, self.number), self.number, size)
            return self.ledger.store(association, image)

    def send_everywhere(self):
        assert [self.send(where) for where in PLACES] == [SUCCESS] * 3
        self.check()

    def check(self):
        found = problems(self.server, self.ledger, self.provider)
        assert not found, "\n".join(found)
        assert not list(self.server.store.rglob("*.tmp")), "these take the room that is left"


def fill(path, leave):
    """Takes all space but `leave` pages."""
    space = os.statvfs(path.parent)
    with path.open("wb") as filler, contextlib.suppress(OSError):
        for _ in range(max(space.f_bavail - leave, 0)):
            filler.write(bytes(space.f_frsize))
            filler.flush()


def test_a_full_disk_refuses_and_recovers(full_disk):
    sender = full_disk("size=2m")
    sender.send_everywhere()
    filler = sender.server.store / "filler"
    for leave in range(12, -1, -1):  # with ever less room the stores fail at earlier steps
        fill(filler, leave)
        statuses = {sender.send(where, 20000) for where in PLACES * 3}
        assert NO_RESOURCES in statuses and statuses <= {NO_RESOURCES, SUCCESS if leave else None}
        sender.check()
        filler.unlink()
    sender.send_everywhere()


def test_a_disk_that_takes_no_more_files_refuses_and_recovers(full_disk):
    sender = full_disk("size=2m,nr_inodes=60")
    sender.send_everywhere()
    while sender.send("new study") == SUCCESS:
        assert sender.number < 60
    assert [sender.send(where) for where in PLACES * 2] == [NO_RESOURCES] * 6
    sender.check()
    with sender.server.client() as association:  # which needs no room
        assert sender.ledger.delete(association, "1.4") == (SUCCESS, 1)
    assert [sender.send(where) for where in ("further image", "new series")] == [SUCCESS] * 2
    sender.check()
