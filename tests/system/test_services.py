"""C-STORE answers in every situation, the patient links, and the queries' answers."""
import os
import stat
import time

import pytest

import archive
import harness
import samples
import upper_layer
from data_set import encode, image, parse, split_file
from upper_layer import (EXPLICIT_LE, SECONDARY_CAPTURE, STUDY_ROOT_FIND, STUDY_ROOT_MOVE, Aborted,
                         Association)

SUCCESS, KEPT, NO_RESOURCES, NOT_UNDERSTOOD = 0x0000, 0xB006, 0xA700, 0xC000
CONTEXTS = [(SECONDARY_CAPTURE, [EXPLICIT_LE]), (upper_layer.VERIFICATION, [EXPLICIT_LE])]
SAME = {"InstanceNumber": "1", "SeriesDescription": "old"}


def store(server, data, instance="1.2.3", called="TARVO"):
    with Association(server.port, CONTEXTS, called=called) as association:
        return association.store(data, SECONDARY_CAPTURE, instance)


def tree(folder):
    """{path: (kind and mode, content or link target)} of everything below a folder."""
    found = {}
    for path in folder.rglob("*"):
        content = os.readlink(path) if path.is_symlink() else path.is_file() and path.read_bytes()
        found[str(path.relative_to(folder))] = path.lstat().st_mode, content
    return found


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
    past = time.time() - 1000
    for path in files:
        os.utime(path, (past, past))
    assert store(server, data, called="TarvoOverwrite") == SUCCESS
    assert [path.stat().st_mtime for path in files] == pytest.approx([past] * 4)


@pytest.mark.parametrize("study, series, instance, missing", [
    (None, "1.2", "1.2.3", "StudyInstanceUID"), ("", "1.2", "1.2.3", "StudyInstanceUID"),
    ("1.1", None, "1.2.3", "SeriesInstanceUID"), ("1.1", "1.2", None, "SOPInstanceUID")])
def test_an_image_without_a_uid_is_not_understood(server, study, series, instance, missing):
    assert store(server, image(study, series, instance)) == NOT_UNDERSTOOD
    assert not tree(server.store)
    server.wait_for_message(f"No DCM_{missing}?")


@pytest.mark.parametrize("study, series, instance", [
    ("1/1", "1.2", "1.2.3"), ("../../../../out", "1.2", "1.2.3"), ("/", "1.2", "1.2.3"),
    ("1.1", "1/2", "1.2.3"), ("1.1", "/../../../../../out", "1.2.3"),
    ("1.1", "1.2", "1/3"), ("1.1", "1.2", "/../../../../../../../out")])
@pytest.mark.parametrize("occupied", [False, True], ids=["empty store", "store in use"])
def test_a_uid_with_a_slash_creates_nothing(servers, study, series, instance, occupied):
    server = servers("-s")
    if occupied:
        assert store(server, image("1.1", "1.2", "1.2.4")) == SUCCESS
    before, around = tree(server.store), set(server.directory.iterdir())
    assert store(server, image(study, series, instance), instance="1.2.3") == NO_RESOURCES
    assert tree(server.store) == before
    assert set(server.directory.iterdir()) == around


def test_an_unusable_store_is_reported_and_then_used_once_it_is_usable(servers):
    server = servers()
    (server.store / "uid").write_text("in the way")
    assert store(server, image("1.1", "1.2", "1.2.3")) == NO_RESOURCES
    (server.store / "uid").unlink()
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS
    # A hash file of a length that cannot be makes every image fail, and stays as it is.
    hash_file = server.store / "uid/STUDYINDEX.hash"
    for damaged in (hash_file.read_bytes() + b"x", hash_file.read_bytes()[:-1]):
        hash_file.write_bytes(damaged)
        assert store(server, image("1.9", "1.2", "1.2.4"), "1.2.4") == NO_RESOURCES
        assert hash_file.read_bytes() == damaged


TRUNCATED = samples.FOLDER / "test_files/MR_truncated.dcm"
BROKEN = {
    "ends in a value": lambda: split_file(TRUNCATED.read_bytes())[1],
    "random": lambda: bytes((7 * number * number + 3) % 256 for number in range(5000)),
    "other transfer syntax": lambda: image("1.1", "1.2", "1.2.3").replace(b"UI", b"\x10\0"),
}


@pytest.mark.parametrize("what", BROKEN)
def test_a_broken_data_set_is_not_acknowledged(server, what):
    """It may end the association, but neither the server nor a Success."""
    with Association(server.port, CONTEXTS) as association:
        try:
            status = association.store(BROKEN[what](), SECONDARY_CAPTURE, "1.2.3")
        except (Aborted, EOFError):
            association.is_open, status = False, None
        assert status != SUCCESS
    assert not list(server.store.rglob("image_*"))
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS


LINKED = {"PatientName": "DOE^JOHN ", "PatientBirthDate": "19700101", "PatientID": "A/B-1",
          "StudyDate": "20200229", "StudyTime": "083015.123",
          "StudyDescription": "Thorax / Abdomen",
          "SeriesDate": "20200301", "SeriesTime": "101530.25", "BodyPartExamined": "CHEST",
          "SeriesDescription": "Sér.1".encode("latin-1"), "InstanceNumber": "7"}
BARE_PATIENT, BARE_STUDY = "NoName_19000101_NoID", "19000101_000000_NoDesc"
BARE_SERIES = "19000101_000000_NoBPE_NoDesc"


@pytest.mark.parametrize("more, link", [
    ({}, f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm"),
    (LINKED, "DOE^JOHN_19700101_A_B_1/20200229_083015_Thorax___Abdomen/"
             "20200301_101530_CHEST_S_r.1/z_0007.dcm"),
    ({"InstanceNumber": "12345"}, f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_12345.dcm"),
    ({"InstanceNumber": "-3"}, f"{BARE_PATIENT}/{BARE_STUDY}/{BARE_SERIES}/z_-003.dcm"),
    ({"PatientID": "x" * 3000}, f"NoName_19000101_TooLong/{BARE_STUDY}/{BARE_SERIES}/z_0000.dcm"),
], ids=["bare", "full", "large number", "negative number", "too long"])
def test_patient_links(servers, more, link):
    server = servers("-s")
    data = image("1.1", "1.2", "1.2.3", **more)
    assert store(server, data) == SUCCESS
    assert store(server, data, called="TarvoOverwrite") == SUCCESS  # the link exists
    found = [path for path in (server.store / "patient").rglob("*") if path.is_symlink()]
    stored = archive.image_path(parse(data, EXPLICIT_LE))
    # The server strips the padding blank of a value before it cleans the name.
    assert [str(path.relative_to(server.store / "patient")) for path in found] == [link]
    assert os.readlink(found[0]) == "../../../../" + stored
    assert found[0].resolve() == (server.store / stored).resolve()


def test_without_the_option_there_are_no_links(server):
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS
    assert not (server.store / "patient").exists()


def test_a_blocked_link_tree_refuses_the_stored_image(servers):
    server = servers("-s")
    (server.store / "patient").write_text("in the way")
    data = image("1.1", "1.2", "1.2.3")
    assert store(server, data) == NO_RESOURCES
    server.wait_for_message("Cannot create patient link directory.")
    assert (server.store / archive.image_path(parse(data, EXPLICIT_LE))).exists()


@pytest.mark.parametrize("options, file_mode, folder_mode", [
    (["-U", "027"], 0o640, 0o750), (["-U", "0"], 0o664, 0o777), (["-U", "077"], 0o600, 0o700)])
def test_modes_of_what_is_created(servers, options, file_mode, folder_mode):
    server = servers(*options)
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS
    modes = {path: stat.S_IMODE(path.stat().st_mode) for path in (server.store / "uid").rglob("*")}
    assert {mode for path, mode in modes.items() if path.is_dir()} == {folder_mode}
    assert {mode for path, mode in modes.items() if path.is_file()} == {file_mode}


@pytest.mark.parametrize("ending", ["abort", "close"])
def test_a_transfer_that_stops_half_way_leaves_nothing(server, ending):
    data = image("1.1", "1.2", "1.2.3", pixels=bytes(100000))
    association = Association(server.port, CONTEXTS)
    association.store_part(data, SECONDARY_CAPTURE, "1.2.3", 50000)
    association.abort() if ending == "abort" else association.socket.close()
    server.wait_until_idle()
    assert not tree(server.store)
    if ending == "abort":
        server.wait_for_message("Association aborted")
    assert store(server, data) == SUCCESS


@pytest.mark.parametrize("level, keys", [
    ("STUDY", {}), ("PATIENT", {}), ("SERIES", {}), ("IMAGE", {}), ("NONSENSE", {}),
    ("SERIES", None)])
@pytest.mark.parametrize("field, model", [(upper_layer.C_FIND, STUDY_ROOT_FIND),
                                          (upper_layer.C_MOVE, STUDY_ROOT_MOVE)])
def test_a_query_without_matches_ends_with_success(server, level, keys, field, model):
    assert store(server, image("1.1", "1.2", "1.2.3")) == SUCCESS
    identifier = {(0x8, 0x52): ("CS", level)}
    if keys is not None:
        identifier[(0x20, 0xD)] = ("UI", "1.99")
    with Association(server.port, [(model, [EXPLICIT_LE])]) as association:
        for _ in range(2):
            destination = {upper_layer.DESTINATION: "NOBODY"} if field == upper_layer.C_MOVE else {}
            sent = association.send(1, {upper_layer.FIELD: field, upper_layer.SOP_CLASS: model,
                                        upper_layer.PRIORITY: 0, **destination}, encode(identifier))
            fields, extra = association.receive()
            assert (fields[upper_layer.FIELD], extra) == (field | 0x8000, None)
            assert fields[upper_layer.RESPONDED_TO] == sent
            assert fields[upper_layer.STATUS] == SUCCESS


def test_the_toolkits_query_client_is_served(server):
    done = harness.run("findscu", "-S", "-k", "QueryRetrieveLevel=STUDY",
                       "-k", "StudyInstanceUID=1.99", "127.0.0.1", str(server.port))
    assert (done.returncode, done.stdout) == (0, b"")
