"""C-FIND answers over the wire: what, in which order, with which status."""
import os
import random
import socket
import time

import pytest

import archive
import query_model
from data_set import SERIES_UID, image, parse, tag_of
from query_retrieve import (CANCELLED, PATIENT_ROOT_FIND, PENDING, SUCCESS, answers_to, ask, cancel,
                            client, find, identifier, next_answer)
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, STUDY_ROOT_FIND

STUDIES, QUERIES = 300, 400
SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
WORDS = ["Smith", "SMITHERS", "Ng", "Müller", "Łódź", "Ivanova", "Иванов", "山田", "O'Brien",
         "De La-Cruz", "?", "A*B", "Johnson", "smythe", "Élan", "Weiß", "Garcia.", "(test)", "Anna", "x"]
CHARSETS = {None: "ascii", "ISO_IR 100": "latin-1", "ISO_IR 101": "iso8859-2",
            "ISO_IR 144": "iso8859-5", "ISO_IR 192": "utf-8"}
TEXT_KEYS = {"PatientName": 80, "PatientID": 20, "StudyDescription": 80,
             "ReferringPhysicianName": 70, "ReferringPhysicianAddress": 30, "AccessionNumber": 20,
             "StudyID": 18, "ClinicalTrialSponsorName": 20, "ClinicalTrialProtocolName": 20,
             "ClinicalTrialSiteName": 30}
OTHER_KEYS = ["PatientBirthDate", "StudyDate", "StudyTime", "PatientSex", "StudyInstanceUID",
              "ModalitiesInStudy"]
SERIES_KEYS = ["SeriesInstanceUID", "StudyInstanceUID", "SeriesDescription", "ProtocolName",
               "SeriesDate", "SeriesTime", "SeriesNumber", "BodyPartExamined", "PatientPosition",
               "Modality"]
IMAGE_KEYS = ["SOPInstanceUID", "SeriesInstanceUID", "StudyInstanceUID", "ImageType",
              "ImageComments", "PatientOrientation", "InstanceNumber", "AcquisitionDate",
              "ContentDate", "PatientName"]


class Draw:
    """Random studies and queries; short vocabularies, so that queries meet something."""

    def __init__(self, seed):
        self.random = random.Random(seed)

    def text(self, charset, width):
        """Some words that the character set can write, now and then wider than any field."""
        words = [word for word in WORDS if self._can_write(word, charset)]
        count = self.random.choice([1, 1, 2, 2, 3, 20])
        value = self.random.choice("^^^ =").join(self.random.choices(words, k=count))[:width]
        return value.encode(CHARSETS[charset])

    @staticmethod
    def _can_write(word, charset):
        try:
            return bool(word.encode(CHARSETS[charset]))
        except UnicodeEncodeError:
            return False

    def maybe(self, value, probability=0.75):
        return value if self.random.random() < probability else ""

    def date(self):
        year = self.random.randint(1990, 1999)
        return f"{year}{self.random.randint(1, 12):02}{self.random.randint(1, 28):02}"

    def study(self, number):
        """Keywords and values that all images of a study share."""
        charset = self.random.choice(list(CHARSETS))
        more = {name: self.maybe(self.text(charset, width)) for name, width in TEXT_KEYS.items()}
        more.update(PatientBirthDate=self.maybe(self.date()), StudyDate=self.maybe(self.date()),
                    StudyTime=self.maybe("101112.5"), PatientSex=self.random.choice(["M", "F", ""]))
        if charset:
            more["SpecificCharacterSet"] = charset
        uid = f"1.2.826.{number}"
        if self.random.random() < 0.1:  # fills the field of its records
            uid += "." + "7" * (63 - len(uid))
        return uid, more

    def images(self, number):
        uid, more = self.study(number)
        for series in range(self.random.randint(1, 2)):
            modality = self.random.choice(["CT", "MR", "US", "XA", "SEG", "OT"])
            description = self.text(None, 70)
            for each in range(self.random.randint(1, 2)):
                instance = f"{number}.{series}.{each}"
                yield instance, image(uid, f"{number}.{series}", instance, Modality=modality,
                                      SeriesDescription=description, SeriesNumber=f"{series}",
                                      InstanceNumber=f"{each}", ImageComments=description,
                                      ImageType="ORIGINAL\\PRIMARY", **more)

    def pattern(self, value):
        """A stored value, whole or in part, with wildcards where they count and where not."""
        pick = self.random.randint
        start, end = sorted((pick(0, len(value)), pick(0, len(value))))
        return self.random.choice([
            value, value.swapcase(), value[:end] + b"*", b"*" + value[start:],
            b"*" + value[start:end] + b"*", value[:start] + b"*" + value[end:],
            value[:start] + b"?" + value[start + 1:], b"*", b"**", b"", b"*" + value * 3,
            value + b"x"])

    def date_range(self):
        one, other = sorted((self.date(), self.date()))
        return self.random.choice([one, f"{one}-{other}", f"{one}-", f"-{other}", f"{other}-{one}",
                                   "-", "*", "", "unknown"])

    def query(self, stored):
        """Some conditions taken from one study, and some keys to be answered."""
        record = self.random.choice(stored.studies)[1]
        values = {tag: bytes(record[offset:offset + width]).split(b"\0")[0]
                  for offset, width, tag, _ in archive.STUDY_FIELDS}
        asked = {name: "" for name in [*TEXT_KEYS, *OTHER_KEYS] if self.random.random() < 0.3}
        if self.random.random() < 0.8:
            asked["SpecificCharacterSet"] = "ISO_IR 192"
        for name in self.random.sample([*TEXT_KEYS, "StudyInstanceUID", "PatientSex"],
                                       self.random.choice([0, 1, 1, 1, 2, 3])):
            asked[name] = self.pattern(values[tag_of(name)])
        dates = ["PatientBirthDate", "StudyDate"]
        for name in self.random.sample(dates, self.random.randint(0, 2)):
            asked[name] = self.maybe(self.date_range(), 0.5)
        if self.random.random() < 0.2:
            asked["Modality"] = self.random.choice(["CT", "MR", "SEG", "US"])
        return identifier(self.random.choice(["STUDY", "PATIENT"]), **asked)

    def query_below(self, stored, level, keys):
        """A series or image query that names a study, and perhaps something below it."""
        record = self.random.choice(self.random.choice(list(stored.images.values())))
        uids = {"StudyInstanceUID": record[128:192], "SeriesInstanceUID": record[64:128],
                "SOPInstanceUID": record[:64]}
        asked = {name: "" for name in keys if self.random.random() < 0.5}
        for name, value in uids.items():
            if name in keys and (name == "StudyInstanceUID" or self.random.random() < 0.4):
                asked[name] = self.random.choice([value.rstrip(b"\0")] * 9 + [b"1.2.3.4"])
        return identifier(level, **asked)


@pytest.fixture(scope="module")
def draw():
    return Draw(SEED)


@pytest.fixture(scope="module")
def stored(lasting_server, draw):
    """The model of what the server holds."""
    expected = archive.Archive()
    with client(lasting_server) as association:
        for number in range(STUDIES):
            for instance, data in draw.images(number):
                assert association.store(data, SECONDARY_CAPTURE, instance) == 0
                expected.store(parse(data, EXPLICIT_LE))
    return expected


def values(data_set):
    return {tag: element.value.rstrip(b" \0") for tag, element in data_set.items()}


def stripped(answers):
    return [{tag: value.rstrip(b" ") for tag, value in each.items()} for each in answers]


def check_query(association, query, model, expected):
    status, found = find(association, query, model)
    assert status == SUCCESS
    assert list(map(values, found)) == stripped(expected), f"TARVO_TEST_SEED={SEED}, {query}"
    return len(found)


def test_random_queries_are_answered_like_the_model_answers_them(lasting_server, stored, draw,
                                                                 capsys):
    with capsys.disabled():
        print(f"TARVO_TEST_SEED={SEED}")
    sizes = {"study": [], "series": [], "image": []}
    with client(lasting_server) as association:
        for _ in range(QUERIES):
            model = draw.random.choice([STUDY_ROOT_FIND, PATIENT_ROOT_FIND])
            for kind, query, answer in (
                    ("study", draw.query(stored), query_model.study_answers),
                    ("series", draw.query_below(stored, "SERIES", SERIES_KEYS),
                     query_model.series_answers),
                    ("image", draw.query_below(stored, "IMAGE", IMAGE_KEYS),
                     query_model.image_answers)):
                expected = answer(stored, parse(query, EXPLICIT_LE))
                sizes[kind].append(check_query(association, query, model, expected))
    # The draw is worth something: empty answers, single ones and many.
    for kind, many in (("study", 20), ("series", 1), ("image", 2)):
        assert 0 in sizes[kind] and 1 in sizes[kind] and max(sizes[kind]) > many, sizes[kind]


UNANSWERED = [
    (identifier("STUDY", PatientName="nobody"), None),
    (identifier("WORKLIST"), "AIEE - QRL WORKLIST is not STUDY, SERIES or IMAGE"),
    (identifier("study"), "AIEE - QRL study is not STUDY, SERIES or IMAGE"),
    (identifier(None, PatientName=""), "AIEE - QRL (null) is not STUDY, SERIES or IMAGE"),
    (identifier("SERIES", SeriesInstanceUID=""),
     "SERIES level query without STUDY UID unsupported."),
    (identifier("IMAGE", SOPInstanceUID="1"), "IMAGE level query without STUDY UID unsupported."),
    (identifier("SERIES", StudyInstanceUID="9.9"), None),
    (identifier("IMAGE", StudyInstanceUID="9.9", SeriesInstanceUID="9.9"), None),
    (identifier("SERIES", StudyInstanceUID="../../../etc"), None),
    (identifier("IMAGE", StudyInstanceUID="1.2.826.0", SeriesInstanceUID="0.0/../0.0"), None)]


def test_what_finds_nothing_ends_with_success_and_a_reason_in_the_log(lasting_server, stored):
    with client(lasting_server) as association:
        for query, message in UNANSWERED:
            assert find(association, query) == (SUCCESS, [])
            assert message is None or lasting_server.messages().count(message) == 1


def test_what_a_worker_stored_is_found_with_the_character_set_that_is_asked_for(servers):
    server = servers("-E", "ISO_IR 100")
    with client(server) as association:
        query = identifier("STUDY", StudyInstanceUID="1.1")
        assert find(association, query) == (SUCCESS, [])  # not even the files exist
        data = image("1.1", "1.2", "1.3", PatientName="Müller", SpecificCharacterSet="ISO_IR 192")
        assert association.store(data, SECONDARY_CAPTURE, "1.3") == 0
        for level, keys in (("STUDY", {"PatientName": ""}), ("STUDY", {"PatientID": ""}),
                            ("SERIES", {"StudyInstanceUID": "1.1"}),
                            ("IMAGE", {"StudyInstanceUID": "1.1"})):
            status, [answer] = find(association, identifier(level, **keys))
            assert status == SUCCESS and values(answer)[0x8, 0x5] == b"ISO_IR 100"


# ---- cancelling ----


@pytest.fixture
def long_series(server):
    """A server with a series of so many images that their answers fill every socket buffer."""
    with client(server) as association:
        data = image("1.1", "1.2", "1.3", ImageComments="c" * 250, ImageType="t" * 60)
        assert association.store(data, SECONDARY_CAPTURE, "1.3") == 0
    index = next(server.store.rglob("IMAGEINDEX.dat"))
    record = index.read_bytes()
    index.write_bytes(b"".join(f"1.3.{number}".encode().ljust(64, b"\0") + record[64:]
                               for number in range(40_000)))
    return server


SERIES = {"StudyInstanceUID": "1.1", "SeriesInstanceUID": "1.2"}


def test_a_cancel_that_comes_with_its_query_is_seen(server):
    with client(server) as association:
        association.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)  # into one segment
        number = ask(association, identifier("STUDY", StudyInstanceUID=""))
        cancel(association, number)
        association.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 0)
        assert answers_to(association, number) == (CANCELLED, [])


def test_a_thousand_cancelled_queries_leave_no_descriptor_behind(long_series):
    with client(long_series) as association:
        [worker] = long_series.workers()
        open_before = os.listdir(f"/proc/{worker}/fd")
        cancelled = 0
        for number in range(1000):
            keys = [SERIES, {"StudyInstanceUID": "1.1"}][number % 2]  # two open files, or three
            sent = ask(association, identifier("IMAGE", SOPInstanceUID="", **keys))
            assert next_answer(association, sent)[0] == PENDING
            cancel(association, sent)
            cancelled += answers_to(association, sent)[0] == CANCELLED
        assert cancelled > 900
        assert os.listdir(f"/proc/{worker}/fd") == open_before
        cancel(association, sent)  # one that comes too late is nothing to anybody
        status, [answer] = find(association, identifier("SERIES", StudyInstanceUID="1.1",
                                                        SeriesInstanceUID=""))
        assert status == SUCCESS and values(answer)[SERIES_UID] == b"1.2"
