#!/usr/bin/python3
"""How fast queries are answered beside dcmqrscp, how fast images are moved, and what a million
studies cost."""
import contextlib
import pathlib
import statistics
import struct
import subprocess
import time
import zlib

import rig
from harness import ENVIRONMENT, free_port, is_listening, wait_until
from query_retrieve import PENDING, ask, client, identifier, move

ROUNDS = 3
# dcmqrscp has room for 500 studies and throws old ones out for new ones; its index ends at 32 MB.
RIVAL_STUDIES, RIVAL_IMAGES_EACH = 500, 4
STUDIES = 10000
BY_DATE = identifier("STUDY", StudyDate="20260102", StudyInstanceUID="", PatientName="",
                     PatientID="")


def write_studies(folder, studies, images_each):
    """Studies of tiny images; one study in a hundred is of 2026-01-02."""
    image = rig.dcmread(rig.write_images(folder, 1, 2, 2) / "000001.dcm")
    (folder / "000001.dcm").unlink()
    for number in range(studies):
        image.StudyInstanceUID = f"1.2.826.0.1.3680043.10.998.{number}"
        image.SeriesInstanceUID = f"{image.StudyInstanceUID}.1"
        image.PatientName, image.PatientID = f"Person^{number}", f"P{number}"
        image.StudyID, image.AccessionNumber, image.StudyTime = "S", f"A{number}", "101112"
        image.StudyDate = "20260102" if number % 100 == 0 else "20250607"
        for instance in range(images_each):
            image.SOPInstanceUID = f"{image.SeriesInstanceUID}.{instance}"
            image.file_meta.MediaStorageSOPInstanceUID = image.SOPInstanceUID
            image.save_as(folder / f"{number:05}.{instance:02}", write_like_original=False)
    return folder


@contextlib.contextmanager
def dcmqrscp(directory):
    (directory / "db").mkdir(parents=True)
    port = free_port()
    (directory / "config").write_text(
        f"NetworkTCPPort = {port}\nMaxPDUSize = 16384\nMaxAssociations = 16\n"
        "HostTable BEGIN\nHostTable END\nVendorTable BEGIN\nVendorTable END\n"
        f"AETable BEGIN\nRIVAL {directory}/db RW (500, 1024mb) ANY\nAETable END\n")
    process = subprocess.Popen(["dcmqrscp", "-c", str(directory / "config")], env=ENVIRONMENT,
                               stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: is_listening(process.pid, port), what="dcmqrscp")
        yield port, directory / "db"
    finally:
        process.terminate()
        process.wait(10)


class At:
    """What a client of a port needs to know of a server."""

    def __init__(self, port):
        self.port = port


def time_find(port, query, expected, called="TARVO"):
    """Median milliseconds of a C-FIND on an association that is open already."""
    taken = []
    with client(At(port), called=called) as association:
        for _ in range(ROUNDS * 3):
            start = time.perf_counter()
            message = ask(association, query)
            answers = 0
            while association.receive()[0][0x900] == PENDING:
                answers += 1
            taken.append((time.perf_counter() - start) * 1000)
            assert answers == expected, f"{answers} answers instead of {expected} ({message})"
    return statistics.median(taken)


def find_beside_dcmqrscp(workspace):
    images = write_studies(workspace.fresh(), RIVAL_STUDIES, RIVAL_IMAGES_EACH)
    selected = RIVAL_STUDIES // 100
    with rig.tarvo(workspace.fresh()) as (port, _), dcmqrscp(workspace.fresh()) as (rival, _):
        rig.send(port, images)
        rig.send(rival, images, called="RIVAL")
        own = time_find(port, BY_DATE, selected)
        other = time_find(rival, BY_DATE, selected, called="RIVAL")
    print(f"C-FIND that selects 1 % of {RIVAL_STUDIES} studies of {RIVAL_IMAGES_EACH} images: "
          f"Tarvo {own:.2f} ms, dcmqrscp {other:.2f} ms: {other / own:.1f} times as fast")
    images = write_studies(workspace.fresh(), STUDIES, 1)
    with rig.tarvo(workspace.fresh()) as (port, _):
        rig.send(port, images)
        own = time_find(port, BY_DATE, STUDIES // 100)
    print(f"  and 1 % of {STUDIES} studies: Tarvo {own:.2f} ms")


@contextlib.contextmanager
def discarding_sink():
    port = free_port()
    process = subprocess.Popen(["storescp", "--ignore", str(port)], env=ENVIRONMENT)
    try:
        wait_until(lambda: is_listening(process.pid, port), what="the sink")
        yield port
    finally:
        process.terminate()
        process.wait(10)


def move_beside_storescu(workspace):
    count = 500
    images = rig.write_images(workspace.fresh(), count, 512, 512)
    query = identifier("STUDY", StudyInstanceUID="1.2.826.0.1.3680043.10.999.1")
    with discarding_sink() as sink:
        peers = f"sink\tSINK\t127.0.0.1:{sink}\tFMSD\n"
        with rig.tarvo(workspace.fresh(), peers=peers) as (port, _):
            rig.send(port, images)

            def moved():
                with client(At(port)) as association:
                    start = time.perf_counter()
                    result = move(association, "SINK", query)
                    assert result.status == 0 and result.final.completed == count, result
                    return time.perf_counter() - start

            taken = rig.medians(ROUNDS, tarvo=moved, storescu=lambda: rig.send(sink, images))
    print(f"C-MOVE of {count} images of 525 KB: {count / taken['tarvo']:.0f} images/s, storescu "
          f"alone {count / taken['storescu']:.0f}: {taken['storescu'] / taken['tarvo']:.2f} of it")


def write_index(store, count):
    """The study index files of `count` studies, as the server would have written them."""
    folder = store / "uid"
    folder.mkdir(parents=True)
    letters = sum(1 << (ord(letter) - ord("a") + 1) for letter in "person")
    with (folder / "STUDYINDEX.hash").open("wb") as words, \
            (folder / "STUDYINDEX.dat").open("wb") as records:
        for number in range(count):
            uid = f"1.2.3.{number}".encode()
            date = 20260102 if number % 10000 == 0 else 20250607
            words.write(struct.pack("<7L", letters | 1 << 30, 0, 0, 0, date, 1, zlib.crc32(uid)))
            record = uid.ljust(64, b"\0") + f"Person^{number}".encode().ljust(64, b"\0")
            records.write((record + f"P{number}".encode()).ljust(512, b"\0"))


def proportional_set_size(pid):
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1]) / 1024
    raise AssertionError(f"no size of process {pid}")


def echo_milliseconds(port):
    taken = []
    for _ in range(20):
        start = time.perf_counter()
        with client(At(port)):
            pass
        taken.append((time.perf_counter() - start) * 1000)
    return statistics.median(taken)


def growth(workspace):
    print("studies      start  listener    worker  association  1 in 10,000  exact UID   no match")
    for count in (1000, 10000, 100000, 1000000):
        directory = workspace.fresh()
        write_index(directory / "store", count)
        start = time.perf_counter()
        server = rig.harness.Server(directory).start()
        started = (time.perf_counter() - start) * 1000
        with client(server):
            listener, worker = map(proportional_set_size, (server.pid, server.workers()[0]))
        selective = time_find(server.port, identifier("STUDY", StudyDate="20260102",
                                                      StudyInstanceUID=""), -(-count // 10000))
        exact = time_find(server.port, identifier("STUDY", StudyInstanceUID="1.2.3.7"), 1)
        nothing = time_find(server.port, identifier("STUDY", StudyDate="19990101"), 0)
        print(f"{count:7} {started:7.0f} ms {listener:6.1f} MB {worker:6.1f} MB "
              f"{echo_milliseconds(server.port):9.2f} ms {selective:9.2f} ms {exact:7.2f} ms "
              f"{nothing:7.2f} ms")
        server.wait_until_idle()
        server.stop()


def main():
    with rig.Workspace() as workspace:
        find_beside_dcmqrscp(workspace)
        move_beside_storescu(workspace)
        growth(workspace)


if __name__ == "__main__":
    main()
