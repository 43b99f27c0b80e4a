"""C-STORE answers in every situation, and the patient links."""
import os
import shutil
import stat
import time

import pytest

import archive
import upper_layer
from data_set import image, parse, split_file
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, Aborted, Association

SUCCESS, KEPT, NO_RESOURCES, NOT_UNDERSTOOD = 0x0000, 0xB006, 0xA700, 0xC000
CONTEXTS = [(SECONDARY_CAPTURE, [EXPLICIT_LE]), (upper_layer.VERIFICATION, [EXPLICIT_LE])]
SAME = {"InstanceNumber": "1", "SeriesDescription": "old"}


def store(server, data, instance="1.2.3", called="TARVO"):
    with Association(server.port, CONTEXTS, called=called) as association:
        return association.store(data, SECONDARY_CAPTURE, instance)


@pytest.mark.parametrize("options, called, replaces", [
    ([], "TARVO", False), ([], "TarvoPreserve", False), ([], "TarvoOverwrite", True),
    (["-o"], "TARVO", True), (["-o"], "TarvoPreserve", False), (["-o"], "TarvoOverwrite", True),
    ([], "tarvooverwrite", False), (["-o"], "TarvoPreserver", True)])
def test_whether_a_second_image_of_the_same_uid_replaces_the_first(servers, options, called,
                                                                   replaces):
    server = servers(*options)
    first = image("1.1", "1.2", "1.2.3", **SAME)
    second = image("1.1", "1.2", "1.2.3", **{**SAME, "SeriesDescription": "new and longer"})
    assert store(server, first) == SUCCESS
    assert store(server, second, called=called) == (SUCCESS if replaces else KEPT)
    stored = server.store / archive.image_path(parse(first, EXPLICIT_LE))
    kept = parse(split_file(stored.read_bytes())[1], EXPLICIT_LE)
    assert kept == parse(second if replaces else first, EXPLICIT_LE)
    message = f"Target file {stored} exists - not storing."
    assert server.messages().count(message) == (0 if replaces else 1)
    # The index files follow the newest image in either case.
    expected = archive.Archive()
    for data in (first, second):
        expected.store(parse(data, EXPLICIT_LE))
    for path, content in expected.index_files().items():
        assert (server.store / path).read_bytes() == content


def test_an_image_sent_again_rewrites_no_index_file(server):
    data = image("1.1", "1.2", "1.2.3", PatientName="Same^Image", **SAME)
    assert store(server, data) == SUCCESS
    files = [path for path in server.store.rglob("*INDEX.*")]
    past = int(time.time()) - 1000
    for path in files:
        os.utime(path, (past, past))
    assert store(server, data, called="TarvoOverwrite") == SUCCESS
    assert [path.stat().st_mtime for path in files] == [past] * 4


def fragments_of(association, *fragments):
    """Sends an image whose data set comes in these fragments. Returns the status, None when the
    association ends instead."""
    request = {upper_layer.MESSAGE_ID: 1, upper_layer.DATA_SET_TYPE: upper_layer.WITH_DATA_SET,
               **association.store_request(SECONDARY_CAPTURE, "1.2.3")}
    pdus = association.data_pdus(1, upper_layer.command_set(request), True)
    for number, fragment in enumerate(fragments, 1):
        pdus += association.data_pdus(1, fragment, False, is_last=number == len(fragments))
    association.socket.sendall(b"".join(pdus))
    try:
        return association.receive()[0][upper_layer.STATUS]
    except (Aborted, EOFError):
        association.is_open = False
        return None


def with_sequence(length):
    """An image with two items in a sequence of undefined or of that length, and 8 bytes behind."""
    items = b"\xfe\xff\x00\xe0\x0e\0\0\0\x20\0\x0e\0UI\6\x001.2.34" * 2
    sequence = b"\x08\0\x15\x11SQ\0\0" + (length and len(items) or 0xFFFFFFFF).to_bytes(4, "little")
    end = b"" if length else b"\xfe\xff\xdd\xe0\0\0\0\0"
    head, tail = image("1.1", "1.2", "1.2.3", pixels=bytes(8)).split(b"\x20\0\x0d\0", 1)
    return head + sequence + items + end, b"\x20\0\x0d\0" + tail


@pytest.mark.parametrize("length", [True, False])
def test_a_data_set_is_stored_in_any_fragments_and_never_cut(server, length):
    head, tail = with_sequence(length)
    data = head + tail
    stored = server.store / "uid"
    association = Association(server.port, CONTEXTS, called="TarvoOverwrite")
    pixels = 20  # bytes: without this last element the data set is whole, too
    for size in set(range(2, len(data), 2)) - {len(data) - pixels}:
        for empty in ([], [b""]):
            if not association.is_open:
                association.socket.close()
                association = Association(server.port, CONTEXTS, called="TarvoOverwrite")
            assert fragments_of(association, data[:size], *empty) in (None, NOT_UNDERSTOOD), size
    association.socket.close()
    assert not stored.exists()
    with Association(server.port, CONTEXTS, called="TarvoOverwrite") as association:
        for size in range(2, len(data), 2):
            assert fragments_of(association, data[:size], data[size:]) == SUCCESS
            assert fragments_of(association, data[:size], data[size:], b"") == SUCCESS
    [path] = stored.rglob("image_*")
    assert split_file(path.read_bytes())[1].endswith(tail)


LINKED = {"PatientName": "DOE^JOHN ", "PatientBirthDate": "19700101", "PatientID": "A/B-1",
          "StudyDate": "20200229", "StudyTime": "083015.123",
          "StudyDescription": "Thorax / Abdomen",
          "SeriesDate": "20200301", "SeriesTime": "101530.25", "BodyPartExamined": "CHEST",
          "SeriesDescription": "Sér.1".encode("latin-1"), "InstanceNumber": "7"}
BARE_PATIENT, BARE_STUDY = "NoName_19000101_NoID", "19000101_000000_NoDesc"
BARE_SERIES = "19000101_000000_NoBPE_NoDesc"


def test_patient_links(servers):
    server = servers("-s")
    names = [
        (f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm", {}),
        ("DOE^JOHN_19700101_A_B_1/20200229_083015_Thorax___Abdomen/"
         "20200301_101530_CHEST_S_r.1/z_0007.dcm", LINKED),
        (f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_12345.dcm", {"InstanceNumber": "12345"}),
        (f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_-003.dcm", {"InstanceNumber": "-3"}),
        (f"NoName_19000101_TooLong/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm",
         {"PatientID": "x" * 3000}),
        (f".._19000101_NoID/19000101__NoDesc/{BARE_SERIES}/z_0000.dcm",
         {"PatientName": "..", "StudyTime": "."})]
    expected = {}
    for number, (link, more) in enumerate(names):
        data = image("1.1", "1.2", f"1.2.{number}", **more)
        assert store(server, data, f"1.2.{number}") == SUCCESS
        assert store(server, data, f"1.2.{number}", "TarvoOverwrite") == SUCCESS  # it is there
        expected[link] = "../../../../" + archive.image_path(parse(data, EXPLICIT_LE))
    links = server.store / "patient"
    found = {str(path.relative_to(links)): os.readlink(path) for path in links.rglob("*")
             if path.is_symlink()}
    assert found == expected
    assert all((links / link).exists() for link in found)


def test_a_blocked_link_tree_refuses_the_stored_image(servers):
    server, blocked = servers("-s"), servers()
    data = image("1.1", "1.2", "1.2.3")
    assert store(blocked, data) == SUCCESS and not (blocked.store / "patient").exists()
    assert store(server, data) == SUCCESS
    place = server.store / "patient" / BARE_PATIENT / BARE_STUDY
    for folder, kind in ((place, "series"), (place.parent, "study"), (place.parents[1], "patient")):
        shutil.rmtree(folder)
        folder.write_text("in the way")
        assert store(server, data, called="TarvoOverwrite") == NO_RESOURCES
        server.wait_for_message(f"Cannot create {kind} link directory.")
        folder.unlink()
        folder.mkdir()
    assert (server.store / archive.image_path(parse(data, EXPLICIT_LE))).exists()


@pytest.mark.parametrize("options, file_mode, folder_mode", [
    (["-U", "027"], 0o640, 0o750), (["-U", "0"], 0o664, 0o777), (["-U", "077"], 0o600, 0o700)])
def test_modes_of_what_is_created(servers, options, file_mode, folder_mode):
    server = servers(*options)
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS
    modes = {path: stat.S_IMODE(path.stat().st_mode) for path in (server.store / "uid").rglob("*")}
    assert {mode for path, mode in modes.items() if path.is_dir()} == {folder_mode}
    assert {mode for path, mode in modes.items() if path.is_file()} == {file_mode}
