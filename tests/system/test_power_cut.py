"""What has been synced when a Success leaves, and what a power cut at any moment leaves behind.

One server runs under the shim; its trace is played into the model of power_cut.py as often as
needed. TARVO_SLOW=1 cuts the power at 100 points, and at each step of a compaction.
"""
import concurrent.futures
import json
import random
import threading

import pytest

import harness
from archive_checker import Ledger, picture, problems, uids_of
from faults import FAIL, PAUSE, Faults, servers_in_memory
from harness import SEED
from power_cut import Answers, Disk, File
from upper_layer import DELETE, SUCCESS, query_for

CUTS = 100 if harness.SLOW else 10
ROUND = 40  # images of each storer


class Traced:
    """A server whose calls are recorded, and clients that note what they are about to do."""

    def __init__(self, servers, **environment):
        self.studies = 0
        self.server = servers.make(moves_clock=True, environment=environment)
        self.faults = Faults(self.server)
        self.server.start()
        self.faults.record()

    def store(self, association, version, *which):
        self.faults.mark(json.dumps(["store", version, *which]))
        assert association.store(picture(uids_of(*which), version, 3000)) == SUCCESS

    def delete(self, *prefix):
        """In an association, hence a process, of its own: a delete need not be safe."""
        self.faults.mark(json.dumps(["delete", *prefix]))
        with self.server.client() as association:
            association.move(DELETE, query_for("STUDY", *uids_of(*prefix)[:len(prefix)]))

    def storer(self, name):
        """Images of its own in studies that all share; some of them twice, some deleted."""
        draw = random.Random(f"{SEED} {name}")
        for number in range(ROUND):
            which = draw.randrange(4), draw.randrange(2), 1000 * name + number
            with self.server.client(called="TarvoOverwrite") as association:
                self.store(association, 1, *which)
                if draw.random() < 0.3:
                    self.store(association, 2, *which)
            if draw.random() < 0.3:
                self.delete(*which)

    def run_storers(self, *names):
        with concurrent.futures.ThreadPoolExecutor() as pool:
            list(pool.map(self.storer, names, timeout=120))

    def compact(self):
        self.server.wait_until_idle()
        self.faults.arm(0, FAIL)  # to see when it is through
        self.faults.mark(json.dumps(["compaction begins"]))
        self.faults.let_pass(61)
        self.faults.mark(json.dumps(["compaction ends"]))
        self.faults.disarm()

    def overtake(self, nth, others):
        """The first image of a series stops before its nth sync, and is overtaken by others.

        Returns whether there was an nth.
        """
        self.studies += 1
        study = 100 + self.studies
        with self.server.client() as first, self.server.client() as second:
            if others == "delete":
                self.store(second, 1, study, 3, 1)
            self.faults.arm(nth, PAUSE, kinds=["sync"])
            behind = threading.Thread(target=self.store, args=(first, 1, study, 1, 1))
            behind.start()
            harness.wait_until(lambda: self.faults.has_fired or not behind.is_alive())
            fired = self.faults.has_fired
            if fired and others == "delete":
                self.delete(study, 3)
            elif fired:
                self.store(second, 1, study, 2, 1)
                self.store(second, 1, study, 1, 2)
            self.faults.disarm()
            behind.join(10)
        return fired


class Replay:
    """The disk and the ledger after each call of a trace."""

    def __init__(self, store, calls):
        self.disk, self.ledger, self.answers, self.calls = Disk(store), Ledger(), Answers(), calls
        self.uids = {}    # of the SOP Instance UIDs that were sent
        self.moment = ""  # between which marks

    def steps(self):
        """After each call (its number, itself, the images whose Success it sends)."""
        for number, call in enumerate(self.calls):
            stored = []
            if call.kind == "mark":
                self._note(*json.loads(call.data))
            elif call.kind == "send":
                stored = [self.uids[instance] for instance in self.answers.stored(call)]
                for uids in stored:
                    self.ledger.end_store(uids)
            else:
                self.disk.perform(call)
            yield number, call, stored

    def _note(self, what, *which):
        self.moment = what
        if what == "store":
            uids = uids_of(*which[1:])
            self.uids[uids[2]] = uids
            self.ledger.begin_store(picture(uids, which[0], 3000))
        elif what == "delete":
            self.ledger.begin_delete(*uids_of(*which)[:len(which)])


@pytest.fixture(scope="module")
def trace():
    """(store, calls) of a life with everything in it."""
    with servers_in_memory() as servers:
        traced = Traced(servers)
        traced.run_storers(1, 2)
        with traced.server.client() as association:
            traced.store(association, 1, 9, 1, 1)
        for study in (0, 2):
            traced.delete(study)
        traced.compact()
        traced.run_storers(3, 4)
        for others in ("stores", "delete"):
            assert any(not traced.overtake(nth, others) for nth in range(1, 40))
        traced.server.stop()
        yield traced.server.store, list(traced.faults.calls())


def test_all_is_synced_before_a_success_leaves(trace):
    """And the trace tells everything: its end is what lies on the disk."""
    replay, wrong, count = Replay(*trace), [], 0
    for number, call, stored in replay.steps():
        for uids in stored:
            count += 1
            wrong += [f"{number}: {uids}: {path} is changed and not synced"
                      for path in replay.disk.unsynced(call.process)]
            if not replay.disk.is_safe(*uids):
                wrong.append(f"{number}: {uids} could be lost")
    print(f"{count} answers among {len(trace[1])} calls")
    assert count > 2 * ROUND
    assert not wrong, "\n".join(wrong[:40])
    files = {path[1:]: bytes(item.now) for path, item in replay.disk.walk()
             if isinstance(item, File)}
    assert files == {str(path.relative_to(trace[0])): path.read_bytes()
                     for path in trace[0].rglob("*") if path.is_file()}


def test_a_power_cut_leaves_every_stored_image(trace, tmp_path, provider):
    draw, replay, wrong = random.Random(SEED), Replay(*trace), []
    notes = [json.loads(call.data)[0] if call.kind == "mark" else "" for call in trace[1]]
    steps = range(notes.index("compaction begins"), notes.index("compaction ends"))
    points = {*draw.sample(sorted({*range(len(notes))} - {*steps}), CUTS),
              *draw.sample(steps, min(CUTS // 3, len(steps)))}
    for number, call, _ in replay.steps():
        if number in points:
            merciless = draw.random() < 0.5
            found = cut(replay, None if merciless else draw, tmp_path / f"{number}", provider)
            wrong += [f"{number} ({replay.moment}, {call.kind}, merciless: {merciless}): {each}"
                      for each in found]
    print(f"{len(points)} cuts")
    assert len(replay.ledger.certain()) > ROUND
    assert not wrong, "\n".join(wrong[:60])


def cut(replay, draw, folder, provider):
    """What is wrong with the archive after a power cut, and after it has been used again."""
    replay.disk.write_survivors(folder, draw)
    servers = harness.Servers(folder.with_suffix(".server"))
    try:
        server, ledger = servers(store=folder, provider=provider), Ledger(replay.ledger)
        found = problems(server, ledger, provider, strict=False)
        with server.client(called="TarvoOverwrite") as association:
            for uids in sorted(ledger.stores.keys() - ledger.certain())[-3:]:
                if ledger.store(association, ledger.stores[uids][-1].data) != SUCCESS:
                    found.append(f"{uids} cannot be sent again")
        return found + [f"{each}, after storing again" for each in
                        problems(server, ledger, provider, strict=False)]
    finally:
        servers.close()


def test_without_syncing_nothing_is_waited_for(servers):
    traced = Traced(servers, TARVO_SYNC="off")
    for number in range(2):
        with traced.server.client() as association:
            traced.store(association, 1, 1, 1, number)
    kinds = {call.kind for call in traced.faults.calls()}
    assert "write" in kinds and not kinds & {"sync", "start sync"}
    traced.server.stop()
    assert len([line for line in traced.server.messages() if "TARVO_SYNC" in line]) == 1
