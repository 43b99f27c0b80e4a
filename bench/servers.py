"""The archive and its rivals, each started at its best: what a client needs to know of them."""
import contextlib
import json
import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/system"))

import harness  # noqa: E402  the running server of the system tests

harness.TARVOD = str(ROOT / "build/release/bin/tarvod")
# Without TCP_NODELAY the toolkit's programs stall 44 ms a message. Tarvo and the clients that stand
# for what is in the field go without.
TUNED = {"PATH": os.environ["PATH"], "TCP_NODELAY": "1", "LC_ALL": "C"}
UNTUNED = {"PATH": os.environ["PATH"], "LC_ALL": "C"}
SINK_PORT = 5001


def proportional_set_size(pid):
    """In kB; nothing for a process that has ended meanwhile."""
    try:
        lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    except (FileNotFoundError, ProcessLookupError):
        return 0
    return sum(int(line.split()[1]) for line in lines if line.startswith("Pss:"))


class Running:
    def __init__(self, pid, port, store):
        self.pid, self.port, self.store = pid, port, store

    def memory(self):
        """Proportional set size of the server and its children in MB."""
        children = pathlib.Path(f"/proc/{self.pid}/task/{self.pid}/children").read_text().split()
        return sum(map(proportional_set_size, [self.pid, *children])) / 1024

    def images_of(self, size):
        """How many files of at least that size are in its store."""
        return sum(1 for path in self.store.rglob("*")
                   if path.is_file() and path.stat().st_size >= size)


@contextlib.contextmanager
def process(directory, store, port, *command):
    store.mkdir(parents=True, exist_ok=True)
    with (directory / "output").open("wb") as output:
        child = subprocess.Popen(command, env=TUNED, stdout=output, stderr=output)
    try:
        harness.wait_until(lambda: harness.is_listening(child.pid, port) or child.poll(), 30,
                           command[0])
        yield Running(child.pid, port, store)
    finally:
        child.terminate()
        child.wait(30)


@contextlib.contextmanager
def tarvo(directory, *options, wait_for_disk=True, prepare=None):
    peers = f"sink\tSINK\t127.0.0.1:{SINK_PORT}\tFMSD\n"
    server = harness.Server(directory, *options, peers=peers)
    server.environment.pop("TCP_NODELAY", None)
    if not wait_for_disk:
        server.environment["TARVO_SYNC"] = "off"
    if prepare:
        prepare(server.store)
    server.start()
    try:
        yield Running(server.pid, server.port, server.store)
    finally:
        server.wait_until_idle()
        server.stop()


def storescp(directory, *options):
    """Receives and saves, and keeps no index: what a store costs at the least."""
    port = harness.free_port()
    return process(directory, directory / "store", port, "storescp", *options, "-od",
                   str(directory / "store"), str(port))


def dcmqrscp(directory):
    """It has room for 500 studies, and its index ends at 32 MB."""
    port, store = harness.free_port(), directory / "store"
    directory.mkdir(parents=True)
    (directory / "config").write_text(
        f"NetworkTCPPort = {port}\nMaxPDUSize = 131072\nMaxAssociations = 64\n"
        f"HostTable BEGIN\nsink = (SINK, 127.0.0.1, {SINK_PORT})\nHostTable END\n"
        "VendorTable BEGIN\nVendorTable END\n"
        f"AETable BEGIN\nARCHIVE {store} RW (500, 4096mb) ANY\nAETable END\n")
    return process(directory, store, port, "dcmqrscp", "-c", str(directory / "config"))


def orthanc(directory, sync=True):
    port = harness.free_port()
    directory.mkdir(parents=True)
    (directory / "config.json").write_text(json.dumps({
        "DicomAet": "ARCHIVE", "DicomPort": port, "HttpServerEnabled": False, "Plugins": [],
        "StorageDirectory": str(directory / "store"), "IndexDirectory": str(directory / "store"),
        "StorageCompression": False, "SyncStorageArea": sync, "OverwriteInstances": True,
        "StoreMD5ForAttachments": False, "StorageAccessOnFind": "Never", "LimitFindResults": 0,
        "LimitFindInstances": 0, "SaveJobs": False, "DicomThreadsCount": 50, "ConcurrentJobs": 4,
        "MaximumPduLength": 131072, "DicomCheckCalledAet": False, "DicomAlwaysAllowEcho": True,
        "DicomAlwaysAllowStore": True, "DicomAlwaysAllowFind": True, "DicomAlwaysAllowMove": True,
        "DicomModalities": {"sink": ["SINK", "127.0.0.1", SINK_PORT]}}))
    return process(directory, directory / "store", port, "Orthanc", str(directory / "config.json"))


# In the order of the table: how each is started for one association at a time, and for several.
ALL = {
    "storescp": (storescp, lambda directory: storescp(directory, "--fork")),
    "dcmqrscp": (dcmqrscp, dcmqrscp),
    "Orthanc": (orthanc, orthanc),
    "Orthanc no sync": (lambda directory: orthanc(directory, sync=False),) * 2,
    "Tarvo": (tarvo, tarvo),
    "Tarvo no sync": (lambda directory: tarvo(directory, wait_for_disk=False),) * 2,
}


def installed():
    names = []
    for name in ALL:
        program = name.split()[0]
        if program == "Tarvo" or shutil.which(program):
            names.append(name)
        else:
            print(f"{name} is not installed: left out")
    return names
