"""Moves to TarvoDeleteAET: what goes from the disk, byte for byte, and what stays."""
import fcntl
import os
import random
import select
import threading
import time

import pytest

import archive
import harness
from archive_checker import picture, uids_of
from faults import PAUSE, Faults
from upper_layer import (DELETE, STATUS, SUCCESS, WITH_FAILURES, Counters, Moved, query_for,
                         store_request, uid_of)

ALL = [(study, series, number) for study in range(4) for series in range(2) for number in range(3)]


@pytest.fixture
def shelf():
    return archive.Archive()


def made(*which):
    return picture(uids_of(*which), SeriesDescription=f"{which[1]}", InstanceNumber=f"{which[2]}")


def put(association, shelf, *which):
    data = made(*which)
    assert association.store(data) == SUCCESS
    shelf.store(data)


def delete(association, *which, level="STUDY"):
    return association.move(DELETE, query_for(level, *uids_of(*which)[:len(which)]))


def test_random_deletes_and_stores_leave_the_disk_as_the_model_has_it(servers, shelf):
    """The patient links alone stay for ever."""
    server, linked = servers("-s"), {ALL[0]}
    draw, present = random.Random(harness.SEED), {ALL[0]}
    with server.client(called="TarvoOverwrite") as association:
        put(association, shelf, *ALL[0])
        for _ in range(150):
            which = draw.choice(ALL)
            if draw.random() < 0.7:
                put(association, shelf, *which)
                present.add(which)
                linked.add(which)
                continue
            depth = draw.randint(1, 3)
            deleted = [each for each in present if each[:depth] == which[:depth]]
            level = draw.choice(["STUDY", "SERIES", "IMAGE"])  # only the UIDs count
            steps = [Counters(done) for done in range(1, len(deleted) + 1)]
            moved = delete(association, *which[:depth], level=level)
            assert moved == Moved(SUCCESS, Counters(len(deleted)), steps)
            for each in deleted:
                shelf.delete(*uids_of(*each))
                present.remove(each)
            shelf.check(server.store)
        status, answers = association.find(query_for("STUDY", ""))
    assert status == SUCCESS and len(answers) == len({which[0] for which in present})
    links = [path for path in (server.store / "patient").rglob("*") if path.is_symlink()]
    assert len(links) == len(linked)


def test_an_image_whose_file_is_gone_fails_and_loses_its_record(server, shelf):
    with server.client() as association:
        for number in range(2):
            put(association, shelf, 0, 0, number)
        path = server.store / archive.image_path(picture(uids_of(0, 0, 0)))
        path.unlink()
        assert delete(association, 0) == Moved(WITH_FAILURES, Counters(1, 1),
                                               [Counters(0, 1), Counters(1, 1)])
    assert "Request to delete image ... result: -1" in server.messages()
    assert f"MOVE/STORE:File: {path} AET: {DELETE}" in server.messages()
    for number in range(2):
        shelf.delete(*uids_of(0, 0, number))
    shelf.check(server.store)


@pytest.mark.parametrize("kind", ["strange file", "scratch file", "scratch folder"])
def test_what_stands_in_the_way_of_a_delete(server, shelf, kind):
    """A folder with a strange file stays, and the image counts as failed. What a killed delete left
    under the name of its scratch file is in nobody's way."""
    with server.client() as association:
        put(association, shelf, 0, 0, 0)
        folder = server.store / archive.study_folder(b"1.0")
        strange = folder / "notes.txt" if kind == "strange file" else folder.parent / "DELETEME"
        if kind == "scratch folder":
            os.makedirs(strange / "x")
        else:
            strange.write_text("not ours")
        failed = kind == "strange file"
        counters = Counters(0, 1) if failed else Counters(1)
        assert delete(association, 0) == Moved(WITH_FAILURES if failed else SUCCESS, counters,
                                               [counters])
    assert list(folder.rglob("*")) == ([strange] if failed else [])
    assert strange.is_file() == failed
    assert (f"Del SERIES rmdir {folder} failed" in server.messages()) == failed


@pytest.mark.parametrize("lives_on", [True, False])
def test_an_image_that_is_deleted_while_it_comes_again_stays_found(servers, shelf, lives_on):
    """The delete comes between the image's record and its file. It is over when the file gets its
    name, or, with the series to go as well, still has the record to blank."""
    server = servers.make(moves_clock=True)
    faults = Faults(server)
    server.start()
    uids = uids_of(0, 0, 0)
    with server.client(called="TarvoOverwrite") as storer, server.client() as deleter:
        for number in range(1 + lives_on):
            put(storer, shelf, 0, 0, number)
        time.sleep(0.05)  # now it is certain that nobody else is at the files
        faults.arm(1, PAUSE, kinds=["rename"])
        data = made(0, 0, 0)
        storer.send(storer.by_class[data.sop_class], store_request(data), data)
        harness.wait_until(lambda: faults.has_fired, what="the new file")
        deleting = threading.Thread(target=delete, args=(deleter, 0, 0, 0))
        index = server.store / archive.study_folder(b"1.0") / "SERIESINDEX.dat"
        with index.open("r+b") as series:
            if not lives_on:
                harness.lock(series)
            deleting.start()
            harness.wait_until(lambda: waiting(server) == 1 or not deleting.is_alive())
            faults.disarm()
            harness.wait_until(lambda: waiting(server) == 2 or select.select([storer.socket],
                                                                             [], [], 0)[0])
        deleting.join(10)
        assert storer.receive()[0][STATUS] == SUCCESS
        for depth, level in enumerate(["STUDY", "SERIES", "IMAGE"], 1):
            assert len(storer.find(query_for(level, *uids[:depth]))[1]) == 1, level


def waiting(server):
    return sum(map(harness.is_waiting_for_a_lock, server.workers()))


def test_the_idle_check_compacts_the_study_files_in_order(servers, shelf):
    server = servers(moves_clock=True)
    with server.client() as association:
        for study in range(6):
            put(association, shelf, study, 0, 0)
        for study in (1, 2, 5):
            assert delete(association, study).final == Counters(1)
            shelf.delete(*uids_of(study, 0, 0))
    server.wait_until_idle()
    with (server.store / "uid/STUDYINDEX.hash").open("rb") as reader:
        harness.lock(reader, fcntl.LOCK_SH)
        server.let_pass(61)
        time.sleep(0.3)
        shelf.check(server.store)  # nothing is moved under the eyes of a reader
    shelf.compact()
    expected = shelf.index_files()
    assert len(expected["uid/STUDYINDEX.dat"]) == 3 * 512
    server.let_pass(61)
    for path, content in expected.items():
        harness.wait_until(lambda: (server.store / path).read_bytes() == content, what=path)
    with server.client() as association:
        put(association, shelf, 1, 0, 0)
        shelf.check(server.store)
        status, answers = association.find(query_for("STUDY", ""))
        found = [uid_of(answer, archive.STUDY_UID) for answer in answers]
        assert status == SUCCESS and found == ["1.1", "1.4", "1.3", "1.0"]
        for study in (0, 1, 3, 4):
            assert delete(association, study).final == Counters(1)
    server.wait_until_idle()
    server.let_pass(61)
    for name in ("STUDYINDEX.hash", "STUDYINDEX.dat"):
        harness.wait_until(lambda: (server.store / "uid" / name).stat().st_size == 0, what=name)
