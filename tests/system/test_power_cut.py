"""What has been synced when a Success leaves, and what a power cut at any moment leaves behind.

One server runs under the shim; its trace is played into the model of power_cut.py as often as
needed. TARVO_SLOW=1 cuts the power at 100 points, and at each step of a compaction.
"""
import json
import os
import random
import threading
import time

import pytest

import faults
import harness
from archive_checker import KEYS, Ledger, picture, problems
from data_set import parse
from power_cut import Answers, Disk, File
from query_retrieve import DELETE, SUCCESS, client, identifier, move
from storage_provider import Provider
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE

SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
CUTS = 100 if os.environ.get("TARVO_SLOW") else 10
ROUND = 40  # images of each storer


def uids_of(study, series=0, number=0):
    return f"1.{study}", f"1.{study}.{series}", f"1.{study}.{series}.{number}"


class Traced:
    """A server whose calls are recorded, and clients that note what they are about to do."""

    def __init__(self, servers, folder, **environment):
        self.studies = 0
        self.server, self.faults = faults.server_with_faults(servers, folder)
        self.server.environment |= environment
        self.server.start()
        self.faults.record(True)

    def store(self, association, version, *which):
        self.faults.mark(json.dumps(["store", version, *which]))
        uids = uids_of(*which)
        data = picture(uids, version, 3000)
        assert association.store(data, SECONDARY_CAPTURE, uids[2]) == SUCCESS

    def delete(self, *prefix):
        """In an association, hence a process, of its own: a delete need not be safe."""
        self.faults.mark(json.dumps(["delete", *prefix]))
        names = dict(zip(KEYS, uids_of(*prefix)[:len(prefix)]))
        with client(self.server) as association:
            move(association, DELETE, identifier("STUDY", **names))

    def storer(self, name, errors):
        """Images of its own in studies that all share; some of them twice, some deleted."""
        draw = random.Random(f"{SEED} {name}")
        try:
            for number in range(ROUND):
                which = draw.randrange(4), draw.randrange(2), 1000 * name + number
                with client(self.server, called="TarvoOverwrite") as association:
                    self.store(association, 1, *which)
                    if draw.random() < 0.3:
                        self.store(association, 2, *which)
                if draw.random() < 0.3:
                    self.delete(*which)
        except BaseException as error:
            errors.append(repr(error))

    def run_storers(self, *names):
        errors = []
        storers = [threading.Thread(target=self.storer, args=(name, errors)) for name in names]
        for storer in storers:
            storer.start()
        for storer in storers:
            storer.join(120)
        assert not errors, errors

    def compact(self):
        self.server.wait_until_idle()
        self.faults.arm(0, faults.FAIL)  # to see when it is through
        self.faults.mark(json.dumps(["compaction begins"]))
        harness.let_pass(61, self.server, self.faults.clock)
        self.faults.wait_for_calls()
        self.faults.mark(json.dumps(["compaction ends"]))
        self.faults.disarm()

    def overtake(self, nth, others):
        """The first image of a series stops before its nth sync, and is overtaken by others.

        Returns whether there was an nth.
        """
        self.studies += 1
        study = 100 + self.studies
        with client(self.server) as first, client(self.server) as second:
            if others == "delete":
                self.store(second, 1, study, 3, 1)
            self.faults.arm(nth, faults.PAUSE, kinds=["sync"])
            behind = threading.Thread(target=self.store, args=(first, 1, study, 1, 1))
            behind.start()
            harness.wait_until(lambda: self.faults.has_fired or not behind.is_alive())
            if not self.faults.has_fired:
                self.faults.disarm()
                return False
            if others == "delete":
                self.delete(study, 3)
            else:
                self.store(second, 1, study, 2, 1)
                self.store(second, 1, study, 1, 2)
            self.faults.disarm()
            behind.join(10)
        return True


class Replay:
    """The disk and the ledger after each call of a trace."""

    def __init__(self, store, calls):
        self.disk, self.ledger, self.answers, self.calls = Disk(store), Ledger(), Answers(), calls
        self.data = {}    # SOP Instance UID: (uids, data) of the version sent last
        self.moment = ""  # between which marks

    def steps(self):
        """After each call (its number, itself, the SOP Instance UIDs whose Success it sends)."""
        for number, call in enumerate(self.calls):
            stored = []
            if call.kind == "mark":
                self._note(*json.loads(call.data))
            elif call.kind == "send":
                stored = self.answers.stored(call)
                for instance in stored:
                    self.ledger.end_store(self.data[instance][0])
            else:
                self.disk.perform(call)
            yield number, call, stored

    def _note(self, what, *which):
        self.moment = what
        if what == "store":
            uids = uids_of(*which[1:])
            data = picture(uids, which[0], 3000)
            self.data[uids[2]] = uids, data
            self.ledger.begin_store(uids, data)
        elif what == "delete":
            self.ledger.begin_delete(*uids_of(*which)[:len(which)])


@pytest.fixture(scope="module")
def trace():
    """(store, calls) of a life with everything in it."""
    with faults.memory_folder() as folder:
        servers = harness.Servers(folder)
        traced = Traced(servers, folder)
        traced.run_storers(1, 2)
        with client(traced.server) as association:
            traced.store(association, 1, 9, 1, 1)
        for study in (0, 2):
            traced.delete(study)
        traced.compact()
        traced.run_storers(3, 4)
        for others in ("stores", "delete"):
            assert any(not traced.overtake(nth, others) for nth in range(1, 40))
        servers.close()
        yield traced.server.store, list(traced.faults.calls())


def test_the_trace_tells_everything(trace):
    replay = Replay(*trace)
    for _ in replay.steps():
        pass
    files = {path[1:]: bytes(item.now) for path, item in replay.disk.walk()
             if isinstance(item, File)}
    assert files == {str(path.relative_to(trace[0])): path.read_bytes()
                     for path in trace[0].rglob("*") if path.is_file()}


def test_all_is_synced_before_a_success_leaves(trace, capsys):
    replay, wrong, count = Replay(*trace), [], 0
    for number, call, stored in replay.steps():
        for instance in stored:
            count += 1
            wrong += [f"{number}: {instance}: {path} is changed and not synced"
                      for path in replay.disk.unsynced(call.process)]
            if not replay.disk.is_safe(parse(replay.data[instance][1], EXPLICIT_LE)):
                wrong.append(f"{number}: {instance} could be lost")
    with capsys.disabled():
        print(f" {count} answers among {len(trace[1])} calls", end="")
    assert count > 2 * ROUND
    assert not wrong, "\n".join(wrong[:40])


def cut_points(calls):
    """Those of everyday life, and in the steps of the compaction."""
    draw, points, phase = random.Random(SEED), {"else": [], "compaction begins": []}, "else"
    for number, call in enumerate(calls):
        if call.kind == "mark":
            phase = json.loads(call.data)[0]
        points["compaction begins" if phase == "compaction begins" else "else"].append(number)
    steps = points["compaction begins"]
    return {*draw.sample(points["else"], CUTS), *draw.sample(steps, min(CUTS // 3, len(steps)))}


def test_a_power_cut_leaves_every_stored_image(trace, tmp_path, capsys):
    points, draw, wrong = cut_points(trace[1]), random.Random(SEED), []
    replay = Replay(*trace)
    with Provider("DEST") as provider:
        for number, call, _ in replay.steps():
            if number in points:
                merciless = draw.random() < 0.5
                found = cut(replay, None if merciless else draw, tmp_path / f"{number}", provider)
                wrong += [f"{number} ({replay.moment}, {call.kind}, merciless: {merciless}): {each}"
                          for each in found]
    with capsys.disabled():
        print(f" {len(points)} cuts", end="")
    assert len(replay.ledger.certain()) > ROUND
    assert not wrong, f"TARVO_TEST_SEED={SEED}\n" + "\n".join(wrong[:60])


def cut(replay, draw, folder, provider):
    """What is wrong with the archive after a power cut, and after it has been used again."""
    replay.disk.write_survivors(folder, draw)
    servers = harness.Servers(folder.with_suffix(".server"))
    try:
        server, ledger = servers(store=folder, peers=provider.map_line), Ledger(replay.ledger)
        found = problems(server, ledger, provider, strict=False)
        with client(server, called="TarvoOverwrite") as association:
            for uids in sorted(set(replay.ledger.images) - replay.ledger.certain())[-3:]:
                if ledger.store(association, uids, ledger.images[uids].versions[-1]) != SUCCESS:
                    found.append(f"{uids} cannot be sent again")
        return found + [f"{each}, after storing again" for each in
                        problems(server, ledger, provider, strict=False)]
    finally:
        servers.close()


def test_without_syncing_nothing_is_waited_for(servers, tmp_path):
    traced = Traced(servers, tmp_path, TARVO_SYNC="off")
    for number in range(2):
        with client(traced.server) as association:
            traced.store(association, 1, 1, 1, number)
    kinds = {call.kind for call in traced.faults.calls()}
    assert "write" in kinds and not kinds & {"sync", "start sync"}
    traced.server.stop()
    assert len([line for line in traced.server.messages() if "TARVO_SYNC" in line]) == 1
