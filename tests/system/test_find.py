"""C-FIND answers over the wire: what, in which order, with which status."""
import os
import random
import socket

import pytest
from pydicom.datadict import keyword_for_tag

import archive
import query_model
from data_set import CHARACTER_SET, SERIES_UID, SOP_UID, identifier, image, keywords, parse
from harness import SEED
from upper_layer import CANCELLED, KEYS, PATIENT_ROOT_FIND, STUDY_ROOT_FIND, SUCCESS, query_for

STUDIES, QUERIES = 300, 400
WORDS = ["Smith", "SMITHERS", "Ng", "Müller", "Łódź", "Ivanova", "Иванов", "山田", "O'Brien",
         "De La-Cruz", "?", "A*B", "Johnson", "smythe", "Élan", "Weiß", "Garcia.", "(test)", "Anna",
         "x"]
CHARSETS = {None: "ascii", "ISO_IR 100": "latin-1", "ISO_IR 101": "iso8859-2",
            "ISO_IR 144": "iso8859-5", "ISO_IR 192": "utf-8"}
TEXT_KEYS = {keyword_for_tag(tag): width + 16 for _, width, tag, kind in archive.STUDY_FIELDS
             if kind != archive.PLAIN}
OTHER_KEYS = ["PatientBirthDate", "StudyDate", "StudyTime", "PatientSex", "StudyInstanceUID",
              "ModalitiesInStudy"]
SERIES_KEYS, IMAGE_KEYS = ([keyword_for_tag(tag) for _, tag in fields] for _, fields in
                           (archive.SERIES_RECORD, archive.IMAGE_RECORD))


class Draw(random.Random):
    """Random studies and queries; short vocabularies, so that queries meet something."""

    def text(self, charset, width):
        """What the character set can write of some words, now and then wider than any field."""
        words = self.choices(WORDS, k=self.choice([1, 1, 2, 2, 3, 20]))
        return self.choice("^^^ =").join(words)[:width].encode(CHARSETS[charset], "ignore")

    def maybe(self, value, probability=0.75):
        return value if self.random() < probability else ""

    def date(self):
        return f"{self.randint(1990, 1999)}{self.randint(1, 12):02}{self.randint(1, 28):02}"

    def images(self, number):
        charset = self.choice(list(CHARSETS))
        more = {name: self.maybe(self.text(charset, width)) for name, width in TEXT_KEYS.items()}
        more.update(PatientBirthDate=self.maybe(self.date()), StudyDate=self.maybe(self.date()),
                    StudyTime=self.maybe("101112.5"), PatientSex=self.choice(["M", "F", ""]),
                    SpecificCharacterSet=charset)
        uid = f"1.2.826.{number}"
        if self.random() < 0.1:  # fills the field of its records
            uid += "." + "7" * (63 - len(uid))
        for series in range(self.randint(1, 2)):
            modality = self.choice(["CT", "MR", "US", "XA", "SEG", "OT"])
            description = self.text(None, 70)
            for each in range(self.randint(1, 2)):
                yield image(uid, f"{number}.{series}", f"{number}.{series}.{each}",
                            Modality=modality, SeriesDescription=description,
                            SeriesNumber=f"{series}", InstanceNumber=f"{each}",
                            ImageComments=description, ImageType="ORIGINAL\\PRIMARY", **more)

    def pattern(self, value):
        """A stored value, whole or in part, with wildcards where they count and where not."""
        value = value.decode("utf-8", "ignore")
        start, end = sorted(self.choices(range(len(value) + 1), k=2))
        return self.choice([
            value, value.swapcase(), value[:end] + "*", "*" + value[start:],
            f"*{value[start:end]}*", value[:start] + "*" + value[end:],
            value[:start] + "?" + value[start + 1:], "*", "**", "", "*" + value * 3, value + "x"])

    def date_range(self):
        one, other = sorted((self.date(), self.date()))
        return self.choice([one, f"{one}-{other}", f"{one}-", f"-{other}", f"{other}-{one}",
                            "-", "*", "", "unknown"])

    def query(self, stored):
        """Some conditions taken from one study, and some keys to be answered."""
        record = self.choice(stored.studies)[1]
        values = {tag: bytes(record[offset:offset + width]).split(b"\0")[0]
                  for offset, width, tag, _ in archive.STUDY_FIELDS}
        asked = {name: "" for name in [*TEXT_KEYS, *OTHER_KEYS] if self.random() < 0.3}
        asked["SpecificCharacterSet"] = self.choice([None, *["ISO_IR 192"] * 4])
        for name in self.sample([*TEXT_KEYS, "StudyInstanceUID", "PatientSex"],
                                self.choice([0, 1, 1, 1, 2, 3])):
            asked[name] = self.pattern(values[next(iter(keywords({name: ""})))])
        for name in self.sample(["PatientBirthDate", "StudyDate"], self.randint(0, 2)):
            asked[name] = self.maybe(self.date_range(), 0.5)
        if self.random() < 0.2:
            asked["Modality"] = self.choice(["CT", "MR", "SEG", "US"])
        return identifier(self.choice(["STUDY", "PATIENT"]), **asked)

    def query_below(self, stored, level, keys):
        """A series or image query that names a study, and perhaps something below it."""
        record = self.choice(self.choice(list(stored.images.values())))
        asked = {name: "" for name in keys if self.random() < 0.5}
        for name, at in zip(KEYS, (128, 64, 0)):
            if name in keys and (name == "StudyInstanceUID" or self.random() < 0.4):
                uid = archive.key_of(record[at:])
                asked[name] = self.choice([uid] * 9 + [b"1.2.3.4"])
        return identifier(level, **asked)


@pytest.fixture(scope="module")
def draw():
    return Draw(SEED)


@pytest.fixture(scope="module")
def stored(lasting_server, draw):
    """The model of what the server holds."""
    expected = archive.Archive()
    with lasting_server.client() as association:
        for number in range(STUDIES):
            for data in draw.images(number):
                assert association.store(data) == SUCCESS
                expected.store(data)
    return expected


def values(data_set):
    return {tag: element.value.rstrip(b" \0") for tag, element in data_set.items()}


def test_random_queries_are_answered_like_the_model_answers_them(lasting_server, stored, draw):
    sizes = {"study": [], "series": [], "image": []}
    with lasting_server.client() as association:
        for _ in range(QUERIES):
            model = draw.choice([STUDY_ROOT_FIND, PATIENT_ROOT_FIND])
            for kind, query, answers in (
                    ("study", draw.query(stored), query_model.study_answers),
                    ("series", draw.query_below(stored, "SERIES", SERIES_KEYS),
                     query_model.series_answers),
                    ("image", draw.query_below(stored, "IMAGE", IMAGE_KEYS),
                     query_model.image_answers)):
                expected = [{tag: value.rstrip(b" ") for tag, value in each.items()}
                            for each in answers(stored, parse(query))]
                status, found = association.find(query, model)
                assert (status, list(map(values, found))) == (SUCCESS, expected), query
                sizes[kind].append(len(found))
    # The draw is worth something: empty answers, single ones and many.
    for kind, many in (("study", 20), ("series", 1), ("image", 2)):
        assert 0 in sizes[kind] and 1 in sizes[kind] and max(sizes[kind]) > many, sizes[kind]


UNANSWERED = [
    (identifier("STUDY", PatientName="nobody"), None),
    (identifier("WORKLIST"), "AIEE - QRL WORKLIST is not STUDY, SERIES or IMAGE"),
    (identifier("study"), "AIEE - QRL study is not STUDY, SERIES or IMAGE"),
    (identifier(None, PatientName=""), "AIEE - QRL (null) is not STUDY, SERIES or IMAGE"),
    (query_for("SERIES", None, ""), "SERIES level query without STUDY UID unsupported."),
    (query_for("IMAGE", None, None, "1"), "IMAGE level query without STUDY UID unsupported."),
    (query_for("SERIES", "9.9"), None), (query_for("IMAGE", "9.9", "9.9"), None),
    (query_for("SERIES", "../../../etc"), None),
    (query_for("IMAGE", "1.2.826.0", "0.0/../0.0"), None)]


def test_what_finds_nothing_ends_with_success_and_a_reason_in_the_log(lasting_server, stored):
    with lasting_server.client() as association:
        for query, message in UNANSWERED:
            assert association.find(query) == (SUCCESS, [])
            assert message is None or lasting_server.messages().count(message) == 1


def test_what_a_worker_stored_is_found_with_the_character_set_that_is_asked_for(servers):
    server = servers("-E", "ISO_IR 100")
    with server.client() as association:
        assert association.find(query_for("STUDY", "1.1")) == (SUCCESS, [])  # no files exist
        data = image("1.1", "1.2", "1.3", PatientName="Müller", SpecificCharacterSet="ISO_IR 192")
        assert association.store(data) == SUCCESS
        for query in (identifier("STUDY", PatientName=""), identifier("STUDY", PatientID=""),
                      query_for("SERIES", "1.1"), query_for("IMAGE", "1.1")):
            status, [answer] = association.find(query)
            assert status == SUCCESS and values(answer)[CHARACTER_SET] == b"ISO_IR 100"
        # A fragment at the end of an index shows nothing of the record before it.
        with next(server.store.rglob("IMAGEINDEX.dat")).open("ab") as index:
            index.write(b"6")
        query = identifier("IMAGE", StudyInstanceUID="1.1", SOPInstanceUID="", SeriesInstanceUID="")
        status, answers = association.find(query)
        found = [[values(each)[tag] for tag in (SOP_UID, SERIES_UID)] for each in answers]
        assert found == [[b"1.3", b"1.2"], [b"6", b""]]


def test_a_cancel_that_comes_with_its_query_is_seen(server):
    with server.client() as association:
        association.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)  # into one segment
        number = association.ask(query_for("STUDY", ""))
        association.cancel(number)
        association.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 0)
        assert association.answers_to(number) == (CANCELLED, [])


def test_a_thousand_cancelled_queries_leave_no_descriptor_behind(server):
    """In a series of so many images that their answers fill every socket buffer."""
    data = image("1.1", "1.2", "1.3", ImageComments="c" * 250, ImageType="t" * 60)
    assert server.store_one(data) == SUCCESS
    index = next(server.store.rglob("IMAGEINDEX.dat"))
    record = index.read_bytes()
    index.write_bytes(b"".join(f"1.3.{number}".encode().ljust(64, b"\0") + record[64:]
                               for number in range(40_000)))
    with server.client() as association:
        [worker] = server.workers()
        open_before = os.listdir(f"/proc/{worker}/fd")
        cancelled = 0
        for number in range(1000):
            series = ("1.2", None)[number % 2]  # two open files, or three
            sent = association.ask(query_for("IMAGE", "1.1", series, ""))
            association.answers_to(sent, 1)
            association.cancel(sent)
            cancelled += association.answers_to(sent)[0] == CANCELLED
        assert cancelled > 900
        assert os.listdir(f"/proc/{worker}/fd") == open_before
        association.cancel(sent)  # one that comes too late is nothing to anybody
        status, [answer] = association.find(query_for("SERIES", "1.1", ""))
        assert status == SUCCESS and values(answer)[SERIES_UID] == b"1.2"
