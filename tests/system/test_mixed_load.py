"""Storing, finding and deleting at once: nothing that was taken is lost, nothing deleted is left.

Studies and series are small and shared, so that a delete again and again empties a series while
somebody stores into it.
"""
import collections
import itertools
import os
import random
import threading
import time

import pytest

from archive_checker import KEYS, Entry, Ledger, picture, problems
from query_retrieve import DELETE, SUCCESS, client, find, identifier, move
from storage_provider import Provider
from upper_layer import SECONDARY_CAPTURE

NO_RESOURCES = 0xA700
SECONDS = float(os.environ.get("TARVO_LOAD_SECONDS", 5))
SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
CROWDED = "1.3"  # the study of which single images only are deleted
STEADY = [("2.1", "2.1.1", f"2.1.1.{number}") for number in range(5)]  # nobody touches these
STEADY_QUERIES = [("STUDY", {"PatientName": "name^2.1*", "StudyInstanceUID": ""}, 1),
                  ("SERIES", {"StudyInstanceUID": "2.1", "SeriesInstanceUID": ""}, 1),
                  ("IMAGE", {"StudyInstanceUID": "2.1", "SOPInstanceUID": ""}, 5)]


class Load:
    """The clients; each is a thread with an association of its own, until the time is up or one
    of them fails. Notes what was asked and answered when; nobody stores an image twice."""

    def __init__(self, first, second):
        self.errors, self.stop = [], time.monotonic() + SECONDS
        self.sent, self.stored = {}, {}  # by UIDs: the data set; (begin, end) of a Success
        self.deletes = collections.defaultdict(list)  # by UIDs named: (begin, end) of each
        self.numbers, self.queries = itertools.count(), 0
        self.clients = [(first, self.store), (second, self.store), (first, self.find),
                        (second, self.delete)]

    def run(self):
        threads = [threading.Thread(target=self._guarded, args=(*each, SEED + number))
                   for number, each in enumerate(self.clients)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(SECONDS + 60)
        assert not self.errors, self.errors

    def _guarded(self, server, work, seed):
        try:
            draw = random.Random(seed)
            while time.monotonic() < self.stop and not self.errors:
                # A new association now and then: workers begin with what the files hold.
                with client(server) as association:
                    for _ in range(draw.randint(1, 60)):
                        if time.monotonic() < self.stop:
                            work(association, draw)
        except BaseException as error:
            self.errors.append(repr(error))

    def store(self, association, draw):
        study = f"1.{draw.randrange(4)}"
        series = f"{study}.{draw.randrange(2)}"
        self.store_as((study, series, f"{series}.{next(self.numbers)}"), association)

    def store_as(self, uids, association):
        """One that finds its folder gone under its hands may fail, but must say so."""
        begin, self.sent[uids] = time.monotonic(), picture(uids)
        status = association.store(self.sent[uids], SECONDARY_CAPTURE, uids[2])
        assert status in (SUCCESS, NO_RESOURCES), f"{uids}: {status:04X}"
        if status == SUCCESS:
            self.stored[uids] = begin, time.monotonic()

    def delete(self, association, draw):
        recent = [uids for uids in list(self.stored)[-40:] if uids not in STEADY]
        if not recent:
            return
        uids = draw.choice(recent)
        named = uids if uids[0] == CROWDED else uids[:draw.choice([1, 2, 2, 3, 3, 3, 3, 3])]
        begin = time.monotonic()
        # An image that is being stored has a record before it has a file: its delete may fail.
        move(association, DELETE, identifier("IMAGE", **dict(zip(KEYS, named))))
        self.deletes[named].append((begin, time.monotonic()))

    def find(self, association, draw):
        level, keys, count = draw.choice(STEADY_QUERIES)
        status, answers = find(association, identifier(level, **keys))
        assert status == SUCCESS and len(answers) == count, (level, answers)
        study = f"1.{draw.randrange(4)}"
        for level in ("STUDY", "SERIES", "IMAGE"):
            query = identifier(level, StudyInstanceUID=study, SeriesInstanceUID=f"{study}.0")
            assert find(association, query)[0] == SUCCESS
        self.queries += 1

    def ledger(self):
        """What must be there and what must not; a delete beside its store leaves that open."""
        ledger = Ledger()
        for uids, data in self.sent.items():
            entry = ledger.images[uids] = Entry()
            entry.versions = [data]
            begin, end = self.stored.get(uids, (0, float("inf")))
            later = [started for depth in (1, 2, 3) for started, ended in self.deletes[uids[:depth]]
                     if ended > begin]
            entry.is_certain = uids in self.stored and not later
            entry.is_gone = uids in self.stored and max(later, default=0) > end
        return ledger


@pytest.mark.parametrize("several", [False, True], ids=["one server", "two servers"])
def test_nothing_is_lost_and_nothing_comes_back(servers, several, capsys):
    with Provider("DEST") as provider:
        server = servers(peers=provider.map_line)
        load = Load(server, servers(store=server.store) if several else server)
        with client(server) as association:
            for uids in STEADY:
                load.store_as(uids, association)
        load.run()
        ledger = load.ledger()
        numbers = [len(load.sent), len(load.stored), len(ledger.certain()), len(ledger.gone())]
        with capsys.disabled():
            print(f" TARVO_TEST_SEED={SEED} sent, stored, kept, gone: {numbers}", end="")
        assert min(*numbers, load.queries) > 5 and numbers[1] > numbers[0] * 0.95
        found = problems(server, ledger, provider)
    assert not found, "\n".join(found[:40])
