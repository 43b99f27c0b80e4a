"""Storing, finding and deleting at once, also under kills: nothing that was taken is lost, nothing
deleted is left.

TARVO_LOAD_SECONDS tells for how long; TARVO_SLOW=1 kills 500 times instead of 25.
"""
import collections
import contextlib
import itertools
import multiprocessing
import os
import random
import signal
import threading
import time

import pytest

import harness
from archive_checker import Ledger, picture, problems
from harness import SEED
from upper_layer import GONE, NO_RESOURCES, SUCCESS, Association, query_for

SENDERS = 8
# name: (images of each sender, study of an image)
LAYOUTS = {
    "one series": (300, lambda sender, number: "1.2.840.1"),
    "eight studies": (300, lambda sender, number: f"1.2.840.{sender + 1}"),
    "a study for each image": (75, lambda sender, number: f"1.2.840.{sender + 1}.{number}"),
}


def images_of(sender, layout):
    count, study_of = LAYOUTS[layout]
    return [picture((study_of(sender, number), study_of(sender, number) + ".5",
                     f"1.2.840.9.{sender}.{number}")) for number in range(count)]


def send(port, sender, layout):
    """Runs in a process of its own, so that the senders do not take turns."""
    with Association(port, patience=100) as association:
        # The echo between two images makes a line in the log of each.
        return [association.store(image) + association.echo()
                for image in images_of(sender, layout)]


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("server_count", [1, 2])
def test_every_image_has_one_record_at_each_level(servers, provider, layout, server_count):
    first = servers(provider=provider)
    ports = [first.port, servers(store=first.store).port if server_count == 2 else first.port]
    with multiprocessing.get_context("fork").Pool(SENDERS) as pool:
        calls = [(ports[sender % 2], sender, layout) for sender in range(SENDERS)]
        statuses = sum(pool.starmap(send, calls, chunksize=1), [])
    assert statuses == [SUCCESS] * (SENDERS * LAYOUTS[layout][0])
    ledger = Ledger()
    for image in itertools.chain(*(images_of(sender, layout) for sender in range(SENDERS))):
        ledger.begin_store(image)
        ledger.end_store(image.uids)
    found = problems(first, ledger, provider)
    assert not found, "\n".join(found[:40])


# ---- everything at once ----

SECONDS = float(os.environ.get("TARVO_LOAD_SECONDS", 5))
KILLS = 500 if harness.SLOW else 25
CROWDED = "1.3"  # the study of which single images only are deleted
STEADY = [("2.1", "2.1.1", f"2.1.1.{number}") for number in range(5)]  # nobody touches these


class Load:
    """Clients, each a thread with one association after the other: workers begin with what the
    files hold. Studies and series are small and shared, so that a delete again and again empties a
    series while somebody stores into it."""

    def __init__(self, first, second, tolerated=()):
        self.tolerated, self.ledger, self.done, self.errors = tolerated, Ledger(), False, []
        self.numbers, self.recent = itertools.count(), collections.deque(maxlen=40)
        self.progress = collections.Counter()
        self.threads = [threading.Thread(target=self._serve, args=each) for each in (
            (first, self.store), (second, self.store), (first, self.find), (second, self.delete))]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.done = True
        for thread in self.threads:
            thread.join(60)
        assert not self.errors, self.errors

    def _serve(self, server, work):
        name = threading.current_thread().name
        draw = random.Random(f"{SEED} {name}")
        try:
            while not self.done:
                with contextlib.suppress(*self.tolerated), \
                        server.client(called="TarvoOverwrite") as association:
                    for _ in range(draw.randint(1, 60)):
                        if not self.done:
                            work(association, draw)
                            self.progress[name] += 1
        except BaseException as error:
            self.errors.append(repr(error))
            self.done = True

    def store(self, association, draw):
        """A new image, now and then in a study of its own, or an image again."""
        number = next(self.numbers)
        study = f"3.{number}" if draw.random() < 0.05 else f"1.{draw.randrange(4)}"
        series = f"{study}.{draw.randrange(2)}"
        uids = study, series, f"{series}.{number}"
        if draw.random() < 0.15 and self.recent:
            uids = self.recent[0]
        image = picture(uids, draw.randrange(1000), draw.choice([300] * 9 + [600_000]))
        status = self.ledger.store(association, image)
        # One that finds its folder gone under its hands again and again may fail.
        assert status in (SUCCESS, NO_RESOURCES), f"{uids}: {status:04X}"
        if status == SUCCESS:
            self.recent.append(uids)

    def delete(self, association, draw):
        if self.recent:
            uids = draw.choice(list(self.recent))
            depth = 3 if uids[0] == CROWDED else draw.choice([1, 2, 2, 3, 3, 3, 3, 3])
            # An image that is being stored has a record before it has a file: this may fail.
            self.ledger.delete(association, *uids[:depth])

    def find(self, association, draw):
        for above, count in (((), 1), (("2.1",), 1), (("2.1", "2.1.1"), 5)):
            level = ("STUDY", "SERIES", "IMAGE")[len(above)]
            status, answers = association.find(query_for(level, *(above or ("2.1",))))
            assert status == SUCCESS and len(answers) == count, (level, answers)
            study = f"1.{draw.randrange(4)}"
            assert association.find(query_for(level, study, f"{study}.0"))[0] == SUCCESS

    def wait_for_progress(self):
        before = dict(self.progress)
        harness.wait_until(lambda: self.done or all(
            self.progress[name] > count for name, count in before.items()), what="all clients")


def kill(server, load):
    """Kills workers and, one time in six, the listener, which is started again."""
    draw, killed, server.expected_deaths = random.Random(SEED), collections.Counter(), 1 << 20
    deadline = time.monotonic() + 10 + KILLS
    while killed.total() < KILLS and not load.done:
        assert time.monotonic() < deadline
        time.sleep(draw.uniform(0, 0.06))
        workers = server.workers()
        if draw.random() < 1 / 6:
            server.kill()
            server.start()
            killed["listener"] += 1
        elif workers:
            with contextlib.suppress(ProcessLookupError):
                os.kill(draw.choice(workers), signal.SIGKILL)
                killed["worker"] += 1
        if killed.total() % 10 == 0:  # nobody may be stuck
            load.wait_for_progress()
    print(killed)


@pytest.mark.parametrize("kind", ["one server", "two servers", "kills"])
def test_nothing_is_lost_and_nothing_comes_back(servers, provider, kind):
    server = servers(provider=provider)
    second = servers(store=server.store) if kind == "two servers" else server
    load = Load(server, second, GONE if kind == "kills" else ())
    with server.client() as association:
        for uids in STEADY:
            assert load.ledger.store(association, picture(uids)) == SUCCESS
    with load:
        if kind == "kills":
            kill(server, load)
        else:
            threading.Event().wait(SECONDS)
    server.wait_until_idle()
    certain, gone = load.ledger.certain(), load.ledger.gone()
    print(f"sent {len(load.ledger.stores)}, kept {len(certain)}, gone {len(gone)}")
    assert min(len(certain), len(gone), *load.progress.values()) > 5
    stored = [event.ok for events in load.ledger.stores.values() for event in events]
    assert stored.count(True) > len(stored) * (0.5 if kind == "kills" else 0.95)
    found = problems(server, load.ledger, provider)
    assert not found, "\n".join(found[:40])
