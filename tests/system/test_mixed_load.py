"""Storing, finding and deleting at once: nothing that was taken is lost, nothing deleted is left.

Studies and series are small and shared, so that a delete again and again empties a series while
somebody stores into it.
"""
import collections
import os
import random
import threading
import time

import pytest

from data_set import SOP_UID, STUDY_UID, image, parse
from query_retrieve import DELETE, SUCCESS, client, find, identifier, move
from storage_provider import Provider
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, SOP_INSTANCE

NO_RESOURCES = 0xA700
SECONDS = float(os.environ.get("TARVO_LOAD_SECONDS", 5))
SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
STUDIES, SERIES = 4, 2
CROWDED = "1.3"  # the study of which single images only are deleted
KEYS = ("StudyInstanceUID", "SeriesInstanceUID", "SOPInstanceUID")


def place_of(study, series):
    return f"1.{study}", f"1.{study}.{series}"


def pixels_of(instance):
    return instance.encode().ljust(64, b".") * 8


class Ledger:
    """What was asked and answered when. Nobody stores an image twice."""

    def __init__(self):
        self.lock = threading.Lock()
        self.stored = {}    # (study, series, image): (begin, end) of a C-STORE with Success
        self.deletes = collections.defaultdict(list)  # the UIDs named: (begin, end) of each
        self.operations = collections.Counter()

    def note_store(self, uids, begin, status):
        """A store that finds its folder gone under its hands may fail, but must say so."""
        assert status in (SUCCESS, NO_RESOURCES), f"{uids}: {status:04X}"
        with self.lock:
            self.operations["stored" if status == SUCCESS else "refused"] += 1
            if status == SUCCESS:
                self.stored[uids] = begin, time.monotonic()

    def note_delete(self, named, begin, counters):
        with self.lock:
            self.deletes[named].append((begin, time.monotonic()))
            self.operations["deleted"] += counters.completed
            self.operations["not deleted"] += counters.failed

    def choose(self, draw):
        with self.lock:
            return draw.choice(list(self.stored)[-40:]) if self.stored else None

    def fate(self, uids):
        """"kept", "gone", or "open" when a delete of its place ran beside the store."""
        begin, end = self.stored[uids]
        later = [started for depth in (1, 2, 3) for started, ended in self.deletes[uids[:depth]]
                 if ended > begin]
        if not later:
            return "kept"
        return "gone" if max(later) > end else "open"


class Load:
    """The clients; each is a thread with an association of its own, until the time is up or one
    of them fails."""

    def __init__(self, first, second):
        self.ledger, self.errors = Ledger(), []
        self.stop = time.monotonic() + SECONDS
        self.clients = [(first, self.storer(1)), (second, self.storer(2)), (first, self.finder),
                        (second, self.deleter)]

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

    def storer(self, name):
        numbers = iter(range(1_000_000))

        def work(association, draw):
            study, series = place_of(draw.randrange(STUDIES), draw.randrange(SERIES))
            instance = f"{series}.{name}.{next(numbers)}"
            data = image(study, series, instance, pixels_of(instance), PatientName=f"Load^{study}",
                         Modality=draw.choice(["CT", "MR"]))
            begin = time.monotonic()
            status = association.store(data, SECONDARY_CAPTURE, instance)
            self.ledger.note_store((study, series, instance), begin, status)
        return work

    def deleter(self, association, draw):
        uids = self.ledger.choose(draw)
        if uids is None:
            return
        named = uids if uids[0] == CROWDED else uids[:draw.choice([1, 2, 2, 3, 3, 3, 3, 3])]
        begin = time.monotonic()
        moved = move(association, DELETE, identifier("IMAGE", **dict(zip(KEYS, named))))
        # An image that is being stored has a record before it has a file: its delete may fail.
        self.ledger.note_delete(named, begin, moved.final)

    def finder(self, association, draw):
        """Whatever else is found or not: the study that nobody touches is found whole."""
        level, keys, count = draw.choice([
            ("STUDY", {"PatientName": "Steady*", "StudyInstanceUID": ""}, 1),
            ("SERIES", {"StudyInstanceUID": "2.1", "SeriesInstanceUID": ""}, 1),
            ("IMAGE", {"StudyInstanceUID": "2.1", "SOPInstanceUID": ""}, 5)])
        status, answers = find(association, identifier(level, **keys))
        assert status == SUCCESS and len(answers) == count, (level, answers)
        study, series = place_of(draw.randrange(STUDIES), draw.randrange(SERIES))
        for level in ("STUDY", "SERIES", "IMAGE"):
            query = identifier(level, StudyInstanceUID=study, SeriesInstanceUID=series)
            assert find(association, query)[0] == SUCCESS
        self.ledger.operations["queries"] += 4


def store_steady_study(server):
    with client(server) as association:
        for number in range(5):
            instance = f"2.1.1.{number}"
            data = image("2.1", "2.1.1", instance, pixels_of(instance), PatientName="Steady^One")
            assert association.store(data, SECONDARY_CAPTURE, instance) == SUCCESS


def found_at_every_level(association):
    """{(study, series, image)} as a walk down from the study level finds them."""
    def below(level, wanted, **keys):
        status, answers = find(association, identifier(level, **{wanted: "", **keys}))
        assert status == SUCCESS
        return [answer[tag].value.rstrip(b"\0").decode() for answer in answers
                for tag in ({"STUDY": STUDY_UID, "SERIES": (0x20, 0xE), "IMAGE": SOP_UID}[level],)]

    found = []
    for study in below("STUDY", KEYS[0]):
        for series in below("SERIES", KEYS[1], StudyInstanceUID=study):
            found += [(study, series, instance) for instance in
                      below("IMAGE", KEYS[2], StudyInstanceUID=study, SeriesInstanceUID=series)]
    assert len(found) == len(set(found)), "something is found twice"
    return {uids for uids in found if uids[0] != "2.1"}


def files_on_disk(server):
    return {(study.name[6:], series.name[7:], path.name[6:-4])
            for study in server.store.glob("uid/*/*/study_*") if study.name != "study_2.1"
            for series in study.iterdir() if series.is_dir() for path in series.glob("image_*")}


def retrieved(association, provider, studies):
    """The SOP Instance UIDs of everything that can be retrieved, with its pixels checked."""
    for study in sorted(studies):
        moved = move(association, "DEST", identifier("STUDY", StudyInstanceUID=study))
        assert moved.status == SUCCESS and moved.final.failed == 0
    for received in provider.received:
        pixels = parse(received.data, EXPLICIT_LE)[0x7FE0, 0x10].value
        assert pixels == pixels_of(received.fields[SOP_INSTANCE])
    return {received.fields[SOP_INSTANCE] for received in provider.received}


@pytest.mark.parametrize("several", [False, True], ids=["one server", "two servers"])
def test_nothing_is_lost_and_nothing_comes_back(servers, several, capsys):
    with Provider("DEST") as provider:
        server = servers(peers=provider.map_line)
        store_steady_study(server)
        load = Load(server, servers(store=server.store) if several else server)
        load.run()
        with capsys.disabled():
            print(f" TARVO_TEST_SEED={SEED} {dict(load.ledger.operations)}", end="")
        check_everything(server, load.ledger, provider)


def check_everything(server, ledger, provider):
    fates = {uids: ledger.fate(uids) for uids in ledger.stored}
    kept = {uids for uids, fate in fates.items() if fate == "kept"}
    gone = {uids for uids, fate in fates.items() if fate == "gone"}
    assert min(len(kept), len(gone), ledger.operations["queries"]) > 5, ledger.operations
    with client(server) as association:
        found = found_at_every_level(association)
        arrived = retrieved(association, provider, {study for study, _, _ in found})
    assert not kept - found, "taken, not deleted, and not found"
    assert not gone & found, "deleted, and found"
    assert ledger.operations["refused"] < ledger.operations["stored"] / 20, ledger.operations
    assert files_on_disk(server) == found, "files without records, or records without files"
    assert arrived == {instance for _, _, instance in found}
