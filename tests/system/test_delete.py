"""Moves to TarvoDeleteAET: what goes from the disk, byte for byte, and what stays."""
import os
import random
import time

import pytest

import archive
import harness
from archive import field, study_folder
from data_set import image, parse
from query_retrieve import (DELETE, SUCCESS, WITH_FAILURES, Counters, Moved, client, find,
                            identifier, move)
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE

SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
ALL = [(study, series, number) for study in range(4) for series in range(2) for number in range(3)]


class Shelf(archive.Archive):
    """The index files of an archive from which images can be deleted, and its image files."""

    def __init__(self):
        super().__init__()
        self.fan_out = set()

    def store(self, data_set):
        super().store(data_set)
        self.fan_out.add(os.path.dirname(archive.image_path(data_set)).rpartition("/study_")[0])

    def delete(self, study, series, instance):
        """An image takes along the series and the study of which it was the last."""
        self.paths.remove(f"{archive.series_folder(study, series)}/image_{instance.decode()}.dcm")
        if self._blank(self.images[study, series], instance):
            return
        del self.images[study, series]
        if self._blank(self.series[study], series):
            return
        del self.series[study]
        words, data = self._study_of.pop(study)
        words[0] |= 1
        data[:] = bytes(archive.DATA_SIZE)

    @staticmethod
    def _blank(records, key):
        """Whether others live."""
        position = [record[:64] for record in records].index(field(key, 64))
        records[position] = bytes(len(records[position]))
        return any(record[0] for record in records)

    def compact(self):
        self.studies = [(words, data) for words, data in self.studies if not words[0] & 1]

    def folders(self):
        """Fan-out folders stay for ever, those of studies and series as long as anything is
        in them."""
        found = {"uid"}
        for path in {*self.index_files(), *self.paths, *(each + "/x" for each in self.fan_out)}:
            while path := os.path.dirname(path):
                found.add(path)
        return found


def uids(study, series, number):
    return f"1.{study}", f"1.{study}.{series}", f"1.{study}.{series}.{number}"


def picture(study, series, number):
    return image(*uids(study, series, number), pixels=bytes([number]) * 100, PatientName="A^B",
                 PatientID=f"{study}", SeriesDescription=f"{series}", InstanceNumber=f"{number}")


def put(association, shelf, *which):
    data = picture(*which)
    assert association.store(data, SECONDARY_CAPTURE, uids(*which)[2]) == SUCCESS
    shelf.store(parse(data, EXPLICIT_LE))


def delete(association, level, study, series=None, number=None):
    names = ("StudyInstanceUID", "SeriesInstanceUID", "SOPInstanceUID")
    keys = {name: value for name, value, given in
            zip(names, uids(study, series, number), (study, series, number)) if given is not None}
    return move(association, DELETE, identifier(level, **keys))


def check_disk(server, shelf):
    """Every file and folder below uid/ is as it has to be, and nothing else is there."""
    everything = list((server.store / "uid").rglob("*"))
    files = {str(path.relative_to(server.store)) for path in everything if path.is_file()}
    folders = {str(path.relative_to(server.store)) for path in everything if path.is_dir()}
    expected = shelf.index_files()
    assert files == shelf.paths | expected.keys()
    assert folders | {"uid"} == shelf.folders()
    for path, content in expected.items():
        assert (server.store / path).read_bytes() == content, path


@pytest.fixture
def shelf():
    return Shelf()


def steps(count):
    return [Counters(done) for done in range(1, count + 1)]


def test_random_deletes_and_stores_leave_the_disk_as_the_model_has_it(servers, shelf, capsys):
    """The patient links alone stay for ever."""
    server, linked = servers("-s"), {ALL[0]}
    with capsys.disabled():
        print(f"TARVO_TEST_SEED={SEED}")
    draw, present = random.Random(SEED), {ALL[0]}
    with client(server, called="TarvoOverwrite") as association:
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
            moved = delete(association, level, *which[:depth])
            assert moved == Moved(SUCCESS, Counters(len(deleted)), steps(len(deleted)))
            for each in deleted:
                shelf.delete(*(uid.encode() for uid in uids(*each)))
                present.remove(each)
            check_disk(server, shelf)
        status, answers = find(association, identifier("STUDY", StudyInstanceUID=""))
    assert status == SUCCESS and len(answers) == len({which[0] for which in present})
    links = [path for path in (server.store / "patient").rglob("*") if path.is_symlink()]
    assert len(links) == len(linked)


def test_an_image_whose_file_is_gone_fails_and_loses_its_record(server, shelf):
    with client(server) as association:
        for number in range(2):
            put(association, shelf, 0, 0, number)
        path = server.store / archive.image_path(parse(picture(0, 0, 0), EXPLICIT_LE))
        path.unlink()
        moved = delete(association, "STUDY", 0)
        assert moved == Moved(WITH_FAILURES, Counters(1, 1), [Counters(0, 1), Counters(1, 1)])
    assert "Request to delete image ... result: -1" in server.messages()
    assert f"MOVE/STORE:File: {path} AET: {DELETE}" in server.messages()
    for number in range(2):
        shelf.delete(*(uid.encode() for uid in uids(0, 0, number)))
    check_disk(server, shelf)


def test_a_folder_with_a_strange_file_stays_and_the_image_counts_as_failed(server, shelf):
    with client(server) as association:
        put(association, shelf, 0, 0, 0)
        folder = server.store / study_folder(b"1.0")
        (folder / "notes.txt").write_text("not ours")
        moved = delete(association, "STUDY", 0)
        assert moved == Moved(WITH_FAILURES, Counters(0, 1), [Counters(0, 1)])
    assert list(folder.rglob("*")) == [folder / "notes.txt"]
    assert f"Del SERIES rmdir {folder} failed" in server.messages()


# ---- compaction ----


def test_the_idle_check_compacts_the_study_files_in_order(later_server, shelf):
    server, clock = later_server
    with client(server) as association:
        for study in range(6):
            put(association, shelf, study, 0, 0)
        for study in (1, 2, 5):
            assert delete(association, "STUDY", study).final == Counters(1)
            shelf.delete(*(uid.encode() for uid in uids(study, 0, 0)))
    check_disk(server, shelf)
    shelf.compact()
    expected = shelf.index_files()
    assert len(expected["uid/STUDYINDEX.dat"]) == 3 * 512
    server.wait_until_idle()
    harness.let_pass(61, server, clock)
    for path, content in expected.items():
        harness.wait_until(lambda: (server.store / path).read_bytes() == content, what=path)
    with client(server) as association:
        put(association, shelf, 1, 0, 0)
        check_disk(server, shelf)
        status, answers = find(association, identifier("STUDY", StudyInstanceUID=""))
        found = [answer[0x20, 0xD].value.rstrip(b"\0") for answer in answers]
        assert status == SUCCESS and found == [b"1.1", b"1.4", b"1.3", b"1.0"]
        for study in (0, 1, 3, 4):
            assert delete(association, "STUDY", study).final == Counters(1)
    server.wait_until_idle()
    harness.let_pass(61, server, clock)
    for name in ("STUDYINDEX.hash", "STUDYINDEX.dat"):
        harness.wait_until(lambda: (server.store / "uid" / name).stat().st_size == 0, what=name)
