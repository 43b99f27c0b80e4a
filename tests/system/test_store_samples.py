"""Real files sent in the transfer syntax of each come to lie on disk whole and well indexed.

One server receives everything. Many samples share their UIDs, so the sender asks for overwriting,
and after each image the index files must hold what archive.Archive computed from all images sent
so far.
"""
import random

import pydicom.encaps
import pydicom.filebase
import pytest

import archive
from data_set import PIXEL_DATA, SERIES_UID, STUDY_UID, differences, image, parse, split_file
from query_retrieve import SUCCESS, Counters, Moved, client, identifier, move
from samples import FOLDER, SAMPLES, UNCOMPRESSED, UNREADABLE, converted, is_converted, load
from storage_provider import MOVE_MESSAGE_ID, MOVE_ORIGINATOR
from upper_layer import (C_STORE, DATA_SET_TYPE, EXPLICIT_LE, FIELD, IMPLICIT_LE, MESSAGE_ID,
                         PRIORITY, SECONDARY_CAPTURE, SOP_CLASS, SOP_INSTANCE, Association)

CONVERSIONS = [(sample, transfer_syntax) for sample in SAMPLES if is_converted(sample)
               for transfer_syntax in UNCOMPRESSED if transfer_syntax != sample.transfer_syntax]


@pytest.fixture(scope="module")
def expected():
    return archive.Archive()


def send(port, sample, called="TarvoOverwrite"):
    contexts = [(sample.sop_class, [sample.transfer_syntax])]
    with Association(port, contexts, called=called) as association:
        return association.store(sample.sent, sample.sop_class, sample.sop_instance)


def check_stored(server, expected, sample, was_explicit):
    status = send(server.port, sample)
    assert status == 0x0000, f"status {status:04X}, log: {server.messages()[-3:]}"
    expected.store(parse(sample.sent, sample.transfer_syntax))
    stored = server.store / archive.image_path(sample.elements)
    written_in, data = split_file(stored.read_bytes())
    convertible = sample.transfer_syntax in UNCOMPRESSED
    assert written_in == (EXPLICIT_LE if convertible else sample.transfer_syntax)
    assert not differences(sample.elements, parse(data, written_in), was_explicit)
    check_pixels(sample, stored)
    check_index_files(server, expected, sample.elements)
    if sample.path.parent.name == "charset_files":
        check_name(server, sample)
    check_moved(server, sample, was_explicit)


def check_pixels(sample, stored):
    """The pixel bytes as an independent reader sees them."""
    reread = pydicom.dcmread(stored)
    assert reread.file_meta.MediaStorageSOPInstanceUID == sample.sop_instance
    if PIXEL_DATA not in sample.elements:
        return
    pixels = sample.elements[PIXEL_DATA].value
    if isinstance(pixels, list):
        assert fragments(reread.PixelData) == pixels
    else:
        assert reread.PixelData == pixels


def check_moved(server, sample, was_explicit):
    """It comes back as it was sent, with every word about it in its place."""
    study, series = (archive.text(sample.elements, tag) for tag in (STUDY_UID, SERIES_UID))
    query = identifier("IMAGE", StudyInstanceUID=study, SeriesInstanceUID=series,
                       SOPInstanceUID=sample.sop_instance)
    with client(server, called="ARCHIVE7", calling="STATION") as association:
        association.message_id = 76
        moved = move(association, "DEST", query, priority=1)
    assert moved == Moved(SUCCESS, Counters(1), [Counters(1)])
    received, call = server.provider.received[-1], server.provider.calls[-1]
    assert (call.calling, call.called, call.max_pdu) == ("ARCHIVE7", "DEST", 131072)
    assert {tag: value for tag, value in received.fields.items()
            if tag not in (DATA_SET_TYPE, MESSAGE_ID)} == {
        FIELD: C_STORE, SOP_CLASS: sample.sop_class, SOP_INSTANCE: sample.sop_instance,
        PRIORITY: 1, MOVE_ORIGINATOR: "STATION", MOVE_MESSAGE_ID: 77}
    assert call.ended_by == "release"
    came_back = parse(received.data, received.transfer_syntax)
    assert not differences(sample.elements, came_back, was_explicit)


def fragments(encapsulated):
    items = pydicom.filebase.DicomBytesIO(encapsulated)
    items.is_little_endian = True
    table = encapsulated[8:8 + int.from_bytes(encapsulated[4:8], "little")]
    items.seek(8 + len(table))
    return [table, *pydicom.encaps.generate_pixel_data_fragment(items)]


def check_index_files(server, expected, elements):
    """Compares the study index and the two index files that belong to this image."""
    folder = archive.study_folder(archive.text(elements, STUDY_UID))
    for path, content in expected.index_files().items():
        if path.startswith((folder + "/", "uid/STUDYINDEX")):
            assert (server.store / path).read_bytes() == content, path


def check_name(server, sample):
    """Held against pydicom's decoder, so that the model in archive.py is not the only witness."""
    study = archive.field(archive.text(sample.elements, STUDY_UID), 64)
    content = (server.store / "uid/STUDYINDEX.dat").read_bytes()
    name, = (record[64:128].rstrip(b"\0") for record in archive.records(content, archive.DATA_SIZE)
             if record[:64] == study)
    # pydicom drops empty component groups at the end.
    assert name.decode().rstrip("=") == str(pydicom.dcmread(sample.path).PatientName)


@pytest.mark.parametrize("sample", SAMPLES, ids=lambda sample: sample.name)
def test_a_file_is_stored_as_it_was_sent(lasting_server, expected, sample):
    check_stored(lasting_server, expected, sample, sample.transfer_syntax != IMPLICIT_LE)


@pytest.mark.parametrize("name", sorted(UNREADABLE))
def test_uids_of_unknown_representation_are_not_understood(lasting_server, name):
    sample = load(FOLDER / "test_files" / name)
    before = sorted(lasting_server.store.rglob("*"))
    assert send(lasting_server.port, sample) == 0xC000
    assert sorted(lasting_server.store.rglob("*")) == before


@pytest.mark.parametrize("sample, transfer_syntax", CONVERSIONS,
                         ids=lambda value: getattr(value, "name", value))
def test_a_converted_file_is_stored_like_its_original(lasting_server, expected, sample,
                                                      transfer_syntax, tmp_path):
    sent = converted(sample, transfer_syntax, tmp_path)
    was_explicit = IMPLICIT_LE not in (sample.transfer_syntax, transfer_syntax)
    check_stored(lasting_server, expected, sent, was_explicit)


NAMES = [
    (None, b"M\xfcller^Eva", b"M\xfcller^Eva"),  # without a character set: as received
    ("ISO_IR 100", b"M\xfcller^Eva", "Müller^Eva".encode()),
    ("ISO_IR 999", b"M\xfcller^Eva", "Müller^Eva".encode()),  # unknown: taken for Latin-1
    ("ISO_IR 6", b"M\xfcller^Eva", b"M"),  # kept up to the byte that cannot be converted
    ("ISO_IR 192", b"Mu\xcc\x88ller", b"Mu\xcc\x88ller"),
    ("ISO 2022 IR 100", b"M\xfcller", "Müller".encode()),
    ("\\ISO 2022 IR 126", b"Plain^\x1b-F\xc4\xe9^Z", "Plain^Δι^Z".encode()),
    ("\\ISO 2022 IR 126", b"\x1b-F\xc4^\xe9", b"Incomplete iconv"),  # "^" ends the escape
    ("\\ISO 2022 IR 87", b"A^\x1b$B;3ED", "A^山田".encode()),
    ("\\ISO 2022 IR 87", b"A^\x1b%G", b"Unknown ESC"),
    ("\\ISO 2022 IR 159", b"a\x1b$(D\x22\x6f", b">>SCS fail"),
    ("\\ISO 2022 IR 149", b"\x1b$)C\xfb\xf3^\x1b$)C\xd1\xce", "洪^吉".encode()),
    ("ISO_IR 100", b"\xe9" * 40, "é".encode() * 32),  # cut at the 64 bytes of the field
    ("\\x", b"a" * 2040 + b"\x1b%G", b"Unknown ESC"), ("\\x", b"a" * 3000, b"a" * 64),
    ("\\x", b"a" * 2046 + b"\x1b-F\xc4", b"a" * 64)]


def random_names(count):
    """Texts in every character set, of pieces with and without escape sequences."""
    draw = random.Random(20240612)
    singles, firsts = list(archive.SINGLE), [*archive.SINGLE, *archive.EXTENDED, b"KLINGON"]
    pieces = [*archive.ESCAPES, b"\xc4\xe9", b"\xd4", b"abc", b"^", b"=", b"\\", b"\r\n", b"\f",
              b";3ED", b"\xfb\xf3", b"\xe7\x8e\x8b", b"$d$^"]
    pieces.remove(b"\x1b$(D")  # which the C library cannot convert
    for number in range(count):
        several = number % 3 != 0
        charset = draw.choice(firsts) + b"\\ISO 2022 IR 87" if several else draw.choice(singles)
        yield charset, b"".join(draw.choices(pieces, k=draw.randint(1, 8))).rstrip()


def test_names_are_converted_by_their_character_set(server):
    expected = archive.Archive()
    names = [*((charset, name) for charset, name, _ in NAMES), *random_names(400),
             *((b"ISO_IR 6", bytes([byte])) for byte in range(0x21, 0x7F))]
    with Association(server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])]) as association:
        for number, (charset, name) in enumerate(names):
            more = {"PatientName": name, "PatientID": name}
            more |= {"SpecificCharacterSet": charset} if charset else {}
            data = image(f"1.2.3.{number}", "1.2.3.1", f"1.2.3.{number}.1", **more)
            assert association.store(data, SECONDARY_CAPTURE, f"1.2.3.{number}.1") == 0x0000
            if number >= len(NAMES):  # the model does not know every way to fail
                expected.store(parse(data, EXPLICIT_LE))
    content = (server.store / "uid/STUDYINDEX.dat").read_bytes()
    stored = [record[64:192] for record in archive.records(content, archive.DATA_SIZE)]
    for (charset, name, wanted), record in zip(NAMES, stored):
        assert record[:64].rstrip(b"\0") == wanted, (charset, name)
    computed = [bytes(record[64:192]) for _, record in expected.studies]
    assert list(zip(names[len(NAMES):], stored[len(NAMES):])) == list(
        zip(names[len(NAMES):], computed))
    entries = (server.store / "uid/STUDYINDEX.hash").read_bytes()
    bits = b"".join(number.to_bytes(4, "little") for words, _ in expected.studies
                    for number in words)
    assert entries[len(NAMES) * archive.HASH_SIZE:] == bits


LONG_UID = "1.2." + "3" * 60
RICH = {
    "PatientName": "Long^" + "n" * 80, "PatientID": "ID-7 ", "PatientBirthDate": "1970",
    "PatientSex": "F", "StudyDate": "20200229", "StudyTime": "101530.123456", "StudyID": "S" * 16,
    "StudyDescription": "Thorax / Abdomen", "AccessionNumber": "A" * 17, "Modality": "RTIMAGE",
    "ReferringPhysicianName": "Dr^Who", "ReferringPhysicianAddress": "Street 1",
    "ClinicalTrialSponsorName": "Sponsor of some length", "ClinicalTrialProtocolName": "P",
    "ClinicalTrialSiteName": "Site", "SeriesDescription": "d" * 70, "ProtocolName": "pro",
    "SeriesDate": "20200301", "SeriesTime": "235959.9", "SeriesNumber": "123456789012",
    "BodyPartExamined": "CHEST", "PatientPosition": "HFDR1", "ImageType": "DERIVED\\SECONDARY",
    "ImageComments": "c" * 300, "PatientOrientation": "L\\P", "SliceLocation": "-12.5",
    "ImagePositionPatient": "1\\2\\3", "ImageOrientationPatient": "1\\0\\0\\0\\1\\0",
    "AcquisitionNumber": "1", "InstanceNumber": "2", "ImagesInAcquisition": "3",
    "AcquisitionDate": "20200302", "AcquisitionTime": "000000.5"}


def test_every_field_of_the_records_and_their_merging(lasting_server, expected):
    """A 64-character UID fills its field; the second image brings fewer and shorter values."""
    first = image(LONG_UID, LONG_UID, LONG_UID, **RICH)
    second = image(LONG_UID, LONG_UID, LONG_UID[:-1] + "4", PatientName="Short", Modality="MR",
                   PatientID="", PatientBirthDate="19700101", StudyDescription="1")
    again = image(LONG_UID, LONG_UID, LONG_UID, **{**RICH, "SeriesDescription": "changed"})
    with Association(lasting_server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])],
                     called="TarvoOverwrite") as association:
        for data in (first, second, again):
            elements = parse(data, EXPLICIT_LE)
            instance = elements[(0x8, 0x18)].value.decode()
            assert association.store(data, SECONDARY_CAPTURE, instance) == 0x0000
            expected.store(elements)
            check_index_files(lasting_server, expected, elements)


def test_a_ninth_modality_only_adds_its_bit(lasting_server, expected):
    codes = ["CT", "CT", "SEG", "CTX", "MR", "PT", "ST", "CR", "NM", "US", "XA"]
    with Association(lasting_server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])]) as association:
        for number, code in enumerate(codes):
            instance = f"1.2.4.{number}"
            data = image("1.2.4", f"1.2.4.{code}", instance, Modality=code)
            assert association.store(data, SECONDARY_CAPTURE, instance) == 0x0000
            expected.store(parse(data, EXPLICIT_LE))
    check_index_files(lasting_server, expected, parse(data, EXPLICIT_LE))
    record = (lasting_server.store / "uid/STUDYINDEX.dat").read_bytes()[-512:]
    assert record[384:400] == b"CTSEMRPTSTCRNMUS"


def test_nothing_else_lies_in_the_store(lasting_server, expected):
    """Last in this file: the tree holds the expected images and index files, no more."""
    found = {str(path.relative_to(lasting_server.store))
             for path in (lasting_server.store / "uid").rglob("*") if path.is_file()}
    assert found == expected.paths | expected.index_files().keys()
