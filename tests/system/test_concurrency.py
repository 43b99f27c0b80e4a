"""Many associations store at once: every image answered with Success has one record a level."""
import multiprocessing

import pytest

import archive
from data_set import image, parse
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, Association

SENDERS = 8


# name: (images of each sender, study of an image)
LAYOUTS = {
    "one series": (300, lambda sender, number: "1.2.840.1"),
    "eight studies": (300, lambda sender, number: f"1.2.840.{sender + 1}"),
    "a study for each image": (75, lambda sender, number: f"1.2.840.{sender + 1}.{number}"),
}


def images_of(sender, layout):
    """[(SOP Instance UID, data set bytes)] of one sender."""
    count, study_of = LAYOUTS[layout]
    made = []
    for number in range(count):
        study, uid = study_of(sender, number), f"1.2.840.9.{sender}.{number}"
        made.append((uid, image(study, study + ".5", uid, PatientName="Many^Senders",
                                Modality="CT", InstanceNumber=str(number))))
    return made


def send(port, sender, layout, start, results):
    """Runs in a process of its own, so that the senders do not take turns."""
    todo = images_of(sender, layout)
    with Association(port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])], patience=100) as association:
        start.wait(timeout=60)
        results.put([association.store(data, SECONDARY_CAPTURE, uid) for uid, data in todo])


def send_all_at_once(ports, layout):
    """All senders at once, in turn to each of `ports`; returns the statuses."""
    context = multiprocessing.get_context("fork")
    start, results = context.Barrier(SENDERS), context.Queue()
    senders = [context.Process(target=send, args=(ports[number % len(ports)], number, layout,
                                                  start, results)) for number in range(SENDERS)]
    for sender in senders:
        sender.start()
    statuses = [status for _ in senders for status in results.get(timeout=110)]
    for sender in senders:
        sender.join(timeout=20)
        assert sender.exitcode == 0
    return statuses


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("server_count", [1, 2])
def test_every_image_has_one_record_at_each_level(servers, layout, server_count):
    first = servers()
    ports = [first.port] + [servers(store=first.store).port for _ in range(server_count - 1)]
    statuses = send_all_at_once(ports, layout)
    assert statuses == [0x0000] * (SENDERS * LAYOUTS[layout][0])

    expected = archive.Archive()
    for sender in range(SENDERS):
        for _, data in images_of(sender, layout):
            expected.store(parse(data, EXPLICIT_LE))
    found = {str(path.relative_to(first.store))
             for path in first.store.rglob("*") if path.is_file()}
    assert found == expected.paths | expected.index_files().keys()
    for path, content in expected.index_files().items():
        check_same_records(path, (first.store / path).read_bytes(), content)
    check_same_order(first.store)


def record_size(path):
    sizes = {"STUDYINDEX.hash": archive.HASH_SIZE, "STUDYINDEX.dat": archive.DATA_SIZE,
             "SERIESINDEX.dat": archive.SERIES_RECORD[0], "IMAGEINDEX.dat": archive.IMAGE_RECORD[0]}
    return sizes[path.rpartition("/")[2]]


def check_same_records(path, stored, expected):
    """The order of the records is that of arrival, which nobody can foretell."""
    size = record_size(path)
    assert sorted(archive.records(stored, size)) == sorted(archive.records(expected, size)), path


def check_same_order(store):
    """Entry n of the hash file and record n of the data file are of the same study."""
    entries = archive.records((store / "uid/STUDYINDEX.hash").read_bytes(), archive.HASH_SIZE)
    studies = archive.records((store / "uid/STUDYINDEX.dat").read_bytes(), archive.DATA_SIZE)
    crcs = [int.from_bytes(entry[24:], "little") for entry in entries]
    assert crcs == [archive.crc(study[:64].rstrip(b"\0")) for study in studies]
