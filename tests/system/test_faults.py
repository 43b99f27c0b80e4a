"""Every call that touches the disk fails once, or is the last of its process: what is kept then.

The everyday run takes a part of the points, another one each time; TARVO_SLOW=1 takes all.
"""
import contextlib
import errno
import os
import random
import shutil
import time

import pytest

import faults
import harness
from archive_checker import Ledger, picture, problems
from faults import CHANGING, FAIL, FILL, HALVE, KILL_AFTER, KILL_BEFORE, server_with_faults
from query_retrieve import SUCCESS, client
from storage_provider import Provider
from upper_layer import Aborted

SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
MOST_POINTS = 1000 if os.environ.get("TARVO_SLOW") else 4  # of a table
ALREADY_THERE = 0xB006
GONE = EOFError, ConnectionError, Aborted

# name: (what happens at the nth call, number of the error, kinds of calls)
ACTIONS = {
    "ENOSPC": (FAIL, errno.ENOSPC, CHANGING),
    "EIO": (FAIL, errno.EIO, [*CHANGING, "read"]),
    "short count": (HALVE, 0, ["read", "write"]),
    "full disk from here on": (FILL, errno.ENOSPC, ["write", "allocate", "mkdir"]),
    "kill before": (KILL_BEFORE, 0, CHANGING),
    "kill after": (KILL_AFTER, 0, CHANGING),
}


def uids_of(study, series=0, number=0):
    return f"1.{study}", f"1.{study}.{series}", f"1.{study}.{series}.{number}"


class Bench:
    """A server under the shim, and a store that is put back to the same state for every case:
    study 1 with a series of two images, 2 with two series of one, 3 deleted, 4 with one image."""

    def __init__(self, servers, folder, provider):
        peers = provider.map_line.replace(" ", "\t")  # as the server writes it
        self.server, self.faults = server_with_faults(servers, folder, peers=peers)
        self.server.start()
        self.provider, self.template = provider, folder / "template"
        self.ledger = Ledger()
        with client(self.server) as association:
            for which in ((1, 1, 1), (1, 1, 2), (2, 1, 1), (2, 2, 1), (3, 1, 1), (4, 1, 1)):
                assert self.store(association, *which) == SUCCESS
            assert self.delete(association, 3) == (SUCCESS, 1)
        self.origin = self.ledger
        shutil.copytree(self.server.store, self.template)
        self.map_text = self.server.map_file.read_text()

    def restore(self):
        self.server.wait_until_idle()
        shutil.rmtree(self.server.store / "uid")
        shutil.copytree(self.template, self.server.store, dirs_exist_ok=True)
        self.ledger = Ledger(self.origin)

    def store(self, association, *which, version=0):
        """Images of study 4 come without a name."""
        uids, more = uids_of(*which), {"PatientName": None} if which[0] == 4 else {}
        return self.ledger.store(association, uids, picture(uids, version, **more))

    def delete(self, association, *what):
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

    def __init__(self, *which, version=0, called="TARVO"):
        self.which, self.version, self.called = which, version, called

    def run(self, bench, arm):
        with client(bench.server, called=self.called) as association:
            arm()
            bench.store(association, *self.which, version=self.version)

    def heal(self, bench):
        with client(bench.server, called=self.called) as association:
            status = bench.store(association, *self.which, version=self.version)
        if status == ALREADY_THERE:
            bench.ledger.end_store(uids_of(*self.which))
        return status in (SUCCESS, ALREADY_THERE)


class Delete:
    """Healed by deleting until nothing is left to delete, and by storing anew what was deleted."""
    in_listener = False

    def __init__(self, *what, again):
        self.what, self.again = what, again

    def run(self, bench, arm):
        with client(bench.server) as association:
            arm()
            bench.delete(association, *self.what)

    def heal(self, bench):
        with client(bench.server) as association:
            # A record without its file fails once more, and goes.
            if (SUCCESS, 0) not in (bench.delete(association, *self.what) for _ in range(3)):
                return False
        return Store(*self.again).heal(bench)


class Compaction:
    """Runs in the listener while it is idle; healed by the next one and a new study."""
    in_listener = True

    def run(self, bench, arm):
        bench.server.wait_until_idle()
        arm()
        with contextlib.suppress(ConnectionError):
            harness.let_pass(61, bench.server, bench.faults.clock)
            bench.faults.wait_for_calls()

    def heal(self, bench):
        self.run(bench, lambda: bench.faults.arm(0, FAIL))
        bench.faults.disarm()
        with client(bench.server) as association:
            return bench.store(association, 5, 1, 1) == SUCCESS


class MapSave:
    """The listener learns a peer; healed by hearing of it again, and of another."""
    in_listener = True
    LEARNED = ["hostA\tNEW\ta:1\tF\n", "hostB\tOTHER\tb:1\tF\n"]
    NEW, OTHER = b"hostA 1 CONFIG ADD_AET NEW a:1 F\n", b"hostB 1 CONFIG ADD_AET OTHER b:1 F\n"

    def run(self, bench, arm):
        faults.stop(bench.server)  # for it remembers whom it has learned
        bench.server.map_file.write_text(bench.map_text)
        bench.server.start()
        arm()
        self.tell(bench, self.NEW)
        bench.faults.wait_for_calls()

    def heal(self, bench):
        self.tell(bench, self.NEW, self.OTHER)
        bench.server.turn()
        return bench.server.map_file.read_text() == bench.map_text + "".join(self.LEARNED)

    @staticmethod
    def tell(bench, *messages):
        with harness.Monitor(bench.server.port) as monitor:
            for message in messages:
                monitor.say(message)
        harness.let_pass(6, bench.server, bench.faults.clock)


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
    with faults.memory_folder() as folder, Provider("DEST") as provider:
        servers = harness.Servers(folder)
        yield Bench(servers, folder, provider)
        servers.close()


def strike(bench, scenario, action, nth):
    """(number of calls, what was hit, what is wrong then, what still is when healed)"""
    (kind, error, kinds), ended = action, None
    kills = kind in (KILL_BEFORE, KILL_AFTER)
    bench.restore()
    try:
        scenario.run(bench, lambda: bench.faults.arm(nth, kind, error, kinds))
    except GONE as end:
        ended = end
    count, struck = bench.faults.count, bench.faults.disarm()
    found = [] if ended is None or kills else [f"{ended!r}"]
    if struck and kills and scenario.in_listener:
        bench.server.process.wait(timeout=10)
        bench.server.start()
    bench.server.wait_until_idle()
    found += bench.problems()
    if not scenario.heal(bench):
        found.append("cannot be healed")
    return count, struck, found, bench.problems()


@pytest.mark.parametrize("action", ACTIONS)
@pytest.mark.parametrize("scenario", SCENARIOS)
def test_every_call_may_fail_or_be_the_last(bench, scenario, action, capsys):
    draw, wrong = random.Random(f"{SEED} {scenario} {action}"), []
    count, _, *found = strike(bench, SCENARIOS[scenario], ACTIONS[action], 0)
    assert found == [[], []], "without any fault"
    points = sorted(draw.sample(range(1, count + 1), min(count, MOST_POINTS)))
    for nth in points:
        _, struck, found, unhealed = strike(bench, SCENARIOS[scenario], ACTIONS[action], nth)
        wrong += [f"{nth} {struck}: {each}" for each in found]
        wrong += [f"{nth} {struck}, healed: {each}" for each in unhealed]
    with capsys.disabled():
        print(f" {len(points)} of {count}", end="")
    assert not wrong, f"TARVO_TEST_SEED={SEED}\n" + "\n".join(wrong)
