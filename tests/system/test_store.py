"""Images of any kind come to lie on disk whole, well indexed, and come back as they were sent.

One server receives all samples. Many share their UIDs, so the sender asks for overwriting, and
after each image the index files must hold what archive.Archive computed from all sent so far.
"""
import os
import shutil
import stat
import time

import pytest

import archive
from data_set import (EXPLICIT_LE, IMPLICIT_LE, SECONDARY_CAPTURE, SERIES_UID, STUDY_UID,
                      differences, image, parse, split_file)
from samples import FOLDER, SAMPLES, UNCOMPRESSED, UNREADABLE, converted, is_converted, load
from storage_provider import MOVE_MESSAGE_ID, MOVE_ORIGINATOR
from upper_layer import (ALREADY_THERE, C_STORE, DATA_SET_TYPE, FIELD, MESSAGE_ID, NO_RESOURCES,
                         NOT_UNDERSTOOD, PRIORITY, SOP_CLASS, SOP_INSTANCE, STATUS, SUCCESS,
                         Aborted, Counters, Moved, query_for, store_request)

CASES = [(sample, sample.transfer_syntax) for sample in SAMPLES] + [
    (sample, transfer_syntax) for sample in SAMPLES if is_converted(sample)
    for transfer_syntax in UNCOMPRESSED if transfer_syntax != sample.transfer_syntax]


@pytest.fixture(scope="module")
def expected():
    return archive.Archive()


def send(server, sample):
    contexts = [(sample.sent.sop_class, [sample.transfer_syntax])]
    return server.store_one(sample.sent, contexts=contexts, called="TarvoOverwrite")


@pytest.mark.parametrize("sample, transfer_syntax", CASES,
                         ids=lambda value: getattr(value, "name", value))
def test_a_sample_is_kept_and_given_back_as_it_was_sent(lasting_server, expected, sample,
                                                        transfer_syntax, tmp_path):
    was_explicit = IMPLICIT_LE not in (sample.transfer_syntax, transfer_syntax)
    if transfer_syntax != sample.transfer_syntax:
        sample = converted(sample, transfer_syntax, tmp_path)
    assert send(lasting_server, sample) == SUCCESS, lasting_server.messages()[-3:]
    expected.store(parse(sample.sent, transfer_syntax))
    stored = lasting_server.store / archive.image_path(sample.elements)
    written_in, data = split_file(stored.read_bytes())
    assert written_in == (EXPLICIT_LE if transfer_syntax in UNCOMPRESSED else transfer_syntax)
    assert not differences(sample.elements, parse(data, written_in), was_explicit)
    check_index_files(lasting_server, expected, sample.elements)
    check_moved(lasting_server, sample, was_explicit)


def check_index_files(server, expected, elements):
    """Compares the study index and the two index files that belong to this image."""
    folder = archive.study_folder(archive.text(elements, STUDY_UID))
    for path, content in expected.index_files().items():
        if path.startswith((folder + "/", "uid/STUDYINDEX")):
            assert (server.store / path).read_bytes() == content, path


def check_moved(server, sample, was_explicit):
    """It comes back as it was sent, with every word about it in its place."""
    query = query_for("IMAGE", *(archive.text(sample.elements, tag) for tag in
                                 (STUDY_UID, SERIES_UID)), sample.sop_instance)
    with server.client(called="ARCHIVE7", calling="STATION") as association:
        association.message_id = 76
        moved = association.move("DEST", query, priority=1)
    assert moved == Moved(SUCCESS, Counters(1), [Counters(1)])
    received, call = server.provider.received[-1], server.provider.calls[-1]
    assert (call.calling, call.called, call.peer_max_pdu) == ("ARCHIVE7", "DEST", 131072)
    assert {tag: value for tag, value in received.fields.items()
            if tag not in (DATA_SET_TYPE, MESSAGE_ID)} == {
        FIELD: C_STORE, SOP_CLASS: sample.sent.sop_class, SOP_INSTANCE: sample.sop_instance,
        PRIORITY: 1, MOVE_ORIGINATOR: "STATION", MOVE_MESSAGE_ID: 77}
    assert call.ended_by == "release"
    came_back = parse(received.data, received.transfer_syntax)
    assert not differences(sample.elements, came_back, was_explicit)


@pytest.mark.parametrize("name", sorted(UNREADABLE))
def test_uids_of_unknown_representation_are_not_understood(lasting_server, name):
    before = sorted(lasting_server.store.rglob("*"))
    assert send(lasting_server, load(FOLDER / "test_files" / name)) == NOT_UNDERSTOOD
    assert sorted(lasting_server.store.rglob("*")) == before


# ---- character sets (PS3.3, C.12.1.1.2) ----

# The sets of one byte: number, final byte of the escape sequence, Python's codec
SINGLE = [(100, b"A", "iso8859-1"), (101, b"B", "iso8859-2"), (109, b"C", "iso8859-3"),
          (110, b"D", "iso8859-4"), (144, b"L", "iso8859-5"), (127, b"G", "iso8859-6"),
          (126, b"F", "iso8859-7"), (138, b"H", "iso8859-8"), (148, b"M", "iso8859-9"),
          (166, b"T", "tis-620")]
NAMES = [  # Specific Character Set, the name as sent, and as the study record has it
    (None, b"M\xfcller^Eva", b"M\xfcller^Eva"),  # without a character set: as received
    ("ISO_IR 999", b"M\xfcller^Eva", "Müller^Eva".encode()),  # unknown: taken for Latin-1
    ("ISO_IR 6", b"M\xfcller^Eva", b"M"),  # kept up to the byte that cannot be converted
    ("ISO_IR 192", b"Mu\xcc\x88ller", b"Mu\xcc\x88ller"),
    ("ISO_IR 13", b"\xd4\xcf\xc0\xde^\xc0\xdb\xb3", "ﾔﾏﾀﾞ^ﾀﾛｳ".encode()),
    ("GB18030", b"\xcd\xf5^\xd0\xa1\xb6\xab", "王^小东".encode()),
    ("\\ISO 2022 IR 126", b"\x1b-F\xc4^\xe9", b"Incomplete iconv"),  # "^" ends the escape
    ("\\ISO 2022 IR 87", b"A^\x1b$B;3ED", "A^山田".encode()),
    ("\\ISO 2022 IR 87", b"A^\x1b%G", b"Unknown ESC"),
    ("ISO 2022 IR 13\\ISO 2022 IR 87", b"\xd4\xcf\x1b$B;3\x1b(J^\x1b)I\xd4", "ﾔﾏ山^ﾔ".encode()),
    ("\\ISO 2022 IR 159", b"a\x1b$(D\x22\x6f", b">>SCS fail"),
    ("\\ISO 2022 IR 149", b"\x1b$)C\xfb\xf3^\x1b$)C\xd1\xce", "洪^吉".encode()),
    ("ISO_IR 100", b"\xe9" * 40, "é".encode() * 32),  # cut at the 64 bytes of the field
    ("\\x", b"a" * 2040 + b"\x1b%G", b"Unknown ESC"), ("\\x", b"a" * 3000, b"a" * 64),
    ("\\x", b"a" * 2046 + b"\x1b-F\xc4", b"a" * 64)]
GREEK = "ISO 2022 IR 100\\ISO 2022 IR 126"


def patients():
    """(Specific Character Set, text, and as the study record has that as name and as ID)"""
    for charset, text, wanted in NAMES:
        yield charset, text, wanted, None
    for number, final, codec in SINGLE:
        wanted = bytes(range(0xC1, 0xD0)).decode(codec, "ignore")
        text, wanted = wanted.encode(codec), wanted.encode()
        for charset, escape in ((f"ISO_IR {number}", b""),
                                (f"ISO 2022 IR {number}\\ISO 2022 IR 87", b""),
                                (f"\\ISO 2022 IR {number}", b"\x1b-" + final)):
            yield charset, escape + text, wanted, wanted
    for end in "\r\n\f\\^=":  # these bring the first set back, the last two in names only
        text, back = b"\x1b-F\xc4" + end.encode() + b"\xc4", f"Δ{end}Ä".encode()
        yield GREEK, text, back, f"Δ{end}Δ".encode() if end in "^=" else back


def test_names_are_converted_by_their_character_set(server):
    with server.client() as association:
        for number, (charset, text, *_) in enumerate(patients()):
            more = {"PatientName": text, "PatientID": text, "SpecificCharacterSet": charset}
            assert association.store(image(f"1.{number}", "1.2", f"2.{number}", **more)) == SUCCESS
    content = (server.store / "uid/STUDYINDEX.dat").read_bytes()
    for patient, record in zip(patients(), archive.records(content, archive.DATA_SIZE)):
        assert record[64:128].rstrip(b"\0") == patient[2], patient
        assert patient[3] in (None, record[128:192].rstrip(b"\0")), patient


# ---- records ----

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
# A 64-character UID fills its field; the second image brings fewer and shorter values. Every
# printable character counts in the bits, and of the modalities the ninth only adds its bit.
MERGED = [
    image(LONG_UID, LONG_UID, LONG_UID, **RICH),
    image(LONG_UID, LONG_UID, LONG_UID[:-1] + "4", PatientName="Short", Modality="MR",
          PatientID="", PatientBirthDate="19700101", StudyDescription="1"),
    image(LONG_UID, LONG_UID, LONG_UID, **{**RICH, "SeriesDescription": "changed"}),
    *(image(f"1.2.5.{code}", "1.2.5", f"1.2.5.{code}", PatientName=chr(code),
            StudyDescription=chr(code)) for code in range(0x21, 0x7F)),
    *(image("1.2.4", f"1.2.4.{code}", f"1.2.4.{number}", Modality=code) for number, code in
      enumerate(["CT", "CT", "SEG", "CTX", "MR", "PT", "ST", "CR", "NM", "US", "XA"]))]


def test_every_field_of_the_records_and_their_merging(lasting_server, expected):
    """Last of those with samples: the tree holds the expected images and index files, no more."""
    with lasting_server.client(called="TarvoOverwrite") as association:
        for data in MERGED:
            assert association.store(data) == SUCCESS
            expected.store(data)
            check_index_files(lasting_server, expected, parse(data))
    record = (lasting_server.store / "uid/STUDYINDEX.dat").read_bytes()[-512:]
    assert record[384:400] == b"CTSEMRPTSTCRNMUS"
    expected.check(lasting_server.store)


def test_workers_merge_into_what_others_left(server):
    expected = archive.Archive()
    with server.client() as one, server.client() as other:
        for number, (association, modality) in enumerate([(one, "CT"), (other, "MR"), (one, "US")]):
            data = image("1.2", "1.3", f"1.4.{number}", Modality=modality)
            assert association.store(data) == SUCCESS
            expected.store(data)
    expected.check(server.store)


# ---- a second image of the same UID ----

SAME = {"PatientName": "Same^Image", "InstanceNumber": "1", "SeriesDescription": "old"}


@pytest.mark.parametrize("options, called, replaces", [
    ([], "TARVO", False), ([], "TarvoPreserve", False), ([], "TarvoOverwrite", True),
    (["-o"], "TARVO", True), (["-o"], "TarvoPreserve", False), (["-o"], "TarvoOverwrite", True),
    ([], "tarvooverwrite", False), (["-o"], "TarvoPreserver", True)])
def test_whether_a_second_image_replaces_the_first(servers, options, called, replaces):
    server, expected = servers(*options), archive.Archive()
    first = image("1.1", "1.2", "1.2.3", **SAME)
    second = image("1.1", "1.2", "1.2.3", **{**SAME, "SeriesDescription": "new and longer"})
    assert server.store_one(first) == SUCCESS
    assert server.store_one(second, called=called) == (SUCCESS if replaces else ALREADY_THERE)
    stored = server.store / archive.image_path(first)
    assert split_file(stored.read_bytes())[1] == (second if replaces else first)
    message = f"Target file {stored} exists - not storing."
    assert server.messages().count(message) == (0 if replaces else 1)
    # The index files follow the newest image in either case.
    expected.store(first)
    expected.store(second)
    expected.check(server.store)
    # An image sent again rewrites none of them.
    files, past = list(server.store.rglob("*INDEX.*")), int(time.time()) - 1000
    for path in files:
        os.utime(path, (past, past))
    assert server.store_one(second, called="TarvoOverwrite") == SUCCESS
    assert [path.stat().st_mtime for path in files] == [past] * 4


# ---- whole and cut data sets ----

def with_sequence(length):
    """An image with two items in a sequence of undefined or of that length."""
    items = b"\xfe\xff\x00\xe0\x0e\0\0\0\x20\0\x0e\0UI\6\x001.2.34" * 2
    sequence = b"\x08\0\x15\x11SQ\0\0" + (length and len(items) or 0xFFFFFFFF).to_bytes(4, "little")
    end = b"" if length else b"\xfe\xff\xdd\xe0\0\0\0\0"
    whole = image("1.1", "1.2", "1.2.3", pixels=bytes(8))
    at = whole.index(b"\x20\0\x0d\0")
    return whole[:at] + sequence + items + end + whole[at:]


@pytest.mark.parametrize("length", [True, False])
def test_a_data_set_is_stored_in_any_fragments_and_never_cut(server, length):
    data, request = with_sequence(length), store_request(image("1.1", "1.2", "1.2.3"))

    def status_of(*fragments):
        with server.client(called="TarvoOverwrite") as association:
            association.send(association.by_class[SECONDARY_CAPTURE], request, *fragments)
            try:
                return association.receive()[0][STATUS]
            except (Aborted, EOFError):
                association.is_open = False
                return NOT_UNDERSTOOD

    pixels = 20  # bytes: without this last element the data set is whole, too
    for size in set(range(2, len(data), 2)) - {len(data) - pixels}:
        assert status_of(data[:size]) == status_of(data[:size], b"") == NOT_UNDERSTOOD, size
    assert not (server.store / "uid").exists()
    for size in range(2, len(data), 2):
        assert status_of(data[:size], data[size:]) == SUCCESS
        assert status_of(data[:size], data[size:], b"") == SUCCESS
    [path] = server.store.rglob("image_*")
    assert split_file(path.read_bytes())[1].endswith(data[data.index(b"\x20\0\x0d\0UI\4"):])


# ---- patient links and modes ----

LINKED = {"PatientName": "DOE^JOHN ", "PatientBirthDate": "19700101", "PatientID": "A/B-1",
          "StudyDate": "20200229", "StudyTime": "083015.123",
          "StudyDescription": "Thorax / Abdomen",
          "SeriesDate": "20200301", "SeriesTime": "101530.25", "BodyPartExamined": "CHEST",
          "SeriesDescription": "Sér.1".encode("latin-1"), "InstanceNumber": "7"}
BARE_PATIENT, BARE_STUDY = "NoName_19000101_NoID", "19000101_000000_NoDesc"
BARE_SERIES = "19000101_000000_NoBPE_NoDesc"
LINKS = {
    f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm": {},
    "DOE^JOHN_19700101_A_B_1/20200229_083015_Thorax___Abdomen/"
    "20200301_101530_CHEST_S_r.1/z_0007.dcm": LINKED,
    f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_12345.dcm": {"InstanceNumber": "12345"},
    f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_-003.dcm": {"InstanceNumber": "-3"},
    f"NoName_19000101_TooLong/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm": {"PatientID": "x" * 3000},
    f".._19000101_NoID/19000101__NoDesc/{BARE_SERIES}/z_0000.dcm": {"PatientName": "..",
                                                                  "StudyTime": "."}}


def test_patient_links(servers):
    server, expected = servers("-s"), {}
    for number, (link, more) in enumerate(LINKS.items()):
        data = image("1.1", "1.2", f"1.2.{number}", **more)
        assert server.store_one(data) == SUCCESS
        assert server.store_one(data, called="TarvoOverwrite") == SUCCESS  # it is there
        expected[link] = "../../../../" + archive.image_path(data)
    links = server.store / "patient"
    found = {str(path.relative_to(links)): os.readlink(path) for path in links.rglob("*")
             if path.is_symlink()}
    assert found == expected and all((links / link).exists() for link in found)
    # Something in the way refuses the image, which is stored by then.
    place = links / BARE_PATIENT / BARE_STUDY
    for folder, kind in ((place, "series"), (place.parent, "study"), (links, "patient")):
        shutil.rmtree(folder)
        folder.write_text("in the way")
        bare = image("1.1", "1.2", "1.2.99")
        assert server.store_one(bare, called="TarvoOverwrite") == NO_RESOURCES
        server.wait_for_message(f"Cannot create {kind} link directory.")
        folder.unlink()
        folder.mkdir()
    assert (server.store / archive.image_path(bare)).exists()


@pytest.mark.parametrize("options, file_mode, folder_mode", [
    (["-U", "027"], 0o640, 0o750), (["-U", "0"], 0o664, 0o777), (["-U", "077"], 0o600, 0o700)])
def test_modes_of_what_is_created_without_links(servers, options, file_mode, folder_mode):
    server = servers(*options)
    assert server.store_one(image("1.1", "1.2", "1.2.3")) == SUCCESS
    modes = {path: stat.S_IMODE(path.stat().st_mode) for path in server.store.rglob("*")}
    assert {mode for path, mode in modes.items() if path.is_dir()} == {folder_mode}
    assert {mode for path, mode in modes.items() if path.is_file()} == {file_mode}
    assert [path.name for path in server.store.iterdir()] == ["uid"]
