"""Names that are made to lead elsewhere: nothing outside the store changes for them, nothing comes
into it that is not its own, and what is taken with Success can be had again."""
import itertools
import re
import shutil

import pytest

import archive
import harness
from data_set import (PIXEL_DATA, SECONDARY_CAPTURE, SOP_CLASS_UID, SOP_UID, UIDS, Image, encode,
                      image, parse)
from harness import snapshot
from storage_provider import Provider
from upper_layer import DELETE, NO_RESOURCES, NOT_UNDERSTOOD, SUCCESS, Counters, query_for

VICTIM = "1.1", "1.2", "1.2.3"
KINDS = "study_", "series_", "image_"
UP = ["/.." * (level + 5) for level in range(3)]
STUDY = archive.study_folder(b"1.1")
NAMES = [  # {up} leads from there to the folder that holds the store
    "..", ".", "/", "//", "../..", "/etc/passwd", "x/new", "x/../y", "x/./y", "1.1/", "x/" * 100,
    "../" * 100, "x/../study_1.1", "x{up}/new", "x{up}/outside/new", f"x{{up}}/outside/{STUDY}",
    f"x{{up}}/outside/{STUDY}/series_1.2", f"x{{up}}/store/{STUDY}", "1.\0/../../x",
    "", " ", "\0", "\0" "1.2", "1.\0" "2", " 1.3", "1.4 ", "1 .5", "\t1.6", "1\\2", "\\1", "1\\",
    "..\\..\\x", "1.\x01", "1.\n9", "1.\r2", "1.\x1b[2J", "1.\x7f", "1.éé", "*", "1.?", "%s%n",
    "~", "-rf", "$(touch x)", ";rm", "=CTImageStorage",
    "SERIESINDEX.dat", "DELETEME", "x.dcm", "x.dcm.1.tmp",
    "." * 63, *("1" * length for length in (64, 65, 66, 100, 200, 240, 245, 250, 255, 256, 300))]
PATIENTS = ["..", ".", "/", "../../../../outside/x", "/etc/passwd", "a/../b", "A" * 60, "A" * 300,
            "A" * 3000, "a\nb", "a\x1b[2Jb", "é", "~", "$(touch x)", "-rf", "%s%n", "a\\..\\b",
            " "]
TYPED = ["PatientName", "PatientID", "PatientBirthDate", "StudyDate", "StudyTime",
         "StudyDescription", "SeriesDate", "SeriesTime", "BodyPartExamined", "SeriesDescription",
         "InstanceNumber"]
OWN = re.compile(
    rb"uid(/STUDYINDEX\.(hash|dat)|(/[0-9A-F]{2}){1,2}|(/[0-9A-F]{2}){2}/study_[^/]{1,64}"
    rb"(/SERIESINDEX\.dat|/series_[^/]{1,64}(/IMAGEINDEX\.dat|/image_[^/]{1,64}\.dcm)?)?)?"
    rb"|patient(/[A-Za-z0-9_.^]+){0,4}", re.S)


def without_padding(uid):
    return archive.text({SOP_UID: ("UI", uid.encode())}, SOP_UID) or b""


def is_usable(uid):
    """Whether an image can be stored and found under it."""
    kept = without_padding(uid)
    return kept != b"" and b"/" not in kept and len(kept) <= 64


class Place:
    """A server with patient links, and beside its store another that it must not find."""

    def __init__(self, server, provider):
        self.server, self.provider, self.number = server, provider, 0
        assert self.server.store_one(image(*VICTIM)) == SUCCESS
        shutil.copytree(server.store, server.store.parent / "outside", symlinks=True)
        for level, name in itertools.product(range(3), filter(re.compile("[^/]+/").match, NAMES)):
            self.set_trap(level, name.format(up=UP[level]))
        self.traps = set(snapshot(server.store))
        self.around = server.surroundings()

    def set_trap(self, level, name):
        """Where the first part of such a name stands, the rest can lead away."""
        folder = archive.study_folder(name.encode()).split("/study_")[0]
        first = KINDS[level] + name.split("/")[0].replace("\0", "")
        above = [folder, STUDY, f"{STUDY}/series_1.2"][level]
        (self.server.store / above / first).mkdir(parents=True, exist_ok=True)

    def contents(self):
        """The store, without the study index but for its studies: it may be compacted."""
        index = self.server.store / "uid/STUDYINDEX"
        studies = archive.records(index.with_suffix(".dat").read_bytes(), archive.DATA_SIZE)
        files = snapshot(self.server.store, index.with_suffix(".dat"), index.with_suffix(".hash"))
        return files, {record[:64] for record in studies if record[0]}

    def uids(self, level, name):
        """The victim's above this level, the name at it, and new ones below."""
        self.number += 1
        return [*VICTIM[:level], name, *(f"{each}.{self.number}" for each in range(level + 1, 3))]

    def ask(self, uids):
        """(matches, images that reached the destination) for these UIDs, which are deleted then."""
        query, before = query_for("IMAGE", *uids), len(self.provider.received)
        with self.server.client() as association:
            matches = association.find(query)[1]
            moved = association.move("DEST", query)
            deleted = association.move(DELETE, query)
        sent = self.provider.received[before:]
        assert moved.final == Counters(len(sent)), "an image has been lost on the way"
        assert deleted.final == Counters(len(sent)), "an image could not be deleted"
        return len(matches), sent

    def check_cycle(self, data, uids):
        """A stored image is found, sent as it was stored, and deleted."""
        path = self.server.store / archive.image_path(data)
        assert path.exists()
        matches, (sent,) = self.ask(uids)
        received = parse(sent.data)
        assert matches == 1 and received[PIXEL_DATA] == parse(data)[PIXEL_DATA]
        assert archive.image_path(received) == archive.image_path(data)
        assert not path.exists()


@pytest.fixture(scope="module")
def place(tmp_path_factory):
    pool = harness.Servers(tmp_path_factory.mktemp("names"))
    with Provider("DEST") as provider:
        yield Place(pool("-s", provider=provider), provider)
        pool.close()


@pytest.fixture(autouse=True)
def nothing_else_changes(place):
    yield
    assert place.server.surroundings() == place.around
    found = set(snapshot(place.server.store)) - place.traps
    assert all(map(OWN.fullmatch, found)), sorted(found)


@pytest.mark.parametrize("level", range(3), ids=["study", "series", "image"])
def test_uids(place, level):
    for name in NAMES:
        name = name.format(up=UP[level])
        uids = place.uids(level, name)
        data = image(*uids, pixels=f"pixels {place.number}".encode())
        data.uids = VICTIM  # what the request says counts for nothing
        before = place.contents()
        status = place.server.store_one(data)
        if is_usable(name):
            assert status == SUCCESS, name
            place.check_cycle(data, uids)
            continue
        assert status in (NO_RESOURCES, NOT_UNDERSTOOD), name
        if without_padding(name):  # else it asks for everything
            assert place.ask(uids) == (0, []), name
            assert place.ask([*uids[:level + 1], *VICTIM[level + 1:]]) == (0, []), name
        assert place.contents() == before, name


def test_studies_that_share_their_fan_out(place):
    """Two whose checksums are equal, so that both directories and hash entries agree."""
    pair = "1.2.840.571385319763", "1.2.840.91954007945"
    assert len({archive.crc(uid.encode()) for uid in pair}) == 1
    images = [image(uid, "3.1", "3.2", pixels=uid.encode()) for uid in pair]
    assert list(map(place.server.store_one, images)) == [SUCCESS] * 2
    for data in images:
        place.check_cycle(data, data.uids)


def test_patients(place):
    """The link tree, whose folders are named by what people typed."""
    base = place.server.store
    for value in PATIENTS:
        data = image(*place.uids(0, f"9.{place.number}"), **dict.fromkeys(TYPED, value.encode()))
        status = place.server.store_one(data)
        assert status == SUCCESS or (status == NO_RESOURCES and len(value) > 60), value
        for path in (base / "patient").rglob("*"):
            if path.is_symlink():
                assert path.resolve().is_relative_to(base / "uid"), path
        place.check_cycle(data, data.uids)


@pytest.mark.parametrize("level", range(3))
def test_white_space_of_another_vr(server, level):
    """The toolkit takes it out of what has VR UI, so that no query could name such an image."""
    uids = [("UI", uid) for uid in VICTIM]
    uids[level] = "ST", " 5\n6"
    data = Image(encode({SOP_CLASS_UID: ("UI", SECONDARY_CAPTURE), **dict(zip(UIDS, uids))}))
    data.sop_class, data.uids = SECONDARY_CAPTURE, VICTIM
    assert server.store_one(data) == NO_RESOURCES
    assert not list(server.store.iterdir())
